#include "lacp_sclient.h"

#include "lacp.h"

#include "frr/frr.hpp"
#include "sclient/sclient.h"

#include <atomic>
#include <bit>
#include <initializer_list>

sclient *lacp_sclient;

static void build(stream *out, SclientMessage id, std::initializer_list<std::uint32_t> body)
{
    stream_reset(out);
    sclient_create_header(out, id);
    for (const std::uint32_t field : body)
        stream_putl(out, field);
    stream_putw_at(out, 0, static_cast<std::uint16_t>(stream_get_endp(out)));
}

// The table of groups is changed by whoever then asks here; who lets go looks at the table behind. Both sides write
// the word, so that one of them sees what the other has done.
static std::atomic<std::uint32_t> held;

bool lacp_trunk_is_held()
{
    return held.fetch_or(0, std::memory_order_acq_rel) != 0;
}

void lacp_trunk_hold()
{
    held = 1;
}

void lacp_trunk_release()
{
    held.exchange(0, std::memory_order_acq_rel);
}

static int request(SclientMessage id, std::initializer_list<std::uint32_t> body)
{
    if (lacp_trunk_is_held())
        return LAC_OK;
    if (lacp_sclient == nullptr)
        return LAC_FAILED;
    build(lacp_sclient->obuf, id, body);
    return sclient_send_message(lacp_sclient);
}

int lacp_sclient_init(frr::EventLoop *master, std::uint16_t instance, zebra_privs_t *privileges)
{
    lacp_sclient = sclient_new(master, instance, privileges);
    return sclient_init(lacp_sclient, SCLIENT_KIND_LACP, instance, privileges);
}

int lacp_trunk_create(std::uint32_t group, std::uint32_t load_balance, std::uint32_t members, std::uint32_t count)
{
    return request(SCLIENT_MSG_TRUNK_CREATE, {group, load_balance, members, count});
}

int lacp_trunk_destory(std::uint32_t group)
{
    return request(SCLIENT_MSG_TRUNK_DESTROY, {group});
}

int lacp_trunk_psc_set(std::uint32_t group, std::uint32_t load_balance)
{
    return request(SCLIENT_MSG_TRUNK_PSC_SET, {group, load_balance});
}

int lacp_trunk_send(sclient *client, stream *out, std::uint32_t group, std::uint32_t load_balance,
                    std::uint32_t members)
{
    const auto count = static_cast<std::uint32_t>(std::popcount(members));
    if (members == 0)
        build(out, SCLIENT_MSG_TRUNK_DESTROY, {group});
    else
        build(out, SCLIENT_MSG_TRUNK_CREATE, {group, load_balance, members, count});
    return sclient_send_stream(client, out);
}

void lacp_sclient_on_reconnect(void (*action)(sclient *client))
{
    if (lacp_sclient != nullptr)
        lacp_sclient->reconnected = action;
}
