#include "random_steps.h"

#include "lacp_sclient.h"

#include <algorithm>
#include <utility>

namespace
{

constexpr int GROUPS = 4;
constexpr int QUEUE_ROOM = 32; // a step sends fewer messages; a full queue has tests of its own
// From a LACPDU of a changed partner to a member: selection (2), wait_while (3); and once more, since the best port
// of a group may change with it.
constexpr unsigned SETTLE_TICKS = 12;

constexpr Mac SYSTEMS[] = {PEER_MAC, PEER_MAC, PEER_MAC, OTHER_MAC, OUR_MAC, {}};
constexpr std::uint16_t NUMBERS[] = {0x8000, 0, 1, 100, 0xFFFF};

std::string interface_path(std::uint32_t port_no)
{
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port_no) + "']/";
}

std::string group_path(int group)
{
    return "/olt-lacp:channel-group/group[id='" + std::to_string(group) + "']";
}

std::uint32_t word_at(const fake::Message &message, std::size_t offset)
{
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < 4; ++i)
        word = word << 8 | message.at(offset + i);
    return word;
}

} // namespace

RandomSteps::RandomSteps(fuzz::Input &input) : EngineTest(1, 1 + input.below(LAC_MAX_PORTS)), input_(input)
{
    lacpDrvCtrlInit();
    lacpCtrl.once_cfg_done = 1; // the first group's switch-on pauses
    fake::datastore().member_changed =
        [handler = fake::datastore().member_changed](fake::MemberChange change, int group, const std::string &name) {
            const bool refused = change == fake::MemberChange::created && !has_type(group); // as the schema does
            return refused ? SR_ERR_VALIDATION_FAILED : handler(change, group, name);
        };
    for (std::uint32_t port_no = 1; port_no <= LAC_MAX_PORTS; ++port_no) {
        set_link(port_no, port_no % 4 != 0);
        partners_.push_back({peer(static_cast<std::uint16_t>(port_no))});
        configure(port_no, "channel-group", fake::number8({}, 0)); // no wish is left of an earlier input
    }
}

std::string RandomSteps::run()
{
    while (!input_.empty()) {
        step();
        if (std::string broken = check(); !broken.empty())
            return broken;
    }
    settle();
    std::string broken = check();
    return broken.empty() ? unsettled() : broken;
}

void RandomSteps::step()
{
    static constexpr Step STEPS[] = {
        &RandomSteps::change_partner, &RandomSteps::change_partner, &RandomSteps::hear_partner,
        &RandomSteps::hear_partner,   &RandomSteps::pass_time,      &RandomSteps::pass_time,
        &RandomSteps::pass_time,      &RandomSteps::pass_time,      &RandomSteps::flip_link,
        &RandomSteps::create_group,   &RandomSteps::create_group,   &RandomSteps::move_port,
        &RandomSteps::move_port,      &RandomSteps::move_port,      &RandomSteps::hear_marker,
        &RandomSteps::hear_anything,  &RandomSteps::hear_ourselves, &RandomSteps::delete_group,
        &RandomSteps::set_attribute,  &RandomSteps::set_global,     &RandomSteps::fail_writes,
        &RandomSteps::lose_driver,    &RandomSteps::switch_lacp,    &RandomSteps::hold_queue,
        &RandomSteps::send_message,
    };
    (this->*input_.pick(STEPS))();
    if (Lac_Queue.count() > static_cast<int>(LAC_QUEUE_LIMIT) - QUEUE_ROOM)
        held_ = false;
    if (!held_)
        dispatch();
    if (auto frames = wire.take(); !frames.empty())
        last_sent_ = std::move(frames.back());
}

// Nothing fails any more: a few ticks later the datastore has what the engine wants it to have.
void RandomSteps::settle()
{
    held_ = false;
    fake::datastore().failures.clear();
    if (std::exchange(fake::driver().unreachable, false))
        lacp_trunk_resync(lacp_sclient);
    seen_.trunks_known = true;
    dispatch();
    wire.take(); // what was said before the last change of our own settings
    quiet_seconds();
}

