// NAL scanning, the bit reader and the AAC configuration.
#include "aac_config.h"
#include "bit_reader.h"
#include "video_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using Units = std::vector<std::pair<std::size_t, std::uint32_t>>;  // offset and size
using testing::ElementsAre;

Units Split(const Bytes& frame)
{
    CVideoFrameParser parser;
    const bool found = parser.Parse(frame.data(), static_cast<std::uint32_t>(frame.size()));
    Units units;
    for (const _VIDEO_SLICE& unit : parser)
        units.emplace_back(static_cast<std::size_t>(unit.data - frame.data()), unit.size);
    EXPECT_EQ(found, !units.empty());
    return units;
}

// The plain scan, byte by byte.
Units Reference(const Bytes& f)
{
    Units units;
    bool open = false;
    std::size_t start = 0;
    for (std::size_t i = 0; i + 4 <= f.size(); ++i) {
        if (f[i] != 0 || f[i + 1] != 0 || f[i + 2] != 1)
            continue;
        if (open) {
            const std::size_t end = i > 0 && f[i - 1] == 0 ? i - 1 : i;
            units.emplace_back(start, static_cast<std::uint32_t>(end - start));
        }
        start = i + 3;
        open = true;
    }
    if (open)
        units.emplace_back(start, static_cast<std::uint32_t>(f.size() - start));
    return units;
}

template <typename Call>
int Raised(Call call)
{
    try {
        call();
    } catch (int reason) {
        return reason;
    }
    return 0;
}

}  // namespace

// ---- Splitting -------------------------------------------------------------------------------

TEST(Splitting, NeedsFourBytes)
{
    EXPECT_TRUE(Split({}).empty());
    EXPECT_TRUE(Split({0, 0, 1}).empty());
    EXPECT_EQ(Split({0, 0, 1, 0x65}), (Units{{3, 1}}));
}

TEST(Splitting, TakesExactlyOneZeroWithAStartCode)
{
    EXPECT_EQ(Split({0, 0, 1, 9, 0, 0, 1, 8}), (Units{{3, 1}, {7, 1}}));
    EXPECT_EQ(Split({0, 0, 1, 9, 0, 0, 0, 1, 8}), (Units{{3, 1}, {8, 1}}));
    EXPECT_EQ(Split({0, 0, 1, 9, 0, 0, 0, 0, 1, 8}), (Units{{3, 2}, {9, 1}}));
}

TEST(Splitting, DropsWhatStandsBeforeTheFirstStartCode)
{
    EXPECT_EQ(Split({7, 7, 0, 0, 1, 9}), (Units{{5, 1}}));
    EXPECT_TRUE(Split({7, 7, 7, 7, 7, 7}).empty());
}

TEST(Splitting, LeavesAStartCodeAtTheVeryEndAsData)
{
    EXPECT_EQ(Split({0, 0, 1, 9, 0, 0, 1}), (Units{{3, 4}}));
    EXPECT_EQ(Split({0, 0, 1, 9, 0, 0}), (Units{{3, 3}}));
}

TEST(Splitting, KeepsEmptyUnits)
{
    EXPECT_EQ(Split({0, 0, 1, 0, 0, 1, 9}), (Units{{3, 0}, {6, 1}}));
    EXPECT_EQ(Split({0, 0, 1, 0, 0, 0, 1, 9}), (Units{{3, 0}, {7, 1}}));
}

TEST(Splitting, BeginsAnewWithEachFrame)
{
    const Bytes first{0, 0, 1, 9, 0, 0, 1, 8}, second{0, 0, 1, 7}, none{1, 2, 3, 4};
    CVideoFrameParser parser;
    EXPECT_TRUE(parser.Parse(first.data(), 8));
    EXPECT_EQ(parser.size(), 2u);
    EXPECT_TRUE(parser.Parse(second.data(), 4));
    EXPECT_EQ(parser.size(), 1u);
    EXPECT_FALSE(parser.Parse(none.data(), 4));
    EXPECT_TRUE(parser.empty());
    EXPECT_TRUE(parser.Parse(first.data(), 8));
    EXPECT_FALSE(parser.Parse(first.data(), 3));
    EXPECT_TRUE(parser.empty());
}

TEST(Splitting, LeavesTrailingZerosInTheLastUnit)
{
    EXPECT_EQ(Split({0, 0, 1, 9, 0, 0, 0, 0}), (Units{{3, 5}}));
}

TEST(Splitting, EqualsThePlainScanOnTwoMillionRandomFrames)
{
    std::mt19937 random(1);
    Bytes frame;
    for (int n = 0; n < 2000000; ++n) {
        frame.resize(random() % 24);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < frame.size(); ++i) {
            if (i % 10 == 0)
                bits = static_cast<std::uint32_t>(random());
            frame[i] = static_cast<std::uint8_t>(bits % 3);  // 0, 1 or 2
            bits /= 3;
        }
        ASSERT_EQ(Split(frame), Reference(frame)) << testing::PrintToString(frame);
    }
}

