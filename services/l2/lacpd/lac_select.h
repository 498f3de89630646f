// Selection logic, IEEE Std 802.3 43.4.14: one aggregator per channel group. Dispatcher.
#pragma once

#include "lacp.h"

// Re-evaluates the port's whole channel group and runs each port's mux machine on the result.
void lacSelect(LacPort *port);
// Selects these ports, as a mask, which have served before a restart; none of them waits.
void lacSelectResumed(std::uint32_t ports);
// Puts every port back into an aggregator of its own (LACP switched off).
void lacReattachApsToAgs();
std::uint32_t lacNumOfPortsInAggregation(const LacPort *port);
std::uint32_t lacNumLogicalPorts();
// After a port has left a group without a recorded aggregator: re-selects the first other port configured in it.
// 0, or the code of the last datastore or table read that failed.
int lacReselectGroup(std::uint32_t left_port_no, std::uint32_t group);
