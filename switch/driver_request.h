// Requests to the driver service: decoding and checking.
#pragma once

#include "trunk_table.h"

#include <span>
#include <variant>

namespace olt
{

struct CreateTrunk {
    std::uint32_t group;
    std::uint32_t criterion;
    Members members;
};
struct DestroyTrunk {
    std::uint32_t group;
};
struct SetCriterion {
    std::uint32_t group;
    std::uint32_t criterion;
};

// Why a message is refused; the code of the error reply.
enum class RequestError : std::uint32_t {
    BadLength = 1,
    BadVersion = 2,
    BadKind = 3,
    UnknownMessage = 4,
    BadGroup = 5,
    BadCriterion = 6,
    BadMembers = 7,
    NoTrunk = 8,
};

using Request = std::variant<CreateTrunk, DestroyTrunk, SetCriterion, RequestError>;

// Decodes one message for a switch with these ports. Any bytes are safe.
Request parse_request(std::span<const std::uint8_t> message, Members existing_ports);

// The id of a message that is long enough to have one, else 0.
std::uint16_t message_id(std::span<const std::uint8_t> message);

// An error reply to a client.
std::vector<std::uint8_t> error_reply(RequestError error, std::uint16_t refused_id);

} // namespace olt
