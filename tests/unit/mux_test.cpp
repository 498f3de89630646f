// Mux machine and attachment to aggregators.
#include "engine.h"

namespace
{

constexpr std::uint8_t OPERATION = LAC_SYNCHRONIZATION | LAC_COLLECTING | LAC_DISTRIBUTING;

class MuxTest : public EngineTest
{
  protected:
    // A port in group 1 with a partner, its machine held in a state.
    LacPort &port_in(std::uint32_t muxm, std::uint32_t selected)
    {
        LacPort &record = current_port(1);
        record.aggregator = &record;
        record.individual = 0;
        record.muxm = muxm;
        record.selected = selected;
        record.ready_n = 0;
        fake::take_writes();
        return record;
    }
};

TEST_F(MuxTest, Transitions)
{
    constexpr std::uint8_t SYNC = LAC_SYNCHRONIZATION;
    struct Row {
        const char *name;
        std::uint32_t from;
        std::uint32_t selected;
        std::uint32_t ready_n;
        std::uint8_t partner;
        std::uint32_t to;
        std::uint8_t actor; // Synchronization, Collecting, Distributing afterwards
        std::uint32_t attached;
    };
    const Row rows[] = {
        {"not selected", 0x11, LAC_UNSELECTED, 0, SYNC, LAC_MUX_DETACHED, 0, 0},
        {"selected", 0x11, LAC_SELECTED, 0, SYNC, LAC_MUX_WAITING, 0, 0},
        {"standby", 0x11, LAC_STANDBY, 0, SYNC, LAC_MUX_WAITING, 0, 0},
        {"detached, not selected", 1, LAC_UNSELECTED, 0, SYNC, LAC_MUX_DETACHED, OPERATION, 0},
        {"detached, selected", 1, LAC_SELECTED, 0, SYNC, LAC_MUX_WAITING, OPERATION, 0},
        {"enter waiting", 0x12, LAC_SELECTED, 0, SYNC, LAC_MUX_WAITING, OPERATION, 0},
        {"waiting, ready", 2, LAC_SELECTED, 1, 0, LAC_MUX_ATTACHED, SYNC, 1},
        {"waiting, ready, partner ready", 2, LAC_SELECTED, 1, SYNC, LAC_MUX_COLLECTING_DISTRIBUTING, OPERATION, 1},
        {"waiting, standby", 2, LAC_STANDBY, 1, SYNC, LAC_MUX_WAITING, OPERATION, 0},
        {"waiting, unselected", 2, LAC_UNSELECTED, 1, SYNC, LAC_MUX_DETACHED, 0, 0},
        {"enter attached", 0x13, LAC_SELECTED, 0, 0, LAC_MUX_ATTACHED, SYNC, 1},
        {"attached, partner synchronizes", 3, LAC_SELECTED, 0, SYNC, LAC_MUX_COLLECTING_DISTRIBUTING, OPERATION, 0},
        {"attached, standby", 3, LAC_STANDBY, 0, SYNC, LAC_MUX_WAITING, 0, 0},
        {"attached, unselected", 3, LAC_UNSELECTED, 0, SYNC, LAC_MUX_DETACHED, 0, 0},
        {"enter collecting", 0x14, LAC_SELECTED, 0, SYNC, LAC_MUX_COLLECTING_DISTRIBUTING, OPERATION, 0},
        {"enter distributing", 0x15, LAC_SELECTED, 0, SYNC, LAC_MUX_COLLECTING_DISTRIBUTING, OPERATION, 0},
        {"enter both", 0x16, LAC_SELECTED, 0, SYNC, LAC_MUX_COLLECTING_DISTRIBUTING, OPERATION, 0},
        {"partner loses synchronization", 6, LAC_SELECTED, 0, 0, LAC_MUX_ATTACHED, SYNC, 1},
        {"collecting, the same", 4, LAC_SELECTED, 0, 0, LAC_MUX_ATTACHED, SYNC, 1},
        {"distributing, nothing changes", 5, LAC_SELECTED, 0, SYNC, 5, OPERATION, 0},
        {"both, nothing changes", 6, LAC_SELECTED, 0, SYNC, 6, OPERATION, 0},
        {"both, unselected", 6, LAC_UNSELECTED, 0, SYNC, LAC_MUX_DETACHED, 0, 0},
        {"both, standby", 6, LAC_STANDBY, 0, SYNC, LAC_MUX_WAITING, 0, 0},
        {"not started", 0, LAC_SELECTED, 1, SYNC, 0, OPERATION, 0},
        {"no state", 7, LAC_UNSELECTED, 1, SYNC, 7, OPERATION, 0},
        {"no state", 0x10, LAC_SELECTED, 1, SYNC, 0x10, OPERATION, 0},
        {"no state", 0x17, LAC_SELECTED, 1, SYNC, 0x17, OPERATION, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        LacPort &record = port_in(row.from, row.selected);
        record.attached = 0;
        record.ready_n = row.ready_n;
        record.partner_oper_state = row.partner;
        record.actor_oper_state = OPERATION | LAC_ACTIVITY;
        lacMuxMachine(&record);
        EXPECT_EQ(record.muxm, row.to);
        EXPECT_EQ(record.actor_oper_state, row.actor | LAC_ACTIVITY);
        EXPECT_EQ(record.attached, row.attached);
        EXPECT_EQ(lacGetMuxMachineState(1), row.to & 15);
    }
}

TEST_F(MuxTest, DetachingAndAttachingTellThePartner)
{
    struct Row {
        const char *name;
        std::uint32_t muxm, selected;
        std::uint32_t aggregator;    // port
        std::uint16_t before, after; // the partner's key in the aggregator's view
    };
    for (const Row &row : {Row{"detach", 0x11, LAC_UNSELECTED, 1, 7, 0}, Row{"attach", 0x13, LAC_SELECTED, 1, 0, 7},
                           Row{"attach to another port's", 0x13, LAC_SELECTED, 2, 0, 0}}) {
        SCOPED_TRACE(row.name);
        LacPort &record = port_in(row.muxm, row.selected);
        record.aggregator = &port(row.aggregator);
        record.partner_oper_state = 0;
        record.aggregator_partner_system = row.before == 0 ? Mac{} : PEER_MAC;
        record.aggregator_partner_key = row.before;
        record.ntt = 0;
        record.ready_n = 1;
        record.attached = record.stats->attach_count = 0;
        lacMuxMachine(&record);
        EXPECT_EQ(record.ntt, 1U);
        EXPECT_EQ(record.ready_n, 0U);
        EXPECT_EQ(record.stats->attach_count, row.muxm == 0x13 ? 1U : 0U);
        EXPECT_EQ(record.aggregator_partner_system.get(), row.after == 0 ? Mac{} : PEER_MAC);
        EXPECT_EQ(record.aggregator_partner_key, row.after);
    }
}

TEST_F(MuxTest, OnlyASelectedPortThatGoesOnWaitingKeepsItsCount)
{
    LacPort &record = port_in(0x11, LAC_SELECTED);
    struct Row {
        std::uint32_t selected, active, muxm, count;
    };
    for (const Row &row : {Row{LAC_SELECTED, 0, 0x11, 2}, Row{LAC_SELECTED, 1, 2, 1}, Row{LAC_STANDBY, 1, 2, 2},
                           Row{LAC_SELECTED, 1, 2, 2}, Row{LAC_SELECTED, 1, 2, 1}, Row{LAC_SELECTED, 1, 0x11, 2}}) {
        record.muxm = row.muxm;
        record.selected = row.selected;
        record.wait_while_timer.active = row.active;
        record.wait_while_timer.count = 1;
        lacMuxMachine(&record);
        EXPECT_EQ(record.muxm, LAC_MUX_WAITING);
        EXPECT_EQ(record.wait_while_timer.count * record.wait_while_timer.active, row.count);
    }
}

TEST_F(MuxTest, ReadyIsTheReadinessOfAnySelectedPortOfTheGroup)
{
    struct Row {
        const char *name;
        std::uint32_t group;
        std::uint32_t selected;
        std::uint32_t ready_n;
        std::uint32_t ready;
    };
    const Row rows[] = {
        {"selected and ready", 1, LAC_SELECTED, 1, 1},
        {"not ready", 1, LAC_SELECTED, 0, 0},
        {"standby", 1, LAC_STANDBY, 1, 0},
        {"another group", 2, LAC_SELECTED, 1, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        LacPort &record = port_in(LAC_MUX_WAITING, LAC_SELECTED);
        LacPort &other = port(3);
        other.channel_group_id = row.group;
        other.selected = row.selected;
        other.ready_n = row.ready_n;
        record.partner_oper_state = 0;
        record.ready = 1 - row.ready;
        lacMuxMachine(&record);
        EXPECT_EQ(record.ready, row.ready);
        EXPECT_EQ(record.muxm, row.ready == 1 ? LAC_MUX_ATTACHED : LAC_MUX_WAITING);
        record.attached = 0;
    }
}

TEST_F(MuxTest, ALonePortNeedsNoSynchronizedPartner)
{
    LacPort &record = port_in(0x13, LAC_SELECTED);
    record.individual = 1;
    record.rxm = LAC_RX_DEFAULTED;
    record.partner_oper_state = 0;
    lacMuxMachine(&record);
    EXPECT_EQ(record.muxm, LAC_MUX_COLLECTING_DISTRIBUTING);
    lacMuxMachine(&record);
    EXPECT_EQ(record.muxm, LAC_MUX_COLLECTING_DISTRIBUTING) << "and stays there";
    EXPECT_EQ(record.stats->attach_count, 1U);
    record.selected = LAC_UNSELECTED;
    lacMuxMachine(&record);
    EXPECT_EQ(record.muxm, LAC_MUX_DETACHED);
}

// A DEFAULTED port hears a LACPDU while the link of its aggregator is gone: the partner is recorded, out of
// synchronization, and the port is still DEFAULTED when selection lets it stand alone.
TEST_F(MuxTest, ALonePortSurvivesALacpduThatDoesNotCount)
{
    current_port(1);
    LacPort &record = current_port(2);
    ASSERT_NE(ticks_until([&] { return record.muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 0U);
    ASSERT_EQ(record.aggregator.get(), &port(1));
    lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
    lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
    ASSERT_EQ(record.rxm, LAC_RX_DEFAULTED);
    set_link(1, false);
    receive(2, pdu_bytes(peer(2), {}));
    ASSERT_EQ(record.rxm, LAC_RX_DEFAULTED);
    ASSERT_EQ(record.partner_oper_state & LAC_SYNCHRONIZATION, 0);
    change_link(1, false);
    EXPECT_EQ(record.individual, 1U);
    EXPECT_EQ(record.muxm, LAC_MUX_WAITING);
    EXPECT_EQ(ticks_until([&] { return record.muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 3U);
}

TEST_F(MuxTest, InitialisingStartsOverAndTakesTheBitFromTheOldAggregator)
{
    LacPort &record = port_in(6, LAC_SELECTED);
    record.aggregator = &port(2);
    port(2).port_mask = 0x3;
    record.coll_dist = 1;
    record.attached = 1;
    lacMuxMachineInitPort(&record);
    EXPECT_EQ(port(2).port_mask, 0x2U);
    EXPECT_EQ(record.muxm, LAC_MUX_DETACHED);
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
    EXPECT_EQ(record.attached, 0U);
    EXPECT_EQ(record.coll_dist, 0U);
    EXPECT_EQ(record.aggregator.get(), &record);
    EXPECT_EQ(fake::take_writes(), Texts{}) << "what was attached is forgotten, not removed";
}

// ---- masks ----------------------------------------------------------------------------------------------------

TEST_F(MuxTest, MasksHoldEachMemberOnce)
{
    LacPort &record = port_in(1, LAC_SELECTED);
    LacPort &aggregator = port(2);
    record.aggregator = &aggregator;
    record.coll_dist = 0;
    aggregator.port_mask = 0x4;
    Enable_Collecting_Distributing(&record);
    EXPECT_EQ(aggregator.port_mask, 0x5U);
    Disable_Collecting_Distributing(&record, &aggregator);
    EXPECT_EQ(aggregator.port_mask, 0x4U);
    aggregator.port_mask = 0x5;
    Disable_Collecting_Distributing(&record, &aggregator);
    EXPECT_EQ(aggregator.port_mask, 0x5U) << "a port that does not collect has nothing to take away";
    record.coll_dist = 1;
    record.port_mask = 0x8;
    lacChangeAggregator(&record, &record);
    EXPECT_EQ(aggregator.port_mask, 0x4U) << "the bit moves with the port";
    EXPECT_EQ(record.port_mask, 0x9U);
    record.coll_dist = 0;
    lacChangeAggregator(&record, &aggregator);
    EXPECT_EQ(aggregator.port_mask, 0x4U) << "a port that does not collect has no bit to move";
    lacInitPortMask(&record);
    EXPECT_EQ(aggregator.port_mask, 0x1U);
}

TEST_F(MuxTest, LosingThePartnersSynchronizationTakesTheBitAway)
{
    LacPort &record = port_in(6, LAC_SELECTED);
    record.coll_dist = 1;
    record.port_mask = 0x1;
    record.partner_oper_state = 0;
    lacMuxMachine(&record);
    EXPECT_EQ(record.port_mask, 0U);
    EXPECT_EQ(record.coll_dist, 0U);
    record.partner_oper_state = LAC_SYNCHRONIZATION;
    lacMuxMachine(&record);
    EXPECT_EQ(record.port_mask, 0x1U);
    EXPECT_EQ(record.coll_dist, 1U);
}

// ---- membership -----------------------------------------------------------------------------------------------

class MemberTest : public MuxTest
{
  protected:
    static std::string settle(bool retry = true)
    {
        return printed([retry] { EXPECT_EQ(lacSettleMembers(retry), 0U); });
    }
    LacPort &collecting_port(std::uint32_t number)
    {
        set_link(number, true);
        LacPort &record = port(number);
        record.attached = record.coll_dist = record.selected = 1;
        record.attached_group = 1;
        record.individual = 0;
        record.heard_state = record.told_state = LAC_SYNCHRONIZATION;
        return record;
    }
};

TEST_F(MemberTest, AMemberIsAPortWhoseEndsAgree)
{
    create_group(1, "dynamic");
    struct Row {
        const char *name;
        std::function<void(LacPort &)> change;
    };
    for (const Row &row : {Row{"partner out of sync", [](LacPort &port) { port.heard_state = LAC_ACTIVITY; }},
                           Row{"nothing told yet", [](LacPort &port) { port.told_state = 0; }},
                           Row{"alone", [](LacPort &port) { port.individual = 1; }},
                           Row{"not collecting", [](LacPort &port) { port.coll_dist = 0; }},
                           Row{"detached", [](LacPort &port) { port.attached = 0; }},
                           Row{"unselected", [](LacPort &port) { port.selected = LAC_UNSELECTED; }}}) {
        SCOPED_TRACE(row.name);
        LacPort &record = collecting_port(1);
        settle(false);
        EXPECT_EQ(fake::take_writes(), Texts{"add 1 gigabitethernet 0/1 (32,1)"});
        settle();
        EXPECT_EQ(fake::take_writes(), Texts{}) << "nothing is owed";
        row.change(record);
        settle(false);
        EXPECT_EQ(fake::take_writes(), Texts{"del 1 gigabitethernet 0/1"});
    }
}

TEST_F(MemberTest, ARefusedWriteIsOwedAndForGoodBarsThePort)
{
    create_group(1, "dynamic");
    auto &failures = fake::datastore().failures;
    LacPort &record = collecting_port(1);
    failures["db_olt_lacp_set_group_member_port"] = KEL_DB_BUSY;
    const std::string failed =
        "LINE 803 FUNC lac_add_port_to_aggregator add interface to lacp-group database failed! ret=-3\n";
    EXPECT_EQ(settle(false), failed);
    EXPECT_EQ(settle(false), "") << "tried again on ticks only";
    for (std::uint32_t i = 1; i < LAC_MEMBER_TRIES; ++i)
        EXPECT_EQ(settle(), failed);
    printed([&] { EXPECT_EQ(lacSettleMembers(true), 0x1U); });
    EXPECT_EQ(record.member_barred, LAC_MEMBER_BAR_TICKS);
    failures["db_olt_lacp_del_group_member_port"] = KEL_DB_BUSY;
    record.coll_dist = 0;
    EXPECT_EQ(settle(false),
              "LINE 849 FUNC lac_bcm_remove_port_from_trunk del interface from lacp-group database failed! ret=-3\n");
    failures.clear();
    record.coll_dist = 1;
    fake::take_writes();
    settle(false);
    EXPECT_EQ(fake::take_writes(), Texts{"add 1 gigabitethernet 0/1 (32,1)"}) << "what it stayed in may be gone";

    LacPort &other = collecting_port(2);
    failures["db_olt_lacp_set_group_member_port"] = SR_ERR_VALIDATION_FAILED;
    printed([&] { EXPECT_EQ(lacSettleMembers(false), 0x2U); }); // a final refusal is not tried again
    record.attached_group = 2;
    failures["db_olt_lacp_del_group_member_port"] = SR_ERR_UNAUTHORIZED;
    other.attached = 0;
    settle(false);
    fake::take_writes();
    settle();
    EXPECT_EQ(fake::take_writes(), Texts{"del 1 gigabitethernet 0/1"}) << "not in two lists";
}

} // namespace
