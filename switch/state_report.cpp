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

Json driver_json(const DriverService &driver)
{
    const DriverCounters &counters = driver.counters();
    return {{"clients", driver.clients()},   {"creates", counters.creates}, {"destroys", counters.destroys},
            {"psc_sets", counters.psc_sets}, {"refused", counters.refused}, {"malformed", counters.malformed}};
}

Json cpu_json(const std::string &interface, const CpuCounters &counters)
{
    return {{"interface", interface},
            {"received", counters.received},
            {"sent", counters.sent},
            {"bad_tag", counters.bad_tag},
            {"unknown_port", counters.unknown_port}};
}

} // namespace

StateReport::StateReport(EventLoop &loop, const Options &options, const Forwarder &forwarder,
                         const CarrierMonitor &carriers, const LinkPublisher &publisher, const DriverService &driver)
    : options_(options), forwarder_(forwarder), carriers_(carriers), publisher_(publisher), driver_(driver),
      listening_(options.state_socket, SOCK_STREAM)
{
    acceptable_ = Event::readable(loop, listening_.get(), [this] { answer(); });
}

std::string StateReport::text() const
{
    const auto published = publisher_.published();
    Json ports = Json::array();
    for (const auto &[number, interface] : options_.ports) {
        const PortCounters &counters = forwarder_.port_counters().at(number);
        const auto status = published.find(number);
        ports.push_back({{"port", number},
                         {"interface", interface},
                         {"carrier", carriers_.is_up(number)},
                         {"published", status == published.end() ? Json() : Json(status->second ? "up" : "down")},
                         {"rx_slow", counters.rx_slow},
                         {"tx_slow", counters.tx_slow},
                         {"dropped", counters.dropped}});
    }
    const Json state = {{"trunks", trunks_json(driver_.trunks())},
                        {"ports", std::move(ports)},
                        {"cpu", cpu_json(options_.cpu, forwarder_.cpu_counters())},
                        {"driver", driver_json(driver_)}};
    return state.dump(2) + "\n";
}

// The document is far smaller than a socket's buffer, so a client that does not read blocks nobody.
void StateReport::answer() const
{
    for (Descriptor client = listening_.accept(); client.is_open(); client = listening_.accept()) {
        const std::string document = text();
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
    return 0;
}

} // namespace olt
