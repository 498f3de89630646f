// Handlers of configuration changes, subscriptions and the clearing at start-up.
#include "engine.h"

#include "lacp_database.h"
#include "lacp_sclient.h"

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
    static Outcome groups(const std::vector<fake::Change> &changes) { return run(lacp_channel_group_cb, changes); }
    static Outcome global(const std::vector<fake::Change> &changes)
    {
        return run(lacp_global_configuration_cb, changes);
    }
    static Outcome trunk(const std::vector<fake::Change> &changes) { return run(lacp_interface_trunk_cb, changes); }

    static std::uint32_t type_of(int group)
    {
        std::uint32_t type = 99;
        get_channel_group_type(group, &type);
        return type;
    }
    static std::uint32_t used(int group)
    {
        std::uint32_t value = 99;
        get_channel_group_used(group, &value);
        return value;
    }
    static std::uint32_t members(int group)
    {
        std::uint32_t list = 99;
        get_channel_group_port_list(group, &list);
        return list;
    }
    static fake::Change member(int group, std::uint32_t port_no)
    {
        return fake::created(
            fake::text(group_path(group, "member-port"), "gigabitethernet 0/" + std::to_string(port_no)));
    }
};

// ---- the walk -------------------------------------------------------------------------------------------------

TEST_F(HandlerTest, OtherEventsAreAcceptedUnseen)
{
    const std::vector<fake::Change> changes = {fake::created(fake::name(group_path(1, "nonsense"), "x"))};
    for (const sr_module_change_cb handler :
         {lacp_channel_group_cb, lacp_global_configuration_cb, lacp_interface_trunk_cb, lacp_port_uplink_change_cb}) {
        for (const sr_event_t event :
             {SR_EV_UPDATE, SR_EV_CHANGE, SR_EV_DONE, SR_EV_ABORT, SR_EV_ENABLED, SR_EV_RPC}) {
            const bool links = handler == lacp_port_uplink_change_cb;
            if (event == (links ? SR_EV_DONE : SR_EV_CHANGE) || (!links && event == SR_EV_ABORT))
                continue;
            const Outcome outcome = run(handler, changes, event);
            EXPECT_EQ(outcome.result, 0);
            EXPECT_EQ(outcome.fetched, 0U);
            EXPECT_EQ(outcome.text, "");
        }
    }
}

TEST_F(HandlerTest, AnEventWithoutChangesIsAccepted)
{
    for (const sr_module_change_cb handler :
         {lacp_channel_group_cb, lacp_global_configuration_cb, lacp_interface_trunk_cb})
        EXPECT_EQ(run(handler, {}).result, 0);
    EXPECT_EQ(run(lacp_port_uplink_change_cb, {}, SR_EV_DONE).result, 0);
}

TEST_F(HandlerTest, NodesWithoutDataArePassedOver)
{
    for (const sr_val_type_t type :
         {SR_UNKNOWN_T, SR_LIST_T, SR_CONTAINER_T, SR_CONTAINER_PRESENCE_T, SR_LEAF_EMPTY_T}) {
        SCOPED_TRACE(static_cast<int>(type));
        const Outcome outcome = groups({fake::created(fake::dataless(group_path(1, "nonsense"), type)),
                                        fake::created(fake::name(group_path(1, "load-balance"), "dst-ip"))});
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.fetched, 2U);
        EXPECT_EQ(global({fake::created(fake::dataless(GLOBAL + "nonsense", type))}).text, "");
        EXPECT_EQ(trunk({fake::created(fake::dataless(trunk_path(1, "nonsense"), type))}).result, 0);
    }
}

TEST_F(HandlerTest, TheFirstDeletionEndsTheWalk)
{
    const auto leaf = fake::name(group_path(1, "load-balance"), "dst-ip");
    const Outcome outcome =
        groups({fake::created(fake::name(group_path(1, "lacp-type"), "manual")), fake::deleted(leaf), member(1, 2)});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.fetched, 2U);
    EXPECT_EQ(type_of(1), 3U) << "what came before stays";
    EXPECT_EQ(members(1), 0U);

    const Outcome on_global = global({fake::deleted(fake::number16(GLOBAL + "system-priority", 5)),
                                      fake::created(fake::number16(GLOBAL + "system-priority", 6))});
    EXPECT_EQ(on_global.result, 0);
    EXPECT_EQ(on_global.fetched, 1U);
    const Outcome on_trunk = trunk({fake::deleted(fake::number16(trunk_path(1, "priority"), 5)),
                                    fake::created(fake::number16(trunk_path(1, "priority"), 6))});
    EXPECT_EQ(on_trunk.result, 0);
    EXPECT_EQ(on_trunk.fetched, 1U);
    EXPECT_EQ(Lac_Queue.count(), 0);
}

