#include "keldatabase/access.h"

#include <libyang/libyang.h>

#include <charconv>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/statvfs.h>
#include <thread>

namespace kel
{
namespace
{

// A handler may wait for the protocol's queue for a second per change; a writer may stand behind several others.
constexpr std::uint32_t HANDLER_TIMEOUT_MS = 15000;
constexpr auto RETRY_AFTER = std::chrono::milliseconds(20);
constexpr auto READ_FOR = std::chrono::seconds(8);
// An operational read waits for its provider, which may stand behind a handler. Meanwhile it keeps writers out, so
// this has to end before the readers above give up.
constexpr std::uint32_t PROVIDER_TIMEOUT_MS = 3000;
// How sysrepo marks that a handler, and not a lock, took too long. Such a change may have been applied already.
constexpr char HANDLER_MARK[] = "EV ORIGIN";

// sysrepo keeps the running data and its exchange with subscribers in files there, and looks at no failure of writing
// them: on a full file system it would cut the data short, or end the process.
constexpr int NO_ROOM = SR_ERR_NO_MEMORY;
constexpr std::uint64_t NEEDED_ROOM = 1 << 20;
constexpr int NOT_OURS = SR_ERR_UNAUTHORIZED;
// A lock that is held for longer is told of.
constexpr auto LOCK_TOLD_AFTER = std::chrono::seconds(1);

bool has_room()
{
    struct statvfs system {
    };
    return statvfs(sr_get_shm_path(), &system) != 0 ||
           std::uint64_t{system.f_bavail} * system.f_frsize >= NEEDED_ROOM;
}

// Calls a read with its time limit, and repeats one of the configuration that got no lock.
template <typename Read> int read_patiently(sr_session_ctx_t *session, const Read &read)
{
    if (sr_session_get_ds(session) == SR_DS_OPERATIONAL)
        return read(PROVIDER_TIMEOUT_MS);
    int code = read(READ_LOCK_MS);
    if (code != SR_ERR_TIME_OUT)
        return code;
    const auto give_up = Clock::now() + READ_FOR;
    while (code == SR_ERR_TIME_OUT && Clock::now() < give_up)
        code = read(READ_LOCK_MS);
    return code;
}

} // namespace

Path::Path(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text_.data(), text_.size(), format, arguments);
    va_end(arguments);
}

InterfaceName::InterfaceName(int slot, std::uint32_t port)
{
    std::snprintf(text_.data(), text_.size(), "gigabitethernet %d/%u", slot, port);
}

Path interface_path(int slot, std::uint32_t port, const char *below)
{
    return Path("/olt-ifm:up-link-ports/interface[name='%s']/%s", InterfaceName(slot, port).text(), below);
}

Path trunk_path(int slot, std::uint32_t port, const char *leaf)
{
    return Path("/olt-ifm:up-link-ports/interface[name='%s']/olt-lacp:trunk/%s", InterfaceName(slot, port).text(),
                leaf);
}

Path group_path(int group, const char *below)
{
    return Path("/olt-lacp:channel-group/group[id='%d']%s%s", group, *below != '\0' ? "/" : "", below);
}

Path group_list_path(int group, const char *list, const char *entry)
{
    return Path("/olt-lacp:channel-group/group[id='%d']/%s[.='%s']", group, list, entry);
}

Leaf::Leaf(KelDb *db, const Path &path)
{
    sr_session_ctx_t *session = session_of(db);
    if (session == nullptr)
        return;
    sr_data_t *raw = nullptr;
    const auto read = [&](std::uint32_t limit) { return sr_get_node(session, path.text(), limit, &raw); };
    if (read_patiently(session, read) != SR_ERR_OK)
        return;
    data_.reset(raw);
    text_ = lyd_get_value(data_->tree);
}

Values::Values(KelDb *db, const Path &path)
{
    sr_session_ctx_t *session = session_of(db);
    if (session == nullptr)
        return;
    const auto read = [&](std::uint32_t limit) {
        return sr_get_items(session, path.text(), limit, 0, &values_, &count_);
    };
    read_ = read_patiently(session, read) == SR_ERR_OK;
}

