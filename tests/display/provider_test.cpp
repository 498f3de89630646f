// The provider of operational state behind a real datastore: a client asks for leaves.
#include "private_repository.h"

#include "lac_port.h"
#include "lacp_database.h"

#include <sysrepo/values.h>

#include <atomic>
#include <thread>

namespace
{

struct Value {
    std::string leaf;
    const char *actor[2], *partner[2]; // in either state of the records
};
const Value VALUES[] = {{"id", {"1", "65535"}, {"21", "4321"}},
                        {"oper-key", {"100", "54321"}, {"7", "65535"}},
                        {"port-state", {"63", "128"}, {"61", "2"}},
                        {"synchronization", {"true", "false"}, {"true", "false"}},
                        {"col-dis", {"false", "true"}, {"false", "true"}}, // of the port, whatever the states say
                        {"priority", {"32768", "1"}, {"128", "65535"}},
                        {"timeout", {"short", "long"}, {"long", "short"}},
                        {"mode", {"active", "passive"}, {"active", "passive"}},
                        {"system-id", {"0011.2233.4455", "ffee.ddcc.bbaa"}, {"0233.4455.6677", "fdcc.bbaa.9988"}},
                        {"system-priority", {"32768", "9"}, {"4096", "0"}}};

const LacInfo ACTORS[] = {{32768, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 100, 32768, 1, 63, {}},
                          {9, {0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA}, 54321, 1, 65535, 128, {}}};
const LacInfo PARTNERS[] = {{4096, {0x02, 0x33, 0x44, 0x55, 0x66, 0x77}, 7, 128, 21, 61, {}},
                            {0, {0xFD, 0xCC, 0xBB, 0xAA, 0x99, 0x88}, 65535, 65535, 4321, 2, {}}};

void set_records(int state)
{
    LacPort &port = *lacNoToPort(1);
    const LacInfo &actor = ACTORS[state];
    port.actor_system_priority = actor.system_priority;
    port.actor_system = actor.system;
    port.actor_oper_key = actor.key;
    port.actor_port_priority = actor.port_priority;
    port.actor_port = actor.port;
    port.actor_oper_state = actor.state;
    port.coll_dist = state;
    lac_set_partner_info(&port, PARTNERS[state]);
}

// The values of the leaves behind a port's "ROLE/REST", and what the daemon says.
std::string asked(int port, const std::string &role, const std::string &rest, std::string *says = nullptr)
{
    static sr_session_ctx_t *const session = [] {
        sr_conn_ctx_t *connection = nullptr;
        sr_session_ctx_t *made = nullptr;
        EXPECT_EQ(sr_connect(SR_CONN_DEFAULT, &connection), 0);
        EXPECT_EQ(sr_session_start(connection, SR_DS_OPERATIONAL, &made), 0);
        return made;
    }();
    const std::string path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + std::to_string(port) +
                             "']/olt-lacp:trunk-info/port[role='" + role + "']" + rest;
    sr_val_t *values = nullptr;
    std::size_t count = 0;
    std::string all;
    testing::internal::CaptureStdout();
    EXPECT_EQ(sr_get_items(session, path.c_str(), 0, 0, &values, &count), 0) << path;
    const std::string said = testing::internal::GetCapturedStdout();
    for (std::size_t i = 0; i < count; ++i) {
        char *text = sr_val_to_str(&values[i]);
        all += text == nullptr ? "" : text;
        free(text);
    }
    sr_free_values(values, count);
    return says == nullptr ? all : all + (*says = said);
}

TEST(Provider, EveryLeafOfBothSidesAndNothingElse)
{
    lacp_database_init(&g_lacpd_db);
    for (const std::uint32_t port : {1, 2})
        ASSERT_EQ(db_olt_ifm_add_interface(0, port, &g_lacpd_db, true), 0);
    lacpCtrl.port_count = 1; // the second has an interface entry and no record
    lac_LacInit();
    ASSERT_EQ(lacp_database_subs(&g_lacpd_db), 0);
    for (const int state : {0, 1}) {
        set_records(state);
        for (const Value &value : VALUES) {
            EXPECT_EQ(asked(1, "actor", "/" + value.leaf), value.actor[state]) << value.leaf;
            EXPECT_EQ(asked(1, "partner", "/" + value.leaf), value.partner[state]) << value.leaf;
        }
    }
    std::string says;
    EXPECT_EQ(asked(2, "actor", "/id", &says) + asked(3, "partner", "/mode", &says), "") << "no record";
    EXPECT_EQ(asked(1, "actor", "/role", &says), "LACP Msg: leaf \"role\" doesn't exist!\n");
    EXPECT_EQ(asked(1, "actor", "", &says), "LACP Msg: leaf \"\" doesn't exist!\n") << "nor whole entries";
    std::atomic<bool> stop = false; // a value is whole while another thread writes
    std::thread writer([&stop] {
        for (int state = 0; !stop; state = 1 - state)
            set_records(state);
    });
    for (int round = 0; round < 100; ++round) {
        const std::string seen = asked(1, "partner", "/system-id");
        EXPECT_TRUE(seen == VALUES[8].partner[0] || seen == VALUES[8].partner[1]) << seen;
    }
    stop = true;
    writer.join();
    database_close(&g_lacpd_db);
}

} // namespace
