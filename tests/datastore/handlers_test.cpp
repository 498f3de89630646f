// The daemon's own handlers behind the real datastore: what a write does to the engine and to the switch driver.
#include "private_repository.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "fake_driver.h"
#include "fake_system.h"
#include "lac_dispatch.h"
#include "lac_port.h"
#include "lac_task.h"
#include "lacp_database.h"
#include "lacp_sclient.h"

#include <chrono>
#include <functional>
#include <thread>

namespace
{

constexpr std::uint32_t PORTS = 5;
constexpr auto PATIENCE = std::chrono::seconds(5);

// Waits for what the dispatcher or the datastore's thread does on its own time.
template <typename Condition> bool eventually(const Condition &condition)
{
    const auto give_up = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > give_up)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string hex_words(const fake::Message &message)
{
    std::string text = std::to_string(message.at(7));
    for (std::size_t at = SCLIENT_HEADER_SIZE; at < message.size(); at += 4)
        text += " " + std::to_string(message[at + 3]);
    return text;
}

// Requests as "ID FIELD FIELD ...".
std::vector<std::string> driver_requests()
{
    std::vector<std::string> texts;
    for (const fake::Message &message : fake::take_messages())
        texts.push_back(hex_words(message));
    return texts;
}

bool driver_was_asked()
{
    const std::lock_guard guard(fake::driver().lock);
    return !fake::driver().sent.empty();
}

using Requests = std::vector<std::string>;

std::string trunk(std::uint32_t port, const char *leaf)
{
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port) + "']/olt-lacp:trunk/" +
           leaf;
}

// The engine with its dispatcher on a thread of its own, subscribed to a datastore with five ports.
class HandlersTest : public DatastoreTest
{
  protected:
    void SetUp() override
    {
        DatastoreTest::SetUp();
        add_ports(PORTS);
        fake::system().mac = {0x02, 0, 0, 0, 0, 0x0A};
        fake::system().on_run = [](const std::string &name) {
            if (name == "lacpRecv") // the tests send their own ticks
                fake::start_thread(name);
        };
        ASSERT_EQ(database_init(&g_lacpd_db), 0);
        intf = {1, PORTS};
        lacp_sclient_init(nullptr, 0, nullptr);
        lac_set_dispatcher(lacDispatch);
        channel_group_daemon_init();
        ASSERT_EQ(lacp_database_subs(&g_lacpd_db), 0);
    }

    static const LacPort &port(std::uint32_t number) { return *lacNoToPort(number); }

    static std::uint32_t type_in_table(int group)
    {
        std::uint32_t type = 0;
        EXPECT_EQ(get_channel_group_type(group, &type), LAC_OK);
        return type;
    }

    static std::uint32_t members_in_table(int group)
    {
        std::uint32_t list = 0;
        EXPECT_EQ(get_channel_group_port_list(group, &list), LAC_OK);
        return list;
    }

    int add(std::uint32_t number, int group, const char *mode)
    {
        return db_add_channel_group(&db, 0, number, group, mode);
    }
    int del(std::uint32_t number, int group) { return db_del_channel_group(&db, 0, number, group); }
    void set_link(std::uint32_t number, bool up)
    {
        ASSERT_EQ(db_olt_ifm_set_interface_basic_link_status(0, number, &db, up), 0);
    }
};

TEST_F(HandlersTest, FirstDynamicGroupSwitchesLacpOnAndItsPortsJoin)
{
    ASSERT_EQ(add(1, 2, "passive"), 0);
    EXPECT_EQ(type_in_table(2), CHANNEL_GROUP_DYNAMIC);
    EXPECT_EQ(get_lac_global_enable(), 1u);
    ASSERT_TRUE(eventually([] { return port(1).lacp_enabled == 1; }));
    EXPECT_EQ(port(1).channel_group_id, 2u);
    EXPECT_EQ(port(1).actor_oper_key, 2);
    EXPECT_EQ(port(1).actor_oper_state & LAC_ACTIVITY, 0);
    EXPECT_EQ(port(2).lacp_enabled, 0u);
    EXPECT_TRUE(driver_requests().empty());
}

