// The datastore library, and the daemon's own handlers behind it: what a write does to datastore, engine and driver.
#include "private_repository.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "fake_services.h"
#include "lac_dispatch.h"
#include "lac_port.h"
#include "lac_task.h"
#include "lacp_database.h"
#include "lacp_sclient.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <sysrepo/values.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

namespace
{

using namespace std::chrono_literals;
using testing::ExitedWithCode;
const std::string PORT = "gigabitethernet 0/";

// Another datastore client: a connection of its own, so that it shares no session with what is tested.
struct Client {
    Client()
    {
        EXPECT_EQ(sr_connect(SR_CONN_DEFAULT, &connection), 0);
        EXPECT_EQ(sr_session_start(connection, SR_DS_RUNNING, &session), 0);
    }
    ~Client() { sr_disconnect(connection); }
    Client(const Client &) = delete;

    sr_conn_ctx_t *connection = nullptr;
    sr_session_ctx_t *session = nullptr; // stopped with its connection
};

// Sets leaves or (without a value) deletes nodes in one transaction of another client:
// "G1/lacp-type=manual|P1/mode=on|G2|L1=up" for groups, trunks and links, M for member-port, or with whole paths. The
// result is sysrepo's.
int write(const std::string &edits)
{
    const Client client;
    int code = 0;
    std::istringstream stream(edits);
    for (std::string edit; std::getline(stream, edit, '|');) {
        const std::size_t end = edit.rfind('=');
        std::string path = edit.substr(0, end);
        if (edit[0] == 'G')
            path = "/olt-lacp:channel-group/group[id='" + path.insert(2, "']").substr(1);
        if (edit[0] == 'M')
            path = "/olt-lacp:channel-group/group[id='" + path.substr(1, 1) + "']/member-port";
        if (edit[0] == 'L')
            path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + path.substr(1) +
                   "']/interface-basic/link-status";
        if (edit[0] == 'P')
            path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" +
                   path.insert(2, "']/olt-lacp:trunk").substr(1);
        code += end == std::string::npos
                    ? sr_delete_item(client.session, path.c_str(), 0)
                    : sr_set_item_str(client.session, path.c_str(),
                                      ((edit[0] == 'M' ? PORT : "") + edit.substr(end + 1)).c_str(), nullptr, 0);
    }
    return code != 0 ? code : sr_apply_changes(client.session, 0);
}

// Leaves of ports and groups that differ from their defaults, as "P1/priority=7;". Mode, channel group, type, load
// balance and members have no names: "P1/on;P1/3;G3/manual;G3/src-ip;G3/1;".
std::string configured()
{
    const Client client;
    sr_val_t *values = nullptr;
    std::size_t count = 0;
    std::string all;
    EXPECT_EQ(sr_get_items(client.session, "/olt-ifm:*//. | /olt-lacp:*//.", 0, 0, &values, &count), 0);
    for (std::size_t at = 0; at < count; ++at) {
        const std::unique_ptr<char, decltype(&std::free)> value(sr_val_to_str(&values[at]), std::free);
        if (!values[at].dflt && values[at].type > SR_CONTAINER_T)
            all += std::string(values[at].xpath) + "=" + value.get() + ";";
    }
    sr_free_values(values, count);
    const auto replace = [&all](const char *pattern, const char *text) {
        all = std::regex_replace(all, std::regex(pattern), text);
    };
    replace("[^;]*/((name|id|system-id)=[^;]*|channel-group=0|link-status=down);", "");
    replace("/olt-ifm:up-link-ports/interface.name='gigabitethernet 0/", "P");
    replace("/olt-lacp:channel-group/group.id='", "G");
    replace("'\\]|/olt-lacp:[a-z-]*|/interface-basic|gigabitethernet 0/", "");
    replace("(mode|channel-group|lacp-type|load-balance|member-port[^=]*=[^=]*)=", "");
    return all;
}

// Calls accessors by lines like "add 1 2 active; link 1 up", or the above by "write ...", until one fails.
int command(const std::string &lines, KelDb *db = &g_lacpd_db)
{
    std::istringstream stream(lines);
    int code = 0;
    for (std::string line; code == 0 && std::getline(stream, line, ';');) {
        std::istringstream words(line);
        std::string name, text, mode;
        int one = 0;
        words >> name;
        if (name == "write") {
            code = write(line.substr(line.find("write") + name.size() + 1));
            continue;
        }
        words >> one >> text >> mode;
        const int two = std::atoi(text.c_str());
        const auto number = static_cast<std::uint16_t>(name == "system" ? one : two);
        const std::string port = "gigabitethernet 0/" + text;
        const std::map<std::string, std::function<int()>> commands = {
            {"add", [&] { return db_add_channel_group(db, 0, one, two, mode.empty() ? nullptr : mode.c_str()); }},
            {"del", [&] { return db_del_channel_group(db, 0, one, two); }},
            {"balance", [&] { return db_olt_lacp_set_group_load_balance(one, db, text.c_str(), 1, 1); }},
            {"member", [&] { return db_olt_lacp_set_group_member_port(one, db, port.c_str(), 1, 1); }},
            {"no-member", [&] { return db_olt_lacp_del_group_member_port(one, 0, two, db); }},
            {"system", [&] { return db_olt_lacp_set_global_configuration_system_priority(db, number, 1, 1); }},
            {"priority", [&] { return db_olt_lacp_set_trunk_priority(0, one, db, number, 1, 1); }},
            {"timeout", [&] { return db_olt_lacp_set_trunk_timeout(0, one, db, text.c_str(), 1, 1); }},
            {"interface", [&] { return db_olt_ifm_add_interface(0, one, db, text == "up"); }},
            {"link", [&] { return db_olt_ifm_set_interface_basic_link_status(0, one, db, text == "up"); }},
        };
        code = commands.at(name)();
    }
    return code;
}

// Another process's subscriber. It refuses a transaction, by number: before the daemon knows of it, or late, what
// goes to one module, when the daemon has acted on a part.
struct Subscriber : Client {
    Subscriber(std::size_t number, const char *late_module) : refused(number), late(late_module)
    {
        const auto told = [](sr_session_ctx_t *, std::uint32_t, const char *module, const char *, sr_event_t event,
                             std::uint32_t transaction, void *itself) -> int {
            auto &self = *static_cast<Subscriber *>(itself);
            if (event == SR_EV_CHANGE)
                self.seen.insert(transaction);
            if (event != SR_EV_CHANGE || self.seen.size() != self.refused ||
                (self.late != nullptr && strcmp(module, self.late) != 0))
                return 0;
            for (std::uint32_t members = 0; self.late != nullptr && members == 0 && Lac_Queue.count() == 0;)
                get_channel_group_port_list(1, &members);
            return SR_ERR_OPERATION_FAILED;
        };
        for (const char *module : {"olt-ifm", "olt-lacp"})
            EXPECT_EQ(sr_module_change_subscribe(session, module, nullptr, told, this, late != nullptr ? 0 : 1, 0,
                                                 &context),
                      0);
    }
    ~Subscriber() { sr_unsubscribe(context); }

