#include "data_plane.h"

namespace olt
{

DataPlane::DataPlane(EventLoop &loop, const Options &options, const TrunkTable &trunks)
    : trunks_(trunks), host_(loop, batch_, options.host, [this](FrameBatch &batch) { from_host(batch); })
{
    for (const auto &[number, interface] : options.ports)
        ports_.try_emplace(number, loop, batch_, interface,
                           [this, number = number](FrameBatch &batch) { from_port(number, batch); });
}

bool DataPlane::follow(const std::string &interface, int index)
{
    if (interface == host_.socket().interface())
        return host_.socket().follow(index);
    for (auto &[number, port] : ports_)
        if (interface == port.socket().interface())
            return port.socket().follow(index);
    return true;
}

TrafficReport DataPlane::report() const
{
    const auto of = [](const TrafficPort &port) {
        return TrafficReport::Interface{port.socket().interface(), port.counters, port.missed()};
    };
    TrafficReport report{of(host_), {}, trunk_counters_};
    for (const auto &[number, port] : ports_)
        report.ports[number] = of(port);
    return report;
}

void DataPlane::from_host(FrameBatch &batch)
{
    TrafficCount &received = host_.counters.rx;
    std::uint32_t group = 0;
    for (std::size_t index = 0; index < batch.size(); ++index) {
        const Frame frame = batch.frame(index);
        const auto egress = is_user_frame(frame) ? egress_of(trunks_, frame) : std::nullopt;
        if (!egress) {
            ++received.dropped;
            continue;
        }
        ++received.frames;
        received.bytes += frame.size();
        group = egress->group;
        ports_.at(egress->port).queue(batch, index);
    }
    if (group == 0)
        return;
    TrafficCount &trunk = trunk_counters_[group].tx;
    for (auto &[number, port] : ports_)
        port.flush(trunk);
}

void DataPlane::from_port(std::uint32_t number, FrameBatch &batch)
{
    TrafficCount &received = ports_.at(number).counters.rx;
    const auto group = group_of(trunks_, number);
    for (std::size_t index = 0; index < batch.size(); ++index) {
        const Frame frame = batch.frame(index);
        if (is_slow_protocols(frame))
            continue; // the CPU's
        if (!group || !is_user_frame(frame)) {
            ++received.dropped;
            continue;
        }
        ++received.frames;
        received.bytes += frame.size();
        host_.queue(batch, index);
    }
    if (group)
        host_.flush(trunk_counters_[*group].rx);
}

} // namespace olt
