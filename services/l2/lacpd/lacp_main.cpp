// Start-up and frame of the link-aggregation daemon.
#include "channel_group_member.h"
#include "lac_dispatch.h"
#include "lac_pdu.h"
#include "lac_resume.h"
#include "lacp.h"
#include "lacp_cli.h"
#include "lacp_cli_database.h"
#include "lacp_database.h"
#include "lacp_packet.h"
#include "lacp_privileges.h"
#include "lacp_sclient.h"

#include "frr/frr.hpp"
#include "keldatabase/keldatabase.h"
#include "shell/shell.h"
#include "sysutil/service_manager.h"
#include "sysutil/sysutil.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <getopt.h>
#include <string_view>
#include <unistd.h>

frr::EventLoop *master;
DevPortInfo lacp_dev_port_info;

// ---- daemon record --------------------------------------------------------------------------------------------

static const frr::LogMessage sighup_received(LOG_INFO, "SIGHUP received");
static const frr::LogMessage terminating(LOG_NOTICE, "Terminating on signal");

static void sighup()
{
    sighup_received.write();
}

static void sigusr1()
{
    zlog_rotate();
}

static void sigint()
{
    terminating.write();
    lacStop();
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

// A shell in the daemon's own terminal would end the daemon with its input.
static void refuse_terminal_mode()
{
    if (!lacpd_daemon_info.terminal)
        return;
    fprintf(stderr, "lacpd: option -t is not supported: the shell is reached over the network or its local socket\n");
    exit(1);
}

// The framework would fork when threads and subscriptions exist already. A datastore connection outlives no fork.
static void go_into_background()
{
    if (!lacpd_daemon_info.daemon_mode)
        return;
    lacpd_daemon_info.daemon_mode = false;
    const bool connected = g_lacpd_db.connection != nullptr;
    database_close(&g_lacpd_db);
    system_go_into_background();
    if (connected)
        database_init(&g_lacpd_db);
}

// ---- start-up -------------------------------------------------------------------------------------------------

// While start-up waits for the switch or for somebody's lock, before the event loop runs.
static bool heed_signals()
{
    constexpr useconds_t PAUSE_US = 20000;
    usleep(PAUSE_US);
    frr_sigevent_process();
    return true;
}

// Before the framework's parser runs. Spelt in another way it only means that the datastore is connected to for
// nothing.
static bool asks_for_check(int argc, char **argv)
{
    return std::any_of(argv, argv + argc, [](std::string_view word) { return word == "-C" || word == "--dryrun"; });
}

// Option -C. The datastore and the switch are left alone; status 1 when a line is bad or the file cannot be read.
static void check_configuration()
{
    shell_init(master);
    lacp_vty_init(lacp_vty_database_init);
    exit(shell_check_configuration(&lacpd_daemon_info) == 0 ? 0 : 1);
}

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

// Beside the file of the process number, which every instance has of its own.
static std::string resume_file()
{
    return std::filesystem::path(lacpd_daemon_info.pid_file).replace_extension("resume");
}

// ---- running --------------------------------------------------------------------------------------------------

constexpr std::chrono::milliseconds TELL_AGAIN_AFTER(500);

// Timer thread: the event loop spins for up to a millisecond before each of its own timers. The service manager hears
// of a dispatcher that goes on, while a command in the event loop may take its time.
static void tell_alive()
{
    if (lacStampAlive())
        service_manager_tell("WATCHDOG=1");
    RepeatedLine::tell();
}

static void tell_dispatcher(frr::Event *)
{
    if (!lacConfigurationRestored())
        frr::add_timer<tell_dispatcher>(master, nullptr, TELL_AGAIN_AFTER, nullptr);
}

// From here on it serves, for whoever has started it.
static void configuration_restored()
{
    tell_dispatcher(nullptr);
    service_manager_tell("READY=1");
    system_detach();
}

int main(int argc, char **argv)
{
    service_manager_init();
    setvbuf(stdout, nullptr, _IONBF, 0); // a log shows a message when it happens, also one without a line feed
    kel_db_cb_init_func(lacp_module_change_cb_init, &g_lacpd_db);
    kel_db_cb_free_func(lacp_module_change_cb_free, &g_lacpd_db);
    if (!asks_for_check(argc, argv))
        lacp_database_init(&g_lacpd_db);

    frr_preinit(&lacpd_daemon_info, argc, argv);
    parse_options(argc, argv);
    refuse_terminal_mode();
    go_into_background();
    frr::remove_left_log_buffers(lacpd_daemon_info.name);
    master = frr_init();
    if (lacpd_daemon_info.dryrun)
        check_configuration();
    system_end_in_time();
    kel_db_set_pause(heed_signals);

    // A second daemon asks the switch for nothing and writes nothing.
    const bool serves = db_module_claim(&g_lacpd_db, lacp_cbs.module);
    if (serves) {
        lacp_sclient_init(master, 0, &lacp_privs);
        lacp_sclient_on_reconnect(lacp_trunk_resync);
    }
    read_inventory();
    lac_set_dispatcher(lacDispatch);
    lac_set_watch(tell_alive);
    lacResumeFile(resume_file());
    channel_group_daemon_init();
    lacResumeBegin(no_resume == 0 && serves);
    shell_init(master);
    lacp_vty_init(lacp_vty_database_init);
    daemon_restart_restore_config(&lacpd_daemon_info);
    if (serves)
        lacp_database_clear(&g_lacpd_db);
    lacp_database_subs(&g_lacpd_db);
    frr_config_fork();
    shell_take_configuration(master, &lacpd_daemon_info, serves, configuration_restored);
    lacp_rx_tx_packet_init(lacp_bpdu_recv);
    frr_run(master);
    return 0;
}
