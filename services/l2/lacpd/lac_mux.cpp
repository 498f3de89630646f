#include "lac_mux.h"

#include "lac_port.h"
#include "lac_timer.h"
#include "lac_tx.h"

#include <optional>

// Number and name that the attachment's trace carries.
constexpr int ATTACH_TRACE_LINE = 792;
constexpr char ATTACH_NAME[] = "lac_add_port_to_aggregator";

// ---- collecting and distributing ------------------------------------------------------------------------------

void lacEnableCollectingDistributing(LacPort *) {}

void lacDisableCollectingDistributing(LacPort *) {}

void lacInitPortMask(LacPort *port)
{
    LacAggregator *aggregator = port->aggregator;
    aggregator->port_mask = lac_port_bit(port);
    lac_trace(LAC_DBG_MASK, "[Init Mask: %d to %d %x:%x]\r\n", aggregator->port_no, aggregator->port_no,
              aggregator->port_mask.get(), aggregator->port_mask.get());
}

void Enable_Collecting_Distributing(LacPort *port)
{
    if (port->coll_dist == 1)
        return;
    LacAggregator *aggregator = port->aggregator;
    lac_trace(LAC_DBG_COLL_DIST, "[ECD p=%d, ap=%d]\r\n", port->port_no, aggregator->port_no);
    aggregator->port_mask |= lac_port_bit(port);
    lac_trace(LAC_DBG_MASK, "[Add Mask: %d to %d %x:%x]\r\n", port->port_no, aggregator->port_no, lac_port_bit(port),
              aggregator->port_mask.get());
    lacEnableCollectingDistributing(port);
    port->coll_dist = 1;
}

void Disable_Collecting_Distributing(LacPort *port, LacAggregator *aggregator)
{
    if (port->coll_dist == 0)
        return;
    lac_trace(LAC_DBG_COLL_DIST, "[DCD p=%d, ap=%d]\r\n", port->port_no, aggregator->port_no);
    aggregator->port_mask &= ~lac_port_bit(port);
    lac_trace(LAC_DBG_MASK, "[Remove Mask: %d from %d %x:%x]\r\n", port->port_no, aggregator->port_no,
              lac_port_bit(port), aggregator->port_mask.get());
    lacDisableCollectingDistributing(port);
    port->coll_dist = 0;
}

void lacChangeAggregator(LacPort *port, LacAggregator *aggregator)
{
    if (port->coll_dist == 1 && port->aggregator != aggregator) {
        port->aggregator->port_mask &= ~lac_port_bit(port);
        aggregator->port_mask |= lac_port_bit(port);
    }
    port->aggregator = aggregator;
}

// ---- attachment -----------------------------------------------------------------------------------------------

void Attach_Mux_To_Aggregator(std::uint32_t port_no, int agg_no)
{
    LacPort *port = lacNoToPort(port_no);
    if (port->attached == 1) {
        lac_trace(LAC_DBG_ATTACH, "\r\nPort %d already attached\r\n", port_no);
        return;
    }
    lac_trace(LAC_DBG_ATTACH, "\r\nAttaching port %d to aggregator %d\r\n", port_no, agg_no);
    if (port->rxm == LAC_RX_CURRENT)
        lac_trace(LAC_DBG_GLOBAL, "\r\nMsg: %s %d   port_no = %d, aggr_no = %d\r\n", ATTACH_NAME, ATTACH_TRACE_LINE,
                  port_no, agg_no);
    port->attached_group = port->channel_group_id;
    port->attached = 1;
}

void Detach_Mux_From_Aggregator(std::uint32_t port_no, int agg_no)
{
    LacPort *port = lacNoToPort(port_no);
    if (port->attached == 0)
        return;
    lac_trace(LAC_DBG_ATTACH, "Detaching port %d from aggregator %d\r\n", port_no, agg_no);
    lac_trace(LAC_DBG_GLOBAL, "\r\nMsg: remove port_no  %d from aggr_no %d.\r\n", port_no, agg_no);
    port->attached = 0;
}

// ---- machine --------------------------------------------------------------------------------------------------

std::uint32_t lacGetMuxMachineState(std::uint32_t port_no)
{
    return lacNoToPort(port_no)->muxm & LAC_MUX_STATE_MASK;
}

