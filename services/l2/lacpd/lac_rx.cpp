#include "lac_rx.h"

#include "lac_mux.h"
#include "lac_port.h"
#include "lac_timer.h"
#include "lac_tx.h"

// ---- state entries --------------------------------------------------------------------------------------------

static void record_change(LacPort *port)
{
    port->system->last_change_ms = lac_now_ms();
}

static void record_default(LacPort *port)
{
    lac_set_partner_info(port, lac_partner_admin_info(port));
    port->heard_state = 0;
}

static void enter_expired(LacPort *port)
{
    lac_trace(LAC_DBG_RX, "%d:rxm_expired: set short_timeout [EXPIRED]\r\n", port->port_no);
    port->matched = 0;
    lac_clear_partner_state(port, LAC_SYNCHRONIZATION);
    lac_set_partner_state(port, LAC_TIMEOUT);
    lac_set_actor_state(port, LAC_EXPIRED);
    port->rxm = LAC_RX_EXPIRED;
    start_current_while_timer(port, 1);
    record_change(port);
}

static void enter_lacp_disabled(LacPort *port)
{
    lac_trace(LAC_DBG_RX, "[port %d rx entering lacp_disabled for lacp disable or port is't FullDeplex. ]\r\n",
              port->port_no);
    record_default(port);
    lac_set_actor_state(port, LAC_DEFAULTED);
    lac_trace(LAC_DBG_UNSELECT, "%d: rxm_lacp_disabled: UNSELECTED\r\n", port->port_no);
    lac_clear_actor_state(port, LAC_EXPIRED);
    lac_clear_partner_state(port, LAC_AGGREGATION);
    port->selected = LAC_UNSELECTED;
    port->matched = 1;
    port->rxm = LAC_RX_LACP_DISABLED;
    port->individual = 1;
    record_change(port);
}

// Not a state: PORT_DISABLED with a link, and the event, go on to one of two.
static void run_port_enabled(LacPort *port)
{
    lac_trace(LAC_DBG_RX, "[port %d rx Lac_port_enabled %d\r\n", port->port_no, port->lacp_enabled.get());
    port->port_enabled = 1;
    lac_trace(LAC_DBG_PORT, "\r\n %s enable  port %d check duplex status\n\r", "lacRxMachine", port->port_no);
    if (port->lacp_enabled == 1 && lacIsPortFullDuplex(port) == 1)
        enter_expired(port);
    else
        enter_lacp_disabled(port);
}

static void enter_port_disabled(LacPort *port)
{
    const std::uint32_t link = lacIsLinkUp(port);
    lac_trace(LAC_DBG_RX, "[port %d rx Lac_port_disabled UpState = %d]\r\n", port->port_no, link);
    record_default(port);
    port->rxm = LAC_RX_PORT_DISABLED;
    lac_set_actor_state(port, LAC_DEFAULTED);
    lac_clear_partner_state(port, LAC_SYNCHRONIZATION);
    port->matched = 0;
    record_change(port);
    if (link == 1)
        run_port_enabled(port);
}

// The key and the port priority are not administrative values: they stay as configured. The mux machine's bits of the
// administrative state are not claimed: a partner would take the port for attached, and send into it.
static void restore_actor(LacPort *port)
{
    const int timeout = port->actor_oper_state & LAC_TIMEOUT;
    port->actor_system_priority = port->actor_admin_system_priority;
    port->actor_system = port->actor_admin_system;
    port->actor_port = port->actor_admin_port;
    port->actor_oper_state = static_cast<std::uint8_t>((port->actor_admin_state & ~LAC_MUX_BITS) | timeout);
}

static void enter_initialize(LacPort *port)
{
    lac_trace(LAC_DBG_RX, "[port %d rx Lac_init]\r\n", port->port_no);
    restore_actor(port);
    record_default(port);
    lac_set_actor_state(port, LAC_DEFAULTED);
    lac_clear_actor_state(port, LAC_EXPIRED);
    lac_trace(LAC_DBG_UNSELECT, "%d: rxm_initialize: UNSELECTED\r\n", port->port_no);
    port->rxm = LAC_RX_INITIALIZE;
    port->selected = LAC_UNSELECTED;
    port->port_moved = 0;
    lac_trace(LAC_DBG_PORT, "\r\n %s check port %d link and duplex status\n\r", "rxm_initialize", port->port_no);
    port->port_enabled = lacIsLinkUp(port) == 1 && lacIsPortFullDuplex(port) == 1;
    record_change(port);
    enter_port_disabled(port);
}

