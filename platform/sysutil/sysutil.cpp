#include "sysutil/sysutil.h"

#include "frr/frr.hpp"

#include <csignal>
#include <cstdio>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <memory>
#include <net/if.h>
#include <new>
#include <pthread.h>
#include <string>

namespace
{

constexpr std::uint32_t MAX_UPLINK_PORTS = 8;
constexpr int BAD_ARGUMENT = -9;
constexpr std::size_t THREAD_NAME_SIZE = 16; // with the terminator, as the kernel keeps it

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
        std::memcpy(mac, reinterpret_cast<const sockaddr_ll *>(entry->ifa_addr)->sll_addr, 6);
        return 0;
    }
    return -1;
}

// ---- threads --------------------------------------------------------------------------------------------------

struct SystemThread {
    std::string label;
    char name[THREAD_NAME_SIZE];
    SystemThreadBody body;
    void *argument;
};

SystemThread *system_pthread_create(const char *label, const char *name, SystemThreadBody body, int, void *argument)
{
    auto thread = std::unique_ptr<SystemThread>(new (std::nothrow) SystemThread{label, {}, body, argument});
    if (thread != nullptr)
        std::snprintf(thread->name, sizeof(thread->name), "%s", name);
    return thread.release(); // a thread of this process never ends, nor does its record
}

static void *run_body(void *record)
{
    auto *thread = static_cast<SystemThread *>(record);
    pthread_setname_np(pthread_self(), thread->name);
    return thread->body(thread);
}

// Signals stay with the thread that started this one: the framework handles them in its event loop.
int system_pthread_run(SystemThread *thread, int, void *argument)
{
    if (argument != nullptr)
        thread->argument = argument;
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pthread_t handle;
    const int result = pthread_create(&handle, nullptr, run_body, thread);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (result == 0)
        pthread_detach(handle);
    else
        std::fprintf(stderr, "thread \"%s\" could not be started: %s\n", thread->label.c_str(), std::strerror(result));
    return result;
}

void *system_pthread_argument(const SystemThread *thread)
{
    return thread->argument;
}

// ---- configuration --------------------------------------------------------------------------------------------

int daemon_restart_restore_config(const frr_daemon_info *daemon)
{
    if (daemon->config_file == nullptr || access(daemon->config_file, R_OK) == 0)
        return 0;
    std::fprintf(stderr, "%s: configuration file %s cannot be read: %s\n", daemon->name, daemon->config_file,
                 std::strerror(errno));
    return -1;
}