TEST_F(HandlerTest, AFailureEndsTheWalk)
{
    const Outcome outcome = groups({fake::created(fake::name(group_path(1, "load-balance"), "dst-ip")),
                                    fake::created(fake::name(group_path(1, "load-balance"), "by-hand")),
                                    fake::created(fake::name(group_path(1, "load-balance"), "src-ip"))});
    EXPECT_EQ(outcome.result, -9);
    EXPECT_EQ(outcome.fetched, 2U);
    EXPECT_EQ(outcome.text, "set 'load-balance' failed! ret -9\n");
    std::uint32_t code = 99;
    get_channel_group_load_balance(1, &code);
    EXPECT_EQ(code, 1U) << "the change before it stays applied";
}

TEST_F(HandlerTest, UnknownLeavesAreRefused)
{
    EXPECT_EQ(groups({fake::created(fake::text(group_path(1, "colour"), "x"))}).text,
              "'colour' is not belong to channel group configuration!\nset 'colour' failed! ret -2\n");
    EXPECT_EQ(groups({fake::created(fake::text(group_path(1, "colour"), "x"))}).result, -2);
    const Outcome on_global = global({fake::created(fake::text(GLOBAL + "colour", "x"))});
    EXPECT_EQ(on_global.result, -2);
    EXPECT_EQ(on_global.text,
              "leaf colour\n'colour' is not belong to lacp global configuration!\nset 'colour' failed! ret -2\n");
    const Outcome on_trunk = trunk({fake::created(fake::text(trunk_path(2, "colour"), "x"))});
    EXPECT_EQ(on_trunk.result, -2);
    EXPECT_EQ(on_trunk.text, "'colour' is not belong to lacp interface trunk configuration!\n"
                             "set slot 0 port 2 'colour' failed! ret -2\n");
}

// Names are cut after 19 characters; no known name is that long, so a cut one is never taken for another.
TEST_F(HandlerTest, OverlongNamesAreCutAndRefused)
{
    const std::string name = "load-balance-and-much-more";
    EXPECT_EQ(groups({fake::created(fake::name(group_path(1, name), "dst-ip"))}).text,
              "'load-balance-and-mu' is not belong to channel group configuration!\n"
              "set 'load-balance-and-mu' failed! ret -2\n");
    EXPECT_EQ(global({fake::created(fake::number16(GLOBAL + std::string(500, 'x'), 1))}).result, -2);
    EXPECT_EQ(trunk({fake::created(fake::number16(trunk_path(1, "priority-of-the-whole-port"), 1))}).result, -2);
}

// ---- channel groups -------------------------------------------------------------------------------------------

TEST_F(HandlerTest, GroupTypes)
{
    lacpCtrl.once_cfg_done = 1;
    EXPECT_EQ(groups({fake::created(fake::name(group_path(1, "lacp-type"), "manual"))}).result, 0);
    EXPECT_EQ(groups({fake::created(fake::name(group_path(2, "lacp-type"), "dynamic"))}).result, 0);
    EXPECT_EQ(groups({fake::created(fake::name(group_path(3, "lacp-type"), "other"))}).result, 0);
    EXPECT_EQ(type_of(1), 3U);
    EXPECT_EQ(type_of(2), 5U);
    EXPECT_EQ(type_of(3), 0U) << "left unset";
    for (int group = 1; group <= 4; ++group)
        EXPECT_EQ(used(group), group == 4 ? 0U : 1U);
    EXPECT_EQ(groups({fake::created(fake::name(group_path(1, "lacp-type"), "dynamic"))}).result, 0)
        << "what the type setter says is not looked at";
    EXPECT_EQ(type_of(1), 3U);
    const Outcome outcome = groups({fake::created(fake::name(group_path(7, "lacp-type"), "manual"))});
    EXPECT_EQ(outcome.result, -9);
    EXPECT_EQ(outcome.text, "set 'lacp-type' failed! ret -9\n");
}

TEST_F(HandlerTest, AGroupsTypeCannotChange)
{
    create_group(2, "dynamic");
    const auto dynamic = fake::name(group_path(2, "lacp-type"), "dynamic");
    const auto manual = fake::name(group_path(2, "lacp-type"), "manual");
    for (const fake::Change &change : {fake::modified(dynamic, manual), fake::modified(dynamic, dynamic),
                                       fake::Change{SR_OP_MOVED, {}, {manual}}}) {
        const Outcome outcome = groups({change});
        EXPECT_EQ(outcome.result, -11);
        EXPECT_EQ(outcome.text, "");
        EXPECT_EQ(type_of(2), 5U);
    }
}

