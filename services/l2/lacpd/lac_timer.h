// Protocol timers: set up, started and stopped; lac_tick counts them. Dispatcher.
#pragma once

#include "lacp.h"

void lac_TimerInit();
void Lac_timers_init(LacPort *port);

// 3 ticks when `is_short` is 1, else 90.
void start_current_while_timer(LacPort *port, std::uint32_t is_short);
// 1 tick when `fast` is 1, else 30.
void Start_periodic_timer(LacPort *port, std::uint32_t fast);
void Stop_periodic_timer(LacPort *port);
// Clears ready_n and counts 2 ticks.
void Start_wait_while_timer(LacPort *port);
// Until the scheduler is first stopped a start waits one tick, then it expires on the very next one.
void Start_tx_scheduler(LacPort *port);
void Stop_tx_scheduler(LacPort *port);
void mux_scheduler_start(LacPort *port);
