// Accessors of the interface entries: the port inventory and the link status.
#include "keldatabase/access.h"
#include "sysutil/sysutil.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <thread>

namespace
{

using kel::Clock;

constexpr char LINK_STATUS[] = "interface-basic/link-status";
constexpr char ALL_NAMES[] = "/olt-ifm:up-link-ports/interface/name";
constexpr std::chrono::seconds DEFAULT_INVENTORY_WAIT(10);
constexpr std::chrono::seconds LONGEST_INVENTORY_WAIT(3600);
constexpr std::string_view WITHOUT_END = "infinity";
constexpr std::chrono::minutes WAIT_TOLD_EVERY(1);
constexpr std::chrono::milliseconds INVENTORY_POLL(100);
// The entries are created one by one; the inventory is complete when it has not grown for this long.
constexpr std::chrono::milliseconds INVENTORY_SETTLED(300);

// Nothing for a wait without end.
std::optional<std::chrono::seconds> inventory_wait()
{
    const char *text = std::getenv(KEL_DB_INVENTORY_WAIT_ENV);
    unsigned seconds = 0;
    if (text == nullptr)
        return DEFAULT_INVENTORY_WAIT;
    if (text == WITHOUT_END)
        return std::nullopt;
    const char *end = text + std::strlen(text);
    const auto parsed = std::from_chars(text, end, seconds);
    if (parsed.ec != std::errc() || parsed.ptr != end || text == end) {
        kel::complain("%s is no number of seconds and not \"infinity\"; waiting up to %d seconds for interfaces",
                      KEL_DB_INVENTORY_WAIT_ENV, static_cast<int>(DEFAULT_INVENTORY_WAIT.count()));
        return DEFAULT_INVENTORY_WAIT;
    }
    return std::min(std::chrono::seconds(seconds), LONGEST_INVENTORY_WAIT);
}

void add_port(DevPortInfo &info, const char *name)
{
    unsigned slot = 0;
    unsigned port = 0;
    if (std::sscanf(name, "gigabitethernet %u/%u", &slot, &port) != 2)
        return;
    info.first_port = info.port_count == 0 ? port : std::min(info.first_port, port);
    info.last_port = std::max(info.last_port, port);
    ++info.port_count;
}

DevPortInfo read_inventory(KelDb *db)
{
    DevPortInfo info{};
    const kel::Values names(db, kel::Path(ALL_NAMES));
    for (const sr_val_t &name : names.all())
        add_port(info, name.data.string_val);
    return info;
}

void pause()
{
    if (!kel::run_pause())
        std::this_thread::sleep_for(INVENTORY_POLL);
}

void tell_of_wait(std::optional<std::chrono::seconds> limit)
{
    if (!limit)
        kel::complain("the datastore has no uplink interfaces yet; waiting for the switch, however long it takes");
    else if (limit->count() > 0)
        kel::complain("the datastore has no uplink interfaces yet; waiting up to %d seconds for the switch",
                      static_cast<int>(limit->count()));
}

DevPortInfo wait_for_first_entry(KelDb *db)
{
    DevPortInfo info = read_inventory(db);
    if (info.port_count != 0)
        return info;
    const std::optional<std::chrono::seconds> limit = inventory_wait();
    const auto begin = Clock::now();
    auto told = Clock::time_point::min();
    while (info.port_count == 0 && (!limit || Clock::now() < begin + *limit)) {
        if (told == Clock::time_point::min() || (!limit && Clock::now() > told + WAIT_TOLD_EVERY)) {
            tell_of_wait(limit);
            told = Clock::now();
        }
        pause();
        info = read_inventory(db);
    }
    return info;
}

DevPortInfo wait_until_settled(KelDb *db, DevPortInfo info)
{
    auto changed = Clock::now();
    while (Clock::now() - changed < INVENTORY_SETTLED) {
        pause();
        const DevPortInfo now = read_inventory(db);
        if (now.port_count != info.port_count)
            changed = Clock::now();
        info = now;
    }
    return info;
}

const char *status_text(bool link_up)
{
    return link_up ? "up" : "down";
}

} // namespace

int database_dev_get_port_info(KelDb *db, DevPortInfo *info)
{
    if (info == nullptr)
        return kel::FAILED;
    *info = {};
    if (kel::session_of(db) == nullptr) {
        kel::complain("the uplink interfaces are not known: the datastore is not connected");
        return kel::FAILED;
    }
    *info = wait_for_first_entry(db);
    if (info->port_count == 0) {
        kel::complain("the datastore has no uplink interfaces: start the switch first, then this program");
        return kel::FAILED;
    }
    *info = wait_until_settled(db, *info);
    return 0;
}

int db_olt_ifm_get_interface_basic_link_status(int slot, std::uint32_t port, KelDb *db, char *text,
                                               std::uint32_t *size)
{
    return kel::copy_text(kel::Leaf(db, kel::interface_path(slot, port, LINK_STATUS)), text, size);
}

int db_olt_ifm_add_interface(int slot, std::uint32_t port, KelDb *db, bool link_up)
{
    return kel::Transaction(db).set(kel::interface_path(slot, port, LINK_STATUS), status_text(link_up)).apply();
}

int db_olt_ifm_set_interface_basic_link_status(int slot, std::uint32_t port, KelDb *db, bool link_up)
{
    return kel::Transaction(db)
        .set_within(kel::interface_path(slot, port, LINK_STATUS), status_text(link_up))
        .apply();
}