TEST_F(HandlerTest, LeavesThatNeedNothing)
{
    EXPECT_EQ(groups({fake::created(fake::number8(group_path(1, "id"), 1)),
                      fake::created(fake::text(group_path(1, "join-port"), "gigabitethernet 0/1")), member(1, 1)})
                  .fetched,
              3U);
}

TEST_F(HandlerTest, MembersComeAndGo)
{
    set_link(3, true);
    Outcome outcome = groups({member(1, 3)});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.text, "LACP Msg: interface 0/3 is OK added to channel-group 1!\n");
    EXPECT_EQ(members(1), 0x4U);

    outcome = groups({member(1, 3)});
    EXPECT_EQ(outcome.result, -9);
    EXPECT_EQ(outcome.text, "LACP Msg: Set port 3 to channel-group 1 failed which was already in it!\n"
                            "LACP Msg: interface 0/3 is falied added to channel-group 1!\n"
                            "set 'member-port' failed! ret -9\n");

    const auto removal = fake::deleted(fake::text(group_path(1, "member-port"), "gigabitethernet 0/3"));
    outcome = groups({removal});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.text, "LACP Msg: interface 0/3 is OK remove from channel-group 1!\n");
    EXPECT_EQ(members(1), 0U);

    outcome = groups({removal});
    EXPECT_EQ(outcome.result, -9);
    EXPECT_EQ(outcome.text, "LACP Msg: interface 0/3 is failed remove from channel-group 1!\n");
}

// The table has the change, and the driver service gets it when it is there again: the datastore has it too.
TEST_F(HandlerTest, MembersChangeWhileTheDriverServiceIsAway)
{
    set_link(3, true);
    fake::driver().unreachable = true;
    Outcome outcome{};
    printed_as_error([&] { outcome = groups({member(1, 3)}); });
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(members(1), 0x4U);
    printed_as_error(
        [&] { outcome = groups({fake::deleted(fake::text(group_path(1, "member-port"), "gigabitethernet 0/3"))}); });
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(members(1), 0U);
    fake::driver().unreachable = false;
    lacp_trunk_resync(lacp_sclient);
    EXPECT_EQ(fake::take_messages().size(), 4U);
}

TEST_F(HandlerTest, AMemberThatIsNoInterfaceNameIsPortZero)
{
    const Outcome outcome = groups({fake::created(fake::text(group_path(1, "member-port"), "ethernet 0/3"))});
    EXPECT_EQ(outcome.text.substr(0, 29), "LACP Msg: interface 0/0 is fa");
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
    const Outcome outcome = groups({fake::deleted(fake::dataless(group_path(3, ""), SR_LIST_T)),
                                    fake::deleted(fake::name(group_path(3, "lacp-type"), "dynamic"))});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.fetched, 1U);
    EXPECT_EQ(outcome.text, "LACP Msg: channel-group 3 has been reset!\n");
    EXPECT_EQ(type_of(3), 0U);
    EXPECT_EQ(used(3), 0U);
    ASSERT_EQ(fake::driver().sent.size(), 1U);
    EXPECT_EQ(fake::driver().sent[0], hex("000c 01 02 0000 000b 00000003"));
    dispatch();
    EXPECT_EQ(get_lacp_port_state(1), 0);
    EXPECT_EQ(get_lacp_port_state(2), 0);
    EXPECT_EQ(get_lacp_port_state(4), 1) << "another group's port";

    // When it is created again, the ports that are still configured for it come back.
    EXPECT_EQ(groups({fake::created(fake::name(group_path(3, "lacp-type"), "dynamic"))}).result, 0);
    dispatch();
    EXPECT_EQ(get_lacp_port_state(1), 1);
    EXPECT_EQ(get_lacp_port_state(2), 1);
    EXPECT_EQ(get_lacp_channel_group_id(1), 3);
}

TEST_F(HandlerTest, DeletingAGroupWithoutTrunkOrNumber)
{
    EXPECT_EQ(groups({fake::deleted(fake::dataless(group_path(2, ""), SR_LIST_T))}).result, 0);
    EXPECT_EQ(fake::take_messages().size(), 0U);
    const Outcome outcome = groups({fake::deleted(fake::dataless(group_path(8, ""), SR_LIST_T))});
    EXPECT_EQ(outcome.result, -9);
    EXPECT_EQ(outcome.text, "LACP Msg: channel-group 8 has been reset!\n");
}

