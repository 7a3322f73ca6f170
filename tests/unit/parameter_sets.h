// Small parameter sets for the tests, composed bit by bit from the syntax tables of ITU-T H.265.
#pragma once

#include "boxes.h"
#include "kv_mp4.h"

#include <cstdint>
#include <string>

class CBits {
public:
    CBits& U(int count, std::uint32_t value)
    {
        for (int bit = count - 1; bit >= 0; --bit)
            m_bits += (value >> bit & 1) ? '1' : '0';
        return *this;
    }
    CBits& Ue(std::uint32_t value)
    {
        int length = 0;
        while ((value + 1) >> (length + 1))
            ++length;
        U(length, 0);
        return U(length + 1, value + 1);
    }
    // Positive values have the odd codes.
    CBits& Se(std::int32_t value)
    {
        return Ue(static_cast<std::uint32_t>(value > 0 ? 2 * value - 1 : -2 * value));
    }
    CBits& Add(const CBits& more)
    {
        m_bits += more.m_bits;
        return *this;
    }
    std::size_t Size() const { return m_bits.size(); }
    // With a stop bit, padded to whole bytes.
    std::string Bytes() const { return Packed(m_bits + '1'); }
    // As they stand, padded with zeros to whole bytes.
    std::string Bare() const { return Packed(m_bits); }

private:
    static std::string Packed(std::string bits)
    {
        bits.resize((bits.size() + 7) / 8 * 8, '0');
        std::string bytes;
        for (std::size_t i = 0; i < bits.size(); i += 8)
            bytes += static_cast<char>(std::stoul(bits.substr(i, 8), nullptr, 2));
        return bytes;
    }

    std::string m_bits;
};

// With emulation prevention bytes: two zeros before 0 to 3 get a 03 between.
inline std::string Escaped(const std::string& rbsp)
{
    std::string bytes;
    int zeros = 0;
    for (const char c : rbsp) {
        if (zeros == 2 && static_cast<unsigned char>(c) <= 3) {
            bytes += '\x03';
            zeros = 0;
        }
        bytes += c;
        zeros = c == 0 ? zeros + 1 : 0;
    }
    return bytes;
}

// Main profile, level 3.1, escaped.
inline const std::string kMainLevel31 = Hex("01 60 00 00 03 00 90 00 00 03 00 00 03 00 5d");

inline std::string HevcVps()
{
    return Hex("40 01 0c 01 ff ff") + kMainLevel31 + Hex("95 98 09");
}

// 4:2:0 at 8 bits; a VUI with a bitstream restriction unless `minSpatial` is negative.
inline std::string HevcSps(int minSpatial = -1, const std::string& tierLevel = kMainLevel31)
{
    CBits bits;
    bits.Ue(0).Ue(1).Ue(64).Ue(64).U(1, 0).Ue(0).Ue(0).Ue(4);
    bits.U(1, 1).Ue(1).Ue(1).Ue(1);                // ordering info
    bits.Ue(0).Ue(1).Ue(0).Ue(1).Ue(0).Ue(0);      // block sizes
    bits.U(1, 0).U(2, 0).U(1, 0).Ue(0).U(1, 0).U(2, 0);
    bits.U(1, minSpatial >= 0);
    if (minSpatial >= 0) {
        bits.U(4, 0).U(3, 0).U(1, 0).U(1, 0).U(1, 1).U(3, 0);
        bits.Ue(static_cast<std::uint32_t>(minSpatial)).Ue(1).Ue(1).Ue(1).Ue(1);
    }
    return Hex("42 01 01") + tierLevel + bits.Bytes();
}

inline std::string HevcPps(bool tiles = false, bool wavefront = false)
{
    CBits bits;
    bits.Ue(0).Ue(0).U(7, 0).Ue(0).Ue(0).Ue(0).U(2, 0).U(1, 0).Ue(0).Ue(0).U(4, 0);
    return Hex("44 01") + bits.U(1, tiles).U(1, wavefront).Bytes();
}

// A record of the sets, which must outlive it; an empty set stays null.
inline mp4_video_track_info Record(std::uint32_t codec, const std::string& vps,
                                   const std::string& sps, const std::string& pps)
{
    const auto bytes = [](const std::string& set) {
        return set.empty() ? nullptr : reinterpret_cast<const std::uint8_t*>(set.data());
    };
    mp4_video_track_info info{};
    info.codec = codec;
    info.width = 1920;
    info.height = 1080;
    info.vps = bytes(vps);
    info.vps_size = static_cast<std::int16_t>(vps.size());
    info.sps = bytes(sps);
    info.sps_size = static_cast<std::int16_t>(sps.size());
    info.pps = bytes(pps);
    info.pps_size = static_cast<std::int16_t>(pps.size());
    return info;
}
