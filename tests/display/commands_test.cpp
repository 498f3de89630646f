// The commands of displays, traces and inspection, typed at the framework's parser.
#include "inspection_fakes.h"
#include "states.h"
#include "terminal.h"

#include "channel_group_show.h"
#include "lac_show.h"
#include "lacp_cli_debug.h"
#include "lacp_cli_show.h"

#include "shell/shell.h"

#include <tuple>

namespace
{

void install_commands()
{
    static bool installed;
    if (installed)
        return;
    installed = true;
    cmd_init(0);
    static cmd_node port_node = frr::node("port", UPLINK_PORT_NODE, CONFIG_NODE, "%s# ", nullptr);
    static cmd_node debug_node = frr::node("debug", SHELL_DEBUG_NODE, ENABLE_NODE, "%s# ", nullptr);
    install_node(&port_node);
    install_node(&debug_node);
    for (const auto *command :
         {&cli_static_lacp_show_sum_cmd, &cli_lacp_show_neighbor_cmd, &cli_lacp_show_all_lag_cmd,
          &cli_lacp_show_all_info_cmd, &cli_config_lacp_db_debug_cmd})
        _install_element(CONFIG_NODE, command);
    for (const auto *command : {&cli_config_lacp_db_info_debug_cmd, &cli_config_lacp_db_port_debug_cmd})
        _install_element(static_cast<node_type>(UPLINK_PORT_NODE), command);
    for (const auto *command : {&cli_config_lacp_pkt_debug_cmd, &cli_lacp_sys_debug_set_cmd})
        _install_element(static_cast<node_type>(SHELL_DEBUG_NODE), command);
}

class Commands : public EngineTest
{
  protected:
    Commands() : EngineTest(1, 4)
    {
        install_commands();
        fake::inspected() = {};
        shell_session(terminal).slot = 0;
        shell_session(terminal).port = 3;
    }

    std::string typed(int node, const std::string &line, int result = CMD_SUCCESS)
    {
        terminal.take();
        EXPECT_EQ(terminal.run(node, line), result) << line;
        return terminal.take();
    }
    std::string typed(const std::string &line) { return typed(CONFIG_NODE, line); }

    // What a debug command says to its session and on standard output.
    std::pair<std::string, std::string> debug(const std::string &line)
    {
        std::string shown;
        const std::string out = printed([&] { shown = typed(SHELL_DEBUG_NODE, line); });
        return {shown, out};
    }

