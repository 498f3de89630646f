#include "lac_timer.h"

#include <cstdio>
#include <semaphore.h>

// Nothing waits on it; a maker may guard timers of its own with it.
static sem_t timer_sem;

void lac_TimerInit()
{
    if (sem_init(&timer_sem, 0, 0) != 0) {
        printf("\r\nMsg:system create lacp timer semaphore failed!\n\r");
        return;
    }
    sem_post(&timer_sem);
}

// ---- starting and stopping ------------------------------------------------------------------------------------

static void set_up(LacTimer &timer, std::uint32_t reload)
{
    timer.count = 0;
    timer.reload = reload;
    timer.active = 0;
    timer.initialized = 1;
}

static bool set_up_once(LacTimer &timer, std::uint32_t reload)
{
    if (timer.initialized == 1)
        return false;
    set_up(timer, reload);
    return true;
}

static void start(LacTimer &timer)
{
    timer.active = 1;
    timer.count = timer.reload;
}

static void stop(LacTimer &timer)
{
    timer.active = 0;
    timer.count = 0;
    timer.reload = 0;
}

void Lac_timers_init(LacPort *port)
{
    set_up(port->current_while_timer, 0);
    set_up(port->periodic_timer, LAC_FAST_PERIODIC_TICKS);
    set_up(port->wait_while_timer, LAC_AGGREGATE_WAIT_TICKS);
    set_up(port->tx_scheduler, LAC_SCHEDULER_TICKS);
    set_up(port->mux_scheduler, LAC_SCHEDULER_TICKS);
    lac_trace(LAC_DBG_TIMER, "\rLac_timers_init[port %d] \r\n", port->port_no);
}

void start_current_while_timer(LacPort *port, std::uint32_t is_short)
{
    LacTimer &timer = port->current_while_timer;
    if (set_up_once(timer, 0))
        lac_trace(LAC_DBG_TIMER, "current_while_timer_init[port %d tick %d]\r\n", port->port_no, timer.count.get());
    timer.reload = is_short == 1 ? LAC_SHORT_TIMEOUT_TICKS : LAC_LONG_TIMEOUT_TICKS;
    start(timer);
    lac_trace(LAC_DBG_TIMER, "\r\n  set port %d current timer tick %d\n\r", port->port_no, timer.count.get());
}

void Start_periodic_timer(LacPort *port, std::uint32_t fast)
{
    LacTimer &timer = port->periodic_timer;
    if (set_up_once(timer, LAC_FAST_PERIODIC_TICKS))
        lac_trace(LAC_DBG_TIMER, "periodic_timer_init[%d tick %d]\n", port->port_no, timer.count.get());
    timer.reload = fast == 1 ? LAC_FAST_PERIODIC_TICKS : LAC_SLOW_PERIODIC_TICKS;
    start(timer);
    lac_trace(LAC_DBG_TIMER, "\r\nStart_periodic_timer[port:%d tick %d]\r\n", port->port_no, timer.count.get());
}

void Stop_periodic_timer(LacPort *port)
{
    stop(port->periodic_timer);
    lac_trace(LAC_DBG_TIMER, "Stop_periodic_timer[port:%d]\n", port->port_no);
}

void Start_wait_while_timer(LacPort *port)
{
    LacTimer &timer = port->wait_while_timer;
    if (set_up_once(timer, LAC_AGGREGATE_WAIT_TICKS))
        lac_trace(LAC_DBG_TIMER, "wait_while_timer_init[port %d tick %d]\r\n", port->port_no, timer.count.get());
    port->ready_n = 0;
    start(timer);
}

void Start_tx_scheduler(LacPort *port)
{
    LacTimer &timer = port->tx_scheduler;
    if (set_up_once(timer, LAC_SCHEDULER_TICKS))
        lac_trace(LAC_DBG_TIMER, "\r\tx_scheduler_init[port %d tick %d]\r\n", port->port_no, timer.count.get());
    start(timer);
    lac_trace(LAC_DBG_TIMER, "Start_tx_scheduler active :True  [port %d tick %d]\n", port->port_no,
              timer.count.get());
}

void Stop_tx_scheduler(LacPort *port)
{
    stop(port->tx_scheduler);
    lac_trace(LAC_DBG_TIMER, "Stop_tx_scheduler active :False  [port %d ]\r\n", port->port_no);
}

void mux_scheduler_start(LacPort *port)
{
    LacTimer &timer = port->mux_scheduler;
    if (set_up_once(timer, LAC_SCHEDULER_TICKS))
        lac_trace(LAC_DBG_TIMER, "\rmux_scheduler_init[port %d tick %d]\r\n", port->port_no, timer.count.get());
    start(timer);
}