namespace
{

int aggregator_of(const LacPort *port)
{
    return port->aggregator->port_no;
}

bool is_synchronized(const LacPort *port)
{
    return (port->partner_oper_state & LAC_SYNCHRONIZATION) != 0;
}

// Whether the port may collect and distribute: with a synchronized partner, or alone. Entering and staying have the
// same test, or the machine would go to and fro without end.
bool may_collect(const LacPort *port)
{
    return is_synchronized(port) || (port->individual == 1 && port->rxm == LAC_RX_DEFAULTED);
}

void enter_detached(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "[%d mux DETACHE]\r\n", port->port_no);
    Detach_Mux_From_Aggregator(port->port_no, aggregator_of(port));
    port->ready_n = 0;
    lac_clear_actor_state(port, LAC_MUX_BITS);
    Disable_Collecting_Distributing(port, port->aggregator);
    tx_machine(port, Lac_ntt);
    port->aggregator_partner_system = Mac{};
    port->aggregator_partner_key = 0;
    port->waits_selected = false;
    port->muxm = LAC_MUX_DETACHED;
}

bool evaluate_detached(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "[%d mux DETACHED port->selected  %d]\r\n", port->port_no, port->selected.get());
    if (port->selected != LAC_SELECTED && port->selected != LAC_STANDBY)
        return false;
    port->muxm = LAC_MUX_ENTER_WAITING;
    return true;
}

void enter_waiting(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "[%d mux WAIT]\r\n", port->port_no);
    if (port->wait_while_timer.active == 0 && !port->in_place)
        Start_wait_while_timer(port);
    port->muxm = LAC_MUX_WAITING;
}

// Ready: some selected port of the group has waited long enough.
std::uint32_t group_is_ready(const LacPort *port)
{
    for (const LacPort *other : lac_ports())
        if (other->channel_group_id == port->channel_group_id && other->selected == LAC_SELECTED &&
            other->ready_n != 0)
            return 1;
    return 0;
}

// The count of a port that goes on waiting is not started over: in a group that is selected on every other tick, as
// by a fast partner, it would never end.
void wait_on(LacPort *port)
{
    const bool selected = port->selected == LAC_SELECTED;
    if (!selected || !port->waits_selected || port->wait_while_timer.active == 0)
        Start_wait_while_timer(port);
    port->waits_selected = selected;
}

bool evaluate_waiting(LacPort *port)
{
    port->ready = port->in_place ? 1 : group_is_ready(port);
    lac_trace(LAC_DBG_MUX, "[%d mux WAITING selected %d Ready %d]\r\n", port->port_no, port->selected.get(),
              port->ready.get());
    if (port->selected == LAC_UNSELECTED) {
        port->muxm = LAC_MUX_ENTER_DETACHED;
        return true;
    }
    if (port->selected == LAC_SELECTED && port->ready == 1) {
        port->muxm = LAC_MUX_ENTER_ATTACHED;
        return true;
    }
    wait_on(port);
    return false;
}

void enter_attached(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "[%d mux ATTACHE]\r\n", port->port_no);
    Attach_Mux_To_Aggregator(port->port_no, aggregator_of(port));
    Disable_Collecting_Distributing(port, port->aggregator);
    port->stats->attach_count += 1;
    lac_set_actor_state(port, LAC_SYNCHRONIZATION);
    lac_clear_actor_state(port, LAC_COLLECTING | LAC_DISTRIBUTING);
    port->ready_n = 0;
    tx_machine(port, Lac_ntt);
    if (port->aggregator == port) {
        port->aggregator_partner_system = port->partner_system.get();
        port->aggregator_partner_key = port->partner_oper_key;
    }
    port->muxm = LAC_MUX_ATTACHED;
}

bool evaluate_attached(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "[%d mux ATTACHED selected %d synchronization %d]\r\n", port->port_no,
              port->selected.get(), is_synchronized(port));
    lac_set_actor_state(port, LAC_SYNCHRONIZATION);
    if (port->selected == LAC_UNSELECTED || port->selected == LAC_STANDBY) {
        port->muxm = LAC_MUX_ENTER_DETACHED;
        return true;
    }
    if (port->selected == LAC_SELECTED && may_collect(port)) {
        port->muxm = LAC_MUX_ENTER_COLLECTING_DISTRIBUTING;
        return true;
    }
    return false;
}

void enter_collecting_distributing(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "[%d:mux Col-Dist Event %d]\r\n", port->port_no, port->muxm.get());
    lac_set_actor_state(port, LAC_DISTRIBUTING);
    Enable_Collecting_Distributing(port);
    lac_set_actor_state(port, LAC_COLLECTING);
    tx_machine(port, Lac_ntt);
    port->muxm = LAC_MUX_COLLECTING_DISTRIBUTING;
}

