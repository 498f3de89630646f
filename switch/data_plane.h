// User traffic that this process forwards.
#pragma once

#include "forwarding.h"
#include "options.h"
#include "traffic_port.h"
#include "user_plane.h"

#include <map>

namespace olt
{

// Frames pass through this process. One thread handles them in the order in which they came in on an interface, and
// frames of a flow come in on one interface and leave through one, so a flow keeps its order while the trunks stand.
class DataPlane : public UserPlane
{
  public:
    DataPlane(EventLoop &loop, const Options &options, const TrunkTable &trunks);
    DataPlane(const DataPlane &) = delete;
    DataPlane &operator=(const DataPlane &) = delete;

    bool follow(const std::string &interface, int index) override;
    void settle() override {} // each frame asks anew
    TrafficReport report() const override;

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
