// What the terminal's shell adds to FRR's vty: node numbers, session fields, parsers.
#pragma once

#include "frr/frr.hpp"
#include "keldatabase/keldatabase.h"

#include <cstdint>

constexpr int UPLINK_PORT_NODE = 123;
constexpr int LACP_NODE = 129;

// Fields of one shell session. Those of a terminal live until it closes; a configuration file that is read or
// written has one set of its own.
struct ShellSession : KelDbSession {
    int slot;
    int port;
};

// The session's fields. The datastore handle is attached by the registered hook when the session first asks, and
// given back after the session has ended.
ShellSession &shell_session(vty *vty);

// Starts watching for ended sessions; needs the event loop.
void shell_init(event_loop *master);

// Parses "SLOT/PORT" in decimal. 0 and the numbers, or -9 (numbers set to 0) for any other text.
int cmd_parase_intf_str(const char *text, int *slot, int *port);
