#include "random_steps.h"

#include <algorithm>
#include <bit>

#define HOLDS(condition)                                                                                             \
    if (!(condition))                                                                                                \
    return #condition

namespace
{

constexpr int QUEUE_ROOM = 32; // a step sends fewer messages; a full queue has tests of its own
// From a LACPDU of a changed partner to a member: selection (2), wait_while (3); and once more, since the best port
// of a group may change with it.
constexpr unsigned SETTLE_TICKS = 12;

constexpr Mac SYSTEMS[] = {PEER_MAC, PEER_MAC, PEER_MAC, OTHER_MAC, OUR_MAC, {}};
constexpr std::uint16_t NUMBERS[] = {0x8000, 0, 1, 100, 0xFFFF};

std::string leaf(char kind, std::uint32_t number, const std::string &name)
{
    return kind + std::to_string(number) + "/" + name;
}

std::string type_of(std::uint32_t group)
{
    return fake::stored(leaf('g', group, "lacp-type"));
}

std::uint32_t of_group(std::uint32_t group, int (*get)(int, std::uint32_t *))
{
    std::uint32_t value = 0;
    get(static_cast<int>(group), &value);
    return value;
}

// What a LACPDU says of the port: the system's identifier may have changed after the port's own copy was taken.
LacInfo told_by(std::uint32_t port_no)
{
    LacInfo told = lac_actor_info(lacNoToPort(port_no));
    told.system = lacSystem->system_mac;
    return told;
}

bool runs(const LacPort *port)
{
    return port->lacp_enabled == 1 && port->port_enabled == 1;
}

// A port in an aggregator of its own is no part of its group's aggregation, and neither is an unselected one.
bool is_aggregated(const LacPort *port)
{
    return port->individual == 0 && port->selected != LAC_UNSELECTED;
}

// The mux machine follows selection, and selection follows the receive machine when the mux scheduler expires; so
// where those two may differ the scheduler must be running.
const char *broken_machines(const LacPort *port)
{
    const std::uint32_t rx = port->rxm, mux = port->muxm, selected = port->selected;
    const bool rests = port->mux_scheduler.active == 0, collects = mux == LAC_MUX_COLLECTING_DISTRIBUTING;
    HOLDS(rx >= LAC_RX_CURRENT && rx <= LAC_RX_PORT_DISABLED && rx != LAC_RX_INITIALIZE);
    HOLDS(port->txm <= LAC_SLOW_PERIODIC && port->hold_count <= LAC_HOLD_LIMIT);
    HOLDS(rx != LAC_RX_CURRENT || (port->actor_oper_state & (LAC_EXPIRED | LAC_DEFAULTED)) == 0);
    HOLDS((rx != LAC_RX_CURRENT && rx != LAC_RX_EXPIRED) || port->current_while_timer.active == 1);
    HOLDS(mux == LAC_MUX_DETACHED || mux == LAC_MUX_WAITING || mux == LAC_MUX_ATTACHED || collects);
    HOLDS((port->attached == 1) == (mux == LAC_MUX_ATTACHED || collects) && (port->coll_dist == 1) == collects);
    HOLDS(mux != LAC_MUX_WAITING || port->wait_while_timer.active == 1);
    HOLDS(selected == LAC_UNSELECTED || (selected <= LAC_STANDBY && runs(port)));
    HOLDS(selected != LAC_UNSELECTED || mux == LAC_MUX_DETACHED || !rests);
    HOLDS(selected != LAC_STANDBY || mux == LAC_MUX_WAITING);
    HOLDS(selected != LAC_SELECTED || mux != LAC_MUX_DETACHED);
    HOLDS(!collects || !rests || (port->actor_oper_state & LAC_SYNCHRONIZATION) != 0);
    HOLDS(port->attached == 1 || (port->actor_oper_state & LAC_MUX_BITS) == 0);
    return nullptr;
}

// A dynamic group has the members that collect and whose both ends agree; a refused write is made up for by ticks.
const char *broken_aggregation(const LacPort *port)
{
    const LacPort *aggregator = port->aggregator;
    const std::uint32_t group = port->channel_group_id;
    HOLDS(port->next_lag_port == port && aggregator->aggregator == aggregator);
    HOLDS(runs(port) || aggregator == port);
    std::uint32_t serving = 0;
    for (const LacPort *other : lac_ports()) {
        const bool together = is_aggregated(port) && is_aggregated(other) && other->channel_group_id == group;
        HOLDS(!together || other->aggregator == port->aggregator);
        serving += together && other->selected == LAC_SELECTED ? 1 : 0;
        // A port's own bit is also set while it collects for nobody: switching LACP on sets it.
        const bool collects = other->coll_dist == 1 && other->aggregator == port;
        const bool marked = (port->port_mask & lac_port_bit(other)) != 0;
        HOLDS(collects == marked || (other == port && marked));
    }
    const bool grouped = group >= 1 && group <= 4;
    HOLDS(!grouped || serving <= CHANNEL_GROUP_MAX_PORTS);
    HOLDS(!is_aggregated(port) || aggregator->channel_group_id == group);
    HOLDS(!is_aggregated(port) || !grouped || of_group(group, get_channel_group_agg_no) == aggregator->port_no);
    const bool serves = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING && port->selected == LAC_SELECTED &&
                        port->individual == 0 && (port->heard_state & port->told_state & LAC_SYNCHRONIZATION) != 0;
    for (std::uint32_t number = 1; number <= 4 && !lacMemberOwed(port); ++number) {
        const bool is_member = (of_group(number, get_channel_group_port_list) & lac_port_bit(port)) != 0;
        HOLDS(of_group(number, get_channel_group_type) != CHANNEL_GROUP_DYNAMIC ||
              (serves && port->attached_group == number) == is_member);
    }
    return nullptr;
}

class RandomSteps : private Engine
{
  public:
    explicit RandomSteps(fuzz::Input &input) : Engine(1, 1 + input.below(LAC_MAX_PORTS)), input_(input)
    {
        lacpDrvCtrlInit();
        fake::datastore().member_changed = [handler = fake::datastore().member_changed](const std::string &change) {
            const bool refused = change[0] == '+' && type_of(change[2] - '0').empty(); // as the schema does
            return refused ? SR_ERR_VALIDATION_FAILED : handler(change);
        };
        set("link1=1 link2=1 link3=1 link4=0 link5=1 link6=1 link7=1 link8=0");
    }

