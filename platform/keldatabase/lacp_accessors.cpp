// Accessors of the channel groups, the global configuration and the trunk settings of a port.
#include "keldatabase/access.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

using kel::Transaction;

constexpr char SYSTEM_PRIORITY[] = "/olt-lacp:global-configuration/system-priority";
constexpr char SYSTEM_ID[] = "/olt-lacp:global-configuration/system-id";

class NumberText
{
  public:
    explicit NumberText(unsigned number) { std::snprintf(text_.data(), text_.size(), "%u", number); }
    const char *text() const { return text_.data(); }

  private:
    std::array<char, 12> text_;
};

std::size_t size_of_texts(const kel::Values &values)
{
    std::size_t size = 0;
    for (const sr_val_t &value : values.all())
        size += sizeof(char *) + std::strlen(value.data.string_val) + 1;
    return size;
}

// One block: the pointers, then the texts they point to.
char **pack_texts(const kel::Values &values)
{
    auto **texts = static_cast<char **>(std::malloc(size_of_texts(values)));
    if (texts == nullptr)
        return nullptr;
    char *next = reinterpret_cast<char *>(texts + values.all().size());
    char **entry = texts;
    for (const sr_val_t &value : values.all()) {
        const std::size_t size = std::strlen(value.data.string_val) + 1;
        std::memcpy(next, value.data.string_val, size);
        *entry++ = next;
        next += size;
    }
    return texts;
}

int read_port_list(int group, KelDb *db, const char *list, char ***texts, std::uint32_t *count)
{
    if (texts == nullptr || count == nullptr)
        return kel::FAILED;
    *texts = nullptr;
    *count = 0;
    const kel::Values values(db, kel::group_path(group, list));
    if (!values)
        return kel::FAILED;
    if (values.all().empty())
        return 0;
    *texts = pack_texts(values);
    if (*texts == nullptr)
        return kel::FAILED;
    *count = static_cast<std::uint32_t>(values.all().size());
    return 0;
}

int set_leaf(KelDb *db, const kel::Path &path, const char *value)
{
    return Transaction(db).set(path, value).apply();
}

// The entry of the port must be there: a setting must not bring a port into the inventory.
int set_trunk_leaf(KelDb *db, int slot, std::uint32_t port, const char *leaf, const char *value)
{
    return Transaction(db).set_within(kel::trunk_path(slot, port, leaf), value).apply();
}

int delete_node(KelDb *db, const kel::Path &path)
{
    return Transaction(db).remove(path).apply();
}

int delete_trunk_leaf(KelDb *db, int slot, std::uint32_t port, const char *leaf)
{
    return delete_node(db, kel::trunk_path(slot, port, leaf));
}

// A list of members as the protocol writes it, with the layer's codes.
int apply_member(Transaction &transaction)
{
    switch (const int code = transaction.apply_within(kel::PROTOCOL_PATIENCE)) {
    case SR_ERR_NOT_FOUND:
        return KEL_DB_NOT_THERE;
    case SR_ERR_LOCKED:
    case SR_ERR_TIME_OUT:
    case SR_ERR_NO_MEMORY:
        return KEL_DB_BUSY;
    default:
        return code;
    }
}

int read_trunk_text(KelDb *db, int slot, std::uint32_t port, const char *leaf, char *text, std::uint32_t *size)
{
    return kel::copy_text(kel::Leaf(db, kel::trunk_path(slot, port, leaf)), text, size);
}

} // namespace

int db_olt_lacp_get_group_lacp_type(int group, KelDb *db, char *text, std::uint32_t *size)
{
    return kel::copy_text(kel::Leaf(db, kel::group_path(group, "lacp-type")), text, size);
}

int db_olt_lacp_get_group_load_balance(int group, KelDb *db, char *text, std::uint32_t *size)
{
    return kel::copy_text(kel::Leaf(db, kel::group_path(group, "load-balance")), text, size);
}

int db_olt_lacp_get_group_member_port(int group, KelDb *db, char ***texts, std::uint32_t *count)
{
    return read_port_list(group, db, "member-port", texts, count);
}

int db_olt_lacp_get_group_join_port(int group, KelDb *db, char ***texts, std::uint32_t *count)
{
    return read_port_list(group, db, "join-port", texts, count);
}

