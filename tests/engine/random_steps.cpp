#include "random_steps.h"

#include <algorithm>

namespace
{

constexpr int QUEUE_ROOM = 32; // a step sends fewer messages; a full queue has tests of its own
// From a LACPDU of a changed partner to a member: selection (2), wait_while (3); and once more, since the best port
// of a group may change with it.
constexpr unsigned SETTLE_TICKS = 12;

constexpr Mac SYSTEMS[] = {PEER_MAC, PEER_MAC, PEER_MAC, OTHER_MAC, OUR_MAC, {}};
constexpr std::uint16_t NUMBERS[] = {0x8000, 0, 1, 100, 0xFFFF};

std::string group_leaf(int group, const std::string &leaf)
{
    return "g" + std::to_string(group) + leaf;
}

std::string port_leaf(std::uint32_t port_no, const std::string &leaf)
{
    return "p" + std::to_string(port_no) + "/" + leaf;
}

std::string stored(const std::string &leaf)
{
    const auto found = fake::datastore().leaves.find(leaf);
    return found == fake::datastore().leaves.end() ? "" : found->second;
}

std::string type_of(int group)
{
    return stored(group_leaf(group, "/lacp-type"));
}

int configured_group(std::uint32_t port_no)
{
    const std::string group = stored(port_leaf(port_no, "channel-group"));
    return group.empty() ? 0 : std::stoi(group);
}

// A member of a manual group, as its client writes it.
void set_member(bool member, int group, std::uint32_t port_no)
{
    const std::string list = group_leaf(group, "/member-port"), number = std::to_string(port_no);
    if (fake::datastore().leaves.contains(list + "/" + number) == member)
        return;
    if (Engine::configure((member ? "+" : "-") + list + "=" + number).result == 0 && !member)
        fake::datastore().leaves.erase(list + "/" + number);
}

// What a LACPDU says of the port: the system's identifier may have changed after the port's own copy was taken.
LacInfo told_by(std::uint32_t port_no)
{
    LacInfo told = lac_actor_info(lacNoToPort(port_no));
    told.system = lacSystem->system_mac;
    return told;
}

bool is_on_its_way(const LacPort *port)
{
    const bool serves = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING;
    const bool stands_by = port->selected == LAC_STANDBY && port->muxm == LAC_MUX_WAITING;
    const bool barred = port->member_bar != 0; // or just not any more
    return port->lacp_enabled == 1 && lacIsLinkUp(port) == 1 && !serves && !stands_by && !barred;
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
        for (std::uint32_t port_no = 1; port_no <= LAC_MAX_PORTS; ++port_no) {
            set_link(port_no, port_no % 4 != 0);
            partners_.push_back({peer(static_cast<std::uint16_t>(port_no))});
        }
    }

    std::string run()
    {
        std::string broken;
        while (!input_.empty() && broken.empty()) {
            step();
            broken = check();
        }
        if (!broken.empty())
            return broken;
        settle();
        broken = check();
        for (const LacPort *port : lac_ports())
            if (broken.empty() && get_lac_global_enable() == 1 && (lacMemberOwed(port) || is_on_its_way(port)))
                broken = "with partners that answer all come to rest:\n" + text(*port);
        return broken;
    }

  private:
    struct Partner { // the far end of a cable: what it is, what it heard last, and whether it answers what it hears
        LacInfo self;
        LacInfo heard{};
        bool answers = true;
    };

