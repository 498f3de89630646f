// The configuration file: it is read line by line, and saved only when no line is lost by that.
#include "shell/configuration.h"

#include "shell/shell.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <list>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <vector>

namespace
{

struct Line {
    unsigned number;
    std::string context; // "interface ...", or empty
    std::string text;
    std::string reason;
};

enum class State { not_read, reading, checking, read, left_alone };

struct Configuration {
    State state = State::not_read;
    std::vector<Line> refused;
    std::string reason; // why the line that is carried out now is refused
    frr_daemon_info *daemon = nullptr;
    void (*done)() = nullptr;
};

Configuration &configuration()
{
    static Configuration *const instance =
        std::make_unique<Configuration>().release(); // in use until the process ends
    return *instance;
}

std::string word_by_word(std::string_view line)
{
    std::istringstream words{std::string(line)};
    std::string result;
    for (std::string word; words >> word;)
        result += (result.empty() ? "" : " ") + word;
    return result;
}

// ---- reading --------------------------------------------------------------------------------------------------

const char *framework_reason(int result)
{
    switch (result) {
    case CMD_SUCCESS:
    case CMD_WARNING:
    case CMD_SUCCESS_DAEMON:
    case CMD_ERR_NOTHING_TODO:
        return "";
    case CMD_ERR_NO_MATCH:
        return "there is no such command";
    case CMD_ERR_AMBIGUOUS:
        return "the command is ambiguous";
    case CMD_ERR_INCOMPLETE:
        return "the command is incomplete";
    default:
        return "the command failed";
    }
}

std::string context_of(vty *vty)
{
    if (vty->node != UPLINK_PORT_NODE)
        return {};
    const ShellSession &session = shell_session(vty);
    return "interface gigabitEthernet " + std::to_string(session.slot) + "/" + std::to_string(session.port);
}

void tell_of(const Line &line)
{
    std::fprintf(stderr, "%s: %s line %u refused: %s%s%s: %s\n", frr_get_progname(), host_config_get(), line.number,
                 line.context.c_str(), line.context.empty() ? "" : ", ", line.text.c_str(), line.reason.c_str());
}

// A line that is not indented may be meant for the node above, where the framework looks as well.
void carry_out(vty *vty, unsigned number)
{
    Configuration &all = configuration();
    const bool indented = vty->buf[0] == ' ';
    Line line{number, context_of(vty), word_by_word(vty->buf), {}};
    if (line.text == "end") { // as a displayed configuration has it
        vty->node = CONFIG_NODE;
        return;
    }
    all.reason.clear();
    const int result = command_config_read_one_line(vty, nullptr, static_cast<int>(number), 0);
    line.reason = all.reason.empty() ? framework_reason(result) : all.reason;
    if (line.reason.empty())
        return;
    if (!indented && (all.reason.empty() || context_of(vty) != line.context))
        line.context.clear();
    tell_of(line);
    all.refused.push_back(std::move(line));
}

// As the framework opens it: also its own default, and the copy of a file that was being saved.
bool read_file(const frr_daemon_info *daemon)
{
    FILE *file = vty_open_config(daemon->config_file, config_default);
    if (file == nullptr)
        return false;
    vty *lines = vty_new();
    lines->type = vty::VTY_FILE;
    lines->node = CONFIG_NODE;
    lines->config = true;
    lines->candidate_config = vty_shared_candidate_config;
    lines->wfd = STDERR_FILENO;
    for (unsigned number = 1; fgets(lines->buf, VTY_BUFSIZ, file) != nullptr; ++number)
        carry_out(lines, number);
    vty_close(lines);
    fclose(file);
    return true;
}

void read_from_loop(frr::Event *)
{
    Configuration &all = configuration();
    kel_db_set_pause(shell_serve_others);
    if (all.state != State::left_alone) {
        all.state = State::reading;
        read_file(all.daemon);
        all.state = State::read;
    }
    if (all.done != nullptr)
        all.done();
}

// ---- what would be lost ---------------------------------------------------------------------------------------

using Statements = std::set<std::pair<std::string, std::string>>; // context and line

// Of a text that configuration writers have made: what belongs to an interface is indented.
Statements statements(const std::string &text)
{
    Statements all;
    std::istringstream lines(text);
    std::string context;
    for (std::string line; std::getline(lines, line);) {
        const bool indented = line.starts_with(' ');
        const std::string words = word_by_word(line);
        all.insert({indented ? context : "", words});
        if (!indented)
            context = words;
    }
    return all;
}

std::string running_configuration()
{
    const int memory = memfd_create("running configuration", MFD_CLOEXEC);
    vty *output = vty_new();
    output->type = vty::VTY_FILE;
    output->wfd = memory;
    for (unsigned i = 0; i < vector_active(cmdvec); ++i) {
        const auto *node = static_cast<const cmd_node *>(vector_slot(cmdvec, i));
        if (node != nullptr && node->config_write != nullptr && node->config_write != shell_write_refused_lines)
            node->config_write(output);
    }
    buffer_flush_all(output->obuf, memory);
    vty_close(output);
    std::string text(static_cast<std::size_t>(std::max<off_t>(0, lseek(memory, 0, SEEK_END))), '\0');
    if (pread(memory, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        text.clear();
    close(memory);
    return text;
}

// Refused lines that are not configured by now.
std::vector<Line> missing_lines()
{
    const auto &refused = configuration().refused;
    if (refused.empty())
        return {};
    const Statements running = statements(running_configuration());
    std::vector<Line> missing;
    std::ranges::copy_if(refused, std::back_inserter(missing), [&running](const Line &line) {
        return !running.contains({line.context, line.text});
    });
    return missing;
}

// Those of them that the file still holds.
std::vector<Line> lines_at_stake(const char *file)
{
    std::vector<Line> lines = missing_lines();
    std::set<std::string> held;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        held.insert(word_by_word(line));
    std::erase_if(lines, [&held](const Line &line) { return !held.contains(line.text); });
    return lines;
}

// ---- saving ---------------------------------------------------------------------------------------------------

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

int keep_file(vty *vty, const char *file, const char *reason)
{
    vty_out(vty, "Can't save configuration file %s: %s; it stays as it was.\n", file, reason);
    return CMD_WARNING;
}

int keep_lines(vty *vty, const char *file, const std::vector<Line> &lines)
{
    keep_file(vty, file, "lines of it that were refused at the start would be lost");
    for (const Line &line : lines)
        vty_out(vty, "  line %u: %s%s%s\n", line.number, line.context.c_str(), line.context.empty() ? "" : ", ",
                line.text.c_str());
    vty_out(vty,
            "Type them again, or restart %s when their cause is gone, or take them out of the file; then save.\n",
            frr_get_progname());
    return CMD_WARNING;
}

// libfrr overlooks a full disk and puts the half-written file in the place of the configuration.
int save_safely(const cmd_element *self, vty *vty, int argc, cmd_token *argv[])
{
    const bool to_terminal = argc > 1 && std::strcmp(argv[1]->text, "terminal") == 0;
    const char *file = host_config_get();
    if (!to_terminal && file != nullptr) {
        const State state = configuration().state;
        if (state == State::left_alone)
            return keep_file(vty, file, "another process serves the datastore");
        if (state != State::read)
            return keep_file(vty, file, "it is still being read");
        if (const std::vector<Line> lines = lines_at_stake(file); !lines.empty())
            return keep_lines(vty, file, lines);
        if (const int error = lack_of_room(file); error != 0)
            return keep_file(vty, file, strerror(error));
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
        guarded.element.func = save_safely;
        for (unsigned j = 0; j < vector_active(node.cmdgraph->nodes); ++j)
            if (auto *place = static_cast<graph_node *>(vector_slot(node.cmdgraph->nodes, j)); place->data == command)
                place->data = &guarded.element;
    }
}

} // namespace

void shell_guard_saving_commands(frr::Event *)
{
    for (unsigned i = 0; i < vector_active(cmdvec); ++i)
        if (const auto *node = static_cast<const cmd_node *>(vector_slot(cmdvec, i)); node != nullptr)
            guard_saving_commands_of(*node);
}

int shell_write_refused_lines(vty *vty)
{
    for (const Line &line : missing_lines())
        vty_out(vty, "! refused at the start, line %u: %s%s%s\n", line.number, line.context.c_str(),
                line.context.empty() ? "" : ", ", line.text.c_str());
    return 0;
}

void shell_refuse(vty *vty, const char *format, ...)
{
    std::array<char, 512> text;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (vty->type == vty::VTY_FILE)
        configuration().reason = word_by_word(text.data());
    if (!shell_checks())
        vty_out(vty, "%s", text.data());
}

void shell_take_configuration(frr::EventLoop *master, frr_daemon_info *daemon, bool read, void (*done)())
{
    frr::cancel(&daemon->read_in);
    Configuration &all = configuration();
    all.daemon = daemon;
    all.done = done;
    all.state = read ? State::not_read : State::left_alone;
    if (!read && daemon->config_file != nullptr)
        host_config_set(daemon->config_file);
    frr::add_event<read_from_loop>(master, nullptr, nullptr);
}

int shell_check_configuration(const frr_daemon_info *daemon)
{
    configuration().state = State::checking;
    return read_file(daemon) ? static_cast<int>(configuration().refused.size()) : -1;
}

bool shell_checks()
{
    return configuration().state == State::checking;
}
