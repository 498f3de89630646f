// The configuration datastore in memory, and the changes that its handlers are told of.
//
// Leaves and changes have short names: "g1/lacp-type" of a group, "p2/mode" and "p2/link-status" of a port,
// "p2/actor/id" of its protocol state, "sys/system-id" of the system, "g1/member-port/3" for an entry of a list.
#pragma once

#include "keldatabase/keldatabase.h"

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace fake
{

struct Content {
    std::map<std::string, std::string> leaves;
    std::map<std::string, int> failures; // code by "+member-port", "-member-port", "write"
    std::vector<std::string> writes;     // by short name, "-" in front of a deletion
    std::uint32_t debug_mask = 0;
    std::function<int(const std::string &change)> member_changed; // how the daemon hears of it; non-zero refuses
};
struct Datastore : Content {
    std::recursive_mutex lock;
    int iterators = 0; // handed out and not yet released
};

// Outlives every static object: a thread that never ends may still use it when the process exits.
Datastore &datastore();
void reset_datastore();
std::vector<std::string> take_writes();
std::string name(char kind, unsigned number, const std::string &leaf); // "g1/lacp-type"
std::string stored(const std::string &leaf);                           // empty: not there
std::uint32_t members(int group);                                      // of the list in the datastore, as bits

// Runs a handler on changes that are separated by "; ": "+LEAF=VALUE" created, "-LEAF=VALUE" deleted,
// "LEAF=OLD>NEW" modified. A value "#N" is no text and of the sysrepo type N; a port's number stands for its name.
int deliver(sr_module_change_cb handler, sr_event_t event, const std::string &changes);

} // namespace fake
