// C++ entry to FRR's daemon library.
//
// libfrr's declaration macros (DEFINE_MGROUP, DEFINE_MTYPE, FRR_DAEMON_INFO, DEFUN) name members out of
// declaration order, which C++ refuses. The small types below fill the same records in order and register
// them with the library at load, as those macros do. What has other names in other versions of the library (the
// event loop, the module's record) has a name of ours here; nothing else includes its headers.
#pragma once

#include "frr/forward.hpp"

#include <chrono>
#include <cstring> // before zebra.h, which redefines parts of it
#include <filesystem>
#include <string>

#include <zebra.h>

#include <buffer.h>
#include <command.h>
#include <frrevent.h>
#include <jhash.h>
#include <libfrr.h>
#include <log.h>
#include <memory.h>
#include <northbound_cli.h>
#include <printfrr.h>
#include <privs.h>
#include <sigevent.h>
#include <stream.h>
#include <vty.h>
#include <zlog.h>

// The library's list of memory groups; declared inside its own macros only.
extern "C" struct memgroup **mg_insert;

namespace frr
{

// A memory group in the library's memory display. Must outlive its types: declare it first.
class MemGroup
{
  public:
    explicit MemGroup(const char *description) noexcept
    {
        group_.name = description;
        group_.ref = mg_insert;
        *mg_insert = &group_;
        mg_insert = &group_.next;
    }
    ~MemGroup()
    {
        if (group_.next != nullptr)
            group_.next->ref = group_.ref;
        else if (mg_insert == &group_.next)
            mg_insert = group_.ref;
        *group_.ref = group_.next;
    }
    MemGroup(const MemGroup &) = delete;
    MemGroup &operator=(const MemGroup &) = delete;

    // Hooks a type into the group's list; its `ref` and the list then belong to the library.
    void add(memtype &type) noexcept
    {
        if (group_.insert == nullptr)
            group_.insert = &group_.types;
        type.ref = group_.insert;
        *group_.insert = &type;
        group_.insert = &type.next;
    }

  private:
    memgroup group_{};
};

// One accounted kind of memory. Converts to what qmalloc, qcalloc and qfree take.
class MemType
{
  public:
    MemType(MemGroup &group, const char *description) noexcept
    {
        type_.name = description;
        group.add(type_);
    }
    ~MemType()
    {
        if (type_.next != nullptr)
            type_.next->ref = type_.ref;
        *type_.ref = type_.next;
    }
    MemType(const MemType &) = delete;
    MemType &operator=(const MemType &) = delete;

    operator memtype *() noexcept { return &type_; }
    // Blocks now allocated, as the memory display counts them.
    std::size_t allocated() const noexcept { return type_.n_alloc; }

