#include "private_repository.h"

#include <libyang/libyang.h>
#include <sysrepo/values.h>

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

namespace
{

namespace fs = std::filesystem;

constexpr char IFM[] = "/olt-ifm:up-link-ports";
constexpr char GROUPS[] = "/olt-lacp:channel-group";
constexpr char GLOBAL[] = "/olt-lacp:global-configuration";
constexpr std::uint32_t TIMEOUT_MS = 10000;

[[maybe_unused]] testing::Environment *const environment =
    testing::AddGlobalTestEnvironment(std::make_unique<PrivateRepository>().release()); // owned by the framework

void check(int code, const char *what)
{
    if (code != SR_ERR_OK) {
        throw std::runtime_error(std::string(what) + ": " + sr_strerror(code));
    }
}

// Another datastore client: a connection of its own, so that it shares no session with what is tested.
class Client
{
  public:
    Client()
    {
        sr_conn_ctx_t *connection = nullptr;
        check(sr_connect(SR_CONN_DEFAULT, &connection), "connect");
        connection_.reset(connection);
        check(sr_session_start(connection, SR_DS_RUNNING, &session_), "session");
    }

    sr_conn_ctx_t *connection() const { return connection_.get(); }
    sr_session_ctx_t *session() const { return session_; }

  private:
    std::unique_ptr<sr_conn_ctx_t, decltype([](sr_conn_ctx_t *connection) { sr_disconnect(connection); })>
        connection_;
    sr_session_ctx_t *session_ = nullptr; // stopped with its connection
};

void install_modules()
{
    std::array<sr_install_mod_t, 2> modules{};
    const std::string ifm = std::string(LACPD_YANG_DIR) + "/olt-ifm.yang";
    const std::string lacp = std::string(LACPD_YANG_DIR) + "/olt-lacp.yang";
    modules[0].schema_path = ifm.c_str();
    modules[1].schema_path = lacp.c_str();
    for (sr_install_mod_t &module : modules) {
        module.perm = 0660;
    }
    const Client client;
    check(sr_install_modules2(client.connection(), modules.data(), modules.size(), LACPD_YANG_DIR, nullptr, nullptr,
                              LYD_UNKNOWN),
          "install");
}

fs::path directory;

std::string print(const Client &client, const char *path)
{
    sr_data_t *data = nullptr;
    check(sr_get_data(client.session(), path, 0, 0, 0, &data), "read");
    if (data == nullptr) {
        return {};
    }
    char *text = nullptr;
    lyd_print_mem(&text, data->tree, LYD_JSON, LYD_PRINT_WITHSIBLINGS);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    sr_release_data(data);
    return text != nullptr ? text : "";
}

void clear_datastore()
{
    const Client client;
    for (const char *path : {GROUPS, GLOBAL, IFM}) {
        check(sr_delete_item(client.session(), path, SR_EDIT_DEFAULT), "delete");
    }
    check(sr_apply_changes(client.session(), TIMEOUT_MS), "clear");
}

std::string replaced(std::string text, std::string_view from, std::string_view to)
{
    const std::size_t at = text.find(from);
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// "/olt-lacp:channel-group/group[id='1']/lacp-type" as "group 1/lacp-type"
std::string short_path(const char *path)
{
    std::string text = replaced(path, "/olt-lacp:channel-group/group[id='", "group ");
    text = replaced(text, "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/", "port ");
    text = replaced(text, "']", "");
    return replaced(replaced(text, "/olt-lacp:trunk", ""), "/interface-basic", "");
}

std::string value_text(const sr_val_t *value)
{
    const std::unique_ptr<char, decltype(&std::free)> text(sr_val_to_str(value), std::free);
    return text && *text ? std::string(" ") + text.get() : "";
}

std::string describe(sr_change_oper_t operation, const sr_val_t *old_value, const sr_val_t *new_value)
{
    const sr_val_t *value = new_value != nullptr ? new_value : old_value;
    const std::string path = short_path(value->xpath);
    switch (operation) {
    case SR_OP_CREATED:
        return "created " + path + value_text(new_value);
    case SR_OP_MODIFIED:
        return "modified " + path + value_text(old_value) + " ->" + value_text(new_value);
    case SR_OP_DELETED:
        return "deleted " + path + value_text(old_value);
    default:
        return "moved " + path;
    }
}

int record_changes(sr_session_ctx_t *session, const char *xpath, std::uint32_t transaction)
{
    sr_change_iter_t *iterator = nullptr;
    sr_change_oper_t operation = SR_OP_CREATED;
    sr_val_t *old_value = nullptr;
    sr_val_t *new_value = nullptr;
    int result = 0;
    while (result == 0 &&
           kel_db_get_change_next(session, xpath, &iterator, &operation, &old_value, &new_value) == 0) {
        result = ChangeRecorder::instance().take(transaction, describe(operation, old_value, new_value));
    }
    sr_free_change_iter(iterator);
    sr_free_val(new_value);
    sr_free_val(old_value);
    return result;
}

int on_change(sr_session_ctx_t *session, std::uint32_t, const char *, const char *xpath, sr_event_t event,
              std::uint32_t transaction, void *)
{
    return event == SR_EV_CHANGE ? record_changes(session, xpath, transaction) : 0;
}

int on_done(sr_session_ctx_t *session, std::uint32_t, const char *, const char *xpath, sr_event_t event,
            std::uint32_t transaction, void *)
{
    return event == SR_EV_DONE ? record_changes(session, xpath, transaction) : 0;
}

constexpr DbXpathCb LACP_ENTRIES[] = {
    {"/olt-lacp:channel-group/group//.", on_change, {}, nullptr, nullptr},
    {"/olt-lacp:global-configuration//.", on_change, {}, nullptr, nullptr},
    {},
};
constexpr DbXpathCb IFM_ENTRIES[] = {
    {"/olt-ifm:up-link-ports/interface/olt-lacp:trunk//.", on_change, {}, nullptr, nullptr},
    {"/olt-ifm:up-link-ports/interface/interface-basic/link-status", on_done, {}, nullptr, nullptr},
    {},
};
constexpr DbModuleCbs LACP_TABLE{"olt-lacp", LACP_ENTRIES};
constexpr DbModuleCbs IFM_TABLE{"olt-ifm", IFM_ENTRIES};
constexpr const DbModuleCbs *TABLES[] = {&LACP_TABLE, &IFM_TABLE, nullptr};

} // namespace

void PrivateRepository::SetUp()
{
    std::string name = "/dev/shm/lacpd-datastore-test.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no directory for the repository in /dev/shm");
    }
    directory = name;
    fs::permissions(directory, fs::perms::owner_all | fs::perms::others_exec); // tests become other users
    setenv("SYSREPO_REPOSITORY_PATH", (directory / "repository").c_str(), 1);
    setenv("SYSREPO_SHM_DIR", (directory / "shm").c_str(), 1);
    setenv("SYSREPO_SHM_PREFIX", "test", 1);
    // No plugins: those of the libraries may be in a directory that only the builder can read.
    fs::create_directory(directory / "plugins");
    setenv("SYSREPO_PLUGINS_DIR", (directory / "plugins").c_str(), 1);
    if (geteuid() != 0) {
        setenv("SR_ENV_RUN_TESTS", "1", 1); // the files keep the group of whoever runs the tests
    }
    install_modules();
}

