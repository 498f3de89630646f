// What the fuzz targets share: their input as a supply of choices, checks, and quiet.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <span>
#include <string>
#include <unistd.h>
#include <utility>

namespace fuzz
{

// Takes an input from its front; gives zeros when it is used up.
class Input
{
  public:
    Input(const std::uint8_t *data, std::size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }
    std::span<const std::uint8_t> bytes(std::size_t count)
    {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    std::uint8_t byte()
    {
        const auto taken = bytes(1);
        return taken.empty() ? 0 : taken[0];
    }
    std::uint32_t number(int octets) // big-endian
    {
        std::uint32_t value = 0;
        while (octets-- > 0)
            value = value << 8 | byte();
        return value;
    }
    std::uint32_t below(std::uint32_t limit) { return byte() % limit; }
    template <typename Choices> const auto &pick(const Choices &choices)
    {
        return choices[below(static_cast<std::uint32_t>(std::size(choices)))];
    }
    std::string text(std::size_t count)
    {
        const auto taken = bytes(count);
        return {taken.begin(), taken.end()};
    }

  private:
    std::span<const std::uint8_t> rest_;
};

// Aborts when something that must hold does not: the fuzzer keeps the input.
inline void require(bool holds, const char *what)
{
    if (holds)
        return;
    dprintf(STDERR_FILENO, "does not hold: %s\n", what);
    abort();
}

// While it lives nothing is printed through the streams.
class Quiet
{
  public:
    Quiet()
    {
        static FILE *const nowhere = fopen("/dev/null", "w");
        stdout = stderr = nowhere;
    }
    ~Quiet()
    {
        stdout = out_;
        stderr = error_;
        std::cout.rdbuf(cout_);
        std::cerr.rdbuf(cerr_);
        std::cout.clear();
        std::cerr.clear();
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

  private:
    FILE *out_ = stdout;
    FILE *error_ = stderr;
    std::streambuf *cout_ = std::cout.rdbuf(nullptr);
    std::streambuf *cerr_ = std::cerr.rdbuf(nullptr);
};

} // namespace fuzz