TEST_F(HandlerTest, OtherDeletions)
{
    set_lacp_channel_group_id(3, 2);
    dispatch();
    EXPECT_EQ(groups({fake::deleted(fake::text(group_path(2, "join-port"), "gigabitethernet 0/3"))}).result, 0);
    dispatch();
    EXPECT_EQ(get_lacp_channel_group_id(3), 0);
    EXPECT_EQ(groups({fake::deleted(fake::name(group_path(2, "lacp-type"), "manual"))}).result, 0);
    EXPECT_EQ(groups({fake::deleted(fake::text(group_path(2, "member-ports"), "gigabitethernet 0/3"))}).text, "")
        << "the whole path counts";
    EXPECT_EQ(groups({fake::Change{SR_OP_DELETED, {}, {}}}).result, 0);
    EXPECT_EQ(lacp_channel_group_del_cb(nullptr), 0);
}

// ---- global configuration -------------------------------------------------------------------------------------

TEST_F(HandlerTest, SystemIdentifierAndPriority)
{
    switch_on();
    const Outcome outcome = global({fake::created(fake::text(GLOBAL + "system-id", "0299.8877.6655")),
                                    fake::created(fake::number16(GLOBAL + "system-priority", 4096))});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.text, "leaf system-id\nleaf system-priority\n");
    dispatch();
    EXPECT_EQ(lacSystem->system_mac.get(), OTHER_MAC);
    EXPECT_EQ(port(1).port_mac, OUR_MAC) << "the ports' own addresses stay";
    EXPECT_EQ(port(1).actor_system.get(), OUR_MAC);
    EXPECT_EQ(lacpCtrl.system_priority, 4096);
    EXPECT_EQ(port(4).actor_system_priority, 4096);
    EXPECT_EQ(lacSystem->system_priority, 32768);
}

TEST_F(HandlerTest, ARefusedSystemPriority)
{
    LacSystem *const records = lacSystem;
    lacSystem = nullptr;
    const Outcome outcome = global({fake::created(fake::number16(GLOBAL + "system-priority", 4096))});
    lacSystem = records;
    EXPECT_EQ(outcome.result, -11);
    EXPECT_EQ(outcome.text, "leaf system-priority\nset 'system-priority' failed! ret -11\n");
}

// ---- trunk settings of a port ---------------------------------------------------------------------------------

TEST_F(HandlerTest, AttributesOfAPort)
{
    switch_on();
    EXPECT_EQ(trunk({fake::created(fake::name(trunk_path(2, "mode"), "passive")),
                     fake::created(fake::number16(trunk_path(2, "priority"), 77)),
                     fake::created(fake::name(trunk_path(2, "timeout"), "short"))})
                  .result,
              0);
    dispatch();
    EXPECT_EQ(port(2).actor_oper_state & (LAC_ACTIVITY | LAC_TIMEOUT), LAC_TIMEOUT);
    EXPECT_EQ(port(2).actor_port_priority, 77);
    for (const char *mode : {"active", "on", "whatever"}) {
        set_lacp_port_mode(0, 2, 0);
        trunk({fake::created(fake::name(trunk_path(2, "mode"), mode))});
        dispatch();
        EXPECT_NE(port(2).actor_oper_state & LAC_ACTIVITY, 0) << mode;
    }
    for (const char *timeout : {"long", "Short", "shorter"}) {
        set_lacp_port_timeout(0, 2, 1);
        trunk({fake::created(fake::name(trunk_path(2, "timeout"), timeout))});
        dispatch();
        EXPECT_EQ(port(2).actor_oper_state & LAC_TIMEOUT, 0) << timeout;
    }
}

TEST_F(HandlerTest, AttributesOfAnUnknownPort)
{
    const auto text = [&](const fake::Value &value, int result) {
        const Outcome outcome = trunk({fake::created(value)});
        EXPECT_EQ(outcome.result, result);
        return outcome.text;
    };
    EXPECT_EQ(text(fake::number16(trunk_path(9, "priority"), 1), -27),
              "set slot 0 port 9 'priority' failed! ret -27\n");
    EXPECT_EQ(text(fake::name(trunk_path(9, "mode"), "active"), -1), "set slot 0 port 9 'mode' failed! ret -1\n");
    EXPECT_EQ(text(fake::name(trunk_path(9, "timeout"), "short"), 0), "") << "not examined";
}