TEST(Splitting, EqualsThePlainScanWhereverTheZerosOfLongFramesLie)
{
    std::mt19937 random(2);
    Bytes frame;
    for (int n = 0; n < 50000; ++n) {
        frame.assign(16000 + random() % 1200, 0x55);  // searched in blocks from 16 KiB on
        for (std::size_t left = random() % 40; left > 0; --left) {
            const std::size_t at = random() % (frame.size() - 4);
            const std::size_t zeros = random() % 5;
            std::fill_n(frame.begin() + static_cast<std::ptrdiff_t>(at), zeros, 0);
            frame[at + zeros] = static_cast<std::uint8_t>(random() % 3);
        }
        ASSERT_EQ(Split(frame), Reference(frame)) << testing::PrintToString(frame);
    }
}

TEST(Splitting, FindsAStartCodeAtEveryPlaceOfALongFrame)
{
    for (const std::size_t size : {16383u, 16384u, 16385u, 16640u, 16641u, 16642u, 16643u}) {
        Bytes frame(size, 0xAA);
        for (std::size_t at = 0; at + 4 <= size; at += at < 600 || at + 600 > size ? 1 : 7) {
            frame[at] = frame[at + 1] = 0;
            frame[at + 2] = 1;
            const auto rest = static_cast<std::uint32_t>(size - at - 3);
            ASSERT_EQ(Split(frame), (Units{{at + 3, rest}})) << size << " " << at;
            frame[at] = frame[at + 1] = frame[at + 2] = 0xAA;
        }
    }
}

// ---- NAL types -------------------------------------------------------------------------------

TEST(H264Units, AreKeyOnlyWhenIdrAndSlicesUnlessSeiSetsOrDelimiter)
{
    const CH264Nal nal;
    for (std::uint8_t type = 0; type < 32; ++type) {
        const std::uint8_t header = static_cast<std::uint8_t>(0x60 | type);
        EXPECT_EQ(nal.GetNalType(&header, 1), type);
        EXPECT_EQ(nal.IsKeyFrame(&header, 1), type == 5);
        EXPECT_EQ(nal.IsSliceNal(&header, 1), type < 6 || type > 9) << int{type};
    }
}

TEST(HevcUnits, AreKeyOnlyWhenIdrAndSlicesUpTo21OrPrefixSei)
{
    const CHevcNal nal;
    for (std::uint8_t type = 0; type < 64; ++type) {
        const std::uint8_t header = static_cast<std::uint8_t>(0x81 | type << 1);
        EXPECT_EQ(nal.GetNalType(&header, 1), type);
        EXPECT_EQ(nal.IsKeyFrame(&header, 1), type == 19 || type == 20);
        EXPECT_EQ(nal.IsSliceNal(&header, 1), type <= 21 || type == 39) << int{type};
    }
}

// ---- Bits ------------------------------------------------------------------------------------

TEST(BitReader, ReadsMostSignificantFirst)
{
    const Bytes data{0xA5, 0x0F};
    CBitReader reader(data.data(), 2);
    EXPECT_EQ(reader.ReadBit(), 1u);
    EXPECT_EQ(reader.ReadBits(3), 2u);
    EXPECT_EQ(reader.ReadBits(0), 0u);
    EXPECT_EQ(reader.ReadBits(12), 0x50Fu);
    EXPECT_EQ(reader.BitsLeft(), 0u);
}

TEST(BitReader, RaisesAtTheEndAndAboveAWidthOf63)
{
    const Bytes data(9, 0xFF);
    CBitReader reader(data.data(), 9);
    EXPECT_EQ(Raised([&] { reader.ReadBits(64); }), 28);
    EXPECT_EQ(reader.ReadBits(63), 0x7FFFFFFFFFFFFFFFu);
    EXPECT_EQ(Raised([&] { reader.ReadBits(10); }), 16);
    CBitReader skipper(data.data(), 9);
    EXPECT_EQ(Raised([&] { skipper.SkipBits(72); }), 0);
    EXPECT_EQ(Raised([&] { skipper.SkipBits(1); }), 16);
}

TEST(BitReader, TakesOneZeroBehindTheEndAndRaisesAfterIt)
{
    const Bytes data{0xFF};
    CBitReader reader(data.data(), 1);
    reader.SkipBits(8);
    EXPECT_EQ(reader.ReadBit(), 0u);
    EXPECT_EQ(Raised([&] { reader.ReadBit(); }), 16);
    EXPECT_EQ(Raised([&] { reader.ReadUE(); }), 16);
}