static void enter_defaulted(LacPort *port)
{
    const LacInfo admin = lac_partner_admin_info(port);
    const LacInfo partner = lac_partner_info(port);
    const bool same = admin.port_priority == partner.port_priority && admin.port == partner.port &&
                      admin.system_priority == partner.system_priority && admin.system == partner.system &&
                      admin.key == partner.key && ((admin.state ^ partner.state) & LAC_AGGREGATION) == 0;
    if (!same) {
        lac_trace(LAC_DBG_UNSELECT, "%d:update_Default_Selected: UNSELECTED\r\n", port->port_no);
        port->selected = LAC_UNSELECTED;
        lac_clear_actor_state(port, LAC_SYNCHRONIZATION);
    }
    record_default(port);
    lac_set_actor_state(port, LAC_DEFAULTED);
    lac_clear_actor_state(port, LAC_EXPIRED);
    lac_clear_partner_state(port, LAC_AGGREGATION);
    lac_set_partner_state(port, LAC_SYNCHRONIZATION);
    port->matched = 1;
    port->stats->trans_count += 1;
    port->rxm = LAC_RX_DEFAULTED;
    mux_scheduler_start(port);
    record_change(port);
}

// ---- a LACPDU, 43.4.9 -----------------------------------------------------------------------------------------

static void update_selected(LacPort *port, const LacInfo &heard)
{
    const bool same = heard.port_priority == port->partner_port_priority && heard.port == port->partner_port &&
                      heard.system_priority == port->partner_system_priority &&
                      heard.system == port->partner_system.get() && heard.key == port->partner_oper_key &&
                      ((heard.state ^ port->partner_oper_state) & LAC_AGGREGATION) == 0;
    if (same)
        return;
    lac_trace(LAC_DBG_UNSELECT, "%d: update_Selected: UNSELECTED\r\n", port->port_no);
    port->selected = LAC_UNSELECTED;
    lac_clear_actor_state(port, LAC_SYNCHRONIZATION);
}

// Whether the partner's view of us names this port as a system of the given address would.
static bool names_us(const LacPort *port, const LacInfo &view, const Mac &system)
{
    return view.port == port->actor_port && view.port_priority == port->actor_port_priority &&
           view.system == system && view.system_priority == port->actor_system_priority &&
           view.key == port->actor_oper_key;
}

static void update_ntt(LacPort *port, const LacInfo &view)
{
    constexpr int COMPARED = LAC_ACTIVITY | LAC_TIMEOUT | LAC_AGGREGATION | LAC_SYNCHRONIZATION;
    if (names_us(port, view, port->actor_system) && ((view.state ^ port->actor_oper_state) & COMPARED) == 0)
        return;
    lac_trace(LAC_DBG_RX, "[update_NTT port %d rx Lac_received,port->rxm %d]\r\n", port->port_no, port->rxm.get());
    tx_machine(port, Lac_ntt);
}

struct PartnerClaim {
    bool active;     // LACP runs: the partner is active, or both ends know each other active
    bool individual; // the partner's link is not aggregatable
    bool matches_system;
    bool matches_port;
};

static PartnerClaim judge(const LacPort *port, const LacPdu &pdu)
{
    const bool both = (port->actor_oper_state & LAC_ACTIVITY) != 0 && (pdu.partner.state & LAC_ACTIVITY) != 0;
    const bool aggregation = ((pdu.partner.state ^ port->actor_oper_state) & LAC_AGGREGATION) == 0;
    return {
        .active = (pdu.actor.state & LAC_ACTIVITY) != 0 || both,
        .individual = (pdu.actor.state & LAC_AGGREGATION) == 0,
        .matches_system = aggregation && names_us(port, pdu.partner, port->system->system_mac),
        .matches_port = aggregation && names_us(port, pdu.partner, port->actor_system),
    };
}

