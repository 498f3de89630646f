// Receive machine.
#include "engine.h"

namespace
{

constexpr std::uint32_t EVERY_RX_STATE[] = {LAC_RX_UNINIT,       LAC_RX_CURRENT,    LAC_RX_EXPIRED,
                                            LAC_RX_DEFAULTED,    LAC_RX_INITIALIZE, LAC_RX_LACP_DISABLED,
                                            LAC_RX_PORT_DISABLED};

class ReceiveTest : public EngineTest
{
  protected:
    ReceiveTest() { switch_on(); }

    // What a partner that knows the port would say about it.
    static LacInfo view_of(const LacPort &record) { return lac_actor_info(&record); }
    static void hear(LacPort &record, const LacInfo &actor, const LacInfo &partner)
    {
        const Bytes bytes = pdu_bytes(actor, partner);
        const LacPdu pdu = lacDecodePdu(bytes.data());
        lacRxMachine(&record, Lac_received, &pdu);
    }
    static bool scheduled(LacPort &record, const std::function<void()> &event)
    {
        record.mux_scheduler.active = 0;
        event();
        return record.mux_scheduler.active == 1;
    }
};

// One way that two informations can differ.
struct Difference {
    const char *name;
    std::function<void(LacInfo &)> apply;
};

const std::vector<Difference> EVERY_FIELD_BUT_STATE = {
    {"system priority", [](LacInfo &info) { info.system_priority ^= 1; }},
    {"system, first byte", [](LacInfo &info) { info.system[0] ^= 0x10; }},
    {"system, last byte", [](LacInfo &info) { info.system[5] ^= 1; }},
    {"key", [](LacInfo &info) { info.key ^= 0x100; }},
    {"port priority", [](LacInfo &info) { info.port_priority ^= 1; }},
    {"port", [](LacInfo &info) { info.port ^= 0x100; }},
};

const std::vector<Difference> EVERY_COMPARED_FIELD = [] {
    std::vector<Difference> differences = EVERY_FIELD_BUT_STATE;
    differences.push_back({"aggregation", [](LacInfo &info) { info.state ^= LAC_AGGREGATION; }});
    return differences;
}();

// ---- transitions ----------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, EventsLeadFromEveryStateWhereLinkAndLacpSay)
{
    struct Row {
        const char *name;
        std::uint32_t event;
        bool link;
        std::uint32_t lacp;
        std::uint32_t state;
        std::uint32_t enabled; // port_enabled afterwards; 9: as it was
    };
    const Row rows[] = {
        {"init, link down", Lac_init, false, 1, LAC_RX_PORT_DISABLED, 0},
        {"init, link up", Lac_init, true, 1, LAC_RX_EXPIRED, 1},
        {"init, link up, no LACP", Lac_init, true, 0, LAC_RX_LACP_DISABLED, 1},
        {"moved, link down", Lac_port_moved, false, 1, LAC_RX_PORT_DISABLED, 0},
        {"moved, link up", Lac_port_moved, true, 1, LAC_RX_EXPIRED, 1},
        {"disabled, link down", Lac_port_disabled, false, 1, LAC_RX_PORT_DISABLED, 9},
        {"disabled, link up", Lac_port_disabled, true, 1, LAC_RX_EXPIRED, 1},
        {"disabled, link up, no LACP", Lac_port_disabled, true, 0, LAC_RX_LACP_DISABLED, 1},
        {"enabled", Lac_port_enabled, true, 1, LAC_RX_EXPIRED, 1},
        {"enabled, link down already", Lac_port_enabled, false, 1, LAC_RX_EXPIRED, 1},
        {"enabled, no LACP", Lac_port_enabled, true, 0, LAC_RX_LACP_DISABLED, 1},
    };
    LacPort &record = port(2);
    for (const Row &row : rows) {
        for (const std::uint32_t from : EVERY_RX_STATE) {
            for (const std::uint32_t enabled : {0U, 1U}) {
                SCOPED_TRACE(std::string(row.name) + " from " + std::to_string(from));
                set_link(2, row.link);
                record.rxm = from;
                record.lacp_enabled = row.lacp;
                record.port_enabled = enabled;
                record.selected = LAC_SELECTED;
                lacRxMachine(&record, row.event, nullptr);
                EXPECT_EQ(record.rxm, row.state);
                EXPECT_EQ(record.port_enabled, row.enabled == 9 ? enabled : row.enabled);
                const bool again = row.event == Lac_init || row.event == Lac_port_moved;
                EXPECT_EQ(record.selected,
                          again || row.state == LAC_RX_LACP_DISABLED ? LAC_UNSELECTED : LAC_SELECTED);
                EXPECT_EQ(record.port_moved, 0U);
            }
        }
    }
}

TEST_F(ReceiveTest, ExpiriesMatterInTwoStatesOnly)
{
    LacPort &record = port(1);
    for (const std::uint32_t from : EVERY_RX_STATE) {
        SCOPED_TRACE(from);
        record.rxm = from;
        const std::string before = snapshot(record);
        lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
        if (from == LAC_RX_CURRENT)
            EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
        else if (from == LAC_RX_EXPIRED)
            EXPECT_EQ(record.rxm, LAC_RX_DEFAULTED);
        else
            EXPECT_EQ(snapshot(record), before);
    }
}

TEST_F(ReceiveTest, EventsOfOtherMachinesChangeNothing)
{
    LacPort &record = current_port(1);
    const std::string before = snapshot(record);
    lacDebug = LAC_DBG_RX;
    for (const std::uint32_t event : {0U, std::uint32_t{Lac_ntt}, std::uint32_t{Lac_tx_scheduler_expired}, 99U})
        EXPECT_EQ(printed([&] { lacRxMachine(&record, event, nullptr); }), "[port 1 rx default]\r\n");
    EXPECT_EQ(snapshot(record), before);
}

TEST_F(ReceiveTest, LacpdusCountInThreeStatesOnly)
{
    LacPort &record = running_port(1);
    for (const std::uint32_t from : EVERY_RX_STATE) {
        SCOPED_TRACE(from);
        record.rxm = from;
        lac_set_actor_state(&record, LAC_EXPIRED);
        record.current_while_timer.count = 0;
        const std::string before = snapshot(record);
        hear(record, peer(1), view_of(record));
        if (from == LAC_RX_CURRENT || from == LAC_RX_EXPIRED || from == LAC_RX_DEFAULTED) {
            EXPECT_EQ(record.rxm, LAC_RX_CURRENT);
            EXPECT_EQ(record.actor_oper_state & LAC_EXPIRED, 0);
            EXPECT_EQ(record.current_while_timer.count, 90U);
        } else {
            EXPECT_EQ(snapshot(record), before);
        }
    }
}

TEST_F(ReceiveTest, AnIgnoredLacpduIsStillCounted)
{
    port(1).lacp_enabled = 1;
    set_link(1, false);
    const std::string before = snapshot(port(1));
    const std::uint64_t start = lac_now_ms();
    receive(1, pdu_bytes(peer(), {}));
    EXPECT_EQ(port(1).stats->rx_lacpdu, 1U);
    EXPECT_GE(port(1).stats->last_rx_ms, start);
    port(1).stats->rx_lacpdu = 0;
    EXPECT_EQ(snapshot(port(1)), before);
}

// ---- state entries --------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, InitialisingRestoresTheActorButNotKeyAndPriority)
{
    LacPort &record = port(1);
    for (const std::uint8_t timeout : {std::uint8_t{0}, std::uint8_t{LAC_TIMEOUT}}) {
        SCOPED_TRACE(unsigned{timeout});
        record.actor_system_priority = 1;
        record.actor_system = OTHER_MAC;
        record.actor_port = 99;
        record.actor_oper_key = 5;
        record.actor_port_priority = 6;
        record.actor_oper_state = static_cast<std::uint8_t>(LAC_EXPIRED | timeout);
        lac_set_partner_info(&record, peer(4));
        record.partner_admin_key = 0x4321;
        lacRxMachine(&record, Lac_init, nullptr);
        EXPECT_EQ(lac_actor_info(&record),
                  (LacInfo{32768, OUR_MAC, 5, 6, 1, static_cast<std::uint8_t>(0x7D | timeout), {}}));
        EXPECT_EQ(lac_partner_info(&record), (LacInfo{0, {}, 0x4321, 0, 0, 0, {}}));
        EXPECT_EQ(record.matched, 0U);
    }
}

TEST_F(ReceiveTest, ADisabledPortHasTheDefaultPartnerUnsynchronized)
{
    LacPort &record = port(1);
    record.partner_admin_state = LAC_SYNCHRONIZATION | LAC_AGGREGATION;
    record.actor_oper_state = 0;
    record.matched = 1;
    lac_set_partner_info(&record, peer(4));
    lacRxMachine(&record, Lac_port_disabled, nullptr);
    EXPECT_EQ(lac_partner_info(&record), (LacInfo{0, {}, 0, 0, 0, LAC_AGGREGATION, {}}));
    EXPECT_EQ(record.actor_oper_state, LAC_DEFAULTED);
    EXPECT_EQ(record.matched, 0U);
}

TEST_F(ReceiveTest, WithoutLacpThePortIsIndividual)
{
    LacPort &record = port(1);
    record.partner_admin_state = LAC_SYNCHRONIZATION | LAC_AGGREGATION;
    record.actor_oper_state = LAC_EXPIRED | LAC_ACTIVITY;
    record.individual = 0;
    record.matched = 0;
    lac_set_partner_info(&record, peer(4));
    lacRxMachine(&record, Lac_port_enabled, nullptr);
    EXPECT_EQ(lac_partner_info(&record), (LacInfo{0, {}, 0, 0, 0, LAC_SYNCHRONIZATION, {}}));
    EXPECT_EQ(record.actor_oper_state, LAC_DEFAULTED | LAC_ACTIVITY);
    EXPECT_EQ(record.matched, 1U);
    EXPECT_EQ(record.individual, 1U);
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
}

TEST_F(ReceiveTest, TwoExpiriesLeadToTheDefaultPartner)
{
    LacPort &record = current_port(1);
    record.partner_admin_key = 0x4321;
    record.partner_admin_state = LAC_AGGREGATION;
    ASSERT_EQ(record.matched, 1U);
    const std::uint64_t start = lac_now_ms();
    lacSystem->last_change_ms = 0;
    lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
    EXPECT_EQ(lac_partner_info(&record).state, LAC_ACTIVITY | LAC_AGGREGATION | LAC_TIMEOUT);
    EXPECT_EQ(record.partner_oper_key, 7) << "the partner is remembered while EXPIRED";
    EXPECT_NE(record.actor_oper_state & LAC_EXPIRED, 0);
    EXPECT_EQ(record.matched, 0U);
    EXPECT_EQ(record.current_while_timer.count, 3U);
    EXPECT_EQ(record.current_while_timer.active, 1U);
    EXPECT_GE(lacSystem->last_change_ms, start);

    record.current_while_timer.count = 0;
    lacSystem->last_change_ms = 0;
    EXPECT_TRUE(scheduled(record, [&] { lacRxMachine(&record, Lac_current_while_timer_expired, nullptr); }));
    EXPECT_EQ(lac_partner_info(&record), (LacInfo{0, {}, 0x4321, 0, 0, LAC_SYNCHRONIZATION, {}}));
    EXPECT_EQ(record.actor_oper_state & (LAC_DEFAULTED | LAC_EXPIRED), LAC_DEFAULTED);
    EXPECT_EQ(record.matched, 1U);
    EXPECT_EQ(record.stats->trans_count, 1U);
    EXPECT_EQ(record.current_while_timer.count, 0U) << "not restarted";
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
    EXPECT_GE(lacSystem->last_change_ms, start);
}

TEST_F(ReceiveTest, DefaultingUnselectsOnlyWhenThePartnerWasAnother)
{
    LacPort &record = running_port(1);
    const auto default_with = [&](const Difference *difference) {
        LacInfo known = lac_partner_admin_info(&record);
        if (difference != nullptr)
            difference->apply(known);
        known.state |= LAC_TIMEOUT; // compared in the Aggregation bit alone
        lac_set_partner_info(&record, known);
        record.rxm = LAC_RX_EXPIRED;
        record.selected = LAC_SELECTED;
        lac_set_actor_state(&record, LAC_SYNCHRONIZATION);
        lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
    };
    default_with(nullptr);
    EXPECT_EQ(record.selected, LAC_SELECTED);
    EXPECT_NE(record.actor_oper_state & LAC_SYNCHRONIZATION, 0);
    for (const Difference &difference : EVERY_COMPARED_FIELD) {
        SCOPED_TRACE(difference.name);
        default_with(&difference);
        EXPECT_EQ(record.selected, LAC_UNSELECTED);
        EXPECT_EQ(record.actor_oper_state & LAC_SYNCHRONIZATION, 0);
    }
}

// ---- LACPDUs --------------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, AChangedPartnerUnselectsThePort)
{
    LacPort &record = current_port(1);
    const LacInfo known = peer(1);
    const auto hear_changed = [&](const std::function<void(LacInfo &)> &change) {
        hear(record, known, view_of(record));
        record.selected = LAC_SELECTED;
        lac_set_actor_state(&record, LAC_SYNCHRONIZATION);
        LacInfo heard = known;
        change(heard);
        hear(record, heard, view_of(record));
    };
    for (const Difference &difference : EVERY_COMPARED_FIELD) {
        SCOPED_TRACE(difference.name);
        hear_changed(difference.apply);
        EXPECT_EQ(record.selected, LAC_UNSELECTED);
        EXPECT_EQ(record.actor_oper_state & LAC_SYNCHRONIZATION, 0);
    }
    for (const unsigned bit :
         {LAC_ACTIVITY, LAC_TIMEOUT, LAC_COLLECTING, LAC_DISTRIBUTING, LAC_DEFAULTED, LAC_EXPIRED}) {
        SCOPED_TRACE(bit);
        hear_changed([&](LacInfo &info) { info.state ^= static_cast<std::uint8_t>(bit); });
        EXPECT_EQ(record.selected, LAC_SELECTED);
        EXPECT_NE(record.actor_oper_state & LAC_SYNCHRONIZATION, 0);
    }
}

TEST_F(ReceiveTest, AWrongViewOfUsIsAnswered)
{
    LacPort &record = current_port(1);
    const auto answered = [&](const std::function<void(LacInfo &)> &change) {
        hear(record, peer(1), view_of(record));
        record.ntt = 0;
        LacInfo view = view_of(record);
        change(view);
        hear(record, peer(1), view);
        return record.ntt == 1;
    };
    EXPECT_FALSE(answered([](LacInfo &) {}));
    EXPECT_FALSE(answered([](LacInfo &info) { info.reserved = {1, 2, 3}; }));
    for (const Difference &difference : EVERY_FIELD_BUT_STATE) {
        SCOPED_TRACE(difference.name);
        EXPECT_TRUE(answered(difference.apply));
    }
    for (unsigned bit = 0; bit < 8; ++bit)
        EXPECT_EQ(answered([&](LacInfo &info) { info.state ^= static_cast<std::uint8_t>(1U << bit); }), bit < 4)
            << bit;
}

// What a LACPDU is worth: who is active, whether it names us, whether the sender is an individual link.
TEST_F(ReceiveTest, Judgement)
{
    constexpr std::uint8_t ACTIVE = LAC_ACTIVITY | LAC_AGGREGATION;
    struct Row {
        const char *name;
        std::uint8_t sender; // Actor_State
        std::uint8_t view;   // Partner_State
        std::uint8_t own;    // our state
        bool names_us;
        bool synchronized;
        bool matched;
        bool set_by_us; // Synchronization that the PDU did not carry
    };
    const Row rows[] = {
        {"named", ACTIVE | LAC_SYNCHRONIZATION, ACTIVE, ACTIVE, true, true, true, false},
        {"named, not synchronized", ACTIVE, ACTIVE, ACTIVE, true, true, true, true},
        {"not named", ACTIVE | LAC_SYNCHRONIZATION, ACTIVE, ACTIVE, false, false, false, false},
        {"named, other bits of our state wrong", ACTIVE | LAC_SYNCHRONIZATION, 0xFE & ~LAC_ACTIVITY, ACTIVE, true,
         true, true, false},
        {"named, Aggregation unknown", ACTIVE | LAC_SYNCHRONIZATION, LAC_ACTIVITY, ACTIVE, true, false, false, false},
        {"named, both not aggregatable", ACTIVE | LAC_SYNCHRONIZATION, LAC_ACTIVITY, LAC_ACTIVITY, true, true, true,
         false},
        {"passive, but knows us active", LAC_AGGREGATION, ACTIVE, ACTIVE, true, true, true, true},
        {"passive, thinks us passive", LAC_AGGREGATION | LAC_SYNCHRONIZATION, LAC_AGGREGATION, ACTIVE, true, false,
         false, false},
        {"passive, we too", LAC_AGGREGATION | LAC_SYNCHRONIZATION, ACTIVE, LAC_AGGREGATION, true, false, false,
         false},
        {"individual, not named", LAC_ACTIVITY, ACTIVE, ACTIVE, false, true, true, true},
        {"individual and synchronized", LAC_ACTIVITY | LAC_SYNCHRONIZATION, ACTIVE, ACTIVE, false, true, true, false},
        {"individual, nobody active", LAC_SYNCHRONIZATION, 0, LAC_AGGREGATION, false, false, false, false},
    };
    LacPort &record = running_port(1);
    LacPortStats &stats = *record.stats;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        record.actor_oper_state = row.own | LAC_DEFAULTED;
        stats.trans_count = stats.change_count = stats.unmatched_count = 0;
        LacInfo sender = peer(1);
        sender.state = row.sender;
        LacInfo view = view_of(record);
        view.state = row.view;
        if (!row.names_us)
            view.system = OTHER_MAC;
        hear(record, sender, view);
        EXPECT_EQ((record.partner_oper_state & LAC_SYNCHRONIZATION) != 0, row.synchronized);
        EXPECT_EQ(record.partner_oper_state | LAC_SYNCHRONIZATION, row.sender | LAC_SYNCHRONIZATION);
        EXPECT_EQ(record.matched, row.matched ? 1U : 0U);
        EXPECT_EQ(stats.trans_count, row.set_by_us ? 1U : 0U);
        EXPECT_EQ(stats.change_count, row.synchronized ? 0U : 1U);
        EXPECT_EQ(stats.unmatched_count, row.matched ? 0U : 1U);
        EXPECT_EQ(record.actor_oper_state & LAC_DEFAULTED, 0);
    }
}

