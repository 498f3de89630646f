#include "service_manager.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static sockaddr_un manager;
static socklen_t manager_size; // 0: nobody waits

void service_manager_init()
{
    const char *const path = getenv("NOTIFY_SOCKET");
    const std::size_t length = path == nullptr ? 0 : strlen(path);
    if (length > 1 && length < sizeof(manager.sun_path)) {
        manager.sun_family = AF_UNIX;
        memcpy(manager.sun_path, path, length);
        if (path[0] == '@') // an abstract address
            manager.sun_path[0] = 0;
        manager_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    }
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        unsetenv(name);
}

void service_manager_tell(const char *assignments)
{
    if (manager_size == 0)
        return;
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sendto(socket, assignments, strlen(assignments), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&manager),
           manager_size);
    close(socket);
}