    std::string run()
    {
        std::string broken;
        while (!input_.empty() && broken.empty()) {
            step();
            broken = check();
        }
        if (broken.empty()) {
            settle();
            broken = check();
        }
        for (const LacPort *port : lac_ports()) {
            const bool rests = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING || port->member_bar != 0 ||
                               (port->selected == LAC_STANDBY && port->muxm == LAC_MUX_WAITING);
            const bool on_its_way = port->lacp_enabled == 1 && lacIsLinkUp(port) == 1 && !rests;
            if (broken.empty() && get_lac_global_enable() == 1 && (lacMemberOwed(port) || on_its_way))
                broken = "with partners that answer all come to rest:\n" + text(*port);
        }
        return broken;
    }

  private:
    std::uint32_t any_port() { return 1 + input_.below(intf.last_uplink_port); }
    std::uint32_t any_group() { return 1 + input_.below(4); }
    const char *either(const char *one, const char *other) { return input_.below(2) == 0 ? one : other; }

    void step()
    {
        using R = RandomSteps;
        using Step = void (R::*)();
        static constexpr Step STEPS[] = {
            &R::change_partner, &R::change_partner, &R::hear_partner, &R::hear_partner,  &R::pass_time,
            &R::pass_time,      &R::pass_time,      &R::pass_time,    &R::flip_link,     &R::create_group,
            &R::create_group,   &R::move_port,      &R::move_port,    &R::move_port,     &R::hear_marker,
            &R::hear_anything,  &R::hear_ourselves, &R::delete_group, &R::set_attribute, &R::set_global,
            &R::fail_writes,    &R::lose_driver,    &R::switch_lacp,  &R::hold_queue,    &R::send_message,
        };
        (this->*input_.pick(STEPS))();
        held_ = held_ && Lac_Queue.count() <= static_cast<int>(LAC_QUEUE_LIMIT) - QUEUE_ROOM;
        if (!held_)
            dispatch();
        if (auto frames = wire.take(); !frames.empty())
            last_sent_ = std::move(frames.back());
    }

