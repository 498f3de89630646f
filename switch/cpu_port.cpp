#include "cpu_port.h"

namespace olt
{

CpuPort::CpuPort(EventLoop &loop, const std::string &interface, std::uint16_t vlan, Received received)
    : vlan_(vlan), socket_(interface), received_(std::move(received))
{
    readable_ =
        Event::readable(loop, socket_.get(), [this] { socket_.receive([this](Frame frame) { receive(frame); }); });
}

bool CpuPort::send(std::uint32_t port, Frame frame)
{
    const bool sent = socket_.send(tag_for_cpu(frame, port, vlan_));
    ++(sent ? counters_.sent : counters_.send_failed);
    return sent;
}

void CpuPort::receive(Frame frame)
{
    ++counters_.received;
    const auto egress = untag_from_cpu(frame);
    if (!egress)
        ++counters_.bad_tag;
    else if (!received_(egress->port, egress->frame))
        ++counters_.unknown_port;
}

} // namespace olt
