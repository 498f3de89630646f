// Records, port control and configured attributes.
#include "engine.h"

#include <optional>

namespace
{

class PortTest : public EngineTest
{
};

class NoPortsTest : public EngineTest
{
  protected:
    NoPortsTest() : EngineTest(0, 0) {}
};

class LaterPortsTest : public EngineTest
{
  protected:
    LaterPortsTest() : EngineTest(3, 5) {}
};

TEST_F(PortTest, Records)
{
    std::vector<unsigned> walked;
    for (const LacPort *record : lac_ports()) {
        walked.push_back(record->port_no);
        EXPECT_EQ(lacNoToPort(record->port_no), record);
        EXPECT_EQ(record->port_mac, OUR_MAC);
        EXPECT_EQ(record->coll_dist, 1U);
        EXPECT_EQ(record->lacp_enabled, 0U);
    }
    EXPECT_EQ(walked, (std::vector<unsigned>{1, 2, 3, 4}));
    EXPECT_EQ(lacNoToPort(4)->next, &lacSystem->head);
    EXPECT_EQ(lacNoToPort(0), nullptr);
    EXPECT_EQ(lacNoToPort(5), nullptr);
    EXPECT_EQ(lacNumLogicalPorts(), 4U);
    EXPECT_EQ(lacSystem->system_mac.get(), OUR_MAC);
    EXPECT_EQ(lacSystem->system_priority, 32768);
    EXPECT_EQ(lacpCtrl.channel_group_max, 4U);
    EXPECT_EQ(get_lacp_if_startup(), 1U);
    lac_LacInit();
    EXPECT_EQ(fake::take_writes(), Texts{}) << "a second creation does nothing";
    EXPECT_EQ(set_lacp_system_id({0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC}), 0);
    EXPECT_EQ(fake::take_writes(), Texts{"system-id 0011.22aa.bbcc (32,1)"});
    fake::datastore().failures["db_olt_lacp_set_global_configuration_system_id"] = 12;
    EXPECT_EQ(set_lacp_system_id(OUR_MAC), 12);
}

TEST_F(NoPortsTest, AnEmptyInventoryRuns)
{
    EXPECT_EQ(lacSystem->head.next, &lacSystem->head);
    EXPECT_EQ(lacNoToPort(0), nullptr) << "the head of the list is no port";
    EXPECT_EQ(lacNoToPort(1), nullptr);
    switch_on();
    tick(3);
    send(LAC_Q_LINK_UP, 1);
    dispatch();
    EXPECT_TRUE(wire.take().empty());
}

TEST_F(LaterPortsTest, TheLastNumberIsTheNumberOfPorts)
{
    EXPECT_EQ(lacpCtrl.port_count, 5U);
    EXPECT_NE(lacNoToPort(1), nullptr);
    EXPECT_NE(lacNoToPort(5), nullptr);
    EXPECT_EQ(lacPortCfg[2].key, 100);
    EXPECT_EQ(lacPortCfg[4].port_priority, 32768);
}

TEST_F(PortTest, SwitchingOnInitialisesEveryPort)
{
    lacPortCfg[1].timeout = 1;
    lacPortCfg[2].passive = 1;
    set_link(4, true);
    switch_on();
    EXPECT_EQ(lacSystem->system_state, 1U);
    EXPECT_EQ(get_lac_global_enable(), 1U);
    const std::uint8_t states[] = {0x45, 0x47, 0x44, 0x45};
    for (LacPort *record : lac_ports()) {
        SCOPED_TRACE(record->port_no);
        const bool up = record->port_no == 4; // found without LACP
        EXPECT_EQ(lac_actor_info(record),
                  (LacInfo{32768, OUR_MAC, 100, 32768, record->port_no, states[record->port_no - 1], {}}));
        EXPECT_EQ(lac_partner_info(record), LacInfo{});
        EXPECT_EQ(record->rxm, up ? LAC_RX_LACP_DISABLED : LAC_RX_PORT_DISABLED);
        EXPECT_EQ(record->port_enabled, up ? 1U : 0U);
        EXPECT_EQ(record->txm, LAC_NO_PERIODIC);
        EXPECT_EQ(record->selected, LAC_UNSELECTED);
        EXPECT_EQ(record->muxm, LAC_MUX_DETACHED);
        EXPECT_EQ(record->aggregator.get(), record);
        EXPECT_EQ(record->next_lag_port.get(), record);
        EXPECT_EQ(record->aggregator_id, record->port_no);
        EXPECT_EQ(record->individual, 1U);
        EXPECT_EQ(record->coll_dist, 0U);
        EXPECT_EQ(record->port_mask, 1U << (record->port_no - 1));
        EXPECT_EQ(record->mux_scheduler.active, 1U);
    }
    const std::string before = snapshot(port(1));
    set_link(1, true);
    for (const std::uint32_t number : {1U, 9U, 0U}) {
        send(LAC_Q_LINK_UP, number);
        send(LAC_Q_LINK_DOWN, number);
    }
    dispatch();
    EXPECT_EQ(snapshot(port(1)), before) << "link events of a port without LACP change nothing";
}

TEST_F(PortTest, InitialisationForgetsWhatWasLearned)
{
    LacPort &record = current_port(2);
    ASSERT_EQ(record.rxm, LAC_RX_CURRENT);
    ASSERT_EQ(record.partner_oper_key, 7);
    lac_set(LAC_SET_ON);
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED) << "link and LACP are still on";
    EXPECT_EQ(record.partner_oper_key, 0);
    EXPECT_EQ(record.partner_system.get(), Mac{});
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
    EXPECT_EQ(record.individual, 1U);
}

