// What the daemon tells the service manager that started it: the datagrams of sd_notify(3).
//
// The framework would tell it in the daemon's stead, ready before anything is configured and alive as long as its
// event loop runs. So the manager's address is taken out of the environment, before the framework looks.
#pragma once

// Before the framework starts.
void service_manager_init();
// Sends assignments like "READY=1", separated by line feeds. Nothing happens when no manager waits for them. Any
// thread.
void service_manager_tell(const char *assignments);
