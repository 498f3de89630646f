// Frames within a tunnel whose checksum or segments are still to be made.
#pragma once

#include "offload_header.h"
#include "switch_tag.h"

#include <optional>
#include <span>
#include <vector>

namespace olt
{

// The offload header describes one transport header and has no word for what is around it: a kernel or card that gets
// it with the frame of a tunnel makes segments whose outer headers are wrong, or none. So what the header asks for is
// done here: VXLAN, GRE, IPIP and others of their kind, since all that counts is where IP headers are.
class TunnelFrame
{
  public:
    static constexpr std::size_t HEADERS_LIMIT = 512;

    // Nothing for a frame in no tunnel, or with nothing left to do. The frame must outlive the result.
    static std::optional<TunnelFrame> recognise(Frame frame, const OffloadHeader &offload);

    std::size_t pieces() const;
    // A piece's headers, written to `room`, and its payload.
    Frame headers(std::size_t piece, std::span<std::uint8_t, HEADERS_LIMIT> room) const;
    Frame payload(std::size_t piece) const;

  private:
    enum class Kind { IPV4, IPV6, UDP, GRE_WITH_CHECKSUM, TRANSPORT };
    struct Layer {
        Kind kind;
        std::size_t at;
    };

    TunnelFrame(Frame frame, const OffloadHeader &offload) : frame_(frame), offload_(offload) {}
    void find_layers();
    std::optional<Kind> ip_at(std::size_t at) const;
    bool is_tunnel() const;
    bool has_segments() const { return offload_.segments_type != OffloadHeader::NO_SEGMENTS; }
    bool is_tcp() const;
    void find_payload();
    void number(std::uint8_t *transport, std::size_t piece) const;
    void shorten(const Layer &layer, std::uint8_t *header, std::size_t piece) const;

    Frame frame_;
    OffloadHeader offload_;
    std::vector<Layer> layers_; // the outermost first
    std::size_t payload_at_ = 0;
};

} // namespace olt
