#include "lacp_privileges.h"

// What the packet socket, the shell's port and the datastore need, in the framework's order of declaration.
static zebra_capabilities_t capabilities[] = {ZCAP_NET_RAW, ZCAP_BIND, ZCAP_NET_ADMIN, ZCAP_SYS_ADMIN};

static zebra_privs_t daemon_privileges()
{
    zebra_privs_t privileges{};
    privileges.caps_p = capabilities;
    privileges.cap_num_p = static_cast<int>(std::size(capabilities));
    privileges.user = "daemon";
    privileges.group = "daemon";
    privileges.vty_group = "daemon";
    return privileges;
}

zebra_privs_t lacp_privs = daemon_privileges();
