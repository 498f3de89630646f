#include "story.h"

#include <algorithm>
#include <bit>
#include <sstream>

#define HOLDS(condition)                                                                                             \
    if (!(condition))                                                                                                \
    return #condition

namespace
{

constexpr int QUEUE_ROOM = 32; // a word sends fewer messages; a full queue has tests of its own
// From a LACPDU of a changed partner to a member: selection (2), wait_while (3); and once more, since the best port
// of a group may change with it.
constexpr unsigned SETTLE_TICKS = 12;

std::string type_of(std::uint32_t group)
{
    return fake::stored(fake::name('g', group, "lacp-type"));
}

std::uint32_t of_group(std::uint32_t group, int (*get)(int, std::uint32_t *))
{
    std::uint32_t value = 0;
    get(static_cast<int>(group), &value);
    return value;
}

// ---- invariants -----------------------------------------------------------------------------------------------

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
    HOLDS((port->attached == 1) == (mux == LAC_MUX_ATTACHED || collects) && (port->coll_dist == 1) == collects);
    HOLDS(mux != LAC_MUX_WAITING || port->wait_while_timer.active == 1);
    HOLDS(selected == LAC_UNSELECTED || (port->lacp_enabled == 1 && port->port_enabled == 1));
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
    HOLDS(group == 0 || serving <= CHANNEL_GROUP_MAX_PORTS);
    HOLDS(group == 0 || !is_aggregated(port) || of_group(group, get_channel_group_agg_no) == aggregator->port_no);
    const bool serves = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING && port->selected == LAC_SELECTED &&
                        port->individual == 0 && (port->heard_state & port->told_state & LAC_SYNCHRONIZATION) != 0;
    for (std::uint32_t number = 1; number <= 4 && !lacMemberOwed(port); ++number) {
        const bool is_member = (of_group(number, get_channel_group_port_list) & lac_port_bit(port)) != 0;
        HOLDS(of_group(number, get_channel_group_type) != CHANNEL_GROUP_DYNAMIC ||
              (serves && port->attached_group == number) == is_member);
    }
    return nullptr;
}

// ---- words by chance ------------------------------------------------------------------------------------------

// A word is a verb, the number of a port or group when the verb has one, and one of the rests.
struct Draw {
    const char *verb;
    std::uint32_t numbers; // 0: none; 8: a port
    std::vector<const char *> rests = {""};
};
const std::vector<Draw> DRAWS = {
    {"g", 4, {"dynamic", "dynamic", "dynamic", "manual", "-", "alone"}},
    {"g", 4, {"dynamic"}},
    {"join", 8, {":0", ":1", ":1", ":2", ":3", ":4"}},
    {"join", 8, {":1", ":2"}},
    {"down", 8},
    {"up", 8},
    {"mute", 8},
    {"talk", 8},
    {"hear", 8},
    {"blind", 8},
    {"", 8, {".key=9", ".key=7", ".prio=1", ".port=3", ".sys=OTHER", ".sys=PEER", ".sys=OUR", ".sp=1", ".sp=8000"}},
    {"", 8, {".state=3d", ".state=7", ".state=35", ".state=3f", ".state=39", ".state=3c", ".state=bd"}},
    {"", 0, {"short", "long", "best", "usual", "passive", "active"}}, // of a port, below
    {"", 0, {"refuse", "busy", "accept", "accept", "away", "back", "back", "off", "on", "on", "sysid", "hold"}},
    {"loop", 8},
    {"noise", 8},
    {"", 0, {"1s", "1s", "1s", "2s", "3s", "5s"}},
    {"", 0, {"1s", "2s", "3s", "4s"}},
    {"", 0, {"1s", "2s", "10s", "31s", "92s"}},
};

} // namespace

