// What the kernel says of a frame that it has not finished.
#pragma once

#include <cstdint>

namespace olt
{

// What the kernel puts before a frame on a socket with PACKET_VNET_HDR; its own header of it is not for C++.
struct OffloadHeader {
    static constexpr std::uint8_t NEEDS_CHECKSUM = 1; // flags
    static constexpr std::uint8_t NO_SEGMENTS = 0;    // segments_type
    static constexpr std::uint8_t UDP_SEGMENTS = 5;   // others are of TCP

    std::uint8_t flags;
    std::uint8_t segments_type;
    std::uint16_t header_length;
    std::uint16_t segment_size;
    std::uint16_t checksum_start;
    std::uint16_t checksum_offset;
};
static_assert(sizeof(OffloadHeader) == 10);

} // namespace olt
