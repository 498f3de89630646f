#include "engine.h"

#include "lac_memory.h"
#include "lacp_sclient.h"

#include <iomanip>
#include <iostream>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

// ---- bytes ----------------------------------------------------------------------------------------------------

Bytes hex(const std::string &digits)
{
    Bytes bytes;
    std::string pair;
    for (const char digit : digits) {
        if (isxdigit(static_cast<unsigned char>(digit)) == 0)
            continue;
        pair += digit;
        if (pair.size() == 2) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(pair, nullptr, 16)));
            pair.clear();
        }
    }
    return bytes;
}

static void append16(Bytes &bytes, unsigned value)
{
    bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    bytes.push_back(static_cast<std::uint8_t>(value));
}

static void append_information(Bytes &bytes, std::uint8_t type, const LacInfo &info)
{
    bytes.push_back(type);
    bytes.push_back(20);
    append16(bytes, info.system_priority);
    bytes.insert(bytes.end(), info.system.begin(), info.system.end());
    append16(bytes, info.key);
    append16(bytes, info.port_priority);
    append16(bytes, info.port);
    bytes.push_back(info.state);
    bytes.insert(bytes.end(), info.reserved.begin(), info.reserved.end());
}

Bytes pdu_bytes(const LacInfo &actor, const LacInfo &partner)
{
    Bytes bytes = {1, 1};
    append_information(bytes, 1, actor);
    append_information(bytes, 2, partner);
    bytes.push_back(3);
    bytes.push_back(16);
    append16(bytes, 50);
    bytes.resize(110);
    return bytes;
}

LacInfo info_at(const Bytes &bytes, std::size_t offset)
{
    const auto word = [&](std::size_t at) {
        return static_cast<std::uint16_t>(bytes.at(offset + at) << 8 | bytes.at(offset + at + 1));
    };
    LacInfo info{};
    info.system_priority = word(0);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset + 2), 6, info.system.begin());
    info.key = word(8);
    info.port_priority = word(10);
    info.port = word(12);
    info.state = bytes.at(offset + 14);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset + 15), 3, info.reserved.begin());
    return info;
}

bool operator==(const LacInfo &one, const LacInfo &other)
{
    return one.system_priority == other.system_priority && one.system == other.system && one.key == other.key &&
           one.port_priority == other.port_priority && one.port == other.port && one.state == other.state &&
           one.reserved == other.reserved;
}

std::ostream &operator<<(std::ostream &out, const LacInfo &info)
{
    std::ostringstream text;
    text << std::hex << std::setfill('0') << "priority " << info.system_priority << " system ";
    for (const unsigned byte : info.system)
        text << std::setw(2) << byte;
    text << " key " << info.key << " port priority " << info.port_priority << " port " << info.port << " state "
         << unsigned{info.state} << " reserved ";
    for (const unsigned byte : info.reserved)
        text << std::setw(2) << byte;
    return out << text.str();
}

// ---- wire -----------------------------------------------------------------------------------------------------

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
    for (;;) {
        const ssize_t length = recv(far_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length <= 0)
            return frames;
        frames.push_back({Bytes(buffer.begin(), buffer.begin() + length)});
    }
}

Bytes tagged_frame(std::uint32_t port_no, const Bytes &pdu)
{
    Bytes frame = hex("01 80 c2 00 00 02  02 33 44 55 66 77  90 82 00 00 00 00");
    append16(frame, port_no);
    const Bytes rest = hex("00 00 00 00  81 00 00 01  88 09");
    frame.insert(frame.end(), rest.begin(), rest.end());
    frame.insert(frame.end(), pdu.begin(), pdu.end());
    return frame;
}

// ---- output ---------------------------------------------------------------------------------------------------

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

// ---- engine ---------------------------------------------------------------------------------------------------

static std::ostream &operator<<(std::ostream &out, const LacTimer &timer)
{
    return out << timer.count << '/' << timer.reload << '/' << timer.active << '/' << timer.initialized;
}

