// The switch's state in JSON, for people and tests.
#pragma once

#include "carrier_monitor.h"
#include "driver_service.h"
#include "forwarder.h"
#include "link_publisher.h"

namespace olt
{

// Answers every connection to the state socket with one JSON document.
class StateReport
{
  public:
    StateReport(EventLoop &loop, const Options &options, const Forwarder &forwarder, const CarrierMonitor &carriers,
                const LinkPublisher &publisher, const DriverService &driver);

  private:
    void answer() const;
    std::string text() const;

    const Options &options_;
    const Forwarder &forwarder_;
    const CarrierMonitor &carriers_;
    const LinkPublisher &publisher_;
    const DriverService &driver_;
    ListeningSocket listening_;
    std::unique_ptr<Event> acceptable_;
};

// Prints what a running switch answers. 0, or 1 with a sentence when none answers.
int show_state(const std::string &path);

} // namespace olt
