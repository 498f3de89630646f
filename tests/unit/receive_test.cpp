// Receive machine.
#include "engine.h"

namespace
{

constexpr std::uint8_t ACTIVE = LAC_ACTIVITY | LAC_AGGREGATION;
constexpr std::uint8_t SYNC = LAC_SYNCHRONIZATION;

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
    // Marks the port selected and synchronized, and says whether an event takes both away; never one without the
    // other.
    static bool unselected_by(LacPort &record, const std::function<void()> &event)
    {
        record.selected = LAC_SELECTED;
        lac_set_actor_state(&record, SYNC);
        event();
        EXPECT_EQ(record.selected == LAC_SELECTED, (record.actor_oper_state & SYNC) != 0);
        return record.selected == LAC_UNSELECTED;
    }
};

// One way that two informations can differ.
struct Difference {
    const char *name;
    std::function<void(LacInfo &)> apply;
};

Difference state_bit(unsigned bit)
{
    return {"state", [bit](LacInfo &info) { info.state ^= static_cast<std::uint8_t>(1U << bit); }};
}

const std::vector<Difference> EVERY_FIELD_BUT_STATE = {
    {"system priority", [](LacInfo &info) { info.system_priority ^= 1; }},
    {"system, first byte", [](LacInfo &info) { info.system[0] ^= 0x10; }},
    {"system, last byte", [](LacInfo &info) { info.system[5] ^= 1; }},
    {"key", [](LacInfo &info) { info.key ^= 0x100; }},
    {"port priority", [](LacInfo &info) { info.port_priority ^= 1; }},
    {"port", [](LacInfo &info) { info.port ^= 0x100; }},
};

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

TEST_F(ReceiveTest, ExpiriesAndLacpdusCountInSomeStatesOnly)
{
    LacPort &record = running_port(1);
    for (const std::uint32_t from : EVERY_RX_STATE) {
        SCOPED_TRACE(from);
        record.rxm = from;
        lac_set_actor_state(&record, LAC_EXPIRED);
        record.current_while_timer.count = 0;
        const std::string before = snapshot(record);
        lacRxMachine(&record, 99, nullptr);
        lacRxMachine(&record, Lac_ntt, nullptr);
        EXPECT_EQ(snapshot(record), before) << "events of other machines";
        hear(record, peer(1), view_of(record));
        if (from == LAC_RX_CURRENT || from == LAC_RX_EXPIRED || from == LAC_RX_DEFAULTED) {
            EXPECT_EQ(record.rxm, LAC_RX_CURRENT);
            EXPECT_EQ(record.actor_oper_state & LAC_EXPIRED, 0);
            EXPECT_EQ(record.current_while_timer.count, 90U);
        } else {
            EXPECT_EQ(snapshot(record), before);
        }
        record.rxm = from;
        const std::string heard = snapshot(record);
        lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
        if (from == LAC_RX_CURRENT || from == LAC_RX_EXPIRED)
            EXPECT_EQ(record.rxm, from == LAC_RX_CURRENT ? LAC_RX_EXPIRED : LAC_RX_DEFAULTED);
        else
            EXPECT_EQ(snapshot(record), heard);
    }
    record.rxm = LAC_RX_PORT_DISABLED;
    const std::uint64_t start = lac_now_ms();
    receive(1, pdu_bytes(peer(), {}));
    EXPECT_EQ(record.stats->rx_lacpdu, 1U) << "an ignored one is still counted";
    EXPECT_GE(record.stats->last_rx_ms, start);
}

// ---- state entries --------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, InitialisingRestoresTheActorButNotKeyAndPriority)
{
    LacPort &record = port(1);
    for (const std::uint8_t timeout : {std::uint8_t{0}, std::uint8_t{LAC_TIMEOUT}}) {
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
                  (LacInfo{32768, OUR_MAC, 5, 6, 1, static_cast<std::uint8_t>(0x45 | timeout), {}}));
        EXPECT_EQ(lac_partner_info(&record), (LacInfo{0, {}, 0x4321, 0, 0, 0, {}}));
        EXPECT_EQ(record.matched, 0U);
    }
}