TEST_F(ReceiveTest, EveryFieldMustNameUs)
{
    LacPort &record = current_port(1);
    for (const Difference &difference : EVERY_COMPARED_FIELD) {
        SCOPED_TRACE(difference.name);
        LacInfo view = view_of(record);
        hear(record, peer(1), view);
        ASSERT_EQ(record.matched, 1U);
        difference.apply(view);
        hear(record, peer(1), view);
        EXPECT_EQ(record.partner_oper_state & LAC_SYNCHRONIZATION, 0);
        EXPECT_EQ(record.matched, 0U);
    }
}

// After a new system identifier the port still has the old one: synchronization follows the system's, matching the
// port's.
TEST_F(ReceiveTest, TheSystemsAddressAndThePortsAreJudgedApart)
{
    LacPort &record = current_port(1);
    lacSystem->system_mac = OTHER_MAC;
    record.stats->unmatched_count = 0;
    LacInfo view = view_of(record);
    view.system = OTHER_MAC;
    hear(record, peer(1), view);
    EXPECT_NE(record.partner_oper_state & LAC_SYNCHRONIZATION, 0);
    EXPECT_EQ(record.matched, 0U);
    EXPECT_EQ(record.stats->unmatched_count, 1U);
    hear(record, peer(1), view_of(record));
    EXPECT_EQ(record.partner_oper_state & LAC_SYNCHRONIZATION, 0);
    EXPECT_EQ(record.matched, 1U);
}

