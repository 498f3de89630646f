// What is typed in the shell: numbers, port names and words, up to the write that they become.
#include "input.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "fake_datastore.h"
#include "lacp_cli.h"
#include "trunk_table.h"

#include "frr/frr.hpp"
#include "keldatabase/keldatabase.h"
#include "shell/shell.h"

#include <optional>
#include <string_view>
#include <vector>

namespace
{

using fuzz::Input;
using fuzz::require;

constexpr const char *WORDS[] = {"interface",
                                 "gigabitEthernet",
                                 "gigabitethernet",
                                 "0/1",
                                 "0/8",
                                 "1/4294967297",
                                 "channel-group",
                                 "load-balance",
                                 "mode",
                                 "on",
                                 "active",
                                 "passive",
                                 "src-mac",
                                 "dst-mac",
                                 "src-dst-mac",
                                 "src-ip",
                                 "dst-ip",
                                 "src-dst-ip",
                                 "all",
                                 "lacp",
                                 "system-priority",
                                 "port-priority",
                                 "timeout",
                                 "short",
                                 "long",
                                 "default",
                                 "no",
                                 "exit",
                                 "quit",
                                 "1",
                                 "4",
                                 "5",
                                 "65535",
                                 "65536",
                                 "-1",
                                 "00",
                                 "show",
                                 "detail",
                                 "ports",
                                 "port",
                                 "debug",
                                 "packet",
                                 "rx",
                                 "tx",
                                 "off",
                                 "?"};
constexpr int NODES[] = {CONFIG_NODE, CONFIG_NODE, UPLINK_PORT_NODE, UPLINK_PORT_NODE, SHELL_DEBUG_NODE, VIEW_NODE};

// ---- what becomes of a line -----------------------------------------------------------------------------------

struct Write {
    const char *leaf;
    int group = 1;
    std::string text;
    std::optional<std::uint16_t> value;
};
std::vector<Write> writes;

int record(Write write)
{
    writes.push_back(std::move(write));
    return 0;
}

// The value of decimal digits, however many zeros are in front.
std::optional<std::uint64_t> number_of(std::string_view text)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
    return text.empty() ? 0 : text.size() > 18 ? UINT64_MAX : std::stoull(std::string(text));
}

// The framework takes a sign in front of a number; only that of zero can be a minus.
std::string_view without_sign(std::string_view text)
{
    return text.starts_with('+') || text.starts_with('-') ? text.substr(1) : text;
}

// The reference for "SLOT/PORT": zeros for anything else.
std::pair<int, int> port_of(const std::string &text)
{
    const auto slash = text.find('/');
    if (slash == std::string::npos)
        return {0, 0};
    const auto slot = number_of(std::string_view(text).substr(0, slash));
    const auto port = number_of(std::string_view(text).substr(slash + 1));
    if (!slot || !port || *slot > INT32_MAX || *port > INT32_MAX)
        return {0, 0};
    return {static_cast<int>(*slot), static_cast<int>(*port)};
}

// A criterion has one name in the shell, the table and the switch.
void check_criterion(const std::string &name)
{
    std::uint32_t code = 0;
    char back[LOAD_BALANCE_NAME_SIZE];
    require(set_channel_group_load_balance_str(1, name.c_str()) == LAC_OK, "the table knows a typed criterion");
    require(get_channel_group_load_balance(1, &code) == LAC_OK && olt::criterion_name(code) == name,
            "the switch has the same name");
    require(get_channel_group_load_balance_str(1, back, sizeof(back)) == LAC_OK && back == name,
            "and so has the table");
}

void check_write(const Write &write, const std::string &last_word)
{
    const std::string_view leaf = write.leaf;
    require(write.group >= 1 && write.group <= CHANNEL_GROUP_MAX_NUM, "a written group exists");
    if (leaf == "load-balance")
        check_criterion(write.text);
    if (leaf == "timeout")
        require(write.text == "short" || write.text == "long", "a timeout is short or long");
    if (leaf == "mode")
        require(write.text == "on" || write.text == "active" || write.text == "passive", "a mode is one of three");
    if (write.value)
        require(*write.value == number_of(without_sign(last_word)).value_or(LAC_DEFAULT_PRIORITY),
                "a priority is the number that was typed, or the default");
}

// ---- inputs ---------------------------------------------------------------------------------------------------

std::string word(Input &input)
{
    const std::uint32_t choice = input.below(16);
    std::string text = choice == 0 ? input.text(input.below(32)) : input.pick(WORDS);
    if (choice == 1)
        text.resize(input.below(static_cast<std::uint32_t>(text.size()) + 1)); // keywords may be shortened
    if (choice == 2) {
        text = std::to_string(input.number(4)) + "/";
        text += std::to_string(input.byte());
    }
    std::erase_if(text, [](char character) { return character < ' ' || character > '~'; }); // as a terminal does
    return text;
}

vty *terminal()
{
    static vty *const only = [] {
        static cmd_node debug_node = frr::node("debug", SHELL_DEBUG_NODE, ENABLE_NODE, "%s# ", nullptr);
        cmd_init(0);
        install_node(&debug_node);
        lacp_vty_init();
        vty *made = vty_new();
        made->type = vty::VTY_FILE;
        made->buf_size_intermediate = UINT64_MAX; // nothing leaves the buffer by itself
        return made;
    }();
    return only;
}

