// What parameter sets and configuration boxes say of a stream, as far as a file repeats it.
#pragma once

#include "box_tree.h"
#include "byte_source.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

using Unit = std::vector<std::uint8_t>;  // a NAL unit, header first, as in the file

struct AvcSps {
    unsigned profile = 0, compatibility = 0, level = 0;
    unsigned chroma = 1, lumaDepth = 8, chromaDepth = 8;
    unsigned width = 0, height = 0;
};
std::optional<AvcSps> ParseAvcSps(const Unit& unit);

struct HevcProfile {
    unsigned space = 0, tier = 0, profile = 0, level = 0;
    std::uint32_t compatibility = 0;
    std::uint64_t constraints = 0;
};
struct HevcSps {
    HevcProfile profile;
    unsigned subLayers = 1;
    unsigned chroma = 1, lumaDepth = 8, chromaDepth = 8;
    unsigned width = 0, height = 0;
};
std::optional<HevcSps> ParseHevcSps(const Unit& unit);
inline unsigned HevcType(std::uint8_t first)
{
    return first >> 1 & 63u;
}

struct AvcConfig {
    unsigned version = 0, profile = 0, compatibility = 0, level = 0;
    unsigned lengthSize = 4;
    bool reservedSet = true;  // the bits that must be 1
    std::vector<Unit> sps, pps, extensions;
    bool hasExtension = false;  // of the high profiles
    unsigned chroma = 1, lumaDepth = 8, chromaDepth = 8;
    std::uint64_t left = 0;  // bytes behind the last field
    bool whole = false;      // all fields were there
};
AvcConfig ReadAvcConfig(ByteSource& source, const Box& box);

struct HevcConfig {
    unsigned version = 0;
    HevcProfile profile;
    bool reservedSet = true;
    unsigned spatialSegmentation = 0, parallelism = 0;
    unsigned chroma = 1, lumaDepth = 8, chromaDepth = 8;
    unsigned frameRate = 0, constantRate = 0, layers = 0, nested = 0, lengthSize = 4;
    struct Array {
        bool complete;
        unsigned type;
        std::vector<Unit> units;
    };
    std::vector<Array> arrays;
    std::uint64_t left = 0;
    bool whole = false;

    const Array* Of(unsigned type) const;
};
HevcConfig ReadHevcConfig(ByteSource& source, const Box& box);

// An AudioSpecificConfig of ISO/IEC 14496-3.
struct AacConfig {
    unsigned objectType = 0;
    unsigned rateIndex = 0;
    std::uint32_t rate = 0;  // 0 for a reserved index
    unsigned channelsIndex = 0;
    unsigned channels = 0;         // 0 where a program config element says it
    std::uint32_t outputRate = 0;  // of an explicit SBR extension
};
std::optional<AacConfig> ParseAacConfig(const std::vector<std::uint8_t>& bytes);

struct Esds {
    std::uint32_t versionFlags = 0;
    unsigned esId = 0, objectType = 0, streamType = 0, upStream = 0;
    std::uint32_t bufferSize = 0, maxRate = 0, averageRate = 0;
    std::vector<std::uint8_t> config;  // what tells the decoder
    bool hasConfig = false, hasSl = false;
    unsigned sl = 0;
    std::string damage;  // the first thing that does not hold together
};
Esds ReadEsds(ByteSource& source, const Box& box);
