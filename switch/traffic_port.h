// An interface that carries user traffic.
#pragma once

#include "event_loop.h"
#include "frame_batch.h"
#include "packet_socket.h"
#include "user_plane.h"

namespace olt
{

// Its socket sees all frames; those that are no user traffic are for others that listen on the interface.
class TrafficPort
{
  public:
    using Received = std::function<void(FrameBatch &batch)>;

    TrafficPort(EventLoop &loop, FrameBatch &batch, const std::string &interface, Received received);
    TrafficPort(const TrafficPort &) = delete;
    TrafficPort &operator=(const TrafficPort &) = delete;

    PacketSocket &socket() { return socket_; }
    const PacketSocket &socket() const { return socket_; }
    void queue(FrameBatch &batch, std::size_t index) { queue_.add(batch, index); }
    // Sends what is queued, and counts it here and in `trunk`.
    void flush(TrafficCount &trunk);
    // Frames that came in while no room was left for them.
    std::uint64_t missed() const;

    TrafficCounters counters;

  private:
    PacketSocket socket_;
    SendQueue queue_;
    mutable std::uint64_t missed_ = 0;
    std::unique_ptr<Event> readable_;
};

} // namespace olt
