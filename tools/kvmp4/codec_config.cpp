#include "codec_config.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace {

constexpr std::array<std::uint32_t, 13> kRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                  22050, 16000, 12000, 11025, 8000,  7350};

bool HighProfile(unsigned profile)
{
    static constexpr std::array<unsigned, 13> kHigh = {100, 110, 122, 244, 44,  83, 86,
                                                       118, 128, 138, 139, 134, 135};
    return std::find(kHigh.begin(), kHigh.end(), profile) != kHigh.end();
}

void SkipScalingList(BitFields& bits, unsigned size)
{
    std::int32_t last = 8;
    std::int32_t next = 8;
    for (unsigned i = 0; i < size && bits.Sound(); ++i) {
        if (next != 0)
            next = (last + bits.Se()) & 255;
        last = next == 0 ? last : next;
    }
}

void ReadProfile(FieldReader& f, HevcProfile& profile)
{
    const std::uint8_t first = f.U8();
    profile.space = first >> 6;
    profile.tier = first >> 5 & 1u;
    profile.profile = first & 31u;
    profile.compatibility = f.U32();
    profile.constraints = f.Number(6);
    profile.level = f.U8();
}

// The high bits of a byte that are reserved as ones.
unsigned Masked(FieldReader& f, unsigned reserved, bool& set)
{
    const std::uint8_t byte = f.U8();
    set = set && (byte & reserved) == reserved;
    return byte & ~reserved & 255u;
}

// Reads what the sets cut off the coded picture, in units of the chroma format's samples, with
// `fields` lines to a line of the picture. False when nothing would be left.
template <typename Sps>
bool Crop(BitFields& bits, unsigned chroma, unsigned fields, Sps& sps)
{
    if (!bits.Flag())
        return true;
    const unsigned across = chroma == 1 || chroma == 2 ? 2 : 1;
    const unsigned down = (chroma == 1 ? 2u : 1u) * fields;
    const std::uint32_t horizontal = (bits.Ue() + bits.Ue()) * across;
    const std::uint32_t vertical = (bits.Ue() + bits.Ue()) * down;
    if (horizontal >= sps.width || vertical >= sps.height)
        return false;
    sps.width -= horizontal;
    sps.height -= vertical;
    return true;
}

}  // namespace

std::optional<AvcSps> ParseAvcSps(const Unit& unit)
{
    if (unit.size() < 4 || (unit[0] & 31) != 7)
        return {};
    BitFields bits(unit);
    bits.Skip(8);
    AvcSps sps;
    sps.profile = bits.Bits(8);
    sps.compatibility = bits.Bits(8);
    sps.level = bits.Bits(8);
    bits.Ue();  // id
    bool planes = false;
    if (HighProfile(sps.profile)) {
        sps.chroma = bits.Ue();
        if (sps.chroma == 3)
            planes = bits.Flag();
        sps.lumaDepth = 8 + bits.Ue();
        sps.chromaDepth = 8 + bits.Ue();
        bits.Skip(1);
        if (bits.Flag())
            for (unsigned i = 0; i < (sps.chroma == 3 ? 12u : 8u); ++i)
                if (bits.Flag())
                    SkipScalingList(bits, i < 6 ? 16 : 64);
    }
    bits.Ue();  // frame numbers
    const unsigned order = bits.Ue();
    if (order == 0) {
        bits.Ue();
    } else if (order == 1) {
        bits.Skip(1);
        bits.Se();
        bits.Se();
        const unsigned cycle = bits.Ue();
        for (unsigned i = 0; i < cycle && i < 256; ++i)
            bits.Se();
    }
    bits.Ue();  // reference frames
    bits.Skip(1);
    const std::uint32_t columns = bits.Ue() + 1;
    const std::uint32_t rows = bits.Ue() + 1;
    const bool frames = bits.Flag();
    if (!frames)
        bits.Skip(1);
    bits.Skip(1);
    sps.width = columns * 16;
    sps.height = rows * 16 * (frames ? 1 : 2);
    if (!Crop(bits, planes ? 0 : sps.chroma, frames ? 1 : 2, sps))
        return {};
    if (!bits.Sound() || sps.chroma > 3 || columns > 4096 || rows > 4096)
        return {};
    return sps;
}