std::string Story::drawn_word(fuzz::Input &input) const
{
    const Draw &draw = input.pick(DRAWS);
    const std::string rest = input.pick(draw.rests);
    const std::uint32_t ports = intf.last_uplink_port;
    const bool setting = draw.numbers == 0 && draw.rests.front() == std::string("short");
    std::string word = draw.verb + (setting ? rest : "");
    if (draw.numbers != 0 || setting)
        word += std::to_string(1 + input.below(draw.numbers == 4 ? 4 : ports));
    word += setting ? "" : rest;
    if (draw.verb == std::string("noise"))
        for (const std::uint8_t octet : input.bytes(1 + input.below(24)))
            word += "0123456789abcdef"[octet >> 4], word += "0123456789abcdef"[octet & 15];
    return word;
}

std::string Story::draw(fuzz::Input &input)
{
    lacpDrvCtrlInit();
    fake::datastore().member_changed = [handler = fake::datastore().member_changed](const std::string &change) {
        const bool refused = change[0] == '+' && type_of(change[2] - '0').empty(); // as the schema does
        return refused ? SR_ERR_VALIDATION_FAILED : handler(change);
    };
    set("link1=1 link2=1 link3=1 link4=0 link5=1 link6=1 link7=1 link8=0");
    std::string words, found;
    for (unsigned seconds = 600; !input.empty() && found.empty(); found = broken()) {
        const std::string word = drawn_word(input);
        words += word + " ";
        unsigned count = word.ends_with("s") ? static_cast<unsigned>(std::strtoul(word.c_str(), nullptr, 10)) : 0;
        if (count == 0)
            happen(word);
        for (count = std::min(count, seconds); count > 0 && !held_; --count, --seconds)
            second();
    }
    found = found.empty() ? come_to_rest() : found;
    return found.empty() ? "" : found + "\n" + words;
}

// Nothing fails any more; the partners are ports of one system, and of more than four all want into group 1.
std::string Story::come_to_rest()
{
    held_ = false;
    dispatch();
    happen("accept");
    happen("back");
    wire.take(); // what was said before the last change of our own settings
    for (std::uint32_t port_no = 1; port_no <= intf.last_uplink_port; ++port_no) {
        LacInfo told = lac_actor_info(&port(port_no));
        told.system = lacSystem->system_mac; // the port's own copy may be older
        happen("up" + std::to_string(port_no));
        if (intf.last_uplink_port > CHANNEL_GROUP_MAX_PORTS && type_of(1) == "dynamic")
            join_as_configured(port_no, "1");
        far[port_no] = {peer(static_cast<std::uint16_t>(port_no)), told, true};
        answer(port_no);
        dispatch();
    }
    for (unsigned count = 0; count < SETTLE_TICKS; ++count) {
        second();
        if (std::string found = broken(); !found.empty())
            return found;
    }
    for (const LacPort *port : lac_ports()) {
        const bool rests = port->muxm == LAC_MUX_COLLECTING_DISTRIBUTING || port->member_bar != 0 ||
                           (port->selected == LAC_STANDBY && port->muxm == LAC_MUX_WAITING);
        const bool on_its_way = port->lacp_enabled == 1 && lacIsLinkUp(port) == 1 && !rests;
        if (get_lac_global_enable() == 1 && (lacMemberOwed(port) || on_its_way))
            return "with partners that answer all come to rest:\n" + text(*port);
    }
    return {};
}

