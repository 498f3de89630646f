#include "event_loop.h"

#include <exception>
#include <iostream>
#include <stdexcept>

namespace olt
{

EventLoop::EventLoop() : base_(event_base_new())
{
    if (!base_)
        throw std::runtime_error("the event loop could not be created");
}

void EventLoop::run()
{
    event_base_dispatch(base_.get());
}

void EventLoop::stop()
{
    event_base_loopbreak(base_.get());
}

// No exception may cross libevent's C code.
void Event::fire(evutil_socket_t, short, void *self)
try {
    const std::shared_ptr<const Action> action = static_cast<Event *>(self)->action_;
    (*action)();
} catch (const std::exception &error) {
    std::cerr << "olt-switch: " << error.what() << std::endl;
}

std::unique_ptr<Event> Event::make(EventLoop &loop, int fd, short what, Action action, const timeval *period)
{
    std::unique_ptr<Event> made(new Event(std::move(action)));
    made->event_.reset(event_new(loop.base(), fd, static_cast<short>(what | EV_PERSIST), fire, made.get()));
    if (!made->event_ || event_add(made->event_.get(), period) != 0)
        throw std::runtime_error("an event could not be registered");
    return made;
}

std::unique_ptr<Event> Event::readable(EventLoop &loop, int fd, Action action)
{
    return make(loop, fd, EV_READ, std::move(action), nullptr);
}

std::unique_ptr<Event> Event::signal(EventLoop &loop, int number, Action action)
{
    return make(loop, number, EV_SIGNAL, std::move(action), nullptr);
}

std::unique_ptr<Event> Event::every(EventLoop &loop, std::chrono::milliseconds period, Action action)
{
    const timeval interval{period.count() / 1000, static_cast<suseconds_t>(period.count() % 1000 * 1000)};
    return make(loop, -1, 0, std::move(action), &interval);
}

} // namespace olt
