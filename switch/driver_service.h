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
    std::uint64_t refused = 0;     // asks for what cannot be
    std::uint64_t malformed = 0;   // none of the protocol's messages
    std::uint64_t moved_ports = 0; // taken from one trunk by a request for another
};

// Trunks outlive the daemon that asked for them, so that traffic goes on while it restarts. A new daemon has a grace
// time to ask for its own ones again; the others go then. The protocol has no greeting and no other kind of client,
// so every connection counts as a new daemon, unless one that has sent requests is connected: then the newcomer has
// to send one first.
class DriverService
{
  public:
    // `changed` is called when a client has come or gone, `trunks_changed` when trunks may be others.
    DriverService(
        EventLoop &loop, const Options &options, std::function<void()> changed = [] {},
        std::function<void()> trunks_changed = [] {});

    const TrunkTable &trunks() const { return trunks_; }
    const DriverCounters &counters() const { return counters_; }
    std::size_t clients() const { return clients_.size(); }

  private:
    struct Client {
        Descriptor socket;
        std::unique_ptr<Event> readable;
        bool announced = false; // the trunks before it are stale
    };
    using Clients = std::list<Client>;

    void accept();
    void read(Clients::iterator client);
    bool read_one(Client &client);
    void leave(Clients::iterator client);
    void announce(Client &client);
    void answer(Client &client, std::span<const std::uint8_t> message);
    void refuse(const Client &client, SclientError error, std::uint16_t id);
    std::optional<SclientError> create(const CreateTrunk &request);
    std::optional<SclientError> destroy(const DestroyTrunk &request);
    std::optional<SclientError> set_criterion(const SetCriterion &request);
    void sweep();

    EventLoop &loop_;
    std::function<void()> changed_;
    std::function<void()> trunks_changed_;
    std::chrono::seconds stale_grace_;
    Members existing_ports_;
    ListeningSocket listening_;
    std::unique_ptr<Event> acceptable_;
    std::unique_ptr<Event> sweeping_;
    Clients clients_;
    const Client *daemon_ = nullptr;   // the last one that sent a valid request
    const Client *deadline_ = nullptr; // whose grace time runs
    TrunkTable trunks_;
    DriverCounters counters_;
};

} // namespace olt
