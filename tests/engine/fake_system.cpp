#include "fake_system.h"

#include <cstring>
#include <deque>
#include <stdexcept>
#include <thread>

struct SystemThread {
    std::string name;
    SystemThreadBody body;
    void *argument;
};

namespace fake
{

System &system()
{
    static auto *const records = new System; // never destroyed
    return *records;
}

// A described thread stays where it is as long as the process lives, one of each name.
static std::deque<SystemThread> &threads()
{
    static auto *const records = new std::deque<SystemThread>;
    return *records;
}

static SystemThread &thread_called(const std::string &name)
{
    for (SystemThread &thread : threads())
        if (thread.name == name)
            return thread;
    return threads().emplace_back(SystemThread{name, nullptr, nullptr});
}

void reset_system()
{
    system() = System{};
}

void start_thread(const std::string &name)
{
    for (SystemThread &thread : threads()) {
        if (thread.name != name)
            continue;
        std::thread(thread.body, &thread).detach();
        return;
    }
    throw std::runtime_error("no thread is called " + name);
}

} // namespace fake

int system_get_eth_mac(const char *name, std::uint8_t mac[6])
{
    const fake::System &system = fake::system();
    if (!system.has_mac || strcmp(name, "ethv0") != 0)
        return -1;
    memcpy(mac, system.mac.data(), system.mac.size());
    return 0;
}

SystemThread *system_pthread_create(const char *, const char *name, SystemThreadBody body, int, void *argument)
{
    fake::System &system = fake::system();
    system.described.emplace_back(name);
    if (!system.can_describe_threads)
        return nullptr;
    SystemThread &thread = fake::thread_called(name);
    thread.body = body;
    thread.argument = argument;
    return &thread;
}

int system_pthread_run(SystemThread *thread, int, void *argument)
{
    fake::System &system = fake::system();
    if (system.run_result != 0)
        return system.run_result;
    if (argument != nullptr)
        thread->argument = argument;
    system.started.push_back(thread->name);
    if (system.on_run)
        system.on_run(thread->name);
    return 0;
}

void *system_pthread_argument(const SystemThread *thread)
{
    return thread->argument;
}
