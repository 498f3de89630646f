// Shell nodes, configuration commands and configuration writers. Main thread.
#pragma once

// Installs both nodes and the daemon's commands; the channel-group table must stand. `more` installs those of other
// files before the ones that every node has: of equal words the help that came first is shown.
void lacp_vty_init(void (*more)() = [] {});
