// The driver service: connections that come, go and send anything, and the trunk table behind them.
#include "input.h"

#include "driver_service.h"

#include <algorithm>
#include <array>
#include <deque>
#include <filesystem>
#include <sys/socket.h>

namespace
{

using fuzz::Input;
using fuzz::require;
using olt::DriverCounters;
using olt::Members;
using olt::TrunkTable;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t MAX_CLIENTS = 40; // more than the service takes
constexpr std::size_t REPLY_SIZE = 16;
constexpr std::uint32_t GROUPS = 4;

void check_table(const TrunkTable &table, Members existing)
{
    Members used;
    for (const auto &[group, trunk] : table.all()) {
        require(group >= 1 && group <= GROUPS, "a trunk's group has a number from 1 to 4");
        require(olt::criterion_name(trunk.criterion).has_value(), "a trunk's criterion has a name");
        require(trunk.members.any(), "a trunk has members");
        require((trunk.members & ~existing).none(), "a trunk's members are ports of the switch");
        require((trunk.members & used).none(), "a port is in one trunk at most");
        used |= trunk.members;
    }
}

std::uint64_t answered(const DriverCounters &counters)
{
    return counters.creates + counters.destroys + counters.psc_sets + counters.refused + counters.malformed;
}

std::uint64_t complaints(const DriverCounters &counters)
{
    return counters.refused + counters.malformed;
}

// Members and criteria by group; a stale mark comes and goes with connections.
std::map<std::uint32_t, std::pair<std::uint32_t, unsigned long>> content(const TrunkTable &table)
{
    std::map<std::uint32_t, std::pair<std::uint32_t, unsigned long>> all;
    for (const auto &[group, trunk] : table.all())
        all[group] = {trunk.criterion, trunk.members.to_ulong()};
    return all;
}

// ---- the service ----------------------------------------------------------------------------------------------

const std::string &socket_path()
{
    static const std::string path = [] {
        char folder[] = "/tmp/driver-fuzz-XXXXXX";
        require(mkdtemp(folder) != nullptr, "a folder for the socket can be made");
        static const std::string made = folder;
        std::atexit([] { std::filesystem::remove_all(made); });
        return made + "/socket";
    }();
    return path;
}

olt::Options options(std::uint32_t ports)
{
    olt::Options made;
    made.driver_socket = socket_path();
    made.stale_grace = std::chrono::hours(1); // the clock takes no part
    for (std::uint32_t port = 1; port <= 8; ++port)
        if ((ports >> (port - 1) & 1) != 0)
            made.ports[port] = "ge";
    return made;
}

class Bench
{
  public:
    explicit Bench(std::uint32_t ports) : ports_(ports), service_(loop_, options(ports)) {}

    void step(Input &input)
    {
        switch (input.below(8)) {
        case 0:
            connect();
            break;
        case 1:
            if (!clients_.empty())
                clients_.erase(clients_.begin() + chosen(input));
            break;
        case 2: { // anything, also nothing and more than the service reads
            const std::size_t size = input.below(4) == 0 ? input.number(2) % (SCLIENT_MAX_MESSAGE + 8) : input.byte();
            const auto given = input.bytes(size);
            Bytes message(given.begin(), given.end());
            message.resize(size);
            send(input, message);
            break;
        }
        default:
            send(input, built(input));
        }
        turn();
        check_table(service_.trunks(), ports_);
    }

  private:
    std::ptrdiff_t chosen(Input &input)
    {
        return static_cast<std::ptrdiff_t>(input.below(static_cast<std::uint32_t>(clients_.size())));
    }

    void turn() { event_base_loop(loop_.base(), EVLOOP_NONBLOCK); }

    void connect()
    {
        if (clients_.size() < MAX_CLIENTS)
            clients_.push_back(olt::connect_to(socket_path(), SOCK_SEQPACKET));
        turn();
    }

