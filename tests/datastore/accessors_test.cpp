#include "private_repository.h"
#include "sysutil/sysutil.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace
{

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

class AccessorTest : public DatastoreTest
{
};

std::uint16_t system_priority(KelDb &db)
{
    std::uint16_t value = 0;
    std::uint32_t size = sizeof value;
    EXPECT_EQ(db_olt_lacp_get_global_configuration_system_priority(&db, &value, &size), 0);
    return value;
}

std::uint16_t port_priority(KelDb &db, std::uint32_t port)
{
    std::uint16_t value = 0;
    std::uint32_t size = sizeof value;
    EXPECT_EQ(db_olt_lacp_get_trunk_priority(0, port, &db, &value, &size), 0);
    return value;
}

std::string link_status(KelDb &db, std::uint32_t port)
{
    std::array<char, 8> text{};
    std::uint32_t size = text.size();
    return db_olt_ifm_get_interface_basic_link_status(0, port, &db, text.data(), &size) == 0 ? text.data() : "";
}

std::string port_timeout(KelDb &db, std::uint32_t port)
{
    std::array<char, 16> text{};
    std::uint32_t size = text.size();
    return db_olt_lacp_get_trunk_timeout(0, port, &db, text.data(), &size) == 0 ? text.data() : "";
}

TEST_F(AccessorTest, SystemPriorityIsWrittenReadAndDeleted)
{
    std::uint16_t value = 0;
    std::uint32_t size = sizeof value;
    EXPECT_NE(db_olt_lacp_get_global_configuration_system_priority(&db, &value, &size), 0);
    for (const int priority : {0, 100, 65535}) {
        EXPECT_EQ(
            db_olt_lacp_set_global_configuration_system_priority(&db, static_cast<std::uint16_t>(priority), 2, 1), 0);
        EXPECT_EQ(system_priority(db), priority);
    }
    EXPECT_EQ(db_olt_lacp_del_global_configuration_system_priority(&db), 0);
    EXPECT_NE(db_olt_lacp_get_global_configuration_system_priority(&db, &value, &size), 0);
}

TEST_F(AccessorTest, NumbersNeedTheirWidth)
{
    ASSERT_EQ(db_olt_lacp_set_global_configuration_system_priority(&db, 7, 2, 1), 0);
    std::uint16_t value = 0;
    std::uint32_t size = 1;
    EXPECT_NE(db_olt_lacp_get_global_configuration_system_priority(&db, &value, &size), 0);
    size = 4;
    EXPECT_EQ(db_olt_lacp_get_global_configuration_system_priority(&db, &value, &size), 0);
    EXPECT_EQ(size, 2U);
    EXPECT_EQ(value, 7);
}

TEST_F(AccessorTest, WholeSystemIdentifierIsStoredWhateverTheSizeSays)
{
    subscribe();
    EXPECT_EQ(db_olt_lacp_set_global_configuration_system_id(&db, "0011.22aa.ff55", 1, 1), 0);
    EXPECT_EQ(ChangeRecorder::instance().texts(),
              Texts{"created /olt-lacp:global-configuration/system-id 0011.22aa.ff55"});
}

TEST_F(AccessorTest, TextsThatDoNotFitAreRefused)
{
    ASSERT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-dst-mac", 8, 1), 0);
    std::array<char, 30> text{};
    std::uint32_t size = 11;
    EXPECT_NE(db_olt_lacp_get_group_load_balance(1, &db, text.data(), &size), 0);
    size = 12;
    EXPECT_EQ(db_olt_lacp_get_group_load_balance(1, &db, text.data(), &size), 0);
    EXPECT_STREQ(text.data(), "src-dst-mac");
    EXPECT_EQ(size, 12U);
}

TEST_F(AccessorTest, LoadBalanceNeedsNoType)
{
    EXPECT_EQ(load_balance_of(3), "");
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(3, &db, "dst-ip", 8, 1), 0);
    EXPECT_EQ(load_balance_of(3), "dst-ip");
    EXPECT_EQ(type_of(3), "");
}

