#include "carrier_monitor.h"

#include <linux/if.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <stdexcept>

namespace olt
{

namespace
{

bool has_carrier(rtnl_link *link)
{
    return (rtnl_link_get_flags(link) & IFF_UP) != 0 && rtnl_link_get_carrier(link) != 0;
}

} // namespace

void CarrierMonitor::Release::operator()(nl_cache_mngr *manager) const
{
    nl_cache_mngr_free(manager);
}

CarrierMonitor::CarrierMonitor(EventLoop &loop, const Options &options, Changed changed)
    : changed_(std::move(changed))
{
    for (const auto &[number, interface] : options.ports) {
        numbers_[interface] = number;
        carriers_[number] = false;
    }
    nl_cache_mngr *manager = nullptr;
    nl_cache *links = nullptr;
    if (nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, NL_AUTO_PROVIDE, &manager) < 0)
        throw std::runtime_error("the kernel's link events cannot be followed");
    manager_.reset(manager);
    if (nl_cache_mngr_add(manager, "route/link", on_change, this, &links) < 0)
        throw std::runtime_error("the kernel's list of interfaces cannot be read");
    for (nl_object *object = nl_cache_get_first(links); object != nullptr; object = nl_cache_get_next(object)) {
        auto *link = reinterpret_cast<rtnl_link *>(object);
        const auto number = numbers_.find(rtnl_link_get_name(link));
        if (number != numbers_.end())
            carriers_[number->second] = has_carrier(link);
    }
    readable_ =
        Event::readable(loop, nl_cache_mngr_get_fd(manager), [this] { nl_cache_mngr_data_ready(manager_.get()); });
}

CarrierMonitor::~CarrierMonitor() = default;

void CarrierMonitor::on_change(nl_cache *, nl_object *object, int action, void *self)
{
    static_cast<CarrierMonitor *>(self)->look_at(object, action == NL_ACT_DEL);
}

void CarrierMonitor::look_at(nl_object *object, bool gone)
{
    auto *link = reinterpret_cast<rtnl_link *>(object);
    const char *name = rtnl_link_get_name(link);
    const auto number = name == nullptr ? numbers_.end() : numbers_.find(name);
    if (number == numbers_.end())
        return;
    const bool up = !gone && has_carrier(link);
    bool &known = carriers_.at(number->second);
    if (known == up)
        return;
    known = up;
    if (changed_)
        changed_(number->second, up);
}

} // namespace olt
