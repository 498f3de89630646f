// Writes the ports' interface entries and link status into the datastore.
#pragma once

#include "keldatabase/keldatabase.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace olt
{

// A write waits for the daemon's handlers, so it has a thread of its own: frames go on meanwhile. Each change is a
// transaction of its own, in the order of the changes. A write that fails is tried again until it succeeds.
class LinkPublisher
{
  public:
    LinkPublisher() = default;
    ~LinkPublisher();
    LinkPublisher(const LinkPublisher &) = delete;
    LinkPublisher &operator=(const LinkPublisher &) = delete;

    // Creates every entry with its first value, then starts the thread. Throws when the datastore is not usable.
    void start(const std::map<std::uint32_t, bool> &carriers);
    void publish(std::uint32_t port, bool up);
    // What the datastore holds by now.
    std::map<std::uint32_t, bool> published() const;

  private:
    struct Change {
        std::uint32_t port;
        bool up;
    };

    void work(const std::stop_token &stop);
    bool write(const Change &change);

    KelDb db_{};
    mutable std::mutex lock_;
    std::condition_variable_any changed_;
    std::deque<Change> changes_;
    std::map<std::uint32_t, bool> published_;
    std::jthread thread_;
};

} // namespace olt
