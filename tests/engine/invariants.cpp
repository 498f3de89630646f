#include "random_steps.h"

#include <bit>

#define HOLDS(condition)                                                                                             \
    if (!(condition))                                                                                                \
    return #condition

namespace
{

struct Group {
    std::uint32_t type = 0, list = 0, count = 0, uplinks = 0, uplink_count = 0, agg_no = 0;

    explicit Group(std::uint32_t number)
    {
        const int group = static_cast<int>(number);
        get_channel_group_type(group, &type);
        get_channel_group_port_list(group, &list);
        get_channel_group_port_count(group, &count);
        get_channel_group_uplink_port_list(group, &uplinks);
        get_channel_group_uplink_port_count(group, &uplink_count);
        get_channel_group_agg_no(group, &agg_no);
    }
};

bool owes_a_write()
{
    bool owes = false;
    for (const LacPort *port : lac_ports())
        owes = owes || lacMemberOwed(port);
    return owes;
}

std::uint32_t linked_up(std::uint32_t list)
{
    std::uint32_t up = 0;
    for (std::uint32_t number = 1; number <= LAC_MAX_PORTS; ++number)
        up |=
            fake::datastore().leaves["p" + std::to_string(number) + "/link-status"] == "up" ? 1U << (number - 1) : 0;
    return list & up;
}

// Always: the handlers run one at a time, and a check between two of them sees no half of one.
const char *broken_group(std::uint32_t number, const Surroundings &surroundings, std::uint32_t &taken)
{
    const Group group(number);
    HOLDS(group.type == CHANNEL_GROUP_UNSET || group.type == CHANNEL_GROUP_MANUAL ||
          group.type == CHANNEL_GROUP_DYNAMIC);
    HOLDS(std::popcount(group.list) == static_cast<int>(group.count) && group.count <= CHANNEL_GROUP_MAX_PORTS);
    HOLDS(std::popcount(group.uplinks) == static_cast<int>(group.uplink_count));
    HOLDS((group.uplinks & ~group.list) == 0);
    HOLDS(group.type != CHANNEL_GROUP_UNSET || group.list == 0);
    HOLDS(group.list == fake::members(static_cast<int>(number)));
    HOLDS(group.type != CHANNEL_GROUP_MANUAL || group.uplinks == linked_up(group.list));
    HOLDS(!surroundings.trunks_known || surroundings.trunks[number] == group.uplinks);
    // A port that moves from a dynamic group to a manual one is in both lists until its messages have been
    // dispatched, and after a refused write until ticks have written again.
    HOLDS(!surroundings.drained || owes_a_write() || (taken & group.list) == 0);
    taken |= group.list;
    return nullptr;
}

const char *broken_memory(const Surroundings &surroundings)
{
    const int waiting = Lac_Queue.count();
    HOLDS(waiting >= 0 && waiting <= static_cast<int>(LAC_QUEUE_LIMIT) && (!surroundings.drained || waiting == 0));
    HOLDS(queued_pdus() <= static_cast<std::size_t>(waiting) && MTYPE_LACP_SSP_PACKET.allocated() == 0);
    HOLDS(fake::open_iterators() == 0);
    return nullptr;
}

const char *broken_timer(const LacPort *port)
{
    for (const LacTimer *timer : {&port->current_while_timer, &port->periodic_timer, &port->wait_while_timer,
                                  &port->tx_scheduler, &port->mux_scheduler})
        HOLDS(timer->count <= timer->reload && timer->active <= 1 && timer->initialized <= 1);
    return nullptr;
}

// From here on only while LACP is on and no message waits. The mux machine follows selection, and selection follows
// the receive machine when the mux scheduler expires; so where those two may differ the scheduler must be running.
const char *broken_state(const LacPort *port)
{
    const std::uint32_t rx = port->rxm, mux = port->muxm, selected = port->selected;
    const bool runs = port->lacp_enabled == 1 && port->port_enabled == 1, rests = port->mux_scheduler.active == 0;
    HOLDS(rx >= LAC_RX_CURRENT && rx <= LAC_RX_PORT_DISABLED && rx != LAC_RX_INITIALIZE);
    HOLDS(port->txm <= LAC_SLOW_PERIODIC && port->hold_count <= LAC_HOLD_LIMIT);
    HOLDS(rx != LAC_RX_CURRENT || (port->actor_oper_state & (LAC_EXPIRED | LAC_DEFAULTED)) == 0);
    HOLDS((rx != LAC_RX_CURRENT && rx != LAC_RX_EXPIRED) || port->current_while_timer.active == 1);
    HOLDS(port->matched <= 1 && port->individual <= 1 && port->ntt <= 1);

    const bool collects = mux == LAC_MUX_COLLECTING_DISTRIBUTING;
    HOLDS(mux == LAC_MUX_DETACHED || mux == LAC_MUX_WAITING || mux == LAC_MUX_ATTACHED || collects);
    HOLDS((port->attached == 1) == (mux == LAC_MUX_ATTACHED || collects));
    HOLDS((port->coll_dist == 1) == collects);
    HOLDS(mux != LAC_MUX_WAITING || port->wait_while_timer.active == 1);
    HOLDS(selected == LAC_UNSELECTED || (selected <= LAC_STANDBY && runs));
    HOLDS(selected != LAC_UNSELECTED || mux == LAC_MUX_DETACHED || !rests);
    HOLDS(selected != LAC_STANDBY || mux == LAC_MUX_WAITING);
    HOLDS(selected != LAC_SELECTED || mux != LAC_MUX_DETACHED);
    HOLDS(!collects || !rests || (port->actor_oper_state & LAC_SYNCHRONIZATION) != 0);
    HOLDS(port->attached == 1 || (port->actor_oper_state & LAC_MUX_BITS) == 0);
    HOLDS(!rests || selected != LAC_UNSELECTED || port->attached == 0);
    return nullptr;
}

// A port in an aggregator of its own is no part of its group's aggregation, and neither is an unselected one.
bool is_aggregated(const LacPort *port)
{
    return port->individual == 0 && port->selected != LAC_UNSELECTED;
}

const char *broken_aggregation(const LacPort *port)
{
    const LacPort *aggregator = port->aggregator;
    const std::uint32_t group = port->channel_group_id;
    HOLDS(aggregator != nullptr && lacNoToPort(aggregator->port_no) == aggregator);
    HOLDS(port->next_lag_port == port && aggregator->aggregator == aggregator);
    HOLDS((port->lacp_enabled == 1 && port->port_enabled == 1) || aggregator == port);
    std::uint32_t serving = 0;
    for (const LacPort *other : lac_ports()) {
        const bool together = is_aggregated(port) && is_aggregated(other) && other->channel_group_id == group;
        HOLDS(!together || other->aggregator == port->aggregator);
        serving += together && other->selected == LAC_SELECTED ? 1 : 0;
        // A port's own bit is also set while it collects for nobody: switching LACP on sets it.
        const bool collects = other->coll_dist == 1 && other->aggregator == port;
        const bool marked = (port->port_mask & lac_port_bit(other)) != 0;
        HOLDS(collects == marked || (other == port && marked));
    }
    HOLDS(group < 1 || group > 4 || serving <= CHANNEL_GROUP_MAX_PORTS);
    HOLDS(!is_aggregated(port) || aggregator->channel_group_id == group);
    HOLDS(!is_aggregated(port) || group < 1 || group > 4 || Group(group).agg_no == aggregator->port_no);
    return nullptr;
}

// A dynamic group has the members that collect and whose both ends agree; a refused write is made up for by ticks.
const char *broken_membership(const LacPort *port)
{
    const bool agreed = (port->heard_state & port->told_state & LAC_SYNCHRONIZATION) != 0;
    const bool serves = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING && port->selected == LAC_SELECTED &&
                        port->individual == 0 && agreed;
    for (std::uint32_t number = 1; number <= 4 && !lacMemberOwed(port); ++number) {
        const Group group(number);
        const bool is_member = (group.list & lac_port_bit(port)) != 0;
        HOLDS(group.type != CHANNEL_GROUP_DYNAMIC || (serves && port->attached_group == number) == is_member);
    }
    return nullptr;
}

} // namespace

std::string broken_invariant(const Surroundings &surroundings)
{
    if (const char *broken = broken_memory(surroundings))
        return broken;
    std::uint32_t taken = 0;
    for (std::uint32_t number = 1; number <= 4; ++number)
        if (const char *broken = broken_group(number, surroundings, taken))
            return "group " + std::to_string(number) + ": " + broken;
    const bool all = surroundings.drained && get_lac_global_enable() == 1;
    for (const LacPort *port : lac_ports())
        for (const auto check : {broken_timer, broken_state, broken_aggregation, broken_membership})
            if (const char *broken = all || check == broken_timer ? check(port) : nullptr)
                return std::string(broken) + "\n" + text(*port);
    return {};
}
