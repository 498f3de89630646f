// Selection: ranking, standby and individual ports, and the group's record of its aggregator.
#include "engine.h"

namespace
{

class SelectionTest : public EngineTest
{
  protected:
    static std::uint32_t aggregator_of(int group)
    {
        std::uint32_t number = 99;
        EXPECT_EQ(get_channel_group_agg_no(group, &number), 0);
        return number;
    }
    // Ports 1 to 3 of group 1, each with a partner on the same system, none attached yet.
    void three_ports()
    {
        for (const std::uint32_t number : {1U, 2U, 3U})
            current_port(number);
        lacSelect(&port(1));
    }
};

TEST_F(SelectionTest, Ranking)
{
    struct Rank {
        std::uint16_t priority;
        std::uint16_t number; // actor_port
        bool defaulted;       // the bit of actor_oper_state
    };
    struct Row {
        const char *name;
        Rank ports[3];
        std::uint32_t best;
    };
    const Row rows[] = {
        {"lowest number", {{5, 1, false}, {5, 2, false}, {5, 3, false}}, 1},
        {"lowest actor port, not list order", {{5, 9, false}, {5, 8, false}, {5, 7, false}}, 3},
        {"equal actor ports keep list order", {{5, 4, false}, {5, 4, false}, {5, 4, false}}, 1},
        {"priority before number", {{5, 1, false}, {4, 2, false}, {6, 3, false}}, 2},
        {"priority is unsigned", {{0x7FFF, 1, false}, {0x8000, 2, false}, {0xFFFF, 3, false}}, 1},
        {"priority before Defaulted", {{5, 1, false}, {4, 2, true}, {5, 3, false}}, 2},
        {"not Defaulted before number", {{5, 1, true}, {5, 2, true}, {5, 3, false}}, 3},
        {"a Defaulted one never wins back", {{5, 3, false}, {5, 1, true}, {5, 2, true}}, 1},
        {"both Defaulted, number decides", {{5, 3, true}, {5, 2, true}, {5, 4, true}}, 2},
    };
    three_ports();
    for (const Row &row : rows) {
        for (const std::uint32_t calling : {1U, 2U, 3U}) {
            SCOPED_TRACE(std::string(row.name) + ", called for port " + std::to_string(calling));
            for (std::uint32_t number = 1; number <= 3; ++number) {
                LacPort &record = port(number);
                const Rank &rank = row.ports[number - 1];
                record.actor_port_priority = rank.priority;
                record.actor_port = rank.number;
                lac_clear_actor_state(&record, LAC_DEFAULTED);
                lac_set_actor_state(&record, rank.defaulted ? LAC_DEFAULTED : 0);
            }
            lacSelect(&port(calling));
            for (std::uint32_t number = 1; number <= 3; ++number)
                EXPECT_EQ(port(number).aggregator.get(), &port(row.best));
            EXPECT_EQ(aggregator_of(1), row.best);
        }
    }
}

TEST_F(SelectionTest, WhoIsNoCandidate)
{
    three_ports();
    const auto expect_stopped = [](std::uint32_t number) {
        EXPECT_EQ(port(number).selected, LAC_UNSELECTED);
        EXPECT_EQ(port(number).aggregator.get(), &port(number));
        EXPECT_EQ(port(number).muxm, LAC_MUX_DETACHED) << "the mux machine has run";
    };
    const std::pair<const char *, std::function<void(LacPort &)>> reasons[] = {
        {"other group", [](LacPort &record) { record.channel_group_id = 2; }},
        {"port down", [](LacPort &record) { record.port_enabled = 0; }},
        {"no LACP", [](LacPort &record) { record.lacp_enabled = 0; }},
        {"DEFAULTED", [](LacPort &record) { record.rxm = LAC_RX_DEFAULTED; }},
    };
    for (const auto &[name, apply] : reasons) {
        SCOPED_TRACE(name);
        LacPort &first = port(1);
        first.channel_group_id = first.port_enabled = first.lacp_enabled = 1;
        first.rxm = LAC_RX_CURRENT;
        lacSelect(&first);
        ASSERT_EQ(port(2).aggregator.get(), &first);
        apply(first);
        lacSelect(&port(3));
        EXPECT_EQ(port(2).aggregator.get(), &port(2));
        EXPECT_EQ(port(3).aggregator.get(), &port(2));
        EXPECT_EQ(aggregator_of(1), 2U);
        if (first.lacp_enabled == 0 || first.port_enabled == 0)
            expect_stopped(1);
    }
    port(3).lacp_enabled = 0;
    lacSelect(&port(2));
    expect_stopped(3);
}

TEST_F(SelectionTest, StandbyReasons)
{
    const std::pair<const char *, std::function<void(LacPort &)>> reasons[] = {
        {"key", [](LacPort &record) { record.actor_oper_key = 9; }},
        {"partner's system priority", [](LacPort &record) { record.partner_system_priority = 9; }},
        {"partner's system", [](LacPort &record) { record.partner_system = OTHER_MAC; }},
        {"partner's system, last byte alone",
         [](LacPort &record) {
             Mac mac = PEER_MAC;
             ++mac[5];
             record.partner_system = mac;
         }},
        {"partner's key", [](LacPort &record) { record.partner_oper_key = 9; }},
        {"own Aggregation", [](LacPort &record) { lac_clear_actor_state(&record, LAC_AGGREGATION); }},
        {"partner's Aggregation", [](LacPort &record) { lac_clear_partner_state(&record, LAC_AGGREGATION); }},
    };
    for (const auto &[name, apply] : reasons) {
        SCOPED_TRACE(name);
        three_ports();
        ASSERT_EQ(port(2).selected, LAC_SELECTED);
        apply(port(2));
        lacSelect(&port(1));
        EXPECT_EQ(port(1).selected, LAC_SELECTED);
        EXPECT_EQ(port(2).selected, LAC_STANDBY);
        EXPECT_EQ(port(2).aggregator.get(), &port(1)) << "standby for the same aggregator";
        EXPECT_EQ(port(3).selected, LAC_SELECTED);
        port(2).actor_oper_key = 1;
        lac_set_actor_state(&port(2), LAC_AGGREGATION);
    }
    three_ports();
    lac_clear_partner_state(&port(1), LAC_AGGREGATION);
    lacSelect(&port(2));
    for (const std::uint32_t number : {1U, 2U, 3U})
        EXPECT_EQ(port(number).selected, LAC_STANDBY) << "the best port cannot aggregate";
}

TEST_F(SelectionTest, ALoopNeedsAllFourFields)
{
    three_ports();
    LacPort &record = port(2);
    const auto loop = [&](const std::function<void(LacInfo &)> &change) {
        LacInfo partner = lac_actor_info(&record);
        change(partner);
        for (const std::uint32_t number : {1U, 3U}) { // the rest of the group has the same partner system
            port(number).partner_system_priority = partner.system_priority;
            port(number).partner_system = partner.system;
            port(number).partner_oper_key = partner.key;
        }
        lac_set_partner_info(&record, partner);
        lacSelect(&record);
        return record.selected.get();
    };
    EXPECT_EQ(loop([](LacInfo &) {}), LAC_STANDBY);
    EXPECT_EQ(loop([](LacInfo &info) { info.key = 55; }), LAC_STANDBY) << "the key is none of the four";
    EXPECT_EQ(loop([](LacInfo &info) { info.system_priority = 1; }), LAC_SELECTED);
    EXPECT_EQ(loop([](LacInfo &info) { info.system = PEER_MAC; }), LAC_SELECTED);
    EXPECT_EQ(loop([](LacInfo &info) { info.port = 4; }), LAC_SELECTED);
    EXPECT_EQ(loop([](LacInfo &info) { info.port_priority = 4; }), LAC_SELECTED);
}

TEST_F(SelectionTest, DefaultedPortsStandAlone)
{
    three_ports();
    set_channel_group_agg_no(1, 0);
    const auto expect_alone = [](std::uint32_t number) {
        EXPECT_EQ(port(number).individual, 1U);
        EXPECT_EQ(port(number).selected, LAC_SELECTED);
        EXPECT_EQ(port(number).aggregator.get(), &port(number));
    };
    for (const std::uint32_t number : {1U, 2U, 3U})
        port(number).rxm = LAC_RX_DEFAULTED;
    lacSelect(&port(2));
    for (const std::uint32_t number : {1U, 2U, 3U})
        expect_alone(number);
    EXPECT_EQ(aggregator_of(1), 0U) << "nobody serves the group";

    port(2).rxm = port(3).rxm = LAC_RX_CURRENT;
    lacSelect(&port(3));
    expect_alone(1);
    EXPECT_EQ(port(3).individual, 0U);
    EXPECT_EQ(port(3).aggregator.get(), &port(2));

    LacPort &record = port(1);
    record.muxm = LAC_MUX_ATTACHED;
    record.rxm = LAC_RX_CURRENT;
    lacSelect(&record);
    EXPECT_EQ(record.individual, 0U);
    EXPECT_EQ(record.muxm, LAC_MUX_WAITING) << "it restarts through DETACHED although the aggregator is the same";
}

TEST_F(SelectionTest, PortsOutsideTheTableAreSelectedWithoutIt)
{
    three_ports();
    for (const std::uint32_t group : {0U, 5U}) {
        SCOPED_TRACE(group);
        for (const std::uint32_t number : {2U, 3U})
            port(number).channel_group_id = group;
        lacSelect(&port(3));
        EXPECT_EQ(port(3).aggregator.get(), &port(2));
        EXPECT_EQ(port(3).selected, LAC_SELECTED);
        EXPECT_EQ(aggregator_of(1), 1U);
    }
}

TEST_F(SelectionTest, BeforeStartUpOnlyTheCallingPortIsMarked)
{
    three_ports();
    lacpCtrl.started = 0;
    LacPort &record = port(3);
    record.ready_n = 1;
    record.selected = LAC_UNSELECTED;
    record.muxm = LAC_MUX_DETACHED;
    record.aggregator = &record;
    const std::string first = snapshot(port(1)) + snapshot(port(2));
    EXPECT_EQ(printed([&] { lacSelect(&record); }), "Msg: system lacp doesn't initialized.\r\n");
    EXPECT_EQ(record.ready_n, 0U);
    EXPECT_EQ(record.selected, LAC_SELECTED);
    EXPECT_EQ(record.muxm, LAC_MUX_ENTER_DETACHED) << "the mux machine has not run";
    EXPECT_EQ(record.aggregator.get(), &port(1));
    EXPECT_EQ(snapshot(port(1)) + snapshot(port(2)), first);
}

// ---- after a port has left ------------------------------------------------------------------------------------

class ReselectTest : public SelectionTest
{
  protected:
    // What the datastore has configured: ports 1, 2 and 3 in group 1, port 4 in group 2.
    ReselectTest()
    {
        three_ports();
        set_channel_group_agg_no(1, 0);
        fake::datastore().channel_group[4] = 2;
    }
    // The ports that were selected again.
    std::string reselect(int left, std::uint32_t group, int expected)
    {
        lacDebug = LAC_DBG_SELECT;
        int result = 0;
        const std::string text = printed([&] { result = lacReselectGroup(static_cast<std::uint32_t>(left), group); });
        lacDebug = 0;
        EXPECT_EQ(result, expected);
        std::string selected;
        for (char number = '1'; number <= '4'; ++number)
            if (text.find(std::string("[Select aggregation for port ") + number) != std::string::npos)
                selected += number;
        return selected;
    }
};

TEST_F(ReselectTest, TheFirstOtherPortOfTheGroupIsSelected)
{
    EXPECT_EQ(reselect(1, 1, 0), "2");
    EXPECT_EQ(aggregator_of(1), 1U) << "the best port is ranked as ever";
    EXPECT_EQ(port(2).muxm, LAC_MUX_WAITING) << "restarted from DETACHED";
    EXPECT_EQ(reselect(1, 1, 0), "") << "a group with an aggregator is left alone";
    set_channel_group_agg_no(1, 0);
    EXPECT_EQ(reselect(4, 2, 0), "") << "nobody else is configured there";
    EXPECT_EQ(update_lacp_select_port(2, 1), 0);
    EXPECT_EQ(aggregator_of(1), 0U);
    dispatch();
    EXPECT_EQ(aggregator_of(1), 1U) << "through the queue";
}

TEST_F(ReselectTest, FailedReadsAreRememberedAndPassedOver)
{
    EXPECT_EQ(reselect(1, 9, -9), "") << "no such group";
    fake::datastore().channel_group.erase(2);
    EXPECT_EQ(reselect(1, 1, 0), "3") << "the next port answers";
    set_channel_group_agg_no(1, 0);
    fake::datastore().failures["db_olt_lacp_get_trunk_channel_group"] = 13;
    EXPECT_EQ(reselect(1, 1, 13), "");
}

// ---- LACP off -------------------------------------------------------------------------------------------------

TEST_F(SelectionTest, SwitchedOffEveryPortIsItsOwnAggregator)
{
    three_ports();
    ASSERT_NE(ticks_until([&] { return port(3).muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 0U);
    EXPECT_EQ(port(1).port_mask, 0x7U);
    lacReattachApsToAgs();
    for (const std::uint32_t number : {1U, 2U, 3U, 4U}) {
        SCOPED_TRACE(number);
        EXPECT_EQ(port(number).aggregator.get(), &port(number));
        EXPECT_EQ(port(number).next_lag_port.get(), &port(number));
        EXPECT_EQ(port(number).attached, 1U);
    }
    EXPECT_EQ(port(1).port_mask, 0x1U) << "the masks follow the ports";
    EXPECT_EQ(port(2).port_mask, 0x2U);
}

TEST_F(SelectionTest, ChainsAreCounted)
{
    three_ports();
    EXPECT_EQ(lacNumOfPortsInAggregation(&port(2)), 1U);
    port(1).next_lag_port = &port(3);
    port(3).next_lag_port = &port(2);
    port(2).next_lag_port = &port(1);
    EXPECT_EQ(lacNumOfPortsInAggregation(&port(2)), 3U);
}

} // namespace
