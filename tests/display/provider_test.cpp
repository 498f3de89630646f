// The provider of operational state behind a real datastore: another process asks while the records change.
#include "private_repository.h"

#include "lac_port.h"
#include "lacp_database.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <set>
#include <thread>

namespace
{

struct Value {
    const char *leaf;
    const char *actor[2]; // in either state of the records
    const char *partner[2];
};

constexpr Value VALUES[] = {
    {"id", {"1", "65535"}, {"21", "4321"}},
    {"oper-key", {"100", "54321"}, {"7", "65535"}},
    {"port-state", {"63", "128"}, {"61", "2"}},
    {"synchronization", {"true", "false"}, {"true", "false"}},
    {"col-dis", {"true", "false"}, {"true", "false"}},
    {"priority", {"32768", "1"}, {"128", "65535"}},
    {"timeout", {"short", "long"}, {"long", "short"}},
    {"mode", {"active", "passive"}, {"active", "passive"}},
    {"system-id", {"0011.2233.4455", "ffee.ddcc.bbaa"}, {"0233.4455.6677", "fdcc.bbaa.9988"}},
    {"system-priority", {"32768", "9"}, {"4096", "0"}},
};

void set_records(LacPort &port, int state)
{
    const bool first = state == 0;
    port.actor_system_priority = first ? 32768 : 9;
    port.actor_system = first ? Mac{0x00, 0x11, 0x22, 0x33, 0x44, 0x55} : Mac{0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA};
    port.actor_oper_key = first ? 100 : 54321;
    port.actor_port_priority = first ? 32768 : 1;
    port.actor_port = first ? 1 : 65535;
    port.actor_oper_state = first ? 63 : 128;
    port.coll_dist = first ? 1 : 0;
    const LacInfo near = {4096, {0x02, 0x33, 0x44, 0x55, 0x66, 0x77}, 7, 128, 21, 61, {}};
    const LacInfo far = {0, {0xFD, 0xCC, 0xBB, 0xAA, 0x99, 0x88}, 65535, 65535, 4321, 2, {}};
    lac_set_partner_info(&port, first ? near : far);
}

std::string entry(int port, const std::string &role)
{
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port) +
           "']/olt-lacp:trunk-info/port[role='" + role + "']";
}

// What the reader says, a line an answer.
std::vector<std::string> ask(int times, const std::vector<std::string> &paths)
{
    std::string command = std::string(LACPD_READER) + " " + std::to_string(times);
    for (const std::string &path : paths)
        command += " \"" + path + "\"";
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    std::vector<std::string> lines;
    char line[1024];
    while (pipe && fgets(line, sizeof line, pipe.get()) != nullptr)
        lines.emplace_back(line, strcspn(line, "\n"));
    return lines;
}

std::vector<std::string> leaf_paths(const std::string &role)
{
    std::vector<std::string> paths;
    for (const Value &value : VALUES)
        paths.push_back(entry(1, role) + "/" + value.leaf);
    return paths;
}

class Provider : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        lacp_database_init(&g_lacpd_db);
        for (const std::uint32_t port : {1, 2})
            ASSERT_EQ(db_olt_ifm_add_interface(0, port, &g_lacpd_db, true), 0);
        lacpCtrl.port_count = 1; // the second has an interface entry and no record
        lac_LacInit();
        ASSERT_EQ(lacp_database_subs(&g_lacpd_db), 0);
    }
    static void TearDownTestSuite() { database_close(&g_lacpd_db); }

    void SetUp() override { set_records(*lacNoToPort(1), 0); }

    // The reader's lines and what the daemon printed meanwhile.
    static std::pair<std::vector<std::string>, std::string> heard(const std::vector<std::string> &paths)
    {
        testing::internal::CaptureStdout();
        std::vector<std::string> lines = ask(1, paths);
        return {lines, testing::internal::GetCapturedStdout()};
    }
};

// The value of one-leaf answers, whatever keys come with it.
std::string value_of(const std::string &line, const char *leaf)
{
    const std::string mark = std::string(" ") + leaf + "=";
    const std::size_t at = line.find(mark);
    return at == std::string::npos ? line : line.substr(at + mark.size(), line.find(' ', at + 1) - at - mark.size());
}

TEST_F(Provider, EveryLeafOfBothSides)
{
    for (const int state : {0, 1}) {
        set_records(*lacNoToPort(1), state);
        for (const std::string role : {"actor", "partner"}) {
            const auto lines = ask(1, leaf_paths(role));
            ASSERT_EQ(lines.size(), std::size(VALUES));
            for (std::size_t i = 0; i < std::size(VALUES); ++i) {
                const char *const *values = role == "actor" ? VALUES[i].actor : VALUES[i].partner;
                EXPECT_EQ(value_of(lines[i], VALUES[i].leaf), values[state]) << lines[i];
            }
        }
    }
}

TEST_F(Provider, APortWithoutARecordHasNoData)
{
    const auto [lines, said] = heard({entry(2, "actor") + "/id", entry(3, "partner") + "/mode"});
    EXPECT_EQ(lines, (std::vector<std::string>{"1 -", "2 -"}));
    EXPECT_EQ(said, "");
}

TEST_F(Provider, ALeafThatItDoesNotKnowIsNamed)
{
    const auto [lines, said] = heard({entry(1, "actor") + "/role"});
    EXPECT_EQ(lines.size(), 1U);
    EXPECT_EQ(said, "LACP Msg: leaf \"role\" doesn't exist!\n");
}

TEST_F(Provider, WholeEntriesAreNotAnswered)
{
    const auto [lines, said] = heard({entry(1, "actor"), entry(1, "partner") + "/*"});
    ASSERT_EQ(lines.size(), 2U);
    for (const std::string &line : lines)
        EXPECT_EQ(line.find("system-id"), std::string::npos) << line;
    EXPECT_NE(said.find("LACP Msg: leaf \"\" doesn't exist!\n"), std::string::npos) << said;
    EXPECT_EQ(value_of(ask(1, {entry(1, "actor") + "/mode"}).at(0), "mode"), "active") << "and it still answers";
}

TEST_F(Provider, ValuesAreWholeWhileTheRecordsChange)
{
    std::atomic<bool> stop = false;
    std::thread writer([&stop] {
        for (int state = 0; !stop; state = 1 - state)
            set_records(*lacNoToPort(1), state);
    });
    std::set<std::string> seen;
    for (const std::string role : {"actor", "partner"}) {
        const auto lines = ask(60, leaf_paths(role));
        EXPECT_EQ(lines.size(), 60 * std::size(VALUES));
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const Value &expected = VALUES[i % std::size(VALUES)];
            const char *const *values = role == "actor" ? expected.actor : expected.partner;
            const std::string value = value_of(lines[i], expected.leaf);
            EXPECT_TRUE(value == values[0] || value == values[1]) << lines[i];
            seen.insert(role + expected.leaf + value);
        }
    }
    stop = true;
    writer.join();
    EXPECT_EQ(seen.size(), 4 * std::size(VALUES)) << "both values of every leaf of both sides were met";
}

TEST_F(Provider, RequestsCostNoMemory)
{
    const auto paths = leaf_paths("partner");
    const auto in_use = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    ask(20, paths);
    const std::size_t before = in_use();
    ASSERT_EQ(ask(200, paths).size(), 2000U);
    EXPECT_LE(in_use(), before + 16'384) << "2000 requests";
}

} // namespace
