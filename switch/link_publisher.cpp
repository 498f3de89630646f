#include "link_publisher.h"

#include <iostream>
#include <stdexcept>
#include <sys/eventfd.h>

namespace olt
{

LinkPublisher::LinkPublisher(EventLoop &loop, LinkStore &store, const std::map<std::uint32_t, bool> &links,
                             std::function<void()> ready)
    : store_(store), ready_(std::move(ready)), ready_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!ready_event_.is_open())
        throw std::runtime_error("an event descriptor cannot be had; raise the limit of open files");
    ready_readable_ = Event::readable(loop, ready_event_.get(), [this] { on_ready(); });
    for (const auto &[port, up] : links)
        queue_.push(port, up);
    thread_ = std::jthread([this](const std::stop_token &stop) { work(stop); });
}

void LinkPublisher::publish(std::uint32_t port, bool up)
{
    const std::lock_guard guard(lock_);
    queue_.push(port, up);
    news_ = true;
    changed_.notify_all();
}

void LinkPublisher::try_again()
{
    const std::lock_guard guard(lock_);
    queue_.try_again();
    news_ = true;
    changed_.notify_all();
}

std::map<std::uint32_t, bool> LinkPublisher::published() const
{
    const std::lock_guard guard(lock_);
    return queue_.published();
}

PublisherCounters LinkPublisher::counters() const
{
    const std::lock_guard guard(lock_);
    return counters_;
}

void LinkPublisher::work(const std::stop_token &stop)
{
    std::unique_lock guard(lock_);
    for (bool told = false; !stop.stop_requested();) {
        if (!told && queue_.all_tried()) {
            tell_ready();
            told = true;
        }
        if (const auto next = queue_.next(LinkQueue::Clock::now()))
            write(guard, *next);
        else
            wait(guard, stop);
    }
}

void LinkPublisher::write(std::unique_lock<std::mutex> &guard, const LinkWrite &write)
{
    guard.unlock();
    const bool written = write.create ? store_.create(write.port, write.up) : store_.set(write.port, write.up);
    guard.lock();
    if (written) {
        ++counters_.written;
        queue_.written(write.port);
    } else {
        ++counters_.failed;
        if (queue_.failed(write.port, LinkQueue::Clock::now()))
            std::cerr << "olt-switch: the link status of port " << write.port
                      << " is refused; it is tried again after growing pauses, and when a daemon comes or goes"
                      << std::endl;
    }
}

void LinkPublisher::wait(std::unique_lock<std::mutex> &guard, const std::stop_token &stop)
{
    news_ = false;
    if (const auto due = queue_.due())
        changed_.wait_until(guard, stop, *due, [this] { return news_; });
    else
        changed_.wait(guard, stop, [this] { return news_; });
}

void LinkPublisher::tell_ready() const
{
    eventfd_write(ready_event_.get(), 1);
}

void LinkPublisher::on_ready()
{
    ready_readable_.reset();
    ready_();
}

} // namespace olt
