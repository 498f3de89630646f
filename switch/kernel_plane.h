// User traffic that the kernel forwards by rules of its own.
#pragma once

#include "event_loop.h"
#include "link_monitor.h"
#include "options.h"
#include "packet_socket.h"
#include "trunk_table.h"
#include "user_plane.h"

#include <memory>

struct nft_ctx;

namespace olt
{

// Rules of nftables take a frame where it comes in and send it where it leaves, within the time of whoever sent it,
// and trains of segments whole, also those of a tunnel. The rules are written anew, as one transaction, when they are
// not those that trunks and links ask for. A switch that is killed leaves them behind; the next one keeps them until
// it is asked for a trunk, for the grace time at most.
class KernelPlane : public UserPlane
{
  public:
    KernelPlane(EventLoop &loop, const Options &options, const TrunkTable &trunks, const LinkMonitor &links);
    ~KernelPlane() override;
    KernelPlane(const KernelPlane &) = delete;
    KernelPlane &operator=(const KernelPlane &) = delete;

    bool follow(const std::string &interface, int index) override;
    void settle() override;
    TrafficReport report() const override;

  private:
    using Counts = std::map<std::string, TrafficCount>; // by the counter's name; `dropped` is not used
    struct Release {
        void operator()(nft_ctx *context) const;
    };

    std::string hooked(const std::string &name, const std::string &interface, const std::string &rules) const;
    std::string member_chain(std::uint32_t number, const std::string &interface) const;
    std::string port_chain(std::uint32_t number, const std::string &interface) const;
    std::string host_chain() const;
    std::string rules() const;
    bool run(const std::string &commands);
    Counts counts() const;

    EventLoop &loop_;
    const Options &options_;
    const TrunkTable &trunks_;
    const LinkMonitor &links_;
    PacketSocket host_; // makes the interface take every frame, and hears none itself
    std::unique_ptr<nft_ctx, Release> nft_;
    TrunkTable::Clock::time_point kept_until_;
    std::string installed_;
    std::string complaint_;        // as it was told last
    Counts before_;                // of the rules before
    std::unique_ptr<Event> again_; // while none are installed
};

} // namespace olt
