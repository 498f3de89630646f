// A sysrepo repository of this process's own, with the YANG modules in it, and what tests need around it.
#pragma once

#include "keldatabase/keldatabase.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

// Makes the repository before the first test and removes it after the last; sysrepo keeps its path for the life of
// the process.
class PrivateRepository : public testing::Environment
{
  public:
    void SetUp() override;
    void TearDown() override;
};

// All configuration of both modules as text, to compare states.
std::string dump_datastore();
// Sets or (null value) deletes a path as any other datastore client would. The result is sysrepo's.
int foreign_write(const std::string &path, const char *value);
// The same with several paths in one transaction.
struct ForeignWrite {
    std::string path;
    const char *value;
};
int foreign_writes(const std::vector<ForeignWrite> &writes);

// Changes as a subscriber of the daemon's paths sees them, and what a test makes its handlers do.
class ChangeRecorder
{
  public:
    struct Change {
        std::uint32_t transaction;
        std::string text; // "created group 1/lacp-type manual", "modified port 3/channel-group 2 -> 0"
    };

    // Called on the library's thread with the text of every change; non-zero refuses the transaction.
    using Reaction = std::function<int(const std::string &change)>;

    static ChangeRecorder &instance();
    static const DbModuleCbs *const *tables();

    void reset(Reaction reaction = {});
    int take(std::uint32_t transaction, std::string text);

    std::vector<std::string> texts();
    std::vector<Change> changes();
    // True when the change has come, at once or within a few seconds.
    bool saw(std::string_view text);

  private:
    std::mutex lock_;
    std::vector<Change> changes_;
    Reaction reaction_;
};

// An empty datastore and a connected handle.
class DatastoreTest : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    void add_ports(std::uint32_t count, bool link_up = false);
    void subscribe(ChangeRecorder::Reaction reaction = {});

    std::string mode_of(std::uint32_t port);
    int group_of(std::uint32_t port); // -1 when the leaf is not there
    std::string type_of(int group);
    std::string load_balance_of(int group);
    std::vector<std::string> members_of(int group);

    KelDb db{};
};
