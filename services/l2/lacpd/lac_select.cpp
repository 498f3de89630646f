#include "lac_select.h"

#include "channel_group.h"
#include "lac_mux.h"
#include "lac_port.h"
#include "lac_store.h"

#include <bit>
#include <cstdio>

// The ranking rules by the first number of their traces.
enum Ranking : int {
    RANK_FIRST = 188,
    RANK_FASTER = 194,
    RANK_SLOWER = 200,
    RANK_BETTER_PRIORITY = 205,
    RANK_WORSE_PRIORITY = 211,
    RANK_NOT_DEFAULTED = 216,
    RANK_DEFAULTED = 222,
    RANK_LOWER_PORT = 227,
    RANK_BEHIND = 0, // a higher port number, or the same; not traced
};

// ---- ranking --------------------------------------------------------------------------------------------------

// Whether the port's partner is what is set for it and not what was heard.
static bool is_defaulted(const LacPort *port)
{
    return (port->actor_oper_state & LAC_DEFAULTED) != 0;
}

// A port that has not heard its partner does not take the aggregation over from those in service.
static bool is_in_service(const LacPort *port)
{
    return port->attached == 1 && port->individual == 0 && !is_defaulted(port);
}

static bool group_is_in_service(std::uint32_t group)
{
    for (const LacPort *port : lac_ports())
        if (port->channel_group_id == group && is_in_service(port))
            return true;
    return false;
}

static bool is_candidate(const LacPort *port, std::uint32_t group)
{
    return port->channel_group_id == group && port->port_enabled != 0 && port->lacp_enabled != 0 &&
           lacIsPortFullDuplex(port) == 1 && port->rxm != LAC_RX_DEFAULTED;
}

// The first difference between a port and the best one found so far decides.
static Ranking compare(const LacPort *port, const LacPort *best)
{
    const std::int32_t speed = lacGetLinkSpeed(port);
    const std::int32_t best_speed = lacGetLinkSpeed(best);
    if (speed != best_speed)
        return speed > best_speed ? RANK_FASTER : RANK_SLOWER;
    if (port->actor_port_priority != best->actor_port_priority)
        return port->actor_port_priority < best->actor_port_priority ? RANK_BETTER_PRIORITY : RANK_WORSE_PRIORITY;
    if (is_defaulted(port) != is_defaulted(best))
        return is_defaulted(port) ? RANK_DEFAULTED : RANK_NOT_DEFAULTED;
    return port->actor_port < best->actor_port ? RANK_LOWER_PORT : RANK_BEHIND;
}

static bool outranks(Ranking ranking)
{
    return ranking == RANK_FASTER || ranking == RANK_BETTER_PRIORITY || ranking == RANK_NOT_DEFAULTED ||
           ranking == RANK_LOWER_PORT;
}

static bool ranks_before(const LacPort *port, const LacPort *other)
{
    return outranks(compare(port, other));
}

static void trace_ranking(Ranking ranking, const LacPort *port, const LacPort *best)
{
    switch (ranking) {
    case RANK_FIRST:
        lac_trace(LAC_DBG_SELECT, "[line %d best %d]\r\n", ranking, port->port_no);
        break;
    case RANK_FASTER:
    case RANK_SLOWER:
        lac_trace(LAC_DBG_SELECT, "[line %d best %d speed %d ap %d speed %d]\r\n", ranking, best->port_no,
                  lacGetLinkSpeed(best), port->port_no, lacGetLinkSpeed(port));
        break;
    case RANK_BETTER_PRIORITY:
    case RANK_WORSE_PRIORITY:
        lac_trace(LAC_DBG_SELECT, "[line %d best %d pri %d ap %d pri %d]\r\n", ranking, best->port_no,
                  best->actor_port_priority.get(), port->port_no, port->actor_port_priority.get());
        break;
    case RANK_NOT_DEFAULTED:
    case RANK_DEFAULTED:
        lac_trace(LAC_DBG_SELECT, "[line %d best %d def %d ap %d def %d]\r\n", ranking, best->port_no,
                  is_defaulted(best), port->port_no, is_defaulted(port));
        break;
    case RANK_LOWER_PORT:
        lac_trace(LAC_DBG_SELECT, "[line %d best %d ap %d]\r\n", ranking, best->port_no, port->port_no);
        break;
    case RANK_BEHIND:
        break;
    }
}