// What passes the end has moved all the same, and the bits left wrap.
TEST(BitReader, StandsBehindTheEndAfterARaise)
{
    const Bytes data{0xFF};
    CBitReader skipper(data.data(), 1);
    EXPECT_EQ(Raised([&] { skipper.SkipBits(10); }), 16);
    EXPECT_EQ(skipper.bitPos, 10u);
    EXPECT_EQ(skipper.BitsLeft(), 0xFFFFFFFFFFFFFFFEu);
    CBitReader reader(data.data(), 1);
    EXPECT_EQ(Raised([&] { reader.ReadBits(9); }), 16);
    EXPECT_EQ(reader.bitPos, 9u);
    EXPECT_EQ(Raised([&] { reader.ReadBits(0); }), 16);
    CBitReader wide(data.data(), 1);
    EXPECT_EQ(Raised([&] { wide.ReadBits(64); }), 28);
    EXPECT_EQ(wide.bitPos, 0u);
}

TEST(ExpGolomb, RaisesAtTheEndOfItsZerosAndOfItsSuffix)
{
    const auto reason = [](const Bytes& data) {
        CBitReader reader(data.data(), data.size());
        return Raised([&] { reader.ReadUE(); });
    };
    EXPECT_EQ(reason({0x1F}), 0);
    EXPECT_EQ(reason({0x08}), 16);  // four zeros, a 1, and three bits where four are due
    EXPECT_EQ(reason({0x00}), 16);
    EXPECT_EQ(reason(Bytes(9, 0)), 16);  // 72 zeros without a 1: the end comes first
    EXPECT_EQ(reason({}), 16);
}

TEST(ExpGolomb, ReadsTheUsualCodes)
{
    // 1, 010, 011, 00100, 00111: 0, 1, 2, 3, 6
    const Bytes data{0b10100110, 0b01000011, 0b10000000};
    CBitReader reader(data.data(), 3);
    EXPECT_EQ(reader.ReadUE(), 0u);
    EXPECT_EQ(reader.ReadUE(), 1u);
    EXPECT_EQ(reader.ReadUE(), 2u);
    EXPECT_EQ(reader.ReadUE(), 3u);
    EXPECT_EQ(reader.ReadUE(), 6u);
}

TEST(ExpGolomb, MapsSignedCodes)
{
    const Bytes data{0b10100110, 0b01000010, 0b10000000};
    CBitReader reader(data.data(), 3);
    EXPECT_EQ(reader.ReadSE(), 0);
    EXPECT_EQ(reader.ReadSE(), 1);
    EXPECT_EQ(reader.ReadSE(), -1);
    EXPECT_EQ(reader.ReadSE(), 2);
    EXPECT_EQ(reader.ReadSE(), -2);
}

// Bases of 2^31 - 1 at 31 zeros, 1 at 33 and again 2^31 - 1 at 63.
TEST(ExpGolomb, TakesItsShiftModulo32)
{
    const auto read = [](std::size_t zeros) {
        Bytes data(20, 0);
        data[zeros / 8] = static_cast<std::uint8_t>(0x80 >> zeros % 8);
        const std::size_t last = 2 * zeros;  // the suffix is 1
        data[last / 8] = static_cast<std::uint8_t>(data[last / 8] | 0x80 >> last % 8);
        CBitReader reader(data.data(), data.size());
        const std::uint64_t value = reader.ReadUE();
        EXPECT_EQ(reader.bitPos, 2 * zeros + 1);
        return value;
    };
    EXPECT_EQ(read(30), 0x40000000u);
    EXPECT_EQ(read(31), 0x80000000u);
    EXPECT_EQ(read(32), 1u);
    EXPECT_EQ(read(33), 2u);
    EXPECT_EQ(read(63), 0x80000000u);
}

TEST(ExpGolomb, CollapsesItsBaseFrom32ZerosOnAndRefuses64)
{
    Bytes data(17, 0);
    data[4] = 0x80;  // 32 zeros, a 1, then a suffix of 32 bits: 5
    data[7] = 0x02;
    data[8] = 0x80;
    CBitReader reader(data.data(), data.size());
    EXPECT_EQ(reader.ReadUE(), 5u);  // base 0 in place of 2^32 - 1
    const Bytes zeros(8, 0);
    Bytes longRun = zeros;
    longRun.push_back(0x80);
    longRun.resize(20, 0);
    CBitReader refused(longRun.data(), longRun.size());
    EXPECT_EQ(Raised([&] { refused.ReadUE(); }), 28);
}

// ---- AAC -------------------------------------------------------------------------------------