// What a LACPDU says of the port: the system's identifier may have changed after the port's own copy was taken.
static LacInfo told_by(std::uint32_t port_no)
{
    LacInfo told = lac_actor_info(lacNoToPort(port_no));
    told.system = lacSystem->system_mac;
    return told;
}

// Every partner says what it is, an active system in sync, and answers from then on. No two are the same port.
void RandomSteps::quiet_seconds()
{
    for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no) {
        partners_[port_no - 1].self.port = static_cast<std::uint16_t>(port_no);
        partners_[port_no - 1].self.state = peer().state | LAC_COLLECTING | LAC_DISTRIBUTING;
        partners_[port_no - 1].answers = true;
        partners_[port_no - 1].heard = told_by(port_no);
        answer(port_no);
    }
    for (unsigned count = 0; count < SETTLE_TICKS; ++count)
        second();
}

static bool is_on_its_way(const LacPort *port)
{
    const bool serves = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING;
    const bool stands_by = port->selected == LAC_STANDBY && port->muxm == LAC_MUX_WAITING;
    const bool barred = port->member_bar != 0; // or just not any more
    return port->lacp_enabled == 1 && lacIsLinkUp(port) == 1 && !serves && !stands_by && !barred;
}

std::string RandomSteps::unsettled()
{
    for (const LacPort *port : lac_ports())
        if (get_lac_global_enable() == 1 && (lacMemberOwed(port) || is_on_its_way(port)))
            return "with partners that answer all come to rest: port " + std::to_string(port->port_no) + "\n" +
                   snapshot(*port);
    return {};
}

std::string RandomSteps::check()
{
    watch_trunks();
    seen_.drained = !held_;
    return broken_invariant(seen_);
}

void RandomSteps::watch_trunks()
{
    for (const fake::Message &message : fake::take_messages()) {
        const std::uint32_t group = word_at(message, SCLIENT_HEADER_SIZE);
        if (message.at(7) == SCLIENT_MSG_TRUNK_DESTROY)
            seen_.trunks.at(group) = 0;
        else if (message.at(7) == SCLIENT_MSG_TRUNK_CREATE)
            seen_.trunks.at(group) = word_at(message, SCLIENT_HEADER_SIZE + 8);
    }
}

// ---- configuration --------------------------------------------------------------------------------------------

bool RandomSteps::has_type(int group)
{
    return fake::datastore().lacp_type.count(group) != 0;
}

bool RandomSteps::has_room(int group)
{
    return has_type(group) && check_channel_group_port_count(group) == LAC_OK;
}

void RandomSteps::configure(std::uint32_t port_no, const char *leaf, const fake::Value &value)
{
    fake::Value placed = value;
    placed.path = interface_path(port_no) + "olt-lacp:trunk/" + leaf;
    fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, {fake::created(placed)});
}

// A member of a manual group, as its client writes it.
void RandomSteps::set_member(bool member, int group, std::uint32_t port_no)
{
    const std::string name = "gigabitethernet 0/" + std::to_string(port_no);
    auto &members = fake::datastore().members[group];
    if ((members.count(name) != 0) == member)
        return;
    const fake::Value value = fake::text(group_path(group) + "/member-port", name);
    if (fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE, {member ? fake::created(value) : fake::deleted(value)})
            .result != 0)
        return;
    if (member)
        members.insert(name);
    else
        members.erase(name);
}

void RandomSteps::set_group_leaf(std::uint32_t port_no, std::uint8_t group)
{
    auto &configured = fake::datastore().channel_group;
    const std::string path = interface_path(port_no) + "olt-lacp:trunk/channel-group";
    const auto old = configured.find(port_no);
    const fake::Value value = fake::number8(path, group);
    fake::deliver(
        lacp_interface_trunk_cb, SR_EV_CHANGE,
        {old == configured.end() ? fake::created(value) : fake::modified(fake::number8(path, old->second), value)});
    configured[port_no] = group;
}

void RandomSteps::create_group()
{
    const int group = 1 + static_cast<int>(input_.below(GROUPS));
    const bool dynamic = input_.below(4) != 0;
    dispatch(); // a client gives the members of the group's former type the time to go
    for (const LacPort *port : lac_ports())
        if (has_type(group) || lacMemberOwed(port))
            return;
    const std::string type = dynamic ? "dynamic" : "manual";
    fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE,
                  {fake::created(fake::name(group_path(group) + "/lacp-type", type))});
    fake::datastore().lacp_type[group] = type;
    if (dynamic && !std::exchange(started_, true))
        send(LAC_Q_LACP_ON);
}

