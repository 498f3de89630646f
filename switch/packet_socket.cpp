#include "packet_socket.h"

#include "vlan_tag.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <optional>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

namespace olt
{

namespace
{

constexpr std::size_t FRAME_LIMIT = 9216; // jumbo frames
constexpr int FRAMES_A_TURN = 64;
constexpr std::uint16_t NO_TYPE = 0xFFFF; // reserved: no frame has it

bool set_option(int fd, int option, const void *value, socklen_t size)
{
    return setsockopt(fd, SOL_PACKET, option, value, size) == 0;
}

// A switch port takes every frame, whomever it is for.
bool set_promiscuous(int fd, int option, int index)
{
    packet_mreq all{};
    all.mr_ifindex = index;
    all.mr_type = PACKET_MR_PROMISC;
    return set_option(fd, option, &all, sizeof(all));
}

bool turn_on(int fd, int option)
{
    const int on = 1;
    return set_option(fd, option, &on, sizeof(on));
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
        control_.offer(message);
        const ssize_t size = recvmsg(fd, &message, MSG_DONTWAIT);
        if (size < 0)
            return std::nullopt;
        const auto length = static_cast<std::size_t>(size);
        const auto tag = stripped_tag(message);
        if (!tag || length < ADDRESSES_SIZE)
            return Frame(buffer_.data() + VLAN_TAG_SIZE, length);
        restore_tag(*tag, buffer_.data() + VLAN_TAG_SIZE);
        return Frame(buffer_.data(), length + VLAN_TAG_SIZE);
    }

  private:
    std::array<std::uint8_t, VLAN_TAG_SIZE + FRAME_LIMIT> buffer_;
    VlanTagRoom control_;
};

} // namespace

PacketSocket::PacketSocket(std::string interface, bool hears)
    : interface_(std::move(interface)), socket_(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
      hears_(hears)
{
    if (!socket_.is_open() || !turn_on(get(), PACKET_AUXDATA) || !turn_on(get(), PACKET_IGNORE_OUTGOING))
        throw std::runtime_error("interface " + interface_ + ": no packet socket: " + std::strerror(errno) +
                                 "; run as root or with the capability CAP_NET_RAW");
}

// Looks at the destination and at the type behind the outer VLAN tag, so it may let a few others through.
void PacketSocket::want_slow_protocols_only() const
{
    constexpr std::uint32_t ALL = 0xFFFFFFFF;
    std::array<sock_filter, 8> program = {{
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, ADDRESSES_SIZE),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_SLOW, 4, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x0180C200, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x0002, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, ALL),
        BPF_STMT(BPF_RET | BPF_K, 0),
    }};
    const sock_fprog filter{program.size(), program.data()};
    if (setsockopt(get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter)) != 0)
        throw std::runtime_error("interface " + interface_ + ": no filter: " + std::strerror(errno));
}

// An interface that has got another name is still there: it is left alone again, and no frame goes out on it.
bool PacketSocket::follow(int index)
{
    if (index_ != 0)
        set_promiscuous(get(), PACKET_DROP_MEMBERSHIP, std::exchange(index_, 0));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(index == 0 || !hears_ ? NO_TYPE : ETH_P_ALL);
    address.sll_ifindex = index;
    if (bind(get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        return false;
    if (index != 0 && !set_promiscuous(get(), PACKET_ADD_MEMBERSHIP, index))
        return false;
    index_ = index;
    return true;
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
