// What the terminal's shell adds to FRR's vty: node numbers, session fields, parsers.
#pragma once

#include "frr/frr.hpp"
#include "keldatabase/keldatabase.h"

constexpr int UPLINK_PORT_NODE = 123;
constexpr int LACP_NODE = 129;
// For traces of every daemon: "debug-mode" in the enable node leads there, "exit" back.
constexpr int SHELL_DEBUG_NODE = 133;

// Fields of one shell session. Those of a terminal live until it closes; configuration files that are read or
// written share one set.
struct ShellSession : KelDbSession {
    int slot;
    int port;
};

// Installs the debug node and starts watching for sessions that have ended; needs the event loop.
void shell_init(frr::EventLoop *master);

// The session's fields. The datastore handle is attached by the registered hook when the session first asks, and
// given back within a second after the session has ended. When the hook fails the handle is an unconnected one.
ShellSession &shell_session(vty *vty);

// The pause function of the main thread's writes (kel_db_set_pause): while a command finds the datastore locked the
// event loop goes on. The command's session reads nothing before it has its answer, and nothing may close it. A
// command has 2.5 s; one that begins while another waits has no more than that one, because it has to end first.
// Lines of the configuration file wait for as long as it takes.
bool shell_serve_others();

// Prints why a command is refused. A line of the configuration file is remembered with that reason.
[[gnu::format(printf, 2, 3)]] void shell_refuse(vty *vty, const char *format, ...);

// Reads the configuration file from the event loop, in place of the framework, which keeps no account of what is
// refused. Each refused line is told on standard error, and from then on "write memory" does not put a file in its
// place that lacks such a line. `done` is called afterwards; with `read` false nothing is read and nothing may be
// saved.
void shell_take_configuration(frr::EventLoop *master, frr_daemon_info *daemon, bool read, void (*done)());

// Carries out the lines of the configuration file at once, tells of those that are refused, and returns their number;
// -1 when the file cannot be read. The commands learn from shell_checks() that they must not write.
int shell_check_configuration(const frr_daemon_info *daemon);
bool shell_checks();

// Installs a node. Its prompt may hold "%d/%d" behind the host name: slot and port of the session that it is shown
// to.
void shell_install_node(cmd_node *node);

// Installs a command. Its syntax may hold "<S/P>", an interface number in the form SLOT/PORT. A hidden command does
// not answer to short forms of its words, but for the first.
void shell_install_element(int node, const cmd_element *command);

// Installs the commands that every node has ("end", "list", "write", "show running-config", ...), without "exit" and
// "quit". Those of the same words keep the help texts that came first.
void shell_install_defaults(int node);

// The typed text of the token `offset` places behind the first one that reads `word`, or "" when there is none.
const char *cmd_parase_parameters(int argc, cmd_token *argv[], const char *word, int offset);

// Parses "SLOT/PORT" in decimal. 0 and the numbers, or -9 (numbers set to 0) for any other text.
int cmd_parase_intf_str(const char *text, int *slot, int *port);