static void record_synchronization(LacPort *port, const LacPdu &pdu, const PartnerClaim &claim)
{
    if (claim.active && (claim.matches_system || claim.individual)) {
        lac_set_partner_state(port, LAC_SYNCHRONIZATION);
        if ((pdu.actor.state & LAC_SYNCHRONIZATION) != 0)
            return;
        port->stats->trans_count += 1;
        if (claim.matches_system)
            lac_trace(LAC_DBG_RX, "[recordPDU-1 port %d rx Lac_received,port->rxm %d]\r\n", port->port_no,
                      port->rxm.get());
        else
            lac_trace(LAC_DBG_RX, "[recordPDU-2 port %d rx Lac_received,port->rxm %d]\r\n", port->port_no,
                      port->rxm.get());
        return;
    }
    lac_clear_partner_state(port, LAC_SYNCHRONIZATION);
    port->stats->change_count += 1;
    lac_trace(LAC_DBG_RX, "[recordPDU-3 port %d rx Lac_received,port->rxm %d]\r\n", port->port_no, port->rxm.get());
}

static void record_partner(LacPort *port, const LacInfo &partner, std::uint8_t heard_state)
{
    lac_set_partner_info(port, partner);
    port->heard_state = heard_state;
    port->aggregator_partner_system = partner.system;
    port->aggregator_partner_system_priority = partner.system_priority;
    port->aggregator_partner_key = partner.key;
    lac_clear_actor_state(port, LAC_DEFAULTED);
}

static void record_pdu(LacPort *port, const LacPdu &pdu)
{
    if (port->heard_state != pdu.actor.state)
        lac_note_change();
    record_partner(port, pdu.actor, pdu.actor.state);
    const PartnerClaim claim = judge(port, pdu);
    record_synchronization(port, pdu, claim);
    port->matched = claim.active && (claim.matches_port || claim.individual);
    if (port->matched == 0)
        port->stats->unmatched_count += 1;
}

static void enter_current(LacPort *port)
{
    start_current_while_timer(port, (port->actor_oper_state & LAC_TIMEOUT) != 0);
    lac_clear_actor_state(port, LAC_EXPIRED);
    port->rxm = LAC_RX_CURRENT;
}

static void receive(LacPort *port, const LacPdu &pdu)
{
    lac_trace(LAC_DBG_RX, "[port %d rx Lac_received,port->rxm %d]\r\n", port->port_no, port->rxm.get());
    const std::uint32_t rxm = port->rxm;
    if (rxm != LAC_RX_CURRENT && rxm != LAC_RX_EXPIRED && rxm != LAC_RX_DEFAULTED)
        return;
    lac_trace(LAC_DBG_RX, "[rxm_current port %d rx Lac_received,port->rxm %d]\r\n", port->port_no, rxm);
    update_selected(port, pdu.actor);
    update_ntt(port, pdu.partner);
    record_pdu(port, pdu);

    const LacPort *aggregator = port->aggregator;
    if (aggregator != port && lacIsLinkUp(aggregator) == 0) {
        lac_trace(LAC_DBG_TIMER, "[%d Don't restart current while timer for agg down.]\r\n", port->port_no);
        return;
    }
    enter_current(port);
}

static void current_while_expired(LacPort *port)
{
    lac_trace(LAC_DBG_RX, "[port %d rx Lac_current_while_timer_expired rxm: %d]\r\n", port->port_no, port->rxm.get());
    if (port->rxm == LAC_RX_CURRENT)
        enter_expired(port);
    else if (port->rxm == LAC_RX_EXPIRED)
        enter_defaulted(port);
}

void lacRxMachine(LacPort *port, std::uint32_t event, const LacPdu *pdu)
{
    switch (event) {
    case Lac_received:
        receive(port, *pdu);
        return;
    case Lac_port_moved:
        port->port_moved = 1;
        lac_trace(LAC_DBG_RX, "[port %d rx Lac_port_moved]\r\n", port->port_no);
        enter_initialize(port);
        break;
    case Lac_init:
        enter_initialize(port);
        break;
    case Lac_port_disabled:
        enter_port_disabled(port);
        break;
    case Lac_port_enabled:
        run_port_enabled(port);
        break;
    case Lac_current_while_timer_expired:
        current_while_expired(port);
        break;
    default:
        lac_trace(LAC_DBG_RX, "[port %d rx default]\r\n", port->port_no);
        break;
    }
    lacKickMux(port, LacKick::event);
}

// What was heard since the start is newer than what is given.
void lacRxResume(LacPort *port, const LacInfo &partner, std::uint8_t heard_state)
{
    if (port->rxm != LAC_RX_CURRENT) {
        record_partner(port, partner, heard_state);
        port->matched = 1;
    }
    enter_current(port);
}
