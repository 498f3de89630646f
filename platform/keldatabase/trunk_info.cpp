// Readers of the ports' protocol state, which the daemon itself provides as operational data, and the rendering of
// the channel groups as XML.
#include "keldatabase/access.h"

#include <libyang/libyang.h>

#include <cstring>
#include <string_view>

namespace
{

constexpr char GROUPS[] = "/olt-lacp:channel-group/group";
constexpr std::uint32_t DISPLAY_TIMEOUT_MS = 1000;

// The calling thread's session reads operational data for a scope.
class OperationalScope
{
  public:
    explicit OperationalScope(KelDb *db) : session_(kel::session_of(db))
    {
        if (session_ != nullptr)
            sr_session_switch_ds(session_, SR_DS_OPERATIONAL);
    }
    ~OperationalScope()
    {
        if (session_ != nullptr)
            sr_session_switch_ds(session_, SR_DS_RUNNING);
    }
    OperationalScope(const OperationalScope &) = delete;
    OperationalScope &operator=(const OperationalScope &) = delete;

  private:
    sr_session_ctx_t *session_;
};

kel::Path leaf_path(int slot, std::uint32_t port, const char *role, const char *leaf)
{
    return kel::Path("/olt-ifm:up-link-ports/interface[name='%s']/olt-lacp:trunk-info/port[role='%s']/%s",
                     kel::InterfaceName(slot, port).text(), role, leaf);
}

template <typename Number>
int read_port_number(int slot, std::uint32_t port, const char *role, KelDb *db, Number *value, std::uint32_t *size,
                     const char *leaf)
{
    const OperationalScope scope(db);
    return kel::copy_number(db, leaf_path(slot, port, role, leaf), value, size);
}

int read_port_flag(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint8_t *value,
                   std::uint32_t *size, const char *name)
{
    const OperationalScope scope(db);
    const kel::Leaf leaf(db, leaf_path(slot, port, role, name));
    if (!leaf || value == nullptr || size == nullptr || *size < sizeof *value)
        return kel::FAILED;
    *value = std::strcmp(leaf.text(), "true") == 0;
    *size = sizeof *value;
    return 0;
}

int read_port_text(int slot, std::uint32_t port, const char *role, KelDb *db, char *text, std::uint32_t *size,
                   const char *leaf)
{
    const OperationalScope scope(db);
    return kel::copy_text(kel::Leaf(db, leaf_path(slot, port, role, leaf)), text, size);
}

} // namespace

int db_olt_lacp_get_port_id(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint16_t *value,
                            std::uint32_t *size)
{
    return read_port_number(slot, port, role, db, value, size, "id");
}

int db_olt_lacp_get_port_oper_key(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint16_t *value,
                                  std::uint32_t *size)
{
    return read_port_number(slot, port, role, db, value, size, "oper-key");
}

int db_olt_lacp_get_port_port_state(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint8_t *value,
                                    std::uint32_t *size)
{
    return read_port_number(slot, port, role, db, value, size, "port-state");
}

int db_olt_lacp_get_port_priority(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint16_t *value,
                                  std::uint32_t *size)
{
    return read_port_number(slot, port, role, db, value, size, "priority");
}

int db_olt_lacp_get_port_synchronization(int slot, std::uint32_t port, const char *role, KelDb *db,
                                         std::uint8_t *value, std::uint32_t *size)
{
    return read_port_flag(slot, port, role, db, value, size, "synchronization");
}

int db_olt_lacp_get_port_col_dis(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint8_t *value,
                                 std::uint32_t *size)
{
    return read_port_flag(slot, port, role, db, value, size, "col-dis");
}

int db_olt_lacp_get_port_mode(int slot, std::uint32_t port, const char *role, KelDb *db, char *text,
                              std::uint32_t *size)
{
    return read_port_text(slot, port, role, db, text, size, "mode");
}

int db_olt_lacp_get_port_timeout(int slot, std::uint32_t port, const char *role, KelDb *db, char *text,
                                 std::uint32_t *size)
{
    return read_port_text(slot, port, role, db, text, size, "timeout");
}

int db_olt_lacp_get_port_system_id(int slot, std::uint32_t port, const char *role, KelDb *db, char *text,
                                   std::uint32_t *size)
{
    return read_port_text(slot, port, role, db, text, size, "system-id");
}

int db_olt_lacp_show_xml_group_id(KelDb *db, char **text)
{
    sr_session_ctx_t *session = kel::session_of(db);
    sr_data_t *raw = nullptr;
    if (session == nullptr || text == nullptr ||
        sr_get_data(session, GROUPS, 0, DISPLAY_TIMEOUT_MS, 0, &raw) != SR_ERR_OK || raw == nullptr)
        return kel::FAILED;
    const kel::DataPtr data(raw);
    *text = nullptr;
    return lyd_print_mem(text, data->tree, LYD_XML, LYD_PRINT_WITHSIBLINGS) == LY_SUCCESS && *text != nullptr
               ? 0
               : kel::FAILED;
}