TEST_F(AccessorTest, MembersAreAddedListedAndRemoved)
{
    add_ports(4);
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='2']/lacp-type", "dynamic"), SR_ERR_OK);
    EXPECT_EQ(members_of(2), Texts{});
    EXPECT_EQ(db_olt_lacp_set_group_member_port(2, &db, "gigabitethernet 0/4", 8, 1), 0);
    EXPECT_EQ(db_olt_lacp_set_group_member_port(2, &db, "gigabitethernet 0/1", 8, 1), 0);
    EXPECT_EQ(db_olt_lacp_set_group_member_port(2, &db, "gigabitethernet 0/1", 8, 1), 0) << "already there";
    EXPECT_EQ(members_of(2).size(), 2U);
    EXPECT_EQ(db_olt_lacp_del_group_member_port(2, 0, 4, &db), 0);
    EXPECT_EQ(members_of(2), Texts{"gigabitethernet 0/1"});
    EXPECT_NE(db_olt_lacp_del_group_member_port(2, 0, 4, &db), 0) << "not there any more";
    EXPECT_NE(db_olt_lacp_del_group_member_port(3, 0, 1, &db), 0) << "no such group";
    EXPECT_EQ(members_of(2), Texts{"gigabitethernet 0/1"});
}

TEST_F(AccessorTest, JoinPortsAreListed)
{
    add_ports(2);
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='1']/join-port", "gigabitethernet 0/2"), SR_ERR_OK);
    char **texts = nullptr;
    std::uint32_t count = 0;
    ASSERT_EQ(db_olt_lacp_get_group_join_port(1, &db, &texts, &count), 0);
    ASSERT_EQ(count, 1U);
    EXPECT_STREQ(texts[0], "gigabitethernet 0/2");
    db_free_string_array_val(texts, count);
}

TEST_F(AccessorTest, TrunkSettingsAreWrittenAndReadBack)
{
    add_ports(2);
    EXPECT_EQ(port_priority(db, 1), 32768);
    EXPECT_EQ(db_olt_lacp_set_trunk_priority(0, 1, &db, 100, 2, 1), 0);
    EXPECT_EQ(port_priority(db, 1), 100);
    EXPECT_EQ(port_priority(db, 2), 32768);
    EXPECT_EQ(port_timeout(db, 1), "");
    EXPECT_EQ(db_olt_lacp_set_trunk_timeout(0, 1, &db, "short", 8, 1), 0);
    EXPECT_EQ(port_timeout(db, 1), "short");
}

TEST_F(AccessorTest, DeletingWhatIsNotThereSucceedsAndChangesNothing)
{
    add_ports(2);
    const std::string before = dump_datastore();
    subscribe();
    for (int group = 1; group <= 4; ++group) {
        EXPECT_EQ(db_olt_lacp_del_group_id(group, &db), 0);
    }
    for (const std::uint32_t port : {1U, 2U, 8U}) {
        EXPECT_EQ(db_olt_lacp_del_trunk_channel_group(0, port, &db), 0);
        EXPECT_EQ(db_olt_lacp_del_trunk_mode(0, port, &db), 0);
        EXPECT_EQ(db_olt_lacp_del_trunk_priority(0, port, &db), 0);
        EXPECT_EQ(db_olt_lacp_del_trunk_timeout(0, port, &db), 0);
    }
    EXPECT_EQ(db_olt_lacp_del_global_configuration_system_priority(&db), 0);
    EXPECT_EQ(ChangeRecorder::instance().texts(), Texts{});
    EXPECT_EQ(dump_datastore(), before);
}

TEST_F(AccessorTest, DeletingClearsGroupsAndTrunks)
{
    add_ports(2);
    ASSERT_EQ(db_add_channel_group(&db, 0, 1, 1, "on"), 0);
    ASSERT_EQ(db_olt_lacp_set_trunk_priority(0, 1, &db, 5, 2, 1), 0);
    ASSERT_EQ(db_olt_lacp_set_trunk_timeout(0, 1, &db, "long", 8, 1), 0);
    EXPECT_EQ(db_olt_lacp_del_group_id(1, &db), 0);
    EXPECT_EQ(db_olt_lacp_del_trunk_channel_group(0, 1, &db), 0);
    EXPECT_EQ(db_olt_lacp_del_trunk_mode(0, 1, &db), 0);
    EXPECT_EQ(db_olt_lacp_del_trunk_priority(0, 1, &db), 0);
    EXPECT_EQ(db_olt_lacp_del_trunk_timeout(0, 1, &db), 0);
    EXPECT_EQ(type_of(1), "");
    EXPECT_EQ(members_of(1), Texts{});
    EXPECT_EQ(group_of(1), 0);
    EXPECT_EQ(mode_of(1), "");
    EXPECT_EQ(port_priority(db, 1), 32768);
    EXPECT_EQ(port_timeout(db, 1), "");
    EXPECT_EQ(link_status(db, 1), "down") << "not the daemon's to delete";
}

