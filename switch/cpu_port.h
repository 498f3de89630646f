// The switch's port towards the CPU, where frames carry the switch tag.
#pragma once

#include "event_loop.h"
#include "packet_socket.h"

namespace olt
{

struct CpuCounters {
    std::uint64_t received = 0;     // frames from the CPU
    std::uint64_t sent = 0;         // frames to the CPU
    std::uint64_t bad_tag = 0;      // received and dropped: another tag, or too short for one
    std::uint64_t unknown_port = 0; // received and dropped: tagged for a port that is not there
    std::uint64_t send_failed = 0;  // lost on the way to the CPU
};

class CpuPort
{
  public:
    // A frame without its tag and the port it is for; false when there is no such port.
    using Received = std::function<bool(std::uint32_t port, Frame frame)>;

    CpuPort(EventLoop &loop, const std::string &interface, std::uint16_t vlan, Received received);
    CpuPort(const CpuPort &) = delete;
    CpuPort &operator=(const CpuPort &) = delete;

    PacketSocket &socket() { return socket_; }
    const PacketSocket &socket() const { return socket_; }
    const CpuCounters &counters() const { return counters_; }
    // Hands a port's frame to the CPU.
    bool send(std::uint32_t port, Frame frame);

  private:
    void receive(Frame frame);

    std::uint16_t vlan_;
    PacketSocket socket_;
    Received received_;
    CpuCounters counters_;
    std::unique_ptr<Event> readable_;
};

} // namespace olt