// ---- events ---------------------------------------------------------------------------------------------------

TEST_F(PortTest, NothingReachesAPortWhileLacpIsOff)
{
    set_link(1, true);
    const std::string before = snapshot(port(1));
    EXPECT_EQ(lacEnablePort(&port(1)) + lacDisablePort(&port(1)), 0);
    for (const std::uint64_t code : {LAC_Q_PORT_ENABLE, LAC_Q_LINK_UP, LAC_Q_TICK})
        send(code, 1);
    dispatch();
    EXPECT_EQ(snapshot(port(1)), before);
}

TEST_F(PortTest, EnablingFollowsTheLink)
{
    switch_on();
    set_link(1, true);
    set_link(2, false);
    send(LAC_Q_PORT_ENABLE, 1);
    send(LAC_Q_PORT_ENABLE, 2);
    send(LAC_Q_PORT_ENABLE, 3); // its link cannot be read
    dispatch();
    EXPECT_EQ(port(1).rxm, LAC_RX_EXPIRED);
    EXPECT_EQ(port(1).port_enabled, 1U);
    EXPECT_EQ(port(1).individual, 0U);
    EXPECT_EQ(port(1).selected, LAC_STANDBY) << "the partner is not known to be aggregatable";
    for (const std::uint32_t down : {2U, 3U}) {
        EXPECT_EQ(port(down).rxm, LAC_RX_PORT_DISABLED);
        EXPECT_EQ(port(down).port_enabled, 0U);
        EXPECT_EQ(port(down).lacp_enabled, 1U);
        EXPECT_EQ(port(down).selected, LAC_UNSELECTED);
    }
}