    // Nothing fails any more, and every partner says what it is, an active system in sync, and answers from then on.
    // No two are the same port. A few ticks later all that can be is in service and in the datastore.
    void settle()
    {
        held_ = false;
        fake::datastore().failures.clear();
        if (fake::driver().unreachable)
            lose_driver(); // found again
        dispatch();
        wire.take(); // what was said before the last change of our own settings
        for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no) {
            far[port_no] = {far[port_no].self, told_by(port_no), true};
            set_info(far[port_no].self, "port=" + std::to_string(port_no));
            set_info(far[port_no].self, "state=3d");
            answer(port_no);
            dispatch();
        }
        for (unsigned count = 0; count < SETTLE_TICKS; ++count)
            second(true);
    }

    // The first invariant that is broken, or nothing. The handlers run one at a time, and a check between two of them
    // sees no half of one.
    std::string check()
    {
        std::uint32_t taken = 0, up = 0;
        bool owes = false;
        for (const LacPort *port : lac_ports()) {
            owes = owes || lacMemberOwed(port);
            up |= fake::stored(leaf('p', port->port_no, "link-status")) == "up" ? lac_port_bit(port) : 0;
        }
        const int waiting = Lac_Queue.count();
        HOLDS(waiting >= 0 && waiting <= static_cast<int>(LAC_QUEUE_LIMIT) && (held_ || waiting == 0));
        HOLDS(static_cast<int>(MTYPE_LACP_PDU.allocated()) <= waiting && MTYPE_LACP_SSP_PACKET.allocated() == 0);
        HOLDS(fake::datastore().iterators == 0);
        for (std::uint32_t number = 1; number <= 4; ++number) {
            const std::uint32_t type = of_group(number, get_channel_group_type);
            const std::uint32_t list = of_group(number, get_channel_group_port_list);
            const std::uint32_t uplinks = of_group(number, get_channel_group_uplink_port_list);
            const std::uint32_t count = of_group(number, get_channel_group_port_count);
            HOLDS(type == CHANNEL_GROUP_UNSET || type == CHANNEL_GROUP_MANUAL || type == CHANNEL_GROUP_DYNAMIC);
            HOLDS(std::popcount(list) == static_cast<int>(count) && count <= CHANNEL_GROUP_MAX_PORTS);
            HOLDS(std::popcount(uplinks) == static_cast<int>(of_group(number, get_channel_group_uplink_port_count)));
            HOLDS((uplinks & ~list) == 0 && (type != CHANNEL_GROUP_UNSET || list == 0));
            HOLDS(list == fake::members(static_cast<int>(number)));
            HOLDS(type != CHANNEL_GROUP_MANUAL || uplinks == (list & up));
            HOLDS(!trunks_known_ || trunk(number) == uplinks);
            // A port that moves from a dynamic group to a manual one is in both lists until its messages have been
            // dispatched, and after a refused write until ticks have written again.
            HOLDS(held_ || owes || (taken & list) == 0);
            taken |= list;
        }
        for (const LacPort *port : lac_ports()) {
            for (const LacTimer *timer : {&port->current_while_timer, &port->periodic_timer, &port->wait_while_timer,
                                          &port->tx_scheduler, &port->mux_scheduler})
                HOLDS(timer->count <= timer->reload && timer->active <= 1 && timer->initialized <= 1);
            const bool on = !held_ && get_lac_global_enable() == 1;
            const char *broken = on ? broken_machines(port) : nullptr;
            broken = on && broken == nullptr ? broken_aggregation(port) : broken;
            if (broken != nullptr)
                return std::string(broken) + "\n" + text(*port);
        }
        return {};
    }

    // ---- configuration --------------------------------------------------------------------------------------------

    void create_group()
    {
        const std::uint32_t group = any_group();
        const bool dynamic = input_.below(4) != 0;
        dispatch(); // a client gives the members of the group's former type the time to go
        for (const LacPort *port : lac_ports())
            if (!type_of(group).empty() || lacMemberOwed(port))
                return;
        configure("+" + leaf('g', group, "lacp-type=") + (dynamic ? "dynamic" : "manual"));
        if (dynamic && !std::exchange(started_, true))
            send(LAC_Q_LACP_ON);
    }

