#include "forwarder.h"

#include <linux/if_ether.h>

namespace olt
{

Forwarder::Forwarder(EventLoop &loop, const Options &options) : vlan_(options.vlan), cpu_(options.cpu, TAG_FROM_CPU)
{
    cpu_readable_ =
        Event::readable(loop, cpu_.get(), [this] { cpu_.receive([this](Frame frame) { from_cpu(frame); }); });
    for (const auto &[number, interface] : options.ports) {
        Port &port = ports_[number];
        port_counters_[number] = {};
        port.socket = std::make_unique<PacketSocket>(interface, ETH_P_SLOW);
        const PacketSocket *socket = port.socket.get();
        port.readable = Event::readable(loop, socket->get(), [this, socket, number = number] {
            socket->receive([this, number](Frame frame) { from_port(number, frame); });
        });
    }
}

void Forwarder::from_port(std::uint32_t port, Frame frame)
{
    PortCounters &counters = port_counters_.at(port);
    if (!is_slow_protocols(frame) || !cpu_.send(tag_for_cpu(frame, port, vlan_))) {
        ++counters.dropped;
        return;
    }
    ++counters.rx_slow;
    ++cpu_counters_.sent;
}

void Forwarder::from_cpu(Frame frame)
{
    ++cpu_counters_.received;
    const auto egress = untag_from_cpu(frame);
    if (!egress) {
        ++cpu_counters_.bad_tag;
        return;
    }
    const auto port = ports_.find(egress->port);
    if (port == ports_.end()) {
        ++cpu_counters_.unknown_port;
        return;
    }
    PortCounters &counters = port_counters_.at(egress->port);
    ++(port->second.socket->send(egress->frame) ? counters.tx_slow : counters.dropped);
}

} // namespace olt