void PrivateRepository::TearDown()
{
    std::error_code ignored;
    fs::remove_all(directory, ignored);
}

std::string dump_datastore()
{
    const Client client;
    return print(client, "/olt-lacp:*") + print(client, "/olt-ifm:*");
}

int foreign_write(const std::string &path, const char *value)
{
    return foreign_writes({{path, value}});
}

int foreign_writes(const std::vector<ForeignWrite> &writes)
{
    const Client client;
    int code = SR_ERR_OK;
    for (const ForeignWrite &write : writes) {
        code = write.value != nullptr ? sr_set_item_str(client.session(), write.path.c_str(), write.value, nullptr, 0)
                                      : sr_delete_item(client.session(), write.path.c_str(), 0);
        if (code != SR_ERR_OK)
            return code;
    }
    return sr_apply_changes(client.session(), TIMEOUT_MS);
}

ChangeRecorder &ChangeRecorder::instance()
{
    static ChangeRecorder recorder;
    return recorder;
}

const DbModuleCbs *const *ChangeRecorder::tables()
{
    return TABLES;
}

void ChangeRecorder::reset(Reaction reaction)
{
    const std::lock_guard guard(lock_);
    changes_.clear();
    reaction_ = std::move(reaction);
}

int ChangeRecorder::take(std::uint32_t transaction, std::string text)
{
    Reaction reaction;
    {
        const std::lock_guard guard(lock_);
        changes_.push_back({transaction, text});
        reaction = reaction_;
    }
    return reaction ? reaction(text) : 0;
}

