#include "invariants.h"

#include "engine.h"

#include "lac_memory.h"

#include <bit>
#include <sstream>

namespace
{

constexpr std::uint32_t GROUPS = 4;

std::string g_broken;

void hold(bool holds, const char *what, const std::string &where)
{
    if (!holds && g_broken.empty())
        g_broken = std::string(what) + ": " + where;
}

void hold(bool holds, const char *what, const LacPort *port)
{
    if (!holds)
        hold(false, what, "port " + std::to_string(port->port_no) + "\n" + snapshot(*port));
}

std::uint32_t bit_of(std::uint32_t port_no)
{
    return 1U << (port_no - 1);
}

bool owes_a_write()
{
    for (const LacPort *port : lac_ports())
        if (lacMemberOwed(port))
            return true;
    return false;
}

// ---- channel groups -------------------------------------------------------------------------------------------

struct Group {
    std::uint32_t type = 0, list = 0, count = 0, uplinks = 0, uplink_count = 0, agg_no = 0;

    explicit Group(int group)
    {
        get_channel_group_type(group, &type);
        get_channel_group_port_list(group, &list);
        get_channel_group_port_count(group, &count);
        get_channel_group_uplink_port_list(group, &uplinks);
        get_channel_group_uplink_port_count(group, &uplink_count);
        get_channel_group_agg_no(group, &agg_no);
    }
};

// The datastore's members as bits.
std::uint32_t stored_members(int group)
{
    std::uint32_t list = 0;
    const auto found = fake::datastore().members.find(group);
    if (found == fake::datastore().members.end())
        return 0;
    for (const std::string &name : found->second)
        list |= bit_of(static_cast<std::uint32_t>(std::stoul(name.substr(name.rfind('/') + 1))));
    return list;
}

std::uint32_t linked_up(std::uint32_t list)
{
    for (std::uint32_t port_no = 1; port_no <= LAC_MAX_PORTS; ++port_no) {
        const auto found = fake::datastore().link_status.find(port_no);
        if (found == fake::datastore().link_status.end() || found->second != "up")
            list &= ~bit_of(port_no);
    }
    return list;
}

// Always: the handlers run one at a time, and a check between two of them sees no half of one.
void check_groups(const Surroundings &surroundings)
{
    std::uint32_t taken = 0;
    for (std::uint32_t number = 1; number <= GROUPS; ++number) {
        const Group group(static_cast<int>(number));
        const std::string where = "group " + std::to_string(number);
        hold(group.type == CHANNEL_GROUP_UNSET || group.type == CHANNEL_GROUP_MANUAL ||
                 group.type == CHANNEL_GROUP_DYNAMIC,
             "a type is one of three", where);
        hold(std::popcount(group.list) == static_cast<int>(group.count), "members are counted", where);
        hold(std::popcount(group.uplinks) == static_cast<int>(group.uplink_count), "uplinks are counted", where);
        hold(group.count <= CHANNEL_GROUP_MAX_PORTS, "a group has four members at most", where);
        hold((group.uplinks & ~group.list) == 0, "an uplink is a member", where);
        hold(group.type != CHANNEL_GROUP_UNSET || group.list == 0, "a group without a type has no members", where);
        hold(group.list == stored_members(static_cast<int>(number)), "table and datastore have the same members",
             where);
        hold(group.type != CHANNEL_GROUP_MANUAL || group.uplinks == linked_up(group.list),
             "the uplinks of a manual group are the members with a link", where);
        hold(!surroundings.trunks_known || surroundings.trunks[number] == group.uplinks,
             "the trunk has the group's uplinks", where);
        // A port that is moved from a dynamic group to a manual one is in both lists until its messages have been
        // dispatched, and after a refused write until ticks have written again.
        hold(!surroundings.drained || owes_a_write() || (taken & group.list) == 0, "a port is in one group", where);
        taken |= group.list;
    }
}

// ---- timers ---------------------------------------------------------------------------------------------------

void check_timers(const LacPort *port)
{
    for (const LacTimer *timer : {&port->current_while_timer, &port->periodic_timer, &port->wait_while_timer,
                                  &port->tx_scheduler, &port->mux_scheduler}) {
        hold(timer->count <= timer->reload, "no timer counts from above its reload", port);
        hold(timer->active <= 1 && timer->initialized <= 1, "a timer's flags are 0 or 1", port);
    }
}

// ---- machines -------------------------------------------------------------------------------------------------
//
// Only while LACP is on and no message waits. The mux machine follows selection, and selection follows the receive
// machine when the mux scheduler expires; so where those two may differ the scheduler must be running.

void check_states(const LacPort *port)
{
    const std::uint32_t rxm = port->rxm;
    const std::uint32_t txm = port->txm;
    hold(rxm >= LAC_RX_CURRENT && rxm <= LAC_RX_PORT_DISABLED && rxm != LAC_RX_INITIALIZE,
         "the receive machine rests in a state", port);
    hold(txm <= LAC_SLOW_PERIODIC, "the periodic machine rests in a state", port);
    hold(rxm != LAC_RX_CURRENT || (port->actor_oper_state & (LAC_EXPIRED | LAC_DEFAULTED)) == 0,
         "CURRENT is neither expired nor defaulted", port);
    hold((rxm != LAC_RX_CURRENT && rxm != LAC_RX_EXPIRED) || port->current_while_timer.active == 1,
         "CURRENT and EXPIRED end some time", port);
    hold(port->hold_count <= LAC_HOLD_LIMIT, "three LACPDUs between two periodic ones", port);
    hold(port->matched <= 1 && port->individual <= 1 && port->ntt <= 1, "a flag is 0 or 1", port);
}

void check_mux(const LacPort *port)
{
    const std::uint32_t muxm = port->muxm;
    const std::uint32_t selected = port->selected;
    hold(muxm == LAC_MUX_DETACHED || muxm == LAC_MUX_WAITING || muxm == LAC_MUX_ATTACHED ||
             muxm == LAC_MUX_COLLECTING_DISTRIBUTING,
         "the mux machine rests in a state", port);
    hold((port->attached == 1) == (muxm == LAC_MUX_ATTACHED || muxm == LAC_MUX_COLLECTING_DISTRIBUTING),
         "attached in ATTACHED and beyond, and nowhere else", port);
    hold((port->coll_dist == 1) == (muxm == LAC_MUX_COLLECTING_DISTRIBUTING), "collecting in its state only", port);
    hold(muxm != LAC_MUX_WAITING || port->wait_while_timer.active == 1, "WAITING ends some time", port);

    hold(selected <= LAC_STANDBY, "selected has one of three values", port);
    hold(selected == LAC_UNSELECTED || (port->lacp_enabled == 1 && port->port_enabled == 1),
         "only a running port is selected", port);
    hold(selected != LAC_UNSELECTED || muxm == LAC_MUX_DETACHED || port->mux_scheduler.active == 1,
         "an unselected port is detached, or will be", port);
    hold(selected != LAC_STANDBY || muxm == LAC_MUX_WAITING, "a port on standby waits", port);
    hold(selected != LAC_SELECTED || muxm != LAC_MUX_DETACHED, "a selected port is on its way", port);
}

// ---- aggregators ----------------------------------------------------------------------------------------------

// A port in an aggregator of its own is no part of its group's aggregation, and neither is an unselected one.
bool is_aggregated(const LacPort *port)
{
    return port->individual == 0 && port->selected != LAC_UNSELECTED;
}

void check_aggregator(const LacPort *port)
{
    const LacPort *aggregator = port->aggregator;
    hold(aggregator != nullptr && lacNoToPort(aggregator->port_no) == aggregator, "an aggregator is a port", port);
    hold(port->next_lag_port == port, "a chain holds its port only", port);
    hold(aggregator->aggregator == aggregator, "an aggregator is its own", port);
    hold((port->lacp_enabled == 1 && port->port_enabled == 1) || aggregator == port,
         "a port that does not run is its own aggregator", port);
    if (!is_aggregated(port))
        return;
    const std::uint32_t group = port->channel_group_id;
    hold(aggregator->channel_group_id == group, "an aggregator is of the group", port);
    for (const LacPort *other : lac_ports())
        hold(other->channel_group_id != group || !is_aggregated(other) || other->aggregator == port->aggregator,
             "a group has one aggregator", other);
    hold(group < 1 || group > GROUPS || Group(static_cast<int>(group)).agg_no == aggregator->port_no,
         "the table has the group's aggregator", port);
}

// A port's own bit is also set while it collects for nobody: switching LACP on sets it.
void check_mask(const LacPort *aggregator)
{
    for (const LacPort *port : lac_ports()) {
        const bool collects = port->coll_dist == 1 && port->aggregator == aggregator;
        const bool marked = (aggregator->port_mask & bit_of(port->port_no)) != 0;
        hold(collects == marked || (port == aggregator && marked), "the mask has the collecting ports", port);
    }
}

// ---- members --------------------------------------------------------------------------------------------------

// A refused write is exempt until ticks have made up for it.
void check_membership(const LacPort *port)
{
    const bool collects = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING;
    const bool rests = port->mux_scheduler.active == 0;
    hold(!collects || !rests || (port->actor_oper_state & LAC_SYNCHRONIZATION) != 0,
         "a port that collects tells Synchronization", port);
    hold(port->attached == 1 || (port->actor_oper_state & LAC_MUX_BITS) == 0,
         "a port that is not attached tells none of the mux machine's bits", port);
    hold(!rests || port->selected != LAC_UNSELECTED || port->attached == 0, "an unselected port is detached", port);
    if (lacMemberOwed(port))
        return;
    const bool heard = (port->heard_state & port->told_state & LAC_SYNCHRONIZATION) != 0;
    const std::uint32_t group =
        collects && port->selected == LAC_SELECTED && port->individual == 0 && heard ? port->attached_group : 0;
    for (std::uint32_t number = 1; number <= GROUPS; ++number)
        if (Group(static_cast<int>(number)).type == CHANNEL_GROUP_DYNAMIC)
            hold((group == number) == ((Group(static_cast<int>(number)).list & bit_of(port->port_no)) != 0),
                 "a dynamic group has the members whose ends agree", port);
}

void check_serving()
{
    std::uint32_t selected[GROUPS + 1] = {};
    for (const LacPort *port : lac_ports())
        if (port->channel_group_id <= GROUPS && port->individual == 0 && port->selected == LAC_SELECTED &&
            ++selected[port->channel_group_id] > CHANNEL_GROUP_MAX_PORTS)
            hold(false, "four ports of a group serve at most", port);
}

// ---- memory ---------------------------------------------------------------------------------------------------

void check_memory(const Surroundings &surroundings)
{
    const int waiting = Lac_Queue.count();
    hold(waiting >= 0 && waiting <= static_cast<int>(LAC_QUEUE_LIMIT), "the queue is bounded", "queue");
    hold(!surroundings.drained || waiting == 0, "the queue is drained", "queue");
    hold(queued_pdus() <= static_cast<std::size_t>(waiting), "a PDU is in the queue or freed", "memory");
    hold(MTYPE_LACP_SSP_PACKET.allocated() == 0, "a sent packet is freed", "memory");
    hold(fake::open_iterators() == 0, "a change iterator is released", "memory");
}

} // namespace

std::string broken_invariant(const Surroundings &surroundings)
{
    g_broken.clear();
    check_memory(surroundings);
    check_groups(surroundings);
    for (const LacPort *port : lac_ports())
        check_timers(port);
    if (!surroundings.drained || get_lac_global_enable() != 1)
        return g_broken;
    for (const LacPort *port : lac_ports()) {
        check_states(port);
        check_mux(port);
        check_aggregator(port);
        check_mask(port);
        check_membership(port);
    }
    check_serving();
    return g_broken;
}
