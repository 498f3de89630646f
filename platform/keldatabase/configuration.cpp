// The whole configuration of groups, ports and system in one read.
#include "keldatabase/access.h"

#include <libyang/libyang.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace
{

constexpr char EVERYTHING[] = "/olt-ifm:* | /olt-lacp:*";
constexpr char GROUPS[] = "/olt-lacp:channel-group/group";

// The port of an interface name, from 1; 0 for another name.
std::uint32_t port_named(const char *name)
{
    int slot = 0;
    unsigned port = 0;
    const bool known = std::sscanf(name, "gigabitethernet %d/%u", &slot, &port) == 2 && port <= KEL_DB_PORTS;
    return known ? port : 0;
}

std::uint32_t bit_of_port(const char *name)
{
    const std::uint32_t port = port_named(name);
    return port == 0 ? 0 : 1U << (port - 1);
}

std::size_t number_in(const char *text)
{
    return std::strtoul(text, nullptr, 10);
}

void take_group_leaf(DbLacpConfiguration &all, const lyd_node *entry, std::string_view leaf, const char *value)
{
    const std::size_t id = number_in(lyd_get_value(lyd_child(entry)));
    if (id < 1 || id > KEL_DB_GROUPS)
        return;
    DbLacpGroup &group = all.groups[id - 1];
    if (leaf == "lacp-type")
        group.type = value;
    else if (leaf == "load-balance")
        group.load_balance = value;
    else if (leaf == "member-port")
        group.members |= bit_of_port(value);
    else if (leaf == "join-port")
        group.joined |= bit_of_port(value);
}

void take_port_leaf(DbLacpConfiguration &all, const lyd_node *entry, std::string_view leaf, const char *value)
{
    const std::uint32_t number = port_named(lyd_get_value(lyd_child(entry)));
    if (number == 0)
        return;
    DbLacpPort &port = all.ports[number - 1];
    if (leaf == "link-status")
        port.link_up = std::string_view(value) == "up";
    else if (leaf == "mode")
        port.mode = value;
    else if (leaf == "timeout")
        port.timeout = value;
    else if (leaf == "priority")
        port.priority = static_cast<std::uint16_t>(number_in(value));
    else if (leaf == "channel-group")
        port.group = static_cast<std::uint8_t>(number_in(value));
}

void take_leaf(DbLacpConfiguration &all, const lyd_node *node)
{
    const lyd_node *parent = lyd_parent(node);
    const std::string_view above = LYD_NAME(parent);
    const std::string_view leaf = LYD_NAME(node);
    const char *value = lyd_get_value(node);
    if (above == "group")
        take_group_leaf(all, parent, leaf, value);
    else if (above == "trunk" || above == "interface-basic")
        take_port_leaf(all, lyd_parent(parent), leaf, value);
    else if (leaf == "system-priority")
        all.system_priority = static_cast<std::uint16_t>(number_in(value));
    else if (leaf == "system-id")
        all.system_id = value;
}

void take_tree(DbLacpConfiguration &all, const lyd_node *top)
{
    const lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(top, node)
    {
        if ((node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0)
            take_leaf(all, node);
        LYD_TREE_DFS_END(top, node);
    }
}

} // namespace

int db_olt_lacp_get_configuration(KelDb *db, DbLacpConfiguration *configuration)
{
    sr_session_ctx_t *session = kel::session_of(db);
    sr_data_t *raw = nullptr;
    *configuration = {};
    if (session == nullptr || sr_get_data(session, EVERYTHING, 0, kel::READ_LOCK_MS, 0, &raw) != SR_ERR_OK)
        return kel::FAILED;
    const kel::DataPtr data(raw);
    const lyd_node *top = nullptr;
    if (data)
        LY_LIST_FOR(data->tree, top)
    take_tree(*configuration, top);
    return 0;
}

int kel_db_group_beyond(sr_session_ctx_t *session, std::uint32_t limit)
{
    sr_data_t *raw = nullptr;
    if (sr_get_data(session, GROUPS, 0, kel::READ_LOCK_MS, 0, &raw) != SR_ERR_OK || raw == nullptr)
        return 0;
    const kel::DataPtr data(raw);
    DbLacpConfiguration configuration;
    take_tree(configuration, data->tree);
    for (std::size_t id = 1; id <= KEL_DB_GROUPS; ++id)
        if (static_cast<std::uint32_t>(std::popcount(configuration.groups[id - 1].members)) > limit)
            return static_cast<int>(id);
    return 0;
}
