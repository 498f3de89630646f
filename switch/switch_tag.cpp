#include "switch_tag.h"

#include <algorithm>
#include <array>

namespace olt
{

namespace
{

constexpr std::array<std::uint8_t, 6> SLOW_PROTOCOLS_ADDRESS = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};
constexpr std::uint16_t SLOW_PROTOCOLS_ETHERTYPE = 0x8809;
constexpr std::uint16_t VLAN_ETHERTYPE = 0x8100;
constexpr std::size_t PORT_OFFSET = 6; // within the tag
constexpr std::size_t ETHERTYPE_SIZE = 2;

std::uint16_t get16(const std::uint8_t *bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void put16(std::uint8_t *bytes, std::uint32_t value)
{
    bytes[0] = static_cast<std::uint8_t>(value >> 8);
    bytes[1] = static_cast<std::uint8_t>(value);
}

} // namespace

std::vector<std::uint8_t> tag_for_cpu(Frame frame, std::uint32_t port, std::uint16_t vlan)
{
    std::array<std::uint8_t, TAG_SIZE + 4> tags{};
    put16(tags.data(), TAG_TO_CPU);
    put16(tags.data() + PORT_OFFSET, port);
    put16(tags.data() + TAG_SIZE, VLAN_ETHERTYPE);
    put16(tags.data() + TAG_SIZE + ETHERTYPE_SIZE, vlan);

    std::vector<std::uint8_t> out(frame.begin(), frame.begin() + ADDRESSES_SIZE);
    out.reserve(frame.size() + tags.size());
    out.insert(out.end(), tags.begin(), tags.end());
    out.insert(out.end(), frame.begin() + ADDRESSES_SIZE, frame.end());
    return out;
}

std::optional<EgressFrame> untag_from_cpu(Frame frame)
{
    if (frame.size() < ADDRESSES_SIZE + TAG_SIZE + ETHERTYPE_SIZE)
        return std::nullopt;
    const std::uint8_t *tag = frame.data() + ADDRESSES_SIZE;
    if (get16(tag) != TAG_FROM_CPU)
        return std::nullopt;
    EgressFrame egress;
    egress.port = tag[PORT_OFFSET] | static_cast<std::uint32_t>(tag[PORT_OFFSET + 1]) << 8;
    egress.frame.assign(frame.begin(), frame.begin() + ADDRESSES_SIZE);
    egress.frame.insert(egress.frame.end(), frame.begin() + ADDRESSES_SIZE + TAG_SIZE, frame.end());
    return egress;
}

bool is_slow_protocols(Frame frame)
{
    if (frame.size() < ADDRESSES_SIZE + ETHERTYPE_SIZE)
        return false;
    return std::equal(SLOW_PROTOCOLS_ADDRESS.begin(), SLOW_PROTOCOLS_ADDRESS.end(), frame.begin()) ||
           get16(frame.data() + ADDRESSES_SIZE) == SLOW_PROTOCOLS_ETHERTYPE;
}

} // namespace olt
