// Preloaded into the daemon: moves its wall clock, and ends it at a chosen datastore call. The test writes the orders
// into a file that both map (environment variable FAULT_ORDERS).
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sysrepo.h>
#include <unistd.h>

namespace
{

enum Call { BEFORE_APPLY, AFTER_APPLY, IN_HANDLER, CALLS };

struct Orders {
    std::atomic<std::int64_t> shift_seconds;     // of the wall clock
    std::atomic<std::int32_t> calls_left[CALLS]; // to the one that ends the process; 0: none
};

Orders &orders()
{
    static void *const mapped = mmap(nullptr, sizeof(Orders), PROT_READ | PROT_WRITE, MAP_SHARED,
                                     open(std::getenv("FAULT_ORDERS"), O_RDWR | O_CLOEXEC), 0);
    return *static_cast<Orders *>(mapped);
}

void count_down(Call call)
{
    std::atomic<std::int32_t> &left = orders().calls_left[call];
    if (left > 0 && --left == 0)
        kill(getpid(), SIGKILL);
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += orders().shift_seconds;
    return static_cast<int>(result);
}

int gettimeofday(timeval *now, void *) noexcept
{
    timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    *now = {precise.tv_sec, precise.tv_nsec / 1000};
    return 0;
}

time_t time(time_t *now) noexcept
{
    timeval precise;
    gettimeofday(&precise, nullptr);
    return now != nullptr ? *now = precise.tv_sec : precise.tv_sec;
}

int sr_apply_changes(sr_session_ctx_t *session, std::uint32_t timeout_ms)
{
    static auto *const apply = reinterpret_cast<decltype(&sr_apply_changes)>(dlsym(RTLD_NEXT, "sr_apply_changes"));
    count_down(BEFORE_APPLY);
    const int result = apply(session, timeout_ms);
    count_down(AFTER_APPLY);
    return result;
}

int sr_get_changes_iter(sr_session_ctx_t *session, const char *xpath, sr_change_iter_t **iterator)
{
    static auto *const get =
        reinterpret_cast<decltype(&sr_get_changes_iter)>(dlsym(RTLD_NEXT, "sr_get_changes_iter"));
    count_down(IN_HANDLER);
    return get(session, xpath, iterator);
}
}
