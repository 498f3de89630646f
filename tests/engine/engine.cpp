#include "engine.h"

#include <iomanip>
#include <set>
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

static Bytes word(unsigned value)
{
    return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

static Bytes information(std::uint8_t type, const LacInfo &info)
{
    return Bytes{type, 20} + word(info.system_priority) + Bytes(info.system.begin(), info.system.end()) +
           word(info.key) + word(info.port_priority) + word(info.port) + Bytes{info.state} +
           Bytes(info.reserved.begin(), info.reserved.end());
}

Bytes pdu_bytes(const LacInfo &actor, const LacInfo &partner)
{
    Bytes bytes = Bytes{1, 1} + information(1, actor) + information(2, partner) + Bytes{3, 16, 0, 50};
    bytes.resize(LAC_PDU_SIZE);
    return bytes;
}

Bytes tagged_frame(std::uint32_t port_no, const Bytes &pdu)
{
    return hex("0180c2000002 023344556677 9082 00000000") + word(port_no) + hex("00000000 81000001 8809") + pdu;
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
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

std::string printed_as_error(const std::function<void()> &action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

// ---- state by short names -------------------------------------------------------------------------------------

namespace
{

template <typename T> std::uint64_t number(const Published<T> &field)
{
    return field;
}
template <typename T>
requires std::is_integral_v<T> std::uint64_t number(T field)
{
    return field;
}
template <std::size_t N> std::uint64_t number(const PublishedBytes<N> &field)
{
    return PublishedBytes<N>::pack(field);
}
std::uint64_t number(const Published<LacPort *> &field)
{
    return field->port_no;
}
std::uint64_t number(const LacTimer &timer)
{
    return (1U - timer.initialized) << 20 | timer.active << 16 | timer.reload << 8 | timer.count;
}

template <typename T> void assign(T &field, std::uint64_t value)
{
    field = static_cast<T>(value);
}
template <typename T> void assign(Published<T> &field, std::uint64_t value)
{
    field = static_cast<T>(value);
}
template <std::size_t N> void assign(PublishedBytes<N> &field, std::uint64_t value)
{
    field = PublishedBytes<N>::unpack(value);
}
void assign(Published<LacPort *> &field, std::uint64_t value)
{
    field = lacNoToPort(static_cast<std::uint32_t>(value));
}
void assign(LacTimer &timer, std::uint64_t value)
{
    timer.count = value & 0xFF;
    timer.reload = value >> 8 & 0xFF;
    timer.active = value >> 16 & 0xF;
    timer.initialized = 1U - (value >> 20);
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

struct GroupWord {
    const char *name;
    int (*get)(int, std::uint32_t *);
};
constexpr GroupWord GROUP_WORDS[] = {
    {"type", get_channel_group_type},           {"used", get_channel_group_used},
    {"code", get_channel_group_load_balance},   {"agg", get_channel_group_agg_no},
    {"list", get_channel_group_port_list},      {"n", get_channel_group_port_count},
    {"up", get_channel_group_uplink_port_list}, {"upn", get_channel_group_uplink_port_count}};

// A group is set through its own functions; counts follow.
void set_group(int group, const std::string &name, std::uint32_t value)
{
    if (name == "type" && value != 0)
        set_channel_group_type(group, value);
    if (name == "used")
        set_channel_group_used(group, value);
    if (name == "code")
        set_channel_group_load_balance(group, value);
    if (name == "agg")
        set_channel_group_agg_no(group, value);
    const auto operation = [&](std::uint32_t port) {
        return (value >> (port - 1) & 1) != 0 ? LIST_ADD : LIST_REMOVE;
    };
    for (std::uint32_t port = 1; port <= LAC_MAX_PORTS && name == "list"; ++port)
        set_channel_group_port_list(group, 0, port, operation(port));
    for (std::uint32_t port = 1; port <= LAC_MAX_PORTS && name == "up"; ++port)
        set_channel_group_uplink_port_list(group, 0, port, operation(port));
}

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
    for_words([&](const std::string &name, const auto &field) {
        if (published && std::is_integral_v<std::remove_cvref_t<decltype(field)>>)
            return;
        const std::uint64_t value = number(field);
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
            Engine::set_link(static_cast<std::uint32_t>(std::stoul(name.substr(4))), value == "1");
        else if (name[0] == 'g' && name[2] == '.')
            set_group(name[1] - '0', name.substr(3), static_cast<std::uint32_t>(std::stoul(value, nullptr, 16)));
        else
            values[has(name, ".") ? name : "1." + name] = std::stoull(value, nullptr, 16);
    }
    for_words([&](const std::string &name, auto &field) {
        if (const auto found = values.find(name); found != values.end()) {
            assign(field, found->second);
            values.erase(found);
        }
    });
    if (!values.empty())
        throw std::invalid_argument("no word " + values.begin()->first);
}

std::string sorted(const std::string &words)
{
    std::istringstream text(words);
    std::multiset<std::string> all;
    for (std::string word; text >> word;)
        all.insert(word);
    std::string out;
    for (const std::string &word : all)
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
        const bool pdu = message.code == LAC_Q_PDU;
        words += " q:" + (pdu ? "pdu" : std::to_string(message.code)) + "/" + std::to_string(message.port) +
                 (pdu ? "" : "=" + in_hex(message.payload));
        Lac_Queue.push(message);
    }
    return words;
}

std::string request_text(const fake::Message &message)
{
    std::string text = message.at(7) == SCLIENT_MSG_TRUNK_CREATE    ? "create:"
                       : message.at(7) == SCLIENT_MSG_TRUNK_DESTROY ? "destroy:"
                                                                    : "rehash:";
    if (Bytes(message.begin(), message.begin() + 7) != Bytes{0, std::uint8_t(message.size()), 1, 2, 0, 0, 0})
        text = "bad header:" + text;
    for (std::size_t at = 8; at + 4 <= message.size(); at += 4)
        text += (at > 8 ? "," : "") + in_hex(std::uint32_t(message[at] << 24 | message[at + 1] << 16 |
                                                           message[at + 2] << 8 | message[at + 3]));
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
        words += " " + request_text(message);
    for (const std::string &line : fake::take_writes())
        words += " w:" + line;
    return sorted(words);
}

// ---- engine ---------------------------------------------------------------------------------------------------

std::size_t queued_pdus()
{
    return MTYPE_LACP_PDU.allocated();
}

Engine::Engine(std::uint32_t first_port, std::uint32_t last_port)
{
    fake::reset_datastore();
    fake::reset_driver();
    fake::reset_system();
    fake::system().mac = OUR_MAC;
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
        return fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE, change).result;
    };
    for (std::uint32_t number = 1; number <= LAC_MAX_PORTS; ++number) { // the handlers outlive the engine
        const std::string port = "p" + std::to_string(number);
        fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, "+" + port + "/channel-group=0");
        fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, "-" + port + "/mode=active");
    }
    fake::take_writes();
}

