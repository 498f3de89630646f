// Reception of Slow Protocols PDUs and the marker responder.
#pragma once

#include "lacp.h"

// Hands a frame for the Slow Protocols address to the protocol; always 0. Packet thread.
int lacp_bpdu_recv(std::uint32_t port_no, std::uint32_t, std::uint32_t, const std::uint8_t *frame, int length);
// A frame from the packet thread: copies its PDU and queues it. The second argument is ignored. 0 queued, -1 lost,
// or the global enable when LACP is off. A frame shorter than a PDU is filled up with zeros.
int lacp_bpdu_deal(std::uint32_t port_no, std::uint32_t, const std::uint8_t *frame, int length);

// Counts a PDU by its subtype and acts on it (dispatcher thread).
void lacClassifyPdu(LacPort *port, const std::uint8_t *bytes);
void lacRx(LacPort *port, const LacPdu &pdu);
