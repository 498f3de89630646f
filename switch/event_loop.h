// libevent behind RAII: one loop, events that call a function.
#pragma once

#include <event2/event.h>

#include <chrono>
#include <functional>
#include <memory>

namespace olt
{

class EventLoop
{
  public:
    EventLoop();
    event_base *base() const { return base_.get(); }
    void run();
    void stop();

  private:
    struct Release {
        void operator()(event_base *base) const { event_base_free(base); }
    };
    std::unique_ptr<event_base, Release> base_;
};

// Calls a function when a descriptor is readable, a signal arrives, or time has passed. Not movable: libevent holds
// its address.
class Event
{
  public:
    using Action = std::function<void()>;

    static std::unique_ptr<Event> readable(EventLoop &loop, int fd, Action action);
    static std::unique_ptr<Event> signal(EventLoop &loop, int number, Action action);
    static std::unique_ptr<Event> every(EventLoop &loop, std::chrono::milliseconds period, Action action);

    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;

  private:
    explicit Event(Action action) : action_(std::make_shared<const Action>(std::move(action))) {}
    static void fire(evutil_socket_t, short, void *self);
    static std::unique_ptr<Event> make(EventLoop &loop, int fd, short what, Action action, const timeval *period);

    struct Release {
        void operator()(event *event) const { event_free(event); }
    };
    std::shared_ptr<const Action> action_; // kept alive by a call, which may destroy the event
    std::unique_ptr<event, Release> event_;
};

} // namespace olt
