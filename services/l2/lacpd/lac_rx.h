// Receive machine, IEEE Std 802.3 43.4.12. Dispatcher.
#pragma once

#include "lacp.h"

// Runs the machine for one event. `pdu` is given with Lac_received only.
void lacRxMachine(LacPort *port, std::uint32_t event, const LacPdu *pdu);

// Takes the port for CURRENT after a restart, with the partner that it had, unless that has been heard meanwhile.
void lacRxResume(LacPort *port, const LacInfo &partner, std::uint8_t heard_state);
