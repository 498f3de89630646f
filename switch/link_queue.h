// Which link status has to be written next.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>

namespace olt
{

struct LinkWrite {
    std::uint32_t port;
    bool up;
    bool create; // the interface entry may not be there yet
};

// Changes leave in the order in which they came in. A link that goes down and up again while earlier writes take
// their time is still written as down and then up, so that the daemon sees it; more flapping than that is left out.
// So a port never has more than two writes waiting, and the last one is its present state. A write that fails is due
// again after a pause that grows, and given up after the longest one until the link changes or somebody says that it
// may go better now; other ports do not wait for it.
//
// One write at a time: next(), then written() or failed().
class LinkQueue
{
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds FIRST_PAUSE{1};
    static constexpr std::chrono::seconds LONGEST_PAUSE{256};

    void push(std::uint32_t port, bool up);
    // The oldest write that is due.
    std::optional<LinkWrite> next(Clock::time_point now);
    void written(std::uint32_t port);
    // Whether it is the first failure since a write went well.
    bool failed(std::uint32_t port, Clock::time_point now);
    void try_again(); // at once, with short pauses

    // When the next failed write is due again.
    std::optional<Clock::time_point> due() const;
    // Whether every port's first write has been tried.
    bool all_tried() const;
    // What the datastore holds by now; nothing for a port that has not been written.
    std::map<std::uint32_t, bool> published() const;

  private:
    struct Change {
        bool up;
        std::uint64_t number; // in the order of all changes
    };
    struct Port {
        std::deque<Change> waiting; // the first one is the one being written, if any
        bool writing = false;
        bool entry_exists = false;
        bool tried = false;
        bool given_up = false;
        std::optional<bool> published;
        Clock::time_point not_before{};
        std::chrono::seconds pause{}; // behind the last failure; none while writes go well
    };

    std::map<std::uint32_t, Port> ports_;
    std::uint64_t changes_ = 0;
};

} // namespace olt
