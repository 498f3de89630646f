#include "driver_service.h"

#include "sclient/sclient.h"

#include <array>
#include <cerrno>
#include <iostream>
#include <sys/socket.h>

namespace olt
{

namespace
{

constexpr std::chrono::milliseconds SWEEP_PERIOD(500);

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

void print_trunk(std::uint32_t group, const Trunk &trunk)
{
    std::cout << "trunk " << group << ": members";
    const char *separator = " ";
    for (const std::uint32_t port : port_numbers(trunk.members)) {
        std::cout << separator << port;
        separator = ",";
    }
    std::cout << ' ' << *criterion_name(trunk.criterion) << std::endl;
}

} // namespace

DriverService::DriverService(EventLoop &loop, const Options &options)
    : loop_(loop), stale_grace_(options.stale_grace), existing_ports_(members_of(options)),
      listening_(options.driver_socket, SOCK_SEQPACKET)
{
    acceptable_ = Event::readable(loop, listening_.get(), [this] { accept(); });
    sweeping_ = Event::every(loop, SWEEP_PERIOD, [this] { sweep(); });
}

// The trunks of a daemon that is gone stay until a new one has had time to ask for its own.
void DriverService::accept()
{
    for (Descriptor socket = listening_.accept(); socket.is_open(); socket = listening_.accept()) {
        const auto client = clients_.emplace(clients_.end());
        client->socket = std::move(socket);
        client->readable = Event::readable(loop_, client->socket.get(), [this, client] { read(client); });
        trunks_.mark_stale(TrunkTable::Clock::now() + stale_grace_);
    }
}

void DriverService::read(Clients::iterator client)
{
    std::array<std::uint8_t, SCLIENT_MAX_MESSAGE> buffer;
    for (;;) {
        // MSG_TRUNC gives the whole length, so that a message that was cut is seen as malformed.
        const ssize_t length = recv(client->socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (length > 0) {
            const auto size = std::min(static_cast<std::size_t>(length), buffer.size());
            answer(*client, std::span(buffer.data(), size));
            continue;
        }
        if (length < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        clients_.erase(client);
        return;
    }
}

void DriverService::answer(Client &client, std::span<const std::uint8_t> message)
{
    const Request request = parse_request(message, existing_ports_);
    const std::optional<RequestError> error = act(request);
    if (!error)
        return;
    const auto reply = error_reply(*error, message_id(message));
    send(client.socket.get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    std::cerr << "olt-switch: driver request " << message_id(message) << " refused with code "
              << static_cast<std::uint32_t>(*error) << std::endl;
}

std::optional<RequestError> DriverService::act(const Request &request)
{
    using Result = std::optional<RequestError>;
    return std::visit(Overloaded{
                          [this](const CreateTrunk &create) -> Result {
                              ++counters_.creates;
                              trunks_.set(create.group, create.criterion, create.members);
                              print_trunk(create.group, trunks_.all().at(create.group));
                              return std::nullopt;
                          },
                          [this](const DestroyTrunk &destroy) -> Result {
                              ++counters_.destroys;
                              trunks_.remove(destroy.group);
                              std::cout << "trunk " << destroy.group << ": removed" << std::endl;
                              return std::nullopt;
                          },
                          [this](const SetCriterion &set) -> Result {
                              if (!trunks_.set_criterion(set.group, set.criterion)) {
                                  ++counters_.refused;
                                  return RequestError::NoTrunk;
                              }
                              ++counters_.psc_sets;
                              print_trunk(set.group, trunks_.all().at(set.group));
                              return std::nullopt;
                          },
                          [this](RequestError error) -> Result {
                              ++counters_.malformed;
                              return error;
                          },
                      },
                      request);
}

void DriverService::sweep()
{
    for (const std::uint32_t group : trunks_.sweep(TrunkTable::Clock::now()))
        std::cout << "trunk " << group << ": removed, no daemon has asked for it again" << std::endl;
}

} // namespace olt
