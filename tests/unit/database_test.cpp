// Handlers of configuration changes, subscriptions and the clearing at start-up.
#include "engine.h"

#include "lacp_database.h"
#include "lacp_sclient.h"

#include <tuple>

namespace
{

std::string group_path(int group, const std::string &leaf)
{
    return "/olt-lacp:channel-group/group[id='" + std::to_string(group) + "']" + (leaf.empty() ? "" : "/" + leaf);
}

std::string trunk_path(std::uint32_t port_no, const std::string &leaf)
{
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port_no) +
           "']/olt-lacp:trunk/" + leaf;
}

std::string link_path(std::uint32_t port_no)
{
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port_no) +
           "']/interface-basic/link-status";
}

const std::string GLOBAL = "/olt-lacp:global-configuration/";

class HandlerTest : public EngineTest
{
  protected:
    // What a handler did with one event.
    struct Outcome {
        int result;
        std::size_t fetched;
        std::string text;
        Outcome(int code = 0, std::size_t count = 0, std::string output = {})
            : result(code), fetched(count), text(std::move(output))
        {
        }
        bool operator==(const Outcome &) const = default;
        friend std::ostream &operator<<(std::ostream &out, const Outcome &outcome)
        {
            return out << outcome.result << " after " << outcome.fetched << ": " << outcome.text;
        }
    };
    static Outcome run(sr_module_change_cb handler, const std::vector<fake::Change> &changes,
                       sr_event_t event = SR_EV_CHANGE)
    {
        Outcome outcome{};
        outcome.text = printed([&] {
            const fake::Delivery delivery = fake::deliver(handler, event, changes);
            outcome.result = delivery.result;
            outcome.fetched = delivery.fetched;
        });
        return outcome;
    }
    static Outcome groups(const std::vector<fake::Change> &changes, sr_event_t event = SR_EV_CHANGE)
    {
        return run(lacp_channel_group_cb, changes, event);
    }
    static Outcome global(const std::vector<fake::Change> &changes)
    {
        return run(lacp_global_configuration_cb, changes);
    }
    static Outcome trunk(const std::vector<fake::Change> &changes, sr_event_t event = SR_EV_CHANGE)
    {
        return run(lacp_interface_trunk_cb, changes, event);
    }

    static std::uint32_t type_of(int group) { return read(get_channel_group_type, group); }
    static std::uint32_t used(int group) { return read(get_channel_group_used, group); }
    static std::uint32_t members(int group) { return read(get_channel_group_port_list, group); }
    static std::uint32_t read(int (*getter)(int, std::uint32_t *), int group)
    {
        std::uint32_t value = 99;
        getter(group, &value);
        return value;
    }
    static fake::Value member(int group, std::uint32_t port_no)
    {
        return fake::text(group_path(group, "member-port"), "gigabitethernet 0/" + std::to_string(port_no));
    }
    static fake::Value type(int group, const char *name) { return fake::name(group_path(group, "lacp-type"), name); }
    static fake::Value balance(const char *name) { return fake::name(group_path(1, "load-balance"), name); }
    static fake::Value in_group(std::uint32_t port_no, std::uint8_t group)
    {
        return fake::number8(trunk_path(port_no, "channel-group"), group);
    }
};

// ---- the walk -------------------------------------------------------------------------------------------------

TEST_F(HandlerTest, OtherEventsAreAcceptedUnseen)
{
    const std::vector<fake::Change> changes = {fake::created(fake::name(group_path(1, "nonsense"), "x"))};
    for (const sr_module_change_cb handler :
         {lacp_channel_group_cb, lacp_global_configuration_cb, lacp_interface_trunk_cb, lacp_port_uplink_change_cb}) {
        const bool links = handler == lacp_port_uplink_change_cb;
        EXPECT_EQ(run(handler, {}, links ? SR_EV_DONE : SR_EV_CHANGE), Outcome(0, 0, "")) << "no changes";
        for (const sr_event_t event : {SR_EV_UPDATE, SR_EV_CHANGE, SR_EV_DONE, SR_EV_ABORT, SR_EV_ENABLED, SR_EV_RPC})
            if (event != (links ? SR_EV_DONE : SR_EV_CHANGE)) {
                EXPECT_EQ(run(handler, changes, event), Outcome(0, 0, ""));
            }
    }
}

