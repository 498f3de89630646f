// Commands that show what the datastore holds.
#pragma once

void lacp_vty_database_init();