TEST_F(AccessorTest, SettingsDoNotBringPortsIntoTheInventory)
{
    add_ports(2);
    const std::string before = dump_datastore();
    EXPECT_NE(db_olt_lacp_set_trunk_priority(0, 3, &db, 1, 2, 1), 0);
    EXPECT_NE(db_olt_lacp_set_trunk_timeout(0, 3, &db, "short", 8, 1), 0);
    EXPECT_NE(db_olt_ifm_set_interface_basic_link_status(0, 3, &db, true), 0);
    EXPECT_EQ(dump_datastore(), before);
}

TEST_F(AccessorTest, EachLinkStatusIsAChangeOfItsOwn)
{
    subscribe();
    add_ports(2, true);
    EXPECT_EQ(link_status(db, 1), "up");
    EXPECT_EQ(link_status(db, 3), "");
    EXPECT_EQ(db_olt_ifm_set_interface_basic_link_status(0, 1, &db, false), 0);
    EXPECT_EQ(db_olt_ifm_add_interface(0, 2, &db, false), 0) << "corrects the entry";
    EXPECT_EQ(link_status(db, 1), "down");
    EXPECT_EQ(link_status(db, 2), "down");
    EXPECT_TRUE(ChangeRecorder::instance().saw("modified port 1/link-status up -> down"));
    EXPECT_TRUE(ChangeRecorder::instance().saw("modified port 2/link-status up -> down"));
}

TEST_F(AccessorTest, InventoryIsWhatTheEntriesSay)
{
    add_ports(6);
    DevPortInfo info{};
    EXPECT_EQ(database_dev_get_port_info(&db, &info), 0);
    EXPECT_EQ(info.slot, 0U);
    EXPECT_EQ(info.first_port, 1U);
    EXPECT_EQ(info.last_port, 6U);
    EXPECT_EQ(info.port_count, 6U);
}

TEST_F(AccessorTest, InventoryThatGrowsIsTakenWhole)
{
    std::jthread creator([this] {
        std::this_thread::sleep_for(150ms);
        for (std::uint32_t port = 1; port <= 4; ++port) {
            EXPECT_EQ(db_olt_ifm_add_interface(0, port, &db, false), 0);
            std::this_thread::sleep_for(120ms);
        }
    });
    DevPortInfo info{};
    EXPECT_EQ(database_dev_get_port_info(&db, &info), 0);
    EXPECT_EQ(info.port_count, 4U);
    EXPECT_EQ(info.last_port, 4U);
}

TEST_F(AccessorTest, EmptyInventoryIsSaid)
{
    setenv(KEL_DB_INVENTORY_WAIT_ENV, "1", 1);
    testing::internal::CaptureStderr();
    DevPortInfo info{9, 9, 9, 9};
    EXPECT_NE(database_dev_get_port_info(&db, &info), 0);
    const std::string said = testing::internal::GetCapturedStderr();
    unsetenv(KEL_DB_INVENTORY_WAIT_ENV);
    EXPECT_EQ(info.port_count, 0U);
    EXPECT_EQ(info.last_port, 0U);
    EXPECT_NE(said.find("waiting up to 1 seconds"), std::string::npos) << said;
    EXPECT_NE(said.find("has no uplink interfaces: start the switch"), std::string::npos) << said;
}

TEST_F(AccessorTest, HandlerReadsTheDataFromBeforeTheChange)
{
    add_ports(1);
    ASSERT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1), 0);
    std::string seen_choice;
    std::string seen_status;
    subscribe([&](const std::string &) {
        seen_choice = load_balance_of(1);
        seen_status = link_status(db, 1);
        return 0;
    });
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "dst-mac", 8, 1), 0);
    EXPECT_EQ(seen_choice, "src-mac");
    EXPECT_EQ(seen_status, "down");
    EXPECT_EQ(load_balance_of(1), "dst-mac");
}

