#include "lacp_cli_database.h"

#include "channel_group.h"
#include "lac_memory.h"

#include "frr/frr.hpp"
#include "keldatabase/keldatabase.h"
#include "shell/shell.h"

#include <cstdlib>
#include <memory>

namespace
{

constexpr std::uint32_t SHORT_TEXT_SIZE = 10;
constexpr std::uint32_t CRITERION_TEXT_SIZE = 20;
constexpr std::size_t PORT_TEXT_SIZE = 8;
constexpr std::size_t SYSTEM_ID_TEXT_SIZE = 64;

// A zeroed work buffer of the shell's memory type.
class CliText
{
  public:
    explicit CliText(std::uint32_t size)
        : text_(static_cast<char *>(qcalloc(MTYPE_LACP_CLI, size)), release), size_(size)
    {
    }
    char *get() const { return text_.get(); }
    std::uint32_t size() const { return size_; }

  private:
    static void release(char *text) { qfree(MTYPE_LACP_CLI, text); }

    std::unique_ptr<char, decltype(&release)> text_;
    std::uint32_t size_;
};

// ---- groups and global configuration --------------------------------------------------------------------------

using PortListReader = int (*)(int group, KelDb *db, char ***texts, std::uint32_t *count);

void show_port_list(vty *vty, KelDb *db, int group, PortListReader read)
{
    char **texts = nullptr;
    std::uint32_t count = 0;
    if (read(group, db, &texts, &count) != 0 || count == 0)
        return;
    for (std::uint32_t i = 0; i < count; ++i)
        vty_out(vty, "\t\t%s\n", texts[i]);
    db_free_string_array_val(texts, count);
}

void show_group(vty *vty, KelDb *db, int group, const CliText &criterion)
{
    vty_out(vty, "----------------------------------channel-group %d----------------------------------\n", group);
    std::uint32_t size = criterion.size();
    if (db_olt_lacp_get_group_load_balance(group, db, criterion.get(), &size) == 0)
        vty_out(vty, "\tload balance: %s\n", criterion.get());
    char type[SHORT_TEXT_SIZE] = {};
    size = sizeof(type);
    if (db_olt_lacp_get_group_lacp_type(group, db, type, &size) == 0)
        vty_out(vty, "\tchannel-group type: %s\n", type);
    vty_out(vty, "\tjoin-port include:\n");
    show_port_list(vty, db, group, db_olt_lacp_get_group_join_port);
    vty_out(vty, "\tmember-port include:\n");
    show_port_list(vty, db, group, db_olt_lacp_get_group_member_port);
}

int cli_config_lacp_db_debug_fun(const cmd_element *, vty *vty, int, cmd_token *[])
{
    KelDb *db = shell_session(vty).db;
    {
        const CliText criterion(CRITERION_TEXT_SIZE);
        for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
            show_group(vty, db, group, criterion);
    }
    vty_out(vty, "----------------------------------global config----------------------------------\n");
    std::uint16_t priority = 0;
    std::uint32_t size = sizeof(priority);
    if (db_olt_lacp_get_global_configuration_system_priority(db, &priority, &size) == 0)
        vty_out(vty, "system priority: %d\n", priority);
    char *xml = nullptr;
    if (db_olt_lacp_show_xml_group_id(db, &xml) == 0) {
        vty_out(vty, "lacp list xml:\n %s\n", xml);
        free(xml);
    }
    return CMD_SUCCESS;
}

// ---- a port's actor and partner -------------------------------------------------------------------------------

template <typename T> using PortReader = int (*)(int, std::uint32_t, const char *, KelDb *, T *, std::uint32_t *);

template <typename T>
void show_port_number(vty *vty, const ShellSession &session, const char *role, PortReader<T> read, const char *format)
{
    T value = 0;
    std::uint32_t size = sizeof(value);
    const int result = read(session.slot, static_cast<std::uint32_t>(session.port), role, session.db, &value, &size);
    vty_out(vty, format, role, value, result);
}

template <std::size_t N>
void show_port_text(vty *vty, const ShellSession &session, const char *role, PortReader<char> read,
                    const char *format)
{
    char value[N] = {};
    std::uint32_t size = sizeof(value);
    const int result = read(session.slot, static_cast<std::uint32_t>(session.port), role, session.db, value, &size);
    vty_out(vty, format, role, value, result);
}

int cli_config_lacp_db_info_debug_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const ShellSession &session = shell_session(vty);
    const char *role = argv[3]->text;
    show_port_number(vty, session, role, db_olt_lacp_get_port_id, "=> get %s port id %d, ret %d\n");
    show_port_number(vty, session, role, db_olt_lacp_get_port_synchronization,
                     "=> get %s port synchronization %d, ret %d\n");
    show_port_number(vty, session, role, db_olt_lacp_get_port_col_dis,
                     "=> get %s port collection and distribution %d, ret %d\n");
    show_port_text<PORT_TEXT_SIZE>(vty, session, role, db_olt_lacp_get_port_mode, "=> get %s port mode %s, ret %d\n");
    show_port_number(vty, session, role, db_olt_lacp_get_port_oper_key, "=> get %s oper key %d, ret %d\n");
    show_port_number(vty, session, role, db_olt_lacp_get_port_port_state, "=> get %s port state %d, ret 0x%x\n");
    show_port_number(vty, session, role, db_olt_lacp_get_port_priority, "=> get %s port priority %d, ret %d\n");
    show_port_text<PORT_TEXT_SIZE>(vty, session, role, db_olt_lacp_get_port_timeout,
                                   "=> get %s port timeout %s, ret %d\n");
    show_port_text<SYSTEM_ID_TEXT_SIZE>(vty, session, role, db_olt_lacp_get_port_system_id,
                                        "=> get %s port system id %s, ret %d\n");
    return CMD_SUCCESS;
}

