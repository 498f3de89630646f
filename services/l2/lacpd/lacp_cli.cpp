#include "lacp_cli.h"

#include "channel_group.h"
#include "lacp.h"
#include "lacp_cli_debug.h"
#include "lacp_cli_show.h"

#include "frr/frr.hpp"
#include "keldatabase/keldatabase.h"
#include "shell/shell.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string_view>

namespace
{

constexpr std::size_t LOAD_BALANCE_TEXT_SIZE = 30;
constexpr std::size_t TEXT_SIZE = 16;

// Number typed at a token; the syntax has made sure that it is one. Read as the framework reads it, which takes a
// sign.
long long number(const char *text)
{
    return strtoll(text, nullptr, 10);
}

// Whether a keyword was typed, in full or shortened.
bool is_keyword(const cmd_token *token, const char *keyword)
{
    return strcmp(token->text, keyword) == 0;
}

// A priority cut to 16 bits, or the default for the keyword.
std::uint16_t priority(const cmd_token *token)
{
    return is_keyword(token, "default") ? LAC_DEFAULT_PRIORITY : static_cast<std::uint16_t>(number(token->arg));
}

// ---- nodes ----------------------------------------------------------------------------------------------------

int lacp_config_write(vty *vty);
int uplink_port_config_write(vty *vty);

cmd_node lacp_node = frr::node("lacp", LACP_NODE, CONFIG_NODE, "%s(config-lacp)# ", lacp_config_write);
cmd_node uplink_port_node =
    frr::node("uplink-port", UPLINK_PORT_NODE, CONFIG_NODE, "%s(config-if-ge%d/%d)# ", uplink_port_config_write);

// ---- groups of a file that is only checked --------------------------------------------------------------------

struct Membership {
    int group;
    bool manual;
};

std::map<int, Membership> checked_ports;

bool is_port(const ShellSession &session)
{
    return session.slot == LAC_SLOT && session.port >= 1 && session.port <= static_cast<int>(LAC_MAX_PORTS);
}

// What the datastore would refuse whatever it holds.
int check_join(const ShellSession &session, int group, bool manual)
{
    const bool other_type = std::ranges::any_of(checked_ports, [&](const auto &entry) {
        return entry.first != session.port && entry.second.group == group && entry.second.manual != manual;
    });
    if (!is_port(session) || other_type)
        return LAC_REFUSED;
    checked_ports[session.port] = {group, manual};
    return LAC_OK;
}

int check_leave(const ShellSession &session, int group)
{
    const auto entry = checked_ports.find(session.port);
    if (entry == checked_ports.end() || entry->second.group != group)
        return LAC_REFUSED;
    checked_ports.erase(entry);
    return LAC_OK;
}

// ---- commands -------------------------------------------------------------------------------------------------

int giga_interface(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    ShellSession &session = shell_session(vty);
    cmd_parase_intf_str(argv[2]->arg, &session.slot, &session.port);
    if (shell_checks() && !is_port(session))
        shell_refuse(vty, "there is no port %s, only 0/1 to 0/%u", argv[2]->arg, LAC_MAX_PORTS);
    vty->node = UPLINK_PORT_NODE;
    return CMD_SUCCESS;
}

int cl_giga_interface_exit(const cmd_element *, vty *vty, int, cmd_token *[])
{
    vty->node = CONFIG_NODE;
    return CMD_SUCCESS;
}

int join(const ShellSession &session, int group, const char *mode)
{
    return shell_checks() ? check_join(session, group, strcmp(mode, "on") == 0)
                          : db_add_channel_group(session.db, session.slot, static_cast<std::uint32_t>(session.port),
                                                 group, mode);
}

int leave(const ShellSession &session, int group)
{
    return shell_checks()
               ? check_leave(session, group)
               : db_del_channel_group(session.db, session.slot, static_cast<std::uint32_t>(session.port), group);
}

int cli_static_lacp_port_add_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const ShellSession &session = shell_session(vty);
    const int group = static_cast<int>(number(argv[1]->arg));
    const char *mode = argv[3]->text;
    if (join(session, group, mode) != 0)
        shell_refuse(vty, "LACP Msg: set channel-group %d to %s mode failed! This group is already in other mode.\n",
                     group, mode);
    return CMD_SUCCESS;
}