TEST_F(ReceiveTest, DisabledPortsHaveTheDefaultPartner)
{
    struct Row {
        const char *name;
        std::uint32_t event;
        std::uint8_t partner, actor;
        std::uint32_t matched, individual, selected;
    };
    for (const Row &row :
         {Row{"port down", Lac_port_disabled, LAC_AGGREGATION, LAC_DEFAULTED | LAC_EXPIRED, 0, 0, LAC_SELECTED},
          Row{"no LACP", Lac_port_enabled, SYNC, LAC_DEFAULTED, 1, 1, LAC_UNSELECTED}}) {
        SCOPED_TRACE(row.name);
        LacPort &record = port(1);
        record.partner_admin_state = SYNC | LAC_AGGREGATION;
        record.actor_oper_state = LAC_EXPIRED | LAC_ACTIVITY;
        record.individual = 0;
        record.matched = 1 - row.matched;
        record.selected = LAC_SELECTED;
        lac_set_partner_info(&record, peer(4));
        lacRxMachine(&record, row.event, nullptr);
        EXPECT_EQ(lac_partner_info(&record), (LacInfo{0, {}, 0, 0, 0, row.partner, {}}));
        EXPECT_EQ(record.actor_oper_state, row.actor | LAC_ACTIVITY);
        EXPECT_EQ(record.matched, row.matched);
        EXPECT_EQ(record.individual, row.individual);
        EXPECT_EQ(record.selected, row.selected);
    }
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
    EXPECT_EQ(record.current_while_timer.count * record.current_while_timer.active, 3U);
    EXPECT_GE(lacSystem->last_change_ms, start);

    record.current_while_timer.count = 0;
    lacSystem->last_change_ms = 0;
    EXPECT_TRUE(scheduled(record, [&] { lacRxMachine(&record, Lac_current_while_timer_expired, nullptr); }));
    EXPECT_EQ(lac_partner_info(&record), (LacInfo{0, {}, 0x4321, 0, 0, SYNC, {}}));
    EXPECT_EQ(record.actor_oper_state & (LAC_DEFAULTED | LAC_EXPIRED), LAC_DEFAULTED);
    EXPECT_EQ(record.matched, 1U);
    EXPECT_EQ(record.stats->trans_count, 1U);
    EXPECT_EQ(record.current_while_timer.count, 0U) << "not restarted";
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
    EXPECT_GE(lacSystem->last_change_ms, start);
}

// ---- LACPDUs --------------------------------------------------------------------------------------------------

// Every field of the partner counts, by Aggregation alone of its state: against what was heard before, against the
// default partner, in its view of us and in what that view is worth.
TEST_F(ReceiveTest, FieldsThatCount)
{
    LacPort &record = current_port(1);
    const auto check = [&](const Difference &difference, bool partner_counts, bool view_answered, bool view_matters) {
        SCOPED_TRACE(difference.name);
        const auto changed = [&](LacInfo info) {
            difference.apply(info);
            return info;
        };
        hear(record, peer(1), view_of(record));
        EXPECT_EQ(unselected_by(record, [&] { hear(record, changed(peer(1)), view_of(record)); }), partner_counts);

        hear(record, peer(1), view_of(record));
        ASSERT_EQ(record.matched, 1U);
        record.ntt = 0;
        hear(record, peer(1), changed(view_of(record)));
        EXPECT_EQ(record.ntt, view_answered ? 1U : 0U);
        EXPECT_EQ(record.matched, view_matters ? 0U : 1U);
        EXPECT_EQ((record.partner_oper_state & SYNC) == 0, view_matters);

        lac_set_partner_info(&record, changed(lac_partner_admin_info(&record)));
        record.rxm = LAC_RX_EXPIRED;
        EXPECT_EQ(unselected_by(record, [&] { lacRxMachine(&record, Lac_current_while_timer_expired, nullptr); }),
                  partner_counts);
    };
    for (const Difference &difference : EVERY_FIELD_BUT_STATE)
        check(difference, true, true, true);
    for (const unsigned bit : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U})
        check(state_bit(bit), bit == 2, bit < 4, bit == 2);
    check({"reserved", [](LacInfo &info) { info.reserved = {1, 2, 3}; }}, false, false, false);
}

// What a LACPDU is worth: who is active, whether it names us, whether the sender is an individual link.
TEST_F(ReceiveTest, Judgement)
{
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
        {"named", ACTIVE | SYNC, ACTIVE, ACTIVE, true, true, true, false},
        {"named, not synchronized", ACTIVE, ACTIVE, ACTIVE, true, true, true, true},
        {"not named", ACTIVE | SYNC, ACTIVE, ACTIVE, false, false, false, false},
        {"named, other bits wrong", ACTIVE | SYNC, 0xFE & ~LAC_ACTIVITY, ACTIVE, true, true, true, false},
        {"named, Aggregation unknown", ACTIVE | SYNC, LAC_ACTIVITY, ACTIVE, true, false, false, false},
        {"named, both not aggregatable", ACTIVE | SYNC, LAC_ACTIVITY, LAC_ACTIVITY, true, true, true, false},
        {"passive, but knows us active", LAC_AGGREGATION, ACTIVE, ACTIVE, true, true, true, true},
        {"passive, thinks us passive", LAC_AGGREGATION | SYNC, LAC_AGGREGATION, ACTIVE, true, false, false, false},
        {"passive, we too", LAC_AGGREGATION | SYNC, ACTIVE, LAC_AGGREGATION, true, false, false, false},
        {"individual, not named", LAC_ACTIVITY, ACTIVE, ACTIVE, false, true, true, true},
        {"individual and synchronized", LAC_ACTIVITY | SYNC, ACTIVE, ACTIVE, false, true, true, false},
        {"individual, nobody active", SYNC, 0, LAC_AGGREGATION, false, false, false, false},
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
        EXPECT_EQ(record.partner_oper_state, (row.sender & ~SYNC) | (row.synchronized ? SYNC : 0));
        EXPECT_EQ(record.matched, row.matched ? 1U : 0U);
        EXPECT_EQ(stats.trans_count, row.set_by_us ? 1U : 0U);
        EXPECT_EQ(stats.change_count, row.synchronized ? 0U : 1U);
        EXPECT_EQ(stats.unmatched_count, row.matched ? 0U : 1U);
        EXPECT_EQ(record.actor_oper_state & LAC_DEFAULTED, 0);
    }
}