// Either with its ports, whose module comes first or last, or alone: the ports stay configured for it.
void RandomSteps::delete_group()
{
    const int group = 1 + static_cast<int>(input_.below(GROUPS));
    const std::uint32_t order = input_.below(3);
    if (!has_type(group))
        return;
    const auto take_ports_away = [group] {
        for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no)
            if (const auto found = fake::datastore().channel_group.find(port_no);
                found != fake::datastore().channel_group.end() && found->second == group)
                set_group_leaf(port_no, 0);
    };
    if (order == 0)
        take_ports_away();
    fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE, {fake::deleted(fake::dataless(group_path(group), SR_LIST_T))});
    fake::datastore().lacp_type.erase(group);
    fake::datastore().members.erase(group);
    if (order == 1)
        take_ports_away();
}

// A port joins, leaves or moves, also into a group that comes later.
void RandomSteps::move_port()
{
    const std::uint32_t port_no = any_port();
    const auto group = static_cast<std::uint8_t>(input_.below(GROUPS + 1));
    auto &types = fake::datastore().lacp_type;
    const bool manual = has_type(group) && types[group] == "manual";
    std::uint32_t count = 0;
    get_channel_group_port_count(group, &count);
    if (manual && count >= CHANNEL_GROUP_MAX_PORTS)
        return; // refused as a whole
    const auto old = fake::datastore().channel_group.find(port_no);
    if (old != fake::datastore().channel_group.end() && old->second != group && has_type(old->second) &&
        types[old->second] == "manual")
        set_member(false, old->second, port_no);
    set_group_leaf(port_no, group);
    if (manual)
        set_member(true, group, port_no);
}

void RandomSteps::set_attribute()
{
    const std::uint32_t port_no = any_port();
    switch (input_.below(4)) {
    case 0:
        configure(port_no, "priority", fake::number16({}, input_.pick(NUMBERS)));
        break;
    case 1:
        configure(port_no, "mode", fake::name({}, input_.below(2) == 0 ? "passive" : "active"));
        break;
    case 2:
        configure(port_no, "timeout", fake::name({}, input_.below(2) == 0 ? "long" : "short"));
        break;
    default:
        set_lacp_port_oper_key(port_no, input_.pick(NUMBERS));
    }
}

void RandomSteps::set_global()
{
    const std::string path = "/olt-lacp:global-configuration/";
    const bool identifier = input_.below(2) == 0;
    fake::deliver(lacp_global_configuration_cb, SR_EV_CHANGE,
                  {fake::created(identifier ? fake::text(path + "system-id",
                                                         input_.below(2) == 0 ? "0233.4455.6677" : "0211.22aa.bbcc")
                                            : fake::number16(path + "system-priority", input_.pick(NUMBERS)))});
}

// ---- links, time and failures ---------------------------------------------------------------------------------

void RandomSteps::flip_link()
{
    const std::uint32_t port_no = any_port();
    const bool up = fake::datastore().link_status[port_no] == "up";
    const std::string path = interface_path(port_no) + "interface-basic/link-status";
    set_link(port_no, !up);
    fake::deliver(lacp_port_uplink_change_cb, SR_EV_DONE,
                  {fake::modified(fake::name(path, up ? "up" : "down"), fake::name(path, up ? "down" : "up"))});
}

void RandomSteps::pass_time()
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
void RandomSteps::second()
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

void RandomSteps::answer(std::uint32_t port_no)
{
    const Partner &partner = partners_[port_no - 1];
    hear(tagged_frame(port_no, pdu_bytes(partner.self, partner.heard)));
    if (!held_)
        dispatch();
}

