// Inside of a datastore handle: the connection, one session per thread, the subscriptions.
#pragma once

#include "keldatabase/keldatabase.h"

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace kel
{

template <auto Release> struct Releaser {
    template <typename T> void operator()(T *handle) const { Release(handle); }
};

using ConnectionPtr = std::unique_ptr<sr_conn_ctx_t, Releaser<sr_disconnect>>;
using SessionPtr = std::unique_ptr<sr_session_ctx_t, Releaser<sr_session_stop>>;
using SubscriptionPtr = std::unique_ptr<sr_subscription_ctx_t, Releaser<sr_unsubscribe>>;
using DataPtr = std::unique_ptr<sr_data_t, Releaser<sr_release_data>>;

class FileDescriptor
{
  public:
    explicit FileDescriptor(int descriptor = -1) : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor &&other) noexcept;
    FileDescriptor &operator=(FileDescriptor &&other) noexcept;
    ~FileDescriptor();

    int get() const { return descriptor_; }
    bool valid() const { return descriptor_ >= 0; }

  private:
    int descriptor_;
};

constexpr int FAILED = -1;

// One line on standard error.
[[gnu::format(printf, 1, 2)]] void complain(const char *format, ...);

// The calling thread's session of a handle; null when the handle is not connected.
sr_session_ctx_t *session_of(KelDb *db);

// Lets the calling thread's pause function run while a write waits, and says whether to go on waiting. What it calls
// may write in its turn, with a session of its own. Nothing when the thread has no such function.
std::optional<bool> run_pause();

// What sysrepo says about the session's last failure.
const char *last_error(sr_session_ctx_t *session, int code);

// A subscribed handler. `open`: it has accepted changes of a transaction whose end it has not been told of.
struct Subscribed {
    const DbXpathCb *entry;
    bool *owed; // the connection's
    bool open = false;
    std::chrono::steady_clock::time_point since{};
};

} // namespace kel

struct KelDb::Connection {
    // Null, after a sentence on standard error, when the datastore cannot be used.
    static std::unique_ptr<Connection> open();

    sr_session_ctx_t *thread_session();
    bool claim(const char *module);
    bool may_write() const { return !foreign_; }
    std::string lock_holder();
    int subscribe(const DbModuleCbs *const *tables);

  private:
    int subscribe_entry(const char *module, const DbXpathCb &entry);
    void serve(const std::stop_token &stop, int pipe);
    void settle();

    // Declared so that the subscriptions go first and the connection last.
    kel::ConnectionPtr connection_;
    std::mutex sessions_lock_; // held for the look-up only, never across a datastore operation
    // By thread and by how many of its writes are waiting.
    std::map<std::pair<std::thread::id, int>, kel::SessionPtr> sessions_;
    bool foreign_ = false;                // another process serves the datastore; set at start
    kel::FileDescriptor subscriber_lock_; // an advisory lock; the kernel drops it with the process
    kel::SessionPtr subscriber_session_;
    std::deque<kel::Subscribed> handlers_; // event thread
    bool settling_owed_ = true;            // event thread
    kel::SubscriptionPtr subscription_;
    std::jthread events_;
};
