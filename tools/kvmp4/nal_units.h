// The NAL units of an Annex B byte stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Calls `use` with each unit's bytes and size, without start codes and trailing zeros.
template <typename Use>
void ForEachUnit(const std::uint8_t* data, std::size_t size, Use use)
{
    // The next 00 00 01 from `from` on: its place, or `size`. The byte 01 is the rare one.
    const auto startCode = [&](std::size_t from) {
        for (std::size_t at = from + 2; at < size; ++at) {
            const void* const one = std::memchr(data + at, 1, size - at);
            if (!one)
                break;
            at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(one) - data);
            if (data[at - 1] == 0 && data[at - 2] == 0)
                return at - 2;
        }
        return size;
    };
    for (std::size_t start = startCode(0); start < size;) {
        const std::size_t begin = start + 3;
        start = startCode(begin);
        std::size_t end = start;
        while (end > begin && data[end - 1] == 0)
            --end;  // a unit never ends with a zero byte
        if (end > begin)
            use(data + begin, end - begin);
    }
}
