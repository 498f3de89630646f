#include "fake_driver.h"

#include "frr/frr.hpp"

#include <memory>
#include <utility>

namespace fake
{

static std::uint8_t client_kind;
static std::uint16_t client_instance;

Driver &driver()
{
    static auto *const records = new Driver; // never destroyed
    return *records;
}

void reset_driver()
{
    Driver &records = driver();
    records.sent.clear();
    records.unreachable = false;
    records.after_send = nullptr;
}

std::vector<Message> take_messages()
{
    const std::lock_guard guard(driver().lock);
    return std::exchange(driver().sent, {});
}

static int send(stream *message)
{
    Driver &records = driver();
    if (records.unreachable)
        return -1;
    {
        const std::lock_guard guard(records.lock);
        records.sent.emplace_back(STREAM_DATA(message), STREAM_DATA(message) + stream_get_endp(message));
    }
    if (records.after_send)
        records.after_send();
    return 0;
}

} // namespace fake

sclient *sclient_new(event_loop *, std::uint16_t, zebra_privs_t *)
{
    auto client = std::make_unique<sclient>();
    client->obuf = stream_new(SCLIENT_MAX_MESSAGE);
    return client.release();
}

int sclient_init(sclient *client, int kind, std::uint16_t instance, zebra_privs_t *)
{
    fake::client_kind = static_cast<std::uint8_t>(kind);
    fake::client_instance = instance;
    return client == nullptr ? -1 : 0;
}

void sclient_create_header(stream *out, std::uint16_t message_id)
{
    stream_putw(out, 0);
    stream_putc(out, SCLIENT_VERSION);
    stream_putc(out, fake::client_kind);
    stream_putw(out, fake::client_instance);
    stream_putw(out, message_id);
}

int sclient_send_message(sclient *client)
{
    return fake::send(client->obuf);
}

int sclient_send_stream(sclient *, stream *message)
{
    return fake::send(message);
}

void sclient_free(sclient *client)
{
    const std::unique_ptr<sclient> owned(client);
    stream_free(client->obuf);
}