  private:
    memtype type_{};
};

// ---- event loop -----------------------------------------------------------------------------------------------

using Event = event;
using EventHandler = void (*)(Event *event);

// Where events come from, as the library's displays and warnings show it. The type says what a descriptor is waited
// for.
template <EventHandler handler, event_types type> const xref_eventsched *origin() noexcept
{
    static const xref_eventsched record = {
        {nullptr, XREFT_EVENTSCHED, 0, __FILE__, __PRETTY_FUNCTION__}, __PRETTY_FUNCTION__, "", type};
    return &record;
}

// Each leaves the event in `*reference`, if given, until it runs, and does nothing while one is there.
template <EventHandler handler> void add_event(EventLoop *loop, void *argument, Event **reference) noexcept
{
    _event_add_event(origin<handler, EVENT_EVENT>(), loop, handler, argument, 0, reference);
}

template <EventHandler handler>
void add_timer(EventLoop *loop, void *argument, std::chrono::milliseconds after, Event **reference) noexcept
{
    _event_add_timer_msec(origin<handler, EVENT_TIMER>(), loop, handler, argument, after.count(), reference);
}

template <EventHandler handler> void add_read(EventLoop *loop, void *argument, int fd, Event **reference) noexcept
{
    _event_add_read_write(origin<handler, EVENT_READ>(), loop, handler, argument, fd, reference);
}

inline void set_flag(Event *event) noexcept
{
    *static_cast<bool *>(event->arg) = true;
}

// Runs the loop for a while from within one of its events, which is the running one again afterwards.
inline void run_others(EventLoop *loop, std::chrono::milliseconds duration) noexcept
{
    void *const running = pthread_getspecific(thread_current);
    bool over = false;
    add_timer<set_flag>(loop, &over, duration, nullptr);
    for (Event next; !over && event_fetch(loop, &next) != nullptr;)
        event_call(&next);
    pthread_setspecific(thread_current, running);
}

inline void cancel(Event **reference) noexcept
{
    event_cancel(reference);
}

inline void *argument_of(const Event *event) noexcept
{
    return event->arg;
}

inline int fd_of(const Event *event) noexcept
{
    return event->u.fd;
}

// The argument of the event that runs on this thread; null when none does.
inline void *running_event_argument() noexcept
{
    const auto *running = static_cast<const Event *>(pthread_getspecific(thread_current));
    return running == nullptr ? nullptr : running->arg;
}

// Before the library starts. It keeps a folder for its log buffers by process number, does without them when there is
// one already, and a daemon that was killed leaves its own: after a boot a number can be the same again.
inline void remove_left_log_buffers(const char *program)
{
    std::error_code failure;
    std::filesystem::remove_all(std::string("/var/tmp/frr/") + program + '.' + std::to_string(getpid()), failure);
}

// ---- records of the shell and the module ----------------------------------------------------------------------

using Module = _frrmod_runtime_u;
using ModuleInfo = frrmod_info;

constexpr Module module(const ModuleInfo *info) noexcept
{
    return {{nullptr, info, nullptr, false, nullptr, nullptr}};
}

using CommandHandler = int (*)(const cmd_element *, vty *, int argc, cmd_token *argv[]);

// A shell command record; `name` is the record's own name, as the library's diagnostics show it.
inline cmd_element command(const char *name, const char *syntax, const char *help, CommandHandler handler,
                           std::uint32_t attributes = 0) noexcept
{
    cmd_element element{};
    element.string = syntax;
    element.doc = help;
    element.attr = attributes;
    element.func = handler;
    element.name = name;
    element.xref = {nullptr, XREFT_DEFUN, 0, __FILE__, name};
    return element;
}

inline cmd_node node(const char *name, int number, node_type parent, const char *prompt,
                     int (*config_write)(vty *)) noexcept
{
    cmd_node record{};
    record.name = name;
    record.node = static_cast<node_type>(number);
    record.parent_node = parent;
    record.prompt = prompt;
    record.config_write = config_write;
    return record;
}

// Raises the daemon's kept capabilities for the time of a scope.
class RaisedPrivileges
{
  public:
    explicit RaisedPrivileges(zebra_privs_t *privileges) noexcept : privileges_(_zprivs_raise(privileges, __func__))
    {
    }
    ~RaisedPrivileges() { _zprivs_lower(&privileges_); }
    RaisedPrivileges(const RaisedPrivileges &) = delete;
    RaisedPrivileges &operator=(const RaisedPrivileges &) = delete;

  private:
    zebra_privs_t *privileges_;
};

// A message of the framework's log with its reference, by which the framework names it. Registered at load, so it
// must be a static object.
class LogMessage
{
  public:
    LogMessage(int priority, const char *text) noexcept
    {
        data_.xrefdata.hashstr = text;
        data_.xrefdata.hashu32[0] = static_cast<std::uint32_t>(priority);
        message_.xref = {&data_.xrefdata, XREFT_LOGMSG, 0, __FILE__, text};
        message_.fmtstring = text;
        message_.priority = static_cast<std::uint32_t>(priority);
        message_.args = "";
        block_ = {nullptr, &reference_, &reference_ + 1};
        xref_block_add(&block_);
    }
    LogMessage(const LogMessage &) = delete;
    LogMessage &operator=(const LogMessage &) = delete;

    void write() const noexcept { write_line(message_.fmtstring); }

  private:
    void write_line(const char *format, ...) const noexcept
    {
        va_list arguments;
        va_start(arguments, format);
        vzlogx(&message_, static_cast<int>(message_.priority), format, arguments);
        va_end(arguments);
    }

    xrefdata_logmsg data_{};
    xref_logmsg message_{};
    const xref *reference_ = &message_.xref;
    xref_block block_{};
};

} // namespace frr
