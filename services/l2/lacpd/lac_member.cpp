#include "lac_member.h"

#include "channel_group.h"
#include "lac_port.h"

#include "keldatabase/keldatabase.h"

#include <algorithm>
#include <cstdio>

Published<bool> lacMemberWriting;

namespace
{

// Numbers and names that the failure messages carry.
constexpr int ADD_FAILURE_LINE = 803;
constexpr char ADD_NAME[] = "lac_add_port_to_aggregator";
constexpr int DELETE_FAILURE_LINE = 849;
constexpr char DELETE_NAME[] = "lac_bcm_remove_port_from_trunk";

constexpr std::size_t INTERFACE_NAME_SIZE = 32;

// What a round may take of a tick's second: the timers of all ports wait meanwhile.
constexpr std::uint64_t ROUND_MS = 400;

bool is_certain(const LacPort *port, std::uint32_t wanted)
{
    return port->member_written == wanted && port->member_tries == 0;
}

int add(const LacPort *port, std::uint32_t group)
{
    char name[INTERFACE_NAME_SIZE] = {};
    snprintf(name, sizeof(name), "gigabitethernet %d/%d", LAC_SLOT, port->port_no);
    const int result = db_olt_lacp_set_group_member_port(static_cast<int>(group), &g_lacpd_db, name, sizeof(name), 1);
    if (result != 0)
        printf("LINE %d FUNC %s add interface to lacp-group database failed! ret=%d\n", ADD_FAILURE_LINE, ADD_NAME,
               result);
    return result;
}

int remove(const LacPort *port, std::uint32_t group)
{
    const int result =
        db_olt_lacp_del_group_member_port(static_cast<int>(group), LAC_SLOT, port->port_no, &g_lacpd_db);
    if (result != 0)
        printf("LINE %d FUNC %s del interface from lacp-group database failed! ret=%d\n", DELETE_FAILURE_LINE,
               DELETE_NAME, result);
    return result;
}

// One settling of all ports. The first write that finds the datastore busy ends it: the others would too.
class Round
{
  public:
    // A group that is not dynamic any more has lost its list, or has one that is not ours.
    void take_out(LacPort *port)
    {
        std::uint32_t type = CHANNEL_GROUP_UNSET;
        get_channel_group_type(static_cast<int>(port->member_written), &type);
        const int result = type == CHANNEL_GROUP_MANUAL ? KEL_DB_NOT_THERE
                           : may_write()                ? remove(port, port->member_written)
                                                        : KEL_DB_BUSY;
        note(result);
        const bool gone = result == 0 || result == KEL_DB_NOT_THERE;
        port->member_written = gone ? 0 : port->member_written.get();
        port->member_tries = gone ? 0 : 1; // what it stays in may go by itself, with the group's entry
    }

    // True when the port is barred now.
    bool put_in(LacPort *port, std::uint32_t group)
    {
        port->member_written = group; // a client may take it out before this write has come back
        const int result = may_write() ? add(port, group) : KEL_DB_BUSY;
        note(result);
        port->member_written = result == 0 || result == KEL_DB_BUSY ? group : 0;
        if (result == 0) {
            port->member_tries = port->member_bar = 0;
            return false;
        }
        port->member_tries += 1;
        if (result == KEL_DB_BUSY && port->member_tries <= LAC_MEMBER_TRIES)
            return false;
        port->member_tries = 0;
        port->member_bar = std::clamp(port->member_bar * 2, LAC_MEMBER_BAR_TICKS, LAC_MEMBER_LONGEST_BAR_TICKS);
        port->member_barred = port->member_bar;
        return true;
    }

  private:
    bool may_write() const { return !busy_ && lac_now_ms() - began_ms_ < ROUND_MS; }
    void note(int result) { busy_ = busy_ || result == KEL_DB_BUSY; }

    bool busy_ = false;
    std::uint64_t began_ms_ = lac_now_ms();
};

// Groups, as bits, whose lists are to be read: somebody else has changed them.
std::uint32_t lists_due;

std::uint32_t named_ports(char **names, std::uint32_t count)
{
    std::uint32_t ports = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        int slot = 0;
        unsigned port = 0;
        if (sscanf(names[i], "gigabitethernet %d/%u", &slot, &port) == 2)
            ports |= 1U << ((port - 1) % 32);
    }
    return ports;
}

// What a list has counts as written, whoever wrote it. A port is in one list at most.
void read_list(std::uint32_t group)
{
    char **names = nullptr;
    std::uint32_t count = 0;
    if (db_olt_lacp_get_group_member_port(static_cast<int>(group), &g_lacpd_db, &names, &count) != 0)
        return;
    const std::uint32_t list = named_ports(names, count);
    db_free_string_array_val(names, count);
    lists_due &= ~(1U << group);
    lac_note_change();
    for (LacPort *port : lac_ports()) {
        const bool is_in = (list & lac_port_bit(port)) != 0;
        if (is_in || port->member_written == group)
            port->member_written = is_in ? group : 0;
    }
}

void read_lists_due()
{
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
        if ((lists_due >> group & 1) != 0)
            read_list(static_cast<std::uint32_t>(group));
}

} // namespace

void lacMemberListChanged(std::uint32_t group)
{
    lists_due |= 1U << (group % 32);
}

std::uint32_t lacMemberWanted(const LacPort *port)
{
    const bool agreed = (port->heard_state & port->told_state & LAC_SYNCHRONIZATION) != 0;
    const bool collects = port->attached == 1 && port->coll_dist == 1 && port->selected == LAC_SELECTED;
    return agreed && collects && port->individual == 0 ? port->attached_group : 0;
}

bool lacMemberOwed(const LacPort *port)
{
    return !is_certain(port, lacMemberWanted(port));
}

// First those that leave: a group's list has room for four. A port that is still in another group's list is not
// written, or it would be in two trunks.
std::uint32_t lacSettleMembers(bool retry)
{
    std::uint32_t due = 0;
    if (retry)
        read_lists_due();
    for (LacPort *port : lac_ports()) {
        const std::uint32_t wanted = lacMemberWanted(port);
        if ((retry || wanted != port->member_wanted) && !is_certain(port, wanted))
            due |= lac_port_bit(port);
        port->member_wanted = wanted;
    }
    if (due == 0)
        return 0;
    lac_note_change();
    lacMemberWriting = true;
    Round round;
    std::uint32_t barred = 0;
    for (LacPort *port : lac_ports())
        if ((due & lac_port_bit(port)) != 0 && port->member_written != 0 &&
            port->member_written != port->member_wanted)
            round.take_out(port);
    for (LacPort *port : lac_ports()) {
        const bool elsewhere = port->member_written != 0 && port->member_written != port->member_wanted;
        if ((due & lac_port_bit(port)) != 0 && port->member_wanted != 0 && !elsewhere &&
            round.put_in(port, port->member_wanted))
            barred |= lac_port_bit(port);
    }
    lacMemberWriting = false;
    return barred;
}
