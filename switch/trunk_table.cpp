#include "trunk_table.h"

#include <algorithm>
#include <array>
#include <utility>

namespace olt
{

namespace
{

constexpr std::array<std::pair<std::uint32_t, std::string_view>, 6> CRITERIA = {{
    {0, "src-ip"},
    {1, "dst-ip"},
    {9, "src-mac"},
    {10, "dst-mac"},
    {18, "src-dst-ip"},
    {19, "src-dst-mac"},
}};

} // namespace

std::optional<std::string_view> criterion_name(std::uint32_t code)
{
    const auto found = std::ranges::find(CRITERIA, code, &decltype(CRITERIA)::value_type::first);
    return found == CRITERIA.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::uint32_t> port_numbers(Members members)
{
    std::vector<std::uint32_t> numbers;
    for (std::uint32_t bit = 0; bit < members.size(); ++bit)
        if (members[bit])
            numbers.push_back(bit + 1);
    return numbers;
}

void TrunkTable::take_away(Members members, std::uint32_t from_others_than)
{
    for (auto trunk = trunks_.begin(); trunk != trunks_.end();) {
        if (trunk->first != from_others_than)
            trunk->second.members &= ~members;
        trunk = trunk->second.members.none() ? trunks_.erase(trunk) : std::next(trunk);
    }
}

void TrunkTable::set(std::uint32_t group, std::uint32_t criterion, Members members)
{
    take_away(members, group);
    trunks_[group] = {criterion, members, false};
}

void TrunkTable::remove(std::uint32_t group)
{
    trunks_.erase(group);
}

bool TrunkTable::set_criterion(std::uint32_t group, std::uint32_t criterion)
{
    const auto trunk = trunks_.find(group);
    if (trunk == trunks_.end())
        return false;
    trunk->second.criterion = criterion;
    return true;
}

void TrunkTable::mark_stale(Clock::time_point deadline)
{
    for (auto &[group, trunk] : trunks_)
        trunk.stale = true;
    deadline_ = deadline;
}

std::vector<std::uint32_t> TrunkTable::sweep(Clock::time_point now)
{
    std::vector<std::uint32_t> removed;
    if (now < deadline_)
        return removed;
    for (const auto &[group, trunk] : trunks_)
        if (trunk.stale)
            removed.push_back(group);
    for (const std::uint32_t group : removed)
        trunks_.erase(group);
    return removed;
}

} // namespace olt
