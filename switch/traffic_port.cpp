#include "traffic_port.h"

#include <cerrno>
#include <cstring>
#include <linux/if_packet.h>
#include <stdexcept>
#include <sys/socket.h>

namespace olt
{

namespace
{

constexpr int BUFFER_SIZE = 4 << 20;

// Beyond the system's limit with the right to do so, else up to it.
void set_buffer(int fd, int forced, int limited)
{
    if (setsockopt(fd, SOL_SOCKET, forced, &BUFFER_SIZE, sizeof(BUFFER_SIZE)) != 0)
        setsockopt(fd, SOL_SOCKET, limited, &BUFFER_SIZE, sizeof(BUFFER_SIZE));
}

void add(TrafficCount &count, const SendQueue::Outcome &outcome)
{
    count.frames += outcome.frames;
    count.bytes += outcome.bytes;
    count.dropped += outcome.dropped;
}

} // namespace

TrafficPort::TrafficPort(EventLoop &loop, FrameBatch &batch, const std::string &interface, Received received)
    : socket_(interface), queue_(socket_.get())
{
    const int on = 1;
    if (setsockopt(socket_.get(), SOL_PACKET, PACKET_VNET_HDR, &on, sizeof(on)) != 0)
        throw std::runtime_error("interface " + interface + ": no traffic socket: " + std::strerror(errno));
    set_buffer(socket_.get(), SO_RCVBUFFORCE, SO_RCVBUF);
    set_buffer(socket_.get(), SO_SNDBUFFORCE, SO_SNDBUF);
    readable_ = Event::readable(loop, socket_.get(), [this, &batch, received = std::move(received)] {
        batch.receive(socket_.get());
        received(batch);
    });
}

void TrafficPort::flush(TrafficCount &trunk)
{
    if (queue_.empty())
        return;
    const auto outcome = queue_.flush();
    add(counters.tx, outcome);
    add(trunk, outcome);
}

// The kernel's count starts over when it is read.
std::uint64_t TrafficPort::missed() const
{
    tpacket_stats statistics{};
    socklen_t size = sizeof(statistics);
    if (getsockopt(socket_.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &size) == 0)
        missed_ += statistics.tp_drops;
    return missed_;
}

} // namespace olt
