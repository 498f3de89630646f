// The driver service: clients ask for trunks over a Unix socket.
#pragma once

#include "driver_request.h"
#include "event_loop.h"
#include "options.h"
#include "unix_socket.h"

#include <list>

namespace olt
{

struct DriverCounters {
    std::uint64_t creates = 0;
    std::uint64_t destroys = 0;
    std::uint64_t psc_sets = 0;
    std::uint64_t refused = 0;   // well-formed, but not possible
    std::uint64_t malformed = 0; // not a request
};

class DriverService
{
  public:
    DriverService(EventLoop &loop, const Options &options);

    const TrunkTable &trunks() const { return trunks_; }
    const DriverCounters &counters() const { return counters_; }
    std::size_t clients() const { return clients_.size(); }

  private:
    struct Client {
        Descriptor socket;
        std::unique_ptr<Event> readable;
    };
    using Clients = std::list<Client>;

    void accept();
    void read(Clients::iterator client);
    void answer(Client &client, std::span<const std::uint8_t> message);
    std::optional<RequestError> act(const Request &request);
    void sweep();

    EventLoop &loop_;
    std::chrono::seconds stale_grace_;
    Members existing_ports_;
    ListeningSocket listening_;
    std::unique_ptr<Event> acceptable_;
    std::unique_ptr<Event> sweeping_;
    Clients clients_;
    TrunkTable trunks_;
    DriverCounters counters_;
};

} // namespace olt
