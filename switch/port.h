// An uplink port of the switch.
#pragma once

#include "event_loop.h"
#include "packet_socket.h"

namespace olt
{

struct PortCounters {
    std::uint64_t rx_slow = 0; // slow-protocols frames received
    std::uint64_t tx_slow = 0; // frames sent for the CPU
    std::uint64_t dropped = 0; // of these two kinds, frames that could not be passed on
};

class Port
{
  public:
    using Received = std::function<void(Port &, Frame)>;

    Port(EventLoop &loop, std::uint32_t number, const std::string &interface, Received received);
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;

    std::uint32_t number() const { return number_; }
    PacketSocket &socket() { return socket_; }
    const PacketSocket &socket() const { return socket_; }
    bool send(Frame frame) const { return socket_.send(frame); }

    PortCounters counters;

  private:
    std::uint32_t number_;
    PacketSocket socket_;
    Received received_;
    std::unique_ptr<Event> readable_;
};

} // namespace olt
