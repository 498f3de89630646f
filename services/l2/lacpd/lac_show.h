// Displays of the protocol's state. Main thread. They only read the published words of the records, so a row can mix
// values from before and after a protocol step.
#pragma once

#include <cstdint>

struct vty;

constexpr std::uint32_t LAC_SHOW_ALL_PORTS = 0xFFFF;

// Names by field value.
extern const char *const LAC_TIMER_ACTIVE[2];
extern const char *const LACP_ENABLED[2];
extern const char *const LACP_BOOL[2];
extern const char *const SHOW_MUX[7];
extern const char *const SHOW_SELECTION[3];
extern const char *const SHOW_TX_MACHINE[5];
extern const char *const SHOW_RX_MACHINE[7];

// Actor parameters and collecting/distributing of every port. 0, or -1 before the system record exists.
int lacShowLinkAggregation(vty *vty, std::uint32_t port);
// Everything about every port, in seven blocks; always 0.
int lacShowAll(vty *vty);
// Local and partner information of a group's running ports; what the last vty_out returned.
int lacShowNeighbor(vty *vty, int group);
