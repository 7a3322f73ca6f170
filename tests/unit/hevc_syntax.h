// Parameter sets stretch by stretch, so that a test can replace one stretch and see whether the
// walk still arrives at the mark behind it. Composed from the syntax tables of ITU-T H.265.
#pragma once

#include "hevc_config.h"
#include "parameter_sets.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using Config = HEVCDecoderConfigurationRecord;

// The general part of profile_tier_level( ): 96 bits.
struct TierLevel {
    std::uint32_t space = 0;
    std::uint32_t tier = 0;
    std::uint32_t profile = 1;
    std::uint32_t compatibility = 0x60000000;
    std::uint64_t constraints = 0x900000000000;
    std::uint32_t level = 93;

    CBits Bits() const
    {
        return CBits()
            .U(2, space)
            .U(1, tier)
            .U(5, profile)
            .U(32, compatibility)
            .U(16, static_cast<std::uint32_t>(constraints >> 32))
            .U(32, static_cast<std::uint32_t>(constraints))
            .U(8, level);
    }
};

// The flags of `count` sub-layers that have nothing, with the reserved bits.
inline CBits NoSubLayers(std::uint32_t count)
{
    return CBits().U(count == 0 ? 0 : 16, 0);
}

// A value that no walk meets by chance.
inline constexpr std::uint32_t kMark = 1234;

// bitstream_restriction_flag and what it brings.
inline CBits Restriction(std::uint32_t minSpatial)
{
    return CBits().U(1, 1).U(3, 0).Ue(minSpatial).Ue(2).Ue(1).Ue(15).Ue(15);
}

// vui_parameters( ); each stretch without its options.
struct Vui {
    CBits aspect = CBits().U(1, 0);
    CBits overscan = CBits().U(1, 0);
    CBits signal = CBits().U(1, 0);
    CBits chromaLocation = CBits().U(1, 0);
    CBits fields = CBits().U(3, 5);
    CBits window = CBits().U(1, 0);
    CBits timing = CBits().U(1, 0);
    CBits restriction = Restriction(kMark);

    CBits Bits() const
    {
        CBits bits;
        for (const CBits* stretch : {&aspect, &overscan, &signal, &chromaLocation, &fields,
                                     &window, &timing, &restriction})
            bits.Add(*stretch);
        return bits;
    }
};

// seq_parameter_set_rbsp( ) up to the VUI; the VUI brings the mark.
struct Sps {
    std::uint32_t subLayersMinus1 = 0;
    std::uint32_t nesting = 1;
    TierLevel tierLevel;
    CBits chroma = CBits().Ue(1);
    CBits size = CBits().Ue(1920).Ue(1080);
    CBits window = CBits().U(1, 0);
    CBits depths = CBits().Ue(0).Ue(0);
    CBits poc = CBits().Ue(4);
    CBits ordering = CBits().U(1, 0).Ue(4).Ue(2).Ue(5);
    CBits blocks = CBits().Ue(0).Ue(3).Ue(0).Ue(3).Ue(1).Ue(2);
    CBits scaling = CBits().U(1, 0);
    CBits tools = CBits().U(2, 3);
    CBits pcm = CBits().U(1, 0);
    CBits shortTerm = CBits().Ue(0);
    CBits longTerm = CBits().U(1, 0);
    CBits motion = CBits().U(2, 3);
    CBits vui = CBits().U(1, 1).Add(Vui().Bits());

    // Behind the NAL header.
    CBits Bits() const
    {
        CBits bits = CBits().U(4, 0).U(3, subLayersMinus1).U(1, nesting);
        bits.Add(tierLevel.Bits()).Add(NoSubLayers(subLayersMinus1)).Ue(0);
        for (const CBits* stretch : {&chroma, &size, &window, &depths, &poc, &ordering, &blocks,
                                     &scaling, &tools, &pcm, &shortTerm, &longTerm, &motion, &vui})
            bits.Add(*stretch);
        return bits;
    }
    std::string Nal() const { return Hex("42 01") + Escaped(Bits().Bytes()); }
};

// video_parameter_set_rbsp( ) up to the level, which is all that is read of it.
struct Vps {
    std::uint32_t subLayersMinus1 = 0;
    TierLevel tierLevel;

    CBits Bits() const
    {
        CBits bits = CBits().U(12, 0x0C0).U(3, subLayersMinus1).U(17, 0x1FFFF);
        return bits.Add(tierLevel.Bits()).Add(NoSubLayers(subLayersMinus1));
    }
    std::string Nal() const { return Hex("40 01") + Escaped(Bits().Bytes()); }
};

// pic_parameter_set_rbsp( ) up to its two flags.
struct Pps {
    std::uint32_t tiles = 0;
    std::uint32_t wavefront = 0;
    CBits quantization = CBits().U(1, 0);  // cu_qp_delta
    std::uint32_t id = 3;

    CBits Bits() const
    {
        CBits bits = CBits().Ue(id).Ue(0).U(7, 0x15).Ue(2).Ue(1).Se(-3).U(2, 1);
        return bits.Add(quantization).Se(5).Se(-6).U(4, 9).U(1, tiles).U(1, wavefront);
    }
    std::string Nal() const { return Hex("44 01") + Escaped(Bits().Bytes()); }
};

// Parses a unit into the record; the unit itself is not kept.
inline bool Parse(Config& config, const std::string& nal)
{
    return ParseHevcNal(&config, reinterpret_cast<const std::uint8_t*>(nal.data()),
                        static_cast<std::int32_t>(nal.size()));
}

// What good units leave in a fresh record.
inline Config Parsed(const std::vector<std::string>& nals)
{
    Config config;
    for (const std::string& nal : nals)
        EXPECT_TRUE(Parse(config, nal));
    return config;
}

// The position where a walk ends that begins with `bits`; more bits, all ones, follow them.
template <typename Walk>
std::uint64_t End(const CBits& bits, Walk walk)
{
    const std::string bytes = CBits(bits).U(32, 0xFFFFFFFF).Bare();
    CBitReader reader(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    walk(reader);
    return reader.bitPos;
}

// The integer that a walk over `bytes` raises; 0 for none.
template <typename Walk>
int Reason(const std::string& bytes, Walk walk)
{
    CBitReader reader(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    try {
        walk(reader);
    } catch (int reason) {
        return reason;
    }
    return 0;
}

inline int SpsReason(const Sps& sps)
{
    Config config;
    return Reason(sps.Bits().Bytes(), [&](CBitReader& reader) { ParseSps(&config, reader); });
}
