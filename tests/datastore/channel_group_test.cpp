#include "private_repository.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace
{

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

class ChannelGroupTest : public DatastoreTest
{
  protected:
    int add(std::uint32_t port, int group, const char *mode)
    {
        return db_add_channel_group(&db, 0, port, group, mode);
    }
    int remove(std::uint32_t port, int group) { return db_del_channel_group(&db, 0, port, group); }
};

ChangeRecorder &recorder()
{
    return ChangeRecorder::instance();
}

// The changes of two modules in one transaction come in either order.
Texts sorted(Texts texts)
{
    std::ranges::sort(texts);
    return texts;
}

std::string name(std::uint32_t port)
{
    return "gigabitethernet 0/" + std::to_string(port);
}

TEST_F(ChannelGroupTest, TheTypeComesBeforeThePort)
{
    add_ports(2);
    subscribe();
    EXPECT_EQ(add(2, 3, "passive"), 0);
    EXPECT_EQ(recorder().texts(),
              (Texts{"created group 3", "created group 3/id 3", "created group 3/lacp-type dynamic",
                     "created port 2/mode passive", "modified port 2/channel-group 0 -> 3"}));
    EXPECT_EQ(type_of(3), "dynamic");
    EXPECT_EQ(mode_of(2), "passive");
    EXPECT_EQ(group_of(2), 3);
    EXPECT_EQ(members_of(3), Texts{}) << "the daemon adds members of a dynamic group";
}

TEST_F(ChannelGroupTest, ManualPortIsAMemberAtOnce)
{
    add_ports(2);
    subscribe();
    EXPECT_EQ(add(1, 1, "on"), 0);
    EXPECT_EQ(members_of(1), Texts{name(1)});
    EXPECT_EQ(type_of(1), "manual");
    const auto changes = recorder().changes();
    ASSERT_EQ(changes.size(), 6U);
    EXPECT_EQ(changes[2].text, "created group 1/lacp-type manual");
    EXPECT_EQ(changes[3].text, "created port 1/mode on");
    EXPECT_EQ(sorted({changes[4].text, changes[5].text}),
              (Texts{"created group 1/member-port gigabitethernet 0/1", "modified port 1/channel-group 0 -> 1"}));
    EXPECT_EQ(changes[4].transaction, changes[5].transaction) << "one transaction, so that both happen or none";
    EXPECT_NE(changes[3].transaction, changes[4].transaction);
}

TEST_F(ChannelGroupTest, OtherTypeIsRefusedBeforeAnythingIsWritten)
{
    add_ports(2);
    ASSERT_EQ(add(1, 1, "on"), 0);
    const std::string before = dump_datastore();
    subscribe();
    EXPECT_NE(add(2, 1, "active"), 0);
    EXPECT_NE(add(1, 1, "active"), 0) << "not even for the only port of the group";
    EXPECT_EQ(recorder().texts(), Texts{});
    EXPECT_EQ(dump_datastore(), before);
}

TEST_F(ChannelGroupTest, NonsenseIsRefusedBeforeAnythingIsWritten)
{
    add_ports(2);
    const std::string before = dump_datastore();
    subscribe();
    EXPECT_NE(add(1, 0, "on"), 0);
    EXPECT_NE(add(1, 5, "on"), 0);
    EXPECT_NE(add(1, 1, "auto"), 0);
    EXPECT_NE(add(1, 1, ""), 0);
    EXPECT_NE(add(1, 1, nullptr), 0);
    EXPECT_NE(add(3, 1, "on"), 0) << "no interface entry";
    EXPECT_NE(db_add_channel_group(&db, 1, 1, 1, "on"), 0) << "no such slot";
    EXPECT_NE(remove(1, 1), 0);
    EXPECT_NE(remove(1, 0), 0);
    EXPECT_NE(remove(3, 1), 0);
    EXPECT_EQ(recorder().texts(), Texts{});
    EXPECT_EQ(dump_datastore(), before);
}

TEST_F(ChannelGroupTest, PortNamedTwiceChangesItsModeOnly)
{
    add_ports(1);
    ASSERT_EQ(add(1, 2, "active"), 0);
    subscribe();
    EXPECT_EQ(add(1, 2, "passive"), 0);
    EXPECT_EQ(recorder().texts(), Texts{"modified port 1/mode active -> passive"});
    recorder().reset();
    EXPECT_EQ(add(1, 2, "passive"), 0);
    EXPECT_EQ(recorder().texts(), Texts{});
}

TEST_F(ChannelGroupTest, ManualPortNamedTwiceIsOneMember)
{
    add_ports(1);
    ASSERT_EQ(add(1, 2, "on"), 0);
    subscribe();
    EXPECT_EQ(add(1, 2, "on"), 0);
    EXPECT_EQ(members_of(2), Texts{name(1)});
    EXPECT_EQ(recorder().texts(), Texts{});
}

TEST_F(ChannelGroupTest, ManualPortLeavesInOneTransaction)
{
    add_ports(2);
    ASSERT_EQ(add(1, 1, "on"), 0);
    ASSERT_EQ(add(2, 1, "on"), 0);
    subscribe();
    EXPECT_EQ(remove(1, 1), 0);
    const auto changes = recorder().changes();
    ASSERT_EQ(changes.size(), 3U);
    EXPECT_EQ(sorted({changes[0].text, changes[1].text}),
              (Texts{"deleted group 1/member-port gigabitethernet 0/1", "modified port 1/channel-group 1 -> 0"}));
    EXPECT_EQ(changes[2].text, "deleted port 1/mode on");
    EXPECT_EQ(changes[0].transaction, changes[1].transaction);
    EXPECT_NE(changes[1].transaction, changes[2].transaction);
    EXPECT_EQ(members_of(1), Texts{name(2)});
    EXPECT_EQ(type_of(1), "manual") << "a port is left";
}

TEST_F(ChannelGroupTest, LastPortTakesTheEntryWithIt)
{
    add_ports(1);
    ASSERT_EQ(add(1, 1, "on"), 0);
    subscribe();
    EXPECT_EQ(remove(1, 1), 0);
    const Texts texts = recorder().texts();
    ASSERT_GE(texts.size(), 4U);
    EXPECT_EQ(texts[3], "deleted group 1") << "first deletion of its transaction";
    EXPECT_EQ(recorder().changes()[3].transaction, recorder().changes().back().transaction);
    EXPECT_EQ(type_of(1), "");
    EXPECT_EQ(add(1, 1, "active"), 0) << "the other type is free";
}

TEST_F(ChannelGroupTest, LoadBalanceOutlivesThePorts)
{
    add_ports(1);
    ASSERT_EQ(db_olt_lacp_set_group_load_balance(4, &db, "src-ip", 8, 1), 0);
    ASSERT_EQ(add(1, 4, "active"), 0);
    EXPECT_EQ(load_balance_of(4), "src-ip");
    subscribe();
    EXPECT_EQ(remove(1, 4), 0);
    EXPECT_EQ(load_balance_of(4), "src-ip");
    EXPECT_EQ(type_of(4), "");
    const auto changes = recorder().changes();
    EXPECT_TRUE(recorder().saw("deleted group 4"));
    EXPECT_EQ(changes.back().text, "created group 4/load-balance src-ip");
    EXPECT_EQ(add(1, 4, "on"), 0);
    EXPECT_EQ(load_balance_of(4), "src-ip");
}

TEST_F(ChannelGroupTest, DynamicPortWaitsForTheDaemonToDetachIt)
{
    add_ports(1);
    ASSERT_EQ(add(1, 2, "active"), 0);
    ASSERT_EQ(db_olt_lacp_set_group_member_port(2, &db, "gigabitethernet 0/1", 8, 1), 0);
    std::jthread dispatcher;
    std::atomic<int> detached = -1;
    subscribe([&](const std::string &change) {
        if (change == "modified port 1/channel-group 2 -> 0") {
            dispatcher = std::jthread([&] {
                std::this_thread::sleep_for(200ms);
                detached = db_olt_lacp_del_group_member_port(2, 0, 1, &db);
            });
        }
        return 0;
    });
    EXPECT_EQ(remove(1, 2), 0);
    EXPECT_EQ(detached, 0) << "the daemon's own removal, not the accessor's";
    EXPECT_EQ(recorder().texts(),
              (Texts{"modified port 1/channel-group 2 -> 0", "deleted group 2/member-port gigabitethernet 0/1",
                     "deleted port 1/mode active", "deleted group 2", "deleted group 2/id 2",
                     "deleted group 2/lacp-type dynamic"}));
}

TEST_F(ChannelGroupTest, DynamicPortThatNobodyDetachesIsRemoved)
{
    add_ports(1);
    ASSERT_EQ(add(1, 2, "active"), 0);
    ASSERT_EQ(db_olt_lacp_set_group_member_port(2, &db, "gigabitethernet 0/1", 8, 1), 0);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(remove(1, 2), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_EQ(members_of(2), Texts{});
    EXPECT_EQ(type_of(2), "");
    EXPECT_EQ(group_of(1), 0);
}

TEST_F(ChannelGroupTest, GroupOfAnotherPortIsNotLeft)
{
    add_ports(2);
    ASSERT_EQ(add(1, 1, "active"), 0);
    ASSERT_EQ(add(2, 2, "active"), 0);
    const std::string before = dump_datastore();
    EXPECT_NE(remove(1, 2), 0);
    EXPECT_EQ(dump_datastore(), before);
}

TEST_F(ChannelGroupTest, JoiningAgainAnnouncesTheSameModeAgain)
{
    add_ports(2);
    ASSERT_EQ(add(2, 1, "active"), 0);
    ASSERT_EQ(add(1, 1, "passive"), 0);
    ASSERT_EQ(remove(1, 1), 0);
    subscribe();
    EXPECT_EQ(add(1, 1, "passive"), 0);
    EXPECT_EQ(recorder().texts(), (Texts{"created port 1/mode passive", "modified port 1/channel-group 0 -> 1"}));
}

TEST_F(ChannelGroupTest, MovingLeavesTheOldGroupFirst)
{
    add_ports(2);
    ASSERT_EQ(add(1, 1, "on"), 0);
    ASSERT_EQ(add(2, 1, "on"), 0);
    subscribe();
    EXPECT_EQ(add(1, 2, "active"), 0);
    const Texts texts = recorder().texts();
    ASSERT_GE(texts.size(), 2U);
    EXPECT_EQ(sorted(Texts(texts.begin(), texts.begin() + 2)),
              (Texts{"deleted group 1/member-port gigabitethernet 0/1", "modified port 1/channel-group 1 -> 0"}));
    EXPECT_EQ(Texts(texts.begin() + 2, texts.end()),
              (Texts{"deleted port 1/mode on", "created group 2", "created group 2/id 2",
                     "created group 2/lacp-type dynamic", "created port 1/mode active",
                     "modified port 1/channel-group 0 -> 2"}));
    EXPECT_EQ(members_of(1), Texts{name(2)});
    EXPECT_EQ(group_of(1), 2);
}

TEST_F(ChannelGroupTest, MovingTheLastPortFreesTheOldGroup)
{
    add_ports(1);
    ASSERT_EQ(add(1, 1, "on"), 0);
    EXPECT_EQ(add(1, 2, "on"), 0);
    EXPECT_EQ(type_of(1), "");
    EXPECT_EQ(members_of(1), Texts{});
    EXPECT_EQ(members_of(2), Texts{name(1)});
    EXPECT_EQ(group_of(1), 2);
}

TEST_F(ChannelGroupTest, MovingIntoAGroupOfTheOtherTypeLeavesThePortWhereItIs)
{
    add_ports(2);
    ASSERT_EQ(add(1, 1, "on"), 0);
    ASSERT_EQ(add(2, 2, "active"), 0);
    const std::string before = dump_datastore();
    EXPECT_NE(add(1, 2, "on"), 0);
    EXPECT_EQ(dump_datastore(), before);
}

TEST_F(ChannelGroupTest, FifthMemberIsRefusedByTheHandlerAndLeavesNothing)
{
    add_ports(5);
    std::atomic<int> members = 0;
    subscribe([&](const std::string &change) {
        return change.starts_with("created group 1/member-port") && ++members > 4 ? -1 : 0;
    });
    for (std::uint32_t port = 1; port <= 4; ++port) {
        ASSERT_EQ(add(port, 1, "on"), 0);
    }
    const std::string before = dump_datastore();
    EXPECT_NE(add(5, 1, "on"), 0);
    EXPECT_EQ(dump_datastore(), before);
}

struct Refusal {
    const char *label;
    const char *mode;
    const char *old_mode;     // of the port that joins, in no group
    const char *load_balance; // of the group, before it has a type
    bool occupied;            // another port is in the group
    const char *refused;      // the change that the handler refuses
};

void PrintTo(const Refusal &refusal, std::ostream *out)
{
    *out << refusal.label;
}

class RefusedJoinTest : public ChannelGroupTest, public testing::WithParamInterface<Refusal>
{
};

TEST_P(RefusedJoinTest, LeavesNothingBehind)
{
    const Refusal &refusal = GetParam();
    add_ports(2);
    if (refusal.load_balance != nullptr) {
        ASSERT_EQ(db_olt_lacp_set_group_load_balance(1, &db, refusal.load_balance, 8, 1), 0);
    }
    if (refusal.occupied) {
        ASSERT_EQ(add(2, 1, refusal.mode), 0);
    }
    if (refusal.old_mode != nullptr) {
        ASSERT_EQ(foreign_write("/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/1']/olt-lacp:trunk/mode",
                                refusal.old_mode),
                  SR_ERR_OK);
    }
    const std::string before = dump_datastore();
    std::atomic<int> refused = 0;
    subscribe([&](const std::string &change) { return change == refusal.refused ? ++refused, -1 : 0; });
    EXPECT_NE(add(1, 1, refusal.mode), 0);
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(dump_datastore(), before);
}

constexpr char MEMBER[] = "created group 1/member-port gigabitethernet 0/1";
INSTANTIATE_TEST_SUITE_P(
    EveryStep, RefusedJoinTest,
    testing::Values(
        Refusal{"type", "on", nullptr, nullptr, false, "created group 1/lacp-type manual"},
        Refusal{"type_after_load_balance", "active", nullptr, "dst-ip", false, "created group 1/lacp-type dynamic"},
        Refusal{"mode", "on", nullptr, nullptr, false, "created port 1/mode on"},
        Refusal{"mode_after_load_balance", "active", nullptr, "dst-ip", false, "created port 1/mode active"},
        Refusal{"changed_mode", "active", "passive", nullptr, true, "modified port 1/mode passive -> active"},
        Refusal{"port", "active", nullptr, nullptr, false, "modified port 1/channel-group 0 -> 1"},
        Refusal{"port_with_old_mode", "active", "passive", "src-ip", false, "modified port 1/channel-group 0 -> 1"},
        Refusal{"port_of_a_group_in_use", "passive", nullptr, "src-ip", true, "modified port 1/channel-group 0 -> 1"},
        Refusal{"member", "on", nullptr, nullptr, false, MEMBER},
        Refusal{"member_after_load_balance", "on", nullptr, "src-mac", false, MEMBER},
        Refusal{"member_of_a_group_in_use", "on", nullptr, nullptr, true, MEMBER}),
    [](const auto &info) { return std::string(info.param.label); });

class RefusedMoveTest : public ChannelGroupTest, public testing::WithParamInterface<const char *>
{
};

TEST_P(RefusedMoveTest, PortIsBackInItsGroup)
{
    add_ports(2);
    ASSERT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-dst-ip", 8, 1), 0);
    ASSERT_EQ(add(1, 1, "passive"), 0);
    const std::string before = dump_datastore();
    const std::string refused = GetParam();
    subscribe([&](const std::string &change) { return change == refused ? -1 : 0; });
    EXPECT_NE(add(1, 2, "active"), 0);
    EXPECT_TRUE(recorder().saw(refused));
    EXPECT_EQ(dump_datastore(), before);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, RefusedMoveTest,
                         testing::Values("modified port 1/channel-group 1 -> 0", "created group 2/lacp-type dynamic",
                                         "created port 1/mode active", "modified port 1/channel-group 0 -> 2"));

TEST_F(ChannelGroupTest, RefusedLeavingOfAManualGroupChangesNothing)
{
    add_ports(1);
    ASSERT_EQ(add(1, 1, "on"), 0);
    const std::string before = dump_datastore();
    subscribe([](const std::string &change) { return change.starts_with("deleted group 1/member-port") ? -1 : 0; });
    EXPECT_NE(remove(1, 1), 0);
    EXPECT_EQ(dump_datastore(), before);
}

} // namespace
