// Commands that display channel groups and protocol state.
#pragma once

#include "frr/frr.hpp"

extern const cmd_element cli_static_lacp_show_sum_cmd;
extern const cmd_element cli_lacp_show_neighbor_cmd;
extern const cmd_element cli_lacp_show_all_lag_cmd;
extern const cmd_element cli_lacp_show_all_info_cmd;