std::optional<HevcSps> ParseHevcSps(const Unit& unit)
{
    if (unit.size() < 4 || HevcType(unit[0]) != 33)
        return {};
    BitFields bits(unit);
    bits.Skip(16 + 4);
    HevcSps sps;
    sps.subLayers = bits.Bits(3) + 1;
    bits.Skip(1);
    sps.profile.space = bits.Bits(2);
    sps.profile.tier = bits.Bits(1);
    sps.profile.profile = bits.Bits(5);
    sps.profile.compatibility = bits.Bits(32);
    sps.profile.constraints = std::uint64_t{bits.Bits(16)} << 32;
    sps.profile.constraints |= bits.Bits(32);
    sps.profile.level = bits.Bits(8);
    std::array<std::pair<bool, bool>, 8> present{};
    for (unsigned i = 0; i + 1 < sps.subLayers; ++i) {
        present[i].first = bits.Flag();
        present[i].second = bits.Flag();
    }
    if (sps.subLayers > 1)
        bits.Skip(2 * (9 - sps.subLayers));
    for (unsigned i = 0; i + 1 < sps.subLayers; ++i)
        bits.Skip((present[i].first ? 88u : 0u) + (present[i].second ? 8u : 0u));
    bits.Ue();  // id
    sps.chroma = bits.Ue();
    const bool planes = sps.chroma == 3 && bits.Flag();
    sps.width = bits.Ue();
    sps.height = bits.Ue();
    if (!Crop(bits, planes ? 0 : sps.chroma, 1, sps))
        return {};
    sps.lumaDepth = 8 + bits.Ue();
    sps.chromaDepth = 8 + bits.Ue();
    if (!bits.Sound() || sps.chroma > 3)
        return {};
    return sps;
}

AvcConfig ReadAvcConfig(ByteSource& source, const Box& box)
{
    FieldReader f(source, box.Inside(), box.End());
    AvcConfig config;
    config.version = f.U8();
    config.profile = f.U8();
    config.compatibility = f.U8();
    config.level = f.U8();
    config.lengthSize = Masked(f, 0xFC, config.reservedSet) + 1;
    for (unsigned n = Masked(f, 0xE0, config.reservedSet); n > 0 && f.Sound(); --n)
        config.sps.push_back(f.Bytes(f.U16()));
    for (unsigned n = f.U8(); n > 0 && f.Sound(); --n)
        config.pps.push_back(f.Bytes(f.U16()));
    if (f.Sound() && f.Left() >= 4 && HighProfile(config.profile)) {
        config.hasExtension = true;
        config.chroma = Masked(f, 0xFC, config.reservedSet);
        config.lumaDepth = 8 + Masked(f, 0xF8, config.reservedSet);
        config.chromaDepth = 8 + Masked(f, 0xF8, config.reservedSet);
        for (unsigned n = f.U8(); n > 0 && f.Sound(); --n)
            config.extensions.push_back(f.Bytes(f.U16()));
    }
    config.left = f.Left();
    config.whole = f.Sound();
    return config;
}

HevcConfig ReadHevcConfig(ByteSource& source, const Box& box)
{
    FieldReader f(source, box.Inside(), box.End());
    HevcConfig config;
    config.version = f.U8();
    ReadProfile(f, config.profile);
    const std::uint16_t spatial = f.U16();
    config.reservedSet = spatial >> 12 == 15;
    config.spatialSegmentation = spatial & 0xFFFu;
    config.parallelism = Masked(f, 0xFC, config.reservedSet);
    config.chroma = Masked(f, 0xFC, config.reservedSet);
    config.lumaDepth = 8 + Masked(f, 0xF8, config.reservedSet);
    config.chromaDepth = 8 + Masked(f, 0xF8, config.reservedSet);
    config.frameRate = f.U16();
    const std::uint8_t last = f.U8();
    config.constantRate = last >> 6;
    config.layers = last >> 3 & 7u;
    config.nested = last >> 2 & 1u;
    config.lengthSize = (last & 3u) + 1;
    for (unsigned n = f.U8(); n > 0 && f.Sound(); --n) {
        const std::uint8_t head = f.U8();
        HevcConfig::Array array{head >> 7 != 0, head & 63u, {}};
        for (unsigned units = f.U16(); units > 0 && f.Sound(); --units)
            array.units.push_back(f.Bytes(f.U16()));
        config.arrays.push_back(array);
    }
    config.left = f.Left();
    config.whole = f.Sound();
    return config;
}

