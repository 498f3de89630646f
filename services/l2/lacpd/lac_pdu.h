// Slow Protocols PDUs: wire layout, reception and the marker responder.
#pragma once

#include "lacp.h"

#include <span>

// Writes destination, source and EtherType into the first 14 bytes of a frame.
void LacpMacHeaderSet(const LacPort *port, std::uint8_t *frame);

// Decodes the 110 bytes of a LACPDU; nothing is validated.
LacPdu lacDecodePdu(const std::uint8_t *bytes);
// Writes the 18 octets of one side's information, and reads them.
void lacEncodeInfo(const LacInfo &info, std::uint8_t *bytes);
LacInfo lacDecodeInfo(const std::uint8_t *bytes);

// A frame from the packet thread: copies its PDU and queues it. The second argument is ignored. 0 queued, -1 lost,
// or the global enable when LACP is off. A frame shorter than a PDU is filled up with zeros.
int lacp_bpdu_deal(std::uint32_t port_no, std::uint32_t, const std::uint8_t *frame, int length);

// Counts a PDU by its subtype and acts on it (dispatcher thread).
void lacClassifyPdu(LacPort *port, const std::uint8_t *bytes);
void lacRx(LacPort *port, const LacPdu &pdu);
