#include "driver_service.h"

#include "sclient/sclient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>
#include <poll.h>
#include <sys/socket.h>

namespace olt
{

namespace
{

constexpr std::chrono::milliseconds SWEEP_PERIOD(250);
constexpr std::size_t MAX_CLIENTS = 32;
constexpr int MESSAGES_A_TURN = 64;

template <typename... Handlers> struct Overloaded : Handlers... {
    using Handlers::operator()...;
};

template <typename... Handlers> Overloaded(Handlers...) -> Overloaded<Handlers...>;

Members members_of(const Options &options)
{
    Members members;
    for (const auto &[number, interface] : options.ports)
        members.set(number - 1);
    return members;
}

void print_trunk(std::uint32_t group, const Trunk *trunk)
{
    std::cout << "trunk " << group << ": ";
    if (trunk == nullptr) {
        std::cout << "removed" << std::endl;
        return;
    }
    std::cout << "members";
    const char *separator = " ";
    for (const std::uint32_t port : port_numbers(trunk->members)) {
        std::cout << separator << port;
        separator = ",";
    }
    std::cout << ' ' << *criterion_name(trunk->criterion) << std::endl;
}

// An empty packet and the end of the connection look the same to recv.
bool has_hung_up(int socket)
{
    pollfd state{socket, POLLRDHUP, 0};
    return poll(&state, 1, 0) > 0;
}

} // namespace

DriverService::DriverService(EventLoop &loop, const Options &options, std::function<void()> changed,
                             std::function<void()> trunks_changed)
    : loop_(loop), changed_(std::move(changed)), trunks_changed_(std::move(trunks_changed)),
      stale_grace_(options.stale_grace), existing_ports_(members_of(options)),
      listening_(options.driver_socket, SOCK_SEQPACKET)
{
    listening_.listen();
    acceptable_ = Event::readable(loop, listening_.get(), [this] { accept(); });
    sweeping_ = Event::every(loop, SWEEP_PERIOD, [this] { sweep(); });
}

// ---- clients --------------------------------------------------------------------------------------------------

void DriverService::accept()
{
    for (Descriptor socket = listening_.accept(); socket.is_open(); socket = listening_.accept()) {
        if (clients_.size() == MAX_CLIENTS)
            continue; // closes it; the client tries again
        const auto client = clients_.emplace(clients_.end());
        client->socket = std::move(socket);
        client->readable = Event::readable(loop_, client->socket.get(), [this, client] { read(client); });
        if (daemon_ == nullptr)
            announce(*client);
        changed_();
    }
}

void DriverService::announce(Client &client)
{
    client.announced = true;
    deadline_ = &client;
    trunks_.mark_stale(TrunkTable::Clock::now() + stale_grace_);
}

void DriverService::read(Clients::iterator client)
{
    int turn = 0;
    while (turn < MESSAGES_A_TURN && read_one(*client))
        ++turn;
    if (turn < MESSAGES_A_TURN && errno != EAGAIN && errno != EINTR)
        leave(client);
    trunks_changed_();
}

// False when nothing was read: errno is 0 at the end of the connection.
bool DriverService::read_one(Client &client)
{
    std::array<std::uint8_t, SCLIENT_MAX_MESSAGE> buffer;
    // MSG_TRUNC gives the whole length, so that a message that was cut does not look whole.
    const ssize_t length = recv(client.socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0)
        return false;
    if (length == 0 && has_hung_up(client.socket.get())) {
        errno = 0;
        return false;
    }
    if (static_cast<std::size_t>(length) > buffer.size()) {
        refuse(client, SCLIENT_ERROR_LENGTH, message_id(buffer));
        return true;
    }
    answer(client, std::span(buffer.data(), static_cast<std::size_t>(length)));
    return true;
}

void DriverService::leave(Clients::iterator client)
{
    if (deadline_ == &*client) {
        trunks_.drop_deadline();
        deadline_ = nullptr;
    }
    if (daemon_ == &*client)
        daemon_ = nullptr;
    clients_.erase(client);
    changed_();
}

// ---- requests -------------------------------------------------------------------------------------------------

void DriverService::answer(Client &client, std::span<const std::uint8_t> message)
{
    const Request request = parse_request(message, existing_ports_);
    if (!std::holds_alternative<SclientError>(request)) {
        if (!client.announced)
            announce(client);
        daemon_ = &client;
    }
    const auto error = std::visit(Overloaded{[this](const CreateTrunk &wish) { return create(wish); },
                                             [this](const DestroyTrunk &wish) { return destroy(wish); },
                                             [this](const SetCriterion &wish) { return set_criterion(wish); },
                                             [](SclientError found) { return std::optional(found); }},
                                  request);
    if (error)
        refuse(client, *error, message_id(message));
}

// A client that does not read its replies loses them.
void DriverService::refuse(const Client &client, SclientError error, std::uint16_t id)
{
    ++(is_malformed(error) ? counters_.malformed : counters_.refused);
    const auto reply = error_reply(error, id);
    send(client.socket.get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    std::cerr << "olt-switch: driver request " << id << " refused with code " << error << std::endl;
}

std::optional<SclientError> DriverService::create(const CreateTrunk &request)
{
    ++counters_.creates;
    const auto effect = trunks_.set(request.group, request.criterion, request.members);
    counters_.moved_ports += effect.moved_ports;
    for (const std::uint32_t group : effect.changed)
        print_trunk(group, trunks_.find(group));
    return std::nullopt;
}

// A group without a trunk is what was asked for.
std::optional<SclientError> DriverService::destroy(const DestroyTrunk &request)
{
    ++counters_.destroys;
    if (trunks_.remove(request.group))
        print_trunk(request.group, nullptr);
    return std::nullopt;
}

std::optional<SclientError> DriverService::set_criterion(const SetCriterion &request)
{
    if (!trunks_.set_criterion(request.group, request.criterion))
        return SCLIENT_ERROR_NO_TRUNK;
    ++counters_.psc_sets;
    print_trunk(request.group, trunks_.find(request.group));
    return std::nullopt;
}

void DriverService::sweep()
{
    const auto gone = trunks_.sweep(TrunkTable::Clock::now());
    for (const std::uint32_t group : gone)
        std::cout << "trunk " << group << ": removed, the new daemon has not asked for it" << std::endl;
    if (!gone.empty())
        trunks_changed_();
}

} // namespace olt
