// A restart that partners do not notice: what a restart needs is kept in a file, and ports that still fit go on as
// members of their groups, with the state that they last told.
#pragma once

#include "lac_task.h"

#include <string>

// Where what is kept stands. Before the protocol's threads start.
void lacResumeFile(const std::string &path);
// Reads what the daemon before has left, if that is wanted; what is not used is taken away. When there are members
// to resume: LACP is switched on, time stands still and the trunks stay as they are, until the configuration is
// restored. Start-up, when the protocol's threads run.
void lacResumeBegin(bool wanted);
// The configuration is restored: ports resume, and from now on the file is kept. False when the dispatcher cannot be
// told yet. Main thread.
bool lacConfigurationRestored();
// Once a second: whether the dispatcher goes on, its ticks or, for as long as a datastore may take, a write. Keeps
// the file's time of modification then. Timer thread.
bool lacStampAlive();
// Before an end on purpose: partners of members hear of them once more, so that their timeouts begin with it and not
// up to a period earlier. Waits for the dispatcher, a moment only. Main thread.
void lacStop();

// ---- dispatcher ---------------------------------------------------------------------------------------------------

enum LacResumeStage : std::uint32_t {
    LAC_STARTING, // the configuration is being restored: nothing is kept yet
    LAC_RESUMING, // the same, and members of before are to resume
    LAC_SETTLING, // the resumed members are being written
    LAC_KEEPING,
};
extern Published<std::uint32_t> lacResumeStage; // main thread until LAC_Q_RESUME, then the dispatcher

// Whether the message is to be passed over: a tick, while time stands still.
inline bool lacStandsStill(const LacQueueMsg &message)
{
    return lacResumeStage == LAC_RESUMING && message.code == LAC_Q_TICK;
}
// Ports that fit go on as members; LAC_Q_RESUME.
void lacResume();
// LACPDUs of the members that are kept; LAC_Q_STOP.
void lacTellLast();
// Trunks follow when the members are written, and what has changed is kept.
void lacKeepResume();
// Behind every message.
inline void lacFollowResume()
{
    if (lacSystem->unsaved)
        lacKeepResume();
}
