// Slow-protocols frames between the uplink ports and the CPU interface.
#pragma once

#include "event_loop.h"
#include "options.h"
#include "packet_socket.h"

#include <map>
#include <memory>

namespace olt
{

struct PortCounters {
    std::uint64_t rx_slow = 0; // handed to the CPU
    std::uint64_t tx_slow = 0; // sent for the CPU
    std::uint64_t dropped = 0; // could not be passed on
};

struct CpuCounters {
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
    std::uint64_t bad_tag = 0;
    std::uint64_t unknown_port = 0;
};

class Forwarder
{
  public:
    Forwarder(EventLoop &loop, const Options &options);

    const std::map<std::uint32_t, PortCounters> &port_counters() const { return port_counters_; }
    const CpuCounters &cpu_counters() const { return cpu_counters_; }

  private:
    struct Port {
        std::unique_ptr<PacketSocket> socket;
        std::unique_ptr<Event> readable;
    };

    void from_port(std::uint32_t port, Frame frame);
    void from_cpu(Frame frame);

    std::uint16_t vlan_;
    PacketSocket cpu_;
    std::unique_ptr<Event> cpu_readable_;
    std::map<std::uint32_t, Port> ports_;
    std::map<std::uint32_t, PortCounters> port_counters_;
    CpuCounters cpu_counters_;
};

} // namespace olt