static LacPort *best_port(LacPort *calling)
{
    const std::uint32_t group = calling->channel_group_id;
    const bool in_service = group_is_in_service(group);
    LacPort *best = nullptr;
    for (LacPort *port : lac_ports()) {
        if (!is_candidate(port, group) || (in_service && is_defaulted(port)))
            continue;
        const Ranking ranking = best == nullptr ? RANK_FIRST : compare(port, best);
        trace_ranking(ranking, port, best);
        if (best == nullptr || outranks(ranking))
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

// A link that is aggregated with the best port's; one whose member write was refused is not.
static bool may_serve(const LacPort *port, const LacPort *best)
{
    return port->channel_group_id == best->channel_group_id && port->rxm != LAC_RX_DEFAULTED &&
           port->member_barred == 0 && fits(port, best);
}

// The ports that serve, as a mask: of those that fit, as many as a group has room for, by rank.
static std::uint32_t serving_ports(const LacPort *best)
{
    std::uint32_t fitting = 0;
    for (const LacPort *port : lac_ports())
        fitting |= may_serve(port, best) ? lac_port_bit(port) : 0;
    if (std::popcount(fitting) <= static_cast<int>(CHANNEL_GROUP_MAX_PORTS))
        return fitting;
    std::uint32_t serving = 0;
    for (const LacPort *port : lac_ports()) {
        std::uint32_t ahead = 0;
        for (const LacPort *other : lac_ports())
            ahead += (fitting & lac_port_bit(other)) != 0 && ranks_before(other, port);
        serving |= ahead < CHANNEL_GROUP_MAX_PORTS ? fitting & lac_port_bit(port) : 0;
    }
    return serving;
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

static void stand_alone(LacPort *port)
{
    lac_trace(LAC_DBG_SELECT, "%s port %d enter Individual_Aggregator\n", "lacSelect", port->port_no);
    port->individual = 1;
    lacChangeAggregator(port, port);
    port->selected = LAC_SELECTED;
}

// A member that has waited in this group does not wait again because its aggregator has changed.
static bool has_waited(const LacPort *port)
{
    return port->attached == 1 && port->attached_group == port->channel_group_id && port->selected == LAC_SELECTED &&
           port->rxm == LAC_RX_CURRENT && port->individual == 0;
}

static void join(LacPort *port, LacPort *best, bool serves)
{
    const bool waited = has_waited(port);
    if (port->aggregator != best) {
        lacRestartMux(port);
        lacChangeAggregator(port, best);
    }
    lac_trace(LAC_DBG_SELECT, "%s select aggregator %d for port %d\n", "lacSelect", best->port_no, port->port_no);
    record_aggregator(port, best);
    if (port->individual == 1) {
        lacRestartMux(port);
        port->individual = 0;
    }
    port->selected = serves ? LAC_SELECTED : LAC_STANDBY;
    port->in_place = waited && serves;
    if (serves)
        lac_trace(LAC_DBG_MUX, "\r\n lacSelect port %d ---> Selected\r\n", port->port_no);
    else
        lac_trace(LAC_DBG_MUX, "\r\n lacSelect port %d ---> Standby\r\n", port->port_no);
}

static void assign(LacPort *port, LacPort *best, bool serves)
{
    if (port->lacp_enabled == 0 || port->port_enabled == 0) {
        port->selected = LAC_UNSELECTED;
        lacChangeAggregator(port, port);
    } else if (port->rxm == LAC_RX_DEFAULTED) {
        stand_alone(port);
    } else {
        join(port, best, serves);
    }
    lacMuxMachine(port);
    port->in_place = false;
}

static void select_before_start(LacPort *port, LacPort *best)
{
    printf("Msg: system lacp doesn't initialized.\r\n");
    port->ready_n = 0;
    port->selected = LAC_SELECTED;
    lacRestartMux(port);
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
    const std::uint32_t serving = serving_ports(best);
    for (LacPort *member : lac_ports())
        if (member->channel_group_id == best->channel_group_id)
            assign(member, best, (serving & lac_port_bit(member)) != 0);
}

void lacSelectResumed(std::uint32_t ports)
{
    for (LacPort *port : lac_ports()) {
        if ((ports & lac_port_bit(port)) == 0)
            continue;
        port->selected = LAC_SELECTED;
        port->individual = 0;
        lacMuxResume(port);
    }
    for (LacPort *port : lac_ports())
        if ((ports & lac_port_bit(port)) != 0)
            lacSelect(port);
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

int lacReselectGroup(std::uint32_t left_port_no, std::uint32_t group)
{
    int last_failure = LAC_OK;
    for (std::uint32_t port_no = intf.first_uplink_port; port_no != 0 && port_no <= intf.last_uplink_port;
         ++port_no) {
        std::uint32_t agg_no = 0;
        int result = get_channel_group_agg_no(static_cast<int>(group), &agg_no);
        bool in_group = false;
        if (result == LAC_OK && agg_no == 0)
            result = lacConfiguredIn(port_no, group, in_group);
        if (result != LAC_OK)
            last_failure = result;
        LacPort *port = in_group && port_no != left_port_no ? lacNoToPort(port_no) : nullptr;
        if (port == nullptr)
            continue;
        lacRestartMux(port);
        lacSelect(port);
        return LAC_OK;
    }
    return last_failure;
}
