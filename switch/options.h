// Command line of olt-switch.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace olt
{

struct Options {
    std::string cpu;                            // the switch's end of the "ethv0" pair
    std::map<std::uint32_t, std::string> ports; // interface by port number
    std::string host;                           // towards the host; empty: no user traffic
    std::string driver_socket;
    std::string state_socket = "/run/olt/switch-state.sock";
    std::uint16_t vlan = 1; // of the tag on frames to the CPU
    std::chrono::seconds stale_grace{30};
    bool datastore = true;
    bool kernel_forwarding = false; // of user traffic
    bool show = false;              // print the state of a running switch
};

// Parses the command line. Prints and ends the process for --help, --version and anything wrong.
Options parse_options(int argc, char **argv);

} // namespace olt
