#include "fake_services.h"

#include "frr/frr.hpp"

#include <algorithm>
#include <cstring>
#include <map>
#include <thread>
#include <utility>

// ---- message client -------------------------------------------------------------------------------------------

static std::uint8_t client_kind;

fake::Driver &fake::driver()
{
    static auto *const records = new Driver; // never destroyed
    return *records;
}

std::vector<fake::Message> fake::take_messages()
{
    const std::lock_guard guard(driver().lock);
    return std::exchange(driver().sent, {});
}

sclient *sclient_new(event_loop *, std::uint16_t, zebra_privs_t *)
{
    return new sclient{stream_new(SCLIENT_MAX_MESSAGE), nullptr, nullptr};
}

int sclient_init(sclient *client, int kind, std::uint16_t, zebra_privs_t *)
{
    client_kind = static_cast<std::uint8_t>(kind);
    return client == nullptr ? -1 : 0;
}

void sclient_create_header(stream *out, std::uint16_t message_id)
{
    for (const int octet : {0, 0, int{SCLIENT_VERSION}, int{client_kind}, 0, 0, message_id >> 8, message_id & 0xFF})
        stream_putc(out, static_cast<u_char>(octet));
}

int sclient_send_message(sclient *client)
{
    return sclient_send_stream(client, client->obuf);
}

int sclient_send_stream(sclient *, stream *message)
{
    fake::Driver &records = fake::driver();
    if (records.unreachable)
        return -1;
    const std::lock_guard guard(records.lock);
    records.sent.emplace_back(STREAM_DATA(message), STREAM_DATA(message) + stream_get_endp(message));
    return 0;
}

void sclient_free(sclient *client)
{
    stream_free(client->obuf);
    delete client;
}

// ---- utility library ------------------------------------------------------------------------------------------

struct SystemThread {
    std::string name;
    SystemThreadBody body;
    void *argument;
};

static std::map<std::string, SystemThread> &threads = *new std::map<std::string, SystemThread>; // never destroyed

void fake::start_thread(const std::string &name)
{
    std::thread(threads.at(name).body, &threads.at(name)).detach();
}

int system_get_eth_mac(const char *name, std::uint8_t mac[6])
{
    std::copy_n("\x02\x11\x22\xAA\xBB\xCC", 6, mac);
    return strcmp(name, "ethv0") == 0 ? 0 : -1;
}

SystemThread *system_pthread_create(const char *, const char *name, SystemThreadBody body, int, void *argument)
{
    threads[name] = {name, body, argument};
    return &threads[name];
}

int system_pthread_run(SystemThread *thread, int, void *argument)
{
    thread->argument = argument != nullptr ? argument : thread->argument;
    return 0;
}

void *system_pthread_argument(const SystemThread *thread)
{
    return thread->argument;
}
