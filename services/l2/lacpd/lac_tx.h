// Periodic transmission (IEEE Std 802.3 43.4.13) and transmit machines. Dispatcher.
#pragma once

#include "lacp.h"

// Whether the periodic machine has to run before its timer ends. Dispatcher.
bool lacOutgrowsSlowPeriodic(const LacPort *port);
// One step of the periodic machine; only the tick calls it.
void update_Period(LacPort *port);
// Lac_init and Lac_port_disabled put the periodic machine back to NO_PERIODIC.
void periodic_machine(LacPort *port, std::uint32_t event);
void tx_machine(LacPort *port, std::uint32_t event);

// What a port last told before a restart; tells at once what it is now. Its periodic transmission starts.
void lacTxResume(LacPort *port, std::uint8_t told_state);
// A LACPDU at once, whatever else is due: the last one before an end on purpose.
void lacTxLast(LacPort *port);

// Sends a 124-byte frame (header and PDU) out of a port; the socket's result.
int lac_send_pdu(std::uint32_t port_no, const std::uint8_t *frame);

inline bool lac_either_active(const LacPort *port)
{
    return ((port->actor_oper_state | port->partner_oper_state) & LAC_ACTIVITY) != 0;
}
