// Reads bits and exp-Golomb codes from a plain RBSP, most significant bit first. It knows nothing
// of emulation prevention. Raises plain integers: 16 at the end of the data, 28 for a width above
// 63.
#pragma once

#include <cstdint>

class CBitReader {
public:
    CBitReader(const std::uint8_t* bytes, std::uint64_t byteCount)
        : data(bytes), bitCount(byteCount * 8)
    {
    }

    std::uint32_t ReadBit();
    std::uint64_t ReadBits(std::uint64_t n);
    void SkipBits(std::uint64_t n);
    std::uint64_t BitsLeft() const { return bitCount - bitPos; }
    std::uint64_t ReadUE();
    std::int64_t ReadSE();

    const std::uint8_t* data;   // not owned
    std::uint64_t bitCount;     // size in bits
    std::uint64_t bitPos = 0;   // next bit to read

private:
    // The bit at a position; 0 behind the buffer.
    std::uint32_t BitAt(std::uint64_t position) const
    {
        if (position >= bitCount)
            return 0;
        return std::uint32_t{data[position / 8]} >> (7 - position % 8) & 1;
    }
};
