#include "lac_dispatch.h"

#include "lac_event.h"
#include "lac_member.h"
#include "lac_memory.h"
#include "lac_pdu.h"
#include "lac_port.h"
#include "lac_resume.h"
#include "lac_select.h"
#include "lac_task.h"
#include "lac_tick.h"

#include <utility>

static void switch_on()
{
    if (get_lac_global_enable() == 1)
        return;
    lacSystemStateSet(1);
    lacDrvCtrl->lac_enable = 1;
    lac_set(LAC_SET_ON);
    lac_trace(LAC_DBG_QUEUE, "\r\n %s lac queue lacState is ON\n\r", "lacRecvTask");
}

static void switch_off()
{
    if (get_lac_global_enable() != 1)
        return;
    lac_set(LAC_SET_OFF);
    lacDrvCtrl->lac_enable = 0;
    lac_trace(LAC_DBG_QUEUE, "\r\n %s lac queue lacState is OFF\n\r", "lacRecvTask");
}

static void dispatch_pdu(LacQueueMsg &message)
{
    lac_trace(LAC_DBG_PDU, "\r\n %s lac queue receive port %ld code %08lx\n\r", "lacRecvTask",
              static_cast<long>(message.port), message.code);
    auto *bytes = reinterpret_cast<std::uint8_t *>(message.payload);
    LacPort *port = lacNoToPort(static_cast<std::uint32_t>(message.port));
    if (get_lac_global_enable() == 1 && port != nullptr && port->lacp_enabled != 0)
        lacClassifyPdu(port, bytes);
    qfree(MTYPE_LACP_PDU, bytes);
    message.payload = 0;
}

static void run_machines(LacQueueMsg &message)
{
    const bool on = get_lac_global_enable() == 1;
    const auto port_no = static_cast<std::uint32_t>(message.port);
    switch (message.code) {
    case LAC_Q_LACP_ON:
        switch_on();
        break;
    case LAC_Q_LACP_OFF:
        switch_off();
        break;
    case LAC_Q_LINK_UP:
        lac_trace(LAC_DBG_PORT, "\nLACP Link Up port:%d\r\n", port_no);
        if (on)
            lacLinkUp(port_no);
        break;
    case LAC_Q_LINK_DOWN:
        lac_trace(LAC_DBG_PORT, "\nLACP Link Down port:%d\r\n", port_no);
        if (on)
            lacLinkDown(port_no);
        break;
    case LAC_Q_PORT_ENABLE:
        lac_trace(LAC_DBG_PORT, "\n cli set port:%d lacp enable\r\n", port_no);
        if (on)
            lacSetPortLacpState(port_no, 1);
        break;
    case LAC_Q_PORT_RESELECT:
        lacReselectGroup(port_no, static_cast<std::uint32_t>(message.payload));
        break;
    case LAC_Q_SYSTEM_PRIORITY:
        lacApplySystemPriority(static_cast<std::uint16_t>(message.payload));
        break;
    case LAC_Q_SYSTEM_ID:
        lacSystem->system_mac = PublishedMac::unpack(message.payload);
        break;
    case LAC_Q_RESUME:
        lacResume();
        break;
    case LAC_Q_STOP:
        lacTellLast();
        break;
    case LAC_Q_GROUP_LIST:
        lacMemberListChanged(port_no);
        break;
    case LAC_Q_PDU:
        dispatch_pdu(message);
        break;
    case LAC_Q_TICK:
        if (on)
            LacTick();
        break;
    default:
        lacApplyAttribute(message);
        break;
    }
}

static void settle_members(bool retry)
{
    while (const std::uint32_t barred = lacSettleMembers(std::exchange(retry, false)))
        for (LacPort *port : lac_ports())
            if ((barred & lac_port_bit(port)) != 0)
                lacSelect(port);
}

void lacDispatch(LacQueueMsg &message)
{
    if (lacStandsStill(message))
        return;
    run_machines(message);
    settle_members(message.code == LAC_Q_TICK || message.code == LAC_Q_GROUP_LIST);
    lacFollowResume();
}
