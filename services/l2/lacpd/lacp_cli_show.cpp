#include "lacp_cli_show.h"

#include "channel_group.h"
#include "channel_group_show.h"
#include "lac_show.h"
#include "lac_task.h"

#include <cstdlib>

namespace
{

int cli_static_lacp_show_sum_fun(const cmd_element *, vty *vty, int argc, cmd_token *argv[])
{
    const bool one_group = argc == 4;
    const auto group = one_group ? static_cast<std::uint32_t>(strtoul(argv[2]->arg, nullptr, 10)) : 0;
    const cmd_token *keyword = argv[one_group ? 3 : 2];
    if (strcmp(keyword->text, "detail") == 0)
        show_channel_groups_information(vty, group);
    else
        show_lacp_ports_infomation(vty, group);
    return CMD_SUCCESS;
}

int cli_lacp_show_neighbor_fun(const cmd_element *, vty *vty, int, cmd_token *argv[])
{
    const int group = static_cast<int>(strtol(argv[2]->arg, nullptr, 10));
    if (group < 0 || group > CHANNEL_GROUP_MAX_NUM) {
        printf("\r\nInvalid channel group number.\r");
        return CMD_ERR_NO_MATCH;
    }
    lacShowNeighbor(vty, group);
    return CMD_SUCCESS;
}

bool is_switched_on(vty *vty)
{
    if (get_lac_global_enable() == 1)
        return true;
    vty_out(vty, "please lacp enable first!\r\n");
    return false;
}

int cli_lacp_show_all_lag_fun(const cmd_element *, vty *vty, int, cmd_token *[])
{
    if (is_switched_on(vty))
        lacShowLinkAggregation(vty, LAC_SHOW_ALL_PORTS);
    return CMD_SUCCESS;
}

int cli_lacp_show_all_info_fun(const cmd_element *, vty *vty, int, cmd_token *[])
{
    if (is_switched_on(vty))
        lacShowAll(vty);
    return CMD_SUCCESS;
}

} // namespace

const cmd_element cli_static_lacp_show_sum_cmd =
    frr::command("cli_static_lacp_show_sum_cmd", "show channel-group [(1-4)] <detail|ports>",
                 "Show running system information\nChannel group information.\nSpecify channel group id.\n"
                 "Detail of channel-group.\nInformation of ports for channel-group.\n",
                 cli_static_lacp_show_sum_fun);

const cmd_element cli_lacp_show_neighbor_cmd =
    frr::command("cli_lacp_show_neighbor_cmd", "show channel-group (1-4) port",
                 "Show running system information\nSpecify channel group information.\nSpecify channel group id.\n"
                 "Specify 802.3ad port information.\n",
                 cli_lacp_show_neighbor_fun);

const cmd_element cli_lacp_show_all_lag_cmd = frr::command(
    "cli_lacp_show_all_lag_cmd", "show channel-group interface all",
    "Show running system information\nSpecify channel group information.\nSpecify interface information.\n"
    "Specify all interfaces.\n",
    cli_lacp_show_all_lag_fun);

const cmd_element cli_lacp_show_all_info_cmd =
    frr::command("cli_lacp_show_all_info_cmd", "show channel-group information",
                 "Show running system information\nSpecify channel group information.\nSpecify all information.\n",
                 cli_lacp_show_all_info_fun);
