#include "channel_group_show.h"

#include "channel_group.h"
#include "lac_port.h"

#include "frr/frr.hpp"

#include <optional>

namespace
{

constexpr char SEPARATOR[] = "-----------------------------------------------------------------------\n";

struct GroupView {
    std::uint32_t type = 0;
    std::uint32_t used = 0;
    char load_balance[LOAD_BALANCE_NAME_SIZE] = {};
    std::uint32_t port_list = 0;
    std::uint32_t port_count = 0;
    std::uint32_t uplink_port_list = 0;
    std::uint32_t uplink_port_count = 0;
};

std::optional<GroupView> read_group(int group)
{
    GroupView view;
    const bool complete =
        get_channel_group_type(group, &view.type) == LAC_OK && get_channel_group_used(group, &view.used) == LAC_OK &&
        get_channel_group_load_balance_str(group, view.load_balance, sizeof(view.load_balance)) == LAC_OK &&
        get_channel_group_port_list(group, &view.port_list) == LAC_OK &&
        get_channel_group_port_count(group, &view.port_count) == LAC_OK &&
        get_channel_group_uplink_port_list(group, &view.uplink_port_list) == LAC_OK &&
        get_channel_group_uplink_port_count(group, &view.uplink_port_count) == LAC_OK;
    return complete ? std::optional(view) : std::nullopt;
}

void show_members(vty *vty, const GroupView &view)
{
    vty_out(vty, "Channel-group Port Member:\t\t(%d)\n", view.port_count);
    for (std::uint32_t port = intf.first_uplink_port; port != 0 && port <= intf.last_uplink_port; ++port)
        if ((view.port_list >> (port - 1) & 1) != 0)
            vty_out(vty, "\t\t\t\t\tgigabitEthernet 0/%d\n", port);
    vty_out(vty, "Channel-group Uplink Port Member:\t(%d)\n", view.uplink_port_count);
    for (std::uint32_t bit = 0; bit < LAC_MAX_PORTS; ++bit)
        if ((view.uplink_port_list >> bit & 1) != 0)
            vty_out(vty, "\t\t\t\t\tgigabitethernet 0/%d\n", bit + 1);
}

void show_group(vty *vty, int group, const GroupView &view)
{
    vty_out(vty, SEPARATOR);
    vty_out(vty, "Channel-group ID:\t\t\t%d\n", group);
    vty_out(vty, "Channel-group Used:\t\t\t%s\n", view.used == 1 ? "Used" : "Not Used");
    if (view.used != 1)
        return;
    vty_out(vty, "Channel-group Type:\t\t\t%s\n",
            view.type == CHANNEL_GROUP_MANUAL ? "Manual Channel-group" : "LACP Protocol");
    vty_out(vty, "Channel-group Load Balance:\t\t%s\n", view.load_balance);
    show_members(vty, view);
}

} // namespace

int show_channel_groups_information(vty *vty, std::uint32_t group)
{
    const int first = group == 0 ? 1 : static_cast<int>(group);
    const int last = group == 0 ? CHANNEL_GROUP_MAX_NUM : first;
    for (int shown = first; shown <= last; ++shown)
        if (const auto view = read_group(shown))
            show_group(vty, shown, *view);
    vty_out(vty, SEPARATOR);
    return 0;
}

int show_lacp_ports_infomation(vty *vty, std::uint32_t)
{
    for (const LacPort *port : lac_ports()) {
        if (port->lacp_enabled == 0 && port->port_enabled == 0)
            continue;
        const LacPort *aggregator = port->aggregator;
        vty_out(vty, SEPARATOR);
        vty_out(vty, "Port Number = %d\r\n", port->port_no);
        vty_out(vty, "\tChannel ID = %d\r\n", port->channel_group_id.get());
        vty_out(vty, "\tIndividual Aggregator = %d\r\n", port->individual.get());
        vty_out(vty, "\tAggregator Port = %d\n", aggregator->port_no);
        vty_out(vty, "\tMaster State = %d\r\n", 0);
    }
    return vty_out(vty, SEPARATOR);
}
