#include "keldatabase/connection.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int IDLE_POLL_MS = 1000;
constexpr int OWED_POLL_MS = 50;
// A client that dies between change and end of its transaction leaves the handlers without the second. Longer than
// any transaction that this library makes.
constexpr std::chrono::seconds ENDED_WITHOUT_A_WORD(20);

kel_db_settle settle_hook; // registered before the event thread starts

constexpr mode_t LOCK_FILE_MODE = 0660;
constexpr auto PREDECESSOR_ENDS = std::chrono::seconds(1);

// Whoever may use the repository may take the lock, whatever umask and user made the file.
void share_with_repository_group(int descriptor)
{
    struct stat repository {
    };
    if (stat(sr_get_repo_path(), &repository) == 0 && fchown(descriptor, -1, repository.st_gid) == 0)
        fchmod(descriptor, LOCK_FILE_MODE);
}

std::string owner_of_lock(int descriptor)
{
    std::array<char, 32> text{};
    const ssize_t length = pread(descriptor, text.data(), text.size() - 1, 0);
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : "unknown";
}

void write_owner(int descriptor)
{
    const std::string owner = std::to_string(getpid());
    if (ftruncate(descriptor, 0) != 0 ||
        pwrite(descriptor, owner.data(), owner.size(), 0) != static_cast<ssize_t>(owner.size()))
        kel::complain("the process number cannot be noted in the datastore's lock file (%s)", std::strerror(errno));
}

std::string lock_path(const char *module)
{
    return std::string(sr_get_repo_path()) + "/" + module + ".subscriber";
}

// A predecessor that is just ending still holds it.
bool lock_patiently(int descriptor)
{
    const auto give_up = std::chrono::steady_clock::now() + PREDECESSOR_ENDS;
    while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (std::chrono::steady_clock::now() >= give_up)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

int hand_over(sr_session_ctx_t *session, std::uint32_t id, const char *module, const char *xpath, sr_event_t event,
              std::uint32_t request, void *handler)
{
    auto &to = *static_cast<kel::Subscribed *>(handler);
    const int result = to.entry->change(session, id, module, xpath, event, request, nullptr);
    to.open = event == SR_EV_CHANGE && result == 0;
    to.since = Clock::now();
    *to.owed |= !to.open;
    if (result == 0)
        return SR_ERR_OK;
    // For the client; sysrepo knows no other codes than its own.
    sr_session_set_error_message(session, "%s refuses the change (%d)", program_invocation_short_name, result);
    return SR_ERR_OPERATION_FAILED;
}

} // namespace

int KelDb::Connection::subscribe_entry(const char *module, const DbXpathCb &entry)
{
    sr_session_ctx_t *session = subscriber_session_.get();
    sr_subscription_ctx_t *raw = subscription_.release();
    int code = SR_ERR_OK;
    if (entry.change != nullptr) {
        kel::Subscribed &handler = handlers_.emplace_back(kel::Subscribed{&entry, &settling_owed_});
        code = sr_module_change_subscribe(session, module, entry.xpath, hand_over, &handler, 0, SR_SUBSCR_NO_THREAD,
                                          &raw);
    }
    if (code == SR_ERR_OK && entry.oper_get != nullptr)
        code =
            sr_oper_get_subscribe(session, module, entry.xpath, entry.oper_get, nullptr, SR_SUBSCR_NO_THREAD, &raw);
    subscription_.reset(raw);
    if (code != SR_ERR_OK)
        kel::complain("%s cannot be subscribed to (%s)", entry.xpath, kel::last_error(session, code));
    return code;
}