std::vector<ChangeRecorder::Change> ChangeRecorder::changes()
{
    const std::lock_guard guard(lock_);
    return changes_;
}

std::vector<std::string> ChangeRecorder::texts()
{
    std::vector<std::string> texts;
    for (const Change &change : changes()) {
        texts.push_back(change.text);
    }
    return texts;
}

bool ChangeRecorder::saw(std::string_view text)
{
    for (int attempt = 0; attempt < 500; ++attempt) {
        for (const Change &change : changes()) {
            if (change.text == text) {
                return true;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void DatastoreTest::SetUp()
{
    clear_datastore();
    ChangeRecorder::instance().reset();
    ASSERT_EQ(database_init(&db), 0);
}

void DatastoreTest::TearDown()
{
    database_close(&db);
}

void DatastoreTest::add_ports(std::uint32_t count, bool link_up)
{
    for (std::uint32_t port = 1; port <= count; ++port) {
        ASSERT_EQ(db_olt_ifm_add_interface(0, port, &db, link_up), 0);
    }
}

void DatastoreTest::subscribe(ChangeRecorder::Reaction reaction)
{
    ASSERT_EQ(db_module_subscription_init(&db, ChangeRecorder::tables()), 0);
    ChangeRecorder::instance().reset(std::move(reaction));
}

std::string DatastoreTest::mode_of(std::uint32_t port)
{
    std::array<char, 16> text{};
    std::uint32_t size = text.size();
    return db_olt_lacp_get_trunk_mode(0, port, &db, text.data(), &size) == 0 ? text.data() : "";
}

int DatastoreTest::group_of(std::uint32_t port)
{
    std::uint8_t group = 0;
    std::uint32_t size = sizeof group;
    return db_olt_lacp_get_trunk_channel_group(0, port, &db, &group, &size) == 0 ? group : -1;
}

std::string DatastoreTest::type_of(int group)
{
    std::array<char, 16> text{};
    std::uint32_t size = text.size();
    return db_olt_lacp_get_group_lacp_type(group, &db, text.data(), &size) == 0 ? text.data() : "";
}

std::string DatastoreTest::load_balance_of(int group)
{
    std::array<char, 30> text{};
    std::uint32_t size = text.size();
    return db_olt_lacp_get_group_load_balance(group, &db, text.data(), &size) == 0 ? text.data() : "";
}

std::vector<std::string> DatastoreTest::members_of(int group)
{
    char **texts = nullptr;
    std::uint32_t count = 0;
    EXPECT_EQ(db_olt_lacp_get_group_member_port(group, &db, &texts, &count), 0);
    std::vector<std::string> members(texts, texts + count);
    db_free_string_array_val(texts, count);
    return members;
}
