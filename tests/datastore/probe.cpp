// A process of its own for the tests: connects, subscribes when asked to, and waits for its input to end.
#include "keldatabase/keldatabase.h"

#include <cstdio>
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

} // namespace

int main(int count, char **arguments)
{
    if (database_init(&db) != 0) {
        return 1;
    }
    if (count > 1 && std::string_view(arguments[1]) == "subscribe" && db_module_subscription_init(&db, TABLES) != 0) {
        return 2;
    }
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
