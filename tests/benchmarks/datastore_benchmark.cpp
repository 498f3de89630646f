// What the datastore costs the daemon: sysrepo in a private repository, the daemon's handlers behind it. The switch
// driver and the threads are fakes.
#include "private_repository.h"
#include "run_benchmarks.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "fake_services.h"
#include "lac_dispatch.h"
#include "lac_port.h"
#include "lacp_database.h"
#include "lacp_sclient.h"

#include <cstdlib>

namespace
{

constexpr std::uint32_t PORTS = 8;
constexpr int MANUAL_GROUP = 1;
constexpr int DYNAMIC_GROUP = 2;
constexpr char MEMBER[] = "gigabitethernet 0/1";

void must(int result)
{
    if (result != 0)
        abort();
}

void start_daemon()
{
    must(database_init(&g_lacpd_db));
    for (std::uint32_t port = 1; port <= PORTS; ++port)
        must(db_olt_ifm_add_interface(0, port, &g_lacpd_db, true));
    intf = {1, PORTS};
    lacp_sclient_init(nullptr, 0, nullptr);
    lac_set_dispatcher(lacDispatch);
    channel_group_daemon_init();
    fake::start_thread("lacpRecv"); // no ticks
    must(lacp_database_subs(&g_lacpd_db));
    must(db_add_channel_group(&g_lacpd_db, 0, PORTS, DYNAMIC_GROUP, "active"));
}

} // namespace

int main(int argc, char **argv)
{
    PrivateRepository repository;
    repository.SetUp();
    start_daemon();
    add_benchmark("link_reads_of_a_tick", [](auto) {
        for (std::uint32_t port = 1; port <= PORTS; ++port)
            benchmark::DoNotOptimize(lacIsLinkUp(lacNoToPort(port)));
    });
    // Attachment and detachment: the list entry, its handler, the trunk request.
    add_benchmark("member_port_written_and_deleted", [](auto) {
        must(db_olt_lacp_set_group_member_port(DYNAMIC_GROUP, &g_lacpd_db, MEMBER, sizeof(MEMBER), 1));
        db_olt_lacp_del_group_member_port(DYNAMIC_GROUP, 0, 1, &g_lacpd_db); // unless the daemon was quicker
    });
    // The shell's commands, seven transactions.
    add_benchmark("port_joins_a_manual_group_and_leaves_it", [](auto) {
        must(db_add_channel_group(&g_lacpd_db, 0, 2, MANUAL_GROUP, "on"));
        must(db_del_channel_group(&g_lacpd_db, 0, 2, MANUAL_GROUP));
    });
    add_benchmark("link_status_down_and_up", [](auto) {
        must(db_olt_ifm_set_interface_basic_link_status(0, 3, &g_lacpd_db, false));
        must(db_olt_ifm_set_interface_basic_link_status(0, 3, &g_lacpd_db, true));
    });
    const int status = run_benchmarks(argc, argv);
    repository.TearDown();
    quick_exit(status); // the dispatcher never ends
}
