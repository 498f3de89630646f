// The software switch: its parts and what they tell each other.
#pragma once

#include "driver_service.h"
#include "forwarder.h"
#include "link_monitor.h"
#include "link_publisher.h"
#include "state_report.h"

#include <optional>

namespace olt
{

// Everything that can be wrong at start-up throws from the constructor, before anything is written; an interface that
// is not there is not wrong, it is followed when it comes. Frames are passed on from then on; the state socket, which
// tells that the switch is ready, answers when the interface entries have been written.
class Switch
{
  public:
    Switch(EventLoop &loop, const Options &options);
    Switch(const Switch &) = delete;
    Switch &operator=(const Switch &) = delete;

  private:
    StateSources sources() const;
    std::string name_of(const std::string &interface) const;
    void follow(const std::string &interface, const Link &link);
    void link_changed(const std::string &interface, const Link &before, const Link &now);
    void publish_links();
    void daemon_changed();
    void settle();
    void ready();
    void advise();
    std::string advice() const;

    EventLoop &loop_;
    std::string advice_; // as it was printed last
    bool ready_ = false;
    const Options options_;
    std::map<std::string, std::uint32_t> numbers_; // by interface
    DriverService driver_;                         // first: it refuses a second switch
    StateService state_;
    Forwarder forwarder_;
    LinkMonitor links_;
    std::unique_ptr<UserPlane> plane_; // null without a host interface
    std::unique_ptr<LinkStore> store_;
    std::optional<LinkPublisher> publisher_; // empty without a datastore
};

} // namespace olt
