// Message client of the switch-driver service.
//
// Transport: a Unix sequenced-packet socket (SOCK_SEQPACKET), one message a packet. Its path is
// SCLIENT_DEFAULT_SOCKET, or what the environment variable SCLIENT_SOCKET names.
//
// Header, 8 bytes, big-endian: length of the whole message (u16), protocol version (u8, SCLIENT_VERSION),
// client kind (u8), client instance (u16), message id (u16). The body follows.
#pragma once

#include "frr/forward.hpp"

#include <cstdint>

constexpr char SCLIENT_DEFAULT_SOCKET[] = "/run/olt/switch-driver.sock";
constexpr char SCLIENT_SOCKET_ENV[] = "SCLIENT_SOCKET";
constexpr std::uint8_t SCLIENT_VERSION = 1;
constexpr std::uint32_t SCLIENT_HEADER_SIZE = 8;
constexpr std::uint32_t SCLIENT_MAX_MESSAGE = 4096;

// Requests of the link-aggregation daemon (client kind SCLIENT_KIND_LACP). Body fields are u32, big-endian.
constexpr int SCLIENT_KIND_LACP = 2;
enum SclientMessage : std::uint16_t {
    SCLIENT_MSG_TRUNK_CREATE = 10,  // group, load-balance code, member bitmap, member count
    SCLIENT_MSG_TRUNK_DESTROY = 11, // group
    SCLIENT_MSG_TRUNK_PSC_SET = 12, // group, load-balance code
    SCLIENT_MSG_ERROR = 255,        // service to client: error code (u32), id of the refused message (u32)
};

enum SclientError : std::uint32_t {
    SCLIENT_ERROR_LENGTH = 1,       // the header's length is not the packet's, or no whole header
    SCLIENT_ERROR_VERSION = 2,      // another protocol version
    SCLIENT_ERROR_KIND = 3,         // a client kind that may not ask for this
    SCLIENT_ERROR_MESSAGE = 4,      // an unknown message id
    SCLIENT_ERROR_BODY = 5,         // a body of another size than the message has
    SCLIENT_ERROR_GROUP = 6,        // not a group number
    SCLIENT_ERROR_LOAD_BALANCE = 7, // not a load-balance code
    SCLIENT_ERROR_MEMBERS = 8,      // no member, a port that is not there, or a count that does not fit
    SCLIENT_ERROR_NO_TRUNK = 9,     // the group has no trunk
};

struct sclient {
    stream *obuf; // the request being built; one thread builds and sends at a time
    // Called on the event loop's thread when requests may not have reached the service and the connection stands:
    // after a lost connection, and within a second or so after a request that was not sent (the service was away,
    // also before the very first connection, or its socket was full). Never for a first connection without such a
    // request. May be null. Requests sent from it must use a stream of their own: see sclient_send_stream.
    void (*reconnected)(sclient *client);
    struct Transport;
    Transport *transport;
};

// A client that is not connected yet. Null when memory is short.
sclient *sclient_new(frr::EventLoop *master, std::uint16_t instance, zebra_privs_t *privileges);

// Names the client and starts connecting; while the service is away the event loop tries again every second.
// 0, or -1 for a null client.
int sclient_init(sclient *client, int kind, std::uint16_t instance, zebra_privs_t *privileges);

// Writes the header for a message at the stream's end, with the kind and instance of the process's client; the
// caller puts the final length over its first two bytes.
void sclient_create_header(stream *out, std::uint16_t message_id);

// Sends what obuf holds. Never blocks. 0 when the service's socket took it, -1 when it was not sent.
int sclient_send_message(sclient *client);

// The same for a request in another stream, so that another thread than the one that owns obuf can send.
int sclient_send_stream(sclient *client, stream *message);

// Error replies that the service has sent so far.
std::uint32_t sclient_error_replies(const sclient *client);

// Closes the connection and frees everything, on the event loop's thread, when no other thread sends any more.
void sclient_free(sclient *client);