// ---- a port's trunk leaves ------------------------------------------------------------------------------------

int cli_config_lacp_db_port_debug_fun(const cmd_element *, vty *vty, int, cmd_token *[])
{
    const ShellSession &session = shell_session(vty);
    const auto port = static_cast<std::uint32_t>(session.port);
    const CliText timeout(SHORT_TEXT_SIZE);
    const CliText mode(SHORT_TEXT_SIZE);

    std::uint16_t priority = 0;
    std::uint32_t size = sizeof(priority);
    if (db_olt_lacp_get_trunk_priority(session.slot, port, session.db, &priority, &size) == 0)
        vty_out(vty, "get priority value:%d ret:%d\n", priority, 0);
    size = timeout.size();
    if (db_olt_lacp_get_trunk_timeout(session.slot, port, session.db, timeout.get(), &size) == 0)
        vty_out(vty, "get timeout value:%s ret:%d\n", timeout.get(), 0);
    std::uint8_t group = 0;
    size = sizeof(group);
    if (db_olt_lacp_get_trunk_channel_group(session.slot, port, session.db, &group, &size) == 0)
        vty_out(vty, "get group id value:%d ret:%d\n", group, 0);
    size = mode.size();
    if (db_olt_lacp_get_trunk_mode(session.slot, port, session.db, mode.get(), &size) == 0)
        vty_out(vty, "get mode value:%s ret:%d\n", mode.get(), 0);
    return CMD_SUCCESS;
}

const cmd_element cli_config_lacp_db_debug_cmd = frr::command(
    "cli_config_lacp_db_debug_cmd", "show lacp database",
    "Show running system information. \nShow lacp information.\nInfo of database.\n", cli_config_lacp_db_debug_fun);

const cmd_element cli_config_lacp_db_info_debug_cmd =
    frr::command("cli_config_lacp_db_info_debug_cmd", "show lacp database <actor|partner> information",
                 "Show running system information. \nShow lacp information.\nInfo of database.\nActor of LACP.\n"
                 "Partner of LACP.\nReadonly information.\n",
                 cli_config_lacp_db_info_debug_fun);

const cmd_element cli_config_lacp_db_port_debug_cmd =
    frr::command("cli_config_lacp_db_port_debug_cmd", "show lacp database",
                 "Show running system information. \nShow lacp information.\nInfo of database.\n",
                 cli_config_lacp_db_port_debug_fun);

} // namespace

void lacp_vty_database_init()
{
    shell_install_element(CONFIG_NODE, &cli_config_lacp_db_debug_cmd);
    shell_install_element(UPLINK_PORT_NODE, &cli_config_lacp_db_info_debug_cmd);
    shell_install_element(UPLINK_PORT_NODE, &cli_config_lacp_db_port_debug_cmd);
}