TEST_F(HandlersTest, ManualGroupFollowsMembersLinksAndCriterion)
{
    set_link(1, true);
    ASSERT_EQ(add(1, 1, "on"), 0);
    EXPECT_EQ(driver_requests(), Requests{"10 1 9 1 1"});
    ASSERT_EQ(add(3, 1, "on"), 0); // its link is down
    EXPECT_TRUE(driver_requests().empty());
    set_link(3, true);
    ASSERT_TRUE(eventually(driver_was_asked));
    EXPECT_EQ(driver_requests(), Requests{"10 1 9 5 2"});
    ASSERT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-dst-ip", 11, 1), 0);
    EXPECT_EQ(driver_requests(), Requests{"12 1 18"});
    ASSERT_EQ(del(1, 1), 0);
    EXPECT_EQ(driver_requests(), Requests{"10 1 18 4 1"});
    ASSERT_EQ(del(3, 1), 0);
    EXPECT_EQ(driver_requests().front(), "11 1");
    EXPECT_EQ(type_in_table(1), CHANNEL_GROUP_UNSET);
    ASSERT_EQ(add(3, 1, "on"), 0); // the criterion is the operator's and has stayed
    EXPECT_EQ(driver_requests(), Requests{"10 1 18 4 1"});
}

TEST_F(HandlersTest, RefusalsLeaveDatastoreAndTableAsTheyWere)
{
    for (std::uint32_t number = 1; number <= 4; ++number)
        ASSERT_EQ(add(number, 1, "on"), 0);
    const std::string before = dump_datastore();
    EXPECT_NE(add(5, 1, "on"), 0) << "a fifth member";
    EXPECT_NE(add(5, 1, "active"), 0) << "the other type";
    EXPECT_NE(add(PORTS + 1, 2, "on"), 0) << "a port that is not there";
    EXPECT_NE(foreign_write("/olt-lacp:channel-group/group[id='1']/lacp-type", "dynamic"), 0) << "another type";
    EXPECT_NE(db_olt_ifm_add_interface(0, PORTS + 1, &db, false), 0) << "a port that the daemon does not have";
    EXPECT_EQ(dump_datastore(), before);
    EXPECT_EQ(members_in_table(1), 0xFu);
    EXPECT_EQ(type_in_table(1), CHANNEL_GROUP_MANUAL);
    EXPECT_EQ(type_in_table(2), CHANNEL_GROUP_UNSET);
}

TEST_F(HandlersTest, ConfiguredValuesSurviveLeavingAndJoiningAgain)
{
    ASSERT_EQ(db_olt_lacp_set_trunk_priority(0, 2, &db, 100, 2, 1), 0); // before LACP is switched on
    ASSERT_EQ(db_olt_lacp_set_global_configuration_system_priority(&db, 77, 2, 1), 0);
    ASSERT_EQ(add(2, 1, "passive"), 0);
    ASSERT_EQ(db_olt_lacp_set_trunk_timeout(0, 2, &db, "short", 6, 1), 0);
    const auto as_configured = [] {
        return port(2).lacp_enabled == 1 && port(2).actor_port_priority == 100 &&
               port(2).actor_system_priority == 77 &&
               (port(2).actor_oper_state & (LAC_ACTIVITY | LAC_TIMEOUT)) == LAC_TIMEOUT;
    };
    EXPECT_TRUE(eventually(as_configured));
    ASSERT_EQ(del(2, 1), 0);
    ASSERT_TRUE(eventually([] { return port(2).lacp_enabled == 0; }));
    ASSERT_EQ(add(2, 1, "passive"), 0);
    EXPECT_TRUE(eventually(as_configured));
    ASSERT_EQ(del(2, 1), 0);
    ASSERT_EQ(add(2, 1, "active"), 0);
    EXPECT_TRUE(eventually([] { return (port(2).actor_oper_state & LAC_ACTIVITY) != 0; }));
}

