#include "link_publisher.h"

#include <chrono>
#include <stdexcept>

namespace olt
{

namespace
{

constexpr int SLOT = 0;
constexpr std::chrono::milliseconds RETRY_AFTER(500);

} // namespace

LinkPublisher::~LinkPublisher()
{
    thread_.request_stop();
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
    database_close(&db_);
}

void LinkPublisher::start(const std::map<std::uint32_t, bool> &carriers)
{
    if (database_init(&db_) != 0)
        throw std::runtime_error("the datastore cannot be used; install its modules first, or give --no-datastore");
    for (const auto &[port, up] : carriers) {
        if (db_olt_ifm_add_interface(SLOT, port, &db_, up) != 0)
            throw std::runtime_error("the interface entry of port " + std::to_string(port) +
                                     " cannot be created; if a daemon without that port runs, stop it first");
        published_[port] = up;
    }
    thread_ = std::jthread([this](const std::stop_token &stop) { work(stop); });
}

void LinkPublisher::publish(std::uint32_t port, bool up)
{
    {
        const std::lock_guard guard(lock_);
        changes_.push_back({port, up});
    }
    changed_.notify_all();
}

std::map<std::uint32_t, bool> LinkPublisher::published() const
{
    const std::lock_guard guard(lock_);
    return published_;
}

bool LinkPublisher::write(const Change &change)
{
    return db_olt_ifm_set_interface_basic_link_status(SLOT, change.port, &db_, change.up) == 0;
}

// A change stays at the head of the queue until it is written: a flap is written as a flap.
void LinkPublisher::work(const std::stop_token &stop)
{
    std::unique_lock guard(lock_);
    while (changed_.wait(guard, stop, [this] { return !changes_.empty(); })) {
        const Change change = changes_.front();
        guard.unlock();
        const bool written = write(change);
        guard.lock();
        if (written) {
            changes_.pop_front();
            published_[change.port] = change.up;
        } else {
            changed_.wait_for(guard, stop, RETRY_AFTER, [] { return false; });
        }
    }
}

} // namespace olt
