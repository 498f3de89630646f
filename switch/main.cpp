// The software switch: ports, CPU interface, link status and driver service in place of the switch chip.
#include "carrier_monitor.h"
#include "driver_service.h"
#include "event_loop.h"
#include "forwarder.h"
#include "link_publisher.h"
#include "options.h"
#include "state_report.h"

#include <csignal>
#include <iostream>

namespace
{

void run(const olt::Options &options)
{
    olt::EventLoop loop;
    olt::LinkPublisher publisher;
    const bool publishing = options.datastore;
    olt::CarrierMonitor carriers(loop, options, [&publisher, publishing](std::uint32_t port, bool up) {
        std::cout << "port " << port << ": carrier " << (up ? "up" : "down") << std::endl;
        if (publishing)
            publisher.publish(port, up);
    });
    olt::DriverService driver(loop, options); // refuses a second switch before anything is written
    const olt::Forwarder forwarder(loop, options);
    if (publishing)
        publisher.start(carriers.carriers());
    const olt::StateReport report(loop, options, forwarder, carriers, publisher, driver);
    const auto interrupted = olt::Event::signal(loop, SIGINT, [&loop] { loop.stop(); });
    const auto terminated = olt::Event::signal(loop, SIGTERM, [&loop] { loop.stop(); });
    std::cout << "switch runs with " << options.ports.size() << " ports" << std::endl;
    loop.run();
}

} // namespace

int main(int argc, char **argv)
try {
    const olt::Options options = olt::parse_options(argc, argv);
    if (options.show)
        return olt::show_state(options.state_socket);
    run(options);
    return 0;
} catch (const std::exception &error) {
    std::cerr << "olt-switch: " << error.what() << std::endl;
    return 1;
}
