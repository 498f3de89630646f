// Words that one thread writes and others read.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

// A single-word field with one writer (the dispatcher for protocol records, the datastore's event thread for the
// channel-group table) and any number of readers. Readers see the old or the new value, never a mixture. The
// compound operators are a load and a store: they must only be used by the writer.
template <typename T> class Published
{
  public:
    constexpr Published() noexcept = default;
    constexpr Published(T value) noexcept : word_(value) {}
    Published(const Published &other) noexcept : word_(other.get()) {}

    Published &operator=(const Published &other) noexcept { return *this = other.get(); }
    Published &operator=(T value) noexcept
    {
        word_.store(value, std::memory_order_relaxed);
        return *this;
    }
    operator T() const noexcept { return get(); }
    T get() const noexcept { return word_.load(std::memory_order_relaxed); }
    T operator->() const noexcept { return get(); }

    Published &operator|=(T bits) noexcept { return *this = static_cast<T>(get() | bits); }
    Published &operator&=(T bits) noexcept { return *this = static_cast<T>(get() & bits); }
    Published &operator+=(T amount) noexcept { return *this = static_cast<T>(get() + amount); }
    Published &operator-=(T amount) noexcept { return *this = static_cast<T>(get() - amount); }

  private:
    static_assert(std::atomic<T>::is_always_lock_free);
    std::atomic<T> word_{};
};

using Mac = std::array<std::uint8_t, 6>;

// A few octets (a MAC address, say) that are read and replaced as a whole.
template <std::size_t N> class PublishedBytes
{
  public:
    using Bytes = std::array<std::uint8_t, N>;

    PublishedBytes &operator=(const Bytes &bytes) noexcept
    {
        word_ = pack(bytes);
        return *this;
    }
    operator Bytes() const noexcept { return get(); }
    Bytes get() const noexcept { return unpack(word_); }

    static std::uint64_t pack(const Bytes &bytes) noexcept
    {
        std::uint64_t word = 0;
        for (const std::uint8_t byte : bytes)
            word = word << 8 | byte;
        return word;
    }
    static Bytes unpack(std::uint64_t word) noexcept
    {
        Bytes bytes;
        for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, word >>= 8)
            *byte = static_cast<std::uint8_t>(word);
        return bytes;
    }

  private:
    static_assert(N <= sizeof(std::uint64_t));
    Published<std::uint64_t> word_;
};

using PublishedMac = PublishedBytes<6>;
