#include "lac_pdu.h"

#include "lac_memory.h"
#include "lac_mux.h"
#include "lac_port.h"
#include "lac_rx.h"
#include "lac_task.h"
#include "lac_tx.h"
#include "lac_wire.h"

#include "sysutil/sysutil.h"

#include <algorithm>
#include <atomic>

namespace
{

constexpr std::size_t MARKER_TLV_TYPE_OFFSET = 2;
constexpr std::size_t MARKER_TLV_LENGTH_OFFSET = 3;
constexpr std::uint64_t FLOOD_REPORT_MS = 10000;

} // namespace

// One line now and then, not one a lost frame.
static void tell_of_flood(std::uint32_t port_no)
{
    static std::atomic<std::uint64_t> next_ms;
    const std::uint64_t now = lac_now_ms();
    if (now < next_ms)
        return;
    next_ms = now + FLOOD_REPORT_MS;
    printf(Lac_Queue.isStalled() ? "LACP Msg: PDUs of port %u are dropped, the dispatcher is busy!\n"
                                 : "LACP Msg: port %u receives more PDUs than can be taken, some are dropped!\n",
           port_no);
}

int lacp_bpdu_deal(std::uint32_t port_no, std::uint32_t, const std::uint8_t *frame, int length)
{
    const std::uint32_t enabled = get_lac_global_enable();
    if (enabled != 1)
        return static_cast<int>(enabled);
    const std::size_t received = length > 0 ? static_cast<std::size_t>(length) : 0;
    if (Lac_Queue.holdsAllowanceOf(port_no,
                                   received > LAC_RX_PDU_OFFSET ? frame[LAC_RX_PDU_OFFSET] : std::uint8_t{0})) {
        tell_of_flood(port_no);
        return LAC_FAILED;
    }
    auto *copy = static_cast<std::uint8_t *>(qcalloc(MTYPE_LACP_PDU, LAC_PDU_SIZE));
    if (received > LAC_RX_PDU_OFFSET)
        std::copy_n(frame + LAC_RX_PDU_OFFSET, std::min(received - LAC_RX_PDU_OFFSET, LAC_PDU_SIZE), copy);
    return lacWaitAndSend("lacp_bpdu_deal", LAC_Q_PDU, reinterpret_cast<std::uint64_t>(copy), port_no);
}

int lacp_bpdu_recv(std::uint32_t port_no, std::uint32_t, std::uint32_t, const std::uint8_t *frame, int length)
{
    if (std::equal(LAC_SLOW_PROTOCOLS_ADDRESS.begin(), LAC_SLOW_PROTOCOLS_ADDRESS.end(), frame))
        lacp_bpdu_deal(port_no, 0, frame, length);
    return 0;
}

static void lac_marker_responder(LacPort *port, const std::uint8_t *bytes)
{
    lac_trace(LAC_DBG_MARKER, "\r\nlac_process...->lac_marker_responder\r");
    LacFrame &slot = lacDrvCtrl->marker_slots[port->port_no - 1];
    std::uint8_t *pdu = slot.data() + LAC_MAC_HEADER_SIZE;
    std::copy_n(bytes, LAC_PDU_SIZE, pdu);
    LacpMacHeaderSet(port, slot.data());
    pdu[MARKER_TLV_TYPE_OFFSET] = LAC_MARKER_RESPONSE;
    pdu[MARKER_TLV_LENGTH_OFFSET] = LAC_MARKER_TLV_LENGTH;
    port->stats->tx_marker_response += 1;
    lac_send_pdu(port->port_no, slot.data());
}

void lacClassifyPdu(LacPort *port, const std::uint8_t *bytes)
{
    lac_trace(LAC_DBG_PDU, "[port %d: Rx LACPDU]\r\n", port->port_no);
    const std::uint8_t subtype = bytes[0];
    const std::uint8_t tlv_type = bytes[MARKER_TLV_TYPE_OFFSET];
    if (subtype == LAC_SUBTYPE_LACP) {
        port->stats->rx_lacpdu += 1;
        lacRx(port, lacDecodePdu(bytes));
    } else if (subtype == LAC_SUBTYPE_MARKER && tlv_type == LAC_MARKER_INFORMATION) {
        port->stats->rx_marker += 1;
        lac_marker_responder(port, bytes);
    } else if (subtype == LAC_SUBTYPE_MARKER && tlv_type == LAC_MARKER_RESPONSE) {
        port->stats->rx_marker_response += 1;
    } else {
        port->stats->rx_unknown += 1;
        static RepeatedLine line("LACP: not valid PDU");
        if (line.due())
            printf("LACP: not valid PDU with Slow Protocol Type Subtype - %02x TLV type = %02x", subtype, tlv_type);
    }
}

// The first other port that knows the sender as its partner has lost it to this port.
static void detect_moved_partner(LacPort *port, const LacPdu &pdu)
{
    for (LacPort *other : lac_ports()) {
        if (other == port || other->partner_port != pdu.actor.port || other->partner_system.get() != pdu.actor.system)
            continue;
        other->port_moved = 1;
        lacSystem->last_change_ms = lac_now_ms();
        port->stats->moved += 1;
        lacRxMachine(other, Lac_port_moved, nullptr);
        return;
    }
}

void lacRx(LacPort *port, const LacPdu &pdu)
{
    lac_trace(LAC_DBG_PDU, "[lacRx port %d:LACP receive function]\r\n", port->port_no);
    port->stats->last_rx_ms = lac_now_ms();
    lacRxMachine(port, Lac_received, &pdu);
    detect_moved_partner(port, pdu);
    lacKickMux(port, LacKick::lacpdu);
}
