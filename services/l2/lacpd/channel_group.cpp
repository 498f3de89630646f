#include "channel_group.h"

#include "lac_memory.h"
#include "lacp_sclient.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

int CHANNEL_GROUP_MAX_NUM = 4;

namespace
{

constexpr std::array<const char *, 6> LOAD_BALANCE_NAMES = {"src-mac", "dst-mac", "src-dst-mac",
                                                            "src-ip",  "dst-ip",  "src-dst-ip"};

// Index into the names by code; every code that is none of the six reads as the first.
constexpr auto LOAD_BALANCE_INDEX = [] {
    std::array<std::uint8_t, 20> index{};
    index[LOAD_BALANCE_SRC_MAC] = 0;
    index[LOAD_BALANCE_DST_MAC] = 1;
    index[LOAD_BALANCE_SRC_DST_MAC] = 2;
    index[LOAD_BALANCE_SRC_IP] = 3;
    index[LOAD_BALANCE_DST_IP] = 4;
    index[LOAD_BALANCE_SRC_DST_IP] = 5;
    return index;
}();

constexpr std::array<std::uint32_t, 6> LOAD_BALANCE_CODES = {LOAD_BALANCE_SRC_MAC,     LOAD_BALANCE_DST_MAC,
                                                             LOAD_BALANCE_SRC_DST_MAC, LOAD_BALANCE_SRC_IP,
                                                             LOAD_BALANCE_DST_IP,      LOAD_BALANCE_SRC_DST_IP};

ChannelGroup *groups;

ChannelGroup *find(int group)
{
    const bool valid = groups != nullptr && group >= 1 && group <= CHANNEL_GROUP_MAX_NUM;
    return valid ? &groups[group - 1] : nullptr;
}

using Field = Published<std::uint32_t> ChannelGroup::*;

int set_field(int group, Field field, std::uint32_t value)
{
    ChannelGroup *record = find(group);
    if (record == nullptr)
        return LAC_BAD_ARGUMENT;
    record->*field = value;
    return LAC_OK;
}

int get_field(int group, Field field, std::uint32_t *value)
{
    const ChannelGroup *record = find(group);
    if (record == nullptr || value == nullptr)
        return LAC_BAD_ARGUMENT;
    *value = record->*field;
    return LAC_OK;
}

int update_list(int group, Field list, Field count, std::uint32_t port, int operation)
{
    ChannelGroup *record = find(group);
    if (record == nullptr)
        return LAC_BAD_ARGUMENT;
    const std::uint32_t bit = 1U << ((port - 1) % 32);
    const bool present = (record->*list & bit) != 0;
    if (operation == LIST_ADD && record->*count < CHANNEL_GROUP_MAX_PORTS && !present) {
        record->*list |= bit;
        record->*count += 1;
        return LAC_OK;
    }
    if (operation == LIST_REMOVE && record->*count != 0 && present) {
        record->*list &= ~bit;
        record->*count -= 1;
        return LAC_OK;
    }
    return LAC_BAD_ARGUMENT;
}

} // namespace

void channel_group_table_init()
{
    groups = lac_new_records<ChannelGroup>(MTYPE_LACP_CLI, static_cast<std::size_t>(CHANNEL_GROUP_MAX_NUM) + 1);
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
        reset_channel_group(group);
}

int set_channel_group_type(int group, std::uint32_t type)
{
    ChannelGroup *record = find(group);
    if (record == nullptr)
        return LAC_BAD_ARGUMENT;
    if (record->type != CHANNEL_GROUP_UNSET)
        return LAC_REFUSED;
    record->id = static_cast<std::uint32_t>(group);
    record->type = type;
    return LAC_OK;
}

int get_channel_group_type(int group, std::uint32_t *type)
{
    return get_field(group, &ChannelGroup::type, type);
}

int set_channel_group_used(int group, std::uint32_t used)
{
    return set_field(group, &ChannelGroup::used, used);
}

