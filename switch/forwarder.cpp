#include "forwarder.h"

namespace olt
{

Forwarder::Forwarder(EventLoop &loop, const Options &options)
    : cpu_(loop, options.cpu, options.vlan,
           [this](std::uint32_t number, Frame frame) { return from_cpu(number, frame); })
{
    for (const auto &[number, interface] : options.ports)
        ports_.try_emplace(number, loop, number, interface,
                           [this](Port &port, Frame frame) { from_port(port, frame); });
}

bool Forwarder::follow(const std::string &interface, int index)
{
    if (interface == cpu_.socket().interface())
        return cpu_.socket().follow(index);
    for (auto &[number, port] : ports_)
        if (interface == port.socket().interface())
            return port.socket().follow(index);
    return true;
}

// User traffic is the data plane's.
void Forwarder::from_port(Port &port, Frame frame)
{
    if (!is_slow_protocols(frame))
        return;
    ++port.counters.rx_slow;
    if (!cpu_.send(port.number(), frame))
        ++port.counters.dropped;
}

bool Forwarder::from_cpu(std::uint32_t number, Frame frame)
{
    const auto found = ports_.find(number);
    if (found == ports_.end())
        return false;
    Port &port = found->second;
    ++(port.send(frame) ? port.counters.tx_slow : port.counters.dropped);
    return true;
}

} // namespace olt
