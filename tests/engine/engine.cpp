#include "engine.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

// ---- bytes ----------------------------------------------------------------------------------------------------

Bytes hex(const std::string &digits)
{
    Bytes bytes;
    std::string pair;
    for (const char digit : digits)
        if (isxdigit(static_cast<unsigned char>(digit)) != 0 && (pair += digit).size() == 2)
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(std::exchange(pair, {}), nullptr, 16)));
    return bytes;
}

Bytes operator+(Bytes front, const Bytes &back)
{
    front.insert(front.end(), back.begin(), back.end());
    return front;
}

// Octet by octet the encoding is compared elsewhere.
Bytes pdu_bytes(const LacInfo &actor, const LacInfo &partner)
{
    Bytes bytes(LAC_PDU_SIZE);
    std::ranges::copy(hex("01 01 01 14"), bytes.begin());
    lacEncodeInfo(actor, &bytes[4]);
    std::ranges::copy(hex("02 14"), bytes.begin() + 22);
    lacEncodeInfo(partner, &bytes[24]);
    std::ranges::copy(hex("03 10 00 32"), bytes.begin() + 42);
    return bytes;
}

Bytes tagged_frame(std::uint32_t port_no, const Bytes &pdu)
{
    Bytes frame = hex("0180c2000002 023344556677 9082 00000000 0000 00000000 81000001 8809");
    frame[18] = static_cast<std::uint8_t>(port_no >> 8);
    frame[19] = static_cast<std::uint8_t>(port_no);
    return frame + pdu;
}

// ---- wire and output ------------------------------------------------------------------------------------------

Wire::Wire()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0)
        throw std::runtime_error("no socket pair");
    far_ = ends[0];
    socket_.fd = ends[1];
    lacp_pkt_socket = &socket_;
}

Wire::~Wire()
{
    lacp_pkt_socket = nullptr;
    close(socket_.fd);
    close(far_);
}