    // A message of the protocol, most often a good one.
    static Bytes built(Input &input)
    {
        constexpr std::array<std::uint8_t, 8> FIELDS = {4, 4, 4, 1, 2, 2, 0, 5};
        constexpr std::array<std::uint8_t, 8> IDS = {10, 10, 10, 11, 12, 12, 255, 13};
        constexpr std::array<std::uint32_t, 8> CRITERIA = {0, 1, 9, 10, 18, 19, 2, 0xFFFFFFFF};
        const std::uint32_t kind = input.below(8);
        Bytes message = {0, 0, SCLIENT_VERSION, SCLIENT_KIND_LACP, 0, 0, 0, IDS[kind]};
        const std::uint32_t members = input.number(input.below(8) == 0 ? 4 : 1);
        const std::array<std::uint32_t, 5> fields = {
            input.below(GROUPS + 2), input.pick(CRITERIA), members,
            static_cast<std::uint32_t>(Members(members).count()) + (input.below(16) == 0 ? 1 : 0), 0};
        for (std::size_t i = 0; i < FIELDS[kind]; ++i)
            for (int shift = 24; shift >= 0; shift -= 8)
                message.push_back(static_cast<std::uint8_t>(fields[i] >> shift));
        message[1] = static_cast<std::uint8_t>(message.size());
        if (const std::uint32_t at = input.below(64); at < message.size())
            message[at] ^= input.byte();
        return message;
    }

    void send(Input &input, const Bytes &message)
    {
        if (clients_.empty())
            connect();
        const int socket = clients_[static_cast<std::size_t>(chosen(input))].get();
        const auto before = content(service_.trunks());
        const DriverCounters old = service_.counters();
        if (::send(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            return; // the service has closed the connection
        turn();
        const DriverCounters &now = service_.counters();
        require(answered(now) == answered(old) + 1, "every message is counted once");
        const bool refused = complaints(now) != complaints(old);
        require(!refused || content(service_.trunks()) == before, "a refused request changes nothing");
        check_reply(socket, message, refused);
    }

    static void check_reply(int socket, const Bytes &message, bool refused)
    {
        std::array<std::uint8_t, 64> reply{};
        const ssize_t length = recv(socket, reply.data(), reply.size(), MSG_DONTWAIT);
        require((length > 0) == refused, "refused requests are answered, and no others");
        if (!refused)
            return;
        require(length == REPLY_SIZE && reply[1] == REPLY_SIZE && reply[7] == SCLIENT_MSG_ERROR,
                "a reply is an error");
        require(reply[11] >= SCLIENT_ERROR_LENGTH && reply[11] <= SCLIENT_ERROR_NO_TRUNK, "an error has a code");
        if (message.size() >= SCLIENT_HEADER_SIZE)
            require(reply[14] == message[6] && reply[15] == message[7], "an error names the message");
    }

    Members ports_;
    olt::EventLoop loop_;
    olt::DriverService service_;
    std::deque<olt::Descriptor> clients_;
};

// ---- the table and its deadlines ------------------------------------------------------------------------------

void drive_table(Input &input)
{
    TrunkTable table;
    TrunkTable::Clock::time_point now;
    while (!input.empty()) {
        const std::uint32_t group = 1 + input.below(GROUPS);
        const Members members(1 + input.below(255));
        std::size_t size = table.all().size();
        switch (input.below(6)) {
        case 0:
            table.set(group, 9, members);
            require(table.find(group) != nullptr && table.find(group)->members == members, "the last wish counts");
            require(!table.find(group)->stale, "a trunk that was asked for is not stale");
            break;
        case 1: {
            const bool removed = table.remove(group);
            require(removed == (table.all().size() < size), "removing tells whether there was one");
            break;
        }
        case 2:
            table.mark_stale(now + std::chrono::seconds(input.byte()));
            break;
        case 3:
            table.drop_deadline();
            break;
        case 4:
            require(table.set_criterion(group, 1) == (table.find(group) != nullptr), "a criterion needs a trunk");
            break;
        default:
            now += std::chrono::seconds(input.byte());
            for (const std::uint32_t removed : table.sweep(now)) {
                require(table.find(removed) == nullptr, "what was swept is gone");
                --size;
            }
            require(table.all().size() == size, "a sweep names what it takes");
        }
        check_table(table, 0xFF);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const fuzz::Quiet quiet;
    Input input(data, size);
    const std::uint32_t ports = input.byte();
    if (ports == 0) {
        drive_table(input);
        return 0;
    }
    Bench bench(ports);
    while (!input.empty())
        bench.step(input);
    return 0;
}
