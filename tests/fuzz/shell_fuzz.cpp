// What is typed in the shell: numbers, port names and words, up to the write that they become.
#include "fake_datastore.h"
#include "input.h"

#include "terminal.h"

#include "lacp.h"

#include <iterator>
#include <regex>
#include <sstream>

using fuzz::Input;
using fuzz::require;

static const std::vector<std::string> &words()
{
    static const std::vector<std::string> all = [] {
        std::istringstream text(
            "interface gigabitEthernet gigabitethernet 0/1 0/8 1/4294967297 channel-group load-balance "
            "mode on active passive src-mac dst-mac src-dst-mac src-ip dst-ip src-dst-ip all lacp "
            "system-priority port-priority timeout short long default no exit quit 1 4 5 65535 65536 -1 "
            "00 show detail ports port debug packet rx tx off ?");
        return std::vector<std::string>(std::istream_iterator<std::string>(text), {});
    }();
    return all;
}

static std::string word(Input &input)
{
    const std::uint32_t choice = input.below(16);
    std::string text = choice == 0 ? input.text(input.below(32)) : input.pick(words());
    if (choice == 1)
        text.resize(input.below(static_cast<std::uint32_t>(text.size()) + 1)); // keywords may be shortened
    std::erase_if(text, [](char character) { return character < ' ' || character > '~'; }); // as a terminal does
    return text;
}

// A line that is not taken writes nothing; what is written is in the schema, and a number is the one that was typed.
static void type_line(Input &input)
{
    static const std::regex GOOD(
        "g[1-4]/load-balance=(src-|dst-|src-dst-)(mac|ip)|p[0-9]+/timeout=(short|long)|"
        "-?[0-9]+/p[0-9]+/(g|mode=(on|active|passive) g)[1-4]|(sys/system-|p[0-9]+/)priority=([0-9]+)");
    constexpr int NODES[] = {CONFIG_NODE, UPLINK_PORT_NODE, SHELL_DEBUG_NODE, VIEW_NODE};
    const int node = input.pick(NODES);
    std::string line;
    for (std::uint32_t left = 1 + input.below(7); left > 0; --left)
        line += (line.empty() ? "" : " ") + word(input);
    int result = CMD_SUCCESS;
    Terminal().typed(line, node, &result);
    const auto writes = fake::take_writes();
    require(result == CMD_SUCCESS || writes.empty(), "a line that is not taken writes nothing");
    require(writes.size() <= 4, "a line writes once a group");
    line.erase(line.find_last_not_of(' ') + 1);
    const std::string last = line.substr(line.rfind(' ') + 1);
    for (const std::string &write : writes) {
        std::smatch match;
        require(std::regex_match(write, match, GOOD), write.c_str());
        const bool digits = !last.empty() && last.find_first_not_of("+-0123456789") == std::string::npos;
        require(match[7].str().empty() || match[7] == (digits ? std::to_string(std::stoll(last)) : "32768"),
                write.c_str());
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    intf = {1, 4};
    Input input(data, size);
    while (!input.empty()) {
        if (input.below(8) != 0) {
            type_line(input);
            continue;
        }
        const std::string text = input.text(input.byte()).c_str();
        int slot = -1, port = -1, same_slot = -1, same_port = -1;
        if (cmd_parase_intf_str(text.c_str(), &slot, &port) != 0) {
            require(slot == 0 && port == 0, "no port name reads as zeros");
            continue;
        }
        const std::string again = std::to_string(slot) + "/" + std::to_string(port);
        require(cmd_parase_intf_str(again.c_str(), &same_slot, &same_port) == 0 && same_slot == slot &&
                    same_port == port,
                "a port's name reads as that port");
    }
    return 0;
}