std::string snapshot(const LacPort &port)
{
    const LacPortStats &stats = *port.stats;
    std::ostringstream text;
    text << "group " << port.channel_group_id << " ntt " << port.ntt << "\nactor " << lac_actor_info(&port)
         << "\npartner " << lac_partner_info(&port) << "\nadmin partner " << lac_partner_admin_info(&port)
         << "\nadmin actor " << port.actor_admin_system_priority << ' ' << port.actor_admin_key << ' '
         << port.actor_admin_port_priority << ' ' << port.actor_admin_port << ' '
         << unsigned{port.actor_admin_state.get()} << "\nenabled " << port.port_enabled << ' ' << port.lacp_enabled
         << " ready " << port.ready_n << ' ' << port.ready << " selected " << port.selected << " moved "
         << port.port_moved << " matched " << port.matched << " attached " << port.attached << " coll_dist "
         << port.coll_dist << "\nrxm " << port.rxm << " txm " << port.txm << " muxm " << port.muxm << " hold "
         << port.hold_count << "\ntimers " << port.current_while_timer << ' ' << port.periodic_timer << ' '
         << port.wait_while_timer << ' ' << port.tx_scheduler << ' ' << port.mux_scheduler << "\naggregator "
         << port.aggregator->port_no << " individual " << port.individual << " key " << port.aggregator_oper_key
         << ' ' << port.aggregator_admin_key << " partner key " << port.aggregator_partner_key << " mask "
         << port.port_mask << "\nmember heard " << unsigned{port.heard_state} << " told " << unsigned{port.told_state}
         << " attached in " << port.attached_group << " wanted " << port.member_wanted << " written "
         << port.member_written << " tries " << port.member_tries << " barred " << port.member_barred << "\ncounters "
         << stats.moved << ' ' << stats.rx_lacpdu << ' ' << stats.rx_marker << ' ' << stats.rx_marker_response << ' '
         << stats.rx_unknown << ' ' << stats.rx_illegal << ' ' << stats.tx_lacpdu << ' ' << stats.tx_marker_response
         << ' ' << stats.attach_count << ' ' << stats.trans_count << ' ' << stats.change_count << ' '
         << stats.unmatched_count;
    return text.str();
}

std::size_t queued_pdus()
{
    return MTYPE_LACP_PDU.allocated();
}

static void free_records()
{
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
}

// The table is built once a process; after that each test gets it back as it was built.
static void build_engine()
{
    static bool built;
    if (!built) {
        channel_group_daemon_init();
        built = true;
        return;
    }
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
        reset_channel_group(group);
    dynamic_channel_init();
}

EngineTest::EngineTest(std::uint32_t first_port, std::uint32_t last_port)
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
    build_engine();
    sem_post(&lac_task_sem); // as the dispatcher does when it runs

    // Members that the engine writes come back as changes.
    fake::datastore().member_changed = [](fake::MemberChange change, int group, const std::string &name) {
        const fake::Value value =
            fake::text("/olt-lacp:channel-group/group[id='" + std::to_string(group) + "']/member-port", name);
        return fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE,
                             {change == fake::MemberChange::created ? fake::created(value) : fake::deleted(value)})
            .result;
    };
    for (std::uint32_t number = 1; number <= LAC_MAX_PORTS; ++number) // the handlers outlive the engine
        fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE,
                      {fake::deleted(fake::name("/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" +
                                                    std::to_string(number) + "']/olt-lacp:trunk/mode",
                                                "active"))});
    fake::take_writes();
}

EngineTest::~EngineTest()
{
    dispatch();
    EXPECT_EQ(queued_pdus(), 0U) << "a received PDU was not freed";
    EXPECT_EQ(fake::open_iterators(), 0) << "a change iterator was not released";
    free_records();
    sem_destroy(&lac_task_sem);
    sclient_free(lacp_sclient);
    lacp_sclient = nullptr;
}

