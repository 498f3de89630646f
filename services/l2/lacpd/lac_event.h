// What happens to a port: initialised, enabled, disabled, link up and down, configured. All of it on the dispatcher
// thread. Unknown port numbers do nothing.
#pragma once

#include "lacp.h"

struct LacQueueMsg;

enum LacSwitch : std::uint32_t { LAC_SET_ON = 1, LAC_SET_OFF = 2 };

int lacInitPort(LacPort *port);
int lac_set(std::uint32_t on_or_off);
void lacSystemStateSet(std::uint32_t value);
void lacSetPort(LacPort *port, std::uint32_t event);
int lacEnablePort(LacPort *port);
int lacDisablePort(LacPort *port);
void lacSetPortLacpState(std::uint32_t port_no, std::uint32_t state);
void lacLinkUp(std::uint32_t port_no);
void lacLinkDown(std::uint32_t port_no);

// A message that carries an attribute of a port; any other is ignored.
void lacApplyAttribute(const LacQueueMsg &message);
void lacApplySystemPriority(std::uint16_t priority);