TEST_F(HandlerTest, Walks)
{
    const auto number = [](const std::string &path, std::uint16_t value) { return fake::number16(path, value); };
    const std::string priority = GLOBAL + "system-priority";
    const std::string port_priority = trunk_path(1, "priority");
    const auto created = [](const fake::Value &value) { return fake::created(value); };
    EXPECT_EQ(groups({created(type(1, "manual")), fake::deleted(balance("dst-ip")), created(member(1, 2))}),
              Outcome(0, 2, ""))
        << "the first deletion ends the walk";
    EXPECT_EQ(global({fake::deleted(number(priority, 5)), created(number(priority, 6))}), Outcome(0, 1, ""));
    EXPECT_EQ(trunk({fake::deleted(number(port_priority, 5)), created(number(port_priority, 6))}), Outcome(0, 1, ""));
    EXPECT_EQ(groups({created(balance("dst-ip")), created(balance("by-hand")), created(balance("src-ip"))}),
              Outcome(-9, 2, "set 'load-balance' failed! ret -9\n"))
        << "a failure ends the walk";
    EXPECT_EQ(
        groups({created(fake::text(group_path(1, "colour"), "x"))}),
        Outcome(-2, 1, "'colour' is not belong to channel group configuration!\nset 'colour' failed! ret -2\n"));
    EXPECT_EQ(global({created(fake::text(GLOBAL + "colour", "x"))}),
              Outcome(-2, 1,
                      "leaf colour\n'colour' is not belong to lacp global configuration!\n"
                      "set 'colour' failed! ret -2\n"));
    EXPECT_EQ(trunk({created(fake::text(trunk_path(2, "colour"), "x"))}),
              Outcome(-2, 1,
                      "'colour' is not belong to lacp interface trunk configuration!\n"
                      "set slot 0 port 2 'colour' failed! ret -2\n"));
    // Names are cut after 19 characters; no known name is that long, so a cut one is never taken for another.
    EXPECT_EQ(groups({created(fake::name(group_path(1, "load-balance-and-much-more"), "dst-ip"))}),
              Outcome(-2, 1,
                      "'load-balance-and-mu' is not belong to channel group configuration!\n"
                      "set 'load-balance-and-mu' failed! ret -2\n"));
    EXPECT_EQ(
        groups({created(fake::number8(group_path(1, "id"), 1)),
                created(fake::text(group_path(1, "join-port"), "gigabitethernet 0/1")), created(balance("dst-ip"))}),
        Outcome(0, 3, ""));
    EXPECT_EQ(groups({created(type(7, "manual"))}), Outcome(-9, 1, "set 'lacp-type' failed! ret -9\n"));
    EXPECT_EQ(groups({fake::deleted(fake::dataless(group_path(2, ""), SR_LIST_T))}),
              Outcome(0, 1, "LACP Msg: channel-group 2 has been reset!\n"));
    EXPECT_EQ(groups({fake::deleted(fake::dataless(group_path(8, ""), SR_LIST_T))}),
              Outcome(-9, 1, "LACP Msg: channel-group 8 has been reset!\n"));
    EXPECT_EQ(groups({fake::deleted(fake::text(group_path(2, "member-ports"), "gigabitethernet 0/3"))}),
              Outcome(0, 1, ""))
        << "the whole path counts";
    EXPECT_EQ(groups({fake::Change{SR_OP_DELETED, {}, {}}}), Outcome(0, 1, ""));
    EXPECT_EQ(trunk({created(number(trunk_path(9, "priority"), 1))}),
              Outcome(-27, 1, "set slot 0 port 9 'priority' failed! ret -27\n"));
    EXPECT_EQ(trunk({created(fake::name(trunk_path(9, "mode"), "active"))}),
              Outcome(-1, 1, "set slot 0 port 9 'mode' failed! ret -1\n"));
    EXPECT_EQ(trunk({created(fake::name(trunk_path(9, "timeout"), "short"))}), Outcome(0, 1, "")) << "not examined";
    for (const sr_val_type_t type :
         {SR_UNKNOWN_T, SR_LIST_T, SR_CONTAINER_T, SR_CONTAINER_PRESENCE_T, SR_LEAF_EMPTY_T}) {
        const auto without_data = [&](const std::string &path) { return created(fake::dataless(path, type)); };
        EXPECT_EQ(groups({without_data(group_path(1, "nonsense")), created(balance("dst-ip"))}), Outcome(0, 2, ""));
        EXPECT_EQ(global({without_data(GLOBAL + "nonsense")}), Outcome(0, 1, ""));
        EXPECT_EQ(trunk({without_data(trunk_path(1, "nonsense"))}), Outcome(0, 1, ""));
    }
    EXPECT_EQ(type_of(1), 3U) << "what came before a deletion stays";
    EXPECT_EQ(read(get_channel_group_load_balance, 1), 1U) << "and before a failure";
    EXPECT_EQ(members(1), 0U);
    EXPECT_EQ(Lac_Queue.count(), 0);
    EXPECT_TRUE(fake::take_messages().empty());
    EXPECT_EQ(lacp_channel_group_del_cb(nullptr), 0);
}

