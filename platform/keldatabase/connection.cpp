#include "keldatabase/connection.h"

#include <libyang/libyang.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <utility>

namespace kel
{

FileDescriptor::FileDescriptor(FileDescriptor &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

FileDescriptor &FileDescriptor::operator=(FileDescriptor &&other) noexcept
{
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

FileDescriptor::~FileDescriptor()
{
    if (valid())
        close(descriptor_);
}

void complain(const char *format, ...)
{
    std::array<char, 512> line;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "keldatabase: %s\n", line.data());
}

sr_session_ctx_t *session_of(KelDb *db)
{
    return db != nullptr && db->connection != nullptr ? db->connection->thread_session() : nullptr;
}

const char *last_error(sr_session_ctx_t *session, int code)
{
    // Codes of handlers are negative; sysrepo hands them on without a text.
    if (code < 0)
        return "its handler refused the change";
    const sr_error_info_t *info = nullptr;
    if (sr_session_get_error(session, &info) == SR_ERR_OK && info != nullptr && info->err_count > 0 &&
        info->err[0].message != nullptr)
        return info->err[0].message;
    return sr_strerror(code);
}

namespace
{

thread_local kel_db_pause pause_function;
thread_local int waiting_writes;

constexpr std::array<const char *, 2> REQUIRED_MODULES = {"olt-ifm", "olt-lacp"};
constexpr char ACCESS_ADVICE[] = "only root, user daemon and members of group daemon may use it";
constexpr char INSTALL_ADVICE[] = "install it with scripts/datastore.sh, or olt-datastore where the package is";

bool repository_usable(const char *path)
{
    struct stat status {
    };
    if (stat(path, &status) != 0 && errno == ENOENT) {
        complain("there is no datastore in %s; %s", path, INSTALL_ADVICE);
        return false;
    }
    if (faccessat(AT_FDCWD, path, R_OK | W_OK | X_OK, AT_EACCESS) != 0) {
        complain("the datastore in %s cannot be opened (%s); %s", path, std::strerror(errno), ACCESS_ADVICE);
        return false;
    }
    return true;
}

bool has_module(sr_conn_ctx_t *connection, const char *module)
{
    const ly_ctx *context = sr_acquire_context(connection);
    if (context == nullptr)
        return false;
    const bool found = ly_ctx_get_module_implemented(context, module) != nullptr;
    sr_release_context(connection);
    return found;
}

bool module_usable(sr_conn_ctx_t *connection, const char *module)
{
    if (!has_module(connection, module)) {
        complain("YANG module %s is not in the datastore in %s; %s", module, sr_get_repo_path(), INSTALL_ADVICE);
        return false;
    }
    int readable = 0;
    int writable = 0;
    if (sr_check_module_ds_access(connection, module, SR_DS_RUNNING, &readable, &writable) != SR_ERR_OK ||
        readable == 0 || writable == 0) {
        complain("data of YANG module %s cannot be read and written; %s", module, ACCESS_ADVICE);
        return false;
    }
    return true;
}

} // namespace

std::optional<bool> run_pause()
{
    if (pause_function == nullptr)
        return std::nullopt;
    ++waiting_writes;
    const bool go_on = pause_function();
    --waiting_writes;
    return go_on;
}

} // namespace kel

void kel_db_set_pause(kel_db_pause pause)
{
    kel::pause_function = pause;
}

std::unique_ptr<KelDb::Connection> KelDb::Connection::open()
{
    const char *repository = sr_get_repo_path();
    if (!kel::repository_usable(repository))
        return nullptr;
    sr_conn_ctx_t *raw = nullptr;
    const int code = sr_connect(SR_CONN_CACHE_RUNNING, &raw);
    kel::ConnectionPtr connection(raw);
    if (code != SR_ERR_OK) {
        kel::complain("the datastore in %s cannot be opened (%s); %s", repository, sr_strerror(code),
                      kel::ACCESS_ADVICE);
        return nullptr;
    }
    for (const char *module : kel::REQUIRED_MODULES)
        if (!kel::module_usable(connection.get(), module))
            return nullptr;
    auto opened = std::make_unique<Connection>();
    opened->connection_ = std::move(connection);
    return opened;
}

sr_session_ctx_t *KelDb::Connection::thread_session()
try {
    // A thread that has ended leaves its session to the next one with its identifier.
    const std::lock_guard guard(sessions_lock_);
    kel::SessionPtr &session = sessions_[{std::this_thread::get_id(), kel::waiting_writes}];
    if (!session) {
        sr_session_ctx_t *raw = nullptr;
        if (sr_session_start(connection_.get(), SR_DS_RUNNING, &raw) != SR_ERR_OK)
            return nullptr;
        session.reset(raw);
    }
    return session.get();
} catch (const std::exception &) {
    return nullptr;
}

// Sysrepo tells a session's number and no process.
std::string KelDb::Connection::lock_holder()
{
    for (const char *module : kel::REQUIRED_MODULES) {
        int locked = 0;
        std::uint32_t session = 0;
        timespec since{};
        if (sr_get_lock(connection_.get(), SR_DS_RUNNING, module, &locked, &session, &since) != SR_ERR_OK ||
            locked == 0)
            continue;
        tm local{};
        localtime_r(&since.tv_sec, &local);
        std::array<char, 96> text;
        std::snprintf(text.data(), text.size(), "the client with datastore session %u, since %02d:%02d:%02d", session,
                      local.tm_hour, local.tm_min, local.tm_sec);
        return text.data();
    }
    return {};
}

int database_init(KelDb *db)
try {
    if (db == nullptr)
        return kel::FAILED;
    db->connection = KelDb::Connection::open().release();
    return db->connection != nullptr ? 0 : kel::FAILED;
} catch (const std::exception &error) {
    kel::complain("the datastore cannot be opened (%s)", error.what());
    return kel::FAILED;
}

void database_close(KelDb *db)
{
    if (db == nullptr)
        return;
    std::unique_ptr<KelDb::Connection>(db->connection).reset(); // its thread reads the pointer until it has ended
    db->connection = nullptr;
}