TEST_F(HandlersTest, PortMovesStraightBetweenDynamicGroupsByAnotherClient)
{
    ASSERT_EQ(add(1, 1, "active"), 0);
    ASSERT_EQ(add(2, 2, "active"), 0);
    ASSERT_EQ(foreign_write(trunk(1, "channel-group"), "2"), 0);
    EXPECT_TRUE(eventually([] { return port(1).channel_group_id == 2 && port(1).lacp_enabled == 1; }));
    EXPECT_EQ(port(1).actor_oper_key, 2);
    ASSERT_EQ(foreign_write(trunk(1, "channel-group"), "0"), 0);
    EXPECT_TRUE(eventually([] { return port(1).lacp_enabled == 0; }));
}

// The modules' handlers are called in the order in which the writes came.
TEST_F(HandlersTest, GroupAndPortsInOneTransactionOfAnotherClientJoinInAnyOrder)
{
    const ForeignWrite group1{"/olt-lacp:channel-group/group[id='1']/lacp-type", "dynamic"};
    const ForeignWrite group2{"/olt-lacp:channel-group/group[id='2']/lacp-type", "dynamic"};
    ASSERT_EQ(foreign_writes({{trunk(1, "channel-group"), "1"}, group1}), 0);
    ASSERT_EQ(foreign_writes({group2, {trunk(2, "channel-group"), "2"}}), 0);
    EXPECT_TRUE(eventually([] { return port(1).lacp_enabled == 1 && port(2).lacp_enabled == 1; }));
    EXPECT_EQ(port(1).channel_group_id, 1u);
    EXPECT_EQ(port(2).channel_group_id, 2u);
}

TEST_F(HandlersTest, GroupDeletedByAnotherClientTakesItsTrunkAlong)
{
    set_link(1, true);
    ASSERT_EQ(add(1, 1, "on"), 0);
    ASSERT_EQ(add(2, 2, "active"), 0);
    ASSERT_TRUE(eventually([] { return port(2).lacp_enabled == 1; }));
    driver_requests();
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='1']", nullptr), 0);
    EXPECT_EQ(driver_requests(), Requests{"11 1"});
    EXPECT_EQ(members_in_table(1), 0u);
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='2']", nullptr), 0);
    EXPECT_TRUE(eventually([] { return port(2).lacp_enabled == 0; }));
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='2']/lacp-type", "dynamic"), 0);
    EXPECT_TRUE(eventually([] { return port(2).lacp_enabled == 1; })) << "a port still configured for the group";
}

TEST_F(HandlersTest, MembersWrittenByTheProtocolReachTheTrunk)
{
    set_link(3, true);
    ASSERT_EQ(add(3, 4, "active"), 0);
    ASSERT_EQ(db_olt_lacp_set_group_member_port(4, &g_lacpd_db, "gigabitethernet 0/3", 32, 1), 0);
    EXPECT_EQ(driver_requests(), Requests{"10 4 9 4 1"});
    ASSERT_EQ(db_olt_lacp_del_group_member_port(4, 0, 3, &g_lacpd_db), 0);
    EXPECT_EQ(driver_requests(), Requests{"11 4"});
    EXPECT_NE(db_olt_lacp_del_group_member_port(4, 0, 3, &g_lacpd_db), 0);
}

