// Reading and writing by path, as the accessors do it.
#pragma once

#include "keldatabase/connection.h"

#include <array>
#include <chrono>
#include <optional>
#include <span>

namespace kel
{

using Clock = std::chrono::steady_clock;

// A reader that arrives while a writer waits for its lock can miss being woken when that writer goes on (sysrepo
// 3.7.11). In a handler that would stop everybody until the reader's time is up, so it looks again by itself.
constexpr std::uint32_t READ_LOCK_MS = 5;

// A datastore path, composed as printf does. All paths of this library fit.
class Path
{
  public:
    [[gnu::format(printf, 2, 3)]] explicit Path(const char *format, ...);
    const char *text() const { return text_.data(); }

  private:
    std::array<char, 192> text_;
};

// "gigabitethernet SLOT/PORT"
class InterfaceName
{
  public:
    InterfaceName(int slot, std::uint32_t port);
    const char *text() const { return text_.data(); }

  private:
    std::array<char, 48> text_;
};

// A path under the interface entry of a port: "interface-basic/link-status".
Path interface_path(int slot, std::uint32_t port, const char *below);
// A path under the port's trunk container.
Path trunk_path(int slot, std::uint32_t port, const char *leaf);
// A path under a group's entry, or the entry itself for "".
Path group_path(int group, const char *below);
Path group_list_path(int group, const char *list, const char *entry);

// One leaf's value as text, kept alive by the object.
class Leaf
{
  public:
    Leaf(KelDb *db, const Path &path);
    explicit operator bool() const { return text_ != nullptr; }
    const char *text() const { return text_; }

  private:
    DataPtr data_;
    const char *text_ = nullptr; // points into data_
};

// The values that a path selects.
class Values
{
  public:
    Values(KelDb *db, const Path &path);
    ~Values() { sr_free_values(values_, count_); }
    Values(const Values &) = delete;
    Values &operator=(const Values &) = delete;

    explicit operator bool() const { return read_; }
    std::span<const sr_val_t> all() const { return {values_, count_}; }

  private:
    sr_val_t *values_ = nullptr;
    std::size_t count_ = 0;
    bool read_ = false;
};

std::optional<std::uint32_t> read_number(KelDb *db, const Path &path);
bool exists(KelDb *db, const Path &path);

int copy_text(const Leaf &leaf, char *text, std::uint32_t *size);

template <typename Number> int copy_number(KelDb *db, const Path &path, Number *value, std::uint32_t *size)
{
    if (value == nullptr || size == nullptr || *size < sizeof *value)
        return FAILED;
    const std::optional<std::uint32_t> number = read_number(db, path);
    if (!number)
        return FAILED;
    *value = static_cast<Number>(*number);
    *size = sizeof *value;
    return 0;
}

// How long a write tries again that found the datastore locked or busy, on a thread without a pause function.
constexpr std::chrono::milliseconds WRITE_PATIENCE(15000);
// The protocol's own writes: its dispatcher has other things to do, and comes back to them.
constexpr std::chrono::milliseconds PROTOCOL_PATIENCE(300);

// One transaction on the calling thread's session. What was not applied is given up.
class Transaction
{
  public:
    explicit Transaction(KelDb *db);
    ~Transaction();
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;

    // Creates what is missing above the node, or sets it in a parent that must be there.
    Transaction &set(const Path &path, const char *value) { return stage_set(path, value, SR_EDIT_DEFAULT); }
    Transaction &set_within(const Path &path, const char *value)
    {
        return stage_set(path, value, SR_EDIT_NON_RECURSIVE);
    }
    // Removes the node when it is there, or one that must be there.
    Transaction &remove(const Path &path) { return stage_removal(path, SR_EDIT_DEFAULT); }
    Transaction &remove_present(const Path &path) { return stage_removal(path, SR_EDIT_STRICT); }

    // 0 when the datastore holds the change and every handler has accepted it. Waits for other writers, within
    // bounds; a refusal is explained on standard error.
    int apply() { return apply_within(WRITE_PATIENCE); }
    int apply_within(std::chrono::milliseconds patience);

  private:
    Transaction &stage_set(const Path &path, const char *value, sr_edit_options_t options);
    Transaction &stage_removal(const Path &path, sr_edit_options_t options);
    int apply_once();
    bool worth_another_try(int code) const;
    static bool go_on(Clock::duration waited, std::chrono::milliseconds patience);
    bool tell_of_lock(Clock::duration waited) const;
    std::string reason() const;

    KelDb *db_;
    sr_session_ctx_t *session_;
    bool may_write_;
    int result_;
    std::optional<Path> first_path_; // for the explanation
};

} // namespace kel
