#include "lac_resume.h"

#include "channel_group_member.h"
#include "lac_member.h"
#include "lac_mux.h"
#include "lac_port.h"
#include "lac_resume_file.h"
#include "lac_rx.h"
#include "lac_select.h"
#include "lac_task.h"
#include "lac_tx.h"
#include "lacp_sclient.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdio>
#include <cstring>
#include <unistd.h>

Published<std::uint32_t> lacResumeStage = LAC_STARTING;

namespace
{

constexpr std::uint64_t SETTLING_TICKS = 3; // for a datastore that is busy; then trunks follow what is written
constexpr std::uint64_t TICK_MS = 1000;
constexpr std::uint32_t LONGEST_WRITE_SECONDS = 20; // the datastore gives one up after 15
constexpr std::uint64_t WRITE_PAUSE_MS = 100; // a partner that changes with every LACPDU costs no more than this
constexpr int LONGEST_STOP_MS = 200;          // a dispatcher that waits for the datastore is not waited for
constexpr useconds_t MS_US = 1000;

char file[PATH_MAX]; // set before the threads start, which outlive static objects when the process exits

// Written before LAC_Q_RESUME by the main thread, read behind it by the dispatcher.
LacResume identity; // without ports
LacResume before;
std::uint64_t left_ms; // monotonic: when the daemon before was last alive

// Dispatcher.
std::uint64_t settling_since; // in ticks
std::uint64_t written_ms;
int write_error;

// Written by the dispatcher, read by the main thread.
Published<bool> told_last;

// Timer thread.
std::uint64_t seen_ticks;
std::uint32_t silent_seconds;

// ---- resuming -------------------------------------------------------------------------------------------------

bool same_partner(const LacInfo &one, const LacInfo &other)
{
    return one.system_priority == other.system_priority && one.system == other.system && one.key == other.key &&
           one.port_priority == other.port_priority && one.port == other.port &&
           ((one.state ^ other.state) & LAC_AGGREGATION) == 0;
}

// Whether we are to our partner what we were.
bool is_as_told(const LacPort *port, const LacInfo &told)
{
    constexpr int COMPARED = LAC_ACTIVITY | LAC_TIMEOUT | LAC_AGGREGATION;
    const LacInfo actor = lac_actor_info(port);
    return actor.system_priority == told.system_priority && port->system->system_mac.get() == told.system &&
           actor.key == told.key && actor.port_priority == told.port_priority && actor.port == told.port &&
           ((actor.state ^ told.state) & COMPARED) == 0;
}

// A partner that was heard since the start is asked itself, one that was not is taken for unchanged until its
// timeout.
bool partner_has(const LacPort *port, const LacResumePort &was)
{
    if (port->rxm == LAC_RX_CURRENT)
        return same_partner(lac_partner_info(port), was.partner) && port->matched == 1 &&
               (port->heard_state & LAC_SYNCHRONIZATION) != 0;
    const std::uint64_t timeout =
        (was.partner.state & LAC_TIMEOUT) != 0 ? LAC_SHORT_TIMEOUT_TICKS : LAC_LONG_TIMEOUT_TICKS;
    return port->rxm == LAC_RX_EXPIRED && lac_now_ms() - left_ms < (timeout + 1) * TICK_MS;
}

bool fits(const LacPort *port, const LacResumePort &was)
{
    return was.group != 0 && was.group == port->channel_group_id && port->lacp_enabled == 1 &&
           port->port_enabled == 1 && port->attached == 0 && is_as_told(port, was.actor) && partner_has(port, was);
}

const LacResumePort &before_of(const LacPort *port)
{
    return before.ports[(port->port_no - 1) % LAC_MAX_PORTS];
}

// ---- keeping --------------------------------------------------------------------------------------------------

LacResumePort kept_of(const LacPort *port)
{
    const std::uint32_t group = lacMemberWanted(port);
    if (group == 0 || port->member_written != group)
        return {};
    LacInfo actor = lac_actor_info(port);
    actor.system = port->system->system_mac;
    return {group, actor, lac_partner_info(port), port->heard_state};
}

void keep()
{
    LacResume record = identity;
    record.system = lacSystem->system_mac;
    for (const LacPort *port : lac_ports())
        record.ports[(port->port_no - 1) % LAC_MAX_PORTS] = kept_of(port);
    const int error = lacWriteResume(file, record);
    if (error != 0 && error != write_error)
        printf("LACP Msg: %s cannot be written: %s; links will form anew after a restart\n", file, strerror(error));
    write_error = error;
    written_ms = lac_now_ms();
    lacSystem->unsaved = error != 0;
}

bool members_are_settled()
{
    for (const LacPort *port : lac_ports())
        if (lacMemberOwed(port))
            return false;
    return true;
}

} // namespace