    const std::size_t refused;
    const char *const late;
    std::set<std::uint32_t> seen; // transactions
    sr_subscription_ctx_t *context = nullptr;
};

std::string asked;

// Members (bits) of the groups in the engine's table; of each port with LACP "; PORT: SYSTEM-PRIORITY GROUP PRIORITY
// STATE", of the state activity (1) and timeout (2); the driver's requests since the last expectation "| ID FIELDS".
std::string engine()
{
    for (LacQueueMsg message; Lac_Queue.tryPop(message);)
        lacDispatch(message);
    std::string text;
    const auto add = [](std::string &to, std::uint32_t number) { to += " " + std::to_string(number); };
    std::uint32_t members = 0;
    for (int group = 1; get_channel_group_port_list(group, &members) == LAC_OK; ++group)
        add(text, members);
    for (const LacPort *port : lac_ports()) {
        const LacInfo info = lac_actor_info(port);
        if (port->lacp_enabled != 1)
            continue;
        text += "; " + std::to_string(port->port_no) + ":";
        for (const std::uint32_t value : {std::uint32_t{info.system_priority}, port->channel_group_id.get(),
                                          std::uint32_t{info.port_priority}, info.state & 3U})
            add(text, value);
    }
    for (const fake::Message &message : fake::take_messages()) {
        asked += " |";
        for (std::size_t at = 7; at < message.size(); at += 4)
            add(asked, message[at]);
    }
    return text + asked;
}

const auto state = +[] { return configured() + "#" + engine(); };
const auto but_for_requests = +[] { return state().substr(0, state().find(" |")); };

// The datastore's thread works on its own time.
void expect(const std::string &expected, std::string (*read)())
{
    const auto give_up = std::chrono::steady_clock::now() + 5s;
    std::string seen = read();
    for (; seen != expected && std::chrono::steady_clock::now() < give_up; seen = read())
        std::this_thread::sleep_for(2ms);
    EXPECT_EQ(seen, expected);
    asked.clear();
}

// To a datastore with nothing but five interface entries.
void connect()
{
    ASSERT_EQ(write("/olt-lacp:channel-group|/olt-lacp:global-configuration|/olt-ifm:up-link-ports"), 0);
    ASSERT_EQ(database_init(&g_lacpd_db), 0);
    ASSERT_EQ(command("interface 1; interface 2; interface 3; interface 4; interface 5"), 0);
}

TEST(Library, WaitsForTheInventory)
{
    connect();
    char text[5];
    std::uint32_t size = 4; // one less than needed
    EXPECT_NE(db_olt_ifm_get_interface_basic_link_status(0, 1, &g_lacpd_db, text, &size), 0);
    EXPECT_EQ(db_olt_ifm_get_interface_basic_link_status(0, 1, &g_lacpd_db, text, &++size), 0);
    ASSERT_EQ(write("/olt-ifm:up-link-ports"), 0);
    EXPECT_NE(command("priority 1 7"), 0) << "a setting brings no port into the inventory";
    setenv(KEL_DB_INVENTORY_WAIT_ENV, "1", 1);
    DevPortInfo info{};
    testing::internal::CaptureStderr();
    EXPECT_NE(database_dev_get_port_info(&g_lacpd_db, &info), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "keldatabase: the datastore has no uplink interfaces yet; waiting up to 1 seconds for the switch\n"
              "keldatabase: the datastore has no uplink interfaces: start the switch first, then this program\n");
    const std::jthread creator([] { // an inventory that grows is taken whole
        for (const char *line : {"interface 2", "interface 3", "interface 4"}) {
            std::this_thread::sleep_for(20ms);
            EXPECT_EQ(command(line), 0);
        }
    });
    ASSERT_EQ(database_dev_get_port_info(&g_lacpd_db, &info), 0);
    EXPECT_EQ(std::tuple(info.first_port, info.last_port, info.port_count), std::tuple(2U, 4U, 3U));
}

// What the daemon does with a datastore; ends the process, or stays.
void use(const char *user, bool stay = false)
{
    const passwd *entry = getpwnam(user);
    if (setgroups(0, nullptr) != 0 || setgid(entry->pw_gid) != 0 || setuid(entry->pw_uid) != 0)
        _exit(9);
    intf = {1, 5};
    channel_group_daemon_init();
    if (database_init(&g_lacpd_db) != 0)
        _exit(1);
    if (lacp_database_subs(&g_lacpd_db) != 0)
        _exit(2);
    if (stay)
        raise(SIGSTOP);
    _exit(command("balance 1 src-mac; balance 1 dst-mac"));
}

TEST(Processes, RootAndDaemonUseTheDatastoreOneServesIt)
{
    for (const char *user : {"daemon", "root", "daemon"}) // each leaves files that the next one has to replace
        EXPECT_EXIT(use(user), ExitedWithCode(0), "");
    EXPECT_EXIT(use("nobody"), ExitedWithCode(1), "cannot be opened \\(Permission denied\\)");
    const pid_t first = fork();
    if (first == 0)
        use("daemon", true);
    waitpid(first, nullptr, WUNTRACED);
    EXPECT_EXIT(use("root"), ExitedWithCode(2),
                std::to_string(first) + " already serves the configuration of olt-lacp");
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);
    EXPECT_EXIT(use("root"), ExitedWithCode(0), "") << "its lock and its subscription went with the process";
}