void EngineTest::send(std::uint64_t code, std::uint32_t port_no, std::uint64_t payload)
{
    lacWaitAndSend("test", code, payload, port_no);
}

void EngineTest::dispatch()
{
    LacQueueMsg message;
    while (Lac_Queue.tryPop(message))
        lacDispatch(message);
}

void EngineTest::switch_on()
{
    if (lacDrvCtrl->tx_slots == nullptr)
        lacpDrvCtrlInit();
    lacpCtrl.once_cfg_done = 1; // the first group's switch-on pauses
    send(LAC_Q_LACP_ON);
    dispatch();
}

void EngineTest::tick(unsigned count)
{
    for (std::uint32_t failures = 0; count > 0; --count) {
        lacSendTick(failures);
        dispatch();
    }
}

unsigned EngineTest::ticks_until(const std::function<bool()> &condition, unsigned limit)
{
    for (unsigned count = 1; count <= limit; ++count) {
        tick();
        if (condition())
            return count;
    }
    return 0;
}

void EngineTest::set_link(std::uint32_t port_no, bool up)
{
    fake::datastore().link_status[port_no] = up ? "up" : "down";
}

void EngineTest::change_link(std::uint32_t port_no, bool up)
{
    const std::string path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port_no) +
                             "']/interface-basic/link-status";
    set_link(port_no, up);
    fake::deliver(lacp_port_uplink_change_cb, SR_EV_DONE,
                  {fake::modified(fake::name(path, up ? "down" : "up"), fake::name(path, up ? "up" : "down"))});
    dispatch();
}

void EngineTest::receive(std::uint32_t port_no, const Bytes &pdu)
{
    Bytes frame = tagged_frame(port_no, pdu);
    const auto length = static_cast<int>(frame.size());
    frame.resize(LACP_RX_BUFFER_SIZE);
    lacp_pkt_take(frame.data(), length, lacp_bpdu_recv);
    dispatch();
}

int EngineTest::create_group(int group, const std::string &type)
{
    const std::string path = "/olt-lacp:channel-group/group[id='" + std::to_string(group) + "']/lacp-type";
    if (type == "dynamic")
        switch_on();
    const int result =
        fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE, {fake::created(fake::name(path, type))}).result;
    fake::datastore().lacp_type[group] = type;
    dispatch();
    return result;
}

static std::string channel_group_path(std::uint32_t port_no)
{
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port_no) +
           "']/olt-lacp:trunk/channel-group";
}

void EngineTest::join(std::uint32_t port_no, std::uint8_t group)
{
    auto &configured = fake::datastore().channel_group;
    const std::string path = channel_group_path(port_no);
    const auto old = configured.find(port_no);
    const fake::Value value = fake::number8(path, group);
    fake::deliver(
        lacp_interface_trunk_cb, SR_EV_CHANGE,
        {old == configured.end() ? fake::created(value) : fake::modified(fake::number8(path, old->second), value)});
    configured[port_no] = group;
    dispatch();
}

void EngineTest::leave(std::uint32_t port_no)
{
    join(port_no, 0);
}

LacInfo EngineTest::peer(std::uint16_t port_no, Mac system)
{
    return {0x8000, system, 7, 0x8000, port_no, LAC_ACTIVITY | LAC_AGGREGATION | LAC_SYNCHRONIZATION, {}};
}

LacPort &EngineTest::running_port(std::uint32_t port_no, std::uint8_t group)
{
    std::uint32_t type = CHANNEL_GROUP_UNSET;
    get_channel_group_type(group, &type);
    if (type == CHANNEL_GROUP_UNSET)
        create_group(group, "dynamic");
    set_link(port_no, true);
    join(port_no, group);
    return port(port_no);
}

LacPort &EngineTest::current_port(std::uint32_t port_no, std::uint8_t group)
{
    LacPort &record = running_port(port_no, group);
    receive(port_no, pdu_bytes(peer(static_cast<std::uint16_t>(port_no)), lac_actor_info(&record)));
    return record;
}
