// Membership of dynamic groups: whose member-port list is to have each port, what has been written, what is owed. The
// list in the datastore makes the trunk follow. All of it on the dispatcher thread.
#pragma once

#include "lacp.h"

// The group whose list is to have the port, 0 for none: the one it collects and distributes in, while both ends have
// told each other Synchronization.
std::uint32_t lacMemberWanted(const LacPort *port);

// Whether the list may differ from what the port wants.
bool lacMemberOwed(const LacPort *port);

// Somebody else has changed the list of a dynamic group: it is read by the next call with `retry`, and what it should
// have is written again.
void lacMemberListChanged(std::uint32_t group);

// Whether the dispatcher is within such writes, which other clients of the datastore can make long. Any thread.
extern Published<bool> lacMemberWriting;

// Writes what has come to differ; with `retry` also what was refused before. Once per dispatcher message, when its
// machines have run. Returns the ports, as a mask, whose write was refused for good. They are barred: their groups
// have to be selected again, and what follows from that be settled by another call.
std::uint32_t lacSettleMembers(bool retry);
