#include "shell/shell.h"

#include "shell/configuration.h"
#include "shell/grammar.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <list>
#include <map>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds WATCH_AFTER(1);
constexpr std::chrono::milliseconds PAUSE(20);
// What a command may take with a locked datastore, so that it answers within three seconds.
constexpr std::chrono::milliseconds COMMAND_PATIENCE(2500);

KelDb unconnected;

struct Session {
    ShellSession fields{};
    int fd = -1;
    ino_t inode = 0; // of the session's socket: tells it from a later one at the same address
};

struct Command {
    vty *terminal = nullptr; // null: lines of the configuration file, which wait as long as it takes
    Clock::time_point give_up = Clock::time_point::max();
};

// libfrr tells nobody when a session ends, so sessions are recognised by their socket.
struct Sessions {
    std::map<const vty *, Session> terminals;
    Session files;
    frr::EventLoop *master = nullptr;
    frr::Event *watch = nullptr;
    Command running;                                    // the command that is carried out now
    Clock::time_point limit = Clock::time_point::max(); // until when commands that others wait for have to end
};

// Never destroyed: the event loop may still use it while the process exits.
Sessions &sessions()
{
    alignas(Sessions) static std::byte storage[sizeof(Sessions)];
    static Sessions *const instance = std::construct_at(reinterpret_cast<Sessions *>(storage));
    return *instance;
}

ino_t inode_of(int fd)
{
    struct stat status {
    };
    return fd >= 0 && fstat(fd, &status) == 0 ? status.st_ino : 0;
}

void attach(Session &session)
{
    if (kel_db_session_open(&session.fields) != 0 || session.fields.db == nullptr)
        session.fields.db = &unconnected;
}

void detach(Session &session)
{
    if (session.fields.db != &unconnected)
        kel_db_session_close(&session.fields);
    session.fields.db = nullptr;
}

bool has_ended(const Session &session)
{
    return inode_of(session.fd) != session.inode;
}

void watch_sessions(frr::Event *);

void schedule_watch()
{
    Sessions &all = sessions();
    if (all.master != nullptr && !all.terminals.empty())
        frr::add_timer<watch_sessions>(all.master, nullptr, WATCH_AFTER, &all.watch);
}

void watch_sessions(frr::Event *)
{
    auto &terminals = sessions().terminals;
    for (auto entry = terminals.begin(); entry != terminals.end();) {
        const bool ended = has_ended(entry->second);
        if (ended)
            detach(entry->second);
        entry = ended ? terminals.erase(entry) : std::next(entry);
    }
    schedule_watch();
}

Session &terminal_session(const vty *vty)
{
    const auto [entry, added] = sessions().terminals.try_emplace(vty);
    Session &session = entry->second;
    if (!added && !has_ended(session) && session.fd == vty->fd)
        return session;
    if (!added)
        detach(session);
    session = {{}, vty->fd, inode_of(vty->fd)};
    attach(session);
    schedule_watch();
    return session;
}

} // namespace

static int enter_debug_mode(const cmd_element *, vty *vty, int, cmd_token *[])
{
    vty->node = SHELL_DEBUG_NODE;
    return CMD_SUCCESS;
}

static const cmd_element debug_mode_cmd =
    frr::command("debug_mode_cmd", "debug-mode", "Switch traces and packet dumps on and off.\n", enter_debug_mode);

// Its writer stands at the end of the running configuration, as the node's number is the highest.
static cmd_node debug_node =
    frr::node("debug", SHELL_DEBUG_NODE, ENABLE_NODE, "%s(debug)# ", shell_write_refused_lines);

void shell_init(frr::EventLoop *master)
{
    sessions().master = master;
    install_node(&debug_node);
    install_default(static_cast<node_type>(SHELL_DEBUG_NODE)); // the record's field is an enumeration without 133
    grammar_init(debug_node);
    _install_element(ENABLE_NODE, &debug_mode_cmd);
    frr::add_event<shell_guard_saving_commands>(master, nullptr, nullptr);
    schedule_watch();
}

bool shell_serve_others()
{
    Sessions &all = sessions();
    const Command waiting = all.running;
    if (waiting.terminal != nullptr) {
        frr::cancel(&waiting.terminal->t_timeout);
        frr::cancel(&waiting.terminal->t_write);
    }
    const Clock::time_point limit = std::exchange(all.limit, std::min(all.limit, waiting.give_up));
    frr::run_others(all.master, PAUSE);
    all.limit = limit;
    all.running = waiting;
    return Clock::now() < waiting.give_up;
}

ShellSession &shell_session(vty *vty)
{
    Sessions &all = sessions();
    if (vty->type != vty::VTY_FILE) {
        all.running = {vty, std::min(Clock::now() + COMMAND_PATIENCE, all.limit)};
        return terminal_session(vty).fields;
    }
    all.running = {};
    Session &files = sessions().files;
    if (files.fields.db == nullptr)
        attach(files);
    return files.fields;
}

const ShellSession *known_session(const vty *vty)
{
    const auto entry = sessions().terminals.find(vty);
    return entry == sessions().terminals.end() ? nullptr : &entry->second.fields;
}

const char *cmd_parase_parameters(int argc, cmd_token *argv[], const char *word, int offset)
{
    for (int i = 0; i + offset < argc; ++i)
        if (std::strcmp(argv[i]->text, word) == 0)
            return argv[i + offset]->text;
    return "";
}

int cmd_parase_intf_str(const char *text, int *slot, int *port)
{
    *slot = 0;
    *port = 0;
    const char *const end = text + std::strlen(text);
    unsigned slot_no = 0;
    unsigned port_no = 0;
    const auto first = std::from_chars(text, end, slot_no);
    if (first.ec != std::errc{} || first.ptr == end || *first.ptr != '/')
        return -9;
    const auto second = std::from_chars(first.ptr + 1, end, port_no);
    if (second.ec != std::errc{} || second.ptr != end || slot_no > INT32_MAX || port_no > INT32_MAX)
        return -9;
    *slot = static_cast<int>(slot_no);
    *port = static_cast<int>(port_no);
    return 0;
}
