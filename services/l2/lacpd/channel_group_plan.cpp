#include "channel_group_plan.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "lac_port.h"
#include "lac_store.h"
#include "lac_task.h"
#include "lacp_sclient.h"

#include "keldatabase/keldatabase.h"

#include <cstdio>

namespace
{

constexpr std::size_t JOIN_MESSAGES = 3;
constexpr std::size_t LEAVE_MESSAGES = 2;

// The caller has taken room for the messages of these two.
int join_group(std::uint32_t port, std::uint32_t group)
{
    set_lacp_channel_group_id(port, group);
    set_lacp_port_oper_key(port, static_cast<std::uint16_t>(group));
    return set_lacp_port_enable(static_cast<int>(port));
}

void leave_group(std::uint32_t port, std::uint32_t group)
{
    set_lacp_port_state(port, 0);
    update_lacp_select_port(static_cast<int>(port), group);
}

bool is_or_will_be_in(const LacPort *port, std::uint32_t group)
{
    return (port->lacp_enabled == 1 && port->channel_group_id == group) || lacp_told(port->port_no).group == group;
}

std::uint32_t type_of(std::uint32_t group)
{
    std::uint32_t type = CHANNEL_GROUP_UNSET;
    get_channel_group_type(static_cast<int>(group), &type);
    return type;
}

std::uint32_t members_of(int group)
{
    std::uint32_t list = 0;
    get_channel_group_port_list(group, &list);
    return list;
}

bool is_in(std::uint32_t list, std::uint32_t port)
{
    return (list >> ((port - 1) % 32) & 1) != 0;
}

// A request that could not be sent reaches the driver service when it is there again. The change stands in the table
// by then, so it is accepted: the datastore and the table must not part.
int accept_unsent(int result, int group, std::uint32_t port, bool member)
{
    return result == LAC_FAILED && is_in(members_of(group), port) == member ? LAC_OK : result;
}

bool has_link(int slot, std::uint32_t port)
{
    std::uint32_t up = 0;
    return get_channel_group_port_link_status(slot, port, &up) == LAC_OK;
}

} // namespace

// ---- single changes ---------------------------------------------------------------------------------------------

int set_group_type(int group, std::string_view type)
{
    if (type == "manual")
        set_manual_channel_group_type(group);
    if (type == "dynamic") {
        set_dynamic_channel_group_type(group);
        start_lacp_once_cfg();
    }
    return set_channel_group_used(group, 1);
}

int remove_group(int group)
{
    const LacQueueRoom room(LAC_MAX_PORTS);
    if (!room)
        return LAC_FAILED;
    std::uint32_t uplinks = 0;
    if (get_channel_group_uplink_port_count(group, &uplinks) == LAC_OK && uplinks > 0)
        lacp_trunk_destory(static_cast<std::uint32_t>(group));
    for (const LacPort *port : lac_ports())
        if (is_or_will_be_in(port, static_cast<std::uint32_t>(group)))
            set_lacp_port_state(port->port_no, 0);
    const int result = reset_channel_group(group);
    printf("LACP Msg: channel-group %d has been reset!\n", group);
    return result;
}

int change_channel_group(std::uint32_t port, std::uint32_t old_group, std::uint32_t group)
{
    const bool leaves = old_group != 0 && old_group != group && type_of(old_group) == CHANNEL_GROUP_DYNAMIC;
    const bool joins = type_of(group) == CHANNEL_GROUP_DYNAMIC;
    const LacQueueRoom room((leaves ? LEAVE_MESSAGES : 0) + (joins ? JOIN_MESSAGES : 0));
    if (!room)
        return LAC_FAILED;
    if (leaves)
        leave_group(port, old_group);
    return joins ? join_group(port, group) : LAC_OK;
}

int add_member(int group, int slot, std::uint32_t port)
{
    const int result = set_channel_group_add_port(group, slot, port);
    printf("LACP Msg: interface %d/%d is %s added to channel-group %d!\n", slot, port,
           result == LAC_OK ? "OK" : "falied", group);
    return has_link(slot, port) ? accept_unsent(result, group, port, true) : result;
}

int remove_member(int group, int slot, std::uint32_t port)
{
    const int result = set_channel_group_del_port(group, slot, port);
    printf("LACP Msg: interface %d/%d is %s remove from channel-group %d!\n", slot, port,
           result == LAC_OK ? "OK" : "failed", group);
    return accept_unsent(result, group, port, false);
}