int cli_static_lacp_port_delete_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const ShellSession &session = shell_session(vty);
    const int group = static_cast<int>(number(argv[2]->arg));
    if (leave(session, group) != 0)
        shell_refuse(vty, "LACP Msg: interface %d/%d delete from channel-group %d %s!\n", session.slot, session.port,
                     group, "failed");
    return CMD_SUCCESS;
}

// Of a text with its NUL.
std::uint32_t size_of(const char *text)
{
    return static_cast<std::uint32_t>(strlen(text) + 1);
}

int cli_lacp_criteria_set_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const ShellSession &session = shell_session(vty);
    const char *criterion = argv[3]->text;
    const bool all = is_keyword(argv[1], "all");
    const int first = all ? 1 : static_cast<int>(number(argv[1]->arg));
    const int last = all ? CHANNEL_GROUP_MAX_NUM : first;
    for (int group = first; group <= last; ++group)
        if (!shell_checks() &&
            db_olt_lacp_set_group_load_balance(group, session.db, criterion, size_of(criterion), 1) != 0)
            shell_refuse(vty, "LACP Msg: interface %d/%d set channel-group %d load-balance to %s failed!\n",
                         session.slot, session.port, group, criterion);
    return CMD_SUCCESS;
}

int cli_lacp_syspri_set_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const ShellSession &session = shell_session(vty);
    const std::uint16_t value = priority(argv[2]);
    if (!shell_checks() &&
        db_olt_lacp_set_global_configuration_system_priority(session.db, value, sizeof(value), 1) != 0)
        shell_refuse(vty, "LACP Msg: set system-priority to %d failed!\n", value);
    return CMD_SUCCESS;
}

int cli_lacp_port_state_timeout_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const ShellSession &session = shell_session(vty);
    const char *timeout = argv[2]->text;
    if (!shell_checks() && db_olt_lacp_set_trunk_timeout(session.slot, static_cast<std::uint32_t>(session.port),
                                                         session.db, timeout, size_of(timeout), 1) != 0)
        shell_refuse(vty, "LACP Msg: interface %d/%d set timeout to %s failed!\n", session.slot, session.port,
                     timeout);
    return CMD_SUCCESS;
}

int cli_lacp_intf_portpri_set_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const ShellSession &session = shell_session(vty);
    const std::uint16_t value = priority(argv[2]);
    if (!shell_checks() && db_olt_lacp_set_trunk_priority(session.slot, static_cast<std::uint32_t>(session.port),
                                                          session.db, value, sizeof(value), 1) != 0)
        shell_refuse(vty, "LACP Msg: interface %d/%d set port-priority to %d failed!\n", session.slot, session.port,
                     value);
    return CMD_SUCCESS;
}

// ---- configuration writers ------------------------------------------------------------------------------------

int lacp_config_write(vty *vty)
{
    KelDb *db = shell_session(vty).db;
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
        char criterion[LOAD_BALANCE_TEXT_SIZE] = {};
        std::uint32_t size = sizeof(criterion);
        if (db_olt_lacp_get_group_load_balance(group, db, criterion, &size) == 0)
            vty_out(vty, "channel-group %d load-balance %s\n", group, criterion);
    }
    std::uint16_t value = 0;
    std::uint32_t size = sizeof(value);
    if (db_olt_lacp_get_global_configuration_system_priority(db, &value, &size) == 0 && value != LAC_DEFAULT_PRIORITY)
        vty_out(vty, "lacp system-priority %d\n", value);
    return CMD_SUCCESS;
}