// ---- channel groups -------------------------------------------------------------------------------------------

TEST_F(HandlerTest, GroupTypes)
{
    lacpCtrl.once_cfg_done = 1;
    int group = 0;
    for (const auto &[name, number] : {std::pair{"manual", 3U}, {"dynamic", 5U}, {"other", 0U}}) {
        EXPECT_EQ(groups({fake::created(type(++group, name))}), Outcome(0, 1, ""));
        EXPECT_EQ(type_of(group), number);
        EXPECT_EQ(used(group), 1U);
    }
    EXPECT_EQ(type_of(4) + used(4), 0U);
    EXPECT_EQ(groups({fake::created(type(1, "dynamic"))}).result, 0) << "what the type setter says is not looked at";
    EXPECT_EQ(type_of(1), 3U);
    const auto dynamic = type(2, "dynamic");
    for (const fake::Change &change : {fake::modified(dynamic, type(2, "manual")), fake::modified(dynamic, dynamic),
                                       fake::Change{SR_OP_MOVED, {}, {type(2, "manual")}}}) {
        EXPECT_EQ(groups({change}), Outcome(-11, 1, "")) << "a type cannot change";
        EXPECT_EQ(type_of(2), 5U);
    }
}

TEST_F(HandlerTest, MembersComeAndGo)
{
    const auto removal = fake::deleted(member(1, 3));
    set_link(3, true);
    EXPECT_EQ(groups({fake::created(member(1, 3))}),
              Outcome(0, 1, "LACP Msg: interface 0/3 is OK added to channel-group 1!\n"));
    EXPECT_EQ(members(1), 0x4U);
    EXPECT_EQ(groups({fake::created(member(1, 3))}),
              Outcome(-9, 1,
                      "LACP Msg: Set port 3 to channel-group 1 failed which was already in it!\n"
                      "LACP Msg: interface 0/3 is falied added to channel-group 1!\n"
                      "set 'member-port' failed! ret -9\n"));
    EXPECT_EQ(groups({removal}), Outcome(0, 1, "LACP Msg: interface 0/3 is OK remove from channel-group 1!\n"));
    EXPECT_EQ(members(1), 0U);
    EXPECT_EQ(groups({removal}), Outcome(-9, 1, "LACP Msg: interface 0/3 is failed remove from channel-group 1!\n"));

    // While the driver service is away the table has the change, and the service gets it when it is there again.
    fake::driver().unreachable = true;
    printed_as_error([&] { EXPECT_EQ(groups({fake::created(member(1, 3))}).result, 0); });
    EXPECT_EQ(members(1), 0x4U);
    printed_as_error([&] { EXPECT_EQ(groups({removal}).result, 0); });
    EXPECT_EQ(members(1), 0U);
    fake::driver().unreachable = false;
    fake::take_messages();
    lacp_trunk_resync(lacp_sclient);
    EXPECT_EQ(fake::take_messages().size(), 4U);

    const Outcome outcome = groups({fake::created(fake::text(group_path(1, "member-port"), "ethernet 0/3"))});
    EXPECT_EQ(outcome.text.substr(0, 29), "LACP Msg: interface 0/0 is fa") << "no interface name is port 0";
    EXPECT_NE(outcome.result, 0);
}