std::vector<SentFrame> Wire::take()
{
    std::vector<SentFrame> frames;
    Bytes buffer(LACP_RX_BUFFER_SIZE);
    for (ssize_t length = 0; (length = recv(far_, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;)
        frames.push_back({Bytes(buffer.begin(), buffer.begin() + length)});
    return frames;
}

std::string printed(const std::function<void()> &action)
{
    char *text = nullptr;
    std::size_t size = 0;
    FILE *const out = stdout, *const error = stderr, *const file = open_memstream(&text, &size);
    stdout = stderr = file;
    action();
    stdout = out;
    stderr = error;
    fclose(file);
    const std::string copy(text, size);
    free(text);
    if (testing::Test::HasFailure()) // perhaps of an expectation within
        puts(copy.c_str());
    return copy;
}

// ---- state by short names -------------------------------------------------------------------------------------

namespace
{

// What a word of the records is; with `to` it is set first.
template <typename Field> std::uint64_t access_word(Field &field, const std::uint64_t *to = nullptr)
{
    if constexpr (std::is_same_v<Field, LacTimer>) {
        if (to != nullptr) {
            field.count = *to & 0xFF;
            field.reload = *to >> 8 & 0xFF;
            field.active = *to >> 16 & 0xF;
            field.initialized = 1U - (*to >> 20);
        }
        return (1U - field.initialized) << 20 | field.active << 16 | field.reload << 8 | field.count;
    } else if constexpr (std::is_same_v<Field, Published<LacPort *>>) {
        if (to != nullptr)
            field = lacNoToPort(static_cast<std::uint32_t>(*to));
        return field->port_no;
    } else if constexpr (requires { Field::pack(field); }) {
        if (to != nullptr)
            field = Field::unpack(*to);
        return Field::pack(field);
    } else {
        if (to != nullptr)
            field = static_cast<std::remove_cvref_t<decltype(field + field)>>(*to);
        return field;
    }
}

// Calls `use` for every word of the records.
template <typename Use> void for_words(const Use &use)
{
    for (LacPort *record : lac_ports()) {
        LacPort &p = *record;
        const std::string at = std::to_string(p.port_no) + ".";
#define WORD(name, field) use(at + #name, p.field)
        WORD(group, channel_group_id), WORD(ntt, ntt), WORD(asp, actor_system_priority), WORD(asys, actor_system),
            WORD(key, actor_oper_key), WORD(prio, actor_port_priority), WORD(no, actor_port),
            WORD(actor, actor_oper_state), WORD(psp, partner_system_priority), WORD(psys, partner_system),
            WORD(pkey, partner_oper_key), WORD(pprio, partner_port_priority), WORD(pno, partner_port),
            WORD(partner, partner_oper_state), WORD(pres, partner_reserved), WORD(xsp, actor_admin_system_priority),
            WORD(xsys, actor_admin_system), WORD(xkey, actor_admin_key), WORD(xprio, actor_admin_port_priority),
            WORD(xno, actor_admin_port), WORD(xstate, actor_admin_state), WORD(ysp, partner_admin_system_priority),
            WORD(ysys, partner_admin_system), WORD(ykey, partner_admin_key), WORD(yprio, partner_admin_port_priority),
            WORD(yno, partner_admin_port), WORD(ystate, partner_admin_state), WORD(up, port_enabled),
            WORD(lacp, lacp_enabled), WORD(ready_n, ready_n), WORD(ready, ready), WORD(sel, selected),
            WORD(moved, port_moved), WORD(matched, matched), WORD(attached, attached), WORD(collects, coll_dist),
            WORD(rx, rxm), WORD(tx, txm), WORD(mux, muxm), WORD(hold, hold_count), WORD(cw, current_while_timer),
            WORD(per, periodic_timer), WORD(ww, wait_while_timer), WORD(txs, tx_scheduler), WORD(muxs, mux_scheduler),
            WORD(amac, aggregator_mac), WORD(aggid, aggregator_id), WORD(alone, individual),
            WORD(aokey, aggregator_oper_key), WORD(aakey, aggregator_admin_key),
            WORD(apsys, aggregator_partner_system), WORD(apsp, aggregator_partner_system_priority),
            WORD(apkey, aggregator_partner_key), WORD(agg, aggregator), WORD(chain, next_lag_port),
            WORD(mask, port_mask), WORD(heard, heard_state), WORD(told, told_state), WORD(in_place, in_place),
            WORD(waits, waits_selected), WORD(in, attached_group), WORD(wanted, member_wanted),
            WORD(written, member_written), WORD(tries, member_tries), WORD(barred, member_barred),
            WORD(bar, member_bar), WORD(n_moved, stats->moved), WORD(n_rx, stats->rx_lacpdu),
            WORD(n_marker, stats->rx_marker), WORD(n_response, stats->rx_marker_response),
            WORD(n_unknown, stats->rx_unknown), WORD(n_illegal, stats->rx_illegal), WORD(n_tx, stats->tx_lacpdu),
            WORD(n_answer, stats->tx_marker_response), WORD(n_attach, stats->attach_count),
            WORD(n_trans, stats->trans_count), WORD(n_change, stats->change_count),
            WORD(n_unmatched, stats->unmatched_count), WORD(heard_at, stats->last_rx_ms);
    }
    for (std::uint32_t i = 0; i < LAC_MAX_PORTS; ++i) {
        const std::string at = "cfg" + std::to_string(i + 1) + ".";
        use(at + "key", lacPortCfg[i].key);
        use(at + "prio", lacPortCfg[i].port_priority);
        use(at + "short", lacPortCfg[i].timeout);
        use(at + "passive", lacPortCfg[i].passive);
    }
    use("sys.mac", lacSystem->system_mac);
    use("sys.prio", lacSystem->system_priority);
    use("sys.state", lacSystem->system_state);
    use("sys.changed", lacSystem->last_change_ms);
    use("sys.on", lacDrvCtrl->lac_enable);
    use("ctrl.prio", lacpCtrl.system_priority);
    use("ctrl.started", lacpCtrl.started);
    use("ctrl.once", lacpCtrl.once_cfg_done);
}

// The words of a group, and how they are set: counts follow.
struct GroupWord {
    const char *name;
    int (*get)(int, std::uint32_t *);
    int (*set)(int, std::uint32_t);
};
template <int (*list)(int, int, std::uint32_t, int)> int set_list(int group, std::uint32_t ports)
{
    for (std::uint32_t port = 1; port <= LAC_MAX_PORTS; ++port)
        list(group, 0, port, (ports >> (port - 1) & 1) != 0 ? LIST_ADD : LIST_REMOVE);
    return 0;
}
constexpr GroupWord GROUP_WORDS[] = {
    {"type", get_channel_group_type, set_channel_group_type},
    {"used", get_channel_group_used, set_channel_group_used},
    {"code", get_channel_group_load_balance, set_channel_group_load_balance},
    {"agg", get_channel_group_agg_no, set_channel_group_agg_no},
    {"list", get_channel_group_port_list, set_list<set_channel_group_port_list>},
    {"n", get_channel_group_port_count, nullptr},
    {"up", get_channel_group_uplink_port_list, set_list<set_channel_group_uplink_port_list>},
    {"upn", get_channel_group_uplink_port_count, nullptr}};

std::string in_hex(std::uint64_t value)
{
    std::ostringstream text;
    text << std::hex << value;
    return text.str();
}

} // namespace

State state(bool published)
{
    State all;
    for_words([&](const std::string &name, auto &field) {
        if (published && std::is_integral_v<std::remove_cvref_t<decltype(field)>>)
            return;
        const std::uint64_t value = access_word(field);
        const bool time = name.ends_with(".heard_at") || name == "sys.changed";
        all[name] = time ? value != 0 : value;
    });
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
        for (const GroupWord &word : GROUP_WORDS) {
            std::uint32_t value = 0;
            word.get(group, &value);
            all["g" + std::to_string(group) + "." + word.name] = value;
        }
    return all;
}

std::string text(const LacPort &port)
{
    std::string words;
    for (const auto &[name, value] : state())
        if (name.starts_with(std::to_string(port.port_no) + ".") && !name.ends_with(".heard_at"))
            words += name + "=" + in_hex(value) + " ";
    return words;
}

void set(const std::string &words)
{
    std::map<std::string, std::uint64_t> values;
    std::istringstream text(words);
    for (std::string word; text >> word;) {
        std::string name = word.substr(0, word.find('='));
        const std::string value = name.size() == word.size() ? "" : word.substr(name.size() + 1);
        if (name.starts_with("@-"))
            fake::datastore().leaves.erase(name.substr(2));
        else if (name[0] == '@')
            fake::datastore().leaves[name.substr(1)] = value;
        else if (name[0] == '!')
            fake::datastore().failures[name.substr(1)] = std::stoi(value);
        else if (name.starts_with("link"))
            fake::datastore().leaves["p" + name.substr(4) + "/link-status"] = value == "1" ? "up" : "down";
        else if (name[0] == 'g' && name[2] == '.')
            std::ranges::find(GROUP_WORDS, name.substr(3), &GroupWord::name)
                ->set(name[1] - '0', static_cast<std::uint32_t>(std::stoul(value, nullptr, 16)));
        else
            values[has(name, ".") ? name : "1." + name] = std::stoull(value, nullptr, 16);
    }
    for_words([&](const std::string &name, auto &field) {
        if (const auto found = values.find(name); found != values.end()) {
            access_word(field, &found->second);
            values.erase(found);
        }
    });
    if (!values.empty())
        throw std::invalid_argument("no word " + values.begin()->first);
}

// In the order of the alphabet; of "psp=0 ... psp=1" the last one counts, as when words are set.
static std::string sorted(const std::string &words)
{
    std::istringstream text(words);
    std::map<std::string, std::vector<std::string>> all;
    for (std::string word; text >> word;) {
        auto &same = all[word.substr(0, word.find('='))];
        if (!has(word, ":"))
            same.clear(); // what is queued, sent or written may be so twice
        same.push_back(word);
    }
    std::string out;
    for (const auto &[name, same] : all)
        for (const std::string &word : same)
            out += (out.empty() ? "" : " ") + word;
    return out;
}

// The messages stay in the queue.
static std::string queued()
{
    std::string words;
    std::vector<LacQueueMsg> messages;
    for (LacQueueMsg message; Lac_Queue.tryPop(message);)
        messages.push_back(message);
    for (const LacQueueMsg &message : messages) {
        words += " q:" + std::to_string(message.code) + "/" + std::to_string(message.port) +
                 (message.code == LAC_Q_PDU ? "" : "=" + in_hex(message.payload));
        Lac_Queue.push(message);
    }
    return words;
}

std::string request_text(const fake::Message &message)
{
    std::string text = message.at(7) == SCLIENT_MSG_TRUNK_CREATE    ? " create:"
                       : message.at(7) == SCLIENT_MSG_TRUNK_DESTROY ? " destroy:"
                                                                    : " rehash:";
    if (Bytes(message.begin(), message.begin() + 7) != Bytes{0, std::uint8_t(message.size()), 1, 2, 0, 0, 0})
        text = " bad header:";
    for (std::size_t at = 8; at + 4 <= message.size(); at += 4)
        text += (at > 8 ? "," : "") + in_hex(message[at] * 256U + message[at + 3]);
    return text;
}

std::string changes(const std::function<void()> &action, std::string *says)
{
    fake::take_writes();
    fake::take_messages();
    set("sys.changed=0");
    const State before = state();
    const std::string text = printed(action);
    if (says != nullptr)
        *says = text;
    std::string words = queued();
    for (const auto &[name, value] : state())
        if (before.at(name) != value)
            words += " " + (name.starts_with("1.") ? name.substr(2) : name) + "=" + in_hex(value);
    for (const fake::Message &message : fake::take_messages())
        words += request_text(message);
    for (const std::string &line : fake::take_writes())
        words += " w:" + line;
    return sorted(words);
}

// ---- engine ---------------------------------------------------------------------------------------------------

Engine::Engine(std::uint32_t first_port, std::uint32_t last_port)
{
    fake::reset_datastore();
    fake::driver().unreachable = false;
    intf = {first_port, last_port};
    lacDebug = 0;
    lacp_set_pkt_debug(LACP_PKT_RX, 0);
    lacp_set_pkt_debug(LACP_PKT_TX, 0);
    lacp_sclient_init(nullptr, 0, nullptr);
    lacp_sclient_on_reconnect(lacp_trunk_resync);
    lac_set_dispatcher(lacDispatch);
    static bool built; // the table is made once a process; after that each test gets it back as it was made
    if (!std::exchange(built, true)) {
        channel_group_daemon_init();
    } else {
        for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
            reset_channel_group(group);
        dynamic_channel_init();
    }
    sem_post(&lac_task_sem);                                           // as the dispatcher does when it runs
    lacpCtrl.once_cfg_done = 1;                                        // the first group's switch-on pauses
    fake::datastore().member_changed = [](const std::string &change) { // what the engine writes comes back
        return fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE, change);
    };
    far.push_back({});
    for (std::uint32_t number = 1; number <= LAC_MAX_PORTS; ++number) { // the handlers outlive the engine
        far.push_back({peer(static_cast<std::uint16_t>(number))});
        const std::string port = "p" + std::to_string(number);
        fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, "+" + port + "/channel-group=0");
        fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, "-" + port + "/mode=active");
    }
    fake::take_writes();
}