    Terminal terminal;
};

TEST(CommandRecords, SyntaxAndHelp)
{
    const std::string show = "Show running system information\n";
    const std::string database = "Show running system information. \nShow lacp information.\nInfo of database.\n";
    const struct {
        const cmd_element &command;
        const char *name, *syntax;
        std::string help;
    } table[] = {
        {cli_static_lacp_show_sum_cmd, "cli_static_lacp_show_sum_cmd", "show channel-group [(1-4)] <detail|ports>",
         show + "Channel group information.\nSpecify channel group id.\nDetail of channel-group.\n"
                "Information of ports for channel-group.\n"},
        {cli_lacp_show_neighbor_cmd, "cli_lacp_show_neighbor_cmd", "show channel-group (1-4) port",
         show + "Specify channel group information.\nSpecify channel group id.\nSpecify 802.3ad port information.\n"},
        {cli_lacp_show_all_lag_cmd, "cli_lacp_show_all_lag_cmd", "show channel-group interface all",
         show + "Specify channel group information.\nSpecify interface information.\nSpecify all interfaces.\n"},
        {cli_lacp_show_all_info_cmd, "cli_lacp_show_all_info_cmd", "show channel-group information",
         show + "Specify channel group information.\nSpecify all information.\n"},
        {cli_config_lacp_db_debug_cmd, "cli_config_lacp_db_debug_cmd", "show lacp database", database},
        {cli_config_lacp_db_info_debug_cmd, "cli_config_lacp_db_info_debug_cmd",
         "show lacp database <actor|partner> information",
         database + "Actor of LACP.\nPartner of LACP.\nReadonly information.\n"},
        {cli_config_lacp_db_port_debug_cmd, "cli_config_lacp_db_port_debug_cmd", "show lacp database", database},
        {cli_config_lacp_pkt_debug_cmd, "cli_config_lacp_pkt_debug_cmd", "[no] debug lacp packet <rx|tx|all>",
         "Disable debug mode\nDebugging functions.\nSpecify lacp debugging operation.\nPacket Debug.\n"
         "RX packet debug\nTX packet debug\nBoth rx and tx packet debug\n"},
        {cli_lacp_sys_debug_set_cmd, "cli_lacp_sys_debug_set_cmd", "debug lacp <off|rx|tx|task|pdu|other|all>",
         "debug mode\nSpecify lacp debugging operation.\nShut off debug information.\n"
         "Open lacp receive debug information.\nOpen lacp transmit debug information.\n"
         "Open lacp task debug information.\nOpen lacp bpdu debug information.\n"
         "Open lacp others debug information.\nOpen lacp all debug information.\n"},
    };
    for (const auto &row : table) {
        EXPECT_STREQ(row.command.name, row.name);
        EXPECT_STREQ(row.command.string, row.syntax);
        EXPECT_EQ(row.command.doc, row.help) << row.name;
        EXPECT_EQ(row.command.attr, 0U) << row.name;
    }
}

// ---- displays -------------------------------------------------------------------------------------------------

TEST_F(Commands, Displays)
{
    arrange_four_ports();
    set_channel_group_used(3, 1);
    for (const std::uint32_t group : {0, 1, 2, 3, 4}) {
        const std::string number = group == 0 ? "" : std::to_string(group) + " ";
        EXPECT_EQ(typed("show channel-group " + number + "detail"),
                  terminal.shown([group](vty *vty) { show_channel_groups_information(vty, group); }));
        EXPECT_EQ(typed("show channel-group " + number + "ports"),
                  terminal.shown([](vty *vty) { show_lacp_ports_infomation(vty, 0); }));
        if (group != 0) {
            EXPECT_EQ(typed("show channel-group " + number + "port"),
                      terminal.shown([group](vty *vty) { lacShowNeighbor(vty, static_cast<int>(group)); }));
        }
    }
    EXPECT_NE(typed("show channel-group 3 detail"), typed("show channel-group 4 detail"));
    EXPECT_EQ(typed("show channel-group interface all"),
              terminal.shown([](vty *vty) { lacShowLinkAggregation(vty, 0xFFFF); }));
    EXPECT_EQ(typed("show channel-group information"), terminal.shown(lacShowAll));
}

TEST_F(Commands, WhileLacpIsOffTwoDisplaysRefuse)
{
    arrange_four_ports();
    lacDrvCtrl->lac_enable = 0;
    EXPECT_EQ(typed("show channel-group interface all"), "please lacp enable first!\r\n");
    EXPECT_EQ(typed("show channel-group information"), "please lacp enable first!\r\n");
    EXPECT_NE(typed("show channel-group 1 port"), "please lacp enable first!\r\n") << "it looks at the system itself";
    lacSystem->system_state = 0;
    EXPECT_EQ(typed("show channel-group 1 port"), "\r\nLACP disabled\r\n");
    EXPECT_EQ(typed("show channel-group 1 detail").substr(0, 71), std::string(71, '-'));
}

TEST_F(Commands, OneGroupNumberTooHighIsRefusedByTheHandlerToo)
{
    arrange_four_ports();
    EXPECT_EQ(typed(CONFIG_NODE, "show channel-group 5 port", CMD_ERR_NO_MATCH), "");
    char number[] = "5";
    cmd_token token{};
    token.arg = number;
    cmd_token *argv[] = {&token, &token, &token, &token};
    int result = 0;
    std::string shown;
    const std::string out = printed([&] {
        shown = terminal.shown(
            [&](vty *vty) { result = cli_lacp_show_neighbor_cmd.func(&cli_lacp_show_neighbor_cmd, vty, 4, argv); });
    });
    EXPECT_EQ(result, 2);
    EXPECT_EQ(out, "\r\nInvalid channel group number.\r");
    EXPECT_EQ(shown, "");
}

// ---- traces ---------------------------------------------------------------------------------------------------

TEST_F(Commands, KeywordsOfTheTraceWord)
{
    const struct {
        const char *keyword;
        std::uint32_t before, after;
    } table[] = {
        {"off", 0xFFFFFFFF, 0},    {"rx", 0, 0x10},
        {"tx", 0, 0x8000},         {"task", 0, 0x40000},
        {"pdu", 0, 0x7},           {"other", 0, 0x2400},
        {"all", 0, 0x3fff8},       {"rx", 0x7, 0x17},
        {"all", 0x40007, 0x3fff8}, {"tx", 0x80000010, 0x80008010},
        {"task", 0x17, 0x40017},   {"other", 0x2400, 0x2400},
    };
    for (const auto &row : table) {
        SCOPED_TRACE(row.keyword);
        lacDebug = row.before;
        const auto [shown, out] = debug(std::string("debug lacp ") + row.keyword);
        EXPECT_EQ(lacDbgGet(), row.after);
        EXPECT_EQ(shown, "");
        char confirmation[64];
        snprintf(confirmation, sizeof confirmation, "\r\nMsg lacDbgCfg lacDebug %08x\n\r", row.after);
        EXPECT_EQ(out, confirmation);
    }
}

TEST_F(Commands, AnotherKeywordLeavesTheWord)
{
    lacDebug = 0x17;
    EXPECT_EQ(typed(SHELL_DEBUG_NODE, "debug lacp nothing", CMD_ERR_NO_MATCH), "");
    char keyword[] = "nothing";
    cmd_token token{};
    token.text = keyword;
    cmd_token *argv[] = {&token, &token, &token};
    const std::string out = printed([&] {
        EXPECT_EQ(terminal.shown([&](vty *vty) {
            EXPECT_EQ(cli_lacp_sys_debug_set_cmd.func(&cli_lacp_sys_debug_set_cmd, vty, 3, argv), CMD_SUCCESS);
        }),
                  "\r\n Msg:wrong lacp debug type\r\n");
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(lacDbgGet(), 0x17U);
}

TEST_F(Commands, PacketDumpsByDirection)
{
    const std::tuple<const char *, const char *, const char *> table[] = {
        {"no debug lacp packet all", "disable", "disable"}, {"debug lacp packet tx", "disable", "enable"},
        {"debug lacp packet rx", "enable", "enable"},       {"no debug lacp packet tx", "enable", "disable"},
        {"no debug lacp packet rx", "disable", "disable"},  {"debug lacp packet all", "enable", "enable"},
        {"no debug lacp packet all", "disable", "disable"},
    };
    for (const auto &[line, rx, tx] : table) {
        EXPECT_EQ(debug(line),
                  std::pair(std::string("LACP packet debug rx ") + rx + " tx " + tx + "\n", std::string()));
        EXPECT_EQ(lacp_get_pkt_debug(LACP_PKT_RX), rx[0] == 'e' ? 1U : 0U);
        EXPECT_EQ(lacp_get_pkt_debug(LACP_PKT_TX), tx[0] == 'e' ? 1U : 0U);
    }
    EXPECT_EQ(lacDbgGet(), 0U);
}

// ---- inspection -----------------------------------------------------------------------------------------------

TEST_F(Commands, Database)
{
    Sections sections;
    sections.add("nothing", typed("show lacp database"));
    fake::Inspected &inspected = fake::inspected();
    inspected.load_balance = {{1, "src-dst-mac"}, {4, "src-ip"}};
    fake::datastore().lacp_type = {{1, "dynamic"}, {2, "manual"}};
    inspected.join_ports = {{1, {"gigabitethernet 0/1", "gigabitethernet 0/2"}}, {2, {}}};
    inspected.member_ports = {{1, {"gigabitethernet 0/2"}}, {2, {"gigabitethernet 0/4", "gigabitethernet 0/3"}}};
    inspected.system_priority = "65535";
    inspected.xml = "<channel-group/>\n";
    sections.add("groups", typed("show lacp database"));
    expect_recorded_visible(sections.text, "database");
}

TEST_F(Commands, DatabaseOfAPort)
{
    fake::Inspected &inspected = fake::inspected();
    EXPECT_EQ(typed(UPLINK_PORT_NODE, "show lacp database"), "");
    inspected.trunk = {{"priority", "100"}, {"timeout", "short"}, {"mode", "passive"}};
    fake::datastore().channel_group[3] = 2;
    EXPECT_EQ(typed(UPLINK_PORT_NODE, "show lacp database"),
              "get priority value:100 ret:0\nget timeout value:short ret:0\nget group id value:2 ret:0\n"
              "get mode value:passive ret:0\n");
    inspected.trunk = {{"mode", "active"}};
    EXPECT_EQ(typed(UPLINK_PORT_NODE, "show lacp database"),
              "get group id value:2 ret:0\nget mode value:active ret:0\n");
    shell_session(terminal).port = 1;
    EXPECT_EQ(typed(UPLINK_PORT_NODE, "show lacp database"), "get mode value:active ret:0\n");
}

TEST_F(Commands, InformationOfOneSide)
{
    fake::Inspected &inspected = fake::inspected();
    inspected.port_info = {
        {"actor id", "3"},         {"actor synchronization", "1"}, {"actor col-dis", "0"},
        {"actor mode", "passive"}, {"actor oper-key", "65535"},    {"actor port-state", "61"},
        {"actor priority", "100"}, {"actor timeout", "short"},     {"actor system-id", "0211.22aa.bbcc"}};
    EXPECT_EQ(typed(UPLINK_PORT_NODE, "show lacp database actor information"),
              "=> get actor port id 3, ret 0\n"
              "=> get actor port synchronization 1, ret 0\n"
              "=> get actor port collection and distribution 0, ret 0\n"
              "=> get actor port mode passive, ret 0\n"
              "=> get actor oper key 65535, ret 0\n"
              "=> get actor port state 61, ret 0x0\n"
              "=> get actor port priority 100, ret 0\n"
              "=> get actor port timeout short, ret 0\n"
              "=> get actor port system id 0211.22aa.bbcc, ret 0\n");
    EXPECT_EQ(inspected.asked, (Texts{"0/3 actor id", "0/3 actor synchronization", "0/3 actor col-dis",
                                      "0/3 actor mode", "0/3 actor oper-key", "0/3 actor port-state",
                                      "0/3 actor priority", "0/3 actor timeout", "0/3 actor system-id"}));
}

TEST_F(Commands, InformationThatCannotBeReadIsShownWithItsResult)
{
    EXPECT_EQ(typed(UPLINK_PORT_NODE, "show lacp database partner information"),
              "=> get partner port id 0, ret 255\n"
              "=> get partner port synchronization 0, ret 255\n"
              "=> get partner port collection and distribution 0, ret 255\n"
              "=> get partner port mode , ret 255\n"
              "=> get partner oper key 0, ret 255\n"
              "=> get partner port state 0, ret 0xff\n"
              "=> get partner port priority 0, ret 255\n"
              "=> get partner port timeout , ret 255\n"
              "=> get partner port system id , ret 255\n");
}

} // namespace