// Refuses, as another process might, every change of a path, once the daemon has accepted it.
class Refusal
{
  public:
    Refusal(const char *module, const char *path, std::function<bool()> accepted) : accepted_(std::move(accepted))
    {
        sr_session_ctx_t *session = nullptr;
        EXPECT_EQ(sr_connect(SR_CONN_DEFAULT, &connection_), SR_ERR_OK);
        EXPECT_EQ(sr_session_start(connection_, SR_DS_RUNNING, &session), SR_ERR_OK);
        EXPECT_EQ(sr_module_change_subscribe(session, module, path, refuse, this, 0, SR_SUBSCR_DEFAULT, &context_),
                  SR_ERR_OK);
    }
    ~Refusal()
    {
        sr_unsubscribe(context_);
        sr_disconnect(connection_);
    }
    Refusal(const Refusal &) = delete;
    Refusal &operator=(const Refusal &) = delete;

  private:
    static int refuse(sr_session_ctx_t *, std::uint32_t, const char *, const char *, sr_event_t event, std::uint32_t,
                      void *self)
    {
        if (event != SR_EV_CHANGE)
            return SR_ERR_OK;
        EXPECT_TRUE(eventually(static_cast<Refusal *>(self)->accepted_));
        return SR_ERR_OPERATION_FAILED;
    }

    std::function<bool()> accepted_;
    sr_conn_ctx_t *connection_ = nullptr;
    sr_subscription_ctx_t *context_ = nullptr;
};

TEST_F(HandlersTest, WhatAnotherSubscriberRefusesIsTakenBack)
{
    set_link(1, true);
    const auto member_in_table = [] { return members_in_table(1) != 0; };
    const auto joined = [] { return port(1).lacp_enabled == 1; };
    {
        const Refusal trunks("olt-ifm", trunk(1, "channel-group").c_str(), joined);
        EXPECT_NE(add(1, 1, "active"), 0);
        EXPECT_TRUE(eventually([&] { return !joined() && Lac_Queue.count() == 0; }));
        EXPECT_EQ(type_in_table(1), CHANNEL_GROUP_UNSET);
    }
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='1']/lacp-type", "manual"), 0);
    {
        const Refusal members("olt-lacp", "/olt-lacp:channel-group/group/member-port", member_in_table);
        EXPECT_NE(add(1, 1, "on"), 0);
        EXPECT_TRUE(eventually([&] { return !member_in_table(); }));
    }
    EXPECT_EQ(add(1, 1, "on"), 0);
    EXPECT_EQ(driver_requests(), (Requests{"10 1 9 1 1", "11 1", "10 1 9 1 1"}));
}

TEST_F(HandlersTest, SystemIdentifierIsReplacedAsAWhole)
{
    ASSERT_EQ(foreign_write("/olt-lacp:global-configuration/system-id", "0011.22aa.bbcc"), 0);
    const Mac expected = {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC};
    EXPECT_TRUE(eventually([&] { return lacSystem->system_mac.get() == expected; }));
}

TEST_F(HandlersTest, StartUpClearsWhatAnEarlierRunConfigured)
{
    ASSERT_EQ(add(1, 1, "on"), 0);
    ASSERT_EQ(add(2, 2, "passive"), 0);
    ASSERT_EQ(db_olt_lacp_set_trunk_timeout(0, 2, &db, "short", 6, 1), 0);
    ASSERT_EQ(db_olt_lacp_set_trunk_priority(0, 2, &db, 5, 2, 1), 0);
    ASSERT_EQ(db_olt_lacp_set_global_configuration_system_priority(&db, 5, 2, 1), 0);
    lacp_database_clear(&g_lacpd_db);
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
        EXPECT_EQ(type_of(group), "");
    for (std::uint32_t number = 1; number <= PORTS; ++number) {
        EXPECT_EQ(group_of(number), 0);
        EXPECT_EQ(mode_of(number), "");
    }
    std::uint16_t priority = 0;
    std::uint32_t size = sizeof priority;
    EXPECT_NE(db_olt_lacp_get_global_configuration_system_priority(&db, &priority, &size), 0);
    ASSERT_EQ(db_olt_lacp_get_trunk_priority(0, 2, &db, &priority, &(size = sizeof priority)), 0);
    EXPECT_EQ(priority, LAC_DEFAULT_PRIORITY);
}

} // namespace
