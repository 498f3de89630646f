// Engine states in which the columns of the displays differ from row to row.
#pragma once

#include "engine.h"

// Ports 1 to 4: two in one aggregation, one standing by, one alone with a partner that does not speak LACP.
void arrange_four_ports();
// Ports 5 to 8 besides: every other name of the machines, and numbers that are wider than their columns.
void arrange_eight_ports();