void type_line(Input &input)
{
    vty *const vty = terminal();
    const int node = input.pick(NODES);
    std::string line;
    for (std::uint32_t words = 1 + input.below(7); words > 0; --words)
        line += (line.empty() ? "" : " ") + word(input);
    vty->node = static_cast<node_type>(node);
    writes.clear();
    const int result = cmd_execute(vty, line.c_str(), nullptr, 0);
    buffer_reset(vty->obuf);
    require(result == CMD_SUCCESS || writes.empty(), "a line that is not taken writes nothing");
    require(writes.size() <= static_cast<std::size_t>(CHANNEL_GROUP_MAX_NUM), "a line writes once a group");
    line.erase(line.find_last_not_of(' ') + 1);
    const std::string last = line.substr(line.rfind(' ') + 1);
    for (const Write &write : writes)
        check_write(write, last);
    if (result == CMD_SUCCESS && node == CONFIG_NODE && vty->node == UPLINK_PORT_NODE) {
        const ShellSession &session = shell_session(vty);
        require(std::pair(session.slot, session.port) == port_of(last), "the session has the port that was typed");
    }
}

void parse(Input &input)
{
    const std::string text = std::string(input.text(input.byte()).c_str());
    int slot = -1;
    int port = -1;
    const bool taken = cmd_parase_intf_str(text.c_str(), &slot, &port) == 0;
    require(std::pair(slot, port) == port_of(text), "a port name reads as it should, anything else as zeros");
    if (!taken)
        return;
    const std::string again = std::to_string(slot) + "/" + std::to_string(port);
    int same_slot = -1;
    int same_port = -1;
    require(cmd_parase_intf_str(again.c_str(), &same_slot, &same_port) == 0 && same_slot == slot && same_port == port,
            "a port's name reads as that port");
    set_channel_group_load_balance_str(1, text.c_str());
}

// The names of the table and of the switch agree on every code.
void check_codes(std::uint32_t code)
{
    char name[LOAD_BALANCE_NAME_SIZE];
    set_channel_group_load_balance(1, code);
    require(get_channel_group_load_balance_str(1, name, sizeof(name)) == LAC_OK, "every code has a name");
    require(olt::criterion_name(code).value_or("src-mac") == name, "which is the switch's, or src-mac");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const fuzz::Quiet quiet;
    intf = {1, 4};
    static const bool built = channel_group_daemon_init() == 1;
    Input input(data, size);
    shell_session(terminal()).slot = shell_session(terminal()).port = 0;
    while (built && !input.empty()) {
        switch (input.below(8)) {
        case 0:
            parse(input);
            break;
        case 1:
            check_codes(input.number(input.below(4) == 0 ? 4 : 1));
            break;
        default:
            type_line(input);
        }
    }
    return 0;
}

// ---- the datastore as the shell sees it -----------------------------------------------------------------------

int kel_db_session_open(KelDbSession *session)
{
    static KelDb connection;
    session->db = &connection;
    return 0;
}

int kel_db_session_close(KelDbSession *)
{
    return 0;
}

int db_add_channel_group(KelDb *, int, std::uint32_t, int group, const char *mode)
{
    return record({"mode", group, mode, {}});
}

int db_del_channel_group(KelDb *, int, std::uint32_t, int group)
{
    return record({"group", group, {}, {}});
}

int db_olt_lacp_set_group_load_balance(int group, KelDb *, const char *name, std::uint32_t, std::uint32_t)
{
    return record({"load-balance", group, name, {}});
}

int db_olt_lacp_set_global_configuration_system_priority(KelDb *, std::uint16_t value, std::uint32_t, std::uint32_t)
{
    return record({"system-priority", 1, {}, value});
}

std::uint8_t db_olt_lacp_set_trunk_priority(int, std::uint32_t, KelDb *, std::uint16_t value, std::uint32_t,
                                            std::uint32_t)
{
    return static_cast<std::uint8_t>(record({"priority", 1, {}, value}));
}

int db_olt_lacp_set_trunk_timeout(int, std::uint32_t, KelDb *, const char *text, std::uint32_t, std::uint32_t)
{
    return record({"timeout", 1, text, {}});
}

// Nothing can be read.
#define NO_READER(function, ...)                                                                                     \
    int function(__VA_ARGS__)                                                                                        \
    {                                                                                                                \
        return -1;                                                                                                   \
    }
#define NO_PORT_READER(leaf, type)                                                                                   \
    NO_READER(db_olt_lacp_get_port_##leaf, int, std::uint32_t, const char *, KelDb *, type *, std::uint32_t *)

NO_READER(db_olt_lacp_get_group_load_balance, int, KelDb *, char *, std::uint32_t *)
NO_READER(db_olt_lacp_get_group_join_port, int, KelDb *, char ***, std::uint32_t *)
NO_READER(db_olt_lacp_get_group_member_port, int, KelDb *, char ***, std::uint32_t *)
NO_READER(db_olt_lacp_get_global_configuration_system_priority, KelDb *, std::uint16_t *, std::uint32_t *)
NO_READER(db_olt_lacp_show_xml_group_id, KelDb *, char **)
NO_READER(db_olt_lacp_get_trunk_mode, int, std::uint32_t, KelDb *, char *, std::uint32_t *)
NO_READER(db_olt_lacp_get_trunk_timeout, int, std::uint32_t, KelDb *, char *, std::uint32_t *)
NO_READER(db_olt_lacp_get_trunk_priority, int, std::uint32_t, KelDb *, std::uint16_t *, std::uint32_t *)
NO_PORT_READER(id, std::uint16_t)
NO_PORT_READER(oper_key, std::uint16_t)
NO_PORT_READER(port_state, std::uint8_t)
NO_PORT_READER(synchronization, std::uint8_t)
NO_PORT_READER(col_dis, std::uint8_t)
NO_PORT_READER(priority, std::uint16_t)
NO_PORT_READER(timeout, char)
NO_PORT_READER(system_id, char)
NO_PORT_READER(mode, char)

void db_free_string_array_val(char **, std::uint32_t) {}