TEST_F(AccessorTest, RefusedWriteFailsAndChangesNothing)
{
    ASSERT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1), 0);
    subscribe([](const std::string &) { return -11; });
    EXPECT_NE(db_olt_lacp_set_group_load_balance(1, &db, "dst-mac", 8, 1), 0);
    EXPECT_EQ(load_balance_of(1), "src-mac");
    ChangeRecorder::instance().reset();
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-ip", 8, 1), 0) << "nothing is left of the refused one";
    EXPECT_EQ(ChangeRecorder::instance().texts(), Texts{"modified group 1/load-balance src-mac -> src-ip"});
}

TEST_F(AccessorTest, ForeignWritesAreReadAtOnce)
{
    add_ports(1);
    for (const char *status : {"up", "down", "up"}) {
        ASSERT_EQ(foreign_write("/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/1']/interface-basic/"
                                "link-status",
                                status),
                  SR_ERR_OK);
        EXPECT_EQ(link_status(db, 1), status);
    }
}

// The daemon's threads at once: one writes and waits for the handler, which reads; two read; one writes elsewhere.
TEST_F(AccessorTest, OneHandleServesManyThreads)
{
    constexpr int ROUNDS = 100;
    add_ports(4, true);
    std::atomic<int> failures = 0;
    std::atomic<int> handled = 0;
    subscribe([&](const std::string &) {
        failures += link_status(db, 1).empty() ? 1 : 0;
        ++handled;
        return 0;
    });
    const auto started = std::chrono::steady_clock::now();
    std::atomic<bool> stop = false;
    std::vector<std::jthread> readers;
    for (const std::uint32_t port : {1U, 2U}) {
        readers.emplace_back([&, port] {
            while (!stop) {
                failures += link_status(db, port).empty() ? 1 : 0;
            }
        });
    }
    std::jthread other_writer([&] {
        for (int round = 0; round < ROUNDS; ++round) {
            failures += db_olt_ifm_set_interface_basic_link_status(0, 3, &db, round % 2 != 0);
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        failures += db_olt_lacp_set_group_load_balance(1, &db, round % 2 != 0 ? "src-mac" : "dst-mac", 8, 1);
    }
    other_writer.join();
    stop = true;
    readers.clear();
    EXPECT_EQ(failures, 0);
    EXPECT_GE(handled, 2 * ROUNDS);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 4s) << "somebody waited in vain";
}

// A handler told of a link status that is in the datastore already reads the port and its group, while the dispatcher
// changes the group's members: none may wait for the other.
TEST_F(AccessorTest, LinkHandlerReadsGroupsWhileTheirMembersChange)
{
    constexpr int ROUNDS = 300;
    add_ports(2, true);
    ASSERT_EQ(db_add_channel_group(&db, 0, 1, 1, "active"), 0);
    std::atomic<int> failures = 0;
    std::atomic<int> handled = 0;
    subscribe([&](const std::string &change) {
        if (change.starts_with("modified port 2/link-status")) {
            failures += group_of(1) != 1 || type_of(1) != "dynamic" ? 1 : 0;
            ++handled;
        }
        return 0;
    });
    const auto started = std::chrono::steady_clock::now();
    std::jthread dispatcher([&] {
        for (int round = 0; round < ROUNDS; ++round) {
            failures += db_olt_lacp_set_group_member_port(1, &db, "gigabitethernet 0/1", 8, 1);
            failures += db_olt_lacp_del_group_member_port(1, 0, 1, &db);
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        failures += db_olt_ifm_set_interface_basic_link_status(0, 2, &db, round % 2 != 0);
    }
    dispatcher.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(handled, ROUNDS);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 20s);
}

TEST_F(AccessorTest, SlowHandlersHoldOtherWritersUpButDoNotFailThem)
{
    add_ports(2);
    subscribe([](const std::string &change) {
        if (change.starts_with("modified group 1/load-balance")) {
            std::this_thread::sleep_for(1s);
        }
        return 0;
    });
    ASSERT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1), 0);
    std::jthread slow([this] { EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "dst-mac", 8, 1), 0); });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(db_olt_ifm_set_interface_basic_link_status(0, 1, &db, true), 0);
    EXPECT_EQ(db_olt_ifm_set_interface_basic_link_status(0, 2, &db, true), 0);
    EXPECT_EQ(link_status(db, 2), "up");
}

