// What carries user traffic between the host interface and the trunks.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace olt
{

// A train of segments that the kernel hands over in one piece counts as one frame, and by segment when the switch
// cuts it.
struct TrafficCount {
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    std::uint64_t dropped = 0;
};

struct TrafficCounters {
    TrafficCount rx; // dropped: came in and could not go on
    TrafficCount tx; // dropped: could not be sent
};

struct TrafficReport {
    struct Interface {
        std::string name;
        TrafficCounters counters;
        std::uint64_t missed = 0; // came in while no room was left for them
    };
    Interface host;
    std::map<std::uint32_t, Interface> ports;
    std::map<std::uint32_t, TrafficCounters> trunks; // by group, of all that have carried traffic
};

// A frame from the host leaves through one member of the trunk with the lowest group number, whatever other trunks
// there are: they stand in for it when it goes. So a flow's way depends on the frame and the trunks only, and a
// broadcast reaches a neighbour once even if two trunks lead to it; in exchange the host does not reach a neighbour
// that only a higher group leads to. Frames from members of every trunk go to the host. Nothing goes from one port to
// another, so no loop can come up here, and a port in no trunk carries no user traffic.
//
// Members are those that the daemon has asked for: one that has lost its carrier drops its flows until the daemon
// takes it out.
//
// The host's end of its cable belongs into another network namespace or machine than the ports, whose own addresses
// would answer for the host's otherwise.
class UserPlane
{
  public:
    virtual ~UserPlane() = default;
    // An interface has another index, 0 when it is gone. False with errno when its frames cannot be had.
    virtual bool follow(const std::string &interface, int index) = 0;
    // Trunks or links may have changed.
    virtual void settle() = 0;
    virtual TrafficReport report() const = 0;
};

} // namespace olt
