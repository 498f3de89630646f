#include "lacp_sclient.h"

#include "channel_group.h"

#include "frr/frr.hpp"
#include "sclient/sclient.h"

#include <initializer_list>
#include <memory>

sclient *lacp_sclient;

static void build(stream *out, SclientMessage id, std::initializer_list<std::uint32_t> body)
{
    stream_reset(out);
    sclient_create_header(out, id);
    for (const std::uint32_t field : body)
        stream_putl(out, field);
    stream_putw_at(out, 0, static_cast<std::uint16_t>(stream_get_endp(out)));
}

static int request(SclientMessage id, std::initializer_list<std::uint32_t> body)
{
    if (lacp_sclient == nullptr)
        return LAC_FAILED;
    build(lacp_sclient->obuf, id, body);
    return sclient_send_message(lacp_sclient);
}

int lacp_sclient_init(event_loop *master, std::uint16_t instance, zebra_privs_t *privileges)
{
    lacp_sclient = sclient_new(master, instance, privileges);
    if (lacp_sclient != nullptr)
        lacp_sclient->reconnected = lacp_trunk_resync;
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

namespace
{

struct Trunk {
    std::uint32_t load_balance = 0;
    std::uint32_t members = 0;

    bool operator==(const Trunk &) const = default;
};

Trunk trunk_of(int group)
{
    Trunk trunk;
    get_channel_group_load_balance(group, &trunk.load_balance);
    get_channel_group_uplink_port_list(group, &trunk.members);
    return trunk;
}

int send_trunk(sclient *client, stream *out, std::uint32_t group, const Trunk &trunk)
{
    if (trunk.members == 0)
        build(out, SCLIENT_MSG_TRUNK_DESTROY, {group});
    else
        build(out, SCLIENT_MSG_TRUNK_CREATE,
              {group, trunk.load_balance, trunk.members,
               static_cast<std::uint32_t>(__builtin_popcount(trunk.members))});
    return sclient_send_stream(client, out);
}

} // namespace

// The datastore's thread may change the table and send meanwhile. It changes before it sends, so looking again after
// each send until nothing has changed leaves the service with what the table holds.
void lacp_trunk_resync(sclient *client)
{
    const std::unique_ptr<stream, decltype(&stream_free)> out(stream_new(SCLIENT_MAX_MESSAGE), stream_free);
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
        Trunk sent;
        do {
            sent = trunk_of(group);
            if (send_trunk(client, out.get(), static_cast<std::uint32_t>(group), sent) != LAC_OK)
                return; // lost again: the next connection starts over
        } while (trunk_of(group) != sent);
    }
}