TEST_F(HandlerTest, DeletingAGroupResetsItAndTakesEverythingAlong)
{
    create_group(3, "dynamic");
    running_port(1, 3);
    running_port(2, 3);
    running_port(4, 2);
    set_channel_group_uplink_port_list(3, 0, 1, 1);
    fake::take_messages();
    EXPECT_EQ(
        groups({fake::deleted(fake::dataless(group_path(3, ""), SR_LIST_T)), fake::deleted(type(3, "dynamic"))}),
        Outcome(0, 1, "LACP Msg: channel-group 3 has been reset!\n"));
    EXPECT_EQ(type_of(3) + used(3), 0U);
    EXPECT_EQ(fake::take_messages(), std::vector<fake::Message>{hex("000c 01 02 0000 000b 00000003")});
    dispatch();
    EXPECT_EQ(get_lacp_port_state(1) + get_lacp_port_state(2), 0);
    EXPECT_EQ(get_lacp_port_state(4), 1) << "another group's port";

    // When it is created again, the ports that are still configured for it come back.
    EXPECT_EQ(groups({fake::created(type(3, "dynamic"))}).result, 0);
    dispatch();
    EXPECT_EQ(get_lacp_port_state(1) + get_lacp_port_state(2), 2);
    EXPECT_EQ(get_lacp_channel_group_id(1), 3);
    EXPECT_EQ(groups({fake::deleted(fake::text(group_path(3, "join-port"), "gigabitethernet 0/1"))}).result, 0);
    dispatch();
    EXPECT_EQ(get_lacp_channel_group_id(1), 0);
}

// ---- global configuration -------------------------------------------------------------------------------------

TEST_F(HandlerTest, SystemIdentifierAndPriority)
{
    switch_on();
    const auto priority = fake::created(fake::number16(GLOBAL + "system-priority", 4096));
    EXPECT_EQ(global({fake::created(fake::text(GLOBAL + "system-id", "0299.8877.6655")), priority}),
              Outcome(0, 2, "leaf system-id\nleaf system-priority\n"));
    dispatch();
    EXPECT_EQ(lacSystem->system_mac.get(), OTHER_MAC);
    EXPECT_EQ(port(1).port_mac, OUR_MAC) << "the ports' own addresses stay";
    EXPECT_EQ(port(1).actor_system.get(), OUR_MAC);
    EXPECT_EQ(lacpCtrl.system_priority, 4096);
    EXPECT_EQ(port(4).actor_system_priority, 4096);
    EXPECT_EQ(lacSystem->system_priority, 32768);
    LacSystem *const records = lacSystem;
    lacSystem = nullptr;
    EXPECT_EQ(global({priority}), Outcome(-11, 1, "leaf system-priority\nset 'system-priority' failed! ret -11\n"));
    lacSystem = records;
}

// ---- trunk settings of a port ---------------------------------------------------------------------------------

TEST_F(HandlerTest, AttributesOfAPort)
{
    switch_on();
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    const std::string path = trunk_path(2, "priority");
    EXPECT_EQ(trunk({fake::modified(fake::number16(path, 1), fake::number16(path, 77))}),
              Outcome(0, 1, "[DATABASE INFO] interface (0/2) operation [1] xpath [" + path + "]\n"));
    const std::tuple<const char *, const char *, std::uint8_t, bool> texts[] = {
        {"mode", "passive", LAC_ACTIVITY, false}, {"mode", "active", LAC_ACTIVITY, true},
        {"mode", "passive", LAC_ACTIVITY, false}, {"mode", "on", LAC_ACTIVITY, true},
        {"mode", "passive", LAC_ACTIVITY, false}, {"mode", "whatever", LAC_ACTIVITY, true},
        {"timeout", "short", LAC_TIMEOUT, true},  {"timeout", "long", LAC_TIMEOUT, false},
        {"timeout", "short", LAC_TIMEOUT, true},  {"timeout", "Short", LAC_TIMEOUT, false},
        {"timeout", "short", LAC_TIMEOUT, true},  {"timeout", "shorter", LAC_TIMEOUT, false},
    };
    for (const auto &[leaf, text, bit, set] : texts) {
        EXPECT_EQ(trunk({fake::created(fake::name(trunk_path(2, leaf), text))}).result, 0);
        dispatch();
        EXPECT_EQ((port(2).actor_oper_state & bit) != 0, set) << leaf << ' ' << text;
    }
    EXPECT_EQ(port(2).actor_port_priority, 77);
}