// The engine behind the datastore. Its messages are dispatched when it is looked at.
struct HandlersTest : testing::Test {
    HandlersTest()
    {
        connect();
        intf = {1, 5};
        lacp_sclient_init(nullptr, 0, nullptr);
        lac_set_dispatcher(lacDispatch);
        channel_group_daemon_init();
        sem_post(&lac_task_sem); // as the dispatcher does when it runs
        EXPECT_EQ(lacp_database_subs(&g_lacpd_db), 0);
    }
};

constexpr struct {
    const char *before; // or nothing: the line goes on from the one above
    const char *lines;
    // A refusal of one of these transactions leaves everything as it was; letters: a late one, of what goes to module
    // olt-lacp or (capital) olt-ifm; "?": the daemon refuses.
    const char *undone;
    std::size_t transactions = 0;
    const char *after = ""; // all of it, or of the engine only
} ROWS[] = {
    {"", "link 1 up; add 1 1 on; add 3 1 on", "1", 6, " 5 0 0 0 | 10 1 9 1 1"},
    {nullptr, "link 3 up", "", 1, " 5 0 0 0 | 10 1 9 5 2"},
    {nullptr, "balance 1 src-dst-ip; del 1 1", "", 3, " 4 0 0 0 | 12 1 18 | 10 1 18 4 1"},
    {nullptr, "del 3 1; add 3 1 on", "", 7, " 4 0 0 0 | 11 1 | 10 1 18 4 1"}, // the criterion has stayed
    {nullptr, "write G1", "", 1, " 0 0 0 0 | 11 1"},
    {"", "write P4/channel-group=3|P4/priority=7|P4/mode=passive|G3/lacp-type=dynamic", "1", 1,
     " 0 0 0 0; 4: 32768 3 7 0"},
    {nullptr, "write G2/lacp-type=dynamic|P4/channel-group=2", "", 1, " 0 0 0 0; 4: 32768 2 7 0"},
    {nullptr, "write G2", "", 1, " 0 0 0 0"},
    {nullptr, "write G2/lacp-type=dynamic", "", 1, " 0 0 0 0; 4: 32768 2 7 0"}, // still configured for it
    {nullptr, "write P4/channel-group=0", "", 1, " 0 0 0 0"},
    {"", "add 2 3 passive", "123", 3, "P2/passive;P2/3;G3/dynamic;# 0 0 0 0; 2: 32768 3 32768 0"},
    {"", "add 1 1 on", "123c", 3, "P1/on;P1/1;G1/manual;G1/1;# 1 0 0 0"},
    {"balance 1 dst-ip; add 2 1 on", "add 1 1 on", "12", 2,
     "P1/on;P1/1;P2/on;P2/1;G1/manual;G1/dst-ip;G1/1;G1/2;# 3 0 0 0"},
    {"balance 1 src-mac", "add 1 1 active", "123", 3,
     "P1/active;P1/1;G1/dynamic;G1/src-mac;# 0 0 0 0; 1: 32768 1 32768 1"},
    {"add 1 2 active", "add 1 2 passive", "1", 1, "P1/passive;P1/2;G2/dynamic;# 0 0 0 0; 1: 32768 2 32768 0"},
    {"add 1 2 on", "add 1 2 on", "", 0, "P1/on;P1/2;G2/manual;G2/1;# 0 1 0 0"},
    {"add 1 1 on; add 2 1 on", "del 1 1", "1", 2, "P2/on;P2/1;G1/manual;G1/2;# 2 0 0 0"},
    {"add 1 1 on", "del 1 1; add 1 1 active", "1", 6, "P1/active;P1/1;G1/dynamic;# 0 0 0 0; 1: 32768 1 32768 1"},
    {"balance 4 src-ip; add 1 4 active", "del 1 4", "1", 4, "G4/src-ip;# 0 0 0 0"},
    {"add 1 2 active", "member 2 1; del 1 2", "1", 5, "# 0 0 0 0"}, // nobody detaches it
    {"balance 1 src-dst-ip; add 1 1 passive", "add 1 2 active", "123567", 7,
     "P1/active;P1/2;G1/src-dst-ip;G2/dynamic;# 0 0 0 0; 1: 32768 2 32768 1"},
    {"add 1 1 on; add 2 1 on", "add 1 2 on", "12345", 5,
     "P1/on;P1/2;P2/on;P2/1;G1/manual;G1/2;G2/manual;G2/1;# 2 1 0 0"},
    // A member that the engine has not put there goes again.
    {"add 1 2 active", "member 2 2; member 2 2; member 2 1; no-member 2 2", "1", 4,
     "P1/active;P1/2;G2/dynamic;# 0 0 0 0; 1: 32768 2 32768 1"},
    {"", "priority 1 100; timeout 2 short; balance 3 dst-mac; link 3 up; interface 3", "1", 5,
     "P1/priority=100;P2/timeout=short;G3/dst-mac;# 0 0 0 0"},
    {"", "priority 2 100; system 77; add 2 2 passive; timeout 2 short", "1", 6, " 0 0 0 0; 2: 77 2 100 2"},
    {nullptr, "link 2 up; member 2 2; no-member 2 2", "", 3, " 0 0 0 0; 2: 77 2 100 2 | 10 2 9 2 1 | 11 2"},
    {nullptr, "del 2 2; add 2 2 passive", "", 6, " 0 0 0 0; 2: 77 2 100 2"},
    {nullptr, "add 2 2 active", "", 1, " 0 0 0 0; 2: 77 2 100 3"},
    // Whole edits of another client.
    {"", "write G1/lacp-type=manual|M1=1|M1=2", "1a", 1, " 3 0 0 0"},
    {nullptr, "link 1 up; link 2 up", "", 2, " 3 0 0 0 | 10 1 9 1 1 | 10 1 9 3 2"},
    {nullptr, "write M1", "1", 1, " 0 0 0 0 | 10 1 9 2 1 | 11 1"},
    {nullptr, "write M1=1|M1=2|M1=3|M1=4|M1=5", "?"},
    {nullptr, "write M1=1", "", 1, " 1 0 0 0 | 10 1 9 1 1"},
    {nullptr, "write G1/load-balance=src-ip|P5/timeout=short", "1", 1, " 1 0 0 0 | 12 1 0"},
    {nullptr, "write M1|G3/lacp-type=manual|M3=1|P1/channel-group=3", "1", 1, " 0 0 1 0 | 11 1 | 10 3 9 1 1"},
    {nullptr, "write M1=1", "?"},
    {nullptr, "write M1=7", "?"}, // there is no such interface
    {nullptr, "write G1/load-balance|M1=2|M1=3|M1=4|M1=5", "", 1, " 30 0 1 0 | 10 1 9 2 1"},
    {nullptr, "write G1/load-balance=dst-ip", "", 1, " 30 0 1 0 | 12 1 1"},
    {nullptr, "write M3|G1/load-balance|M1=1", "?"}, // five behind a deletion
    {nullptr, "write M1; write M1=2; write G3/lacp-type|M3|M1=1", "", 3,
     " 3 0 0 0 | 11 1 | 10 1 1 2 1 | 10 1 1 3 2 | 11 3 | 10 1 1 3 2"}, // in two trunks for a moment
    {nullptr, "write M1|G3/lacp-type=manual|M3=1", "", 1, " 0 0 1 0 | 10 1 1 2 1 | 11 1 | 10 3 9 1 1"},
    {nullptr, "write G3/lacp-type|M3; write G3/lacp-type=dynamic|P1/mode=passive", "", 2,
     " 0 0 0 0; 1: 32768 3 32768 0 | 11 3"},
    {"", "write L1=up|L2=up|G1/lacp-type=manual|M1=1|M1=2; write L1=down|L2=down", "", 2,
     " 3 0 0 0 | 10 1 9 1 1 | 10 1 9 3 2 | 10 1 9 2 1 | 11 1"},
    {"add 2 2 active; system 7",
     "write /olt-lacp:global-configuration/system-priority=77|P2/timeout=short|P2/priority=9|P2/mode=passive|"
     "G2/load-balance=dst-ip|P3/channel-group=2|G1/lacp-type=manual|M1=1",
     "1aA", 1, " 1 0 0 0; 2: 77 2 9 2; 3: 77 2 32768 1"},
    {nullptr,
     "write /olt-lacp:global-configuration/system-priority|P2/timeout|P2/priority|P2/mode|G2/load-balance|"
     "P3/channel-group",
     "1", 1, " 1 0 0 0; 2: 32768 2 32768 1"},
    {nullptr, "write G2/join-port=gigabitethernet 0/2", "", 1, " 1 0 0 0; 2: 32768 2 32768 1"},
    {nullptr, "write G2/join-port", "1a", 1, " 1 0 0 0; 2: 32768 0 32768 1"}, // it has taken the number along
};