TEST_F(ReceiveTest, ThePartnerIsRecordedForThePortAndItsAggregator)
{
    LacPort &record = running_port(1);
    LacInfo heard = peer(0x1234);
    heard.system_priority = 0x4455;
    heard.reserved = {9, 8, 7};
    hear(record, heard, view_of(record));
    EXPECT_EQ(lac_partner_info(&record), heard);
    EXPECT_EQ(record.aggregator_partner_system.get(), PEER_MAC);
    EXPECT_EQ(record.aggregator_partner_system_priority, 0x4455);
    EXPECT_EQ(record.aggregator_partner_key, 7);
}

TEST_F(ReceiveTest, OurTimeoutDecidesHowLongThePartnerCounts)
{
    LacPort &record = running_port(1);
    hear(record, peer(1), {});
    EXPECT_EQ(record.current_while_timer.count, 90U);
    lac_set_actor_state(&record, LAC_TIMEOUT);
    hear(record, peer(1), {});
    EXPECT_EQ(record.current_while_timer.count, 3U);
}

TEST_F(ReceiveTest, AnAggregatorWithoutLinkKeepsThePartnerFromCounting)
{
    LacPort &aggregator = current_port(1);
    LacPort &record = current_port(2);
    ASSERT_NE(ticks_until([&] { return record.aggregator == &aggregator; }), 0U);
    lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
    record.current_while_timer.count = 2;
    set_link(1, false);
    LacInfo heard = peer(2);
    heard.key = 99;
    lacDebug = LAC_DBG_TIMER;
    EXPECT_EQ(printed([&] { hear(record, heard, view_of(record)); }),
              "[2 Don't restart current while timer for agg down.]\r\n");
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
    EXPECT_NE(record.actor_oper_state & LAC_EXPIRED, 0);
    EXPECT_EQ(record.current_while_timer.count, 2U);
    EXPECT_EQ(record.partner_oper_key, 99) << "what it says is recorded all the same";

    fake::datastore().link_status.erase(1);
    hear(record, heard, view_of(record));
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED) << "a link that cannot be read is down";
    lacDebug = 0;
    set_link(1, true);
    set_link(2, false);
    hear(record, heard, view_of(record));
    EXPECT_EQ(record.rxm, LAC_RX_CURRENT) << "its own link is not asked for";
}

