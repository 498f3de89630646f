#include "lacp_cli_debug.h"

#include "lac_task.h"
#include "lacp_packet.h"

#include "shell/shell.h"

#include <optional>
#include <string_view>

namespace
{

// ---- traces ---------------------------------------------------------------------------------------------------

// "all" replaces the word, every other keyword but "off" adds to it.
constexpr std::uint32_t TRACE_ALL = 0x3fff8;

std::optional<std::uint32_t> trace_word(std::string_view keyword, std::uint32_t old)
{
    if (keyword == "off")
        return 0;
    if (keyword == "rx")
        return old | LAC_DBG_RX;
    if (keyword == "tx")
        return old | LAC_DBG_TX;
    if (keyword == "task")
        return old | LAC_DBG_QUEUE;
    if (keyword == "pdu")
        return old | LAC_DBG_PDU | LAC_DBG_SEND | LAC_DBG_MARKER;
    if (keyword == "other")
        return old | LAC_DBG_PORT | LAC_DBG_OTHER;
    if (keyword == "all")
        return TRACE_ALL;
    return std::nullopt;
}

int cli_lacp_sysp_debug_set_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    if (const auto word = trace_word(argv[2]->text, lacDbgGet()))
        lacDbgCfg(*word);
    else
        vty_out(vty, "\r\n Msg:wrong lacp debug type\r\n");
    return CMD_SUCCESS;
}

const char *state_of(int which)
{
    return lacp_get_pkt_debug(which) != 0 ? "enable" : "disable";
}

int cli_config_lacp_pkt_debug_fun(const cmd_element *, vty *vty, int argc, cmd_token *argv[])
{
    const std::uint32_t on = strcmp(argv[0]->text, "no") == 0 ? 0 : 1;
    const std::string_view which = cmd_parase_parameters(argc, argv, "packet", 1);
    if (which == "rx" || which == "all")
        lacp_set_pkt_debug(LACP_PKT_RX, on);
    if (which == "tx" || which == "all")
        lacp_set_pkt_debug(LACP_PKT_TX, on);
    vty_out(vty, "LACP packet debug rx %s tx %s\n", state_of(LACP_PKT_RX), state_of(LACP_PKT_TX));
    return CMD_SUCCESS;
}

} // namespace

// ---- command records ------------------------------------------------------------------------------------------

const cmd_element cli_config_lacp_pkt_debug_cmd = frr::command(
    "cli_config_lacp_pkt_debug_cmd", "[no] debug lacp packet <rx|tx|all>",
    "Disable debug mode\nDebugging functions.\nSpecify lacp debugging operation.\nPacket Debug.\nRX packet debug\n"
    "TX packet debug\nBoth rx and tx packet debug\n",
    cli_config_lacp_pkt_debug_fun);

const cmd_element cli_lacp_sys_debug_set_cmd = frr::command(
    "cli_lacp_sys_debug_set_cmd", "debug lacp <off|rx|tx|task|pdu|other|all>",
    "debug mode\nSpecify lacp debugging operation.\nShut off debug information.\n"
    "Open lacp receive debug information.\nOpen lacp transmit debug information.\n"
    "Open lacp task debug information.\nOpen lacp bpdu debug information.\nOpen lacp others debug information.\n"
    "Open lacp all debug information.\n",
    cli_lacp_sysp_debug_set_fun);