Engine::~Engine()
{
    dispatch();
    EXPECT_EQ(MTYPE_LACP_PDU.allocated(), 0U) << "a received PDU was not freed";
    EXPECT_EQ(MTYPE_LACP_SSP_PACKET.allocated(), 0U) << "a sent packet was not freed";
    EXPECT_EQ(fake::datastore().iterators, 0) << "a change iterator was not released";
    LacPort *ports = lacSystem->head.next;
    for (LacPort *port : lac_ports())
        qfree(MTYPE_LACP_STATS, port->stats);
    if (ports != &lacSystem->head)
        qfree(MTYPE_LACP_PORT, ports);
    qfree(MTYPE_LACP_SYS, lacSystem);
    lacSystem = nullptr;
    if (lacDrvCtrl->tx_slots != nullptr)
        qfree(MTYPE_LACP_PDU_TX, lacDrvCtrl->tx_slots);
    if (lacDrvCtrl->marker_slots != nullptr)
        qfree(MTYPE_LACP_PDU_TX_MARKER, lacDrvCtrl->marker_slots);
    qfree(MTYPE_LACP_DRVCTRL, lacDrvCtrl);
    lacDrvCtrl = nullptr;
    sem_destroy(&lac_task_sem);
    sclient_free(std::exchange(lacp_sclient, nullptr));
}

