#include "lac_store.h"

#include "keldatabase/keldatabase.h"

#include <cstdio>
#include <cstring>

constexpr std::size_t LINK_STATUS_SIZE = 8;
constexpr std::size_t SYSTEM_ID_SIZE = 32;

int get_channel_group_port_link_status(int, std::uint32_t port, std::uint32_t *status)
{
    if (status == nullptr)
        return LAC_NO_OBJECT;
    char text[LINK_STATUS_SIZE] = {};
    std::uint32_t size = sizeof(text);
    const int result = db_olt_ifm_get_interface_basic_link_status(LAC_SLOT, port, &g_lacpd_db, text, &size);
    if (result == LAC_OK)
        *status = strcmp(text, "up") == 0;
    return result;
}

// Whether the datastore has the port in the group: its code, or 0 with the answer.
int lacConfiguredIn(std::uint32_t port_no, std::uint32_t group, bool &answer)
{
    std::uint8_t configured = 0;
    std::uint32_t size = sizeof(configured);
    const int result = db_olt_lacp_get_trunk_channel_group(LAC_SLOT, port_no, &g_lacpd_db, &configured, &size);
    answer = result == LAC_OK && configured == group;
    return result;
}

int set_lacp_system_id(const Mac &mac)
{
    char text[SYSTEM_ID_SIZE] = {};
    snprintf(text, sizeof(text), "%02x%02x.%02x%02x.%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return db_olt_lacp_set_global_configuration_system_id(&g_lacpd_db, text, sizeof(text), 1);
}
