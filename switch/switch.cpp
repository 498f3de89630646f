#include "switch.h"

#include <cerrno>
#include <cstring>
#include <iostream>
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
    : loop_(loop), options_(options), driver_(loop, options_),
      state_(loop, options_.state_socket, [this] { return state_text(sources()); }), forwarder_(loop, options_),
      links_(loop, interfaces_of(options_),
             [this](const std::string &interface, const Link &before, const Link &now) {
                 link_changed(interface, before, now);
             })
{
    for (const auto &[number, interface] : options_.ports)
        numbers_[interface] = number;
    if (!options_.host.empty())
        plane_.emplace(loop, options_, driver_.trunks());
    if (options_.datastore)
        store_ = std::make_unique<DatastoreLinks>();
    for (const std::string &interface : interfaces_of(options_))
        attach(interface, links_.link(interface).index);
    if (store_)
        publish_links();
    else
        ready();
}

StateSources Switch::sources() const
{
    return {options_, forwarder_, links_, driver_, publisher_ ? &*publisher_ : nullptr, plane_ ? &*plane_ : nullptr};
}

std::string Switch::name_of(const std::string &interface) const
{
    if (interface == options_.cpu)
        return "cpu";
    if (interface == options_.host)
        return "host";
    return "port " + std::to_string(numbers_.at(interface));
}

void Switch::attach(const std::string &interface, int index) const
{
    if (!forwarder_.attach(interface, index) || (plane_ && !plane_->attach(interface, index)))
        throw std::runtime_error("interface " + interface + " cannot be listened to: " + std::strerror(errno) +
                                 "; check that it is an Ethernet interface and that this program runs as root");
}

void Switch::publish_links()
{
    std::map<std::uint32_t, bool> links;
    for (const auto &[number, interface] : options_.ports)
        links[number] = links_.link(interface).carrier;
    publisher_.emplace(loop_, *store_, links, [this] { ready(); });
}

void Switch::ready()
{
    state_.start();
    for (const auto &[number, interface] : options_.ports)
        std::cout << "port " << number << ": interface " << interface << ", carrier "
                  << word(links_.link(interface).carrier) << std::endl;
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
    if (now.index != before.index && now.index != 0)
        attach(interface, now.index); // another interface of that name: its frames come in anew
}

} // namespace olt
