// The privileges that the daemon keeps after it has become user "daemon".
#pragma once

#include "frr/frr.hpp"

extern zebra_privs_t lacp_privs;
