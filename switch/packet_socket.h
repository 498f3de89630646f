// A packet socket on one interface.
#pragma once

#include "switch_tag.h"
#include "unix_socket.h"

#include <functional>
#include <string>

namespace olt
{

// Sees every frame that comes in on its interface, as it was on the wire, and none that goes out.
class PacketSocket
{
  public:
    using Take = std::function<void(Frame)>;

    explicit PacketSocket(std::string interface, bool hears = true);

    // Leaves user traffic to others: it must not fill the buffer in which LACPDUs wait. Before attach().
    void want_slow_protocols_only() const;
    // Follows the interface to its present index, 0 when it is gone; false with errno when it cannot be listened to.
    bool follow(int index);
    int get() const { return socket_.get(); }
    const std::string &interface() const { return interface_; }
    // Hands waiting frames on, up to a bound, so that no interface starves another.
    void receive(const Take &take) const;
    bool send(Frame frame) const;

  private:
    std::string interface_;
    Descriptor socket_;
    bool hears_;    // else it only makes the interface take every frame
    int index_ = 0; // of the interface that is listened to
};

} // namespace olt
