#include "lac_select.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "lac_mux.h"
#include "lac_port.h"

#include "keldatabase/keldatabase.h"

#include <cstdio>

// First number of the ranking traces.
enum RankingTrace : int {
    TRACE_FIRST = 188,
    TRACE_FASTER = 194,
    TRACE_SLOWER = 200,
    TRACE_BETTER_PRIORITY = 205,
    TRACE_WORSE_PRIORITY = 211,
    TRACE_NOT_DEFAULTED = 216,
    TRACE_DEFAULTED = 222,
    TRACE_LOWER_PORT = 227,
};

// ---- ranking --------------------------------------------------------------------------------------------------

static bool is_candidate(const LacPort *port, std::uint32_t group)
{
    return port->channel_group_id == group && port->port_enabled != 0 && port->lacp_enabled != 0 &&
           lacIsPortFullDuplex(port) == 1 && port->rxm != LAC_RX_DEFAULTED;
}

// Whether `port` ranks above the best one found so far; the first difference decides.
static bool outranks(const LacPort *port, const LacPort *best)
{
    const std::int32_t speed = lacGetLinkSpeed(port);
    const std::int32_t best_speed = lacGetLinkSpeed(best);
    if (speed != best_speed) {
        const bool wins = speed > best_speed;
        lac_trace(LAC_DBG_SELECT, "[line %d best %d speed %d ap %d speed %d]\r\n", wins ? TRACE_FASTER : TRACE_SLOWER,
                  best->port_no, best_speed, port->port_no, speed);
        return wins;
    }
    const std::uint16_t priority = port->actor_port_priority;
    const std::uint16_t best_priority = best->actor_port_priority;
    if (priority != best_priority) {
        const bool wins = priority < best_priority;
        lac_trace(LAC_DBG_SELECT, "[line %d best %d pri %d ap %d pri %d]\r\n",
                  wins ? TRACE_BETTER_PRIORITY : TRACE_WORSE_PRIORITY, best->port_no, best_priority, port->port_no,
                  priority);
        return wins;
    }
    const bool defaulted = (port->actor_oper_state & LAC_DEFAULTED) != 0;
    const bool best_defaulted = (best->actor_oper_state & LAC_DEFAULTED) != 0;
    if (defaulted != best_defaulted) {
        lac_trace(LAC_DBG_SELECT, "[line %d best %d def %d ap %d def %d]\r\n",
                  defaulted ? TRACE_DEFAULTED : TRACE_NOT_DEFAULTED, best->port_no, best_defaulted, port->port_no,
                  defaulted);
        return best_defaulted;
    }
    if (port->actor_port >= best->actor_port)
        return false;
    lac_trace(LAC_DBG_SELECT, "[line %d best %d ap %d]\r\n", TRACE_LOWER_PORT, best->port_no, port->port_no);
    return true;
}

static LacPort *best_port(LacPort *calling)
{
    const std::uint32_t group = calling->channel_group_id;
    LacPort *best = nullptr;
    for (LacPort *port : lac_ports()) {
        if (!is_candidate(port, group))
            continue;
        if (best == nullptr)
            lac_trace(LAC_DBG_SELECT, "[line %d best %d]\r\n", TRACE_FIRST, port->port_no);
        if (best == nullptr || outranks(port, best))
            best = port;
    }
    return best == nullptr ? calling : best;
}

// ---- assignment -----------------------------------------------------------------------------------------------

static bool is_looped_back(const LacPort *port)
{
    return port->actor_system_priority == port->partner_system_priority &&
           port->actor_system.get() == port->partner_system.get() && port->actor_port == port->partner_port &&
           port->actor_port_priority == port->partner_port_priority;
}

static bool is_aggregatable(const LacPort *port)
{
    return (port->actor_oper_state & port->partner_oper_state & LAC_AGGREGATION) != 0;
}

static bool fits(const LacPort *port, const LacPort *best)
{
    return port->port_enabled != 0 && port->lacp_enabled != 0 && port->actor_oper_key == best->actor_oper_key &&
           port->partner_system_priority == best->partner_system_priority &&
           port->partner_system.get() == best->partner_system.get() &&
           port->partner_oper_key == best->partner_oper_key && is_aggregatable(port) && is_aggregatable(best) &&
           !is_looped_back(port);
}

static void record_aggregator(const LacPort *port, const LacPort *best)
{
    const auto group = static_cast<int>(port->channel_group_id.get());
    std::uint32_t agg_no = 0;
    if (get_channel_group_agg_no(group, &agg_no) != LAC_OK || agg_no == best->port_no)
        return;
    set_channel_group_agg_no(group, best->port_no);
    set_channel_group_master_port(group, best->port_no);
}

// A port whose partner has gone silent passes through DETACHED: so it leaves the group's member ports and the trunk.
static void stand_alone(LacPort *port)
{
    lac_trace(LAC_DBG_SELECT, "%s port %d enter Individual_Aggregator\n", "lacSelect", port->port_no);
    if (port->individual == 0 || port->aggregator != port)
        port->muxm = LAC_MUX_ENTER_DETACHED;
    port->individual = 1;
    lacChangeAggregator(port, port);
    port->selected = LAC_SELECTED;
}

