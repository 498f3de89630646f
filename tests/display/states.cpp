#include "states.h"

namespace
{

LacPort &port(std::uint32_t port_no)
{
    return *lacNoToPort(port_no);
}

void set_timer(LacTimer &timer, std::uint32_t count, std::uint32_t reload, std::uint32_t active)
{
    timer.count = count;
    timer.reload = reload;
    timer.active = active;
}

void set_machines(LacPort &record, std::uint32_t rxm, std::uint32_t txm, std::uint32_t selected, std::uint32_t muxm)
{
    record.rxm = rxm;
    record.txm = txm;
    record.selected = selected;
    record.muxm = muxm;
}

void set_actor(LacPort &record, const LacInfo &info)
{
    record.actor_system_priority = info.system_priority;
    record.actor_system = info.system;
    record.actor_oper_key = info.key;
    record.actor_port_priority = info.port_priority;
    record.actor_port = info.port;
    record.actor_oper_state = info.state;
}

void set_link(std::uint32_t port_no, bool up)
{
    fake::datastore().link_status[port_no] = up ? "up" : "down";
}

// Rows of the same aggregation: the chain runs from the aggregator through the others and back.
void chain(std::initializer_list<std::uint32_t> members)
{
    LacPort &aggregator = port(*members.begin());
    LacPort *last = &aggregator;
    for (const std::uint32_t number : members) {
        port(number).aggregator = &aggregator;
        last->next_lag_port = &port(number);
        last = &port(number);
    }
    last->next_lag_port = &aggregator;
}

} // namespace

void arrange_four_ports()
{
    lacSystem->system_state = 1;
    lacDrvCtrl->lac_enable = 1;
    lacSystem->system_priority = 0x1234;
    lacSystem->system_mac = Mac{0x02, 0x11, 0x22, 0xAA, 0xBB, 0xCC};
    const Mac peer = {0x02, 0x33, 0x44, 0x55, 0x66, 0x77};
    const Mac other = {0x00, 0x0A, 0x0B, 0x0C, 0x0D, 0xEF};
    std::uint8_t last_byte = 0xC0;
    for (LacPort *record : lac_ports()) {
        record->aggregator = record;
        record->next_lag_port = record;
        record->port_mac = {0x02, 0x11, 0x22, 0xAA, 0xBB, last_byte};
        record->aggregator_mac = Mac{0x02, 0x00, 0x00, 0x00, 0x01, last_byte++};
        record->aggregator_id = record->port_no;
    }
    chain({1, 2});

    LacPort &first = port(1); // collecting and distributing, fast, short timeout
    first.channel_group_id = 1;
    first.lacp_enabled = 1;
    first.port_enabled = 1;
    first.coll_dist = 1;
    first.individual = 0;
    set_machines(first, LAC_RX_CURRENT, LAC_FAST_PERIODIC, LAC_SELECTED, LAC_MUX_COLLECTING_DISTRIBUTING);
    set_actor(first, {32768, OUR_MAC, 100, 32768, 1, 0x3F, {}});
    lac_set_partner_info(&first, {4096, peer, 7, 128, 21, 0x3D, {}});
    first.aggregator_oper_key = 101;
    first.aggregator_partner_system_priority = 4096;
    first.port_mask = 0x3;
    first.ready_n = 1;
    first.ready = 1;
    first.hold_count = 1;
    set_timer(first.current_while_timer, 2, 3, 1);
    set_timer(first.wait_while_timer, 0, 2, 0);
    set_timer(first.tx_scheduler, 1, 1, 1);
    set_timer(first.periodic_timer, 0, 1, 1);
    set_link(1, true);
    first.stats->rx_lacpdu = 51;
    first.stats->rx_marker = 2;
    first.stats->rx_marker_response = 1;
    first.stats->rx_unknown = 3;
    first.stats->tx_lacpdu = 47;
    first.stats->tx_marker_response = 2;
    first.stats->attach_count = 1;
    first.stats->trans_count = 4;
    first.stats->change_count = 5;
    first.stats->unmatched_count = 6;
    first.stats->last_rx_ms = 7;

    LacPort &second = port(2); // same aggregation, attached but not yet in step
    second.channel_group_id = 1;
    second.lacp_enabled = 1;
    second.port_enabled = 1;
    second.coll_dist = 0;
    set_machines(second, LAC_RX_CURRENT, LAC_SLOW_PERIODIC, LAC_SELECTED, LAC_MUX_ENTER_ATTACHED);
    set_actor(second, {32768, OUR_MAC, 100, 200, 2, 0x0D, {}});
    lac_set_partner_info(&second, {4096, peer, 7, 129, 22, 0x05, {}});
    second.aggregator_oper_key = 100;
    second.aggregator_partner_system_priority = 4096;
    second.ntt = 1;
    second.port_mask = 0x2;
    second.ready = 1;
    second.hold_count = 3;
    set_timer(second.current_while_timer, 88, 90, 1);
    set_timer(second.wait_while_timer, 1, 2, 1);
    set_timer(second.tx_scheduler, 0, 1, 1);
    set_timer(second.periodic_timer, 30, 30, 1);
    set_link(2, true);
    second.stats->moved = 2;
    second.stats->rx_lacpdu = 9;
    second.stats->tx_lacpdu = 8;
    second.stats->trans_count = 1;
    second.stats->change_count = 2;

    LacPort &third = port(3); // stands by, has lost its partner, moved
    third.channel_group_id = 1;
    third.lacp_enabled = 1;
    third.port_enabled = 1;
    third.coll_dist = 0;
    set_machines(third, LAC_RX_EXPIRED, LAC_PERIODIC_TX, LAC_STANDBY, LAC_MUX_WAITING);
    set_actor(third, {100, OUR_MAC, 9, 0, 3, 0xC4, {}});
    lac_set_partner_info(&third, {0, other, 12, 1, 1, 0x02, {}});
    third.aggregator_oper_key = 9;
    third.aggregator_partner_system_priority = 77;
    third.port_moved = 1;
    third.port_mask = 0x4;
    third.ready_n = 1;
    set_timer(third.current_while_timer, 0, 3, 1);
    set_timer(third.wait_while_timer, 2, 2, 1);
    set_link(3, true);

    LacPort &fourth = port(4); // alone: the partner does not speak
    fourth.channel_group_id = 2;
    fourth.lacp_enabled = 1;
    fourth.port_enabled = 1;
    fourth.coll_dist = 1;
    fourth.individual = 1;
    set_machines(fourth, LAC_RX_DEFAULTED, LAC_FAST_PERIODIC, LAC_SELECTED, LAC_MUX_COLLECTING_DISTRIBUTING);
    set_actor(fourth, {32768, OUR_MAC, 100, 32768, 4, 0x7C, {}});
    lac_set_partner_info(&fourth, {0, {}, 0, 0, 0, 0x08, {}});
    fourth.aggregator_oper_key = 100;
    fourth.port_mask = 0x8;
    set_link(4, true);
}

