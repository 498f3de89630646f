#include "unix_socket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <stdexcept>
#include <sys/file.h>
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
constexpr mode_t LOCK_MODE = 0600;
constexpr auto FOLDER_MODE = static_cast<std::filesystem::perms>(0755);
constexpr char SOCKET_GROUP[] = "daemon";

[[noreturn]] void fail(const std::string &path, const std::string &what)
{
    throw std::runtime_error("socket " + path + " " + what);
}

[[noreturn]] void fail_with_errno(const std::string &path, const std::string &what)
{
    fail(path, what + ": " + std::strerror(errno) + "; run as root, or name a path in a folder that can be written");
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        fail(path, "cannot be used; choose a path of 1 to 107 characters");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

void make_folder_of(const std::string &path)
{
    const auto folder = std::filesystem::path(path).parent_path();
    std::error_code ignored; // a folder that cannot be made shows in the lock
    if (!folder.empty() && std::filesystem::create_directories(folder, ignored))
        std::filesystem::permissions(folder, FOLDER_MODE, ignored);
}

// Two programs that start at the same moment cannot both have it, unlike the socket file alone.
Descriptor take_lock(const std::string &path)
{
    const std::string name = path + ".lock";
    Descriptor lock(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, LOCK_MODE));
    if (!lock.is_open())
        fail_with_errno(path, "cannot be created beside its lock file");
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        fail(path, "is served by another switch; stop that one, or name another path");
    return lock;
}

void remove_stale(const std::string &path, int type)
{
    struct stat status {
    };
    if (lstat(path.c_str(), &status) != 0)
        return;
    if (!S_ISSOCK(status.st_mode))
        fail(path, "cannot be created: a file that is no socket is there; remove it, or name another path");
    if (connect_to(path, type).is_open())
        fail(path, "is served by another program; stop that one, or name another path");
    unlink(path.c_str());
}

void give_to_group(const std::string &path)
{
    const group *owner = getgrnam(SOCKET_GROUP);
    if (owner != nullptr && chown(path.c_str(), static_cast<uid_t>(-1), owner->gr_gid) != 0 && geteuid() == 0)
        fail_with_errno(path, "cannot be given to its group");
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

ListeningSocket::File::~File()
{
    if (bound_)
        unlink(path_.c_str());
}

void ListeningSocket::File::bind(int socket)
{
    const sockaddr_un address = address_of(path_);
    if (::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        fail_with_errno(path_, "cannot be created");
    bound_ = true;
}

ListeningSocket::ListeningSocket(const std::string &path, int type) : file_(path)
{
    (void)address_of(path); // refuses a bad path before anything is made
    make_folder_of(path);
    lock_ = take_lock(path);
    remove_stale(path, type);
    socket_ = Descriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket_.is_open())
        fail_with_errno(path, "cannot be created");
    file_.bind(socket_.get());
    if (chmod(path.c_str(), SOCKET_MODE) != 0) // nobody can connect before listen()
        fail_with_errno(path, "cannot be protected");
    give_to_group(path);
}

void ListeningSocket::listen() const
{
    if (::listen(socket_.get(), BACKLOG) != 0)
        fail_with_errno(file_.path(), "cannot be listened on");
}

Descriptor ListeningSocket::accept() const
{
    return Descriptor(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

} // namespace olt
