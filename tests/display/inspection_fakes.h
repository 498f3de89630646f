// What the datastore answers to the inspection commands, and a shell without terminals.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake
{

struct Inspected {
    std::map<int, std::string> load_balance;
    std::map<int, std::string> lacp_type;
    std::map<int, std::vector<std::string>> join_ports;
    std::map<int, std::vector<std::string>> member_ports;
    std::map<std::string, std::string> trunk;     // by leaf
    std::map<std::string, std::string> port_info; // by "role leaf"
    std::string system_priority;                  // none while empty
    std::string xml;
    std::vector<std::string> asked; // port and leaf of every port read
};

Inspected &inspected();

} // namespace fake