TEST_F(HandlerTest, JoiningADynamicGroup)
{
    create_group(2, "dynamic");
    set_link(1, true);
    EXPECT_EQ(trunk({fake::created(in_group(1, 2))}).result, 0);
    dispatch();
    EXPECT_EQ(get_lacp_channel_group_id(1), 2);
    EXPECT_EQ(port(1).actor_oper_key, 2);
    EXPECT_EQ(get_lacp_port_state(1), 1);
}

// Without the leaf a port is active, also one that was passive in its last group.
TEST_F(HandlerTest, TheModeOfAJoiningPortIsItsLeafs)
{
    create_group(2, "dynamic");
    const auto mode = fake::name(trunk_path(1, "mode"), "passive");
    const auto joins_active = [&] {
        trunk({fake::created(in_group(1, 2))});
        dispatch();
        const bool active = (port(1).actor_oper_state & LAC_ACTIVITY) != 0;
        trunk({fake::modified(in_group(1, 2), in_group(1, 0))});
        return active;
    };
    trunk({fake::created(mode)});
    EXPECT_FALSE(joins_active()) << "on its way into the datastore";
    trunk({fake::deleted(mode)});
    EXPECT_TRUE(joins_active());
    fake::datastore().mode[1] = "passive";
    EXPECT_FALSE(joins_active());
}

// With one place too few for its messages a change is refused, and nothing of it is sent.
TEST_F(HandlerTest, AFullQueueRefusesAChangeAsAWhole)
{
    create_group(2, "dynamic");
    create_group(3, "dynamic");
    running_port(1, 2);
    const fake::Value group = fake::dataless("/olt-lacp:channel-group/group[id='2']", SR_LIST_T);
    struct Row {
        const char *name;
        std::function<Outcome()> change;
        int messages;
    };
    for (const Row &row :
         {Row{"join", [&] { return trunk({fake::created(in_group(3, 2))}); }, 4},
          Row{"leave", [&] { return trunk({fake::modified(in_group(1, 2), in_group(1, 0))}); }, 2},
          Row{"move", [&] { return trunk({fake::modified(in_group(1, 2), in_group(1, 3))}); }, 6},
          Row{"timeout", [&] { return trunk({fake::created(fake::name(trunk_path(1, "timeout"), "short"))}); }, 1},
          Row{"type", [&] { return groups({fake::created(type(1, "dynamic"))}); }, 32},
          Row{"group", [&] { return groups({fake::deleted(group)}); }, 8}}) {
        SCOPED_TRACE(row.name);
        while (Lac_Queue.count() < 128 - row.messages + 1)
            send(3);
        const int waiting = Lac_Queue.count();
        EXPECT_EQ(row.change().result, -1);
        EXPECT_EQ(Lac_Queue.count(), waiting);
        dispatch();
        while (Lac_Queue.count() < 128 - row.messages)
            send(3);
        EXPECT_EQ(row.change().result, 0);
        dispatch();
    }
}

// Group and port in one transaction, the port's module first.
TEST_F(HandlerTest, APortMayBeNamedBeforeItsGroup)
{
    switch_on();
    set_link(1, true);
    trunk({fake::created(in_group(1, 2))});
    trunk({fake::created(in_group(3, 4))});
    EXPECT_EQ(Lac_Queue.count(), 0);
    groups({fake::created(type(2, "dynamic"))});
    dispatch();
    EXPECT_EQ(get_lacp_channel_group_id(1), 2);
    EXPECT_EQ(get_lacp_port_state(1), 1);
    EXPECT_EQ(get_lacp_port_state(3), 0) << "it named another group";
}