// The handlers run one at a time, and a check between two of them sees no half of one.
std::string Story::broken()
{
    std::uint32_t taken = 0, up = 0;
    bool owes = false;
    for (const LacPort *port : lac_ports()) {
        owes = owes || lacMemberOwed(port);
        up |= fake::stored(fake::name('p', port->port_no, "link-status")) == "up" ? lac_port_bit(port) : 0;
    }
    const int waiting = Lac_Queue.count();
    HOLDS(held_ || waiting == 0);
    HOLDS(static_cast<int>(MTYPE_LACP_PDU.allocated()) <= waiting && MTYPE_LACP_SSP_PACKET.allocated() == 0);
    for (std::uint32_t number = 1; number <= 4; ++number) {
        const std::uint32_t type = of_group(number, get_channel_group_type);
        const std::uint32_t list = of_group(number, get_channel_group_port_list);
        const std::uint32_t uplinks = of_group(number, get_channel_group_uplink_port_list);
        HOLDS(std::popcount(list) == static_cast<int>(of_group(number, get_channel_group_port_count)));
        HOLDS(std::popcount(uplinks) == static_cast<int>(of_group(number, get_channel_group_uplink_port_count)));
        HOLDS((uplinks & ~list) == 0 && (type != CHANNEL_GROUP_UNSET || list == 0));
        HOLDS(list == fake::members(static_cast<int>(number)));
        HOLDS(type != CHANNEL_GROUP_MANUAL || uplinks == (list & up));
        HOLDS(away_ || trunk(number) == uplinks);
        // A port that moves from a dynamic group to a manual one is in both lists until its messages have been
        // dispatched, and after a refused write until ticks have written again.
        HOLDS(held_ || owes || (taken & list) == 0);
        taken |= list;
    }
    for (const LacPort *port : lac_ports()) {
        for (const LacTimer *timer : {&port->current_while_timer, &port->periodic_timer, &port->wait_while_timer,
                                      &port->tx_scheduler, &port->mux_scheduler})
            HOLDS(timer->count <= timer->reload);
        const bool on = !held_ && get_lac_global_enable() == 1;
        const char *found = on ? broken_machines(port) : nullptr;
        found = on && found == nullptr ? broken_aggregation(port) : found;
        if (found != nullptr)
            return std::string(found) + "\n" + text(*port);
    }
    return {};
}

// ---- words ----------------------------------------------------------------------------------------------------

// A port of a manual group is its member with it, as the shell and the guide's clients write both.
void Story::join_as_configured(std::uint32_t port_no, const std::string &group)
{
    const std::string number = std::to_string(port_no), old = fake::stored(fake::name('p', port_no, "channel-group"));
    const std::string before = "g" + old + "/member-port", list = "g" + group + "/member-port";
    const bool manual = fake::stored("g" + group + "/lacp-type") == "manual";
    if (manual && check_channel_group_port_count(std::stoi(group)) != LAC_OK)
        return; // refused as a whole
    auto &leaves = fake::datastore().leaves;
    if (old != group && fake::stored("g" + old + "/lacp-type") == "manual" &&
        leaves.contains(before + "/" + number) && configure("-" + before + "=" + number) == 0)
        leaves.erase(before + "/" + number);
    join(port_no, static_cast<unsigned>(std::stoul(group)));
    if (manual && !leaves.contains(list + "/" + number))
        configure("+" + list + "=" + number);
}

void Story::make_group(std::uint32_t group, const std::string &kind)
{
    const bool remove = kind == "-" || kind == "alone", exists = !type_of(group).empty();
    dispatch(); // a client gives the members of the group's former type the time to go
    if (remove != exists)
        return;
    for (const LacPort *port : lac_ports())
        if (!remove && lacMemberOwed(port))
            return;
    if (!remove) {
        configure("+" + fake::name('g', group, "lacp-type=") + kind);
        return kind == "dynamic" && get_lac_global_enable() != 1 ? send(LAC_Q_LACP_ON) : void();
    }
    for (std::uint32_t port_no = 1; kind == "-" && port_no <= intf.last_uplink_port; ++port_no)
        if (fake::stored(fake::name('p', port_no, "channel-group")) == std::to_string(group))
            join(port_no, 0);
    configure("-g" + std::to_string(group));
    std::erase_if(fake::datastore().leaves,
                  [group](const auto &entry) { return entry.first.starts_with(fake::name('g', group, "")); });
}

