// The provider of operational state behind a real datastore: a client asks for leaves.
#include "private_repository.h"

#include "lac_port.h"
#include "lacp_database.h"

#include <sysrepo/values.h>

#include <atomic>
#include <malloc.h>
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

void set_records(LacPort &port, int state)
{
    const LacInfo actors[] = {{32768, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 100, 32768, 1, 63, {}},
                              {9, {0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA}, 54321, 1, 65535, 128, {}}};
    const LacInfo partners[] = {{4096, {0x02, 0x33, 0x44, 0x55, 0x66, 0x77}, 7, 128, 21, 61, {}},
                                {0, {0xFD, 0xCC, 0xBB, 0xAA, 0x99, 0x88}, 65535, 65535, 4321, 2, {}}};
    const LacInfo &actor = actors[state];
    port.actor_system_priority = actor.system_priority;
    port.actor_system = actor.system;
    port.actor_oper_key = actor.key;
    port.actor_port_priority = actor.port_priority;
    port.actor_port = actor.port;
    port.actor_oper_state = actor.state;
    port.coll_dist = state;
    lac_set_partner_info(&port, partners[state]);
}

class Provider : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        lacp_database_init(&g_lacpd_db);
        for (const std::uint32_t port : {1, 2})
            ASSERT_EQ(db_olt_ifm_add_interface(0, port, &g_lacpd_db, true), 0);
        lacpCtrl.port_count = 1; // the second has an interface entry and no record
        lac_LacInit();
        ASSERT_EQ(lacp_database_subs(&g_lacpd_db), 0);
    }
    static void TearDownTestSuite() { database_close(&g_lacpd_db); }

    Provider()
    {
        set_records(*lacNoToPort(1), 0);
        EXPECT_EQ(sr_connect(SR_CONN_DEFAULT, &connection_), 0);
        EXPECT_EQ(sr_session_start(connection_, SR_DS_OPERATIONAL, &session_), 0);
    }
    ~Provider() override { sr_disconnect(connection_); }

    // The values of the leaves behind "PORT ROLE/REST".
    std::string ask(const std::string &port, const std::string &role, const std::string &rest)
    {
        const std::string path = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + port +
                                 "']/olt-lacp:trunk-info/port[role='" + role + "']" + rest;
        sr_val_t *values = nullptr;
        std::size_t count = 0;
        std::string all;
        EXPECT_EQ(sr_get_items(session_, path.c_str(), 0, 0, &values, &count), 0) << path;
        for (std::size_t i = 0; i < count; ++i) {
            char *text = sr_val_to_str(&values[i]);
            all += text == nullptr ? "" : text;
            free(text);
        }
        sr_free_values(values, count);
        return all;
    }
    std::string heard(const std::string &port, const std::string &role, const std::string &rest)
    {
        testing::internal::CaptureStdout();
        const std::string values = ask(port, role, rest);
        return values + "|" + testing::internal::GetCapturedStdout();
    }

  private:
    sr_conn_ctx_t *connection_ = nullptr;
    sr_session_ctx_t *session_ = nullptr;
};

TEST_F(Provider, EveryLeafOfBothSidesAndNothingElse)
{
    for (const int state : {0, 1}) {
        set_records(*lacNoToPort(1), state);
        for (const Value &value : VALUES) {
            EXPECT_EQ(ask("1", "actor", "/" + value.leaf), value.actor[state]) << value.leaf;
            EXPECT_EQ(ask("1", "partner", "/" + value.leaf), value.partner[state]) << value.leaf;
        }
    }
    EXPECT_EQ(heard("2", "actor", "/id") + heard("3", "partner", "/mode"), "||") << "no record";
    EXPECT_EQ(heard("1", "actor", "/role"), "|LACP Msg: leaf \"role\" doesn't exist!\n");
    EXPECT_EQ(heard("1", "actor", ""), "|LACP Msg: leaf \"\" doesn't exist!\n") << "whole entries are not answered";
    EXPECT_EQ(ask("1", "actor", "/mode"), "passive") << "and it still answers";
    *db_debug_flag_return() |= KEL_DB_DEBUG_DAEMON;
    EXPECT_NE(heard("2", "partner", "/id").find("slot id=> 0, port id=> 2, role=> partner, leaf=> id\n"),
              std::string::npos);
    *db_debug_flag_return() = 0;
}

// Another thread writes the records; nothing is kept of a request.
TEST_F(Provider, ValuesAreWholeAndCostNoMemory)
{
    std::atomic<bool> stop = false;
    std::thread writer([&stop] {
        for (int state = 0; !stop; state = 1 - state)
            set_records(*lacNoToPort(1), state);
    });
    std::size_t before = 0;
    for (int round = 0; round < 110; ++round) {
        for (const Value &value : VALUES) {
            const std::string seen = ask("1", "partner", "/" + value.leaf);
            EXPECT_TRUE(seen == value.partner[0] || seen == value.partner[1]) << value.leaf << ' ' << seen;
        }
        before = round == 9 ? mallinfo2().uordblks : before;
    }
    stop = true;
    writer.join();
    EXPECT_LE(mallinfo2().uordblks, before + 16'384) << "1000 requests";
}

} // namespace
