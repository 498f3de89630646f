// Start-up and frame of the link-aggregation daemon.
#include "channel_group_member.h"
#include "lac_dispatch.h"
#include "lac_pdu.h"
#include "lac_resume.h"
#include "lacp.h"
#include "lacp_cli.h"
#include "lacp_database.h"
#include "lacp_packet.h"
#include "lacp_privileges.h"
#include "lacp_sclient.h"

#include "frr/frr.hpp"
#include "keldatabase/keldatabase.h"
#include "shell/shell.h"
#include "sysutil/service_manager.h"
#include "sysutil/sysutil.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <getopt.h>

frr::EventLoop *master;
DevPortInfo lacp_dev_port_info;

// ---- daemon record --------------------------------------------------------------------------------------------

static void sighup()
{
    frr::log(LOG_INFO, "SIGHUP received");
}

static void sigusr1()
{
    zlog_rotate();
}

static void sigint()
{
    frr::log(LOG_NOTICE, "Terminating on signal");
    exit(0);
}

static frr_signal_t lacp_signals[] = {
    {SIGHUP, sighup, 0},
    {SIGUSR1, sigusr1, 0},
    {SIGINT, sigint, 0},
    {SIGTERM, sigint, 0},
};

static const frr::ModuleInfo module_info = {"lacpd", "8.0.1", "lacpd daemon", nullptr};

frr::Module _frrmod_this_module = frr::module(&module_info);

constexpr int LACP_VTY_PORT = 2704;

static frr_daemon_info daemon_info()
{
    frr_daemon_info info{};
    info.name = "lacpd";
    info.logname = "LACP";
    info.module = &_frrmod_this_module.r;
    info.vty_port = LACP_VTY_PORT;
    info.proghelp = "Implementation of the device lacp configuration.";
    info.signals = lacp_signals;
    info.n_signals = std::size(lacp_signals);
    info.privs = &lacp_privs;
    return info;
}

static frr_daemon_info lacpd_daemon_info = daemon_info();

// ---- options --------------------------------------------------------------------------------------------------

static int no_resume;

static const option longopts[] = {
    {"no-resume", no_argument, &no_resume, 1},
    {"instance", required_argument, nullptr, 'n'},
    {"apiserver", no_argument, nullptr, 'a'},
    {},
};

// The framework acts on its own options inside its parser; none of the daemon's is acted on.
static void parse_options(int argc, char **argv)
{
    frr_opt_add("n:a", longopts,
                "  -n, --instance     Set the instance id\n  -a, --apiserver    Enable OSPF apiserver\n"
                "      --no-resume    Form every link anew, whatever was left by the daemon before\n");
    for (int option = frr_getopt(argc, argv, nullptr); option != EOF; option = frr_getopt(argc, argv, nullptr))
        if (option != 0)
            frr_help_exit(1);
}

// Neither the worker threads nor the datastore's connection outlive a fork.
static void refuse_daemon_mode()
{
    if (!lacpd_daemon_info.daemon_mode && !lacpd_daemon_info.terminal)
        return;
    fprintf(stderr, "lacpd: options -d and -t are not supported: start lacpd in the foreground and let a service "
                    "manager keep it running\n");
    exit(1);
}

// ---- start-up -------------------------------------------------------------------------------------------------

static void read_inventory()
{
    lacp_dev_port_info = {};
    int result = database_dev_get_port_info(&g_lacpd_db, &lacp_dev_port_info);
    if (result != 0) {
        printf("LACP Msg: get port information from database failed! ret %d\n", result);
        printf("LACP Msg: get base configuration from database failed! ret %d\n", result);
        return;
    }
    result = port_init(&lacp_dev_port_info, &intf);
    if (result != 0)
        printf("LACP Msg: get base configuration from database failed! ret %d\n", result);
}

// What another daemon serves is not stale; the subscription will say that there is one.
static void clear_stale_configuration()
{
    if (!db_module_is_served(lacp_cbs.module))
        lacp_database_clear(&g_lacpd_db);
}

// Beside the file of the process number, which every instance has of its own.
static std::string resume_file()
{
    return std::filesystem::path(lacpd_daemon_info.pid_file).replace_extension("resume");
}

// ---- running --------------------------------------------------------------------------------------------------

constexpr std::chrono::milliseconds ALIVE_PERIOD(500); // between looks at the dispatcher's ticks

static bool configuration_is_told;

// The service manager hears of a dispatcher that goes on, not of this loop.
static void tell_alive(frr::Event *)
{
    configuration_is_told = configuration_is_told || lacConfigurationRestored();
    if (lacStampAlive())
        service_manager_tell("WATCHDOG=1");
    frr::add_timer<tell_alive>(master, nullptr, ALIVE_PERIOD, nullptr);
}

static int configuration_restored(frr::EventLoop *)
{
    tell_alive(nullptr);
    service_manager_tell("READY=1");
    return 0;
}

int main(int argc, char **argv)
{
    service_manager_init();
    setvbuf(stdout, nullptr, _IOLBF, 0); // a log shows a message when it happens
    kel_db_cb_init_func(lacp_module_change_cb_init, &g_lacpd_db);
    kel_db_cb_free_func(lacp_module_change_cb_free, &g_lacpd_db);
    lacp_database_init(&g_lacpd_db);

    frr_preinit(&lacpd_daemon_info, argc, argv);
    parse_options(argc, argv);
    refuse_daemon_mode();
    master = frr_init();

    lacp_sclient_init(master, 0, &lacp_privs);
    lacp_sclient_on_reconnect(lacp_trunk_resync);
    read_inventory();
    lac_set_dispatcher(lacDispatch);
    channel_group_daemon_init();
    lacResumeBegin(resume_file(), no_resume == 0 && !db_module_is_served(lacp_cbs.module));
    shell_init(master);
    lacp_vty_init();
    daemon_restart_restore_config(&lacpd_daemon_info);
    clear_stale_configuration();
    lacp_database_subs(&g_lacpd_db);
    hook_register(frr_config_post, configuration_restored);
    frr_config_fork();
    lacp_rx_tx_packet_init(lacp_bpdu_recv);
    frr_run(master);
    return 0;
}
