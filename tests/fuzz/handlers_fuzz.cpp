// The change handlers on lists that no datastore would send, and the engine behind them.
#include "input.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "fake_datastore.h"
#include "fake_driver.h"
#include "fake_system.h"
#include "lac_dispatch.h"
#include "lac_memory.h"
#include "lac_pdu.h"
#include "lac_port.h"
#include "lac_task.h"
#include "lac_wire.h"
#include "lacp_database_cb.h"
#include "lacp_sclient.h"

#include <array>
#include <bit>
#include <cstring>

namespace
{

using fuzz::Input;
using fuzz::require;

constexpr sr_module_change_cb HANDLERS[] = {lacp_channel_group_cb, lacp_global_configuration_cb,
                                            lacp_interface_trunk_cb, lacp_port_uplink_change_cb};
constexpr sr_event_t EVENTS[] = {SR_EV_CHANGE, SR_EV_CHANGE, SR_EV_CHANGE, SR_EV_DONE,
                                 SR_EV_DONE,   SR_EV_UPDATE, SR_EV_ABORT,  SR_EV_ENABLED};
constexpr sr_change_oper_t OPERATIONS[] = {SR_OP_CREATED, SR_OP_CREATED, SR_OP_MODIFIED, SR_OP_DELETED, SR_OP_MOVED};
constexpr sr_val_type_t TYPES[] = {SR_STRING_T, SR_ENUM_T,  SR_UINT8_T, SR_UINT16_T,    SR_UNKNOWN_T,
                                   SR_LIST_T,   SR_INT64_T, SR_BOOL_T,  SR_LEAF_EMPTY_T};
constexpr const char *GROUP_LEAVES[] = {"lacp-type", "member-port", "load-balance", "join-port", "id", "other"};
constexpr const char *TRUNK_LEAVES[] = {"channel-group", "mode", "priority", "timeout", "other"};
constexpr const char *GLOBAL_LEAVES[] = {"system-id", "system-priority", "other"};
constexpr const char *TEXTS[] = {"manual",         "dynamic", "active", "passive",         "on",         "short",
                                 "long",           "up",      "down",   "src-mac",         "src-dst-ip", "dst-mac",
                                 "0011.22aa.bbcc", "00g1.2",  "",       "gigabitethernet "};
constexpr std::uint32_t LAST_PORT = 4;

// ---- engine ---------------------------------------------------------------------------------------------------

void free_engine()
{
    LacPort *const ports = lacSystem->head.next;
    for (LacPort *port : lac_ports())
        qfree(MTYPE_LACP_STATS, port->stats);
    qfree(MTYPE_LACP_PORT, ports);
    qfree(MTYPE_LACP_SYS, lacSystem);
    qfree(MTYPE_LACP_PDU_TX, lacDrvCtrl->tx_slots);
    qfree(MTYPE_LACP_PDU_TX_MARKER, lacDrvCtrl->marker_slots);
    qfree(MTYPE_LACP_DRVCTRL, lacDrvCtrl);
    lacSystem = nullptr;
    sem_destroy(&lac_task_sem);
}

int member_changed(fake::MemberChange change, int group, const std::string &name)
{
    const fake::Value value =
        fake::text("/olt-lacp:channel-group/group[id='" + std::to_string(group) + "']/member-port", name);
    return fake::deliver(lacp_channel_group_cb, SR_EV_CHANGE,
                         {change == fake::MemberChange::created ? fake::created(value) : fake::deleted(value)})
        .result;
}

class Engine
{
  public:
    Engine()
    {
        fake::reset_datastore();
        fake::reset_driver();
        fake::reset_system();
        fake::system().mac = {2, 0, 0, 0, 0, 1};
        fake::system().can_describe_threads = false; // this one does their work; the send lock is open then
        intf = {1, LAST_PORT};
        static const bool built = channel_group_daemon_init() == 1 && lacp_sclient_init(nullptr, 0, nullptr) == 0;
        if (!std::exchange(first_, false)) {
            for (int group = 1; built && group <= CHANNEL_GROUP_MAX_NUM; ++group)
                reset_channel_group(group);
            dynamic_channel_init();
        }
        lacpDrvCtrlInit();
        lacpCtrl.once_cfg_done = 1; // the first group's switch-on pauses
        lacWaitAndSend("fuzz", LAC_Q_LACP_ON, 0, 0);
        fake::datastore().member_changed = member_changed;
        dispatch();
    }
    ~Engine()
    {
        dispatch();
        require(MTYPE_LACP_PDU.allocated() == 0, "every received PDU is freed");
        free_engine();
    }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    static void dispatch()
    {
        LacQueueMsg message;
        while (Lac_Queue.tryPop(message))
            lacDispatch(message);
    }
    static void tick(std::uint32_t count)
    {
        for (std::uint32_t failures = 0; count > 0; --count) {
            lacSendTick(failures);
            dispatch();
        }
    }
    // A LACPDU of one of two partners, which knows what the port says of itself or not.
    static void hear(std::uint32_t port_no, std::uint32_t choice)
    {
        std::array<std::uint8_t, LAC_RX_PDU_OFFSET + LAC_PDU_SIZE> frame{};
        std::uint8_t *const pdu = frame.data() + LAC_RX_PDU_OFFSET;
        const LacInfo partner{0x8000,
                              {2, 0, 0, 0, 1, static_cast<std::uint8_t>(choice & 1)},
                              7,
                              0x8000,
                              static_cast<std::uint16_t>(port_no),
                              static_cast<std::uint8_t>(0x3D | (choice & 2)),
                              {}};
        pdu[0] = LAC_SUBTYPE_LACP;
        pdu[1] = pdu[2] = 1;
        pdu[3] = pdu[23] = 20;
        pdu[22] = 2;
        lacEncodeInfo(partner, pdu + 4);
        if (const LacPort *port = lacNoToPort(port_no); port != nullptr && (choice & 4) == 0)
            lacEncodeInfo(lac_actor_info(port), pdu + 24);
        lacp_bpdu_deal(port_no, 0, frame.data(), frame.size());
    }

