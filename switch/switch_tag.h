// The 12-byte tag between the addresses and the rest of a frame on the CPU interface.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace olt
{

constexpr std::size_t ADDRESSES_SIZE = 12; // destination and source
constexpr std::size_t TAG_SIZE = 12;
constexpr std::uint16_t TAG_TO_CPU = 0x9082;
constexpr std::uint16_t TAG_FROM_CPU = 0x9089;

using Frame = std::span<const std::uint8_t>;

struct EgressFrame {
    std::uint32_t port;
    std::vector<std::uint8_t> frame; // without the tag
};

// A frame from a port as the CPU gets it: tag with the port number (big-endian), then a VLAN tag, then the rest.
std::vector<std::uint8_t> tag_for_cpu(Frame frame, std::uint32_t port, std::uint16_t vlan);

// A frame from the CPU without its tag, and the port it names (little-endian). Nothing for a frame without the tag.
std::optional<EgressFrame> untag_from_cpu(Frame frame);

// Whether a frame belongs to the slow protocols, by its group address or its EtherType.
bool is_slow_protocols(Frame frame);

} // namespace olt