static Mac mac_in(const char *text, Mac mac)
{
    sscanf(text, "%02hhx%02hhx.%02hhx%02hhx.%02hhx%02hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5]);
    return mac;
}

int change_system_id(const char *text)
{
    return set_lacp_system_mac(mac_in(text, lacp_told_system_mac()));
}

// ---- the whole --------------------------------------------------------------------------------------------------

namespace
{

constexpr char DEFAULT_LOAD_BALANCE[] = "src-mac";
constexpr int RESEND = 2; // neither up nor down: no list changes

std::uint32_t in_two_groups()
{
    std::uint32_t seen = 0;
    std::uint32_t twice = 0;
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
        twice |= seen & members_of(group);
        seen |= members_of(group);
    }
    return twice;
}

std::uint32_t type_named(std::string_view name)
{
    if (name.empty())
        return CHANNEL_GROUP_UNSET;
    return name == "manual" ? CHANNEL_GROUP_MANUAL : CHANNEL_GROUP_DYNAMIC;
}

bool settle_type(int group, const DbLacpGroup &configured)
{
    const std::uint32_t wanted = type_named(configured.type);
    const std::uint32_t type = type_of(static_cast<std::uint32_t>(group));
    if (type == wanted)
        return true;
    if (type != CHANNEL_GROUP_UNSET && remove_group(group) != LAC_OK)
        return false;
    if (wanted != CHANNEL_GROUP_UNSET)
        set_group_type(group, configured.type);
    return true;
}

void settle_load_balance(int group, const DbLacpGroup &configured)
{
    const std::string wanted = configured.load_balance.empty() ? DEFAULT_LOAD_BALANCE : configured.load_balance;
    char name[LOAD_BALANCE_NAME_SIZE] = {};
    if (get_channel_group_load_balance_str(group, name, sizeof(name)) == LAC_OK && wanted != name)
        set_channel_group_load_balance_str(group, wanted.c_str());
}

void each_port(std::uint32_t list, int group, int (*act)(int group, int slot, std::uint32_t port))
{
    for (std::uint32_t port = 1; port <= 32; ++port)
        if (is_in(list, port))
            act(group, LAC_SLOT, port);
}

// The members of a dynamic group are the dispatcher's, which looks at a list that is not as it wrote it.
bool settle_written(int group, const DbLacpGroup &configured)
{
    std::uint32_t written = 0;
    for (const LacPort *port : lac_ports())
        if (port->member_written == static_cast<std::uint32_t>(group))
            written |= lac_port_bit(port);
    return type_of(static_cast<std::uint32_t>(group)) != CHANNEL_GROUP_DYNAMIC || written == configured.members ||
           lacWaitAndSend("settle_written", LAC_Q_GROUP_LIST, 0, static_cast<std::uint64_t>(group)) == LAC_OK;
}

// A member's link as the datastore has it. A dynamic group's member whose link goes leaves through the protocol.
void settle_link(int group, std::uint32_t port, bool up)
{
    std::uint32_t uplinks = 0;
    get_channel_group_uplink_port_list(group, &uplinks);
    const bool is_uplink = is_in(uplinks, port);
    if (up != is_uplink && (up || type_of(static_cast<std::uint32_t>(group)) == CHANNEL_GROUP_MANUAL))
        deal_channel_group_updown_port(group, LAC_SLOT, port, up, 0);
}

bool settle_membership(std::uint32_t port, std::uint32_t group)
{
    const PortTold told = lacp_told(port);
    if (told.group == group)
        return true;
    const LacQueueRoom room(LEAVE_MESSAGES + JOIN_MESSAGES);
    if (!room)
        return false;
    if (told.group != 0)
        leave_group(port, told.group);
    if (group != 0)
        join_group(port, group);
    return true;
}

// A removed join-port entry has taken the number of a port that is in its group all the same; one that is there gives
// it back.
bool settle_number(std::uint32_t port, const DbLacpConfiguration &configured)
{
    const PortTold told = lacp_told(port);
    const bool taken = told.group != 0 && told.number == 0 && is_in(configured.groups[told.group - 1].joined, port);
    return !taken || set_lacp_channel_group_id(port, told.group) != nullptr;
}

bool settle_port(std::uint32_t port, const DbLacpConfiguration &configured)
{
    const DbLacpPort &wanted = configured.ports[port - 1];
    const bool passive = wanted.mode == "passive";
    const bool short_timeout = wanted.timeout == "short";
    const std::uint32_t group = type_of(wanted.group) == CHANNEL_GROUP_DYNAMIC ? wanted.group : 0;
    bool done = passive == lacp_told(port).passive || set_lacp_port_mode(LAC_SLOT, port, !passive) == LAC_OK;
    done &= wanted.priority == lacp_told(port).priority ||
            set_lacp_port_priority(LAC_SLOT, port, wanted.priority) == LAC_OK;
    done &= short_timeout == lacp_told(port).short_timeout ||
            set_lacp_port_timeout(LAC_SLOT, port, short_timeout) == LAC_OK;
    return settle_membership(port, group) && done;
}

} // namespace

// Ports leave all groups before they come to one: a port that moves must not be in two trunks. Where a handler has
// put it into a second one all the same, the switch has taken it out of the first, which is sent again.
bool settle_groups(const DbLacpConfiguration &configured)
{
    const std::uint32_t shared = in_two_groups();
    bool done = true;
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
        const DbLacpGroup &wanted = configured.groups[group - 1];
        done &= settle_type(group, wanted);
        settle_load_balance(group, wanted);
        each_port(members_of(group) & ~wanted.members, group, remove_member);
    }
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
        const DbLacpGroup &wanted = configured.groups[group - 1];
        each_port(wanted.members & ~members_of(group), group, add_member);
        done &= settle_written(group, wanted);
        if ((members_of(group) & shared) != 0)
            deal_channel_group_updown_port(group, LAC_SLOT, 0, RESEND, 0);
    }
    for (const LacPort *port : lac_ports())
        done &= settle_number(port->port_no, configured);
    return done;
}

bool settle_links(const DbLacpConfiguration &configured)
{
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
        for (std::uint32_t port = 1; port <= KEL_DB_PORTS; ++port)
            if (is_in(members_of(group), port))
                settle_link(group, port, configured.ports[port - 1].link_up);
    return true;
}

bool settle_ports(const DbLacpConfiguration &configured)
{
    bool done = true;
    for (const LacPort *port : lac_ports())
        done &= settle_port(port->port_no, configured);
    return done;
}

bool settle_system(const DbLacpConfiguration &configured)
{
    const std::uint16_t priority = configured.system_priority.value_or(LAC_DEFAULT_PRIORITY);
    const Mac mac = mac_in(configured.system_id.c_str(), lacp_told_system_mac());
    const bool done = priority == lacp_told_system_priority() || set_lacp_system_priority(priority) == LAC_OK;
    return (mac == lacp_told_system_mac() || set_lacp_system_mac(mac) == LAC_OK) && done;
}