// Only one process at a time may act on the changes of a module's configuration: two would drive one switch.
bool KelDb::Connection::claim(const char *module)
{
    if (subscriber_lock_.valid() || foreign_)
        return !foreign_;
    const std::string path = lock_path(module);
    kel::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, LOCK_FILE_MODE));
    if (!file.valid()) {
        kel::complain("%s cannot be opened (%s); changes are not received", path.c_str(), std::strerror(errno));
        return false;
    }
    foreign_ = !lock_patiently(file.get());
    if (foreign_) {
        kel::complain(
            "process %s already serves the configuration of %s in %s; changes are neither made nor received, "
            "stop one of the two",
            owner_of_lock(file.get()).c_str(), module, sr_get_repo_path());
        return false;
    }
    share_with_repository_group(file.get());
    write_owner(file.get());
    subscriber_lock_ = std::move(file);
    return true;
}

int KelDb::Connection::subscribe(const DbModuleCbs *const *tables)
{
    if (subscription_ || *tables == nullptr)
        return subscription_ ? kel::FAILED : 0;
    sr_session_ctx_t *raw = nullptr;
    if (!claim((*tables)->module) || sr_session_start(connection_.get(), SR_DS_RUNNING, &raw) != SR_ERR_OK)
        return kel::FAILED;
    subscriber_session_.reset(raw);
    for (; *tables != nullptr; ++tables) {
        for (const DbXpathCb *entry = (*tables)->xpaths; entry->xpath != nullptr; ++entry) {
            if (subscribe_entry((*tables)->module, *entry) != SR_ERR_OK) {
                subscription_.reset();
                handlers_.clear();
                return kel::FAILED;
            }
        }
    }
    int pipe = -1;
    sr_get_event_pipe(subscription_.get(), &pipe);
    events_ = std::jthread([this, pipe](const std::stop_token &stop) { serve(stop, pipe); });
    return 0;
}

// The library's own thread rather than sysrepo's: what follows from a transaction is done between events, where it
// keeps neither a client nor a provider's reader waiting and can be put off.
void KelDb::Connection::serve(const std::stop_token &stop, int pipe)
{
    pthread_setname_np(pthread_self(), "keldb events");
    while (!stop.stop_requested()) {
        pollfd event{pipe, POLLIN, 0};
        poll(&event, 1, settling_owed_ ? OWED_POLL_MS : IDLE_POLL_MS);
        timespec next{};
        sr_subscription_process_events(subscription_.get(), nullptr, &next);
        settle();
    }
}

void KelDb::Connection::settle()
{
    std::vector<sr_module_change_cb> idle;
    for (kel::Subscribed &handler : handlers_) {
        if (handler.open && Clock::now() - handler.since > ENDED_WITHOUT_A_WORD) {
            handler.open = false;
            settling_owed_ = true;
        }
        if (!handler.open)
            idle.push_back(handler.entry->change);
    }
    if (settling_owed_ && settle_hook != nullptr)
        settling_owed_ = !settle_hook(idle);
}

void db_settle_reg(kel_db_settle hook)
{
    settle_hook = hook;
}

int db_module_subscription_init(KelDb *db, const DbModuleCbs *const *tables)
try {
    return db != nullptr && db->connection != nullptr && tables != nullptr ? db->connection->subscribe(tables)
                                                                           : kel::FAILED;
} catch (const std::exception &error) {
    kel::complain("changes cannot be subscribed to (%s)", error.what());
    return kel::FAILED;
}

bool db_module_claim(KelDb *db, const char *module)
try {
    return db == nullptr || db->connection == nullptr || db->connection->claim(module) || db->connection->may_write();
} catch (const std::exception &) {
    return true; // the subscription will say what is wrong
}

int kel_db_get_change_next(sr_session_ctx_t *session, const char *xpath, sr_change_iter_t **iterator,
                           sr_change_oper_t *operation, sr_val_t **old_value, sr_val_t **new_value)
{
    if (*iterator != nullptr) {
        sr_free_val(*old_value);
        sr_free_val(*new_value);
    }
    *old_value = nullptr;
    *new_value = nullptr;
    if (*iterator == nullptr) {
        const int code = sr_get_changes_iter(session, xpath, iterator);
        if (code != SR_ERR_OK) {
            *iterator = nullptr;
            return code;
        }
    }
    return sr_get_change_next(session, *iterator, operation, old_value, new_value);
}