void lacResumeFile(const std::string &path)
{
    snprintf(file, sizeof(file), "%s", path.c_str());
}

void lacResumeBegin(bool wanted)
{
    identity = lacResumeNow();
    lacResumeStage = LAC_STARTING;
    written_ms = 0;
    std::uint64_t away_ms = 0;
    const char *refused = wanted ? lacReadResume(file, before, away_ms) : "";
    if (refused == nullptr)
        refused = lacForeignResume(before, identity);
    if (refused != nullptr) {
        if (refused[0] != 0)
            printf("LACP Msg: %s is not used: %s; links form anew\n", file, refused);
        unlink(file); // true no longer
        return;
    }
    left_ms = lac_now_ms() - std::min(away_ms, lac_now_ms());
    lacp_trunk_hold();
    lacResumeStage = LAC_RESUMING;
    resume_lacp_once_cfg();
}

bool lacConfigurationRestored()
{
    return lacWaitAndSend("lacConfigurationRestored", LAC_Q_RESUME, 0, 0) == LAC_OK;
}

void lacStop()
{
    if (get_lac_global_enable() != 1 || lacWaitAndSend("lacStop", LAC_Q_STOP, 0, 0) != LAC_OK)
        return;
    for (int waited_ms = 0; waited_ms < LONGEST_STOP_MS && !told_last; ++waited_ms)
        usleep(MS_US);
}

void lacTellLast()
{
    if (lacResumeStage == LAC_KEEPING)
        for (LacPort *port : lac_ports())
            if (kept_of(port).group != 0)
                lacTxLast(port);
    told_last = true;
}

bool lacStampAlive()
{
    const std::uint64_t ticks = lacTicks;
    silent_seconds = ticks == seen_ticks ? silent_seconds + 1 : 0;
    seen_ticks = ticks;
    if (silent_seconds > (lacMemberWriting ? LONGEST_WRITE_SECONDS : 0))
        return false;
    if (lacResumeStage == LAC_KEEPING)
        lacStampResume(file);
    return true;
}

// A port passes through the states to COLLECTING_DISTRIBUTING in the selection, as a member does that has waited
// already; then it says so, before anybody can miss it.
void lacResume()
{
    const bool resuming = lacResumeStage == LAC_RESUMING;
    lacResumeStage = resuming ? LAC_SETTLING : LAC_KEEPING;
    settling_since = lacTicks;
    lacSystem->unsaved = true;
    if (!resuming)
        return;
    int members = 0;
    std::uint32_t resumed = 0;
    for (LacPort *port : lac_ports()) {
        const LacResumePort &was = before_of(port);
        members += was.group != 0;
        if (!fits(port, was))
            continue;
        lacRxResume(port, was.partner, was.heard_state);
        resumed |= lac_port_bit(port);
    }
    lacSelectResumed(resumed);
    for (LacPort *port : lac_ports())
        if ((resumed & lac_port_bit(port)) != 0)
            lacTxResume(port, before_of(port).actor.state);
    if (members != 0)
        printf("LACP Msg: %d of %d member ports go on as before the restart\n", std::popcount(resumed), members);
}

void lacKeepResume()
{
    if (lacResumeStage == LAC_SETTLING && (members_are_settled() || lacTicks - settling_since >= SETTLING_TICKS)) {
        lacp_trunk_release();
        lacp_trunk_resync(lacp_sclient);
        lacResumeStage = LAC_KEEPING;
    }
    if (lacResumeStage == LAC_KEEPING && lac_now_ms() - written_ms >= WRITE_PAUSE_MS)
        keep();
}
