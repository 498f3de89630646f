// Which way frames go: slow-protocols frames between the uplink ports and the CPU.
#pragma once

#include "cpu_port.h"
#include "options.h"
#include "port.h"

#include <map>

namespace olt
{

class Forwarder
{
  public:
    Forwarder(EventLoop &loop, const Options &options);
    Forwarder(const Forwarder &) = delete;
    Forwarder &operator=(const Forwarder &) = delete;

    // An interface has another index, 0 when it is gone. False with errno when its frames cannot be had.
    bool follow(const std::string &interface, int index);
    const std::map<std::uint32_t, Port> &ports() const { return ports_; }
    const CpuPort &cpu() const { return cpu_; }

  private:
    void from_port(Port &port, Frame frame);
    bool from_cpu(std::uint32_t number, Frame frame);

    CpuPort cpu_;
    std::map<std::uint32_t, Port> ports_;
};

} // namespace olt