static void join(LacPort *port, LacPort *best)
{
    if (port->aggregator != best) {
        port->muxm = LAC_MUX_ENTER_DETACHED;
        lacChangeAggregator(port, best);
    }
    lac_trace(LAC_DBG_SELECT, "%s select aggregator %d for port %d\n", "lacSelect", best->port_no, port->port_no);
    record_aggregator(port, best);
    if (port->individual == 1) {
        port->muxm = LAC_MUX_ENTER_DETACHED;
        port->individual = 0;
    }
    if (fits(port, best)) {
        port->selected = LAC_SELECTED;
        lac_trace(LAC_DBG_MUX, "\r\n lacSelect port %d ---> Selected\r\n", port->port_no);
    } else {
        port->selected = LAC_STANDBY;
        lac_trace(LAC_DBG_MUX, "\r\n lacSelect port %d ---> Standby\r\n", port->port_no);
    }
}

static bool is_waiting(const LacPort *port)
{
    return port->muxm == LAC_MUX_WAITING && port->selected == LAC_SELECTED && port->wait_while_timer.active == 1;
}

// A port that goes on waiting for the same aggregator is left to its timer: the machine would start the waiting time
// over, and in a group that is selected on every other tick, as by a fast partner, it would never end.
static void assign(LacPort *port, LacPort *best)
{
    const bool was_waiting = is_waiting(port);
    if (port->lacp_enabled == 0 || port->port_enabled == 0) {
        port->selected = LAC_UNSELECTED;
        lacChangeAggregator(port, port);
    } else if (port->rxm == LAC_RX_DEFAULTED) {
        stand_alone(port);
    } else {
        join(port, best);
    }
    if (!was_waiting || !is_waiting(port))
        lacMuxMachine(port);
}

static void select_before_start(LacPort *port, LacPort *best)
{
    printf("Msg: system lacp doesn't initialized.\r\n");
    port->ready_n = 0;
    port->selected = LAC_SELECTED;
    port->muxm = LAC_MUX_ENTER_DETACHED;
    port->aggregator = best;
}

void lacSelect(LacPort *port)
{
    LacPort *const best = best_port(port);
    lac_trace(LAC_DBG_SELECT, "[Select aggregation for port %d]\r\n", port->port_no);
    if (get_lacp_if_startup() == 0) {
        select_before_start(port, best);
        return;
    }
    for (LacPort *member : lac_ports())
        if (member->channel_group_id == best->channel_group_id)
            assign(member, best);
}

// ---- aggregations ---------------------------------------------------------------------------------------------

// Each port leaves its own aggregator: the members are all in the list, so none is forgotten.
void lacReattachApsToAgs()
{
    for (LacPort *port : lac_ports()) {
        const LacPort *aggregator = port->aggregator;
        Detach_Mux_From_Aggregator(port->port_no, aggregator->port_no);
    }
    for (LacPort *port : lac_ports()) {
        lacChangeAggregator(port, port);
        port->next_lag_port = port;
        Attach_Mux_To_Aggregator(port->port_no, port->port_no);
    }
}

std::uint32_t lacNumOfPortsInAggregation(const LacPort *port)
{
    const LacPort *const aggregator = port->aggregator;
    std::uint32_t count = 1;
    for (const LacPort *member = aggregator->next_lag_port; member != aggregator; member = member->next_lag_port)
        ++count;
    return count;
}

std::uint32_t lacNumLogicalPorts()
{
    std::uint32_t count = 0;
    return portMapTotalPortCountGet(&count) == LAC_OK ? count : 0;
}

// ---- a port has left ------------------------------------------------------------------------------------------

// Whether the datastore has the port in the group: its code, or 0 with the answer.
static int configured_in(std::uint32_t port_no, std::uint32_t group, bool &answer)
{
    std::uint8_t configured = 0;
    std::uint32_t size = sizeof(configured);
    const int result = db_olt_lacp_get_trunk_channel_group(LAC_SLOT, port_no, &g_lacpd_db, &configured, &size);
    answer = result == LAC_OK && configured == group;
    return result;
}

int lacReselectGroup(std::uint32_t left_port_no, std::uint32_t group)
{
    int last_failure = LAC_OK;
    for (std::uint32_t port_no = intf.first_uplink_port; port_no != 0 && port_no <= intf.last_uplink_port;
         ++port_no) {
        std::uint32_t agg_no = 0;
        int result = get_channel_group_agg_no(static_cast<int>(group), &agg_no);
        bool in_group = false;
        if (result == LAC_OK && agg_no == 0)
            result = configured_in(port_no, group, in_group);
        if (result != LAC_OK)
            last_failure = result;
        LacPort *port = in_group && port_no != left_port_no ? lacNoToPort(port_no) : nullptr;
        if (port == nullptr)
            continue;
        port->muxm = LAC_MUX_ENTER_DETACHED;
        lacSelect(port);
        return LAC_OK;
    }
    return last_failure;
}
