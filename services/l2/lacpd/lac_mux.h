// Mux machine (coupled control, IEEE Std 802.3 43.4.15) and attachment to aggregators.
#pragma once

#include "lacp.h"

void lacMuxMachine(LacPort *port);
void lacMuxMachineInitPort(LacPort *port);
// Sets the mask of the port's aggregator to the port's own bit.
void lacInitPortMask(LacPort *port);
// State 0 to 6 of an existing port.
std::uint32_t lacGetMuxMachineState(std::uint32_t port_no);

// Marks the port attached and, with a partner, writes it into the group's member ports.
void Attach_Mux_To_Aggregator(std::uint32_t port_no, int agg_no);
// Marks the port detached and removes it from the member ports of the group it was attached in.
void Detach_Mux_From_Aggregator(std::uint32_t port_no, int agg_no);

// Tries again what the datastore has refused of these writes. Once a tick.
void lacSettleMembers();

// Points the port at another aggregator; its bit in the mask moves with it.
void lacChangeAggregator(LacPort *port, LacAggregator *aggregator);

void Enable_Collecting_Distributing(LacPort *port);
void Disable_Collecting_Distributing(LacPort *port, LacAggregator *aggregator);

// Hardware hooks: the switch follows the member-port list, so there is nothing to do here.
void lacEnableCollectingDistributing(LacPort *port);
void lacDisableCollectingDistributing(LacPort *port);
