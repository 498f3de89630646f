#include "packet_socket.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdexcept>
#include <sys/socket.h>

namespace olt
{

namespace
{

constexpr std::size_t FRAME_LIMIT = 9216; // jumbo frames
constexpr int FRAMES_A_TURN = 64;
constexpr std::array<unsigned char, ETH_ALEN> SLOW_PROTOCOLS_ADDRESS = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};

[[noreturn]] void fail(const std::string &interface, const char *what)
{
    throw std::runtime_error("interface " + interface + ": " + what + ": " + std::strerror(errno) +
                             "; check its name and that this program runs as root");
}

void listen_to_group(int fd, int index)
{
    packet_mreq request{};
    request.mr_ifindex = index;
    request.mr_type = PACKET_MR_MULTICAST;
    request.mr_alen = ETH_ALEN;
    std::memcpy(request.mr_address, SLOW_PROTOCOLS_ADDRESS.data(), ETH_ALEN);
    setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &request, sizeof(request));
}

} // namespace

PacketSocket::PacketSocket(const std::string &interface, std::uint16_t ethertype)
    : interface_(interface), socket_(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    if (!socket_.is_open())
        fail(interface, "no packet socket");
    const int index = static_cast<int>(if_nametoindex(interface.c_str()));
    if (index == 0)
        fail(interface, "cannot be used");
    const int on = 1; // copies of what other programs send out of the interface are not received frames
    setsockopt(socket_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on));
    listen_to_group(socket_.get(), index);

    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ethertype);
    address.sll_ifindex = index;
    if (bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        fail(interface, "cannot be listened to");
}

void PacketSocket::receive(const std::function<void(Frame)> &take) const
{
    std::array<std::uint8_t, FRAME_LIMIT> buffer;
    for (int turn = 0; turn < FRAMES_A_TURN; ++turn) {
        const ssize_t length = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length <= 0)
            return;
        take(Frame(buffer.data(), static_cast<std::size_t>(length)));
    }
}

bool PacketSocket::send(Frame frame) const
{
    return ::send(socket_.get(), frame.data(), frame.size(), MSG_DONTWAIT) == static_cast<ssize_t>(frame.size());
}

} // namespace olt
