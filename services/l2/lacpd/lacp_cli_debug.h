// Commands that switch traces and show what the datastore holds.
#pragma once

#include "frr/frr.hpp"

extern const cmd_element cli_config_lacp_db_debug_cmd;
extern const cmd_element cli_config_lacp_db_info_debug_cmd;
extern const cmd_element cli_config_lacp_db_port_debug_cmd;
extern const cmd_element cli_config_lacp_pkt_debug_cmd;
extern const cmd_element cli_lacp_sys_debug_set_cmd;