TEST_F(AccessorTest, LockedDatastoreIsWaitedFor)
{
    sr_conn_ctx_t *connection = nullptr;
    sr_session_ctx_t *holder = nullptr;
    ASSERT_EQ(sr_connect(SR_CONN_DEFAULT, &connection), SR_ERR_OK);
    ASSERT_EQ(sr_session_start(connection, SR_DS_RUNNING, &holder), SR_ERR_OK);
    ASSERT_EQ(sr_lock(holder, "olt-lacp", 0), SR_ERR_OK);
    std::jthread operator_session([&] {
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(sr_unlock(holder, "olt-lacp"), SR_ERR_OK);
    });
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1), 0);
    EXPECT_EQ(load_balance_of(1), "src-mac");
    operator_session.join();
    sr_disconnect(connection);
}

TEST_F(AccessorTest, ChangeIteratorOfNothingIsEmpty)
{
    sr_change_iter_t *iterator = nullptr;
    sr_change_oper_t operation = SR_OP_CREATED;
    sr_val_t unset{};
    sr_val_t *old_value = &unset; // must not be released: nothing was fetched yet
    sr_val_t *new_value = &unset;
    subscribe();
    EXPECT_NE(kel_db_get_change_next(nullptr, "/olt-lacp:*", &iterator, &operation, &old_value, &new_value), 0);
    EXPECT_EQ(iterator, nullptr);
    EXPECT_EQ(old_value, nullptr);
    EXPECT_EQ(new_value, nullptr);
}

TEST_F(AccessorTest, SubscribingTwiceIsRefused)
{
    subscribe();
    EXPECT_NE(db_module_subscription_init(&db, ChangeRecorder::tables()), 0);
    KelDb second{};
    ASSERT_EQ(database_init(&second), 0);
    EXPECT_NE(db_module_subscription_init(&second, ChangeRecorder::tables()), 0);
    database_close(&second);
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1), 0);
    EXPECT_TRUE(ChangeRecorder::instance().saw("created group 1/load-balance src-mac"));
    database_close(&db);
    ASSERT_EQ(database_init(&db), 0);
    EXPECT_EQ(db_module_subscription_init(&db, ChangeRecorder::tables()), 0) << "the first one is gone";
}

TEST_F(AccessorTest, ShellSessionsGetAndReturnAHandle)
{
    KelDbSession session{};
    kel_db_cb_init_func(nullptr, nullptr);
    EXPECT_NE(kel_db_session_open(&session), 0) << "no hook";
    kel_db_cb_init_func([](KelDbSession *opened, KelDb *of) { return db_connect_init_with_vty(opened, of); }, &db);
    kel_db_cb_free_func([](KelDbSession *closed, KelDb *of) { return db_disconnect_free_with_vty(closed, of); }, &db);
    ASSERT_EQ(kel_db_session_open(&session), 0);
    ASSERT_NE(session.db, nullptr);
    EXPECT_EQ(db_olt_lacp_set_group_load_balance(2, session.db, "src-mac", 8, 1), 0);
    EXPECT_EQ(load_balance_of(2), "src-mac");
    EXPECT_EQ(kel_db_session_close(&session), 0);
    EXPECT_EQ(session.db, nullptr);
    EXPECT_EQ(load_balance_of(2), "src-mac") << "the connection stays";
}

