// A packet socket bound to one interface.
#pragma once

#include "switch_tag.h"
#include "unix_socket.h"

#include <functional>
#include <string>

namespace olt
{

class PacketSocket
{
  public:
    // Receives frames of one EtherType (host order; ETH_P_ALL for all). Throws when there is no such interface.
    PacketSocket(const std::string &interface, std::uint16_t ethertype);

    int get() const { return socket_.get(); }
    const std::string &interface() const { return interface_; }
    // Hands every waiting frame on, up to a bound, so that no interface starves another.
    void receive(const std::function<void(Frame)> &take) const;
    bool send(Frame frame) const;

  private:
    std::string interface_;
    Descriptor socket_;
};

} // namespace olt