void Engine::send(std::uint64_t code, std::uint32_t port_no, std::uint64_t payload)
{
    lacWaitAndSend("test", code, payload, port_no);
}

void Engine::dispatch()
{
    for (LacQueueMsg message; Lac_Queue.tryPop(message);)
        lacDispatch(message);
}

void Engine::switch_on()
{
    if (lacDrvCtrl->tx_slots == nullptr)
        lacpDrvCtrlInit();
    send(LAC_Q_LACP_ON);
    dispatch();
}

void Engine::tick(unsigned count)
{
    for (LacTickCounts counts{}; count > 0; --count) {
        lacSendTick(counts);
        dispatch();
    }
}

void Engine::hear(Bytes frame)
{
    const std::size_t length = std::min(frame.size(), LACP_RX_BUFFER_SIZE);
    frame.resize(LACP_RX_BUFFER_SIZE, 0xEE);
    lacp_pkt_take(frame.data(), static_cast<int>(length), lacp_bpdu_recv);
}

void Engine::receive(std::uint32_t port_no, const Bytes &pdu)
{
    hear(tagged_frame(port_no, pdu));
    dispatch();
}

// The datastore shows links before, and everything else after the handler has accepted.
int Engine::configure(const std::string &changes)
{
    const bool link = has(changes, "/link-status");
    const std::string leaf = changes.substr(changes.find_first_not_of("+-"), changes.find('=') - (changes[0] < '0'));
    const auto store = [&] {
        const std::lock_guard guard(fake::datastore().lock);
        const std::string value = changes.substr(changes.find_last_of(">=") + 1);
        if (changes[0] != '-' && !has(changes, "; "))
            fake::datastore().leaves[leaf.ends_with("-port") ? leaf + "/" + value : leaf] = value;
    };
    if (link)
        store();
    const sr_module_change_cb handler = link                       ? lacp_port_uplink_change_cb
                                        : leaf[0] == 'g'           ? lacp_channel_group_cb
                                        : leaf.starts_with("sys/") ? lacp_global_configuration_cb
                                                                   : lacp_interface_trunk_cb;
    const int result = fake::deliver(handler, link ? SR_EV_DONE : SR_EV_CHANGE, changes);
    if (!link && result == 0)
        store();
    return result;
}