TEST_F(HandlerTest, JoiningADynamicGroup)
{
    create_group(2, "dynamic");
    set_link(1, true);
    EXPECT_EQ(trunk({fake::created(fake::number8(trunk_path(1, "channel-group"), 2))}).result, 0);
    EXPECT_EQ(Lac_Queue.count(), 3) << "group, key, LACP on";
    dispatch();
    EXPECT_EQ(get_lacp_channel_group_id(1), 2);
    EXPECT_EQ(port(1).actor_oper_key, 2);
    EXPECT_EQ(get_lacp_port_state(1), 1);
}

TEST_F(HandlerTest, GroupsThatAreNotDynamicAreLeftToTheirMemberLists)
{
    create_group(1, "manual");
    for (const std::uint8_t group : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{9}, std::uint8_t{0}}) {
        EXPECT_EQ(trunk({fake::created(fake::number8(trunk_path(1, "channel-group"), group))}).result, 0);
        EXPECT_EQ(trunk({fake::modified(fake::number8(trunk_path(1, "channel-group"), group),
                                        fake::number8(trunk_path(1, "channel-group"), 0))})
                      .result,
                  0);
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
    std::uint32_t agg_no = 0;
    get_channel_group_agg_no(2, &agg_no);
    EXPECT_EQ(agg_no, 3U) << "selection has run in the group it left";
}

// A port that goes straight from one dynamic group to another is detached from the first one's list.
TEST_F(HandlerTest, MovingStraightToAnotherGroup)
{
    create_group(2, "dynamic");
    LacPort &record = current_port(1, 1);
    ASSERT_NE(ticks_until([&] { return record.attached == 1; }), 0U);
    ASSERT_EQ(members(1), 0x1U);
    join(1, 2);
    EXPECT_EQ(members(1), 0U);
    EXPECT_EQ(get_lacp_channel_group_id(1), 2);
    EXPECT_EQ(record.actor_oper_key, 2);
    EXPECT_EQ(get_lacp_port_state(1), 1);
    receive(1, pdu_bytes(peer(1), lac_actor_info(&record)));
    ASSERT_NE(ticks_until([&] { return record.attached == 1; }), 0U);
    EXPECT_EQ(members(2), 0x1U);
    EXPECT_EQ(fake::datastore().members[1], std::set<std::string>{});
    EXPECT_EQ(fake::datastore().members[2], std::set<std::string>{"gigabitethernet 0/1"});
}

TEST_F(HandlerTest, NamingTheSameGroupAgainKeepsThePort)
{
    LacPort &record = current_port(1, 1);
    ASSERT_NE(ticks_until([&] { return record.attached == 1; }), 0U);
    join(1, 1);
    EXPECT_EQ(get_lacp_port_state(1), 1);
    EXPECT_EQ(members(1), 0x1U);
}

TEST_F(HandlerTest, AFullQueueRefusesTheJoin)
{
    create_group(2, "dynamic");
    while (Lac_Queue.count() < 128)
        send(3);
    const Outcome outcome = trunk({fake::created(fake::number8(trunk_path(1, "channel-group"), 2))});
    EXPECT_EQ(outcome.result, -1);
    const std::string line = "set slot 0 port 1 'channel-group' failed! ret -1\n";
    EXPECT_EQ(outcome.text.substr(outcome.text.size() - line.size()), line);
}

TEST_F(HandlerTest, TracesOfTrunkChanges)
{
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    const std::string path = trunk_path(2, "priority");
    EXPECT_EQ(trunk({fake::modified(fake::number16(path, 1), fake::number16(path, 2))}).text,
              "[DATABASE INFO] interface (0/2) operation [1] xpath [" + path + "]\n");
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
    static std::uint32_t uplinks()
    {
        std::uint32_t list = 0;
        get_channel_group_uplink_port_list(1, &list);
        return list;
    }
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
    EXPECT_EQ(link({change_to("up")}).text, "");
    EXPECT_EQ(uplinks(), 0x2U);
    link({change_to("testing")});
    EXPECT_EQ(uplinks(), 0U) << "everything but up is down";
}

TEST_F(LinkHandlerTest, OnlyTheFirstChangeIsLookedAt)
{
    EXPECT_EQ(link({change_to("up", 3), change_to("up", 2)}).fetched, 1U);
    EXPECT_EQ(uplinks(), 0U);
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

TEST_F(LinkHandlerTest, Traces)
{
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    EXPECT_EQ(link({change_to("up")}).text, "[DATABASE INFO] lacp_port_uplink_change_cb => interface gigabitEthernet "
                                            "0/2 is [up], lacp type is [manual]\n");
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

} // namespace
