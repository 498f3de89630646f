#include "lac_tx.h"

#include "lac_port.h"
#include "lac_task.h"
#include "lac_timer.h"
#include "lac_wire.h"
#include "lacp_packet.h"

#include <algorithm>

// ---- periodic machine -----------------------------------------------------------------------------------------

static void transmit_periodically(LacPort *port)
{
    port->txm = LAC_PERIODIC_TX;
    port->hold_count = 0;
    tx_machine(port, Lac_ntt);
    if ((port->partner_oper_state & LAC_TIMEOUT) != 0) {
        lac_trace(LAC_DBG_PERIODIC, "[port %d ptx PERIODIC_TX->FAST_PERIODIC]\r\n", port->port_no);
        port->txm = LAC_FAST_PERIODIC;
        Start_periodic_timer(port, 1);
    } else {
        lac_trace(LAC_DBG_PERIODIC, "[port %d ptx PERIODIC_TX->SLOW_PERIODIC]\r\n", port->port_no);
        port->txm = LAC_SLOW_PERIODIC;
        Start_periodic_timer(port, 0);
    }
}

void update_Period(LacPort *port)
{
    const bool partner_short = (port->partner_oper_state & LAC_TIMEOUT) != 0;
    const bool actor_short = (port->actor_oper_state & LAC_TIMEOUT) != 0;
    const bool running = port->periodic_timer.count != 0;
    for (;;) {
        lac_trace(LAC_DBG_PERIODIC, "[port %d ptx port->txm:%d]\r\n", port->port_no, port->txm.get());
        switch (port->txm) {
        case LAC_NO_PERIODIC:
            if (port->port_enabled == 0 || port->lacp_enabled == 0 || !lac_either_active(port))
                return;
            lac_trace(LAC_DBG_PERIODIC, "[port %d ptx NO_PERIODIC->FAST_PERIODIC]\r\n", port->port_no);
            port->txm = LAC_FAST_PERIODIC;
            break;
        case LAC_FAST_PERIODIC:
            if (!partner_short) {
                lac_trace(LAC_DBG_PERIODIC, "[port %d ptx FAST_PERIODIC->SLOW_PERIODIC]\r\n", port->port_no);
                port->txm = LAC_SLOW_PERIODIC;
                break;
            }
            if (running && actor_short)
                return;
            lac_trace(LAC_DBG_PERIODIC, "[port %d ptx FAST_PERIODIC->PERIODIC_TX]\r\n", port->port_no);
            port->txm = LAC_PERIODIC_TX;
            break;
        case LAC_SLOW_PERIODIC:
            if (running && !partner_short)
                return;
            lac_trace(LAC_DBG_PERIODIC, "[port %d ptx SLOW_PERIODIC->PERIODIC_TX]\r\n", port->port_no);
            port->txm = LAC_PERIODIC_TX;
            break;
        case LAC_PERIODIC_TX:
            transmit_periodically(port);
            return;
        default:
            return;
        }
    }
}

// A partner that has turned to the short timeout does not wait for the slow timer: it would give this port up, take
// it back and give it up again, without end when both sides are slow.
bool lacOutgrowsSlowPeriodic(const LacPort *port)
{
    return port->txm == LAC_SLOW_PERIODIC && port->periodic_timer.count != 0 &&
           (port->partner_oper_state & LAC_TIMEOUT) != 0;
}

void periodic_machine(LacPort *port, std::uint32_t event)
{
    lac_trace(LAC_DBG_PERIODIC, "\r\nperiodic_machine port  [%d] event [%d]\r\n", port->port_no, event);
    if (event != Lac_init && event != Lac_port_disabled)
        return;
    Stop_periodic_timer(port);
    port->txm = LAC_NO_PERIODIC;
}

// ---- transmit machine -----------------------------------------------------------------------------------------

static void build_lacpdu(const LacPort *port, std::uint8_t *pdu)
{
    LacInfo actor = lac_actor_info(port);
    actor.system = port->system->system_mac;
    const bool alone = port->individual == 1 && port->rxm == LAC_RX_DEFAULTED;
    const LacInfo partner = alone ? lac_partner_admin_info(port) : lac_partner_info(port);
    lacEncodePdu(actor, partner, pdu);
}