void write_port_attributes(vty *vty, KelDb *db, std::uint32_t port)
{
    char timeout[TEXT_SIZE] = {};
    std::uint32_t size = sizeof(timeout);
    if (db_olt_lacp_get_trunk_timeout(LAC_SLOT, port, db, timeout, &size) == 0)
        vty_out(vty, " lacp timeout %s\n", timeout);
    std::uint16_t value = 0;
    size = sizeof(value);
    if (db_olt_lacp_get_trunk_priority(LAC_SLOT, port, db, &value, &size) == 0 && value != LAC_DEFAULT_PRIORITY)
        vty_out(vty, " lacp port-priority %d\n", value);
}

void write_port(vty *vty, KelDb *db, std::uint32_t port)
{
    std::uint8_t group = 0;
    std::uint32_t size = sizeof(group);
    if (db_olt_lacp_get_trunk_channel_group(LAC_SLOT, port, db, &group, &size) != 0 || group == 0)
        return;
    char type[TEXT_SIZE] = {};
    size = sizeof(type);
    if (db_olt_lacp_get_group_lacp_type(group, db, type, &size) != 0)
        return;
    if (strcmp(type, "manual") == 0) {
        vty_out(vty, " channel-group %d mode %s\n", group, "on");
        return;
    }
    if (strcmp(type, "dynamic") == 0) {
        char mode[TEXT_SIZE] = {};
        size = sizeof(mode);
        if (db_olt_lacp_get_trunk_mode(LAC_SLOT, port, db, mode, &size) != 0)
            return;
        vty_out(vty, " channel-group %d mode %s\n", group, mode);
    }
    write_port_attributes(vty, db, port);
}

int uplink_port_config_write(vty *vty)
{
    if (intf.last_uplink_port == 0)
        return CMD_SUCCESS;
    KelDb *db = shell_session(vty).db;
    for (std::uint32_t port = intf.first_uplink_port; port <= intf.last_uplink_port; ++port) {
        vty_frame(vty, "interface gigabitEthernet %d/%d\n", LAC_SLOT, static_cast<int>(port));
        write_port(vty, db, port);
        vty_endframe(vty, nullptr);
    }
    return CMD_SUCCESS;
}

// ---- command records ------------------------------------------------------------------------------------------

const cmd_element giga_interface_cmd =
    frr::command("giga_interface_cmd", "interface gigabitEthernet <S/P>",
                 "Select an interface to configure.\nGigabitEthernet IEEE 802.3z\n"
                 "GigabitEthernet interface number,slot:<0>,port:<1-x>,x is 4,8 or 16.\n",
                 giga_interface);

const cmd_element gigaeth_interface_cmd =
    frr::command("gigaeth_interface_cmd", "interface gigabitethernet <S/P>",
                 "Select an interface to configure\nGigabitEthernet IEEE 802.3z\n"
                 "GigabitEthernet interface number,slot:<0>,port:<1-x>,x is 4,8 or 16.\n",
                 giga_interface, CMD_ATTR_HIDDEN);

const cmd_element cl_giga_interface_exit_cmd =
    frr::command("cl_giga_interface_exit_cmd", "<exit|quit>",
                 "Exit current mode and down to previous mode.\nExit current mode and down to previous mode.\n",
                 cl_giga_interface_exit);

const cmd_element cli_static_lacp_port_add_cmd =
    frr::command("cli_static_lacp_port_add_cmd", "channel-group (1-4) mode <on|active|passive>",
                 "Etherchannel-port bundling configuration.\nChannel group number.\n"
                 "Channel group mode, include manual-mode, lacp-mode.\nAdd port to channel-group manually.\n"
                 "Enable LACP unconditionally.\nEnable LACP only if a LACP device is detected.\n",
                 cli_static_lacp_port_add_fun);