  private:
    static inline bool first_ = true;
};

// ---- change lists ---------------------------------------------------------------------------------------------

std::string number(Input &input, std::uint32_t last)
{
    const std::uint32_t choice = input.below(20);
    if (choice > 1)
        return std::to_string(1 + input.below(last));
    return choice == 0 ? std::to_string(static_cast<std::int32_t>(input.number(4))) : std::to_string(UINT64_MAX);
}

std::string port_name(Input &input)
{
    return "gigabitethernet 0/" + number(input, LAST_PORT + 1);
}

std::string path_of(Input &input, std::uint32_t handler)
{
    const std::string interface = "/olt-ifm:up-link-ports/interface[name='";
    if (handler == 1)
        return std::string("/olt-lacp:global-configuration/") + input.pick(GLOBAL_LEAVES);
    if (handler == 0) {
        const std::string group = "/olt-lacp:channel-group/group[id='" + number(input, 4) + "']";
        return input.below(8) == 0 ? group : group + "/" + input.pick(GROUP_LEAVES);
    }
    const std::string name = port_name(input);
    if (handler == 3)
        return interface + name + "']/interface-basic/link-status";
    return interface + name + "']/olt-lacp:trunk/" + input.pick(TRUNK_LEAVES);
}

// One octet in it changed, cut, or made longer.
std::string mutated(Input &input, std::string text)
{
    const std::uint32_t choice = input.below(16);
    const std::size_t at = choice < 3 ? input.below(static_cast<std::uint32_t>(text.size()) + 1) : 0;
    if (choice == 0 && at < text.size())
        text[at] = static_cast<char>(1 + input.below(255));
    else if (choice == 1)
        text.resize(at);
    else if (choice == 2)
        text.insert(at, std::string(input.byte() * 8, 'x'));
    return text.substr(0, text.find('\0'));
}

// The leaf decides the type most of the time. A number is never replaced by a text: its address would be the number.
fake::Value value_at(Input &input, const std::string &path)
{
    const std::string leaf = path.substr(path.rfind('/') + 1);
    sr_val_type_t type = leaf.ends_with("priority") ? SR_UINT16_T : SR_ENUM_T;
    if (leaf == "channel-group")
        type = SR_UINT8_T;
    if (const sr_val_type_t other = input.pick(TYPES);
        input.below(12) == 0 && (type == SR_ENUM_T || (other != SR_ENUM_T && other != SR_STRING_T)))
        type = other;
    const bool names_port = leaf.ends_with("-port");
    return {path, type, mutated(input, names_port ? port_name(input) : input.pick(TEXTS)),
            type == SR_UINT8_T ? input.below(6) : input.number(2)};
}

std::vector<fake::Change> changes(Input &input, std::uint32_t handler)
{
    std::vector<fake::Change> list(input.below(6));
    for (fake::Change &change : list) {
        const std::uint32_t paths = input.below(16) == 0 ? input.below(4) : handler;
        const std::string path = mutated(input, path_of(input, paths));
        change.operation = input.pick(OPERATIONS);
        if (change.operation != SR_OP_CREATED)
            change.old_value = {value_at(input, path)};
        if (change.operation != SR_OP_DELETED)
            change.new_value = {value_at(input, path)};
    }
    return list;
}

// Reads see what a list leaves behind when it was taken.
void commit(const std::vector<fake::Change> &list)
{
    for (const fake::Change &change : list) {
        const bool gone = change.new_value.empty();
        const fake::Value &value = gone ? change.old_value.front() : change.new_value.front();
        std::uint32_t number = 0;
        char leaf[32] = {};
        if (sscanf(value.path.c_str(), "/olt-lacp:channel-group/group[id='%u']/%31s", &number, leaf) >= 1) {
            if (gone && leaf[0] == '\0')
                fake::datastore().lacp_type.erase(static_cast<int>(number));
            else if (!gone && std::string_view(leaf) == "lacp-type")
                fake::datastore().lacp_type[static_cast<int>(number)] = value.text;
        } else if (sscanf(value.path.c_str(), "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/%u']/%31s",
                          &number, leaf) == 2 &&
                   std::string_view(leaf) == "olt-lacp:trunk/channel-group") {
            fake::datastore().channel_group[number] = gone ? 0 : static_cast<std::uint8_t>(value.number);
        }
    }
}

// ---- what always holds ----------------------------------------------------------------------------------------

void check_groups()
{
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
        std::uint32_t type = 0, list = 0, count = 0, uplinks = 0, uplink_count = 0, code = 0;
        get_channel_group_type(group, &type);
        get_channel_group_port_list(group, &list);
        get_channel_group_port_count(group, &count);
        get_channel_group_uplink_port_list(group, &uplinks);
        get_channel_group_uplink_port_count(group, &uplink_count);
        get_channel_group_load_balance(group, &code);
        char name[LOAD_BALANCE_NAME_SIZE];
        require(type == CHANNEL_GROUP_UNSET || type == CHANNEL_GROUP_MANUAL || type == CHANNEL_GROUP_DYNAMIC,
                "a group's type is one of three");
        require(count == static_cast<std::uint32_t>(std::popcount(list)) && count <= CHANNEL_GROUP_MAX_PORTS,
                "members are counted, four at most");
        require(uplink_count == static_cast<std::uint32_t>(std::popcount(uplinks)), "uplink members are counted");
        require((uplinks & ~list) == 0, "uplink members are members");
        require(get_channel_group_load_balance_str(group, name, sizeof(name)) == LAC_OK, "a criterion has a name");
    }
}

