#include "tunnel_frame.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace olt
{

namespace
{

constexpr std::size_t TYPE_SIZE = 2;
constexpr std::size_t IPV4_HEADER = 20; // the shortest
constexpr std::size_t IPV6_HEADER = 40;
constexpr std::size_t UDP_HEADER = 8;
constexpr std::size_t TCP_HEADER = 20; // the shortest
constexpr std::size_t GRE_CHECKSUM = 4;
constexpr std::uint8_t GRE_HAS_CHECKSUM = 0x80;
constexpr std::uint8_t TCP_FIN = 0x01, TCP_PSH = 0x08, TCP_CWR = 0x80;

std::uint16_t get16(const std::uint8_t *bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void put16(std::uint8_t *bytes, std::size_t value)
{
    bytes[0] = static_cast<std::uint8_t>(value >> 8);
    bytes[1] = static_cast<std::uint8_t>(value);
}

// The Internet checksum's sum, in the byte order of the machine; pieces must begin at even distances.
std::uint64_t sum(Frame bytes)
{
    std::uint64_t total = 0;
    std::size_t at = 0;
    for (std::uint32_t word = 0; at + sizeof(word) <= bytes.size(); at += sizeof(word)) {
        std::memcpy(&word, bytes.data() + at, sizeof(word));
        total += word;
    }
    std::uint32_t rest = 0;
    std::memcpy(&rest, bytes.data() + at, bytes.size() - at);
    return total + rest;
}

std::uint16_t checksum(std::uint64_t total)
{
    while (total > 0xFFFF)
        total = (total & 0xFFFF) + (total >> 16);
    return static_cast<std::uint16_t>(~total);
}

void store(std::uint8_t *field, std::uint16_t value)
{
    std::memcpy(field, &value, sizeof(value));
}

// A field with the sum of a pseudo header, whose length becomes another one.
void change_length(std::uint8_t *field, std::size_t before, std::size_t now)
{
    std::uint16_t partial = 0;
    std::memcpy(&partial, field, sizeof(partial));
    const std::uint16_t gone = htons(static_cast<std::uint16_t>(before));
    const std::uint16_t come = htons(static_cast<std::uint16_t>(now));
    store(field, static_cast<std::uint16_t>(~checksum(std::uint64_t{partial} + (gone ^ 0xFFFFU) + come)));
}

} // namespace

std::optional<TunnelFrame> TunnelFrame::recognise(Frame frame, const OffloadHeader &offload)
{
    const std::size_t shortest = std::max<std::size_t>(offload.checksum_offset + 2U, UDP_HEADER);
    if ((offload.flags & OffloadHeader::NEEDS_CHECKSUM) == 0 || offload.checksum_start + shortest > frame.size())
        return std::nullopt; // segments without a checksum to be made do not come
    TunnelFrame tunnel(frame, offload);
    tunnel.find_layers();
    if (!tunnel.is_tunnel())
        return std::nullopt;
    tunnel.find_payload();
    if (tunnel.payload_at_ > std::min(frame.size(), HEADERS_LIMIT) ||
        (tunnel.has_segments() && offload.segment_size == 0))
        return std::nullopt;
    return tunnel;
}

// An IP header is where one fits to the byte; nothing else need be known of what wraps it.
void TunnelFrame::find_layers()
{
    const std::size_t transport = offload_.checksum_start;
    std::size_t at = ADDRESSES_SIZE + TYPE_SIZE;
    while (at + IPV4_HEADER <= transport) {
        const auto kind = ip_at(at);
        if (!kind) {
            at += TYPE_SIZE;
            continue;
        }
        layers_.push_back({*kind, at});
        const bool is_ipv4 = kind == Kind::IPV4;
        const std::uint8_t protocol = frame_[at + (is_ipv4 ? 9 : 6)];
        at += is_ipv4 ? (frame_[at] & 0x0FU) * 4U : IPV6_HEADER;
        if (protocol == IPPROTO_UDP && at < transport)
            layers_.push_back({Kind::UDP, at});
        if (protocol == IPPROTO_GRE && at < transport && (frame_[at] & GRE_HAS_CHECKSUM) != 0)
            layers_.push_back({Kind::GRE_WITH_CHECKSUM, at});
    }
    layers_.push_back({Kind::TRANSPORT, transport});
}

std::optional<TunnelFrame::Kind> TunnelFrame::ip_at(std::size_t at) const
{
    const std::uint8_t *header = frame_.data() + at;
    const std::size_t left = frame_.size() - at, before_transport = offload_.checksum_start - at;
    const std::size_t ipv4_length = (header[0] & 0x0FU) * 4U;
    if (header[0] >> 4 == 4 && get16(header + 2) == left && ipv4_length >= IPV4_HEADER &&
        ipv4_length <= before_transport)
        return Kind::IPV4;
    if (header[0] >> 4 == 6 && before_transport >= IPV6_HEADER && get16(header + 4) == left - IPV6_HEADER)
        return Kind::IPV6;
    return std::nullopt;
}

bool TunnelFrame::is_tunnel() const
{
    return std::ranges::count_if(
               layers_, [](const Layer &layer) { return layer.kind == Kind::IPV4 || layer.kind == Kind::IPV6; }) > 1;
}

bool TunnelFrame::is_tcp() const
{
    return offload_.segments_type != OffloadHeader::UDP_SEGMENTS;
}

void TunnelFrame::find_payload()
{
    const std::size_t transport = offload_.checksum_start;
    payload_at_ = transport + std::max<std::size_t>(offload_.checksum_offset + 2U, UDP_HEADER);
    if (has_segments() && is_tcp() && transport + TCP_HEADER <= frame_.size())
        payload_at_ = transport + (frame_[transport + 12] >> 4) * 4U;
}

std::size_t TunnelFrame::pieces() const
{
    const std::size_t size = frame_.size() - payload_at_;
    return has_segments() ? std::max<std::size_t>((size + offload_.segment_size - 1) / offload_.segment_size, 1) : 1;
}

Frame TunnelFrame::payload(std::size_t piece) const
{
    const Frame all = frame_.subspan(payload_at_);
    if (!has_segments())
        return all;
    const std::size_t at = piece * offload_.segment_size;
    return all.subspan(at, std::min<std::size_t>(offload_.segment_size, all.size() - at));
}

// Checksums from the innermost outwards: each covers what is within.
Frame TunnelFrame::headers(std::size_t piece, std::span<std::uint8_t, HEADERS_LIMIT> room) const
{
    const Frame rest = payload(piece);
    const std::uint64_t payload_sum = sum(rest);
    const Frame headers = room.first(payload_at_);
    std::ranges::copy(frame_.first(payload_at_), room.begin());
    const auto fill = [&](std::size_t layer, std::size_t field) {
        store(room.data() + field, checksum(sum(headers.subspan(layer)) + payload_sum));
    };
    for (auto layer = layers_.rbegin(); layer != layers_.rend(); ++layer) {
        std::uint8_t *header = room.data() + layer->at;
        if (has_segments())
            shorten(*layer, header, piece);
        if (layer->kind == Kind::TRANSPORT)
            fill(layer->at, layer->at + offload_.checksum_offset);
        else if (has_segments() && layer->kind == Kind::UDP && get16(header + 6) != 0)
            fill(layer->at, layer->at + 6);
        else if (has_segments() && layer->kind == Kind::GRE_WITH_CHECKSUM)
            fill(layer->at, layer->at + GRE_CHECKSUM);
    }
    return headers;
}

void TunnelFrame::shorten(const Layer &layer, std::uint8_t *header, std::size_t piece) const
{
    const std::size_t before = frame_.size() - layer.at;
    const std::size_t now = payload_at_ - layer.at + payload(piece).size();
    switch (layer.kind) {
    case Kind::IPV4:
        put16(header + 2, now);
        put16(header + 4, get16(header + 4) + piece); // packets of one sender have numbers of their own
        put16(header + 10, 0);
        store(header + 10, checksum(sum(Frame(header, (header[0] & 0x0FU) * 4U))));
        break;
    case Kind::IPV6:
        put16(header + 4, now - IPV6_HEADER);
        break;
    case Kind::UDP:
        put16(header + 4, now);
        if (get16(header + 6) != 0)
            change_length(header + 6, before, now);
        break;
    case Kind::GRE_WITH_CHECKSUM:
        put16(header + GRE_CHECKSUM, 0);
        break;
    case Kind::TRANSPORT:
        change_length(header + offload_.checksum_offset, before, now);
        number(header, piece);
        break;
    }
}

void TunnelFrame::number(std::uint8_t *transport, std::size_t piece) const
{
    if (!is_tcp()) {
        put16(transport + 4, UDP_HEADER + payload(piece).size());
        return;
    }
    std::uint32_t sequence = 0;
    std::memcpy(&sequence, transport + 4, sizeof(sequence));
    sequence = htonl(ntohl(sequence) + static_cast<std::uint32_t>(piece * offload_.segment_size));
    std::memcpy(transport + 4, &sequence, sizeof(sequence));
    if (piece + 1 < pieces())
        transport[13] &= static_cast<std::uint8_t>(~(TCP_FIN | TCP_PSH));
    if (piece > 0)
        transport[13] &= static_cast<std::uint8_t>(~TCP_CWR);
}

} // namespace olt
