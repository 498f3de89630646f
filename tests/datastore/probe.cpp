// A process of its own for the tests. Its arguments are steps, taken in order; then it waits for its input to end.
// The status is the number of the step that failed.
#include "keldatabase/keldatabase.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace
{

int accept_change(sr_session_ctx_t *, std::uint32_t, const char *, const char *, sr_event_t, std::uint32_t, void *)
{
    return 0;
}

constexpr DbXpathCb ENTRIES[] = {{"/olt-lacp:channel-group/group//.", accept_change, {}, nullptr, nullptr}, {}};
constexpr DbModuleCbs TABLE{"olt-lacp", ENTRIES};
constexpr const DbModuleCbs *TABLES[] = {&TABLE, nullptr};

KelDb db; // left open when the process ends, as the daemon does

// For good, and with no other group than the user's own.
bool become(const char *user)
{
    const passwd *entry = getpwnam(user);
    return entry != nullptr && setgroups(0, nullptr) == 0 &&
           setresgid(entry->pw_gid, entry->pw_gid, entry->pw_gid) == 0 &&
           setresuid(entry->pw_uid, entry->pw_uid, entry->pw_uid) == 0;
}

bool write_and_read()
{
    char text[30];
    std::uint32_t size = sizeof text;
    return db_olt_lacp_set_group_load_balance(1, &db, "src-mac", 8, 1) == 0 &&
           db_olt_lacp_get_group_load_balance(1, &db, text, &size) == 0 && std::string_view(text) == "src-mac" &&
           db_olt_lacp_del_group_id(1, &db) == 0;
}

bool take(std::string_view step)
{
    constexpr std::string_view BECOME = "become=";
    if (step.starts_with(BECOME)) {
        return become(std::string(step.substr(BECOME.size())).c_str());
    }
    if (step == "connect") {
        return database_init(&db) == 0;
    }
    if (step == "subscribe") {
        return db_module_subscription_init(&db, TABLES) == 0;
    }
    return step == "write" && write_and_read();
}

} // namespace

int main(int count, char **arguments)
{
    for (int step = 1; step < count; ++step) {
        if (!take(arguments[step])) {
            return step;
        }
    }
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
