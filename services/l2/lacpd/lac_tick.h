// The one-second tick, IEEE Std 802.3 43.4.4.
#pragma once

// One tick for all ports. Those that run no LACP or whose link is down stand still. Dispatcher.
void LacTick();
