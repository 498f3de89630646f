#include "lac_wire.h"

#include <algorithm>

namespace
{

std::uint16_t get16(const std::uint8_t *bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void put16(std::uint8_t *bytes, std::uint16_t value)
{
    bytes[0] = static_cast<std::uint8_t>(value >> 8);
    bytes[1] = static_cast<std::uint8_t>(value);
}

} // namespace

void LacpMacHeaderSet(const LacPort *port, std::uint8_t *frame)
{
    std::copy(LAC_SLOW_PROTOCOLS_ADDRESS.begin(), LAC_SLOW_PROTOCOLS_ADDRESS.end(), frame);
    std::copy(port->port_mac.begin(), port->port_mac.end(), frame + 6);
    put16(frame + 12, LAC_SLOW_PROTOCOLS_ETHERTYPE);
}

void lacEncodeInfo(const LacInfo &info, std::uint8_t *bytes)
{
    put16(bytes, info.system_priority);
    std::copy(info.system.begin(), info.system.end(), bytes + 2);
    put16(bytes + 8, info.key);
    put16(bytes + 10, info.port_priority);
    put16(bytes + 12, info.port);
    bytes[14] = info.state;
    std::copy(info.reserved.begin(), info.reserved.end(), bytes + 15);
}

LacInfo lacDecodeInfo(const std::uint8_t *bytes)
{
    LacInfo info;
    info.system_priority = get16(bytes);
    std::copy_n(bytes + 2, info.system.size(), info.system.begin());
    info.key = get16(bytes + 8);
    info.port_priority = get16(bytes + 10);
    info.port = get16(bytes + 12);
    info.state = bytes[14];
    std::copy_n(bytes + 15, info.reserved.size(), info.reserved.begin());
    return info;
}

LacPdu lacDecodePdu(const std::uint8_t *bytes)
{
    LacPdu pdu{};
    pdu.subtype = bytes[0];
    pdu.version = bytes[1];
    pdu.actor_tlv_type = bytes[2];
    pdu.actor_tlv_length = bytes[3];
    pdu.actor = lacDecodeInfo(bytes + offsetof(LacPdu, actor));
    pdu.partner_tlv_type = bytes[22];
    pdu.partner_tlv_length = bytes[23];
    pdu.partner = lacDecodeInfo(bytes + offsetof(LacPdu, partner));
    pdu.collector_tlv_type = bytes[42];
    pdu.collector_tlv_length = bytes[43];
    pdu.collector_max_delay = get16(bytes + offsetof(LacPdu, collector_max_delay));
    pdu.terminator_tlv_type = bytes[58];
    pdu.terminator_tlv_length = bytes[59];
    return pdu;
}
