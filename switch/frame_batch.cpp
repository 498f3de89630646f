#include "frame_batch.h"

#include <utility>

namespace olt
{

namespace
{

std::size_t frame_length(const msghdr &message)
{
    const std::size_t headers = message.msg_iov[1].iov_len; // or all of the frame
    return message.msg_iovlen == 2 ? headers : headers + message.msg_iov[2].iov_len;
}

} // namespace

FrameBatch::FrameBatch() : slots_(new Slot[CAPACITY]) {} // not touched before frames come

void FrameBatch::Slot::offer(msghdr &message)
{
    parts[0] = {&offload, sizeof(offload)};
    parts[1] = {buffer.data() + VLAN_TAG_SIZE, FRAME_LIMIT};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    tag_room.offer(message);
}

void FrameBatch::Slot::take(msghdr &message, std::size_t received)
{
    offset = VLAN_TAG_SIZE;
    const bool whole = received >= sizeof(offload) && (message.msg_flags & MSG_TRUNC) == 0;
    length = whole ? received - sizeof(offload) : 0;
    if (length < ADDRESSES_SIZE)
        return;
    if (const auto tag = stripped_tag(message))
        put_tag(*tag);
}

// The tag moves what lies behind it, and the kernel counts from the start of the frame.
void FrameBatch::Slot::put_tag(const VlanTag &tag)
{
    restore_tag(tag, buffer.data() + offset);
    offset -= VLAN_TAG_SIZE;
    length += VLAN_TAG_SIZE;
    if ((offload.flags & OffloadHeader::NEEDS_CHECKSUM) != 0)
        offload.checksum_start += VLAN_TAG_SIZE;
    if (offload.segments_type != OffloadHeader::NO_SEGMENTS)
        offload.header_length += VLAN_TAG_SIZE;
}

void FrameBatch::receive(int fd)
{
    for (std::size_t index = 0; index < CAPACITY; ++index)
        slots_[index].offer(messages_[index].msg_hdr);
    const int count = recvmmsg(fd, messages_.data(), CAPACITY, MSG_DONTWAIT, nullptr);
    size_ = count > 0 ? static_cast<std::size_t>(count) : 0;
    for (std::size_t index = 0; index < size_; ++index)
        slots_[index].take(messages_[index].msg_hdr, messages_[index].msg_len);
}

Frame FrameBatch::frame(std::size_t index) const
{
    const Slot &slot = slots_[index];
    return Frame(slot.buffer.data() + slot.offset, slot.length);
}

msghdr FrameBatch::message(std::size_t index)
{
    Slot &slot = slots_[index];
    slot.parts[1] = {slot.buffer.data() + slot.offset, slot.length};
    msghdr message{};
    message.msg_iov = slot.parts.data();
    message.msg_iovlen = slot.parts.size();
    return message;
}

msghdr &SendQueue::next()
{
    if (count_ == messages_.size())
        send();
    return messages_[count_++].msg_hdr;
}

void SendQueue::add(FrameBatch &batch, std::size_t index)
{
    if (const auto tunnel = TunnelFrame::recognise(batch.frame(index), batch.offload(index)))
        add(*tunnel);
    else
        next() = batch.message(index);
}

void SendQueue::add(const TunnelFrame &tunnel)
{
    static OffloadHeader nothing_to_do{};
    if (!pieces_)
        pieces_ = std::make_unique<Piece[]>(messages_.size());
    for (std::size_t number = 0; number < tunnel.pieces(); ++number) {
        msghdr &message = next();
        Piece &piece = pieces_[count_ - 1];
        const Frame headers = tunnel.headers(number, piece.headers), payload = tunnel.payload(number);
        piece.parts = {{{&nothing_to_do, sizeof(nothing_to_do)},
                        {piece.headers.data(), headers.size()},
                        {const_cast<std::uint8_t *>(payload.data()), payload.size()}}};
        message = {};
        message.msg_iov = piece.parts.data();
        message.msg_iovlen = piece.parts.size();
    }
}

void SendQueue::send()
{
    for (std::size_t at = 0; at < count_;) {
        const int sent = sendmmsg(fd_, messages_.data() + at, static_cast<unsigned>(count_ - at), MSG_DONTWAIT);
        if (sent <= 0) { // the first one was not taken
            ++outcome_.dropped;
            ++at;
            continue;
        }
        outcome_.frames += static_cast<std::uint64_t>(sent);
        for (const std::size_t end = at + static_cast<std::size_t>(sent); at < end; ++at)
            outcome_.bytes += frame_length(messages_[at].msg_hdr);
    }
    count_ = 0;
}

SendQueue::Outcome SendQueue::flush()
{
    send();
    return std::exchange(outcome_, {});
}

} // namespace olt