static void trace_ntt(const LacPort *port, std::uint32_t event)
{
    lac_trace(LAC_DBG_TX, "\r\n tx_machine port %d event %d  set port->ntt %d \r\n", port->port_no, event,
              port->ntt.get());
}

// A LACPDU that tells a change of our Synchronization is not held back: with a slow partner it would wait for up to
// 31 ticks, and the partner for it.
static bool is_held(const LacPort *port)
{
    const bool is_news = ((port->actor_oper_state ^ port->told_state) & LAC_SYNCHRONIZATION) != 0;
    return port->hold_count >= LAC_HOLD_LIMIT && !is_news;
}

static void transmit(LacPort *port, std::uint32_t event)
{
    if (port->system->system_state == 0) {
        lac_trace(LAC_DBG_SEND, "\r\n %s  port %d system lac is disable\n\r", "tx_lacpdu", port->port_no);
        return;
    }
    LacFrame &slot = lacDrvCtrl->tx_slots[port->port_no - 1];
    slot.fill(0);
    LacpMacHeaderSet(port, slot.data());
    build_lacpdu(port, slot.data() + LAC_MAC_HEADER_SIZE);
    port->stats->tx_lacpdu += 1;
    lac_send_pdu(port->port_no, slot.data());
    port->told_state = port->actor_oper_state;
    port->ntt = 0;
    port->hold_count = std::min(port->hold_count + 1, LAC_HOLD_LIMIT);
    trace_ntt(port, event);
}

static void scheduler_expired(LacPort *port)
{
    lac_trace(LAC_DBG_TX, "\r\n port %d port->ntt %d port->hold_count %d  port->txm %d \r\n", port->port_no,
              port->ntt.get(), port->hold_count.get(), port->txm.get());
    if (port->txm == LAC_NO_PERIODIC) {
        port->ntt = 0;
        trace_ntt(port, Lac_tx_scheduler_expired);
        return;
    }
    if (port->ntt != 1 || is_held(port))
        return;
    lac_trace(LAC_DBG_TX, "\r\n port %d port->ntt %d port->lacp_enabled %d port->hold_count %d  port->txm %d \r\n",
              port->port_no, port->ntt.get(), port->lacp_enabled.get(), port->hold_count.get(), port->txm.get());
    if (port->lacp_enabled != 0)
        transmit(port, Lac_tx_scheduler_expired);
}

void tx_machine(LacPort *port, std::uint32_t event)
{
    lac_trace(LAC_DBG_TX, " tx_machine  port [%d] event [%d]\r\n", port->port_no, event);
    switch (event) {
    case Lac_init:
    case Lac_port_disabled:
        Stop_tx_scheduler(port);
        port->told_state = 0;
        port->ntt = 0;
        port->hold_count = 0;
        trace_ntt(port, event);
        break;
    case Lac_ntt:
        lac_trace(LAC_DBG_TX, "\r\n port %d port->ntt %d port->hold_count %d\r\n", port->port_no, port->ntt.get(),
                  port->hold_count.get());
        port->ntt = 1;
        if (!is_held(port))
            Start_tx_scheduler(port);
        break;
    case Lac_tx_scheduler_expired:
        scheduler_expired(port);
        break;
    default:
        break;
    }
}

// From its start it takes the periodic machine four ticks to the first LACPDU of its own, longer than a short
// timeout: another one bridges them.
void lacTxResume(LacPort *port, std::uint8_t told_state)
{
    port->told_state = told_state;
    update_Period(port);
    tx_machine(port, Lac_tx_scheduler_expired);
    tx_machine(port, Lac_ntt);
}

void lacTxLast(LacPort *port)
{
    if (port->txm != LAC_NO_PERIODIC && port->lacp_enabled != 0)
        transmit(port, Lac_ntt);
}

int lac_send_pdu(std::uint32_t port_no, const std::uint8_t *frame)
{
    lac_trace(LAC_DBG_SEND, "\r\n %s  port %d  bridge port %d cos %d vlan %d\n\r", "lac_send_pdu", port_no, port_no,
              0, 0);
    return lacp_bpdu_transmit(0, 0, port_no, frame, LAC_FRAME_SIZE);
}