void Story::hear_noise(std::uint32_t port_no, const Bytes &octets)
{
    Bytes frame = tagged_frame(port_no, pdu_bytes(far[port_no].self, far[port_no].heard));
    const std::size_t at = octets.empty() ? 0 : octets[0] % frame.size();
    std::copy_n(octets.begin(), std::min(octets.size(), frame.size() - at), frame.data() + at);
    if (octets.size() % 4 == 3)
        frame.resize(octets[1] * octets[2] % (LACP_RX_BUFFER_SIZE + 1), 0xA5);
    hear(std::move(frame));
}

void Story::happen(const std::string &word)
{
    const std::size_t digit = std::min(word.find_first_of("12345678"), word.size());
    const std::string verb = word.substr(0, digit), rest = word.substr(std::min(digit + 1, word.size()));
    const std::uint32_t number = digit == word.size() ? 1 : static_cast<std::uint32_t>(word[digit] - '0');
    FarEnd &end = far[std::min<std::size_t>(number, intf.last_uplink_port)];
    auto &failures = fake::datastore().failures;
    const auto link = [&](const char *status) {
        const std::string leaf = fake::name('p', number, "link-status");
        if (fake::stored(leaf) != status)
            configure(leaf + "=" + fake::stored(leaf) + ">" + status);
    };
    const auto setting = [&](const char *value) {
        configure("+" + fake::name('p', number, value));
        fake::datastore().leaves.erase(fake::name('p', number, "mode")); // not committed yet when the port joins
    };
    const std::map<std::string, std::function<void()>> VERBS = {
        {"g", [&] { make_group(number, rest); }},
        {"join", [&] { join_as_configured(number, rest.substr(1)); }},
        {"down", [&] { link("down"); }},
        {"up", [&] { link("up"); }},
        {"mute", [&] { end.talks = false; }},
        {"talk", [&] { end.talks = true; }},
        {"hear", [&] { answer(number); }},
        {"blind", [&] { hear(tagged_frame(number, pdu_bytes(end.self, {}))); }},
        {"", [&] { set_info(end.self, rest.substr(1)); }},
        {"short", [&] { setting("timeout=short"); }},
        {"long", [&] { setting("timeout=long"); }},
        {"best", [&] { setting("priority=1"); }},
        {"usual", [&] { setting("priority=32768"); }},
        {"passive", [&] { setting("mode=passive"); }},
        {"active", [&] { setting("mode=active"); }},
        {"refuse", [&] { failures["+member-port"] = SR_ERR_CALLBACK_FAILED; }},
        {"busy",
         [&] {
             failures = {{"+member-port", KEL_DB_BUSY}, {"-member-port", KEL_DB_BUSY}};
         }},
        {"accept", [&] { failures.clear(); }},
        {"away", [&] { fake::driver().unreachable = away_ = true; }},
        {"back",
         [&] {
             fake::driver().unreachable = away_ = false;
             lacp_trunk_resync(lacp_sclient);
         }},
        {"off", [&] { send(LAC_Q_LACP_OFF); }},
        {"on", [&] { send(LAC_Q_LACP_ON); }},
        {"sysid",
         [&] {
             const bool ours = PublishedMac::pack(lacSystem->system_mac) == PublishedMac::pack(OUR_MAC);
             configure(std::string("+sys/system-id=") + (ours ? "0233.4455.6677" : "0211.22aa.bbcc"));
         }},
        {"loop", [&] { last_sent_.bytes.empty() ? void() : hear(tagged_frame(number, last_sent_.pdu())); }},
        {"noise", [&] { hear_noise(number, hex(rest)); }},
        {"hold", [&] { held_ = !held_; }},
    };
    VERBS.at(verb)();
    held_ = held_ && Lac_Queue.count() <= static_cast<int>(LAC_QUEUE_LIMIT) - QUEUE_ROOM;
    if (!held_)
        dispatch();
    if (auto frames = wire.take(); !frames.empty())
        last_sent_ = std::move(frames.back());
}