TEST(AdtsRates, GoDownTo7350AndEndInZero)
{
    const std::int32_t rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                  16000, 12000, 11025, 8000,  7350,  0,     0,     0};
    for (std::uint32_t index = 0; index < 16; ++index)
        EXPECT_EQ(GetAdtsSampleRate(index), rates[index]);
    EXPECT_EQ(GetAdtsSampleRate(0xFFFFFFFF), 0);
}

TEST(AudioConfig, FollowsTheRateTable)
{
    const auto config = [](std::uint8_t type, std::uint16_t rate, std::uint8_t channels) {
        std::uint8_t bytes[2];
        MakeAudioSpecificConfig(type, rate, channels, bytes);
        return bytes[0] << 8 | bytes[1];
    };
    EXPECT_EQ(config(2, 48000, 2), 0x1190);
    EXPECT_EQ(config(2, 44100, 2), 0x1210);
    EXPECT_EQ(config(2, 16000, 2), 0x1410);
    EXPECT_EQ(config(2, 64000, 2), 0x1110);
    EXPECT_EQ(config(2, 8000, 1), 0x1588);
    const int rates[] = {64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
    for (int index = 2; index < 12; ++index)
        EXPECT_EQ(config(2, static_cast<std::uint16_t>(rates[index - 2]), 2),
                  2 << 11 | index << 7 | 2 << 3);
    for (const int odd : {0, 7350, 30464, 22664, 44101})
        EXPECT_EQ(config(2, static_cast<std::uint16_t>(odd), 2), 0x1210);  // taken for 44100
    EXPECT_EQ(config(2, 48000, 0x12), 0x1190 | 0x80);  // 16 and up spill into the index
    EXPECT_EQ(config(0x22, 48000, 2), 0x1190);         // a type has five bits
}

// 16 falls on the lowest bit of the index, which 4 for 44100 has not.
TEST(AudioConfig, DoesNotMaskItsChannels)
{
    std::uint8_t bytes[2];
    MakeAudioSpecificConfig(2, 44100, 0x12, bytes);
    EXPECT_THAT(bytes, ElementsAre(0x12, 0x90));
}

TEST(AdtsFrames, AreKnownByTwelveBitsFromEightBytesOn)
{
    const auto isAdts = [](std::uint8_t b0, std::uint8_t b1, std::uint32_t size) {
        const std::uint8_t frame[8] = {b0, b1};
        return IsAdtsFrame(frame, size);
    };
    EXPECT_TRUE(isAdts(0xFF, 0xF0, 8));
    EXPECT_TRUE(isAdts(0xFF, 0xFF, 8));
    EXPECT_FALSE(isAdts(0xFF, 0xF1, 7));
    EXPECT_FALSE(isAdts(0xFF, 0xEF, 8));
    EXPECT_FALSE(isAdts(0xFF, 0x7F, 8));
    EXPECT_FALSE(isAdts(0xFE, 0xF1, 8));
    EXPECT_TRUE(isAdts(0xFF, 0xF1, 0x7FFFFFFF));
    EXPECT_FALSE(isAdts(0xFF, 0xF1, 0x80000000));  // the size counts as a signed number
}

TEST(AdtsHeader, GivesProfileRateAndChannels)
{
    const auto read = [](std::uint8_t b2, std::uint8_t b3) {
        const std::uint8_t frame[8] = {0xFF, 0xF1, b2, b3};
        EXPECT_TRUE(IsAdtsFrame(frame, 8));
        EXPECT_FALSE(IsAdtsFrame(frame, 7));
        const AdtsStream s = ReadAdtsHeader(frame);
        return std::vector<int>{s.object_type, s.sample_rate, s.channels};
    };
    EXPECT_THAT(read(0x50, 0x80), ElementsAre(2, 44100, 2));
    EXPECT_THAT(read(0x4C, 0x80), ElementsAre(2, 48000, 2));
    EXPECT_THAT(read(0x60, 0x80), ElementsAre(2, 16000, 2));
    EXPECT_THAT(read(0x4D, 0xC0), ElementsAre(2, 48000, 7));
    EXPECT_THAT(read(0x40, 0x40), ElementsAre(2, 30464, 1));
    EXPECT_THAT(read(0x44, 0x40), ElementsAre(2, 22664, 1));
    EXPECT_THAT(read(0x7C, 0x00), ElementsAre(2, 0, 0));
}

TEST(AdtsHeader, HasAllFourProfiles)
{
    for (const int profile : {0, 1, 2, 3}) {
        const auto b2 = static_cast<std::uint8_t>(profile << 6 | 0x0C);
        const std::uint8_t frame[8] = {0xFF, 0xF1, b2, 0x80};
        const AdtsStream stream = ReadAdtsHeader(frame);
        EXPECT_EQ(stream.sample_rate, 48000);
        EXPECT_EQ(stream.channels, 2);
        EXPECT_EQ(stream.object_type, profile + 1);
    }
}
