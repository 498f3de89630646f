// Commands that switch traces.
#pragma once

#include "frr/frr.hpp"

extern const cmd_element cli_config_lacp_pkt_debug_cmd;
extern const cmd_element cli_lacp_sys_debug_set_cmd;
