#include "switch.h"

#include "data_plane.h"
#include "kernel_plane.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace olt
{

namespace
{

std::vector<std::string> interfaces_of(const Options &options)
{
    std::vector<std::string> interfaces{options.cpu};
    if (!options.host.empty())
        interfaces.push_back(options.host);
    for (const auto &[number, interface] : options.ports)
        interfaces.push_back(interface);
    return interfaces;
}

const char *word(bool up)
{
    return up ? "up" : "down";
}

} // namespace

Switch::Switch(EventLoop &loop, const Options &options)
    : loop_(loop), options_(options), driver_(
                                          loop, options_, [this] { daemon_changed(); }, [this] { settle(); }),
      state_(loop, options_.state_socket, [this] { return state_text(sources()); }), forwarder_(loop, options_),
      links_(
          loop, interfaces_of(options_),
          [this](const std::string &interface, const Link &before, const Link &now) {
              link_changed(interface, before, now);
          },
          [this] { advise(); })
{
    for (const auto &[number, interface] : options_.ports)
        numbers_[interface] = number;
    if (!options_.host.empty())
        plane_ =
            options_.kernel_forwarding
                ? std::unique_ptr<UserPlane>(std::make_unique<KernelPlane>(loop, options_, driver_.trunks(), links_))
                : std::make_unique<DataPlane>(loop, options_, driver_.trunks());
    if (options_.datastore)
        store_ = std::make_unique<DatastoreLinks>();
    for (const std::string &interface : interfaces_of(options_))
        follow(interface, links_.link(interface));
    settle();
    if (store_)
        publish_links();
    else
        ready();
}

StateSources Switch::sources() const
{
    return {options_, forwarder_, links_, driver_, publisher_ ? &*publisher_ : nullptr, plane_.get()};
}

std::string Switch::name_of(const std::string &interface) const
{
    if (interface == options_.cpu)
        return "cpu";
    if (interface == options_.host)
        return "host";
    return "port " + std::to_string(numbers_.at(interface));
}

// An interface that has gone before it could be followed is told of by the next notice.
void Switch::follow(const std::string &interface, const Link &link)
{
    if (link.index != 0 && !link.ethernet)
        throw std::runtime_error("interface " + interface + " is no Ethernet interface; name another one");
    if ((!forwarder_.follow(interface, link.index) || (plane_ && !plane_->follow(interface, link.index))) &&
        errno != ENODEV)
        throw std::runtime_error("interface " + interface + " cannot be listened to: " + std::strerror(errno) +
                                 "; check that this program runs as root");
}

void Switch::publish_links()
{
    std::map<std::uint32_t, bool> links;
    for (const auto &[number, interface] : options_.ports)
        links[number] = links_.link(interface).carrier;
    publisher_.emplace(loop_, *store_, links, [this] { ready(); });
}

void Switch::daemon_changed()
{
    if (publisher_)
        publisher_->try_again();
}

void Switch::settle()
{
    if (plane_)
        plane_->settle();
}

void Switch::ready()
{
    state_.start();
    for (const auto &[number, interface] : options_.ports)
        std::cout << "port " << number << ": interface " << interface << ", carrier "
                  << word(links_.link(interface).carrier) << std::endl;
    for (const std::string &interface : interfaces_of(options_))
        if (links_.link(interface).index == 0)
            std::cout << name_of(interface) << ": interface "
                      << interface << " is not there; it is taken when it comes" << std::endl;
    ready_ = true;
    advise();
    std::cout << "switch runs with " << options_.ports.size() << " ports" << std::endl;
}

void Switch::link_changed(const std::string &interface, const Link &before, const Link &now)
{
    const auto number = numbers_.find(interface);
    const std::string name = name_of(interface);
    if (now.carrier != before.carrier)
        std::cout << name << ": carrier " << word(now.carrier) << std::endl;
    if (now.index == 0)
        std::cout << name << ": interface " << interface << " is gone" << std::endl;
    if (number != numbers_.end() && publisher_ && now.carrier != before.carrier)
        publisher_->publish(number->second, now.carrier);
    if (now.mtu != before.mtu)
        advise();
    if (now.index != before.index)
        follow(interface, now);
    settle();
}

// ---- what the operator had better change ----------------------------------------------------------------------

void Switch::advise()
{
    if (!ready_ || advice() == advice_)
        return;
    advice_ = advice();
    std::cout << advice_ << std::flush;
}

// The ports are left as they are: a switch that is killed could not put anything back.
std::string Switch::advice() const
{
    std::ostringstream text, mtus;
    std::set<unsigned> sizes;
    for (const std::string &interface : interfaces_of(options_)) {
        const Link &link = links_.link(interface);
        if (link.index == 0 || interface == options_.cpu)
            continue;
        if (const std::string addresses = links_.addresses(interface); !addresses.empty())
            text << name_of(interface) << ": interface " << interface << " has addresses of its own (" << addresses
                 << "), which answer in the user's network; take them off, and switch IPv6 off on it\n";
        mtus << (sizes.empty() ? "" : ", ") << interface << " " << link.mtu;
        sizes.insert(link.mtu);
    }
    if (sizes.size() > 1)
        text << "the MTUs differ (" << mtus.str() << "): a frame too long for where it leaves is lost\n";
    return text.str();
}

} // namespace olt