void check_ports()
{
    std::uint32_t count = 0;
    for (const LacPort *port : lac_ports()) {
        ++count;
        require(port->channel_group_id <= static_cast<std::uint32_t>(CHANNEL_GROUP_MAX_NUM), "a port's group exists");
        require(port->aggregator.get() != nullptr, "a port has an aggregator");
        require(port->selected <= LAC_STANDBY && port->rxm <= LAC_RX_PORT_DISABLED, "a port's states exist");
    }
    require(count == LAST_PORT, "the ports stay");
}

void check()
{
    require(fake::open_iterators() == 0, "every iterator is released");
    require(Lac_Queue.count() >= 0 && Lac_Queue.count() <= static_cast<int>(LAC_QUEUE_LIMIT), "the queue is bounded");
    check_groups();
    check_ports();
    for (const fake::Message &message : fake::take_messages())
        require(message.size() >= SCLIENT_HEADER_SIZE && message.size() == std::size_t{message[0]} * 256 + message[1],
                "a request says its length");
}

void step(Input &input)
{
    const std::uint32_t port_no = 1 + input.below(LAST_PORT);
    switch (input.below(12)) {
    case 0:
        fake::datastore().link_status[port_no] = input.below(4) == 0 ? "down" : "up";
        break;
    case 1:
        fake::driver().unreachable = input.below(4) == 0;
        break;
    case 2:
        Engine::tick(1 + input.below(8));
        break;
    case 3:
        Engine::dispatch();
        break;
    case 4:
        Engine::hear(port_no, input.byte());
        break;
    case 5:
        fake::datastore().failures = {{"db_olt_lacp_get_trunk_channel_group", input.below(4) == 0 ? -1 : 0}};
        break;
    default: {
        const std::uint32_t handler = input.below(4);
        const sr_event_t event = input.pick(EVENTS);
        const auto list = changes(input, handler);
        if (fake::deliver(HANDLERS[handler], event, list).result == 0)
            commit(list);
        if (input.below(4) != 0)
            Engine::dispatch();
    }
    }
    check();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const fuzz::Quiet quiet;
    Input input(data, size);
    const Engine engine;
    while (!input.empty())
        step(input);
    return 0;
}