TEST_F(HandlerTest, GroupsThatAreNotDynamicAreLeftToTheirMemberLists)
{
    create_group(1, "manual");
    for (const std::uint8_t group : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{9}, std::uint8_t{0}}) {
        EXPECT_EQ(trunk({fake::created(in_group(1, group))}).result, 0);
        EXPECT_EQ(trunk({fake::modified(in_group(1, group), in_group(1, 0))}).result, 0);
    }
    EXPECT_EQ(Lac_Queue.count(), 0);
}

TEST_F(HandlerTest, LeavingADynamicGroup)
{
    running_port(1, 2);
    running_port(3, 2);
    set_channel_group_agg_no(2, 0);
    leave(1);
    EXPECT_EQ(get_lacp_port_state(1), 0);
    EXPECT_EQ(read(get_channel_group_agg_no, 2), 3U) << "selection has run in the group it left";
}

// A port that goes straight from one dynamic group to another is detached from the first one's list.
TEST_F(HandlerTest, MovingStraightToAnotherGroup)
{
    create_group(2, "dynamic");
    LacPort &record = current_port(1, 1);
    ASSERT_NE(ticks_until([&] { return members(1) == 0x1; }), 0U);
    join(1, 2);
    EXPECT_EQ(members(1), 0U);
    EXPECT_EQ(get_lacp_channel_group_id(1), 2);
    EXPECT_EQ(record.actor_oper_key, 2);
    EXPECT_EQ(get_lacp_port_state(1), 1);
    receive(1, pdu_bytes(peer(1), lac_actor_info(&record)));
    ASSERT_NE(ticks_until([&] { return members(2) == 0x1; }), 0U);
    EXPECT_EQ(fake::datastore().members[1], std::set<std::string>{});
    EXPECT_EQ(fake::datastore().members[2], std::set<std::string>{"gigabitethernet 0/1"});
}

// ---- link status ----------------------------------------------------------------------------------------------

class LinkHandlerTest : public HandlerTest
{
  protected:
    LinkHandlerTest()
    {
        create_group(1, "manual");
        set_link(2, false);
        set_channel_group_add_port(1, 0, 2);
        fake::datastore().channel_group[2] = 1;
    }
    static std::uint32_t uplinks() { return read(get_channel_group_uplink_port_list, 1); }
    static fake::Change change_to(const std::string &status, std::uint32_t port_no = 2)
    {
        return fake::modified(fake::name(link_path(port_no), "before"), fake::name(link_path(port_no), status));
    }
    static Outcome link(const std::vector<fake::Change> &changes)
    {
        return run(lacp_port_uplink_change_cb, changes, SR_EV_DONE);
    }
};

TEST_F(LinkHandlerTest, AManualMemberFollows)
{
    EXPECT_EQ(link({change_to("up")}), Outcome(0, 1, ""));
    EXPECT_EQ(uplinks(), 0x2U);
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    EXPECT_EQ(link({change_to("testing"), change_to("up")}),
              Outcome(0, 1,
                      "[DATABASE INFO] lacp_port_uplink_change_cb => interface gigabitEthernet 0/2 is [testing], "
                      "lacp type is [manual]\n"))
        << "only the first change is looked at";
    EXPECT_EQ(uplinks(), 0U) << "everything but up is down";
}

TEST_F(LinkHandlerTest, WhatChangesNothing)
{
    EXPECT_EQ(link({fake::created(fake::name(link_path(2), "up"))}).result, 0);
    EXPECT_EQ(link({fake::deleted(fake::name(link_path(2), "up"))}).result, 0);
    EXPECT_EQ(link({change_to("up", 4)}).result, 0); // not configured
    fake::datastore().channel_group[2] = 0;
    EXPECT_EQ(link({change_to("up")}).result, 0);
    fake::datastore().channel_group[2] = 1;
    fake::datastore().lacp_type[1] = "other";
    EXPECT_EQ(link({change_to("up")}).result, 0);
    fake::datastore().lacp_type.erase(1);
    EXPECT_EQ(link({change_to("up")}).result, 0);
    EXPECT_EQ(uplinks(), 0U);
    EXPECT_EQ(Lac_Queue.count(), 0);
}