// ---- mux kick -------------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, TheMuxMachineIsKickedWhenItMayMove)
{
    // By mux state: UNSELECTED, SELECTED, STANDBY, SELECTED with a synchronized partner.
    struct Row {
        std::uint32_t muxm;
        bool kicked[4];
    };
    const Row rows[] = {
        {0, {false, false, false, false}}, {1, {false, true, true, true}},     {0x11, {false, true, true, true}},
        {2, {true, false, false, false}},  {3, {true, false, true, true}},     {0x13, {true, false, true, true}},
        {4, {true, false, true, true}},    {5, {true, false, true, true}},     {6, {true, false, true, true}},
        {7, {false, false, false, false}}, {15, {false, false, false, false}},
    };
    LacPort &record = port(1);
    for (const Row &row : rows) {
        for (int column = 0; column < 4; ++column) {
            SCOPED_TRACE("mux state " + std::to_string(row.muxm) + " column " + std::to_string(column));
            record.muxm = row.muxm;
            record.selected = column == 3 ? std::uint32_t{LAC_SELECTED} : static_cast<std::uint32_t>(column);
            record.partner_oper_state = column == 3 ? LAC_SYNCHRONIZATION : 0;
            EXPECT_EQ(scheduled(record, [&] { lacKickMux(&record); }), row.kicked[column]);
            const bool outside = (row.muxm & 15) == 0 || (row.muxm & 15) > 6;
            EXPECT_EQ(scheduled(record, [&] { lacRxMachine(&record, 99, nullptr); }),
                      outside ? column == 0 : row.kicked[column])
                << "after another event";
        }
    }
}

