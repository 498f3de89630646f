// Another client of the datastore that stands in the way until its input ends:
//   fault_client lock             holds the locks of the running configuration
//   fault_client refuse COUNT     refuses the next COUNT changes of member-port lists
//   fault_client stall SECONDS    takes that long to accept a change of a member-port list
#include <sysrepo.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

namespace
{

constexpr std::uint32_t LOCK_MS = 5000;

std::atomic<int> refusals;
std::chrono::seconds stall;

int on_members(sr_session_ctx_t *, std::uint32_t, const char *, const char *, sr_event_t event, std::uint32_t, void *)
{
    if (event != SR_EV_CHANGE)
        return SR_ERR_OK;
    std::this_thread::sleep_for(stall);
    return refusals > 0 && refusals-- > 0 ? SR_ERR_OPERATION_FAILED : SR_ERR_OK;
}

bool stand_in_the_way(sr_session_ctx_t *session, std::string_view order, int number)
{
    if (order == "lock")
        return sr_lock(session, "olt-lacp", LOCK_MS) == SR_ERR_OK &&
               sr_lock(session, "olt-ifm", LOCK_MS) == SR_ERR_OK;
    refusals = order == "refuse" ? number : 0;
    stall = std::chrono::seconds(order == "stall" ? number : 0);
    static sr_subscription_ctx_t *subscription; // ends with the connection
    return sr_module_change_subscribe(session, "olt-lacp", "/olt-lacp:channel-group/group/member-port", on_members,
                                      nullptr, 0, SR_SUBSCR_DEFAULT, &subscription) == SR_ERR_OK;
}

} // namespace

int main(int count, char **arguments)
{
    sr_conn_ctx_t *connection = nullptr;
    sr_session_ctx_t *session = nullptr;
    if (count < 2 || sr_connect(SR_CONN_DEFAULT, &connection) != SR_ERR_OK ||
        sr_session_start(connection, SR_DS_RUNNING, &session) != SR_ERR_OK ||
        !stand_in_the_way(session, arguments[1], count > 2 ? std::atoi(arguments[2]) : 0))
        return EXIT_FAILURE;
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    sr_disconnect(connection);
    return EXIT_SUCCESS;
}
