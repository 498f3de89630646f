#include "inspection_fakes.h"

#include "keldatabase/keldatabase.h"
#include "shell/shell.h"

#include <cstdlib>
#include <cstring>

namespace fake
{

Inspected &inspected()
{
    static Inspected records;
    return records;
}

} // namespace fake

using fake::inspected;

namespace
{

constexpr int MISSING = -1;
constexpr int FAILED_READ = 255; // shows which base a result is printed in

int copy(const std::string *value, char *text, std::uint32_t *size)
{
    if (value == nullptr || value->size() + 1 > *size)
        return MISSING;
    memcpy(text, value->c_str(), value->size() + 1);
    return 0;
}

template <typename Key> const std::string *find(const std::map<Key, std::string> &values, const Key &key)
{
    const auto found = values.find(key);
    return found == values.end() ? nullptr : &found->second;
}

int text_list(const std::map<int, std::vector<std::string>> &lists, int group, char ***texts, std::uint32_t *count)
{
    *texts = nullptr;
    *count = 0;
    const auto found = lists.find(group);
    if (found == lists.end())
        return MISSING;
    if (found->second.empty())
        return 0;
    *count = static_cast<std::uint32_t>(found->second.size());
    *texts = static_cast<char **>(calloc(*count, sizeof(char *)));
    for (std::uint32_t i = 0; i < *count; ++i)
        (*texts)[i] = strdup(found->second[i].c_str());
    return 0;
}

const std::string *port_info(int slot, std::uint32_t port, const char *role, const char *leaf)
{
    inspected().asked.push_back(std::to_string(slot) + "/" + std::to_string(port) + " " + role + " " + leaf);
    return find(inspected().port_info, std::string(role) + " " + leaf);
}

template <typename Number> int number(const std::string *value, Number *out, std::uint32_t *size)
{
    if (value == nullptr)
        return FAILED_READ;
    if (*size != sizeof(Number))
        return MISSING;
    *out = static_cast<Number>(std::stoul(*value));
    return 0;
}

int text(const std::string *value, char *out, std::uint32_t *size)
{
    return value == nullptr ? FAILED_READ : copy(value, out, size);
}

ShellSession session{};

} // namespace

// ---- groups ---------------------------------------------------------------------------------------------------

int db_olt_lacp_get_group_load_balance(int group, KelDb *, char *out, std::uint32_t *size)
{
    return *size == 20 ? copy(find(inspected().load_balance, group), out, size) : MISSING;
}

int db_olt_lacp_get_group_join_port(int group, KelDb *, char ***texts, std::uint32_t *count)
{
    return text_list(inspected().join_ports, group, texts, count);
}

int db_olt_lacp_get_group_member_port(int group, KelDb *, char ***texts, std::uint32_t *count)
{
    return text_list(inspected().member_ports, group, texts, count);
}

void db_free_string_array_val(char **texts, std::uint32_t count)
{
    for (std::uint32_t i = 0; i < count; ++i)
        free(texts[i]);
    free(texts);
}

int db_olt_lacp_get_global_configuration_system_priority(KelDb *, std::uint16_t *value, std::uint32_t *size)
{
    const std::string &priority = inspected().system_priority;
    return number(priority.empty() ? nullptr : &priority, value, size);
}

int db_olt_lacp_show_xml_group_id(KelDb *, char **out)
{
    if (inspected().xml.empty())
        return MISSING;
    *out = strdup(inspected().xml.c_str());
    return 0;
}

// ---- ports ----------------------------------------------------------------------------------------------------

int db_olt_lacp_get_trunk_priority(int, std::uint32_t, KelDb *, std::uint16_t *value, std::uint32_t *size)
{
    return number(find(inspected().trunk, std::string("priority")), value, size);
}

int db_olt_lacp_get_trunk_timeout(int, std::uint32_t, KelDb *, char *out, std::uint32_t *size)
{
    return copy(find(inspected().trunk, std::string("timeout")), out, size);
}

int db_olt_lacp_get_trunk_mode(int, std::uint32_t, KelDb *, char *out, std::uint32_t *size)
{
    return copy(find(inspected().trunk, std::string("mode")), out, size);
}

#define NUMBER_READER(function, type, leaf)                                                                          \
    int function(int slot, std::uint32_t port, const char *role, KelDb *, type *value, std::uint32_t *size)          \
    {                                                                                                                \
        return number(port_info(slot, port, role, leaf), value, size);                                               \
    }
#define TEXT_READER(function, leaf)                                                                                  \
    int function(int slot, std::uint32_t port, const char *role, KelDb *, char *out, std::uint32_t *size)            \
    {                                                                                                                \
        return text(port_info(slot, port, role, leaf), out, size);                                                   \
    }

NUMBER_READER(db_olt_lacp_get_port_id, std::uint16_t, "id")
NUMBER_READER(db_olt_lacp_get_port_oper_key, std::uint16_t, "oper-key")
NUMBER_READER(db_olt_lacp_get_port_port_state, std::uint8_t, "port-state")
NUMBER_READER(db_olt_lacp_get_port_synchronization, std::uint8_t, "synchronization")
NUMBER_READER(db_olt_lacp_get_port_col_dis, std::uint8_t, "col-dis")
NUMBER_READER(db_olt_lacp_get_port_priority, std::uint16_t, "priority")
TEXT_READER(db_olt_lacp_get_port_timeout, "timeout")
TEXT_READER(db_olt_lacp_get_port_system_id, "system-id")
TEXT_READER(db_olt_lacp_get_port_mode, "mode")

// ---- shell ----------------------------------------------------------------------------------------------------

ShellSession &shell_session(vty *)
{
    return session;
}

const char *cmd_parase_parameters(int argc, cmd_token *argv[], const char *word, int offset)
{
    for (int i = 0; i + offset < argc; ++i)
        if (strcmp(argv[i]->text, word) == 0)
            return argv[i + offset]->text;
    return "";
}