// Re-keyed, renumbered, split into two or merged, another system, in or out of sync, silent: it says so now or when
// it is asked next.
void RandomSteps::change_partner()
{
    const std::uint32_t port_no = any_port();
    const LacInfo now = partner_of(port_no);
    const std::uint32_t choice = input_.below(16);
    for (std::uint32_t number = 1; number <= intf.last_uplink_port; ++number) {
        LacInfo &self = partners_[number - 1].self;
        const bool is_meant =
            (choice & 3) == 0 || ((choice & 3) == 1 ? number % 2 == port_no % 2 : number == port_no);
        if (is_meant) {
            self.system_priority = now.system_priority;
            self.system = now.system;
            self.key = now.key;
        }
    }
    partners_[port_no - 1] = {now, told_by(port_no), (choice & 4) == 0};
    if ((choice & 8) == 0)
        answer(port_no);
}

void RandomSteps::fail_writes()
{
    auto &failures = fake::datastore().failures;
    const std::uint32_t which = input_.below(4);
    failures.clear();
    if ((which & 1) != 0)
        failures["db_olt_lacp_set_group_member_port"] = KEL_DB_BUSY;
    if ((which & 2) != 0)
        failures["db_olt_lacp_del_group_member_port"] = KEL_DB_BUSY;
}

void RandomSteps::lose_driver()
{
    seen_.trunks_known = std::exchange(fake::driver().unreachable, !fake::driver().unreachable);
    if (seen_.trunks_known)
        lacp_trunk_resync(lacp_sclient);
}

void RandomSteps::switch_lacp()
{
    if (started_)
        send(input_.below(3) == 0 ? LAC_Q_LACP_OFF : LAC_Q_LACP_ON);
}

void RandomSteps::hold_queue()
{
    held_ = input_.below(4) == 0;
}

// Codes that nobody acts on, ports that are not there, values that the configuration has not.
void RandomSteps::send_message()
{
    static constexpr std::uint64_t CODES[] = {
        0, 3, 8, 25, 26, 0x100, LAC_Q_PORT_TIMEOUT, LAC_Q_PORT_RESELECT, LAC_Q_PORT_PRIORITY, LAC_Q_SYSTEM_PRIORITY};
    const std::uint64_t code = input_.pick(CODES);
    send(code, input_.below(12), input_.below(6));
}

// ---- frames ---------------------------------------------------------------------------------------------------

void RandomSteps::hear(Bytes frame)
{
    const std::size_t length = std::min(frame.size(), LACP_RX_BUFFER_SIZE);
    frame.resize(LACP_RX_BUFFER_SIZE);
    lacp_pkt_take(frame.data(), static_cast<int>(length), lacp_bpdu_recv);
}

// Flags below a limit, and most often none.
std::uint32_t RandomSteps::variant(std::uint32_t limit)
{
    const std::uint32_t choice = input_.byte();
    return choice < limit ? choice : 0;
}

// One of a few partners, most often the one of last time.
LacInfo RandomSteps::partner_of(std::uint32_t port_no)
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

void RandomSteps::hear_partner()
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

void RandomSteps::hear_marker()
{
    const std::uint32_t port_no = any_port();
    Bytes pdu(LAC_PDU_SIZE, 0x5A);
    pdu[0] = static_cast<std::uint8_t>(input_.below(4));
    pdu[2] = static_cast<std::uint8_t>(input_.below(4));
    hear(tagged_frame(port_no, pdu));
}

// A good frame with a few octets replaced, or none, cut or made longer.
void RandomSteps::hear_anything()
{
    Bytes frame = tagged_frame(any_port(), pdu_bytes(partner_of(1), {}));
    const auto given = input_.bytes(input_.below(32));
    const std::size_t at = input_.below(static_cast<std::uint32_t>(frame.size()));
    std::copy_n(given.begin(), std::min(given.size(), frame.size() - at),
                frame.begin() + static_cast<std::ptrdiff_t>(at));
    switch (input_.below(4)) {
    case 0:
        frame.resize(input_.byte());
        break;
    case 1:
        frame.resize(input_.number(2) % (LACP_RX_BUFFER_SIZE + 1), 0xA5);
        break;
    default:
        break;
    }
    hear(std::move(frame));
}

// A cable back to the port, or to another one.
void RandomSteps::hear_ourselves()
{
    const std::uint32_t port_no = any_port();
    if (!last_sent_.bytes.empty())
        hear(tagged_frame(port_no, last_sent_.pdu()));
}