TEST_F(PortTest, LosingTheLinkStopsTheMachinesLeavingReinitialisesThePort)
{
    LacPort &record = current_port(1);
    ASSERT_NE(ticks_until([&] { return record.muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 0U);
    change_link(1, false);
    EXPECT_EQ(record.lacp_enabled, 1U);
    EXPECT_EQ(record.port_enabled, 0U);
    EXPECT_EQ(record.rxm, LAC_RX_PORT_DISABLED);
    EXPECT_EQ(record.txm, LAC_NO_PERIODIC);
    EXPECT_EQ(record.muxm, LAC_MUX_DETACHED);
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
    EXPECT_EQ(record.periodic_timer.active, 0U);
    EXPECT_EQ(fake::datastore().members[1], std::set<std::string>{});
    record.hold_count = 3;
    record.tx_scheduler = LacTimer{0, 1, 0, 1};
    change_link(1, true); // transmission starts over
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
    EXPECT_EQ(record.ntt, 1U);
    EXPECT_EQ(record.hold_count, 0U);
    EXPECT_EQ(record.tx_scheduler.active, 1U);
    EXPECT_EQ(record.tx_scheduler.count, 0U);

    receive(1, pdu_bytes(peer(1), lac_actor_info(&record)));
    ASSERT_NE(ticks_until([&] { return record.muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 0U);
    leave(1);
    EXPECT_EQ(record.lacp_enabled, 0U);
    EXPECT_EQ(record.rxm, LAC_RX_LACP_DISABLED);
    EXPECT_EQ(record.individual, 1U);
    EXPECT_EQ(record.aggregator.get(), &record);
    EXPECT_EQ(record.attached + record.coll_dist + record.port_mask, 0U);
    EXPECT_EQ(fake::datastore().members[1], std::set<std::string>{});
    const std::string before = snapshot(record);
    tick(5);
    EXPECT_EQ(snapshot(record), before) << "the timers of a port without LACP stand still";
}

// ---- configured attributes ------------------------------------------------------------------------------------

TEST_F(PortTest, ConfiguredValuesSurvive)
{
    LacPort &record = port(2);
    set_lacp_port_oper_key(2, 3);
    set_lacp_port_priority(0, 2, 77);
    set_lacp_port_mode(0, 2, 0);
    set_lacp_port_timeout(0, 2, 1);
    set_lacp_system_priority(4096);
    const auto post = [&](std::uint64_t code, std::optional<bool> link) {
        return [this, code, link] {
            if (link)
                set_link(2, *link);
            send(code, 2);
        };
    };
    const std::vector<std::pair<const char *, std::function<void()>>> events = {
        {"configured", [] {}},
        {"LACP on", [&] { switch_on(); }},
        {"enabled", post(LAC_Q_PORT_ENABLE, true)},
        {"link lost", post(LAC_Q_LINK_DOWN, false)},
        {"link back", post(LAC_Q_LINK_UP, true)},
        {"partner moved away", [&] { lacRxMachine(&record, Lac_port_moved, nullptr); }},
        {"left", post(LAC_Q_PORT_STATE, {})},
        {"rejoined", post(LAC_Q_PORT_ENABLE, {})},
        {"changed", [] { set_lacp_port_mode(0, 2, 1), set_lacp_system_priority(4097); }},
        {"partner moved away", [&] { lacRxMachine(&record, Lac_port_moved, nullptr); }},
        {"LACP off", [] { lac_set(LAC_SET_OFF); }},
        {"LACP on again", [] { lac_set(LAC_SET_ON); }},
    };
    bool changed = false;
    for (const auto &[name, event] : events) {
        SCOPED_TRACE(name);
        changed |= std::string(name) == "changed";
        event();
        dispatch();
        EXPECT_EQ(record.actor_oper_key, 3);
        EXPECT_EQ(record.aggregator_oper_key, 3);
        EXPECT_EQ(record.aggregator_admin_key, 3);
        EXPECT_EQ(record.actor_port_priority, 77);
        EXPECT_EQ(record.actor_oper_state & (LAC_ACTIVITY | LAC_TIMEOUT), LAC_TIMEOUT | (changed ? LAC_ACTIVITY : 0));
        EXPECT_EQ(record.actor_system_priority, changed ? 4097 : 4096);
    }
    EXPECT_EQ(port(1).actor_oper_key, 100) << "another port keeps its own";
    EXPECT_EQ(port(1).actor_system_priority, 4097) << "the system's priority is every port's";

    lac_set(LAC_SET_OFF);
    lacDrvCtrl->lac_enable = 0;
    set_lacp_port_state(2, 0);
    dispatch();
    EXPECT_EQ(record.actor_oper_state & LAC_TIMEOUT, 0) << "leaving takes the bit until LACP starts again";
    switch_on();
    EXPECT_NE(record.actor_oper_state & LAC_TIMEOUT, 0);
}

TEST_F(PortTest, AttributesTakeEffectInTheOrderOfTheCalls)
{
    switch_on();
    set_link(1, true);
    set_lacp_channel_group_id(1, 1);
    set_lacp_port_enable(1);
    set_lacp_port_state(1, 0);
    set_lacp_channel_group_id(1, 2);
    set_lacp_port_priority(0, 1, 5);
    set_lacp_port_priority(0, 1, 6);
    EXPECT_EQ(get_lacp_channel_group_id(1), 0) << "applied by the dispatcher, not by the caller";
    dispatch();
    EXPECT_EQ(get_lacp_channel_group_id(1), 2);
    EXPECT_EQ(get_lacp_port_state(1), 0);
    EXPECT_EQ(port(1).actor_port_priority, 6);
    EXPECT_EQ(lacPortCfg[0].port_priority, 6);
}

TEST_F(PortTest, RefusedAttributes)
{
    const auto expect = [](std::uint32_t port_no, int priority, int mode_and_state, int system) {
        EXPECT_EQ(set_lacp_channel_group_id(port_no, 1), nullptr);
        EXPECT_EQ(set_lacp_port_oper_key(port_no, 1), nullptr);
        EXPECT_EQ(set_lacp_port_priority(0, port_no, 1), priority);
        EXPECT_EQ(set_lacp_port_mode(0, port_no, 1), mode_and_state);
        EXPECT_EQ(set_lacp_port_state(port_no, 1), mode_and_state);
        set_lacp_port_timeout(0, port_no, 1);
        if (system != 0) {
            EXPECT_EQ(set_lacp_system_priority(1), system);
            EXPECT_EQ(set_lacp_system_mac(OTHER_MAC), system);
        }
    };
    for (const std::uint32_t missing : {0U, 5U, 4096U}) {
        SCOPED_TRACE(missing);
        expect(missing, -27, -1, 0);
        for (const auto getter : {get_lacp_channel_group_id, get_lacp_port_individual, get_lacp_port_state})
            EXPECT_EQ(getter(missing), -1);
    }
    LacSystem *const records = lacSystem;
    lacSystem = nullptr;
    expect(1, -27, -1, -11);
    lacSystem = records;
    EXPECT_EQ(Lac_Queue.count(), 0) << "nothing was sent for them";
    while (Lac_Queue.count() < static_cast<int>(LAC_QUEUE_LIMIT))
        send(3);
    printed([&] {
        expect(1, -1, -1, -1);
        EXPECT_EQ(set_lacp_port_enable(1), -1);
    });
    dispatch();
    EXPECT_EQ(port(1).actor_port_priority, 0) << "not even initialised yet";
    EXPECT_EQ(lacpCtrl.system_priority, 32768);
}

TEST_F(PortTest, ModeKeepsOtherBits)
{
    switch_on();
    const std::uint8_t before = port(1).actor_oper_state;
    for (const std::uint8_t passive : {std::uint8_t{0}, std::uint8_t{2}}) {
        set_lacp_port_mode(0, 1, passive);
        dispatch();
        EXPECT_EQ(port(1).actor_oper_state, before & ~LAC_ACTIVITY);
        set_lacp_port_mode(0, 1, static_cast<std::uint8_t>(passive | 1));
        dispatch();
        EXPECT_EQ(port(1).actor_oper_state, before);
    }
}

TEST_F(PortTest, TimeoutRestartsTheTimerOnlyWhileLacpRuns)
{
    LacPort &running = current_port(1);
    ASSERT_EQ(running.current_while_timer.count, 90U);
    set_lacp_port_timeout(0, 1, 1);
    dispatch();
    EXPECT_EQ(running.current_while_timer.count, 3U);
    set_lacp_port_timeout(0, 1, 2);
    dispatch();
    EXPECT_EQ(running.current_while_timer.count, 90U) << "every value but 1 is long";
    EXPECT_EQ(running.actor_oper_state & LAC_TIMEOUT, 0);

    const LacPort &idle = port(2);
    set_lacp_port_timeout(0, 2, 1);
    dispatch();
    EXPECT_EQ(idle.current_while_timer.active, 0U);
    EXPECT_EQ(lacPortCfg[1].timeout, 1U);
    EXPECT_NE(idle.actor_oper_state & LAC_TIMEOUT, 0);
}

TEST_F(PortTest, ANewSystemIdentifierGoesOutAsActorSystem)
{
    LacPort &record = current_port(1);
    const Mac before = record.actor_system;
    EXPECT_EQ(set_lacp_system_mac(OTHER_MAC), 0);
    dispatch();
    EXPECT_EQ(lacSystem->system_mac.get(), OTHER_MAC);
    EXPECT_EQ(record.actor_system.get(), before) << "the port keeps its copy until it is initialised";
    wire.take();
    ASSERT_NE(ticks_until([&] { return record.stats->tx_lacpdu != 0; }), 0U);
    EXPECT_EQ(wire.take().at(0).actor().system, OTHER_MAC);
}

} // namespace
