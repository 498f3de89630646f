#include "link_queue.h"

#include <algorithm>

namespace olt
{

namespace
{

constexpr std::size_t MOST_WAITING = 2;

} // namespace

void LinkQueue::push(std::uint32_t port, bool up)
{
    Port &state = ports_[port];
    state.given_up = false;
    const std::optional<bool> last = state.waiting.empty() ? state.published : std::optional(state.waiting.back().up);
    if (last == up)
        return;
    if (state.waiting.size() - (state.writing ? 1 : 0) < MOST_WAITING)
        state.waiting.push_back({up, changes_++});
    else
        state.waiting.pop_back(); // the one before it says the same as the new one
}

std::optional<LinkWrite> LinkQueue::next(Clock::time_point now)
{
    auto oldest = ports_.end();
    for (auto entry = ports_.begin(); entry != ports_.end(); ++entry) {
        const Port &port = entry->second;
        if (port.waiting.empty() || port.given_up || now < port.not_before)
            continue;
        if (oldest == ports_.end() || port.waiting.front().number < oldest->second.waiting.front().number)
            oldest = entry;
    }
    if (oldest == ports_.end())
        return std::nullopt;
    Port &port = oldest->second;
    port.writing = true;
    return LinkWrite{oldest->first, port.waiting.front().up, !port.entry_exists};
}

void LinkQueue::written(std::uint32_t port)
{
    Port &state = ports_.at(port);
    state.published = state.waiting.front().up;
    state.waiting.pop_front();
    state.writing = false;
    state.entry_exists = true;
    state.tried = true;
    state.pause = {};
    state.not_before = {};
}

bool LinkQueue::failed(std::uint32_t port, Clock::time_point now)
{
    Port &state = ports_.at(port);
    state.writing = false;
    state.entry_exists = false; // somebody may have removed it
    state.tried = true;
    const bool first = state.pause == std::chrono::seconds{};
    state.given_up = state.pause == LONGEST_PAUSE;
    state.pause = std::clamp(2 * state.pause, FIRST_PAUSE, LONGEST_PAUSE);
    state.not_before = now + state.pause;
    return first;
}

void LinkQueue::try_again()
{
    for (auto &[number, port] : ports_) {
        port.given_up = false;
        port.not_before = {};
        port.pause = std::min(port.pause, FIRST_PAUSE);
    }
}

std::optional<LinkQueue::Clock::time_point> LinkQueue::due() const
{
    std::optional<Clock::time_point> first;
    for (const auto &[number, port] : ports_)
        if (!port.waiting.empty() && !port.given_up && (!first || port.not_before < *first))
            first = port.not_before;
    return first;
}

bool LinkQueue::all_tried() const
{
    return std::ranges::all_of(ports_, [](const auto &entry) { return entry.second.tried; });
}

std::map<std::uint32_t, bool> LinkQueue::published() const
{
    std::map<std::uint32_t, bool> statuses;
    for (const auto &[number, port] : ports_)
        if (port.published)
            statuses[number] = *port.published;
    return statuses;
}

} // namespace olt