void Engine::join(std::uint32_t port_no, unsigned group)
{
    const std::string leaf = "p" + std::to_string(port_no) + "/channel-group", old = fake::stored(leaf);
    configure((old.empty() ? "+" + leaf + "=" : leaf + "=" + old + ">") + std::to_string(group));
}

LacInfo Engine::peer(std::uint16_t port_no)
{
    return {0x8000, PEER_MAC, 7, 0x8000, port_no, LAC_ACTIVITY | LAC_AGGREGATION | LAC_SYNCHRONIZATION, {}};
}

LacPort &Engine::running_port(std::uint32_t port_no, unsigned group)
{
    switch_on();
    if (state()["g" + std::to_string(group) + ".type"] == CHANNEL_GROUP_UNSET)
        configure("+g" + std::to_string(group) + "/lacp-type=dynamic");
    set("link" + std::to_string(port_no) + "=1");
    join(port_no, group);
    dispatch();
    return port(port_no);
}

void Engine::answer(std::uint32_t port_no)
{
    hear(tagged_frame(port_no, pdu_bytes(far[port_no].self, far[port_no].heard)));
}

void Engine::second()
{
    tick();
    std::uint32_t told = 0;
    for (const SentFrame &frame : wire.take()) {
        told |= 1U << (frame.port() - 1);
        far[frame.port()].heard = frame.actor();
    }
    for (std::uint32_t number = 1; number <= intf.last_uplink_port; ++number) {
        const bool asked = (far[number].heard.state & LAC_TIMEOUT) != 0;
        if (((told >> (number - 1) & 1) != 0 || asked) && far[number].talks && lacIsLinkUp(&port(number)) == 1) {
            answer(number);
            dispatch();
        }
    }
}

