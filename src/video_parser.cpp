#include "video_parser.h"

#include <algorithm>
#include <cstring>

namespace {

// Room for the units of a usual frame, so that a frame costs one allocation.
constexpr std::size_t kUsualUnits = 16;

// Below this many bytes looking at blocks first costs more than it saves.
constexpr std::uint32_t kLongFrame = 16384;

// Bytes that are looked at together. Compilers make vector code of the loop below.
constexpr std::ptrdiff_t kBlock = 256;

// Whether two zeros stand side by side in a block and the byte behind it.
bool HasZeroPair(const std::uint8_t* block)
{
    std::uint8_t least = 0xFF;
    for (std::ptrdiff_t i = 0; i < kBlock; ++i)
        least = std::min(least, std::max(block[i], block[i + 1]));
    return least == 0;
}

}  // namespace

bool CVideoFrameParser::Parse(const std::uint8_t* frame, std::uint32_t size)
{
    clear();
    if (size <= 3)
        return false;
    reserve(kUsualUnits);
    const std::uint8_t* const end = frame + size;
    const std::uint8_t* unit = nullptr;  // the open unit's first byte
    // A start code is found by its 01, which may stand anywhere but in the first two bytes and the
    // last one. Encoded data seldom holds two zeros in a row: of a long frame, blocks without them
    // are passed over. Kept: a start code at the very end is data of the unit before it.
    const std::uint8_t* const last = end - 1;
    const std::uint8_t* limit = last;
    for (const std::uint8_t* start = frame + 2; start < last; start = limit) {
        if (size >= kLongFrame) {
            limit = start + std::min(kBlock, last - start);
            if (end - (start - 2) > kBlock && !HasZeroPair(start - 2))
                continue;
        }
        for (const std::uint8_t* one = start; one < limit; ++one) {
            one = static_cast<const std::uint8_t*>(
                std::memchr(one, 1, static_cast<std::size_t>(limit - one)));
            if (!one)
                break;
            if (one[-1] != 0 || one[-2] != 0)
                continue;
            const std::uint8_t* const code = one - 2;
            if (unit) {
                // Kept: exactly one zero goes with a four-byte start code; more stay in the unit
                // before, and a unit of no bytes stays too: samples hold what the encoder sent.
                const std::uint8_t* const stop = code[-1] == 0 ? code - 1 : code;
                push_back({static_cast<std::uint32_t>(stop - unit), unit});
            }
            unit = one + 1;
        }
    }
    if (unit)
        push_back({static_cast<std::uint32_t>(end - unit), unit});
    return !empty();
}

// ---- H.264 ---------------------------------------------------------------------------------

std::uint8_t CH264Nal::GetNalType(const std::uint8_t* nal, std::uint32_t) const
{
    return nal[0] & 0x1F;
}

bool CH264Nal::IsSliceNal(const std::uint8_t* nal, std::uint32_t size) const
{
    const std::uint8_t type = GetNalType(nal, size);
    return type < 6 || type > 9;  // not SEI, SPS, PPS, AUD
}

bool CH264Nal::IsKeyFrame(const std::uint8_t* nal, std::uint32_t size) const
{
    return GetNalType(nal, size) == 5;  // IDR
}

// ---- HEVC ----------------------------------------------------------------------------------

std::uint8_t CHevcNal::GetNalType(const std::uint8_t* nal, std::uint32_t) const
{
    return nal[0] >> 1 & 0x3F;
}

bool CHevcNal::IsSliceNal(const std::uint8_t* nal, std::uint32_t size) const
{
    const std::uint8_t type = GetNalType(nal, size);
    return type <= 21 || type == 39;  // Kept: prefix SEI counts as picture data here
}

bool CHevcNal::IsKeyFrame(const std::uint8_t* nal, std::uint32_t size) const
{
    const std::uint8_t type = GetNalType(nal, size);
    return type == 19 || type == 20;  // Kept: CRA and BLA are no key frames
}
