// Descriptors and listening Unix sockets.
#pragma once

#include <string>
#include <utility>

namespace olt
{

class Descriptor
{
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor();
    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }

  private:
    int fd_;
};

// A listening socket at a path, for root and group "daemon". Takes over the path of a switch that is gone; refuses
// that of one that runs. Throws std::runtime_error with what failed and what to do.
class ListeningSocket
{
  public:
    ListeningSocket(const std::string &path, int type);
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket &) = delete;
    ListeningSocket &operator=(const ListeningSocket &) = delete;

    int get() const { return socket_.get(); }
    Descriptor accept() const; // non-blocking; not open when nobody waits

  private:
    std::string path_;
    Descriptor socket_;
};

// A connection to a path, or a descriptor that is not open.
Descriptor connect_to(const std::string &path, int type);

} // namespace olt
