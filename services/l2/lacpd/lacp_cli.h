// Shell nodes, configuration commands and configuration writers. Main thread.
#pragma once

// Installs both nodes and the daemon's commands; the channel-group table must stand.
void lacp_vty_init();