std::optional<std::uint32_t> read_number(KelDb *db, const Path &path)
{
    const Leaf leaf(db, path);
    if (!leaf)
        return std::nullopt;
    std::uint32_t number = 0;
    const char *end = leaf.text() + std::strlen(leaf.text());
    const auto parsed = std::from_chars(leaf.text(), end, number);
    return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(number) : std::nullopt;
}

bool exists(KelDb *db, const Path &path)
{
    return static_cast<bool>(Leaf(db, path));
}

int copy_text(const Leaf &leaf, char *text, std::uint32_t *size)
{
    if (!leaf || text == nullptr || size == nullptr)
        return FAILED;
    const std::size_t needed = std::strlen(leaf.text()) + 1;
    if (needed > *size)
        return FAILED;
    std::memcpy(text, leaf.text(), needed);
    *size = static_cast<std::uint32_t>(needed);
    return 0;
}

Transaction::Transaction(KelDb *db)
    : db_(db), session_(session_of(db)), may_write_(session_ != nullptr && db->connection->may_write()),
      result_(session_ != nullptr ? 0 : FAILED)
{
}

Transaction::~Transaction()
{
    if (session_ != nullptr && sr_has_changes(session_) != 0)
        sr_discard_changes(session_);
}

Transaction &Transaction::stage_set(const Path &path, const char *value, sr_edit_options_t options)
{
    if (result_ == 0) {
        first_path_ = first_path_.value_or(path);
        result_ = sr_set_item_str(session_, path.text(), value, nullptr, options);
    }
    return *this;
}

Transaction &Transaction::stage_removal(const Path &path, sr_edit_options_t options)
{
    if (result_ == 0) {
        first_path_ = first_path_.value_or(path);
        result_ = sr_delete_item(session_, path.text(), options);
    }
    return *this;
}

bool Transaction::worth_another_try(int code) const
{
    if (code == SR_ERR_LOCKED)
        return true;
    return code == SR_ERR_TIME_OUT && std::strstr(last_error(session_, code), HANDLER_MARK) == nullptr;
}

int Transaction::apply_once()
{
    if (!may_write_)
        return NOT_OURS;
    return has_room() ? sr_apply_changes(session_, HANDLER_TIMEOUT_MS) : NO_ROOM;
}

// Waits a little, unless the write has waited for long enough.
bool Transaction::go_on(Clock::duration waited, std::chrono::milliseconds patience)
{
    if (const std::optional<bool> decided = run_pause())
        return *decided;
    if (waited >= patience)
        return false;
    std::this_thread::sleep_for(RETRY_AFTER);
    return true;
}

bool Transaction::tell_of_lock(Clock::duration waited) const
{
    if (waited < LOCK_TOLD_AFTER)
        return false;
    const std::string holder = db_->connection->lock_holder();
    if (!holder.empty())
        complain("waiting for the datastore, which is locked by %s", holder.c_str());
    return true;
}

// What an operator can do something with.
std::string Transaction::reason() const
{
    if (result_ == NO_ROOM)
        return "the memory file system is full";
    if (result_ == NOT_OURS)
        return "another process serves the datastore";
    const std::string holder = result_ == SR_ERR_LOCKED ? db_->connection->lock_holder() : "";
    return holder.empty() ? last_error(session_, result_) : "the datastore is locked by " + holder;
}

int Transaction::apply_within(std::chrono::milliseconds patience)
{
    if (session_ == nullptr)
        return FAILED;
    const auto begin = Clock::now();
    if (result_ == 0) {
        result_ = apply_once();
        for (bool told = false; worth_another_try(result_) && go_on(Clock::now() - begin, patience);
             result_ = apply_once())
            told = told || tell_of_lock(Clock::now() - begin);
    }
    if (result_ != 0)
        complain("%s was not changed: %s", first_path_->text(), reason().c_str());
    return result_;
}

} // namespace kel
