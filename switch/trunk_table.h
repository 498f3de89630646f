// The switch's trunks by channel group.
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace olt
{

// Name of a port-selection criterion, or nothing for an unknown code.
std::optional<std::string_view> criterion_name(std::uint32_t code);

using Members = std::bitset<32>; // bit (port - 1)
constexpr std::uint32_t MAX_GROUP = 4;

std::vector<std::uint32_t> port_numbers(Members members);

struct Trunk {
    std::uint32_t criterion;
    Members members;
    bool stale = false; // asked for by an earlier daemon

    bool operator==(const Trunk &) const = default;
};

class TrunkTable
{
  public:
    using Clock = std::chrono::steady_clock;
    using Groups = std::vector<std::uint32_t>;

    struct Effect {
        Groups changed;              // whose members or criterion are others now, also those that lost their trunk
        std::size_t moved_ports = 0; // taken from another group's trunk
    };

    // Sets a group's trunk to exactly these members. A port is in one trunk at most: the latest wish counts.
    Effect set(std::uint32_t group, std::uint32_t criterion, Members members);
    // False when the group has no trunk.
    bool remove(std::uint32_t group);
    bool set_criterion(std::uint32_t group, std::uint32_t criterion);

    // A new daemon: what stands now is gone at the deadline unless it is asked for again.
    void mark_stale(Clock::time_point deadline);
    // That daemon is gone: what is stale stays so, until the next one has had its time.
    void drop_deadline() { deadline_.reset(); }
    // Removes the stale trunks once their deadline has passed; their groups.
    Groups sweep(Clock::time_point now);

    const std::map<std::uint32_t, Trunk> &all() const { return trunks_; }
    const Trunk *find(std::uint32_t group) const;

  private:
    void take_from_others(Members members, std::uint32_t group, Effect &effect);

    std::map<std::uint32_t, Trunk> trunks_;
    std::optional<Clock::time_point> deadline_;
};

} // namespace olt