std::uint32_t Engine::trunk(std::uint32_t group)
{
    for (const fake::Message &message : fake::take_messages())
        if (message.at(7) != SCLIENT_MSG_TRUNK_PSC_SET)
            trunks_.at(message.at(11)) = message.at(7) == SCLIENT_MSG_TRUNK_CREATE ? message.at(19) : 0;
    return trunks_.at(group);
}

// ---- rows -----------------------------------------------------------------------------------------------------

// Port 1 in service alone in group 1, and what is different in other states. Capitals stand for words.
static const std::map<std::string, std::string> NAMES = {
    {"OUR", "21122aabbcc"},
    {"PEER", "23344556677"},
    {"OTHER", "29988776655"},
    {"SERVING",
     "group=1 ntt=0 asp=8000 asys=OUR key=1 prio=8000 no=1 actor=3d psp=8000 psys=PEER pkey=7 pprio=8000 pno=1 "
     "partner=3d xkey=1 up=1 lacp=1 ready_n=0 sel=1 matched=1 attached=1 collects=1 rx=1 tx=2 mux=6 hold=1 "
     "cw=15a5a per=11e1e ww=200 txs=0 muxs=100 alone=0 aokey=1 aakey=1 apsys=PEER apsp=8000 apkey=7 "
     "mask=1 heard=3d told=3d in=1 wanted=1 written=1 cfg1.key=1 g1.type=5 g1.agg=1 g1.list=1 g1.up=1 "
     "link1=1 @g1/member-port/1 @g1/lacp-type=dynamic"},
    {"ATTACHED", "SERVING mux=3 collects=0 mask=0 actor=d"},
    {"WAITING", "SERVING OUTSIDE mux=2 attached=0 collects=0 mask=0 actor=5 apsys=0 apkey=0 ww=10201 waits=1"},
    {"DETACHED", "SERVING OUTSIDE mux=1 sel=0 attached=0 collects=0 mask=0 actor=5 apsys=0 apkey=0"},
    {"EXPIRED", "SERVING rx=2 matched=0 partner=37 actor=bd cw=10300"},
    {"DEFAULTED", "SERVING rx=3 actor=7d NOBODY partner=8 heard=0 alone=1 apsys=0 apsp=0 apkey=0 cw=10300"},
    {"DOWN", "DETACHED NOBODY partner=0 heard=0 told=0 actor=45 matched=0 rx=6 up=0 tx=0 hold=0 cw=0 per=0"},
    {"NOBODY", "psp=0 psys=0 pkey=0 pprio=0 pno=0"},
    // Two ports behind port 1: both waiting, or both in service.
    {"TWO",
     "WAITING 2.group=1 2.key=1 2.actor=5 2.psp=8000 2.psys=PEER 2.pkey=7 2.pprio=8000 2.pno=2 2.partner=3d 2.up=1 "
     "2.lacp=1 2.sel=1 2.rx=1 2.tx=2 2.mux=2 2.hold=1 2.ww=10201 2.txs=0 2.alone=0 2.agg=1 2.waits=1 2.told=3d "
     "2.heard=3d 2.ntt=0 2.mask=0"},
    {"PAIR", "TWO SERVING mask=3 2.actor=3d 2.attached=1 2.collects=1 2.mux=6 2.ww=200 2.apsys=PEER 2.apkey=7 2.in=1 "
             "2.wanted=1 2.written=1 g1.list=3 g1.up=3 waits=0 2.waits=0 link2=1 @g1/member-port/2"},
    // What follows from the states.
    {"TOLD", "ntt=1 txs=10000"},
    {"STARTS_WAITING", "mux=2 ww=10202"},
    {"COLLECTS", "mux=6 actor=3d mask=1 collects=1"},
    {"STOPS", "mask=0 collects=0 n_attach=1 TOLD"},
    {"LEAVES", "STOPS attached=0 apsys=0 apkey=0 mux=1"},
    {"LEFT", "STOPS attached=0 mux=1"}, // its aggregator was empty
    {"ATTACHES", "ready=1 attached=1 n_attach=1 TOLD VIEW"},
    {"KICK", "muxs=10101"},
    {"HEARD", "heard_at=1"},
    {"VIEW", "apsys=PEER apkey=7"},
    {"ANEW", "sel=0 actor=5 LEAVES KICK HEARD"},
    {"MISMATCH", "TOLD partner=35 n_change=1 matched=0 n_unmatched=1 HEARD"},
    {"EXPIRES", "matched=0 partner=37 actor=bd rx=2 cw=10303 sys.changed=1"},
    {"GIVES_UP", "partner=8 heard=0 matched=1 n_trans=1 rx=3 KICK sys.changed=1"},
    {"PERIOD", "hold=0 TOLD"},
    {"SENT", "ntt=0 hold=2 n_tx=1"},
    {"TICKED", "cw=15a59 per=11e1d"},
    {"TAKES_OVER", "agg=2 2.agg=2 g1.agg=2 TOLD ww=10202 2.ntt=1 2.txs=10000 2.ww=10202"},
    {"IN_PLACE", "2.agg=2 2.mask=3 2.ntt=1 2.txs=10000 2.n_attach=1 2.ready=1 g1.agg=2"},
    {"WAITS_ANEW",
     "agg=2 mask=0 TOLD apsys=0 apkey=0 attached=0 collects=0 actor=5 STARTS_WAITING waits=1 IN_PLACE 2.mask=2"},
    {"IS_MEMBER", "written=1 w:+g1/member-port/1 g1.list=1 g1.n=1 g1.up=1 g1.upn=1 create:1,9,1,1"},
    {"OUTSIDE", "wanted=0 written=0 g1.list=0 g1.up=0 @-g1/member-port/1"},
    {"ALL_ANEW",
     "NOBODY partner=2 heard=0 told=0 hold=0 tx=0 rx=2 sel=0 alone=1 matched=0 actor=c7 cw=10303 per=0 "
     "muxs=10101 apsp=0 sys.changed=1 attached=0 collects=0 apsys=0 apkey=0 mux=1 TOLD 2.partner=2 2.rx=2 "
     "2.actor=c5 2.cw=10303 2.up=1"},
    {"ALL_STOP", "agg=1 chain=1 2.mask=0 sys.state=0 NOBODY partner=2 heard=0 sel=0 rx=2 matched=0 actor=c5 cw=10303 "
                 "sys.changed=1 KICK LEAVES 2.attached=1 3.attached=1 4.attached=1"},
    {"GOES", "wanted=0 written=0 w:-g1/member-port/1 g1.list=0 g1.n=0 g1.up=0 g1.upn=0 destroy:1"},
};

