#include "port.h"

namespace olt
{

Port::Port(EventLoop &loop, std::uint32_t number, const std::string &interface, Received received)
    : number_(number), socket_(interface), received_(std::move(received))
{
    socket_.want_slow_protocols_only();
    readable_ = Event::readable(loop, socket_.get(),
                                [this] { socket_.receive([this](Frame frame) { received_(*this, frame); }); });
}

} // namespace olt
