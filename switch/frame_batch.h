// Frames that are received and sent many at a time.
#pragma once

#include "offload_header.h"
#include "switch_tag.h"
#include "tunnel_frame.h"
#include "vlan_tag.h"

#include <memory>
#include <sys/uio.h>

namespace olt
{

// The frames of one reception, as they were on the wire, in buffers that are used again and again. Each keeps what
// the kernel says of it: a checksum that is still to be filled in, or a train of segments that is still to be cut.
// The kernel does either where it must, so that the switch need not.
class FrameBatch
{
  public:
    static constexpr std::size_t CAPACITY = 64;

    FrameBatch();

    // Takes what waits at a socket, up to the capacity.
    void receive(int fd);
    std::size_t size() const { return size_; }
    // Empty for a frame that did not fit.
    Frame frame(std::size_t index) const;
    const OffloadHeader &offload(std::size_t index) const { return slots_[index].offload; }
    // The frame with what the kernel said of it, to be sent. Valid until the next reception.
    msghdr message(std::size_t index);

  private:
    static constexpr std::size_t FRAME_LIMIT = 64 * 1024 + 256; // a train of segments with its header
    static constexpr std::size_t SPREAD = 576; // so that the buffers do not all fall on the same lines of the cache

    struct Slot {
        alignas(64) std::array<std::uint8_t, VLAN_TAG_SIZE + FRAME_LIMIT> buffer;
        OffloadHeader offload;
        VlanTagRoom tag_room;
        std::array<iovec, 2> parts;
        std::size_t offset; // of the frame in the buffer
        std::size_t length;
        std::array<std::uint8_t, SPREAD> spread;

        void offer(msghdr &message);
        void take(msghdr &message, std::size_t received);
        void put_tag(const VlanTag &tag);
    };

    std::unique_ptr<Slot[]> slots_;
    std::array<mmsghdr, CAPACITY> messages_{};
    std::size_t size_ = 0;
};

// Frames on their way to one socket, in order. Those of a tunnel are finished here.
class SendQueue
{
  public:
    struct Outcome {
        std::uint64_t frames = 0;
        std::uint64_t bytes = 0;
        std::uint64_t dropped = 0;
    };

    explicit SendQueue(int fd) : fd_(fd) {}
    bool empty() const { return count_ == 0; }
    void add(FrameBatch &batch, std::size_t index);
    // Sends what is queued; what the socket does not take is dropped. The outcome since the last time.
    Outcome flush();

  private:
    struct Piece {
        std::array<std::uint8_t, TunnelFrame::HEADERS_LIMIT> headers;
        std::array<iovec, 3> parts;
    };

    msghdr &next();
    void add(const TunnelFrame &tunnel);
    void send();

    int fd_;
    std::array<mmsghdr, FrameBatch::CAPACITY> messages_{};
    std::size_t count_ = 0;
    std::unique_ptr<Piece[]> pieces_; // by message; made with the first tunnel
    Outcome outcome_;
};

} // namespace olt
