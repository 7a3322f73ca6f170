#include "bit_reader.h"

namespace {

constexpr int kEndOfBits = 16;
constexpr int kTooWide = 28;
constexpr std::uint64_t kWidest = 63;

}  // namespace

std::uint32_t CBitReader::ReadBit()
{
    // Kept: a read exactly at the end passes and takes a 0; parameter sets end that way.
    if (bitPos > bitCount)
        throw kEndOfBits;
    return BitAt(bitPos++);
}

std::uint64_t CBitReader::ReadBits(std::uint64_t n)
{
    if (n > kWidest)
        throw kTooWide;
    const std::uint64_t start = bitPos;
    bitPos += n;
    if (bitPos > bitCount)
        throw kEndOfBits;
    std::uint64_t value = 0;
    for (std::uint64_t position = start; position < bitPos; ++position)
        value = value << 1 | BitAt(position);
    return value;
}

void CBitReader::SkipBits(std::uint64_t n)
{
    bitPos += n;
    if (bitPos > bitCount)
        throw kEndOfBits;
}

std::uint64_t CBitReader::ReadUE()
{
    if (bitPos > bitCount)
        throw kEndOfBits;
    std::uint64_t zeros = 0;
    while (BitAt(bitPos++) == 0) {
        ++zeros;
        if (bitPos > bitCount)
            throw kEndOfBits;
    }
    if (zeros > kWidest)
        throw kTooWide;
    const std::uint64_t suffix = ReadBits(zeros);
    // Kept: the base is a 32-bit number whose shift is taken modulo 32, then sign-extended; it is
    // the usual code up to 31 zeros.
    const auto base = static_cast<std::int32_t>((std::uint32_t{1} << (zeros % 32)) - 1);
    return static_cast<std::uint64_t>(std::int64_t{base}) + suffix;
}

std::int64_t CBitReader::ReadSE()
{
    const std::uint64_t code = ReadUE();
    const auto half = static_cast<std::int64_t>(code >> 1);
    return code & 1 ? half + 1 : -half;
}