void arrange_eight_ports()
{
    arrange_four_ports();

    LacPort &fifth = port(5); // LACP on, link down
    fifth.channel_group_id = 3;
    fifth.lacp_enabled = 1;
    fifth.port_enabled = 0;
    fifth.coll_dist = 0;
    fifth.individual = 1;
    set_machines(fifth, LAC_RX_PORT_DISABLED, LAC_NO_PERIODIC, LAC_UNSELECTED, LAC_MUX_DETACHED);
    set_actor(fifth, {32768, OUR_MAC, 100, 32768, 5, 0x45, {}});
    fifth.aggregator_oper_key = 100;
    fifth.port_mask = 0x10;
    set_link(5, false);

    LacPort &sixth = port(6); // LACP off, link up
    sixth.port_enabled = 1;
    sixth.coll_dist = 0;
    sixth.individual = 1;
    set_machines(sixth, LAC_RX_LACP_DISABLED, 3, LAC_UNSELECTED, LAC_MUX_COLLECTING);
    set_actor(sixth, {32768, OUR_MAC, 100, 32768, 6, 0x55, {}});
    sixth.port_mask = 0x01FF0000; // alone, and the bits above the ports
    set_link(6, true);

    LacPort &seventh = port(7); // neither
    seventh.coll_dist = 0;
    set_machines(seventh, LAC_RX_INITIALIZE, LAC_NO_PERIODIC, LAC_UNSELECTED, LAC_MUX_DISTRIBUTING);
    set_actor(seventh, {0, {}, 0, 0, 0, 0x80, {}});
    seventh.port_mask = 0x02A50000;

    LacPort &eighth = port(8); // wider than the columns
    eighth.channel_group_id = 3;
    eighth.lacp_enabled = 1;
    eighth.port_enabled = 1;
    eighth.coll_dist = 0;
    eighth.ntt = 1;
    eighth.ready = 1;
    eighth.ready_n = 1;
    eighth.hold_count = 12345;
    set_machines(eighth, LAC_RX_UNINIT, LAC_NO_PERIODIC, LAC_UNSELECTED, LAC_MUX_NONE);
    set_actor(eighth, {65535, Mac{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 65535, 65535, 65535, 0xFF, {}});
    lac_set_partner_info(&eighth, {65535, Mac{0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54}, 54321, 43210, 32109, 0xFE, {}});
    eighth.aggregator_oper_key = 64000;
    eighth.aggregator_partner_system_priority = 65535;
    eighth.aggregator_id = 1234;
    eighth.port_mask = 0xFFFFFFFF;
    set_timer(eighth.current_while_timer, 123, 456, 1);
    set_timer(eighth.wait_while_timer, 789, 1000, 1);
    set_timer(eighth.tx_scheduler, 1001, 1002, 1);
    set_timer(eighth.periodic_timer, 1003, 1004, 1);
    set_link(8, true);
    eighth.stats->moved = 12345;
    eighth.stats->rx_lacpdu = 1234567;
    eighth.stats->rx_marker = 2345678;
    eighth.stats->rx_marker_response = 3456789;
    eighth.stats->rx_unknown = 4567890;
    eighth.stats->tx_lacpdu = 5678901;
    eighth.stats->trans_count = 123456789;
    eighth.stats->change_count = 234567890;
}
