#include "lacp_operational.h"

#include "lac_port.h"

#include <cstdio>
#include <cstring>
#include <libyang/libyang.h>
#include <string_view>

namespace
{

constexpr std::size_t ROLE_SIZE = 8;
constexpr std::size_t LEAF_SIZE = 64;

bool is_tracing()
{
    return (db_debug_get() & KEL_DB_DEBUG_DAEMON) != 0;
}

std::string mac_text(const Mac &mac)
{
    char text[LEAF_SIZE];
    snprintf(text, sizeof(text), "%02x%02x.%02x%02x.%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

const char *flag(bool set, const char *yes, const char *no)
{
    return set ? yes : no;
}

// The schema context of a connection, held for a scope.
class SchemaContext
{
  public:
    explicit SchemaContext(sr_conn_ctx_t *connection)
        : connection_(connection), context_(sr_acquire_context(connection))
    {
    }
    ~SchemaContext()
    {
        if (context_ != nullptr)
            sr_release_context(connection_);
    }
    SchemaContext(const SchemaContext &) = delete;
    SchemaContext &operator=(const SchemaContext &) = delete;
    const ly_ctx *get() const { return context_; }

  private:
    sr_conn_ctx_t *connection_;
    const ly_ctx *context_;
};

// Hands a one-leaf tree back in place of what the request came with.
void reply(sr_session_ctx_t *session, const char *xpath, const std::string &text, lyd_node **parent)
{
    const SchemaContext context(sr_session_get_connection(session));
    lyd_node *tree = nullptr;
    if (context.get() == nullptr || lyd_new_path(nullptr, context.get(), xpath, text.c_str(), 0, &tree) != LY_SUCCESS)
        return;
    lyd_free_all(*parent);
    *parent = tree;
}

} // namespace

const LacPort *get_lacp_port_t(std::uint32_t, std::uint32_t port)
{
    return lacNoToPort(port);
}

std::optional<std::string> lacp_information_text(const LacPort *port, const char *role, const char *leaf)
{
    const LacInfo info = strcmp(role, "actor") == 0 ? lac_actor_info(port) : lac_partner_info(port);
    const std::string_view name = leaf;
    if (name == "timeout")
        return flag((info.state & LAC_TIMEOUT) != 0, "short", "long");
    if (name == "mode")
        return flag((info.state & LAC_ACTIVITY) != 0, "active", "passive");
    if (name == "priority")
        return std::to_string(info.port_priority);
    if (name == "oper-key")
        return std::to_string(info.key);
    if (name == "id")
        return std::to_string(info.port);
    if (name == "port-state")
        return std::to_string(info.state);
    if (name == "synchronization")
        return flag((info.state & LAC_SYNCHRONIZATION) != 0, "true", "false");
    if (name == "col-dis")
        return flag(port->coll_dist != 0, "true", "false");
    if (name == "system-id")
        return mac_text(info.system);
    if (name == "system-priority")
        return std::to_string(info.system_priority);
    return std::nullopt;
}

int lacp_information_get_cb(sr_session_ctx_t *session, std::uint32_t, const char *, const char *,
                            const char *request_xpath, std::uint32_t, lyd_node **parent, void *)
{
    const char *xpath = request_xpath == nullptr ? "" : request_xpath;
    if (is_tracing())
        printf("[DATABASE INFO] %s request_xpath=> %s\n", "lacp_information_get_cb", xpath);
    unsigned slot = 0;
    unsigned port_no = 0;
    char role[ROLE_SIZE] = {};
    char leaf[LEAF_SIZE] = {};
    sscanf(xpath,
           "/olt-ifm:up-link-ports/interface[name='gigabitethernet %u/%u']/olt-lacp:trunk-info/"
           "port[role='%7[a-z]']/%63s",
           &slot, &port_no, role, leaf);
    if (is_tracing())
        printf("[DATABASE INFO] %s slot id=> %d, port id=> %d, role=> %s, leaf=> %s\n", "lacp_information_get_cb",
               slot, port_no, role, leaf);
    const LacPort *port = get_lacp_port_t(slot, port_no);
    if (port == nullptr)
        return LAC_OK;
    const auto text = lacp_information_text(port, role, leaf);
    if (!text) {
        printf("LACP Msg: leaf \"%s\" doesn't exist!\n", leaf);
        return LAC_OK;
    }
    reply(session, xpath, *text, parent);
    return LAC_OK;
}
