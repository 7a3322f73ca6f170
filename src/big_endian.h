// Numbers as the files carry them: the most significant byte first. Written out, so that the
// compiler makes one swap and one move of each; these run for every frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

// The lowest `Width` bytes of `value`.
template <std::size_t Width>
inline void StoreBE(std::uint8_t* bytes, std::uint64_t value)
{
    [bytes, value]<std::size_t... I>(std::index_sequence<I...>) {
        ((bytes[I] = static_cast<std::uint8_t>(value >> 8 * (Width - 1 - I))), ...);
    }(std::make_index_sequence<Width>());
}

template <typename T>
inline T LoadBE(const std::uint8_t* bytes)
{
    return [bytes]<std::size_t... I>(std::index_sequence<I...>) {
        return static_cast<T>((... | (std::uint64_t{bytes[I]} << 8 * (sizeof(T) - 1 - I))));
    }(std::make_index_sequence<sizeof(T)>());
}