TEST_F(HandlersTest, LinesDoWhatTheySayOrNothing)
{
    for (const auto &row : ROWS) {
        for (const char refused : row.undone == std::string("?") ? "?" : std::string(row.undone) + "-") {
            SCOPED_TRACE(std::string(row.lines) + ", transaction refused: " + refused);
            if (row.before != nullptr) {
                lacp_database_clear(&g_lacpd_db);
                ASSERT_EQ(command("link 1; link 2; link 3"), 0);
                engine();
                asked.clear();
                ASSERT_EQ(command(row.before), 0);
            }
            const std::string before = state();
            const char *const late = refused >= 'a' ? "olt-lacp" : refused >= 'A' ? "olt-ifm" : nullptr;
            const Subscriber subscriber(refused & 15, late); // numbers 13 and 15 are not met
            EXPECT_EQ(command(row.lines) == 0, refused == '-');
            const auto undone = refused <= '9' ? state : but_for_requests; // the trunk may have come and gone
            if (refused == '-')
                expect(row.after, row.after[0] == ' ' ? engine : state);
            else
                expect(before, undone);
            ASSERT_TRUE(refused != '-' || subscriber.seen.size() == row.transactions) << subscriber.seen.size();
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_F(HandlersTest, NonsenseChangesNothing)
{
    ASSERT_EQ(command("add 1 1 on; add 2 1 on; add 3 1 on; add 4 1 on; add 5 2 active"), 0);
    expect(" 15 0 0 0; 5: 32768 2 32768 1", engine);
    char **texts = nullptr;
    std::uint32_t count = 0;
    ASSERT_EQ(db_olt_lacp_get_group_member_port(1, &g_lacpd_db, &texts, &count), 0);
    ASSERT_EQ(count, 4U);
    EXPECT_STREQ(texts[3], "gigabitethernet 0/4");
    db_free_string_array_val(texts, count);
    const std::string before = state();
    for (const char *line : {"add 5 1 on", "add 5 1 active", "add 1 1 active", "add 1 2 on",    "add 1 0 on",
                             "add 1 5 on", "add 5 2 auto",   "add 5 2",        "add 6 3 on",    "del 1 2",
                             "del 1 0",    "del 6 1",        "del 6 0",        "priority 6 1",  "timeout 6 short",
                             "link 6 up",  "interface 6 up", "no-member 2 5",  "no-member 3 5", "timeout 1 never"})
        EXPECT_NE(command(line), 0) << line;
    EXPECT_NE(db_add_channel_group(&g_lacpd_db, 1, 1, 1, "on"), 0) << "no such slot";
    EXPECT_NE(command("write G1/lacp-type=dynamic"), 0);
    expect(before, state);
    EXPECT_EQ(db_olt_lacp_set_global_configuration_system_id(&g_lacpd_db, "0011.22aa.bbcc", 1, 1), 0);
    engine();
    EXPECT_EQ(lacSystem->system_mac.get(), (Mac{0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC}));
}

// The command waits for the daemon to take the port out of the list, and does not do so itself.
TEST_F(HandlersTest, LeavingWaitsForTheDaemon)
{
    ASSERT_EQ(command("add 1 2 active; member 2 1"), 0);
    const std::jthread dispatcher([] {
        while (configured().find("P1/2;") != std::string::npos)
            std::this_thread::yield();
        EXPECT_EQ(command("no-member 2 1"), 0);
    });
    KelDbSession shell{};
    ASSERT_EQ(db_connect_init_with_vty(&shell, &g_lacpd_db), 0);
    EXPECT_EQ(command("del 1 2", shell.db), 0);
    EXPECT_EQ(db_disconnect_free_with_vty(&shell, nullptr), 0);
    EXPECT_NE(lacp_database_subs(&g_lacpd_db), 0) << "it is there already";
    EXPECT_TRUE(db_module_claim(&g_lacpd_db, "olt-lacp"));
}

// The link handler reads a port's group while its members change and a shell reads; first there is a foreign lock.
TEST_F(HandlersTest, NobodyWaitsInVain)
{
    ASSERT_EQ(command("add 1 1 on; link 1 up; add 2 2 active"), 0);
    Client holder;
    ASSERT_EQ(sr_lock(holder.session, "olt-lacp", 0), 0);
    std::atomic<int> running = 2;
    std::vector<std::jthread> threads;
    for (const char *lines : {"no-member 1 1; member 1 1; balance 3 src-ip; balance 3 dst-ip", "link 1; link 1 up"})
        threads.emplace_back([&, lines] {
            for (int round = 0; round < 200; ++round) {
                const auto started = std::chrono::steady_clock::now();
                EXPECT_EQ(command(lines), 0) << lines;
                EXPECT_TRUE(std::chrono::steady_clock::now() < started + 7s); // a read gives up after eight
            }
            --running;
        });
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(sr_unlock(holder.session, "olt-lacp"), 0);
    for (; running > 0; engine())
        EXPECT_EQ(command("add 2 2 active"), 0);
}

// What the datastore took has found no room in the queue; it is sent when there is some.
TEST_F(HandlersTest, WhatFindsNoRoomIsSentLater)
{
    ASSERT_EQ(command("add 2 2 passive; write M2=3"), 0);
    expect(" 0 0 0 0; 2: 32768 2 32768 0", engine);
    while (Lac_Queue.push({1, LAC_Q_LACP_ON, 0, 0}))
        ;
    ASSERT_EQ(command("write P2/mode|M2=3"), 0);
    expect(" 0 0 0 0; 2: 32768 2 32768 1", engine);
}

} // namespace
