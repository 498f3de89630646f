#include "vlan_tag.h"

#include "switch_tag.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>

namespace olt
{

VlanTagRoom::VlanTagRoom()
{
    static_assert(SIZE >= CMSG_SPACE(sizeof(tpacket_auxdata)));
}

void VlanTagRoom::offer(msghdr &message)
{
    message.msg_control = bytes.data();
    message.msg_controllen = bytes.size();
}

std::optional<VlanTag> stripped_tag(msghdr &message)
{
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_PACKET || part->cmsg_type != PACKET_AUXDATA)
            continue;
        tpacket_auxdata data;
        std::memcpy(&data, CMSG_DATA(part), sizeof(data));
        if ((data.tp_status & TP_STATUS_VLAN_VALID) == 0)
            return std::nullopt;
        const bool has_type = (data.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
        return VlanTag{has_type ? data.tp_vlan_tpid : std::uint16_t{ETH_P_8021Q}, data.tp_vlan_tci};
    }
    return std::nullopt;
}

void restore_tag(const VlanTag &tag, std::uint8_t *frame)
{
    std::uint8_t *start = frame - VLAN_TAG_SIZE;
    std::copy_n(frame, ADDRESSES_SIZE, start);
    const std::array<std::uint16_t, 2> words{htons(tag.type), htons(tag.control)};
    std::memcpy(start + ADDRESSES_SIZE, words.data(), VLAN_TAG_SIZE);
}

} // namespace olt
