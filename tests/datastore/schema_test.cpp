#include "private_repository.h"

namespace
{

struct Write {
    const char *path;
    const char *value;
    bool accepted;
};

void PrintTo(const Write &write, std::ostream *out)
{
    *out << write.path << " = " << write.value;
}

class SchemaTest : public DatastoreTest, public testing::WithParamInterface<Write>
{
};

// Groups 1 (no type) and 2 (dynamic), ports 1 and 2.
TEST_P(SchemaTest, TakesWhatMakesSenseOnly)
{
    add_ports(2);
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='1']/load-balance", "src-mac"), SR_ERR_OK);
    ASSERT_EQ(foreign_write("/olt-lacp:channel-group/group[id='2']/lacp-type", "dynamic"), SR_ERR_OK);
    const std::string before = dump_datastore();
    const int code = foreign_write(GetParam().path, GetParam().value);
    if (GetParam().accepted) {
        EXPECT_EQ(code, SR_ERR_OK);
        EXPECT_NE(dump_datastore(), before);
    } else {
        EXPECT_NE(code, SR_ERR_OK);
        EXPECT_EQ(dump_datastore(), before);
    }
}

#define GROUP "/olt-lacp:channel-group/group"
#define GLOBAL "/olt-lacp:global-configuration"
#define PORTS "/olt-ifm:up-link-ports/interface"
#define PORT1 PORTS "[name='gigabitethernet 0/1']"
#define TRUNK1 PORT1 "/olt-lacp:trunk"

INSTANTIATE_TEST_SUITE_P(Groups, SchemaTest,
                         testing::Values(Write{GROUP "[id='4']/lacp-type", "manual", true},
                                         Write{GROUP "[id='0']/lacp-type", "manual", false},
                                         Write{GROUP "[id='5']/lacp-type", "manual", false},
                                         Write{GROUP "[id='1']/lacp-type", "static", false},
                                         Write{GROUP "[id='1']/lacp-type", "", false},
                                         Write{GROUP "[id='1']/load-balance", "dst-mac", true},
                                         Write{GROUP "[id='1']/load-balance", "src-dst-mac", true},
                                         Write{GROUP "[id='1']/load-balance", "src-ip", true},
                                         Write{GROUP "[id='1']/load-balance", "dst-ip", true},
                                         Write{GROUP "[id='1']/load-balance", "src-dst-ip", true},
                                         Write{GROUP "[id='1']/load-balance", "src-port", false},
                                         Write{GROUP "[id='2']/member-port", "gigabitethernet 0/1", true},
                                         Write{GROUP "[id='2']/member-port", "gigabitethernet 0/9", false},
                                         Write{GROUP "[id='2']/member-port", "eth0", false},
                                         Write{GROUP "[id='1']/member-port", "gigabitethernet 0/1", false},
                                         Write{GROUP "[id='3']/member-port", "gigabitethernet 0/1", false},
                                         Write{GROUP "[id='1']/join-port", "gigabitethernet 0/2", true},
                                         Write{GROUP "[id='1']/join-port", "gigabitethernet 0/9", false}));

INSTANTIATE_TEST_SUITE_P(Global, SchemaTest,
                         testing::Values(Write{GLOBAL "/system-priority", "0", true},
                                         Write{GLOBAL "/system-priority", "65535", true},
                                         Write{GLOBAL "/system-priority", "65536", false},
                                         Write{GLOBAL "/system-priority", "-1", false},
                                         Write{GLOBAL "/system-id", "0011.22aa.ff55", true},
                                         Write{GLOBAL "/system-id", "0011.22AA.ff55", false},
                                         Write{GLOBAL "/system-id", "00:11:22:33:44:55", false},
                                         Write{GLOBAL "/system-id", "0011.2233.445", false},
                                         Write{GLOBAL "/system-id", "0011.2233.44555", false}));

INSTANTIATE_TEST_SUITE_P(
    Ports, SchemaTest,
    testing::Values(Write{PORTS "[name='gigabitethernet 0/8']/interface-basic/link-status", "up", true},
                    Write{PORTS "[name='gigabitethernet 0/9']/interface-basic/link-status", "up", false},
                    Write{PORTS "[name='gigabitethernet 0/0']/interface-basic/link-status", "up", false},
                    Write{PORTS "[name='gigabitethernet 1/1']/interface-basic/link-status", "up", false},
                    Write{PORTS "[name='gigabitEthernet 0/1']/interface-basic/link-status", "up", false},
                    Write{PORTS "[name='gigabitethernet 0/10']/interface-basic/link-status", "up", false},
                    Write{PORT1 "/interface-basic/link-status", "up", true},
                    Write{PORT1 "/interface-basic/link-status", "unknown", false},
                    Write{TRUNK1 "/channel-group", "0", true}, Write{TRUNK1 "/channel-group", "4", true},
                    Write{TRUNK1 "/channel-group", "5", false}, Write{TRUNK1 "/mode", "on", true},
                    Write{TRUNK1 "/mode", "active", true}, Write{TRUNK1 "/mode", "passive", true},
                    Write{TRUNK1 "/mode", "off", false}, Write{TRUNK1 "/priority", "0", true},
                    Write{TRUNK1 "/priority", "65536", false}, Write{TRUNK1 "/timeout", "long", true},
                    Write{TRUNK1 "/timeout", "short", true}, Write{TRUNK1 "/timeout", "3", false},
                    Write{PORT1 "/olt-lacp:trunk-info/port[role='actor']/oper-key", "1", false}));

TEST_F(DatastoreTest, EntryBringsDefaultsOfPriorityAndGroup)
{
    subscribe();
    add_ports(1);
    EXPECT_TRUE(ChangeRecorder::instance().saw("created port 1/priority 32768"));
    EXPECT_EQ(group_of(1), 0);
    EXPECT_EQ(mode_of(1), "");
}

TEST_F(DatastoreTest, ChangesOfATrunkComeWithTheGroupLast)
{
    add_ports(1);
    subscribe();
    // One transaction of another client, leaves named in the opposite order.
    sr_conn_ctx_t *connection = nullptr;
    sr_session_ctx_t *session = nullptr;
    ASSERT_EQ(sr_connect(SR_CONN_DEFAULT, &connection), SR_ERR_OK);
    ASSERT_EQ(sr_session_start(connection, SR_DS_RUNNING, &session), SR_ERR_OK);
    sr_set_item_str(session, TRUNK1 "/channel-group", "1", nullptr, 0);
    sr_set_item_str(session, TRUNK1 "/timeout", "short", nullptr, 0);
    sr_set_item_str(session, TRUNK1 "/priority", "7", nullptr, 0);
    sr_set_item_str(session, TRUNK1 "/mode", "passive", nullptr, 0);
    EXPECT_EQ(sr_apply_changes(session, 0), SR_ERR_OK);
    sr_disconnect(connection);
    const std::vector<std::string> texts = ChangeRecorder::instance().texts();
    ASSERT_EQ(texts.size(), 4U);
    EXPECT_EQ(texts[0], "created port 1/mode passive");
    EXPECT_EQ(texts[1], "modified port 1/priority 32768 -> 7");
    EXPECT_EQ(texts[2], "created port 1/timeout short");
    EXPECT_EQ(texts[3], "modified port 1/channel-group 0 -> 1");
}

} // namespace
