#include "unix_socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <grp.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace olt
{

namespace
{

constexpr int BACKLOG = 16;
constexpr mode_t SOCKET_MODE = 0660;
constexpr char SOCKET_GROUP[] = "daemon";

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::runtime_error("socket path " + path + " is too long; choose one of at most 107 characters");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

[[noreturn]] void fail(const std::string &path, const char *what)
{
    throw std::runtime_error("socket " + path + ": " + what + ": " + std::strerror(errno) +
                             "; check that its folder exists and can be written");
}

void give_to_group(const std::string &path)
{
    const group *owner = getgrnam(SOCKET_GROUP);
    if (owner != nullptr && chown(path.c_str(), static_cast<uid_t>(-1), owner->gr_gid) != 0 && geteuid() == 0)
        fail(path, "cannot be given to its group");
}

} // namespace

Descriptor::~Descriptor()
{
    if (fd_ >= 0)
        close(fd_);
}

Descriptor connect_to(const std::string &path, int type)
{
    const sockaddr_un address = address_of(path);
    Descriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!socket.is_open() ||
        connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        return Descriptor();
    return socket;
}

ListeningSocket::ListeningSocket(const std::string &path, int type) : path_(path)
{
    const sockaddr_un address = address_of(path);
    if (connect_to(path, type).is_open())
        throw std::runtime_error("socket " + path +
                                 " is served by another switch; stop that one or name another path");
    std::error_code ignored; // a folder that cannot be made shows in bind
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    unlink(path.c_str());

    Descriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t old_mask = umask(static_cast<mode_t>(~SOCKET_MODE & 0777));
    const int bound =
        socket.is_open() ? bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) : -1;
    umask(old_mask);
    if (bound != 0)
        fail(path, "cannot be created");
    give_to_group(path);
    if (listen(socket.get(), BACKLOG) != 0)
        fail(path, "cannot listen");
    socket_ = std::move(socket);
}

ListeningSocket::~ListeningSocket()
{
    unlink(path_.c_str());
}

Descriptor ListeningSocket::accept() const
{
    return Descriptor(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

} // namespace olt