TEST(UnconnectedHandle, FailsEverywhere)
{
    KelDb unconnected{};
    char text[30];
    std::uint32_t size = sizeof text;
    std::uint8_t group = 0;
    std::uint16_t number = 0;
    char **texts = nullptr;
    std::uint32_t count = 0;
    DevPortInfo info{};
    KelDbSession session{};
    for (KelDb *db : {&unconnected, static_cast<KelDb *>(nullptr)}) {
        EXPECT_NE(db_module_subscription_init(db, ChangeRecorder::tables()), 0);
        EXPECT_NE(db_connect_init_with_vty(&session, db), 0);
        EXPECT_NE(db_olt_lacp_get_group_lacp_type(1, db, text, &size), 0);
        EXPECT_NE(db_olt_lacp_get_group_load_balance(1, db, text, &size), 0);
        EXPECT_NE(db_olt_lacp_get_group_member_port(1, db, &texts, &count), 0);
        EXPECT_NE(db_olt_lacp_get_group_join_port(1, db, &texts, &count), 0);
        EXPECT_NE(db_olt_lacp_set_group_load_balance(1, db, "src-mac", 8, 1), 0);
        EXPECT_NE(db_olt_lacp_set_group_member_port(1, db, "gigabitethernet 0/1", 8, 1), 0);
        EXPECT_NE(db_olt_lacp_del_group_member_port(1, 0, 1, db), 0);
        EXPECT_NE(db_olt_lacp_del_group_id(1, db), 0);
        EXPECT_NE(db_add_channel_group(db, 0, 1, 1, "on"), 0);
        EXPECT_NE(db_del_channel_group(db, 0, 1, 1), 0);
        size = sizeof number;
        EXPECT_NE(db_olt_lacp_get_global_configuration_system_priority(db, &number, &size), 0);
        EXPECT_NE(db_olt_lacp_set_global_configuration_system_priority(db, 1, 2, 1), 0);
        EXPECT_NE(db_olt_lacp_del_global_configuration_system_priority(db), 0);
        EXPECT_NE(db_olt_lacp_set_global_configuration_system_id(db, "0011.2233.4455", 8, 1), 0);
        EXPECT_NE(db_olt_lacp_get_trunk_channel_group(0, 1, db, &group, &size), 0);
        EXPECT_NE(db_olt_lacp_get_trunk_mode(0, 1, db, text, &size), 0);
        EXPECT_NE(db_olt_lacp_get_trunk_timeout(0, 1, db, text, &size), 0);
        EXPECT_NE(db_olt_lacp_get_trunk_priority(0, 1, db, &number, &size), 0);
        EXPECT_NE(db_olt_lacp_set_trunk_priority(0, 1, db, 1, 2, 1), 0);
        EXPECT_NE(db_olt_lacp_set_trunk_timeout(0, 1, db, "long", 8, 1), 0);
        EXPECT_NE(db_olt_lacp_del_trunk_channel_group(0, 1, db), 0);
        EXPECT_NE(db_olt_lacp_del_trunk_mode(0, 1, db), 0);
        EXPECT_NE(db_olt_lacp_del_trunk_priority(0, 1, db), 0);
        EXPECT_NE(db_olt_lacp_del_trunk_timeout(0, 1, db), 0);
        EXPECT_NE(db_olt_ifm_get_interface_basic_link_status(0, 1, db, text, &size), 0);
        EXPECT_NE(database_dev_get_port_info(db, &info), 0);
        EXPECT_NE(db_olt_ifm_add_interface(0, 1, db, true), 0);
        EXPECT_NE(db_olt_ifm_set_interface_basic_link_status(0, 1, db, true), 0);
        database_close(db);
    }
}

TEST(DebugMask, IsTheRegisteredFlag)
{
    db_debug_flag_reg(db_debug_flag_return());
    const std::uint32_t before = db_debug_get();
    std::uint32_t mask = KEL_DB_DEBUG_DAEMON;
    db_debug_flag_reg(&mask);
    EXPECT_EQ(db_debug_get(), KEL_DB_DEBUG_DAEMON);
    mask = 0;
    EXPECT_EQ(db_debug_get(), 0U);
    db_debug_flag_reg(db_debug_flag_return());
    EXPECT_EQ(db_debug_get(), before);
}

TEST(DebugMask, DecidesWhatSysrepoSays)
{
    std::uint32_t mask = 0;
    db_debug_flag_reg(&mask);
    const kel_db_sysrepo_debug say = sysrepo_debug_func_return();
    testing::internal::CaptureStderr();
    say(SR_LL_ERR, "silent");
    mask = KEL_DB_DEBUG_SYSREPO;
    say(SR_LL_ERR, "an error");
    say(SR_LL_DBG, "a detail");
    mask = KEL_DB_DEBUG_SYSREPO_ALL;
    say(SR_LL_DBG, "another detail");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sysrepo: an error\nsysrepo: another detail\n");
    db_debug_flag_reg(db_debug_flag_return());
}

} // namespace
