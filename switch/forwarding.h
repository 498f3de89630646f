// Where user frames go. Decided by the frame and the trunks alone, so that a flow stays where it is.
#pragma once

#include "switch_tag.h"
#include "trunk_table.h"

namespace olt
{

struct Egress {
    std::uint32_t group;
    std::uint32_t port;

    bool operator==(const Egress &) const = default;
};

// Whether a frame is user traffic: no slow-protocols frame, and not for an address that no bridge passes on
// (01-80-C2-00-00-00 to -0F).
bool is_user_frame(Frame frame);

// What a criterion makes a flow of: addresses of IP, or of the frame where it has none and for criteria of MAC
// addresses.
struct Criterion {
    bool ip;
    bool source;
    bool destination;
};
Criterion criterion_of(std::uint32_t code);

// A number that frames of one flow have in common. The criterion names the addresses that make a flow. A frame
// without IPv4 or IPv6 header, right behind the addresses or behind one VLAN tag, goes by its MAC addresses instead.
std::uint64_t flow_hash(std::uint32_t criterion, Frame frame);

// The flow's member port; there must be one. A member that goes takes only its own flows away, and one that comes
// takes flows over from the others without moving any between them.
std::uint32_t choose_member(Members members, std::uint64_t hash);

// Where a user frame (see is_user_frame) of the host leaves; nowhere without a trunk.
std::optional<Egress> egress_of(const TrunkTable &trunks, Frame frame);

// The group whose trunk has the port.
std::optional<std::uint32_t> group_of(const TrunkTable &trunks, std::uint32_t port);

} // namespace olt
