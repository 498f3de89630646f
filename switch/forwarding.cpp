#include "forwarding.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace olt
{

namespace
{

constexpr std::size_t MAC_SIZE = 6;
constexpr std::size_t TYPE_SIZE = 2;
constexpr std::size_t TAG_WITH_TYPE = 4; // a VLAN tag, up to the type behind it
constexpr std::uint16_t IPV4 = 0x0800;
constexpr std::uint16_t IPV6 = 0x86DD;
constexpr std::uint16_t CUSTOMER_TAG = 0x8100;
constexpr std::uint16_t SERVICE_TAG = 0x88A8;
constexpr std::array<std::uint8_t, 5> RESERVED_ADDRESSES = {0x01, 0x80, 0xC2, 0x00, 0x00};
constexpr std::uint8_t LAST_RESERVED = 0x0F;
constexpr std::uint64_t GOLDEN_RATIO = 0x9E3779B97F4A7C15;

struct Addresses {
    Frame source;
    Frame destination;
};

// Where a protocol has its addresses, from the start of its header.
struct IpLayout {
    std::uint8_t version;
    std::size_t header;
    std::size_t source;
    std::size_t size;
};

constexpr IpLayout IPV4_LAYOUT{4, 20, 12, 4};
constexpr IpLayout IPV6_LAYOUT{6, 40, 8, 16};

std::uint16_t type_at(Frame frame, std::size_t at)
{
    return static_cast<std::uint16_t>(frame[at] << 8 | frame[at + 1]);
}

std::optional<Addresses> addresses_in(Frame packet, const IpLayout &layout)
{
    if (packet.size() < layout.header || packet[0] >> 4 != layout.version)
        return std::nullopt;
    return Addresses{packet.subspan(layout.source, layout.size),
                     packet.subspan(layout.source + layout.size, layout.size)};
}

std::optional<Addresses> ip_addresses(Frame frame)
{
    std::size_t at = ADDRESSES_SIZE;
    std::uint16_t type = type_at(frame, at);
    if ((type == CUSTOMER_TAG || type == SERVICE_TAG) && frame.size() >= at + TAG_WITH_TYPE + TYPE_SIZE) {
        at += TAG_WITH_TYPE;
        type = type_at(frame, at);
    }
    const Frame packet = frame.subspan(at + TYPE_SIZE);
    if (type == IPV4)
        return addresses_in(packet, IPV4_LAYOUT);
    if (type == IPV6)
        return addresses_in(packet, IPV6_LAYOUT);
    return std::nullopt;
}

Addresses mac_addresses(Frame frame)
{
    return {frame.subspan(MAC_SIZE, MAC_SIZE), frame.first(MAC_SIZE)};
}

// Spreads every bit of the value over the whole result.
std::uint64_t mix(std::uint64_t value)
{
    value ^= value >> 30;
    value *= 0xBF58476D1CE4E5B9;
    value ^= value >> 27;
    value *= 0x94D049BB133111EB;
    return value ^ value >> 31;
}

std::uint64_t mix_in(std::uint64_t hash, Frame bytes)
{
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data() + at, std::min(sizeof(word), bytes.size() - at));
        hash = mix(hash + GOLDEN_RATIO + word);
    }
    return hash;
}

} // namespace

Criterion criterion_of(std::uint32_t code)
{
    switch (code) {
    case 0:
        return {true, true, false};
    case 1:
        return {true, false, true};
    case 10:
        return {false, false, true};
    case 18:
        return {true, true, true};
    case 19:
        return {false, true, true};
    default:
        return {false, true, false};
    }
}

bool is_user_frame(Frame frame)
{
    if (frame.size() < ADDRESSES_SIZE + TYPE_SIZE || is_slow_protocols(frame))
        return false;
    return !std::equal(RESERVED_ADDRESSES.begin(), RESERVED_ADDRESSES.end(), frame.begin()) ||
           frame[RESERVED_ADDRESSES.size()] > LAST_RESERVED;
}

std::uint64_t flow_hash(std::uint32_t code, Frame frame)
{
    const Criterion criterion = criterion_of(code);
    const auto ip = criterion.ip ? ip_addresses(frame) : std::nullopt;
    const Addresses addresses = ip ? *ip : mac_addresses(frame);
    std::uint64_t hash = 0;
    if (criterion.source)
        hash = mix_in(hash, addresses.source);
    if (criterion.destination)
        hash = mix_in(hash, addresses.destination);
    return hash;
}

// Every member draws a number for the flow, and the highest has it.
std::uint32_t choose_member(Members members, std::uint64_t hash)
{
    std::uint32_t chosen = 0;
    std::uint64_t highest = 0;
    for (std::uint32_t port = 1; port <= members.size(); ++port) {
        if (!members[port - 1])
            continue;
        const std::uint64_t drawn = mix(hash + port * GOLDEN_RATIO);
        if (chosen == 0 || drawn > highest) {
            chosen = port;
            highest = drawn;
        }
    }
    return chosen;
}

std::optional<Egress> egress_of(const TrunkTable &trunks, Frame frame)
{
    if (trunks.all().empty())
        return std::nullopt;
    const auto &[group, trunk] = *trunks.all().begin();
    return Egress{group, choose_member(trunk.members, flow_hash(trunk.criterion, frame))};
}

std::optional<std::uint32_t> group_of(const TrunkTable &trunks, std::uint32_t port)
{
    for (const auto &[group, trunk] : trunks.all())
        if (trunk.members[port - 1])
            return group;
    return std::nullopt;
}

} // namespace olt