// After a new system identifier the port still has the old one: synchronization follows the system's, matching the
// port's.
TEST_F(ReceiveTest, TheSystemsAddressAndThePortsAreJudgedApart)
{
    LacPort &record = current_port(1);
    lacSystem->system_mac = OTHER_MAC;
    LacInfo view = view_of(record);
    for (const bool as_port : {false, true}) {
        view.system = as_port ? OUR_MAC : OTHER_MAC;
        hear(record, peer(1), view);
        EXPECT_EQ((record.partner_oper_state & SYNC) == 0, as_port);
        EXPECT_EQ(record.matched, as_port ? 1U : 0U);
    }
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
    EXPECT_EQ(record.current_while_timer.count, 90U);
    lac_set_actor_state(&record, LAC_TIMEOUT);
    hear(record, heard, {});
    EXPECT_EQ(record.current_while_timer.count, 3U) << "our timeout decides how long it counts";
}

TEST_F(ReceiveTest, AnAggregatorWithoutLinkKeepsThePartnerFromCounting)
{
    LacPort &aggregator = current_port(1);
    LacPort &record = current_port(2);
    ASSERT_NE(ticks_until([&] { return record.aggregator == &aggregator; }), 0U);
    lacRxMachine(&record, Lac_current_while_timer_expired, nullptr);
    record.current_while_timer.count = 2;
    LacInfo heard = peer(2);
    heard.key = 99;
    set_link(1, false);
    hear(record, heard, view_of(record));
    fake::datastore().link_status.erase(1); // a link that cannot be read is down
    hear(record, heard, view_of(record));
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
    EXPECT_NE(record.actor_oper_state & LAC_EXPIRED, 0);
    EXPECT_EQ(record.current_while_timer.count, 2U);
    EXPECT_EQ(record.partner_oper_key, 99) << "what it says is recorded all the same";
    set_link(1, true);
    set_link(2, false);
    hear(record, heard, view_of(record));
    EXPECT_EQ(record.rxm, LAC_RX_CURRENT) << "its own link is not asked for";
    record.aggregator = &record;
    record.rxm = LAC_RX_EXPIRED;
    hear(record, heard, view_of(record));
    EXPECT_EQ(record.rxm, LAC_RX_CURRENT) << "nor as that of its own aggregator";
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
            record.partner_oper_state = column == 3 ? SYNC : 0;
            EXPECT_EQ(scheduled(record, [&] { lacKickMux(&record, LacKick::lacpdu); }), row.kicked[column]);
            const bool outside = (row.muxm & 15) == 0 || (row.muxm & 15) > 6;
            EXPECT_EQ(scheduled(record, [&] { lacRxMachine(&record, 99, nullptr); }),
                      outside ? column == 0 : row.kicked[column])
                << "after another event";
        }
    }
    LacPort &current = current_port(2); // a LACPDU kicks once the machine has run
    current.muxm = LAC_MUX_ATTACHED;
    current.selected = LAC_SELECTED;
    LacInfo view = view_of(current);
    EXPECT_TRUE(scheduled(current, [&] { receive(2, pdu_bytes(peer(2), view)); }));
    view.key = 0;
    EXPECT_FALSE(scheduled(current, [&] { receive(2, pdu_bytes(peer(2), view)); }));
}

// ---- moved partner --------------------------------------------------------------------------------------------

TEST_F(ReceiveTest, AMovedPartnerRestartsTheFirstPortThatKnewIt)
{
    for (const std::uint32_t number : {1U, 2U, 3U, 4U})
        running_port(number);
    for (const std::uint32_t number : {2U, 3U})
        hear(port(number), peer(9), view_of(port(number)));
    const std::string third = snapshot(port(3));
    for (const LacInfo &heard : {peer(8), peer(0x109), peer(9, OTHER_MAC)})
        receive(4, pdu_bytes(heard, {}));
    EXPECT_EQ(port(4).stats->moved, 0U) << "another port or system has not moved";
    EXPECT_EQ(port(2).rxm, LAC_RX_CURRENT);

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

} // namespace
