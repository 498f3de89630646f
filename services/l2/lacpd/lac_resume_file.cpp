#include "lac_resume_file.h"

#include "frr/frr.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr char BOOT_ID_FILE[] = "/proc/sys/kernel/random/boot_id";
constexpr mode_t FILE_MODE = 0660; // the datastore's
constexpr std::uint32_t LAST_GROUP = 4;

struct Header {
    std::array<char, 8> magic;
    std::uint32_t version; // grows with every change of LacResume
    std::uint32_t checksum;
};
static_assert(sizeof(Header) + sizeof(LacResume) == LAC_RESUME_SIZE);
constexpr std::array<char, 8> MAGIC = {'L', 'A', 'C', 'P', 'R', 'E', 'S', 'U'};
constexpr std::uint32_t FORMAT = 1;

std::uint32_t checksum_of(const std::uint8_t *record)
{
    return jhash(record, sizeof(LacResume), FORMAT);
}

class Descriptor
{
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor()
    {
        if (number_ >= 0)
            close(number_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    operator int() const { return number_; }

  private:
    int number_;
};

int write_file(const std::string &path, std::span<const std::uint8_t> bytes)
{
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, FILE_MODE));
    if (file < 0 || fchmod(file, FILE_MODE) != 0)
        return errno;
    const ssize_t written = write(file, bytes.data(), bytes.size());
    if (written < 0)
        return errno;
    return static_cast<std::size_t>(written) == bytes.size() ? 0 : ENOSPC;
}

std::uint64_t age_ms(const timespec &moment)
{
    using namespace std::chrono;
    const auto then = seconds(moment.tv_sec) + nanoseconds(moment.tv_nsec);
    const auto age = system_clock::now().time_since_epoch() - then;
    return static_cast<std::uint64_t>(std::max<std::int64_t>(duration_cast<milliseconds>(age).count(), 0));
}

decltype(LacResume::boot) boot_id()
{
    decltype(LacResume::boot) boot{};
    const Descriptor file(open(BOOT_ID_FILE, O_RDONLY | O_CLOEXEC));
    if (file < 0 || read(file, boot.data(), boot.size() - 1) <= 0)
        return {};
    return boot;
}

} // namespace

LacResume lacResumeNow()
{
    LacResume now{};
    now.boot = boot_id();
    now.inventory = intf;
    now.system = lacSystem == nullptr ? Mac{} : lacSystem->system_mac.get();
    return now;
}

std::array<std::uint8_t, LAC_RESUME_SIZE> lacEncodeResume(const LacResume &record)
{
    std::array<std::uint8_t, LAC_RESUME_SIZE> bytes{};
    std::memcpy(bytes.data() + sizeof(Header), &record, sizeof(record));
    const Header header{MAGIC, FORMAT, checksum_of(bytes.data() + sizeof(Header))};
    std::memcpy(bytes.data(), &header, sizeof(header));
    return bytes;
}

const char *lacDecodeResume(std::span<const std::uint8_t> bytes, LacResume &record)
{
    Header header{};
    if (bytes.size() < sizeof(header))
        return "it is cut short";
    std::memcpy(&header, bytes.data(), sizeof(header));
    if (header.magic != MAGIC || header.version != FORMAT)
        return "it is of another kind or version";
    if (bytes.size() != LAC_RESUME_SIZE || header.checksum != checksum_of(bytes.data() + sizeof(header)))
        return "it is damaged";
    std::memcpy(&record, bytes.data() + sizeof(header), sizeof(record));
    if (record.boot != boot_id() || record.boot[0] == 0)
        return "it is of another boot";
    if (std::ranges::any_of(record.ports, [](const LacResumePort &port) { return port.group > LAST_GROUP; }))
        return "it is damaged";
    return nullptr;
}

const char *lacForeignResume(const LacResume &record, const LacResume &now)
{
    if (record.inventory.first_uplink_port != now.inventory.first_uplink_port ||
        record.inventory.last_uplink_port != now.inventory.last_uplink_port)
        return "it is of other ports";
    if (record.system != now.system)
        return "it is of another System ID";
    return nullptr;
}

const char *lacReadResume(const std::string &path, LacResume &record, std::uint64_t &away_ms)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file < 0)
        return errno == ENOENT ? "" : strerror(errno);
    struct stat status {
    };
    std::array<std::uint8_t, LAC_RESUME_SIZE + 1> bytes; // one more: a longer file is damaged
    const ssize_t size =
        fstat(file, &status) == 0 && S_ISREG(status.st_mode) ? read(file, bytes.data(), bytes.size()) : 0;
    away_ms = age_ms(status.st_mtim);
    return lacDecodeResume(std::span(bytes).first(static_cast<std::size_t>(std::max<ssize_t>(size, 0))), record);
}

int lacWriteResume(const std::string &path, const LacResume &record)
{
    const std::string fresh = path + ".new";
    int error = write_file(fresh, lacEncodeResume(record));
    if (error == 0 && rename(fresh.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0) { // what the file says is not true any more
        unlink(fresh.c_str());
        unlink(path.c_str());
    }
    return error;
}

void lacStampResume(const std::string &path)
{
    utimensat(AT_FDCWD, path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
}
