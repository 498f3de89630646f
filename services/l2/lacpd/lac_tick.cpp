#include "lac_tick.h"

#include "lac_event.h"
#include "lac_mux.h"
#include "lac_port.h"
#include "lac_rx.h"
#include "lac_select.h"
#include "lac_store.h"
#include "lac_timer.h"
#include "lac_tx.h"

static void tick_current_while(LacPort *port)
{
    LacTimer &timer = port->current_while_timer;
    if (timer.active == 0)
        return;
    if (timer.count == 0) {
        lac_trace(LAC_DBG_TIMER, "current_while_timer_expired[port:%d tick %d] Now\r\n", port->port_no,
                  timer.count.get());
        lac_trace(LAC_DBG_TIMER, "\nCurrent_while_timer_expiry(port:%d)\r\n", port->port_no);
        lacRxMachine(port, Lac_current_while_timer_expired, nullptr);
        return;
    }
    timer.count -= 1;
    lac_trace(LAC_DBG_TIMER, "current_while_timer_expired[port:%d tick %d]\r\n", port->port_no, timer.count.get());
}

static void tick_wait_while(LacPort *port)
{
    LacTimer &timer = port->wait_while_timer;
    if (timer.active == 0)
        return;
    if (timer.count != 0) {
        timer.count -= 1;
        return;
    }
    port->ready_n = 1;
    if (port->selected != LAC_STANDBY)
        timer.active = 0;
    lac_trace(LAC_DBG_MUX, "\r\n wait_while_timer_expiry port %d port->muxm %d\r\n", port->port_no, port->muxm.get());
    lacMuxMachine(port);
}

static void tick_tx_scheduler(LacPort *port)
{
    LacTimer &timer = port->tx_scheduler;
    lac_trace(LAC_DBG_TIMER, "tx_scheduler_expired active %d [port %d tick %d]\r\n", timer.active.get(),
              port->port_no, timer.count.get());
    if (timer.active == 0)
        return;
    if (timer.count != 0) {
        timer.count -= 1;
        return;
    }
    tx_machine(port, Lac_tx_scheduler_expired);
    if (port->port_enabled != 0 && port->lacp_enabled != 0 && lac_either_active(port)) {
        lac_trace(LAC_DBG_TIMER, "tx_scheduler_expiry start [port %d]\r\n", port->port_no);
        Start_tx_scheduler(port);
    } else {
        lac_trace(LAC_DBG_TIMER, "tx_scheduler_expiry stop [port %d]\r\n", port->port_no);
        Stop_tx_scheduler(port);
    }
}

static void tick_periodic(LacPort *port)
{
    LacTimer &timer = port->periodic_timer;
    lac_trace(LAC_DBG_TIMER, "\r\n periodic timer expired [port %d active %d tick %d]\r\n", port->port_no,
              timer.active.get(), timer.count.get());
    if (port->txm == LAC_NO_PERIODIC || lacOutgrowsSlowPeriodic(port))
        update_Period(port);
    if (timer.active == 0)
        return;
    if (timer.count == 0) {
        lac_trace(LAC_DBG_TIMER, "\r\n port %d periodic timer expiry\r\n", port->port_no);
        update_Period(port);
    } else {
        timer.count -= 1;
    }
}

static void tick_mux_scheduler(LacPort *port)
{
    LacTimer &timer = port->mux_scheduler;
    if (timer.active == 0)
        return;
    if (timer.count != 0) {
        timer.count -= 1;
        return;
    }
    timer.active = 0;
    lacSelect(port);
    if (port->selected == LAC_UNSELECTED)
        mux_scheduler_start(port);
}

// Brings the port together with the link as the datastore has it: an event may have found no room in the queue, or
// the leaf may have been unreadable when the machines looked. Whether the link is up; a failed read changes nothing.
static bool follow_link(const LacPort *port)
{
    std::uint32_t up = 0;
    if (get_channel_group_port_link_status(LAC_SLOT, port->port_no, &up) != LAC_OK)
        return false;
    if (up == 1 && port->rxm == LAC_RX_PORT_DISABLED)
        lacLinkUp(port->port_no);
    else if (up == 0 && port->port_enabled == 1)
        lacLinkDown(port->port_no);
    return up == 1;
}

static void tick_member_bar(LacPort *port)
{
    if (port->member_barred == 0)
        return;
    port->member_barred -= 1;
    if (port->member_barred == 0)
        mux_scheduler_start(port);
}

// The order matters: what an earlier step starts is counted down by its own step of the same tick.
void LacTick()
{
    lac_trace(LAC_DBG_TICK, ".");
    for (LacPort *port : lac_ports()) {
        if (port->lacp_enabled != 1 || !follow_link(port))
            continue;
        tick_current_while(port);
        tick_wait_while(port);
        tick_tx_scheduler(port);
        tick_periodic(port);
        tick_member_bar(port);
        tick_mux_scheduler(port);
    }
}