const HevcConfig::Array* HevcConfig::Of(unsigned type) const
{
    const auto found = std::find_if(arrays.begin(), arrays.end(),
                                    [&](const Array& array) { return array.type == type; });
    return found == arrays.end() ? nullptr : &*found;
}

std::optional<AacConfig> ParseAacConfig(const std::vector<std::uint8_t>& bytes)
{
    // BitFields takes out what looks like an emulation prevention byte; a configuration is too
    // short to hold one before the fields that are read here.
    BitFields bits(bytes);
    const auto type = [&] {
        const unsigned plain = bits.Bits(5);
        return plain == 31 ? 32 + bits.Bits(6) : plain;
    };
    const auto rate = [&](unsigned index) {
        return index == 15 ? bits.Bits(24) : index < kRates.size() ? kRates[index] : 0;
    };
    AacConfig config;
    config.objectType = type();
    config.rateIndex = bits.Bits(4);
    config.rate = rate(config.rateIndex);
    config.channelsIndex = bits.Bits(4);
    config.channels = config.channelsIndex == 7                                  ? 8
                      : config.channelsIndex == 11                               ? 7
                      : config.channelsIndex == 12 || config.channelsIndex == 14 ? 8
                      : config.channelsIndex < 7 ? config.channelsIndex
                                                 : 0;
    config.outputRate = config.rate;
    if (config.objectType == 5 || config.objectType == 29) {
        config.outputRate = rate(bits.Bits(4));
        config.objectType = type();
    }
    if (!bits.Sound())
        return {};
    return config;
}

Esds ReadEsds(ByteSource& source, const Box& box)
{
    FieldReader f(source, box.Inside(), box.End());
    Esds esds;
    const auto expect = [&](bool holds, const std::string& what) {
        if (!holds && esds.damage.empty())
            esds.damage = what;
    };
    // The end of a descriptor that begins here and has this tag.
    const auto open = [&](unsigned tag, std::uint64_t around) {
        std::uint32_t length = 0;
        const unsigned found = f.Descriptor(length);
        expect(found == tag, fmt::format("a descriptor {} where {} should be", found, tag));
        expect(f.At() + length <= around,
               fmt::format("a descriptor {} of {} bytes with {} left", tag, length,
                           around - std::min(around, f.At())));
        return std::min(f.At() + length, around);
    };
    esds.versionFlags = f.U32();
    const std::uint64_t whole = open(3, f.End());
    esds.esId = f.U16();
    const std::uint8_t flags = f.U8();
    if (flags & 0x80)
        f.Skip(2);
    if (flags & 0x40)
        f.Skip(f.U8());
    if (flags & 0x20)
        f.Skip(2);
    const std::uint64_t decoder = open(4, whole);
    esds.objectType = f.U8();
    const std::uint8_t stream = f.U8();
    esds.streamType = stream >> 2;
    esds.upStream = stream >> 1 & 1u;
    esds.bufferSize = f.U24();
    esds.maxRate = f.U32();
    esds.averageRate = f.U32();
    while (f.Sound() && esds.damage.empty() && f.At() < decoder) {
        std::uint32_t length = 0;
        const unsigned tag = f.Descriptor(length);
        expect(f.At() + length <= decoder,
               fmt::format("a descriptor {} of {} bytes beyond the one around it", tag, length));
        if (!esds.damage.empty())
            break;
        if (tag == 5) {
            esds.hasConfig = true;
            esds.config = f.Bytes(length);
        } else {
            f.Skip(length);
        }
    }
    expect(f.At() == decoder, "descriptor 4 ends inside another");
    while (f.Sound() && esds.damage.empty() && f.At() < whole) {
        std::uint32_t length = 0;
        const unsigned tag = f.Descriptor(length);
        const std::uint64_t end = f.At() + length;
        expect(end <= whole,
               fmt::format("a descriptor {} of {} bytes beyond descriptor 3", tag, length));
        if (!esds.damage.empty())
            break;
        if (tag == 6) {
            esds.hasSl = true;
            esds.sl = length > 0 ? f.U8() : 0;
        }
        f.Skip(end - std::min(end, f.At()));
    }
    expect(f.Sound(), "it is cut");
    expect(f.At() == f.End(), fmt::format("{} bytes behind the descriptors", f.Left()));
    return esds;
}
