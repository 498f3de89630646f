// Preloaded into the daemon: moves its wall clock, and ends it at a chosen datastore call. The test writes the
// orders into a file that both map (environment variable FAULT_ORDERS).
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

struct Orders {
    std::atomic<std::int64_t> shift_seconds; // of the wall clock
    // Calls from now to the one that ends the process; 0: none.
    std::atomic<std::int32_t> before_apply;
    std::atomic<std::int32_t> after_apply;
    std::atomic<std::int32_t> in_handler;
};

Orders nothing_ordered;

Orders &map_orders()
{
    const char *path = std::getenv("FAULT_ORDERS");
    const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    void *mapped = fd >= 0 ? mmap(nullptr, sizeof(Orders), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    return mapped != MAP_FAILED ? *static_cast<Orders *>(mapped) : nothing_ordered;
}

Orders &orders()
{
    static Orders &instance = map_orders();
    return instance;
}

void count_down(std::atomic<std::int32_t> &calls)
{
    if (calls > 0 && --calls == 0)
        kill(getpid(), SIGKILL);
}

template <typename Function> Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
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
    timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    if (now != nullptr)
        *now = precise.tv_sec;
    return precise.tv_sec;
}

int sr_apply_changes(sr_session_ctx_t *session, std::uint32_t timeout_ms)
{
    static auto *const apply = next<decltype(sr_apply_changes)>("sr_apply_changes");
    count_down(orders().before_apply);
    const int result = apply(session, timeout_ms);
    count_down(orders().after_apply);
    return result;
}

int sr_get_changes_iter(sr_session_ctx_t *session, const char *xpath, sr_change_iter_t **iterator)
{
    static auto *const get = next<decltype(sr_get_changes_iter)>("sr_get_changes_iter");
    count_down(orders().in_handler);
    return get(session, xpath, iterator);
}
}
