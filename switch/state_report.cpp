#include "state_report.h"

#include <array>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

namespace olt
{

using Json = nlohmann::ordered_json;

namespace
{

Json trunks_json(const TrunkTable &trunks)
{
    Json list = Json::array();
    for (const auto &[group, trunk] : trunks.all())
        list.push_back({{"group", group},
                        {"criterion", *criterion_name(trunk.criterion)},
                        {"code", trunk.criterion},
                        {"members", port_numbers(trunk.members)},
                        {"stale", trunk.stale}});
    return list;
}

Json published_json(const std::map<std::uint32_t, bool> &published, std::uint32_t port)
{
    const auto status = published.find(port);
    return status == published.end() ? Json() : Json(status->second ? "up" : "down");
}

Json ports_json(const StateSources &sources)
{
    const auto published =
        sources.publisher == nullptr ? std::map<std::uint32_t, bool>() : sources.publisher->published();
    Json list = Json::array();
    for (const auto &[number, port] : sources.forwarder.ports()) {
        const std::string &interface = port.socket().interface();
        list.push_back({{"port", number},
                        {"interface", interface},
                        {"carrier", sources.links.link(interface).carrier},
                        {"published", published_json(published, number)},
                        {"rx_slow", port.counters.rx_slow},
                        {"tx_slow", port.counters.tx_slow},
                        {"dropped", port.counters.dropped}});
    }
    return list;
}

Json cpu_json(const CpuPort &cpu)
{
    const CpuCounters &counters = cpu.counters();
    return {{"interface", cpu.socket().interface()},
            {"received", counters.received},
            {"sent", counters.sent},
            {"bad_tag", counters.bad_tag},
            {"unknown_port", counters.unknown_port},
            {"send_failed", counters.send_failed}};
}

Json driver_json(const DriverService &driver)
{
    const DriverCounters &counters = driver.counters();
    return {{"clients", driver.clients()},        {"creates", counters.creates}, {"destroys", counters.destroys},
            {"psc_sets", counters.psc_sets},      {"refused", counters.refused}, {"malformed", counters.malformed},
            {"moved_ports", counters.moved_ports}};
}

Json datastore_json(const LinkPublisher *publisher)
{
    if (publisher == nullptr)
        return nullptr;
    const PublisherCounters counters = publisher->counters();
    return {{"written", counters.written}, {"failed", counters.failed}};
}

Json count_json(const TrafficCount &count)
{
    return {{"frames", count.frames}, {"bytes", count.bytes}, {"dropped", count.dropped}};
}

Json counters_json(const TrafficCounters &counters)
{
    return {{"rx", count_json(counters.rx)}, {"tx", count_json(counters.tx)}};
}

Json interface_json(const TrafficReport::Interface &interface)
{
    Json json = counters_json(interface.counters);
    json["interface"] = interface.name;
    json["missed"] = interface.missed;
    return json;
}

Json traffic_json(const UserPlane *plane)
{
    if (plane == nullptr)
        return nullptr;
    const TrafficReport report = plane->report();
    Json ports = Json::array();
    for (const auto &[number, interface] : report.ports) {
        ports.push_back({{"port", number}});
        ports.back().update(interface_json(interface));
    }
    Json trunks = Json::array();
    for (const auto &[group, counters] : report.trunks) {
        trunks.push_back({{"group", group}});
        trunks.back().update(counters_json(counters));
    }
    return {{"host", interface_json(report.host)}, {"ports", ports}, {"trunks", trunks}};
}

} // namespace

std::string state_text(const StateSources &sources)
{
    const Json state = {
        {"trunks", trunks_json(sources.driver.trunks())}, {"ports", ports_json(sources)},
        {"cpu", cpu_json(sources.forwarder.cpu())},       {"traffic", traffic_json(sources.plane)},
        {"driver", driver_json(sources.driver)},          {"datastore", datastore_json(sources.publisher)}};
    return state.dump(2) + "\n";
}

StateService::StateService(EventLoop &loop, const std::string &path, Text text)
    : loop_(loop), text_(std::move(text)), listening_(path, SOCK_STREAM)
{
}

void StateService::start()
{
    listening_.listen();
    acceptable_ = Event::readable(loop_, listening_.get(), [this] { answer(); });
}

// The document is far smaller than a socket's buffer, so a client that does not read blocks nobody.
void StateService::answer() const
{
    for (Descriptor client = listening_.accept(); client.is_open(); client = listening_.accept()) {
        const std::string document = text_();
        send(client.get(), document.data(), document.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
}

int show_state(const std::string &path)
{
    const Descriptor socket = connect_to(path, SOCK_STREAM);
    if (!socket.is_open()) {
        std::cerr << "olt-switch: no switch answers at " << path << "; start one, or name its --state-socket"
                  << std::endl;
        return 1;
    }
    std::array<char, 4096> buffer;
    for (ssize_t length = read(socket.get(), buffer.data(), buffer.size()); length > 0;
         length = read(socket.get(), buffer.data(), buffer.size()))
        std::cout.write(buffer.data(), length);
    std::cout.flush();
    return 0;
}

} // namespace olt