bool evaluate_collecting_distributing(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "[%d:mux Col-Dist Event %d selected %d synchronization %d]\r\n", port->port_no,
              port->muxm.get(), port->selected.get(), is_synchronized(port));
    if (port->selected != LAC_UNSELECTED && port->selected != LAC_STANDBY && may_collect(port))
        return false;
    port->muxm = LAC_MUX_ENTER_ATTACHED;
    return true;
}

// Runs the block that muxm names; true while there is another one to run.
bool step(LacPort *port)
{
    switch (port->muxm) {
    case LAC_MUX_ENTER_DETACHED:
        enter_detached(port);
        return true;
    case LAC_MUX_ENTER_WAITING:
        enter_waiting(port);
        return true;
    case LAC_MUX_ENTER_ATTACHED:
        enter_attached(port);
        return true;
    case LAC_MUX_ENTER_COLLECTING:
    case LAC_MUX_ENTER_DISTRIBUTING:
    case LAC_MUX_ENTER_COLLECTING_DISTRIBUTING:
        enter_collecting_distributing(port);
        return true;
    case LAC_MUX_DETACHED:
        return evaluate_detached(port);
    case LAC_MUX_WAITING:
        return evaluate_waiting(port);
    case LAC_MUX_ATTACHED:
        return evaluate_attached(port);
    case LAC_MUX_COLLECTING:
    case LAC_MUX_DISTRIBUTING:
    case LAC_MUX_COLLECTING_DISTRIBUTING:
        return evaluate_collecting_distributing(port);
    default:
        return false;
    }
}

} // namespace

void lacMuxMachine(LacPort *port)
{
    lac_trace(LAC_DBG_MUX, "\r\n lacMuxMachine port %d port->muxm %d\r\n", port->port_no, port->muxm.get());
    while (step(port))
        ;
}

void lacRestartMux(LacPort *port)
{
    port->muxm = LAC_MUX_ENTER_DETACHED;
}

void lacMuxResume(LacPort *port)
{
    port->attached_group = port->channel_group_id;
    port->attached = 1;
}

void lacMuxMachineInitPort(LacPort *port)
{
    lac_trace(LAC_DBG_UNSELECT, "%d: lacMuxMachineInitPort: UNSELECTED\r\n", port->port_no);
    port->selected = LAC_UNSELECTED;
    port->attached = 0;
    Disable_Collecting_Distributing(port, port->aggregator);
    port->muxm = LAC_MUX_ENTER_DETACHED;
    port->aggregator = port;
    port->next_lag_port = port;
    lac_trace(LAC_DBG_MUX, "\r\n lacMuxMachineInitPort port %d port->muxm %d\r\n", port->port_no, port->muxm.get());
    lacMuxMachine(port);
}

// ---- kick -----------------------------------------------------------------------------------------------------

// Whether the mux machine could move from the state, or nothing for a state that the machine does not run in.
static std::optional<bool> may_move(const LacPort *port)
{
    switch (port->muxm & LAC_MUX_STATE_MASK) {
    case LAC_MUX_DETACHED:
        return port->selected == LAC_SELECTED || port->selected == LAC_STANDBY;
    case LAC_MUX_WAITING:
        return port->selected == LAC_UNSELECTED;
    case LAC_MUX_ATTACHED:
    case LAC_MUX_COLLECTING:
    case LAC_MUX_DISTRIBUTING:
    case LAC_MUX_COLLECTING_DISTRIBUTING:
        return port->selected != LAC_SELECTED || is_synchronized(port);
    default:
        return std::nullopt;
    }
}

// A running scheduler is left alone: started over on every tick, as by the expiries of a DEFAULTED port or a partner
// that transmits every second, it would never expire, and the port would never be selected again.
//
// A port that has become UNSELECTED leaves its aggregator at once (43.4.15). Left to the next selection, which marks
// it SELECTED first, it would stay, and its partner would wait for our Synchronization for ever.
void lacKickMux(LacPort *port, LacKick after)
{
    const bool unstarted_moves = after == LacKick::event && port->selected == LAC_UNSELECTED;
    if (may_move(port).value_or(unstarted_moves) && port->mux_scheduler.active == 0)
        mux_scheduler_start(port);
    if (port->attached == 1 && port->selected == LAC_UNSELECTED)
        lacMuxMachine(port);
}