void db_free_string_array_val(char **texts, std::uint32_t)
{
    std::free(texts);
}

int db_olt_lacp_set_group_load_balance(int group, KelDb *db, const char *text, std::uint32_t, std::uint32_t)
{
    return set_leaf(db, kel::group_path(group, "load-balance"), text);
}

int db_olt_lacp_set_group_member_port(int group, KelDb *db, const char *name, std::uint32_t, std::uint32_t)
{
    // The value in the path: as a value of its own libyang would count its use without regard to other threads.
    return name != nullptr
               ? apply_member(Transaction(db).set(kel::group_list_path(group, "member-port", name), nullptr))
               : kel::FAILED;
}

int db_olt_lacp_del_group_member_port(int group, int slot, std::uint32_t port, KelDb *db)
{
    const kel::InterfaceName name(slot, port);
    return apply_member(Transaction(db).remove_present(kel::group_list_path(group, "member-port", name.text())));
}

int db_olt_lacp_del_group_id(int group, KelDb *db)
{
    return delete_node(db, kel::group_path(group, ""));
}

int db_olt_lacp_get_global_configuration_system_priority(KelDb *db, std::uint16_t *value, std::uint32_t *size)
{
    return kel::copy_number(db, kel::Path(SYSTEM_PRIORITY), value, size);
}

int db_olt_lacp_set_global_configuration_system_priority(KelDb *db, std::uint16_t value, std::uint32_t, std::uint32_t)
{
    return set_leaf(db, kel::Path(SYSTEM_PRIORITY), NumberText(value).text());
}

int db_olt_lacp_del_global_configuration_system_priority(KelDb *db)
{
    return delete_node(db, kel::Path(SYSTEM_PRIORITY));
}

int db_olt_lacp_set_global_configuration_system_id(KelDb *db, const char *text, std::uint32_t, std::uint32_t)
{
    return set_leaf(db, kel::Path(SYSTEM_ID), text);
}

int db_olt_lacp_get_trunk_channel_group(int slot, std::uint32_t port, KelDb *db, std::uint8_t *group,
                                        std::uint32_t *size)
{
    return kel::copy_number(db, kel::trunk_path(slot, port, "channel-group"), group, size);
}

int db_olt_lacp_get_trunk_mode(int slot, std::uint32_t port, KelDb *db, char *text, std::uint32_t *size)
{
    return read_trunk_text(db, slot, port, "mode", text, size);
}

int db_olt_lacp_get_trunk_timeout(int slot, std::uint32_t port, KelDb *db, char *text, std::uint32_t *size)
{
    return read_trunk_text(db, slot, port, "timeout", text, size);
}

int db_olt_lacp_get_trunk_priority(int slot, std::uint32_t port, KelDb *db, std::uint16_t *value, std::uint32_t *size)
{
    return kel::copy_number(db, kel::trunk_path(slot, port, "priority"), value, size);
}

std::uint8_t db_olt_lacp_set_trunk_priority(int slot, std::uint32_t port, KelDb *db, std::uint16_t value,
                                            std::uint32_t, std::uint32_t)
{
    return set_trunk_leaf(db, slot, port, "priority", NumberText(value).text()) == 0 ? 0 : 1;
}

int db_olt_lacp_set_trunk_timeout(int slot, std::uint32_t port, KelDb *db, const char *text, std::uint32_t,
                                  std::uint32_t)
{
    return set_trunk_leaf(db, slot, port, "timeout", text);
}

int db_olt_lacp_del_trunk_channel_group(int slot, std::uint32_t port, KelDb *db)
{
    return delete_trunk_leaf(db, slot, port, "channel-group");
}

int db_olt_lacp_del_trunk_mode(int slot, std::uint32_t port, KelDb *db)
{
    return delete_trunk_leaf(db, slot, port, "mode");
}

int db_olt_lacp_del_trunk_priority(int slot, std::uint32_t port, KelDb *db)
{
    return delete_trunk_leaf(db, slot, port, "priority");
}

int db_olt_lacp_del_trunk_timeout(int slot, std::uint32_t port, KelDb *db)
{
    return delete_trunk_leaf(db, slot, port, "timeout");
}