    // Either with its ports, whose module comes first or last, or alone: the ports stay configured for it.
    void delete_group()
    {
        const std::uint32_t group = any_group(), order = input_.below(3);
        if (type_of(group).empty())
            return;
        const auto take_ports_away = [group] {
            for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no)
                if (fake::stored(leaf('p', port_no, "channel-group")) == std::to_string(group))
                    join(port_no, 0);
        };
        if (order == 0)
            take_ports_away();
        configure("-g" + std::to_string(group));
        std::erase_if(fake::datastore().leaves,
                      [group](const auto &entry) { return entry.first.starts_with(leaf('g', group, "")); });
        if (order == 1)
            take_ports_away();
    }

    // A port joins, leaves or moves, also into a group that comes later; a manual group's member with it.
    void move_port()
    {
        const std::uint32_t port_no = any_port(), group = input_.below(5);
        const std::string number = std::to_string(port_no), old = fake::stored(leaf('p', port_no, "channel-group"));
        const std::string before = "g" + old + "/member-port", list = leaf('g', group, "member-port");
        const bool manual = type_of(group) == "manual";
        if (manual && check_channel_group_port_count(static_cast<int>(group)) != LAC_OK)
            return; // refused as a whole
        auto &leaves = fake::datastore().leaves;
        if (old != std::to_string(group) && fake::stored("g" + old + "/lacp-type") == "manual" &&
            leaves.contains(before + "/" + number) && configure("-" + before + "=" + number) == 0)
            leaves.erase(before + "/" + number);
        join(port_no, group);
        if (manual && !leaves.contains(list + "/" + number))
            configure("+" + list + "=" + number);
    }

    void set_attribute()
    {
        const std::uint32_t port_no = any_port(), kind = input_.below(4);
        if (kind == 0)
            configure("+" + leaf('p', port_no, "priority=") + std::to_string(input_.pick(NUMBERS)));
        else if (kind == 1)
            configure("+" + leaf('p', port_no, "mode=") + either("passive", "active"));
        else if (kind == 2)
            configure("+" + leaf('p', port_no, "timeout=") + either("long", "short"));
        else
            set_lacp_port_oper_key(port_no, input_.pick(NUMBERS));
        fake::datastore().leaves.erase(leaf('p', port_no, "mode")); // not committed yet when the port joins
    }

    void set_global()
    {
        const bool id = input_.below(2) == 0;
        configure(id ? std::string("+sys/system-id=") + either("0233.4455.6677", "0211.22aa.bbcc")
                     : "+sys/system-priority=" + std::to_string(input_.pick(NUMBERS)));
    }

    // ---- links, time and failures ---------------------------------------------------------------------------------

    void flip_link()
    {
        const std::string link = leaf('p', any_port(), "link-status");
        configure(link + "=" + (fake::stored(link) == "up" ? "up>down" : "down>up"));
    }

    void pass_time()
    {
        static constexpr std::uint32_t COUNTS[] = {1, 1, 1, 2, 3, 5, 10, 31, 92, 1, 1, 1,
                                                   1, 1, 2, 2, 2, 2, 3,  3,  3,  4, 4, 5};
        const std::uint32_t count = std::min(input_.pick(COUNTS), ticks_left_);
        ticks_left_ -= count;
        LacTickCounts counts{};
        if (held_)
            lacSendTick(counts);
        for (std::uint32_t i = 0; i < count && !held_; ++i)
            second(true);
    }

    // Re-keyed, renumbered, split into two or merged, another system, in or out of sync, silent: it says so now or
    // when it is asked next.
    void change_partner()
    {
        const std::uint32_t port_no = any_port();
        const LacInfo now = partner_of(port_no);
        const std::uint32_t choice = input_.below(16);
        for (std::uint32_t number = 1; number <= intf.last_uplink_port; ++number) {
            LacInfo &self = far[number].self;
            if ((choice & 3) == 0 || ((choice & 3) == 1 ? number % 2 == port_no % 2 : number == port_no)) {
                self.system_priority = now.system_priority;
                self.system = now.system;
                self.key = now.key;
            }
        }
        far[port_no] = {now, told_by(port_no), (choice & 4) == 0};
        if ((choice & 8) == 0)
            answer(port_no);
    }

    void fail_writes()
    {
        const std::uint32_t which = input_.below(4);
        fake::datastore().failures = {{"+member-port", (which & 1) != 0 ? KEL_DB_BUSY : 0},
                                      {"-member-port", (which & 2) != 0 ? KEL_DB_BUSY : 0}};
    }

    void lose_driver()
    {
        trunks_known_ = std::exchange(fake::driver().unreachable, !fake::driver().unreachable);
        if (trunks_known_)
            lacp_trunk_resync(lacp_sclient);
    }

    void switch_lacp()
    {
        if (started_)
            send(input_.below(3) == 0 ? LAC_Q_LACP_OFF : LAC_Q_LACP_ON);
    }

    void hold_queue() { held_ = input_.below(4) == 0; }

    // Codes that nobody acts on, ports that are not there, values that the configuration has not.
    void send_message()
    {
        static constexpr std::uint64_t CODES[] = {0, 3, 8, 25, 26, 0x100, 17, 22, 19, 23}; // most mean nothing here
        const std::uint64_t code = input_.pick(CODES);
        const std::uint32_t port_no = input_.below(12);
        send(code, port_no, input_.below(6));
    }

    // ---- frames ---------------------------------------------------------------------------------------------------

    // One of a few partners, most often the one of last time.
    LacInfo partner_of(std::uint32_t port_no)
    {
        const std::uint32_t choice = variant(64);
        LacInfo actor = peer(static_cast<std::uint16_t>((choice & 1) == 0 ? port_no : any_port()));
        actor.state |= LAC_COLLECTING | LAC_DISTRIBUTING;
        const auto vary = [&](std::uint32_t flag, auto &field, const auto &choices) {
            if ((choice & flag) != 0)
                field = input_.pick(choices);
        };
        vary(2, actor.system, SYSTEMS);
        if ((choice & 4) != 0)
            actor.state = input_.byte();
        vary(8, actor.key, NUMBERS);
        vary(16, actor.port_priority, NUMBERS);
        vary(32, actor.system_priority, NUMBERS);
        return actor;
    }
    std::uint32_t variant(std::uint32_t limit) // flags below a limit, and most often none
    {
        const std::uint32_t choice = input_.byte();
        return choice < limit ? choice : 0;
    }

    void hear_partner()
    {
        const std::uint32_t port_no = any_port();
        const LacInfo actor = partner_of(port_no);
        const std::uint32_t choice = variant(32);
        LacInfo view = lac_actor_info(&port(port_no));
        if ((choice & 1) != 0)
            view.state = input_.byte();
        if ((choice & 6) == 6)
            view.key = input_.pick(NUMBERS);
        hear(tagged_frame(port_no, pdu_bytes(actor, (choice & 24) == 24 ? LacInfo{} : view)));
    }

    void hear_marker()
    {
        const std::uint32_t port_no = any_port();
        Bytes pdu(LAC_PDU_SIZE, 0x5A);
        pdu[0] = static_cast<std::uint8_t>(input_.below(4));
        pdu[2] = static_cast<std::uint8_t>(input_.below(4));
        hear(tagged_frame(port_no, pdu));
    }

    // A good frame with a few octets replaced, or none, cut or made longer.
    void hear_anything()
    {
        Bytes frame = tagged_frame(any_port(), pdu_bytes(partner_of(1), {}));
        const auto given = input_.bytes(input_.below(32));
        const std::size_t at = input_.below(static_cast<std::uint32_t>(frame.size()));
        std::copy_n(given.begin(), std::min(given.size(), frame.size() - at), frame.data() + at);
        const std::uint32_t size = input_.below(4);
        if (size < 2)
            frame.resize(size == 0 ? input_.byte() : input_.number(2) % (LACP_RX_BUFFER_SIZE + 1), 0xA5);
        hear(std::move(frame));
    }

    void hear_ourselves() // a cable back to the port, or to another one
    {
        const std::uint32_t port_no = any_port();
        if (!last_sent_.bytes.empty())
            hear(tagged_frame(port_no, last_sent_.pdu()));
    }

    fuzz::Input &input_;
    SentFrame last_sent_;
    std::uint32_t ticks_left_ = 600; // of one input, so that all are quick
    bool trunks_known_ = true;       // the driver service has heard every request
    bool held_ = false;              // messages wait
    bool started_ = false;
};

} // namespace

std::string run_random_steps(fuzz::Input &input)
{
    return RandomSteps(input).run();
}
