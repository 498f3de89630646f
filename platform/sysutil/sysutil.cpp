#include "sysutil/sysutil.h"

#include "frr/frr.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <memory>
#include <net/if.h>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr std::uint32_t MAX_UPLINK_PORTS = 8;
constexpr int BAD_ARGUMENT = -9;
constexpr std::size_t THREAD_NAME_LENGTH = 15; // as many as the kernel keeps

using InterfaceList = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

InterfaceList interfaces()
{
    ifaddrs *list = nullptr;
    return {getifaddrs(&list) == 0 ? list : nullptr, freeifaddrs};
}

} // namespace

int port_init(const DevPortInfo *info, PortInventory *inventory)
{
    *inventory = {};
    if (info->first_port < 1 || info->last_port < info->first_port || info->last_port > MAX_UPLINK_PORTS)
        return BAD_ARGUMENT;
    *inventory = {info->first_port, info->last_port};
    return 0;
}

int system_get_eth_mac(const char *name, std::uint8_t mac[6])
{
    const InterfaceList list = interfaces();
    for (const ifaddrs *entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET ||
            std::strcmp(entry->ifa_name, name) != 0)
            continue;
        std::memcpy(mac, reinterpret_cast<const sockaddr_ll *>(entry->ifa_addr)->sll_addr, ETH_ALEN);
        return 0;
    }
    return -1;
}

// ---- threads --------------------------------------------------------------------------------------------------

struct SystemThread {
    std::string label;
    std::string name;
    SystemThreadBody body;
    void *argument;
};

namespace
{

void *run_body(void *record)
{
    auto *thread = static_cast<SystemThread *>(record);
    pthread_setname_np(pthread_self(), thread->name.c_str());
    return thread->body(thread);
}

// Blocks what the framework handles in its event loop's thread. Faults of a thread stay with that thread.
class BlockedSignals
{
  public:
    BlockedSignals()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals &) = delete;
    BlockedSignals &operator=(const BlockedSignals &) = delete;

  private:
    sigset_t before_;
};

int start_detached(SystemThread *thread)
{
    const BlockedSignals blocked; // the new thread inherits the mask
    pthread_t handle;
    const int result = pthread_create(&handle, nullptr, run_body, thread);
    if (result == 0)
        pthread_detach(handle);
    return result;
}

} // namespace

SystemThread *system_pthread_create(const char *label, const char *name, SystemThreadBody body, int flags,
                                    void *argument)
try {
    if (flags != 0 || body == nullptr)
        return nullptr;
    auto thread = std::make_unique<SystemThread>(SystemThread{label, name, body, argument});
    thread->name.resize(std::min(thread->name.size(), THREAD_NAME_LENGTH));
    return thread.release(); // the body uses it as long as it runs, which is as long as the process
} catch (const std::bad_alloc &) {
    return nullptr;
}

int system_pthread_run(SystemThread *thread, int flags, void *argument)
{
    if (thread == nullptr || flags != 0)
        return EINVAL;
    if (argument != nullptr)
        thread->argument = argument;
    const int result = start_detached(thread);
    if (result != 0)
        fprintf(stderr, "thread \"%s\" could not be started: %s\n", thread->label.c_str(), std::strerror(result));
    return result;
}

void *system_pthread_argument(const SystemThread *thread)
{
    return thread->argument;
}

// ---- process --------------------------------------------------------------------------------------------------

static int parent_waits = -1; // the end of a pipe whose other end the parent reads

[[noreturn]] static void wait_for_child(pid_t child, int ready)
{
    char byte = 0;
    if (TEMP_FAILURE_RETRY(read(ready, &byte, 1)) == 1)
        _exit(0);
    int status = 0;
    TEMP_FAILURE_RETRY(waitpid(child, &status, 0));
    _exit(WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1);
}

void system_go_into_background()
{
    std::array<int, 2> ready{};
    fflush(nullptr);
    const pid_t child = pipe2(ready.data(), O_CLOEXEC) == 0 ? fork() : -1;
    if (child < 0) {
        perror("the daemon cannot go into the background");
        exit(1);
    }
    if (child > 0) {
        close(ready[1]);
        wait_for_child(child, ready[0]);
    }
    close(ready[0]);
    setsid();
    parent_waits = ready[1];
}

void system_detach()
{
    if (parent_waits < 0)
        return;
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(nowhere, stream);
    close(nowhere);
    if (write(parent_waits, "", 1) == 1)
        close(parent_waits);
    parent_waits = -1;
}

static struct sigaction framework_terminate;
constexpr suseconds_t GRACE_US = 1500000;

static void terminate(int number, siginfo_t *info, void *context)
{
    constexpr itimerval GRACE{{}, {GRACE_US / 1000000, GRACE_US % 1000000}};
    setitimer(ITIMER_REAL, &GRACE, nullptr);
    if ((framework_terminate.sa_flags & SA_SIGINFO) != 0)
        framework_terminate.sa_sigaction(number, info, context);
    else
        framework_terminate.sa_handler(number);
}

void system_end_in_time()
{
    struct sigaction last_resort {
    };
    last_resort.sa_handler = [](int) { _exit(0); };
    sigaction(SIGALRM, &last_resort, nullptr);
    sigaction(SIGTERM, nullptr, &framework_terminate);
    struct sigaction action = framework_terminate;
    action.sa_flags |= SA_SIGINFO;
    action.sa_sigaction = terminate;
    for (const int number : {SIGTERM, SIGINT})
        sigaction(number, &action, nullptr);
}

// ---- configuration --------------------------------------------------------------------------------------------

int daemon_restart_restore_config(const frr_daemon_info *daemon)
{
    const bool named = daemon->config_file != nullptr;
    const char *file = named ? daemon->config_file : config_default;
    if (faccessat(AT_FDCWD, file, R_OK, AT_EACCESS) == 0)
        return 0;
    if (!named && errno == ENOENT)
        return 0; // a first start has no configuration yet
    fprintf(stderr,
            "%s: the configuration file %s cannot be read: %s; check that it is there and that user "
            "\"daemon\" may read it\n",
            daemon->name, file, std::strerror(errno));
    return -1;
}
