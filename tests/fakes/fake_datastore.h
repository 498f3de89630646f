// The configuration datastore in memory.
//
// Reads answer from leaves that the test sets; writes are recorded as one line each. The records outlive every
// static object: a thread that never ends may still use them when the process exits.
#pragma once

#include "keldatabase/keldatabase.h"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace fake
{

// ---- leaves and writes ----------------------------------------------------------------------------------------

enum class MemberChange { created, deleted };

struct Datastore {
    std::recursive_mutex lock;                           // also held while `member_changed` runs inline
    std::map<std::uint32_t, std::string> link_status;    // "up", "down"; no entry: the read fails
    std::map<std::uint32_t, std::uint8_t> channel_group; // trunk leaf by port
    std::map<std::uint32_t, std::string> mode;           // trunk leaf by port
    std::map<int, std::string> lacp_type;
    std::map<int, std::set<std::string>> members;

    std::vector<std::string> writes;
    std::map<std::string, int> failures; // code by accessor name; such a write changes nothing
    std::uint64_t link_reads = 0;
    std::uint32_t debug_mask = 0;
    std::vector<std::string> subscribed; // module and path

    // What the change handler says to a member-port change, as the daemon would hear of it; non-zero refuses.
    std::function<int(MemberChange, int group, const std::string &name)> member_changed;
};

Datastore &datastore();
void reset_datastore();
std::vector<std::string> take_writes();

// ---- change events --------------------------------------------------------------------------------------------

// A leaf value, or a node without data.
struct Value {
    std::string path;
    sr_val_type_t type = SR_UNKNOWN_T;
    std::string text;
    std::uint64_t number = 0;
};

Value text(const std::string &path, const std::string &value);
Value name(const std::string &path, const std::string &value); // of an enumeration
Value number8(const std::string &path, std::uint8_t value);
Value number16(const std::string &path, std::uint16_t value);
Value dataless(const std::string &path, sr_val_type_t type);

struct Change {
    sr_change_oper_t operation;
    std::vector<Value> old_value; // one or none
    std::vector<Value> new_value;
};

Change created(const Value &value);
Change modified(const Value &old_value, const Value &new_value);
Change deleted(const Value &value);

struct Delivery {
    int result;
    std::size_t fetched; // changes that the handler asked for and got
};

// Runs a handler on a list of changes.
Delivery deliver(sr_module_change_cb handler, sr_event_t event, const std::vector<Change> &changes);

// Iterators handed out and not yet released.
int open_iterators();

} // namespace fake
