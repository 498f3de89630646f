// A port joins and leaves a channel group. Each is a sequence of transactions, because the daemon looks only at the
// first deletion of a transaction and has to learn a group's type before its first port.
#include "keldatabase/access.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace
{

using kel::Transaction;

using kel::Clock;

constexpr int FIRST_GROUP = 1;
constexpr int LAST_GROUP = 4;
constexpr char ALL_TRUNK_GROUPS[] = "/olt-ifm:up-link-ports/interface/olt-lacp:trunk/channel-group";
// The daemon takes a port of a dynamic group out of the member list itself, at the latest with its next tick.
constexpr std::chrono::milliseconds DETACH_WAIT(1500);
constexpr std::chrono::milliseconds DETACH_POLL(2);

using OptionalText = std::optional<std::string>;

struct Port {
    int slot;
    std::uint32_t number;
};

OptionalText read_text(KelDb *db, const kel::Path &path)
{
    const kel::Leaf leaf(db, path);
    return leaf ? OptionalText(leaf.text()) : std::nullopt;
}

const char *type_for(std::string_view mode)
{
    return mode == "on" ? "manual" : "dynamic";
}

kel::Path mode_path(Port port)
{
    return kel::trunk_path(port.slot, port.number, "mode");
}

kel::Path port_group_path(Port port)
{
    return kel::trunk_path(port.slot, port.number, "channel-group");
}

kel::Path member_path(Port port, int group)
{
    return kel::group_list_path(group, "member-port", kel::InterfaceName(port.slot, port.number).text());
}

int group_of(KelDb *db, Port port)
{
    return static_cast<int>(kel::read_number(db, port_group_path(port)).value_or(0));
}

bool has_ports(KelDb *db, int group)
{
    const kel::Values members(db, kel::group_path(group, "member-port"));
    const kel::Values groups(db, kel::Path(ALL_TRUNK_GROUPS));
    if (!members || !groups || !members.all().empty())
        return true;
    return std::ranges::any_of(groups.all(),
                               [group](const sr_val_t &value) { return value.data.uint8_val == group; });
}

// Deletes the entry of a group that nobody is in, so that the daemon resets the group and it can take the other
// type. The operator's load-balance choice does not depend on the ports and is written again.
int drop_unused_group(KelDb *db, int group)
{
    if (!kel::exists(db, kel::group_path(group, "lacp-type")) || has_ports(db, group))
        return 0;
    const kel::Path choice_path = kel::group_path(group, "load-balance");
    const OptionalText choice = read_text(db, choice_path);
    const int code = Transaction(db).remove(kel::group_path(group, "")).apply();
    if (code != 0 || !choice)
        return code;
    return Transaction(db).set(choice_path, choice->c_str()).apply();
}

int write_mode(KelDb *db, Port port, const OptionalText &mode)
{
    Transaction transaction(db);
    if (mode)
        transaction.set_within(mode_path(port), mode->c_str());
    else
        transaction.remove(mode_path(port));
    return transaction.apply();
}

int write_membership(KelDb *db, Port port, int group, std::string_view mode)
{
    Transaction transaction(db);
    transaction.set_within(port_group_path(port), std::to_string(group).c_str());
    if (mode == "on")
        transaction.set(member_path(port, group), nullptr);
    return transaction.apply();
}

int write_mode_and_membership(KelDb *db, Port port, int group, const std::string &mode)
{
    const OptionalText old_mode = read_text(db, mode_path(port));
    int code = write_mode(db, port, mode);
    if (code != 0)
        return code;
    code = write_membership(db, port, group, mode);
    if (code != 0)
        write_mode(db, port, old_mode);
    return code;
}

int join(KelDb *db, Port port, int group, const std::string &mode)
{
    const kel::Path type_path = kel::group_path(group, "lacp-type");
    const bool new_group = !kel::exists(db, type_path);
    int code = 0;
    if (new_group)
        code = Transaction(db).set(type_path, type_for(mode)).apply();
    if (code == 0)
        code = write_mode_and_membership(db, port, group, mode);
    if (code != 0 && new_group)
        drop_unused_group(db, group);
    return code;
}

int leave_manual(KelDb *db, Port port, int group)
{
    return Transaction(db).set_within(port_group_path(port), "0").remove(member_path(port, group)).apply();
}

// The daemon's dispatcher removes the entry when the port detaches; this thread must not, unless nobody does.
int leave_dynamic(KelDb *db, Port port, int group)
{
    const int code = Transaction(db).set_within(port_group_path(port), "0").apply();
    if (code != 0)
        return code;
    const kel::Path member = member_path(port, group);
    const auto give_up = Clock::now() + DETACH_WAIT;
    while (kel::exists(db, member) && Clock::now() < give_up)
        std::this_thread::sleep_for(DETACH_POLL);
    return kel::exists(db, member) ? Transaction(db).remove(member).apply() : 0;
}

// The mode goes as well: a leaf that kept its value would not be announced when the port joins again.
int leave(KelDb *db, Port port, int group)
{
    const OptionalText type = read_text(db, kel::group_path(group, "lacp-type"));
    int code = type == "manual" ? leave_manual(db, port, group) : leave_dynamic(db, port, group);
    if (code == 0)
        code = write_mode(db, port, std::nullopt);
    return code == 0 ? drop_unused_group(db, group) : code;
}

int move(KelDb *db, Port port, int from, int to, const std::string &mode)
{
    const OptionalText old_type = read_text(db, kel::group_path(from, "lacp-type"));
    const OptionalText old_mode = read_text(db, mode_path(port));
    int code = leave(db, port, from);
    if (code == 0)
        code = join(db, port, to, mode);
    if (code != 0 && group_of(db, port) != from)
        join(db, port, from, old_mode.value_or(old_type == "manual" ? "on" : "active"));
    return code;
}

// Why the port cannot join, found before anything is written; empty when it can.
std::string reason_against(KelDb *db, Port port, int group, std::string_view mode)
{
    if (mode != "on" && mode != "active" && mode != "passive")
        return "the mode is none of on, active and passive";
    if (group < FIRST_GROUP || group > LAST_GROUP)
        return "there is no such group";
    if (kel::session_of(db) == nullptr)
        return "the datastore is not connected";
    if (!kel::exists(db, kel::interface_path(port.slot, port.number, "name")))
        return "the port has no interface entry";
    const OptionalText type = read_text(db, kel::group_path(group, "lacp-type"));
    if (type && *type != type_for(mode))
        return "the group is " + *type;
    return {};
}

} // namespace

