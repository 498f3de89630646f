// Follows the carrier of the port interfaces through rtnetlink.
#pragma once

#include "event_loop.h"
#include "options.h"

#include <functional>
#include <map>
#include <memory>

struct nl_cache_mngr;
struct nl_cache;
struct nl_object;

namespace olt
{

class CarrierMonitor
{
  public:
    using Changed = std::function<void(std::uint32_t port, bool up)>;

    // Reads every port's carrier, then reports changes in the order in which the kernel tells them.
    CarrierMonitor(EventLoop &loop, const Options &options, Changed changed);
    ~CarrierMonitor();

    bool is_up(std::uint32_t port) const { return carriers_.at(port); }
    const std::map<std::uint32_t, bool> &carriers() const { return carriers_; }

  private:
    static void on_change(nl_cache *cache, nl_object *object, int action, void *self);
    void look_at(nl_object *object, bool gone);

    struct Release {
        void operator()(nl_cache_mngr *manager) const;
    };
    std::map<std::string, std::uint32_t> numbers_; // by interface
    std::map<std::uint32_t, bool> carriers_;
    Changed changed_;
    std::unique_ptr<nl_cache_mngr, Release> manager_;
    std::unique_ptr<Event> readable_;
};

} // namespace olt
