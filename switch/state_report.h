// The switch's state in JSON, for people and tests.
#pragma once

#include "driver_service.h"
#include "forwarder.h"
#include "link_monitor.h"
#include "link_publisher.h"
#include "user_plane.h"

namespace olt
{

// What a report is made of. `publisher` is null without a datastore, `plane` without a host interface.
struct StateSources {
    const Options &options;
    const Forwarder &forwarder;
    const LinkMonitor &links;
    const DriverService &driver;
    const LinkPublisher *publisher;
    const UserPlane *plane;
};

std::string state_text(const StateSources &sources);

// Answers every connection to the state socket with one JSON document.
class StateService
{
  public:
    using Text = std::function<std::string()>;

    // Takes the path, and answers from start() on.
    StateService(EventLoop &loop, const std::string &path, Text text);
    void start();

  private:
    void answer() const;

    EventLoop &loop_;
    Text text_;
    ListeningSocket listening_;
    std::unique_ptr<Event> acceptable_;
};

// Prints what a running switch answers. 0, or 1 with a sentence when none answers.
int show_state(const std::string &path);

} // namespace olt
