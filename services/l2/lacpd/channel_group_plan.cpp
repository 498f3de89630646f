#include "channel_group_plan.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "lac_port.h"
#include "lac_store.h"
#include "lac_task.h"
#include "lacp_sclient.h"

#include "keldatabase/keldatabase.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

constexpr std::size_t TYPE_TEXT_SIZE = 16;

// The dynamic group that a port was last sent to; the dispatcher may not have read it yet.
std::uint32_t sent_to[LAC_MAX_PORTS];

// When the mode leaf of a port last changed; 0 when it was deleted since.
std::uint64_t mode_changed_ms[LAC_MAX_PORTS];

// What another client may write in one transaction is done within this time: what a handler has seen and cannot read
// may still be on its way into the datastore.
constexpr std::uint64_t TRANSACTION_MS = 5000;

constexpr std::size_t JOIN_MESSAGES = 4;
constexpr std::size_t LEAVE_MESSAGES = 2;

// Without the leaf a port is active, whatever it was when it was last in a group.
int restore_mode(std::uint32_t port)
{
    if (lac_now_ms() - mode_changed_ms[(port - 1) % LAC_MAX_PORTS] < TRANSACTION_MS)
        return LAC_OK;
    char text[TYPE_TEXT_SIZE] = {};
    std::uint32_t size = sizeof(text);
    const bool passive =
        db_olt_lacp_get_trunk_mode(LAC_SLOT, port, &g_lacpd_db, text, &size) == 0 && strcmp(text, "passive") == 0;
    return set_lacp_port_mode(LAC_SLOT, port, passive ? 0 : 1);
}

// The caller has taken room for the messages of these two.
int join_group(std::uint32_t port, std::uint32_t group)
{
    sent_to[(port - 1) % LAC_MAX_PORTS] = group;
    set_lacp_channel_group_id(port, group);
    set_lacp_port_oper_key(port, static_cast<std::uint16_t>(group));
    restore_mode(port);
    return set_lacp_port_enable(static_cast<int>(port));
}

void leave_group(std::uint32_t port, std::uint32_t group)
{
    sent_to[(port - 1) % LAC_MAX_PORTS] = 0;
    set_lacp_port_state(port, 0);
    update_lacp_select_port(static_cast<int>(port), group);
}

// A port whose leaf named a group that has no type yet. Another client may write both in one transaction, whose
// modules come in any order and which no handler can read before it is committed. A wish lasts as long as a
// transaction may, so that a refused one leaves nothing behind.
struct Wish {
    std::uint32_t group;
    std::uint64_t at_ms;
};
Wish wishes[LAC_MAX_PORTS];

bool wishes_for(std::uint32_t port, int group)
{
    const Wish &wish = wishes[(port - 1) % LAC_MAX_PORTS];
    return static_cast<int>(wish.group) == group && lac_now_ms() - wish.at_ms < TRANSACTION_MS;
}

bool is_configured_for(std::uint32_t port, int group)
{
    bool answer = false;
    return lacConfiguredIn(port, static_cast<std::uint32_t>(group), answer) == 0 && answer;
}

// The other client may also have deleted the group and create it again: ports still configured for it come back.
void join_configured_ports(int group)
{
    for (std::uint32_t port = intf.first_uplink_port; port != 0 && port <= intf.last_uplink_port; ++port)
        if (wishes_for(port, group) || is_configured_for(port, group))
            join_group(port, static_cast<std::uint32_t>(group));
}

bool is_or_will_be_in(const LacPort *port, std::uint32_t group)
{
    return (port->lacp_enabled == 1 && port->channel_group_id == group) ||
           sent_to[(port->port_no - 1) % LAC_MAX_PORTS] == group;
}

std::uint32_t type_of(std::uint32_t group)
{
    std::uint32_t type = CHANNEL_GROUP_UNSET;
    get_channel_group_type(static_cast<int>(group), &type);
    return type;
}

} // namespace

int set_group_type(int group, std::string_view type)
{
    if (type == "manual")
        set_manual_channel_group_type(group);
    if (type == "dynamic") {
        const LacQueueRoom room(LAC_MAX_PORTS * JOIN_MESSAGES);
        if (!room)
            return LAC_FAILED;
        set_dynamic_channel_group_type(group);
        start_lacp_once_cfg();
        join_configured_ports(group);
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
    for (const LacPort *port : lac_ports()) {
        if (!is_or_will_be_in(port, static_cast<std::uint32_t>(group)))
            continue;
        sent_to[(port->port_no - 1) % LAC_MAX_PORTS] = 0;
        set_lacp_port_state(port->port_no, 0);
    }
    const int result = reset_channel_group(group);
    printf("LACP Msg: channel-group %d has been reset!\n", group);
    return result;
}

int change_channel_group(std::uint32_t port, std::uint32_t old_group, std::uint32_t group)
{
    const bool leaves = old_group != 0 && old_group != group && type_of(old_group) == CHANNEL_GROUP_DYNAMIC;
    const std::uint32_t type = type_of(group);
    const bool joins = type == CHANNEL_GROUP_DYNAMIC;
    const LacQueueRoom room((leaves ? LEAVE_MESSAGES : 0) + (joins ? JOIN_MESSAGES : 0));
    if (!room)
        return LAC_FAILED;
    if (leaves)
        leave_group(port, old_group);
    sent_to[(port - 1) % LAC_MAX_PORTS] = 0;
    wishes[(port - 1) % LAC_MAX_PORTS] = {type == CHANNEL_GROUP_UNSET ? group : 0, lac_now_ms()};
    return joins ? join_group(port, group) : LAC_OK;
}

int change_mode(std::uint32_t port, std::string_view mode)
{
    mode_changed_ms[(port - 1) % LAC_MAX_PORTS] = lac_now_ms();
    return set_lacp_port_mode(LAC_SLOT, port, mode == "passive" ? 0 : 1);
}

void forget_mode(std::uint32_t port)
{
    mode_changed_ms[(port - 1) % LAC_MAX_PORTS] = 0;
}
