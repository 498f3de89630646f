// The driver service: connections that come, go and send anything, and the trunk table behind them.
#include "input.h"

#include "driver_service.h"

#include <deque>
#include <iostream>
#include <sys/socket.h>

using fuzz::Input;
using fuzz::require;
using Bytes = std::vector<std::uint8_t>;

static void check_table(const olt::TrunkTable &table, olt::Members existing)
{
    olt::Members used;
    for (const auto &[group, trunk] : table.all()) {
        require(group >= 1 && group <= 4 && olt::criterion_name(trunk.criterion).has_value(),
                "group and criterion are known");
        require(trunk.members.any() && (trunk.members & ~existing).none(),
                "a trunk's members are ports of the switch");
        require((trunk.members & used).none(), "a port is in one trunk at most");
        used |= trunk.members;
    }
}

static olt::Options options(std::uint32_t ports)
{
    static const std::string path = "/dev/shm/driver-fuzz." + std::to_string(getpid());
    [[maybe_unused]] static const int tidy = std::atexit([] { unlink((path + ".lock").c_str()); });
    olt::Options all;
    all.driver_socket = path;
    all.stale_grace = std::chrono::hours(1); // the clock takes no part
    for (std::uint32_t port = 1; port <= 8; ++port)
        if ((ports >> (port - 1) & 1) != 0)
            all.ports[port] = "ge";
    return all;
}

// A message of the protocol, most often a good one; or anything, also nothing and more than the service reads.
static Bytes message_of(Input &input)
{
    constexpr std::uint8_t FIELDS[] = {4, 4, 4, 1, 2, 2, 0, 5}, IDS[] = {10, 10, 10, 11, 12, 12, 255, 13};
    constexpr std::uint32_t CRITERIA[] = {0, 1, 9, 10, 18, 19, 2, 0xFFFFFFFF};
    const std::uint32_t kind = input.below(16);
    if (kind >= 14) {
        Bytes message(kind == 14 ? input.number(2) % (SCLIENT_MAX_MESSAGE + 8) : input.byte());
        std::ranges::copy(input.bytes(message.size()), message.begin());
        return message;
    }
    Bytes message = {0, 0, SCLIENT_VERSION, SCLIENT_KIND_LACP, 0, 0, 0, IDS[kind % 8]};
    const std::uint32_t group = input.below(6), criterion = input.pick(CRITERIA), members = input.byte();
    const std::uint32_t count =
        static_cast<std::uint32_t>(olt::Members(members).count()) + (input.below(16) == 0 ? 1 : 0);
    const std::uint32_t fields[] = {group, criterion, members, count, 0};
    for (const std::uint32_t field : std::span(fields).first(FIELDS[kind % 8]))
        for (int shift = 24; shift >= 0; shift -= 8)
            message.push_back(static_cast<std::uint8_t>(field >> shift));
    message[1] = static_cast<std::uint8_t>(message.size());
    if (const std::uint32_t at = input.below(64); at < message.size())
        message[at] ^= input.byte();
    return message;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
    Input input(data, size);
    const std::uint32_t ports = 1 + input.below(255);
    olt::EventLoop loop;
    const olt::Options made = options(ports);
    olt::DriverService service(loop, made);
    std::deque<olt::Descriptor> clients; // at times more than the service takes
    const auto complaints = [&] { return service.counters().refused + service.counters().malformed; };
    const auto turn = [&] { event_base_loop(loop.base(), EVLOOP_NONBLOCK); };
    while (!input.empty()) {
        if (const std::uint32_t step = input.below(8); (step == 0 || clients.empty()) && clients.size() < 40) {
            clients.push_back(olt::connect_to(made.driver_socket, SOCK_SEQPACKET));
        } else if (step == 1) {
            clients.erase(clients.begin() + input.below(static_cast<std::uint32_t>(clients.size())));
        } else {
            const int socket = clients[input.below(static_cast<std::uint32_t>(clients.size()))].get();
            const Bytes message = message_of(input);
            turn();
            const std::uint64_t old = complaints();
            if (::send(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
                turn();
                const bool refused = complaints() != old;
                std::uint8_t reply[64] = {};
                const ssize_t length = recv(socket, reply, sizeof(reply), MSG_DONTWAIT);
                require((length > 0) == refused && (!refused || (length == 16 && reply[7] == SCLIENT_MSG_ERROR)),
                        "refused requests are answered with an error, and no others");
            }
        }
        turn();
        check_table(service.trunks(), ports);
    }
    return 0;
}