int db_add_channel_group(KelDb *db, int slot, std::uint32_t port_number, int group, const char *mode)
try {
    const Port port{slot, port_number};
    const std::string wanted = mode != nullptr ? mode : "";
    const std::string reason = reason_against(db, port, group, wanted);
    if (!reason.empty()) {
        kel::complain("port %d/%u does not join channel group %d with mode %s: %s", slot, port_number, group,
                      wanted.c_str(), reason.c_str());
        return kel::FAILED;
    }
    const int current = group_of(db, port);
    if (current != 0 && current != group)
        return move(db, port, current, group, wanted);
    return join(db, port, group, wanted);
} catch (const std::exception &error) {
    kel::complain("port %d/%u does not join channel group %d: %s", slot, port_number, group, error.what());
    return kel::FAILED;
}

int db_del_channel_group(KelDb *db, int slot, std::uint32_t port_number, int group)
try {
    const Port port{slot, port_number};
    if (group == 0 || group_of(db, port) != group) {
        kel::complain("port %d/%u is not in channel group %d", slot, port_number, group);
        return kel::FAILED;
    }
    return leave(db, port, group);
} catch (const std::exception &error) {
    kel::complain("port %d/%u does not leave channel group %d: %s", slot, port_number, group, error.what());
    return kel::FAILED;
}
