// What random sequences and fuzz targets share: their input as a supply of choices, and checks.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <unistd.h>

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
    std::uint32_t number(int octets) // big-endian
    {
        std::uint32_t value = 0;
        for (; octets > 0; --octets)
            value = value << 8 | (rest_.empty() ? 0 : bytes(1)[0]);
        return value;
    }
    std::uint8_t byte() { return static_cast<std::uint8_t>(number(1)); }
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
    if (!holds) {
        dprintf(STDERR_FILENO, "does not hold: %s\n", what);
        abort();
    }
}

} // namespace fuzz
