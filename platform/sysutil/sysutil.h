// Utility library: port inventory, interface addresses, named threads, configuration restore.
#pragma once

#include <chrono>
#include <cstdint>

struct frr_daemon_info;

// The device's port information as the datastore tells it; 16 bytes.
struct DevPortInfo {
    std::uint32_t slot;
    std::uint32_t first_port; // 1-based; 0 when there is none
    std::uint32_t last_port;
    std::uint32_t port_count;
};
static_assert(sizeof(DevPortInfo) == 16);

// Uplink port inventory. Ports are numbered from 1; the last number is also the number of ports managed.
// Both are 0 while no port is known.
struct PortInventory {
    std::uint32_t first_uplink_port;
    std::uint32_t last_uplink_port;
};

// Derives the uplink port range. 0, or -9 when the information holds no usable range (1 <= first <= last <= 8).
int port_init(const DevPortInfo *info, PortInventory *inventory);

// Reads the MAC address of an interface by name. 0 and the six bytes, or -1 when there is no such interface.
int system_get_eth_mac(const char *name, std::uint8_t mac[6]);

// A line that others can provoke without end: twenty are printed in ten seconds, the rest is counted and told. Lives
// as long as the process.
class RepeatedLine
{
  public:
    // `name` says in the sum what was repeated.
    explicit constexpr RepeatedLine(const char *name) : name_(name) {}
    // Whether the caller is to print its line now.
    bool due();
    // Prints the sums that are due, of all lines. To be called every second or so.
    static void tell();

  private:
    using Clock = std::chrono::steady_clock;
    void end_period(Clock::time_point now);

    const char *name_;
    Clock::time_point since_{};
    unsigned printed_ = 0;
    unsigned more_ = 0;
    bool listed_ = false;
    RepeatedLine *next_ = nullptr;
};

struct SystemThread;
using SystemThreadBody = void *(*)(SystemThread *thread);

// Describes a named thread without starting it. `label` is for messages, the first 15 characters of `name` are what
// ps shows, `flags` must be 0. Null for other flags and when memory is short. The record lives as long as the
// process.
SystemThread *system_pthread_create(const char *label, const char *name, SystemThreadBody body, int flags,
                                    void *argument);
// Starts the thread, detached, with all signals but faults blocked. `flags` must be 0; `argument` replaces the one
// given at creation unless null. 0, or the positive error number.
int system_pthread_run(SystemThread *thread, int flags, void *argument);
// The argument that the running body was started with.
void *system_pthread_argument(const SystemThread *thread);

// ---- process --------------------------------------------------------------------------------------------------

// Goes on in a child of its own session, before any thread exists. The parent stays until the child calls
// system_detach(), and ends with 0 then, or with the child's status when that ends before.
void system_go_into_background();
// Parts from the terminal and lets the parent end. Nothing in a process that has not gone into the background.
void system_detach();

// Makes sure that SIGTERM and SIGINT, which the framework takes in its event loop, end the process with status 0 also
// when the main thread cannot get there within 1.5 s. After the framework has set its handlers.
void system_end_in_time();

// Restore step of a restarted daemon. The framework reads the daemon's configuration file itself once the event
// loop runs, so nothing is left to restore here; the call makes sure that the file is readable by the daemon and
// says so on standard error, with -1, when it is not. A default file that is not there is no error.
int daemon_restart_restore_config(const frr_daemon_info *daemon);