    std::uint32_t any_port() { return 1 + input_.below(intf.last_uplink_port); }

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
        if (Lac_Queue.count() > static_cast<int>(LAC_QUEUE_LIMIT) - QUEUE_ROOM)
            held_ = false;
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
        if (std::exchange(fake::driver().unreachable, false))
            lacp_trunk_resync(lacp_sclient);
        seen_.trunks_known = true;
        dispatch();
        wire.take(); // what was said before the last change of our own settings
        for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no) {
            Partner &partner = partners_[port_no - 1];
            partner.self.port = static_cast<std::uint16_t>(port_no);
            partner.self.state = peer().state | LAC_COLLECTING | LAC_DISTRIBUTING;
            partner.answers = true;
            partner.heard = told_by(port_no);
            answer(port_no);
        }
        for (unsigned count = 0; count < SETTLE_TICKS; ++count)
            second();
    }

    std::string check()
    {
        for (const fake::Message &message : fake::take_messages()) {
            if (message.at(7) == SCLIENT_MSG_TRUNK_DESTROY)
                seen_.trunks.at(message.at(11)) = 0;
            else if (message.at(7) == SCLIENT_MSG_TRUNK_CREATE)
                seen_.trunks.at(message.at(11)) = message.at(19);
        }
        seen_.drained = !held_;
        return broken_invariant(seen_);
    }

    // ---- configuration --------------------------------------------------------------------------------------------

    void create_group()
    {
        const int group = 1 + static_cast<int>(input_.below(4));
        const bool dynamic = input_.below(4) != 0;
        dispatch(); // a client gives the members of the group's former type the time to go
        for (const LacPort *port : lac_ports())
            if (!type_of(group).empty() || lacMemberOwed(port))
                return;
        configure("+" + group_leaf(group, "/lacp-type=") + (dynamic ? "dynamic" : "manual"));
        if (dynamic && !std::exchange(started_, true))
            send(LAC_Q_LACP_ON);
    }

    // Either with its ports, whose module comes first or last, or alone: the ports stay configured for it.
    void delete_group()
    {
        const int group = 1 + static_cast<int>(input_.below(4));
        const std::uint32_t order = input_.below(3);
        if (type_of(group).empty())
            return;
        const auto take_ports_away = [group] {
            for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no)
                if (configured_group(port_no) == group)
                    join(port_no, 0);
        };
        if (order == 0)
            take_ports_away();
        configure("-" + group_leaf(group, ""));
        std::erase_if(fake::datastore().leaves,
                      [group](const auto &leaf) { return leaf.first.starts_with(group_leaf(group, "/")); });
        if (order == 1)
            take_ports_away();
    }

    // A port joins, leaves or moves, also into a group that comes later.
    void move_port()
    {
        const std::uint32_t port_no = any_port();
        const int group = static_cast<int>(input_.below(5)), old = configured_group(port_no);
        const bool manual = type_of(group) == "manual";
        if (manual && check_channel_group_port_count(group) != LAC_OK)
            return; // refused as a whole
        if (old != group && type_of(old) == "manual")
            set_member(false, old, port_no);
        join(port_no, static_cast<unsigned>(group));
        if (manual)
            set_member(true, group, port_no);
    }

    void set_attribute()
    {
        const std::uint32_t port_no = any_port();
        const std::uint32_t kind = input_.below(4);
        if (kind == 0)
            configure("+" + port_leaf(port_no, "priority=") + std::to_string(input_.pick(NUMBERS)));
        else if (kind == 1)
            configure("+" + port_leaf(port_no, "mode=") + (input_.below(2) == 0 ? "passive" : "active"));
        else if (kind == 2)
            configure("+" + port_leaf(port_no, "timeout=") + (input_.below(2) == 0 ? "long" : "short"));
        else
            set_lacp_port_oper_key(port_no, input_.pick(NUMBERS));
        fake::datastore().leaves.erase(port_leaf(port_no, "mode")); // not committed yet when the port joins
    }

    void set_global()
    {
        if (input_.below(2) == 0)
            configure(std::string("+sys/system-id=") + (input_.below(2) == 0 ? "0233.4455.6677" : "0211.22aa.bbcc"));
        else
            configure("+sys/system-priority=" + std::to_string(input_.pick(NUMBERS)));
    }

    // ---- links, time and failures ---------------------------------------------------------------------------------

    void flip_link()
    {
        const std::uint32_t port_no = any_port();
        const bool up = stored(port_leaf(port_no, "link-status")) == "up";
        configure(port_leaf(port_no, "link-status=") + (up ? "up>down" : "down>up"));
    }

    void pass_time()
    {
        static constexpr std::uint32_t COUNTS[] = {1, 1, 1, 2, 3, 5, 10, 31, 92, 1, 1, 1,
                                                   1, 1, 2, 2, 2, 2, 3,  3,  3,  4, 4, 5};
        const std::uint32_t count = std::min(input_.pick(COUNTS), ticks_left_);
        ticks_left_ -= count;
        std::uint32_t failures = 0;
        if (held_)
            lacSendTick(failures);
        for (std::uint32_t i = 0; i < count && !held_; ++i)
            second();
    }

    // One tick; then the partners that were told something answer, and those that were asked for the short timeout
    // anyway.
    void second()
    {
        tick();
        std::uint32_t told = 0;
        for (SentFrame &frame : wire.take()) {
            partners_[frame.port() - 1].heard = frame.actor();
            told |= 1U << (frame.port() - 1);
            last_sent_ = std::move(frame);
        }
        for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no) {
            const Partner &partner = partners_[port_no - 1];
            const bool speaks = (told >> (port_no - 1) & 1) != 0 || (partner.heard.state & LAC_TIMEOUT) != 0;
            if (speaks && partner.answers && lacIsLinkUp(&port(port_no)) == 1)
                answer(port_no);
        }
    }

    void answer(std::uint32_t port_no)
    {
        const Partner &partner = partners_[port_no - 1];
        hear(tagged_frame(port_no, pdu_bytes(partner.self, partner.heard)));
        if (!held_)
            dispatch();
    }

    // Re-keyed, renumbered, split into two or merged, another system, in or out of sync, silent: it says so now or
    // when it is asked next.
    void change_partner()
    {
        const std::uint32_t port_no = any_port();
        const LacInfo now = partner_of(port_no);
        const std::uint32_t choice = input_.below(16);
        for (std::uint32_t number = 1; number <= intf.last_uplink_port; ++number) {
            LacInfo &self = partners_[number - 1].self;
            if ((choice & 3) == 0 || ((choice & 3) == 1 ? number % 2 == port_no % 2 : number == port_no)) {
                self.system_priority = now.system_priority;
                self.system = now.system;
                self.key = now.key;
            }
        }
        partners_[port_no - 1] = {now, told_by(port_no), (choice & 4) == 0};
        if ((choice & 8) == 0)
            answer(port_no);
    }

    void fail_writes()
    {
        auto &failures = fake::datastore().failures;
        const std::uint32_t which = input_.below(4);
        failures.clear();
        if ((which & 1) != 0)
            failures["+member-port"] = KEL_DB_BUSY;
        if ((which & 2) != 0)
            failures["-member-port"] = KEL_DB_BUSY;
    }

    void lose_driver()
    {
        seen_.trunks_known = std::exchange(fake::driver().unreachable, !fake::driver().unreachable);
        if (seen_.trunks_known)
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
        static constexpr std::uint64_t CODES[] = {0,
                                                  3,
                                                  8,
                                                  25,
                                                  26,
                                                  0x100,
                                                  LAC_Q_PORT_TIMEOUT,
                                                  LAC_Q_PORT_RESELECT,
                                                  LAC_Q_PORT_PRIORITY,
                                                  LAC_Q_SYSTEM_PRIORITY};
        const std::uint64_t code = input_.pick(CODES);
        const std::uint32_t port_no = input_.below(12);
        send(code, port_no, input_.below(6));
    }

    // ---- frames ---------------------------------------------------------------------------------------------------

    // Flags below a limit, and most often none.
    std::uint32_t variant(std::uint32_t limit)
    {
        const std::uint32_t choice = input_.byte();
        return choice < limit ? choice : 0;
    }

    // One of a few partners, most often the one of last time.
    LacInfo partner_of(std::uint32_t port_no)
    {
        const std::uint32_t choice = variant(64);
        LacInfo actor = peer(static_cast<std::uint16_t>((choice & 1) == 0 ? port_no : any_port()));
        actor.state |= LAC_COLLECTING | LAC_DISTRIBUTING;
        if ((choice & 2) != 0)
            actor.system = input_.pick(SYSTEMS);
        if ((choice & 4) != 0)
            actor.state = input_.byte();
        if ((choice & 8) != 0)
            actor.key = input_.pick(NUMBERS);
        if ((choice & 16) != 0)
            actor.port_priority = input_.pick(NUMBERS);
        if ((choice & 32) != 0)
            actor.system_priority = input_.pick(NUMBERS);
        return actor;
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
        if ((choice & 24) == 24)
            view = {};
        hear(tagged_frame(port_no, pdu_bytes(actor, view)));
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
        std::copy_n(given.begin(), std::min(given.size(), frame.size() - at),
                    frame.begin() + static_cast<std::ptrdiff_t>(at));
        const std::uint32_t size = input_.below(4);
        if (size == 0)
            frame.resize(input_.byte());
        else if (size == 1)
            frame.resize(input_.number(2) % (LACP_RX_BUFFER_SIZE + 1), 0xA5);
        hear(std::move(frame));
    }

    // A cable back to the port, or to another one.
    void hear_ourselves()
    {
        const std::uint32_t port_no = any_port();
        if (!last_sent_.bytes.empty())
            hear(tagged_frame(port_no, last_sent_.pdu()));
    }

    fuzz::Input &input_;
    Surroundings seen_;
    SentFrame last_sent_;
    std::vector<Partner> partners_;
    std::uint32_t ticks_left_ = 600; // of one input, so that all are quick
    bool held_ = false;              // messages wait
    bool started_ = false;
};

} // namespace

std::string run_random_steps(fuzz::Input &input)
{
    return RandomSteps(input).run();
}
