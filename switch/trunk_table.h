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

std::vector<std::uint32_t> port_numbers(Members members);

struct Trunk {
    std::uint32_t criterion;
    Members members;
    bool stale = false; // asked for by an earlier daemon
};

class TrunkTable
{
  public:
    using Clock = std::chrono::steady_clock;

    // Sets a group's trunk to exactly these members. A port that another trunk held is taken out of that one.
    void set(std::uint32_t group, std::uint32_t criterion, Members members);
    void remove(std::uint32_t group);
    // False when the group has no trunk.
    bool set_criterion(std::uint32_t group, std::uint32_t criterion);

    // A daemon has connected: what stands now is gone at the deadline unless it is asked for again.
    void mark_stale(Clock::time_point deadline);
    // Removes the stale trunks once their deadline has passed; their groups.
    std::vector<std::uint32_t> sweep(Clock::time_point now);

    const std::map<std::uint32_t, Trunk> &all() const { return trunks_; }

  private:
    void take_away(Members members, std::uint32_t from_others_than);

    std::map<std::uint32_t, Trunk> trunks_;
    Clock::time_point deadline_{};
};

} // namespace olt