Engine::~Engine()
{
    dispatch();
    EXPECT_EQ(queued_pdus(), 0U) << "a received PDU was not freed";
    EXPECT_EQ(MTYPE_LACP_SSP_PACKET.allocated(), 0U) << "a sent packet was not freed";
    EXPECT_EQ(fake::open_iterators(), 0) << "a change iterator was not released";
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
    sclient_free(lacp_sclient);
    lacp_sclient = nullptr;
}

void Engine::send(std::uint64_t code, std::uint32_t port_no, std::uint64_t payload)
{
    lacWaitAndSend("test", code, payload, port_no);
}

void Engine::dispatch()
{
    LacQueueMsg message;
    while (Lac_Queue.tryPop(message))
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
    for (std::uint32_t failures = 0; count > 0; --count) {
        lacSendTick(failures);
        dispatch();
    }
}

void Engine::set_link(std::uint32_t port_no, bool up)
{
    const std::lock_guard guard(fake::datastore().lock);
    fake::datastore().leaves["p" + std::to_string(port_no) + "/link-status"] = up ? "up" : "down";
}

void Engine::change_link(std::uint32_t port_no, bool up)
{
    configure("p" + std::to_string(port_no) + "/link-status=" + (up ? "down>up" : "up>down"));
    dispatch();
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
fake::Delivery Engine::configure(const std::string &changes)
{
    const bool link = has(changes, "/link-status");
    const std::size_t at = changes.find_first_not_of("+-");
    const std::string leaf = changes.substr(at, changes.find('=') - at);
    const auto store = [&] {
        const std::lock_guard guard(fake::datastore().lock);
        if (changes[0] == '-' || has(changes, "; "))
            return;
        const std::string value = changes.substr(changes.find_last_of(">=") + 1);
        fake::datastore().leaves[leaf.ends_with("-port") ? leaf + "/" + value : leaf] = value;
    };
    if (link)
        store();
    const sr_module_change_cb handler = link                       ? lacp_port_uplink_change_cb
                                        : leaf[0] == 'g'           ? lacp_channel_group_cb
                                        : leaf.starts_with("sys/") ? lacp_global_configuration_cb
                                                                   : lacp_interface_trunk_cb;
    const fake::Delivery done = fake::deliver(handler, link ? SR_EV_DONE : SR_EV_CHANGE, changes);
    if (!link && done.result == 0)
        store();
    return done;
}

void Engine::join(std::uint32_t port_no, unsigned group)
{
    const std::string leaf = "p" + std::to_string(port_no) + "/channel-group";
    std::unique_lock guard(fake::datastore().lock);
    const auto found = fake::datastore().leaves.find(leaf);
    const std::string old = found == fake::datastore().leaves.end() ? "" : found->second;
    guard.unlock();
    configure((old.empty() ? "+" + leaf + "=" : leaf + "=" + old + ">") + std::to_string(group));
}

LacInfo Engine::peer(std::uint16_t port_no, Mac system)
{
    return {0x8000, system, 7, 0x8000, port_no, LAC_ACTIVITY | LAC_AGGREGATION | LAC_SYNCHRONIZATION, {}};
}

LacPort &Engine::running_port(std::uint32_t port_no, unsigned group)
{
    switch_on();
    std::uint32_t type = CHANNEL_GROUP_UNSET;
    get_channel_group_type(static_cast<int>(group), &type);
    if (type == CHANNEL_GROUP_UNSET)
        configure("+g" + std::to_string(group) + "/lacp-type=dynamic");
    set_link(port_no, true);
    join(port_no, group);
    dispatch();
    return port(port_no);
}

LacPort &Engine::current_port(std::uint32_t port_no, unsigned group)
{
    LacPort &record = running_port(port_no, group);
    receive(port_no, pdu_bytes(peer(static_cast<std::uint16_t>(port_no)), lac_actor_info(&record)));
    return record;
}
