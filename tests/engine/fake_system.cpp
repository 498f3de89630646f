#include "fake_system.h"

#include <cstring>
#include <map>
#include <thread>

struct SystemThread {
    std::string name;
    SystemThreadBody body;
    void *argument;
};

// Neither is ever destroyed.
static std::map<std::string, SystemThread> &threads = *new std::map<std::string, SystemThread>;
fake::System &fake::system()
{
    static auto *const records = new System;
    return *records;
}

void fake::start_thread(const std::string &name)
{
    std::thread(threads.at(name).body, &threads.at(name)).detach();
}

int system_get_eth_mac(const char *name, std::uint8_t mac[6])
{
    memcpy(mac, fake::system().mac.data(), 6);
    return strcmp(name, "ethv0") == 0 ? 0 : -1;
}

SystemThread *system_pthread_create(const char *, const char *name, SystemThreadBody body, int, void *argument)
{
    fake::system().described.emplace_back(name);
    threads[name] = {name, body, argument};
    return &threads[name];
}

int system_pthread_run(SystemThread *thread, int, void *argument)
{
    fake::System &system = fake::system();
    if (system.run_result != 0)
        return system.run_result;
    thread->argument = argument != nullptr ? argument : thread->argument;
    system.started.push_back(thread->name);
    if (system.on_run)
        system.on_run(thread->name);
    return 0;
}

void *system_pthread_argument(const SystemThread *thread)
{
    return thread->argument;
}
