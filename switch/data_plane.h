// User traffic between the host interface and the trunks.
#pragma once

#include "forwarding.h"
#include "options.h"
#include "traffic_port.h"

#include <map>
#include <optional>

namespace olt
{

// A frame from the host leaves through one member of the trunk with the lowest group number, whatever other trunks
// there are: they stand in for it when it goes. So a flow's way depends on the frame and the trunks only, and a
// broadcast reaches a neighbour once even if two trunks lead to it; in exchange the host does not reach a neighbour
// that only a higher group leads to. Frames from members of every trunk go to the host. Nothing goes from one port to
// another, so no loop can come up here, and a port in no trunk carries no user traffic.
//
// Members are those that the daemon has asked for: one that has lost its carrier drops its flows until the daemon
// takes it out.
//
// One thread handles frames in the order in which they came in on an interface, and frames of a flow come in on one
// interface and leave through one, so a flow keeps its order while the trunks stand.
//
// The host's end of its cable belongs into another network namespace or machine than the ports, whose own addresses
// would answer for the host's otherwise.
class DataPlane
{
  public:
    DataPlane(EventLoop &loop, const Options &options, const TrunkTable &trunks);
    DataPlane(const DataPlane &) = delete;
    DataPlane &operator=(const DataPlane &) = delete;

    // An interface has another index, 0 when it is gone. False with errno when its frames cannot be had.
    bool follow(const std::string &interface, int index);
    const TrafficPort &host() const { return host_; }
    const std::map<std::uint32_t, TrafficPort> &ports() const { return ports_; }
    // By group, of all trunks that have carried traffic since the switch runs.
    const std::map<std::uint32_t, TrafficCounters> &trunks() const { return trunk_counters_; }

  private:
    void from_host(FrameBatch &batch);
    void from_port(std::uint32_t number, FrameBatch &batch);

    const TrunkTable &trunks_;
    FrameBatch batch_; // of the interface whose turn it is
    TrafficPort host_;
    std::map<std::uint32_t, TrafficPort> ports_;
    std::map<std::uint32_t, TrafficCounters> trunk_counters_;
};

} // namespace olt
