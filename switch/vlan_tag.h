// The outer VLAN tag of a received frame, which the kernel takes off before packet sockets see the frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <sys/socket.h>

namespace olt
{

constexpr std::size_t VLAN_TAG_SIZE = 4;

struct VlanTag {
    std::uint16_t type;
    std::uint16_t control;
};

// Room for the control message that tells the tag.
struct VlanTagRoom {
    VlanTagRoom();
    void offer(msghdr &message); // before a reception

    static constexpr std::size_t SIZE = 64; // checked where the kernel's record is known
    alignas(cmsghdr) std::array<char, SIZE> bytes;
};

// The tag of a received message, if there was one.
std::optional<VlanTag> stripped_tag(msghdr &message);

// Puts a tag back: `frame` is preceded by VLAN_TAG_SIZE bytes of room, which become the frame's start.
void restore_tag(const VlanTag &tag, std::uint8_t *frame);

} // namespace olt
