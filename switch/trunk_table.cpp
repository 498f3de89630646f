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

const Trunk *TrunkTable::find(std::uint32_t group) const
{
    const auto trunk = trunks_.find(group);
    return trunk == trunks_.end() ? nullptr : &trunk->second;
}

void TrunkTable::take_from_others(Members members, std::uint32_t group, Effect &effect)
{
    for (auto entry = trunks_.begin(); entry != trunks_.end();) {
        auto &[number, trunk] = *entry;
        const Members moved = number == group ? Members() : trunk.members & members;
        if (moved.any()) {
            effect.changed.push_back(number);
            effect.moved_ports += moved.count();
            trunk.members &= ~moved;
        }
        entry = trunk.members.none() ? trunks_.erase(entry) : std::next(entry);
    }
}

TrunkTable::Effect TrunkTable::set(std::uint32_t group, std::uint32_t criterion, Members members)
{
    Effect effect;
    take_from_others(members, group, effect);
    const Trunk *before = find(group);
    if (before == nullptr || before->criterion != criterion || before->members != members)
        effect.changed.push_back(group);
    trunks_[group] = {criterion, members, false};
    return effect;
}

bool TrunkTable::remove(std::uint32_t group)
{
    return trunks_.erase(group) != 0;
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

TrunkTable::Groups TrunkTable::sweep(Clock::time_point now)
{
    Groups removed;
    if (!deadline_ || now < *deadline_)
        return removed;
    deadline_.reset();
    for (const auto &[group, trunk] : trunks_)
        if (trunk.stale)
            removed.push_back(group);
    for (const std::uint32_t group : removed)
        trunks_.erase(group);
    return removed;
}

} // namespace olt
