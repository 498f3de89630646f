#include "packet_socket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <optional>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/uio.h>

namespace olt
{

namespace
{

constexpr std::size_t VLAN_TAG_SIZE = 4;
constexpr std::size_t FRAME_LIMIT = 9216; // jumbo frames
constexpr int FRAMES_A_TURN = 64;

struct VlanTag {
    std::uint16_t type;
    std::uint16_t control;
};

bool set_option(int fd, int option, const void *value, socklen_t size)
{
    return setsockopt(fd, SOL_PACKET, option, value, size) == 0;
}

bool turn_on(int fd, int option)
{
    const int on = 1;
    return set_option(fd, option, &on, sizeof(on));
}

// The kernel takes the outer VLAN tag off a frame before packet sockets see it.
std::optional<VlanTag> stripped_tag(msghdr &message)
{
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_PACKET || part->cmsg_type != PACKET_AUXDATA)
            continue;
        tpacket_auxdata data;
        std::memcpy(&data, CMSG_DATA(part), sizeof(data));
        if ((data.tp_status & TP_STATUS_VLAN_VALID) == 0)
            return std::nullopt;
        const bool has_type = (data.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
        return VlanTag{has_type ? data.tp_vlan_tpid : std::uint16_t{ETH_P_8021Q}, data.tp_vlan_tci};
    }
    return std::nullopt;
}

class Receiver
{
  public:
    // Nothing when no frame waits.
    std::optional<Frame> receive(int fd)
    {
        iovec part{buffer_.data() + VLAN_TAG_SIZE, FRAME_LIMIT};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control_.data();
        message.msg_controllen = control_.size();
        const ssize_t size = recvmsg(fd, &message, MSG_DONTWAIT);
        if (size < 0)
            return std::nullopt;
        const auto length = static_cast<std::size_t>(size);
        const auto tag = stripped_tag(message);
        if (!tag || length < ADDRESSES_SIZE)
            return Frame(buffer_.data() + VLAN_TAG_SIZE, length);
        restore(*tag);
        return Frame(buffer_.data(), length + VLAN_TAG_SIZE);
    }

  private:
    void restore(const VlanTag &tag)
    {
        std::copy_n(buffer_.data() + VLAN_TAG_SIZE, ADDRESSES_SIZE, buffer_.data());
        const std::array<std::uint16_t, 2> words{htons(tag.type), htons(tag.control)};
        std::memcpy(buffer_.data() + ADDRESSES_SIZE, words.data(), VLAN_TAG_SIZE);
    }

    std::array<std::uint8_t, VLAN_TAG_SIZE + FRAME_LIMIT> buffer_;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(tpacket_auxdata))> control_;
};

} // namespace

PacketSocket::PacketSocket(std::string interface)
    : interface_(std::move(interface)), socket_(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    if (!socket_.is_open() || !turn_on(get(), PACKET_AUXDATA) || !turn_on(get(), PACKET_IGNORE_OUTGOING))
        throw std::runtime_error("interface " + interface_ + ": no packet socket: " + std::strerror(errno) +
                                 "; run as root or with the capability CAP_NET_RAW");
}

bool PacketSocket::attach(int index) const
{
    packet_mreq all{};
    all.mr_ifindex = index;
    all.mr_type = PACKET_MR_PROMISC; // a switch port takes every frame, whomever it is for
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = index;
    return bind(get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 &&
           set_option(get(), PACKET_ADD_MEMBERSHIP, &all, sizeof(all));
}

void PacketSocket::receive(const Take &take) const
{
    Receiver receiver;
    for (int turn = 0; turn < FRAMES_A_TURN; ++turn) {
        const auto frame = receiver.receive(get());
        if (!frame)
            return;
        take(*frame);
    }
}

bool PacketSocket::send(Frame frame) const
{
    return ::send(get(), frame.data(), frame.size(), MSG_DONTWAIT) == static_cast<ssize_t>(frame.size());
}

} // namespace olt
