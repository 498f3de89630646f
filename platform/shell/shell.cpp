#include "shell/shell.h"

#include "shell/grammar.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace
{

constexpr std::chrono::seconds WATCH_AFTER(1);

KelDb unconnected;

struct Session {
    ShellSession fields{};
    int fd = -1;
    ino_t inode = 0; // of the session's socket: tells it from a later one at the same address
};

// libfrr tells nobody when a session ends, so sessions are recognised by their socket.
struct Sessions {
    std::map<const vty *, Session> terminals;
    Session files;
    frr::EventLoop *master = nullptr;
    frr::Event *watch = nullptr;
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

namespace
{

constexpr off_t CONFIGURATION_ROOM = 64 * 1024; // more than any configuration takes

struct SavingCommand {
    cmd_element element;
    decltype(cmd_element::func) save;
};

std::list<SavingCommand> &saving_commands()
{
    static std::list<SavingCommand> instance;
    return instance;
}

// 0, or the error number with which the file's folder takes no other file of that size.
int lack_of_room(const char *file)
{
    std::string probe = std::string(file) + ".room.XXXXXX";
    const int fd = mkstemp(probe.data());
    if (fd < 0)
        return errno;
    const int error = posix_fallocate(fd, 0, CONFIGURATION_ROOM);
    unlink(probe.c_str());
    close(fd);
    return error;
}

// libfrr overlooks a full disk and puts the half-written file in the place of the configuration.
int save_with_room(const cmd_element *self, vty *vty, int argc, cmd_token *argv[])
{
    const bool to_terminal = argc > 1 && std::strcmp(argv[1]->text, "terminal") == 0;
    const char *file = host_config_get();
    const int error = to_terminal || file == nullptr ? 0 : lack_of_room(file);
    if (error != 0) {
        vty_out(vty, "Can't save configuration file %s: %s; it stays as it was.\n", file, strerror(error));
        return CMD_WARNING;
    }
    const auto &all = saving_commands();
    const auto own = std::ranges::find_if(all, [self](const auto &command) { return &command.element == self; });
    return own->save(self, vty, argc, argv);
}

bool saves_the_configuration(const cmd_element &command)
{
    const std::string_view syntax = command.string;
    return syntax.starts_with("write ") || syntax == "copy running-config startup-config";
}

// A command of a node is found through its graph, which names the record to run. (Removing a command with optional
// words from a graph, as another way, fails in libfrr.)
void guard_saving_commands_of(const cmd_node &node)
{
    for (unsigned i = 0; i < vector_active(node.cmd_vector); ++i) {
        const auto *command = static_cast<const cmd_element *>(vector_slot(node.cmd_vector, i));
        if (command == nullptr || !saves_the_configuration(*command))
            continue;
        SavingCommand &guarded = saving_commands().emplace_back(SavingCommand{*command, command->func});
        guarded.element.func = save_with_room;
        for (unsigned j = 0; j < vector_active(node.cmdgraph->nodes); ++j)
            if (auto *place = static_cast<graph_node *>(vector_slot(node.cmdgraph->nodes, j)); place->data == command)
                place->data = &guarded.element;
    }
}

// From the event loop, when every node and its commands are there.
void guard_saving_commands(frr::Event *)
{
    for (unsigned i = 0; i < vector_active(cmdvec); ++i)
        if (const auto *node = static_cast<const cmd_node *>(vector_slot(cmdvec, i)); node != nullptr)
            guard_saving_commands_of(*node);
}

} // namespace

static int enter_debug_mode(const cmd_element *, vty *vty, int, cmd_token *[])
{
    vty->node = SHELL_DEBUG_NODE;
    return CMD_SUCCESS;
}

static const cmd_element debug_mode_cmd =
    frr::command("debug_mode_cmd", "debug-mode", "Switch traces and packet dumps on and off.\n", enter_debug_mode);

static cmd_node debug_node = frr::node("debug", SHELL_DEBUG_NODE, ENABLE_NODE, "%s(debug)# ", nullptr);

void shell_init(frr::EventLoop *master)
{
    sessions().master = master;
    install_node(&debug_node);
    install_default(static_cast<node_type>(SHELL_DEBUG_NODE)); // the record's field is an enumeration without 133
    grammar_init(debug_node);
    _install_element(ENABLE_NODE, &debug_mode_cmd);
    frr::add_event<guard_saving_commands>(master, nullptr, nullptr);
    schedule_watch();
}

ShellSession &shell_session(vty *vty)
{
    if (vty->type != vty::VTY_FILE)
        return terminal_session(vty).fields;
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