std::string expanded(const std::string &words)
{
    std::istringstream text(words);
    std::string out;
    for (std::string word; text >> word;) {
        const std::size_t value = word.find('=') + 1;
        const auto found = NAMES.find(word.substr(value));
        if (found == NAMES.end())
            out += word + " ";
        else
            out += word.substr(0, value) + expanded(found->second) + (value == 0 ? " " : "");
    }
    return out;
}

void set_info(LacInfo &info, const std::string &word)
{
    const std::string name = word.substr(0, word.find('='));
    const std::uint64_t value = std::stoull(expanded(word.substr(word.find('=') + 1)), nullptr, 16);
    if (name == "sys")
        info.system = PublishedMac::unpack(value);
    else if (name == "state")
        info.state = static_cast<std::uint8_t>(value);
    else
        (name == "sp"     ? info.system_priority
         : name == "key"  ? info.key
         : name == "prio" ? info.port_priority
                          : info.port) = static_cast<std::uint16_t>(value);
}

// A LACPDU of port 1's partner that knows us; "key=9" of the actor's side, "v.key=9" of its view differ.
static void hear_partner(const std::string &differences)
{
    LacInfo actor = {0x8000, PEER_MAC, 7, 0x8000, 1, 0x3D, {}}, view = lac_actor_info(lacNoToPort(1));
    std::istringstream text(differences);
    for (std::string word; text >> word;)
        word.starts_with("v.") ? set_info(view, word.substr(2)) : set_info(actor, word);
    lacRx(lacNoToPort(1), lacDecodePdu(pdu_bytes(actor, view).data()));
}