TEST_F(ReceiveTest, ALacpduKicksOnceTheMachineHasRun)
{
    LacPort &record = current_port(1);
    record.muxm = LAC_MUX_ATTACHED;
    record.selected = LAC_SELECTED;
    const auto heard = [&](const LacInfo &view) {
        return scheduled(record, [&] { receive(1, pdu_bytes(peer(1), view)); });
    };
    LacInfo wrong = view_of(record);
    wrong.key = 0;
    EXPECT_FALSE(heard(wrong));
    EXPECT_TRUE(heard(view_of(record)));
}

// ---- moved partner --------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, AMovedPartnerRestartsTheFirstPortThatKnewIt)
{
    for (const std::uint32_t number : {1U, 2U, 3U, 4U})
        running_port(number);
    for (const std::uint32_t number : {2U, 3U})
        hear(port(number), peer(9), view_of(port(number)));
    const std::string third = snapshot(port(3));
    lacSystem->last_change_ms = 0;
    LacInfo moved = peer(9);
    moved.key = 55; // neither keys nor priorities count
    moved.system_priority = 1;
    moved.port_priority = 1;
    receive(4, pdu_bytes(moved, {}));
    EXPECT_EQ(port(2).rxm, LAC_RX_EXPIRED) << "its link is up";
    EXPECT_EQ(port(2).partner_port, 0);
    EXPECT_EQ(port(2).selected, LAC_UNSELECTED);
    EXPECT_EQ(snapshot(port(3)), third);
    EXPECT_EQ(port(4).stats->moved, 1U);
    EXPECT_EQ(port(2).stats->moved, 0U);
    EXPECT_NE(lacSystem->last_change_ms, 0U);

    set_link(3, false);
    receive(4, pdu_bytes(moved, {}));
    EXPECT_EQ(port(3).rxm, LAC_RX_PORT_DISABLED);
    EXPECT_EQ(port(4).stats->moved, 2U);
    receive(4, pdu_bytes(moved, {}));
    EXPECT_EQ(port(4).stats->moved, 2U) << "the receiving port itself has not moved";
}

