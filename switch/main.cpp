// The software switch: ports, CPU interface, link status and driver service in place of the switch chip.
#include "options.h"
#include "switch.h"

#include <csignal>
#include <iostream>

namespace
{

void run(const olt::Options &options)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader of the log may go away
    olt::EventLoop loop;
    const auto interrupted = olt::Event::signal(loop, SIGINT, [&loop] { loop.stop(); });
    const auto terminated = olt::Event::signal(loop, SIGTERM, [&loop] { loop.stop(); });
    const olt::Switch device(loop, options);
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