TEST_F(LinkHandlerTest, ADynamicMembersLinkGoesToTheProtocol)
{
    fake::datastore().lacp_type[1] = "dynamic";
    link({change_to("up")});
    link({change_to("down")});
    EXPECT_EQ(uplinks(), 0U);
    LacQueueMsg message{};
    ASSERT_TRUE(Lac_Queue.tryPop(message));
    EXPECT_EQ(message.code, LAC_Q_LINK_UP);
    ASSERT_TRUE(Lac_Queue.tryPop(message));
    EXPECT_EQ(message.code, LAC_Q_LINK_DOWN);
    EXPECT_EQ(message.port, 2U);
}

// ---- start-up -------------------------------------------------------------------------------------------------

TEST_F(HandlerTest, StartUpDeletesWhatAPreviousRunConfigured)
{
    intf = {2, 3};
    lacp_database_clear(&g_lacpd_db);
    EXPECT_EQ(fake::take_writes(),
              (Texts{"del group 1", "del group 2", "del group 3", "del group 4",
                     "del trunk channel-group gigabitethernet 0/2", "del trunk mode gigabitethernet 0/2",
                     "del trunk priority gigabitethernet 0/2", "del trunk timeout gigabitethernet 0/2",
                     "del trunk channel-group gigabitethernet 0/3", "del trunk mode gigabitethernet 0/3",
                     "del trunk priority gigabitethernet 0/3", "del trunk timeout gigabitethernet 0/3",
                     "del system-priority"}));
    intf = {0, 0};
    lacp_database_clear(&g_lacpd_db);
    EXPECT_EQ(fake::take_writes().size(), 5U);
}

TEST_F(HandlerTest, EveryHandlerHasItsSubtree)
{
    EXPECT_EQ(lacp_database_subs(&g_lacpd_db), 0);
    EXPECT_EQ(fake::datastore().subscribed,
              (Texts{"olt-lacp /olt-lacp:channel-group/group//.", "olt-lacp /olt-lacp:global-configuration//.",
                     "olt-ifm /olt-ifm:up-link-ports/interface/olt-lacp:trunk//.",
                     "olt-ifm /olt-ifm:up-link-ports/interface/olt-lacp:trunk-info/port",
                     "olt-ifm /olt-ifm:up-link-ports/interface/interface-basic/link-status"}));
    fake::datastore().failures["db_module_subscription_init"] = 5;
    EXPECT_EQ(printed_as_error([] { EXPECT_EQ(lacp_database_subs(&g_lacpd_db), 5); }),
              "LACP Msg: LACPD subscription callback func failed! ret = 5\n");
}

TEST_F(HandlerTest, AnUnreachableDatastoreIsReported)
{
    EXPECT_EQ(printed_as_error([] { lacp_database_init(&g_lacpd_db); }), "");
    fake::datastore().failures["database_init"] = 3;
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    std::string text;
    EXPECT_EQ(printed_as_error([&] { text = printed([] { lacp_database_init(&g_lacpd_db); }); }),
              "LACP Msg: init database failed!\n");
    EXPECT_EQ(text, "[DATABASE INFO] LACP Msg: LACPD connect to database failed! ret=3\n");
}

// ---- what others refuse, what finds no room -------------------------------------------------------------------

// An event may find no room in the queue, and the leaf may be unreadable at the moment a port joins.
TEST_F(HandlerTest, TheTickFollowsTheLink)
{
    create_group(1, "dynamic");
    join(2, 1);
    EXPECT_EQ(port(2).rxm, LAC_RX_PORT_DISABLED);
    set_link(2, true);
    tick();
    EXPECT_EQ(port(2).rxm, LAC_RX_EXPIRED);

    const LacPort &record = current_port(1);
    fake::datastore().link_status.erase(1);
    tick();
    EXPECT_EQ(record.rxm, LAC_RX_CURRENT) << "a failed read says nothing";
    set_link(1, false);
    printed([] {
        while (Lac_Queue.count() < 128)
            lacWaitAndSend("test", 3, 0, 0);
        deal_dynamic_channel_updown_port(1, 0, 1, 0);
    });
    dispatch();
    EXPECT_EQ(record.port_enabled, 1U);
    tick();
    EXPECT_EQ(record.rxm, LAC_RX_PORT_DISABLED);
}

} // namespace
