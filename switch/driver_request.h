// Requests to the driver service: decoding and checking.
#pragma once

#include "trunk_table.h"

#include "sclient/sclient.h"

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

using Request = std::variant<CreateTrunk, DestroyTrunk, SetCriterion, SclientError>;

// Decodes one message for a switch with these ports. Any bytes are safe; those that are no valid request give the
// code of the error reply.
Request parse_request(std::span<const std::uint8_t> message, Members existing_ports);

// Whether the message was none of the protocol's, rather than one that asks for what cannot be.
bool is_malformed(SclientError error);

// The id of a message that is long enough to have one, else 0.
std::uint16_t message_id(std::span<const std::uint8_t> message);

// An error reply to a client.
std::vector<std::uint8_t> error_reply(SclientError error, std::uint16_t refused_id);

} // namespace olt
