#include "keldatabase/connection.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace
{

// Written at start, before the first shell session and the first thread.
struct Hook {
    kel_db_session_hook function = nullptr;
    KelDb *db = nullptr;

    int run(KelDbSession *session) const { return function != nullptr ? function(session, db) : kel::FAILED; }
};
Hook open_hook;
Hook close_hook;

std::uint32_t mask_from_environment()
{
    const char *text = std::getenv(KEL_DB_DEBUG_ENV);
    return text != nullptr ? static_cast<std::uint32_t>(std::strtoul(text, nullptr, 0)) : 0;
}

std::uint32_t *library_flag()
{
    static std::uint32_t flag = mask_from_environment();
    return &flag;
}

std::atomic<std::uint32_t *> registered_flag = nullptr;

std::uint32_t bit_of(sr_log_level_t level)
{
    return level <= SR_LL_WRN ? KEL_DB_DEBUG_SYSREPO : KEL_DB_DEBUG_SYSREPO_ALL;
}

void print_sysrepo_message(sr_log_level_t level, const char *message)
{
    if ((db_debug_get() & bit_of(level)) != 0)
        std::fprintf(stderr, "sysrepo: %s\n", message);
}

} // namespace

void kel_db_cb_init_func(kel_db_session_hook hook, KelDb *db)
{
    open_hook = {hook, db};
}

void kel_db_cb_free_func(kel_db_session_hook hook, KelDb *db)
{
    close_hook = {hook, db};
}

int kel_db_session_open(KelDbSession *session)
{
    return open_hook.run(session);
}

int kel_db_session_close(KelDbSession *session)
{
    return close_hook.run(session);
}

int db_connect_init_with_vty(KelDbSession *session, KelDb *db)
try {
    if (session == nullptr || db == nullptr || db->connection == nullptr)
        return kel::FAILED;
    if (session->db == nullptr)
        session->db = std::make_unique<KelDb>(*db).release();
    return 0;
} catch (const std::exception &) {
    return kel::FAILED;
}

int db_disconnect_free_with_vty(KelDbSession *session, KelDb *)
{
    if (session == nullptr)
        return kel::FAILED;
    const std::unique_ptr<KelDb> handle(session->db);
    session->db = nullptr;
    return 0;
}

kel_db_debug_flag db_debug_flag_return()
{
    return library_flag();
}

void db_debug_flag_reg(kel_db_debug_flag flag)
{
    registered_flag = flag;
}

kel_db_sysrepo_debug sysrepo_debug_func_return()
{
    return print_sysrepo_message;
}

void sysrepo_debug_fun_reg(kel_db_sysrepo_debug function)
{
    sr_log_stderr(SR_LL_NONE);
    sr_log_set_cb(function);
}

std::uint32_t db_debug_get()
{
    std::uint32_t *flag = registered_flag;
    return std::atomic_ref(flag != nullptr ? *flag : *library_flag()).load(std::memory_order_relaxed);
}