const cmd_element cli_static_lacp_port_delete_cmd = frr::command(
    "cli_static_lacp_port_delete_cmd", "no channel-group (1-4)",
    "Negate a command or set its defaults.\nEtherchannel-port bundling configuration.\nChannel group number.\n",
    cli_static_lacp_port_delete_fun);

const cmd_element cli_lacp_criteria_set_cmd =
    frr::command("cli_lacp_criteria_set_cmd",
                 "channel-group <(1-4)|all> load-balance <src-mac|dst-mac|src-dst-mac|src-ip|dst-ip|src-dst-ip>",
                 "Etherchannel/port bundling configuration.\nChannel group number.\nSpecify all channel group.\n"
                 "Load Balancing method.\nSpecify criteria by source mac.\nSpecify criteria by destination mac.\n"
                 "Specify criteria by source and destination mac.\nSpecify criteria by source ip.\n"
                 "Specify criteria by destination ip.\nSpecify criteria by source and destination ip.\n",
                 cli_lacp_criteria_set_fun);

const cmd_element cli_lacp_syspri_set_cmd = frr::command(
    "cli_lacp_syspri_set_cmd", "lacp system-priority <(0-65535)|default>",
    "Link aggregation configuration.\nLink aggregation actor system priority.\nPriority value <0-65535>.\n"
    "default value is 32768.\n",
    cli_lacp_syspri_set_fun);

const cmd_element cli_lacp_port_state_timeout_cmd = frr::command(
    "cli_lacp_port_state_timeout_cmd", "lacp timeout <long|short>",
    "Link aggregation configuration.\nSpecify the Timeout control value.\nUse long timeout control value,90s.\n"
    "Use short timeout control value,3s.\n",
    cli_lacp_port_state_timeout_fun);

const cmd_element cli_lacp_intf_portpri_set_cmd = frr::command(
    "cli_lacp_intf_portpri_set_cmd", "lacp port-priority <(0-65535)|default>",
    "Link aggregation configuration.\nChannel-group port actor's priority.\nPort priority value <0-65535>.\n"
    "default value is 32768.\n",
    cli_lacp_intf_portpri_set_fun);

} // namespace

void lacp_vty_init(void (*more)())
{
    shell_install_node(&lacp_node);
    shell_install_node(&uplink_port_node);
    shell_install_element(CONFIG_NODE, &giga_interface_cmd);
    shell_install_element(CONFIG_NODE, &gigaeth_interface_cmd);
    shell_install_element(UPLINK_PORT_NODE, &cl_giga_interface_exit_cmd);
    shell_install_element(VIEW_NODE, &cli_static_lacp_show_sum_cmd);
    shell_install_element(CONFIG_NODE, &cli_static_lacp_show_sum_cmd);
    shell_install_element(CONFIG_NODE, &cli_lacp_show_neighbor_cmd);
    shell_install_element(CONFIG_NODE, &cli_lacp_show_all_lag_cmd);
    shell_install_element(CONFIG_NODE, &cli_lacp_show_all_info_cmd);
    shell_install_element(UPLINK_PORT_NODE, &cli_static_lacp_port_add_cmd);
    shell_install_element(UPLINK_PORT_NODE, &cli_static_lacp_port_delete_cmd);
    shell_install_element(CONFIG_NODE, &cli_lacp_criteria_set_cmd);
    shell_install_element(CONFIG_NODE, &cli_lacp_syspri_set_cmd);
    shell_install_element(UPLINK_PORT_NODE, &cli_lacp_port_state_timeout_cmd);
    shell_install_element(UPLINK_PORT_NODE, &cli_lacp_intf_portpri_set_cmd);
    more();
    shell_install_element(SHELL_DEBUG_NODE, &cli_config_lacp_pkt_debug_cmd);
    shell_install_element(SHELL_DEBUG_NODE, &cli_lacp_sys_debug_set_cmd);
    shell_install_defaults(UPLINK_PORT_NODE);
}
