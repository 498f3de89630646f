// Keeps the ports' link status in the datastore up to date.
#pragma once

#include "event_loop.h"
#include "link_queue.h"
#include "link_store.h"
#include "unix_socket.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace olt
{

struct PublisherCounters {
    std::uint64_t written = 0;
    std::uint64_t failed = 0;
};

// A write waits for the daemon's handlers, maybe for seconds, so writes have a thread of their own: frames go on
// meanwhile.
class LinkPublisher
{
  public:
    // `ready` is called once, on the loop's thread, when every port of `links` has had its first write tried.
    LinkPublisher(EventLoop &loop, LinkStore &store, const std::map<std::uint32_t, bool> &links,
                  std::function<void()> ready);

    void publish(std::uint32_t port, bool up);
    // Whoever refused a write has gone, or another one has come.
    void try_again();
    std::map<std::uint32_t, bool> published() const;
    PublisherCounters counters() const;

  private:
    void work(const std::stop_token &stop);
    void write(std::unique_lock<std::mutex> &guard, const LinkWrite &write);
    void wait(std::unique_lock<std::mutex> &guard, const std::stop_token &stop);
    void tell_ready() const;
    void on_ready();

    LinkStore &store_;
    mutable std::mutex lock_; // never held during a write
    std::condition_variable_any changed_;
    LinkQueue queue_;
    PublisherCounters counters_;
    bool news_ = false; // a change came in

    std::function<void()> ready_;
    Descriptor ready_event_;
    std::unique_ptr<Event> ready_readable_;
    std::jthread thread_; // last, so that it ends first
};

} // namespace olt