std::string act(const std::string &event)
{
    LacPort *const port = lacNoToPort(1);
    const std::string kind = event.substr(0, event.find(' '));
    const std::string rest = event.size() == kind.size() ? "" : event.substr(kind.size() + 1);
    const auto number = static_cast<std::uint32_t>(std::strtoul(rest.c_str(), nullptr, 10));
    int result = 0;
    const std::map<std::string, std::function<void()>> EVENTS = {
        {"mux", [&] { lacMuxMachine(port); }},
        {"mux-init", [&] { lacMuxMachineInitPort(port); }},
        {"select", [&] { lacSelect(port); }},
        {"period", [&] { update_Period(port); }},
        {"tick", [] { LacTick(); }},
        {"on", [] { lac_set(1); }},
        {"off", [] { lac_set(2); }},
        {"link-up", [] { lacLinkUp(1); }},
        {"port-on", [] { lacSetPortLacpState(1, 1); }},
        {"port-off", [] { lacSetPortLacpState(1, 0); }},
        {"timers",
         [&] {
             start_current_while_timer(port, 0), Start_wait_while_timer(port), Start_periodic_timer(port, 1),
                 Start_tx_scheduler(port), mux_scheduler_start(port);
         }},
        {"hears", [&] { hear_partner(rest); }},
        {"frame", [&] { Engine::receive(1, hex(rest)); }}, // the octets of a PDU
        {"msg",                                            // CODE/PORT=VALUE
         [&] {
             const auto to = static_cast<std::uint32_t>(std::stoul(rest.substr(rest.find('/') + 1)));
             Engine::send(std::stoull(rest), to, std::stoull(expanded(rest.substr(rest.find('=') + 1)), nullptr, 16));
             Engine::dispatch();
         }},
        {"rx", [&] { lacRxMachine(port, number, nullptr); }},
        {"tx", [&] { tx_machine(port, number); }},
        {"periodic", [&] { periodic_machine(port, number); }},
        {"settle", [&] { result = static_cast<int>(lacSettleMembers(rest == "retry")); }},
        {"cfg", // one change, or several "then" others
         [&] {
             for (std::size_t at = 0, end = 0; at <= rest.size(); at = end + strlen(" then ")) {
                 end = std::min(rest.find(" then ", at), rest.size());
                 result = Engine::configure(rest.substr(at, end - at));
             }
         }},
        {"resync", [] { lacp_sclient->reconnected(lacp_sclient); }},
    };
    EVENTS.at(kind)();
    return result == 0 ? "" : " r:" + std::to_string(result);
}

// Alternatives are separated by " | "; those of a state begin as the first one does.
static Texts alternatives(const std::string &text)
{
    Texts all;
    for (std::size_t at = 0, end = 0; at <= text.size(); at = end + 3) {
        end = std::min(text.find(" | ", at), text.size());
        const std::string one = text.substr(at, end - at);
        const std::string first = all.empty() ? "" : all[0].substr(0, all[0].find(' ') + 1);
        all.push_back(first.empty() || isupper(first[0]) == 0 || isupper(one[0]) != 0 ? one : first + one);
    }
    return all;
}

void for_runs(const std::vector<Row> &rows, const std::function<void(const Row &, const Case &)> &use)
{
    for (const Row &row : rows)
        for (const std::string &given : alternatives(row.given))
            for (const std::string &event : alternatives(row.event))
                use(row, {given, event});
}

void arrange(const std::string &given)
{
    Engine::switch_on();
    set(expanded(given));
}

std::string Case::operator()(std::uint32_t debug, std::string *says) const
{
    Engine engine;
    arrange(given);
    engine.wire.take();
    lacDebug = debug;
    std::string result;
    std::string seen = changes([&] { result = act(event); }, says) + result;
    for (const SentFrame &frame : engine.wire.take())
        seen += " sent:" + std::to_string(frame.port());
    return sorted(seen);
}

void check(const std::vector<Row> &rows)
{
    for_runs(rows, [](const Row &row, const Case &run) {
        std::string says;
        EXPECT_EQ(run(0, &says), sorted(expanded(row.then))) << run.given << ": " << run.event;
        EXPECT_TRUE(row.says == nullptr || says == row.says) << run.event << " says " << says;
    });
}