int get_channel_group_used(int group, std::uint32_t *used)
{
    return get_field(group, &ChannelGroup::used, used);
}

int set_channel_group_load_balance(int group, std::uint32_t code)
{
    ChannelGroup *record = find(group);
    if (record == nullptr)
        return LAC_BAD_ARGUMENT;
    record->load_balance = code;
    if (record->uplink_port_count > 0 && lacp_trunk_psc_set(static_cast<std::uint32_t>(group), code) == LAC_FAILED)
        printf("%s sclient_send_message() failed ret %d\r\n", "set_channel_group_load_balance", LAC_FAILED);
    return LAC_OK;
}

int set_channel_group_load_balance_str(int group, const char *name)
{
    const auto found = std::find(LOAD_BALANCE_NAMES.begin(), LOAD_BALANCE_NAMES.end(), std::string_view(name));
    if (found == LOAD_BALANCE_NAMES.end())
        return LAC_BAD_ARGUMENT;
    return set_channel_group_load_balance(
        group, LOAD_BALANCE_CODES[static_cast<std::size_t>(found - LOAD_BALANCE_NAMES.begin())]);
}

int get_channel_group_load_balance(int group, std::uint32_t *code)
{
    return get_field(group, &ChannelGroup::load_balance, code);
}

int get_channel_group_load_balance_str(int group, char *name, std::uint32_t size)
{
    const ChannelGroup *record = find(group);
    if (record == nullptr || name == nullptr)
        return LAC_BAD_ARGUMENT;
    const std::uint32_t code = record->load_balance;
    const std::string_view text = LOAD_BALANCE_NAMES[code < LOAD_BALANCE_INDEX.size() ? LOAD_BALANCE_INDEX[code] : 0];
    if (text.size() + 1 > size)
        return LAC_BAD_ARGUMENT;
    memcpy(name, text.data(), text.size() + 1);
    return LAC_OK;
}

int set_channel_group_port_list(int group, int, std::uint32_t port, int operation)
{
    return update_list(group, &ChannelGroup::port_list, &ChannelGroup::port_count, port, operation);
}

int get_channel_group_port_list(int group, std::uint32_t *list)
{
    return get_field(group, &ChannelGroup::port_list, list);
}

int get_channel_group_port_count(int group, std::uint32_t *count)
{
    return get_field(group, &ChannelGroup::port_count, count);
}

int check_channel_group_port_count(int group)
{
    const ChannelGroup *record = find(group);
    return record != nullptr && record->port_count < CHANNEL_GROUP_MAX_PORTS ? LAC_OK : LAC_BAD_ARGUMENT;
}

int set_channel_group_uplink_port_list(int group, int, std::uint32_t port, int operation)
{
    return update_list(group, &ChannelGroup::uplink_port_list, &ChannelGroup::uplink_port_count, port, operation);
}

int get_channel_group_uplink_port_list(int group, std::uint32_t *list)
{
    return get_field(group, &ChannelGroup::uplink_port_list, list);
}

int get_channel_group_uplink_port_count(int group, std::uint32_t *count)
{
    return get_field(group, &ChannelGroup::uplink_port_count, count);
}

int set_channel_group_agg_no(int group, std::uint32_t number)
{
    return set_field(group, &ChannelGroup::agg_no, number);
}

int get_channel_group_agg_no(int group, std::uint32_t *number)
{
    return get_field(group, &ChannelGroup::agg_no, number);
}

int set_channel_group_master_port(int group, std::uint32_t port)
{
    return set_field(group, &ChannelGroup::master_port, port);
}

int reset_channel_group(int group)
{
    ChannelGroup *record = find(group);
    if (record == nullptr)
        return LAC_BAD_ARGUMENT;
    *record = ChannelGroup{};
    record->load_balance = LOAD_BALANCE_SRC_MAC;
    record->id = static_cast<std::uint32_t>(group);
    return LAC_OK;
}
