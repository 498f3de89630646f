// Mux machine (coupled control, IEEE Std 802.3 43.4.15) and attachment to aggregators. Dispatcher, but for the state,
// which any thread may ask for.
#pragma once

#include "lacp.h"

void lacMuxMachine(LacPort *port);
void lacMuxMachineInitPort(LacPort *port);
// The next run begins with the entry of DETACHED.
void lacRestartMux(LacPort *port);
// The port was attached in its group before a restart.
void lacMuxResume(LacPort *port);
// Sets the mask of the port's aggregator to the port's own bit.
void lacInitPortMask(LacPort *port);
// State 0 to 6 of an existing port.
std::uint32_t lacGetMuxMachineState(std::uint32_t port_no);

// Mark the port attached in its group, or detached. The group's member ports follow when the message is done with.
void Attach_Mux_To_Aggregator(std::uint32_t port_no, int agg_no);
void Detach_Mux_From_Aggregator(std::uint32_t port_no, int agg_no);

// Starts the port's mux scheduler when what the receive machine did may let the mux machine move; a port that has
// become UNSELECTED is detached. An event other than a LACPDU also starts it for a machine that has not run yet.
enum class LacKick { lacpdu, event };
void lacKickMux(LacPort *port, LacKick after);

// Points the port at another aggregator; its bit in the mask moves with it.
void lacChangeAggregator(LacPort *port, LacAggregator *aggregator);

void Enable_Collecting_Distributing(LacPort *port);
void Disable_Collecting_Distributing(LacPort *port, LacAggregator *aggregator);

// Hardware hooks: the switch follows the member-port list, so there is nothing to do here.
void lacEnableCollectingDistributing(LacPort *port);
void lacDisableCollectingDistributing(LacPort *port);