TEST_F(ReceiveTest, AnotherPortOrSystemHasNotMoved)
{
    for (const std::uint32_t number : {1U, 2U})
        running_port(number);
    hear(port(1), peer(9), view_of(port(1)));
    for (const LacInfo &heard : {peer(8), peer(0x109), peer(9, OTHER_MAC)})
        receive(2, pdu_bytes(heard, {}));
    EXPECT_EQ(port(2).stats->moved, 0U);
    EXPECT_EQ(port(1).rxm, LAC_RX_CURRENT);
}

// ---- traces ---------------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, Traces)
{
    LacPort &record = running_port(1);
    lacDebug = LAC_DBG_RX | LAC_DBG_UNSELECT;
    const auto said = [&](const LacInfo &actor, const LacInfo &view) {
        return printed([&] { hear(record, actor, view); });
    };
    const auto event = [&](std::uint32_t number) { return printed([&] { lacRxMachine(&record, number, nullptr); }); };
    LacInfo wrong = view_of(record);
    wrong.key = 0;
    EXPECT_EQ(said(peer(1), wrong), "[port 1 rx Lac_received,port->rxm 2]\r\n"
                                    "[rxm_current port 1 rx Lac_received,port->rxm 2]\r\n"
                                    "1: update_Selected: UNSELECTED\r\n"
                                    "[update_NTT port 1 rx Lac_received,port->rxm 2]\r\n"
                                    "[recordPDU-3 port 1 rx Lac_received,port->rxm 2]\r\n");
    LacInfo quiet = peer(1);
    quiet.state = LAC_ACTIVITY | LAC_AGGREGATION;
    EXPECT_EQ(said(quiet, view_of(record)), "[port 1 rx Lac_received,port->rxm 1]\r\n"
                                            "[rxm_current port 1 rx Lac_received,port->rxm 1]\r\n"
                                            "[recordPDU-1 port 1 rx Lac_received,port->rxm 1]\r\n");
    quiet.state = LAC_ACTIVITY;
    said(quiet, wrong);
    EXPECT_EQ(said(quiet, wrong), "[port 1 rx Lac_received,port->rxm 1]\r\n"
                                  "[rxm_current port 1 rx Lac_received,port->rxm 1]\r\n"
                                  "[update_NTT port 1 rx Lac_received,port->rxm 1]\r\n"
                                  "[recordPDU-2 port 1 rx Lac_received,port->rxm 1]\r\n");
    EXPECT_EQ(event(Lac_current_while_timer_expired), "[port 1 rx Lac_current_while_timer_expired rxm: 1]\r\n"
                                                      "1:rxm_expired: set short_timeout [EXPIRED]\r\n");
    EXPECT_EQ(event(Lac_current_while_timer_expired), "[port 1 rx Lac_current_while_timer_expired rxm: 2]\r\n"
                                                      "1:update_Default_Selected: UNSELECTED\r\n");
    EXPECT_EQ(event(Lac_port_moved), "[port 1 rx Lac_port_moved]\r\n"
                                     "[port 1 rx Lac_init]\r\n"
                                     "1: rxm_initialize: UNSELECTED\r\n"
                                     "[port 1 rx Lac_port_disabled UpState = 1]\r\n"
                                     "[port 1 rx Lac_port_enabled 1\r\n"
                                     "1:rxm_expired: set short_timeout [EXPIRED]\r\n");
    record.lacp_enabled = 0;
    EXPECT_EQ(event(Lac_port_enabled),
              "[port 1 rx Lac_port_enabled 0\r\n"
              "[port 1 rx entering lacp_disabled for lacp disable or port is't FullDeplex. ]\r\n"
              "1: rxm_lacp_disabled: UNSELECTED\r\n");
    set_link(1, false);
    EXPECT_EQ(event(Lac_port_disabled), "[port 1 rx Lac_port_disabled UpState = 0]\r\n");
    EXPECT_EQ(said(peer(1), wrong), "[port 1 rx Lac_received,port->rxm 6]\r\n");
}

} // namespace
