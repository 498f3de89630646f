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

// A socket at a path, for root and group "daemon". Takes over the path of a program that is gone; refuses that of one
// that runs. Throws std::runtime_error with what failed and what to do.
class ListeningSocket
{
  public:
    // Takes the path; connections are refused until listen() is called.
    ListeningSocket(const std::string &path, int type);

    void listen() const;
    int get() const { return socket_.get(); }
    Descriptor accept() const; // non-blocking; not open when nobody waits

  private:
    // The file of a bound socket; goes with its object.
    class File
    {
      public:
        explicit File(std::string path) : path_(std::move(path)) {}
        ~File();
        File(const File &) = delete;
        File &operator=(const File &) = delete;
        void bind(int socket);
        const std::string &path() const { return path_; }

      private:
        std::string path_;
        bool bound_ = false;
    };

    Descriptor lock_; // an advisory lock beside the socket; the kernel drops it with the process
    Descriptor socket_;
    File file_;
};

// A connection to a path, or a descriptor that is not open.
Descriptor connect_to(const std::string &path, int type);

} // namespace olt
