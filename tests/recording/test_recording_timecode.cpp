// The time-code track: its one sample, its description, and what it takes from the video track.
#include "support/checkpoints.h"
#include "support/forms.h"
#include "support/recording.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kMedia = "moov/trak.tmcd/mdia/";
const std::string kTables = kMedia + "minf/stbl/";

std::uint32_t SetTimeCode(Recording& rec, std::uint32_t timescale = 30000,
                          std::uint64_t frameDuration = 1001, std::uint8_t frames = 30,
                          std::uint32_t flags = 1)
{
    const mp4_time_code_track_info info{timescale, frameDuration, frames, flags};
    return mp4_set_time_code_track(rec.Handle(), &info);
}

std::uint32_t TimeCode(Recording& rec, std::uint32_t value)
{
    return mp4_write_time_code(rec.Handle(), value);
}

struct TimeCodeTrack : testing::TestWithParam<Form> {
    Recording rec{GetParam().name, GetParam().flags};
};

INSTANTIATE_TEST_SUITE_P(Forms, TimeCodeTrack, testing::ValuesIn(kForms), FormName);

}  // namespace

// ---- The sample ------------------------------------------------------------------------------

TEST_P(TimeCodeTrack, TheSampleIsTheValueInFourBytes)
{
    SetTimeCode(rec);
    EXPECT_EQ(TimeCode(rec, 0x01A5E0F3), 0u);
    EXPECT_THAT(Samples(rec.Close(), "trak.tmcd"), ElementsAre(Hex("01A5E0F3")));
}

TEST_P(TimeCodeTrack, OneSampleSpansTheWholeVideo)
{
    rec.SetH264();
    SetTimeCode(rec);
    EXPECT_EQ(TimeCode(rec, 0), 0u);
    for (std::uint64_t time = 0; time < 10000; time += 40)
        rec.FramesAt({time});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 1, 300000}));
    EXPECT_EQ(Words(file.Box(kMedia + "mdhd"), 20), (Numbers{30000, 300000, 0x55C40000}));
    EXPECT_EQ(file.U32(file.Find("moov/trak.tmcd/tkhd").begin + 28), 10000u);
    EXPECT_EQ(file.U32(file.Find("moov/trak.tmcd/edts/elst").begin + 16), 10000u);
}

TEST_P(TimeCodeTrack, TwoSamplesHaveADeltaOfZero)
{
    rec.SetH264();
    SetTimeCode(rec);
    EXPECT_EQ(TimeCode(rec, 1), 0u);
    rec.FramesAt({0, 40});
    EXPECT_EQ(TimeCode(rec, 2), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 2, 0}));
    EXPECT_EQ(Words(file.Box(kTables + "stsz"), 12), (Numbers{4, 2}));
    EXPECT_THAT(Samples(file, "trak.tmcd"), ElementsAre(Hex("00000001"), Hex("00000002")));
}

TEST_P(TimeCodeTrack, WithoutVideoLastsNoTime)
{
    SetTimeCode(rec);
    EXPECT_EQ(TimeCode(rec, 7), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.tmcd"), ElementsAre(Hex("00000007")));
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 1, 0}));
    EXPECT_EQ(Words(file.Box(kMedia + "mdhd"), 20), (Numbers{30000, 0, 0x55C40000}));
    EXPECT_EQ(file.U32(file.Find("moov/trak.tmcd/tkhd").begin + 28), 0u);
}

// 25 x 6006 / 90000 is 1.67, and one tick of 25 is 40 ms.
TEST(ATimeCode, LastsTheWholeTicksOfTheVideo)
{
    Recording rec;
    rec.SetH264(90000);
    SetTimeCode(rec, 25, 1, 25, 0);
    EXPECT_EQ(TimeCode(rec, 0), 0u);
    rec.FramesAt({0, 3003});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 1, 1}));
    EXPECT_EQ(Words(file.Box(kMedia + "mdhd"), 20), (Numbers{25, 1, 0x55C40000}));
    EXPECT_EQ(file.U32(file.Find("moov/trak.tmcd/tkhd").begin + 28), 40u);
    EXPECT_EQ(file.U32(file.Find("moov/trak.tmcd/edts/elst").begin + 16), 40u);
}

// The video had 80 ms at the checkpoint; its last picture keeps the 40 of that moment.
TEST(ATimeCode, LastsAsLongAsTheVideoAtEachMoov)
{
    ExternalSink sink;
    Recording rec(sink, "clip.mp4", MP4_OPEN_SAFE_MODE);
    rec.SetH264();
    SetTimeCode(rec);
    SetSafeParam(rec.Handle(), {0, 100, 0, 0});
    EXPECT_EQ(TimeCode(rec, 0), 0u);
    rec.FramesAt({0, 40});  // 48 + 26 and 62 + 26 do not pass 100
    EXPECT_FALSE(sink.File().Has("moov"));
    rec.FramesAt({120});    // 76 + 26 does
    EXPECT_EQ(Words(sink.File().Box(kTables + "stts"), 12), (Numbers{1, 1, 2400}));
    EXPECT_EQ(Words(rec.Close().Box(kTables + "stts"), 12), (Numbers{1, 1, 4800}));
}

TEST(ATimeCode, OpensItsOwnChunkBehindAnotherTrack)
{
    Recording rec;
    rec.SetH264();
    SetTimeCode(rec);
    rec.FramesAt({0});  // 14 bytes in the file
    EXPECT_EQ(TimeCode(rec, 1), 0u);
    EXPECT_EQ(TimeCode(rec, 2), 0u);
    rec.FramesAt({40});
    EXPECT_EQ(TimeCode(rec, 3), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stco"), 12), (Numbers{2, 44 + 14, 44 + 14 + 8 + 14}));
    EXPECT_EQ(Words(file.Box(kTables + "stsc"), 12), (Numbers{2, 1, 2, 1, 2, 1, 1}));
    EXPECT_EQ(Words(file.Box("moov/trak.vide/mdia/minf/stbl/stco"), 12),
              (Numbers{2, 44, 44 + 14 + 8}));
}

TEST(ATimeCode, GoesOutInOneWrite)
{
    ExternalSink sink;
    Recording rec(sink);
    SetTimeCode(rec);
    sink.ForgetCalls();
    EXPECT_EQ(TimeCode(rec, 1), 0u);
    EXPECT_THAT(sink.Calls(), ElementsAre("write 4"));
}

TEST(ATimeCode, Has64BitOffsetsInALargeFile)
{
    Recording rec("clip.mp4", MP4_OPEN_LARGE_FILE);
    SetTimeCode(rec);
    EXPECT_EQ(TimeCode(rec, 1), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "co64"), 12), (Numbers{1, 0, 52}));
    EXPECT_FALSE(file.Has(kTables + "stco"));
}

// ---- The description -------------------------------------------------------------------------

TEST(ATimeCodeTrack, ShowsItsRecordInTheSampleEntry)
{
    for (const char* name : {"clip.mp4", "clip.mov"}) {
        Recording rec(name);
        SetTimeCode(rec, 60000, 0x1'0000'03E9, 60, 0x89ABCDEF);
        TimeCode(rec, 0);
        const BoxFile file = rec.Close();
        EXPECT_EQ(file.Box(kTables + "stsd"),
                  Hex("00000034 'stsd' 00000000 00000001  00000024 'tmcd' 000000000000 0001 00000000"
                      "89ABCDEF 0000EA60 000003E9 3C 00 0000"));
        EXPECT_EQ(file.U32(file.Find(kMedia + "mdhd").begin + 20), 60000u);
    }
}

TEST(ATimeCodeTrack, ShowsZerosAndATimescaleOfZeroMakesNoDuration)
{
    Recording rec;
    rec.SetH264();
    SetTimeCode(rec, 0, 0, 0, 0);
    TimeCode(rec, 5);
    rec.FramesAt({0, 40});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stsd/tmcd"), 16), (Numbers{0, 0, 0, 0, 0}));
    EXPECT_EQ(Words(file.Box(kMedia + "mdhd"), 20), (Numbers{0, 0, 0x55C40000}));
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 1, 0}));
}

TEST(ATimeCodeTrack, HasNmhdInMp4FilesAndGmhdInMovFiles)
{
    for (const bool quickTime : {false, true}) {
        Recording rec(quickTime ? "clip.mov" : "clip.mp4");
        SetTimeCode(rec);
        TimeCode(rec, 0);
        const BoxFile file = rec.Close();
        EXPECT_THAT(file.Children(kMedia + "minf"),
                    ElementsAre(quickTime ? "gmhd" : "nmhd", "hdlr", "dinf", "stbl"));
        EXPECT_EQ(file.Box(kMedia + "minf/" + (quickTime ? "gmhd" : "nmhd")).size(),
                  quickTime ? 130u : 76u);
    }
}

TEST(ATimeCodeTrack, IsNotEnabledAndStaysInVersion0)
{
    Recording rec("clip.mp4", MP4_OPEN_VERSION1);
    SetTimeCode(rec);
    TimeCode(rec, 0);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box("moov/trak.tmcd/tkhd"), 8)[0], 2u);  // version 0, in the movie
    EXPECT_EQ(file.Box("moov/trak.tmcd/tkhd").size(), 92u);
    EXPECT_EQ(file.Box("moov/trak.tmcd/edts/elst").size(), 28u);
    EXPECT_EQ(file.Box(kMedia + "mdhd").size(), 32u);
}

// 10 - 1000 + 5 ticks, without a sign 2^64 - 985; times 25 / 3000 they are 0x15D867C3ECE29C.
TEST(ATimeCodeTrack, TakesADurationBelowZeroWithoutItsSign)
{
    Recording rec;
    rec.SetH264(3000, 5);
    SetTimeCode(rec, 25, 1, 25, 0);
    TimeCode(rec, 0);
    rec.FramesAt({1000, 10});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kMedia + "mdhd"), 20), (Numbers{25, 0xC3ECE29C, 0x55C40000}));
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 1, 0xC3ECE29C}));
}

TEST(ATimeCodeTrack, CountsInNoDurationOfTheMovie)
{
    Recording rec;
    SetTimeCode(rec);
    TimeCode(rec, 100000);
    EXPECT_EQ(mp4_get_duration_ms(rec.Handle()), 0u);
    EXPECT_EQ(Words(rec.Close().Box("moov/mvhd"), 20)[1], 0u);
}

// ---- The reference of the video track --------------------------------------------------------

TEST(TheTimeCodeReference, StandsWhateverTheOrderOfTheCalls)
{
    for (const bool videoFirst : {false, true}) {
        Recording rec;
        if (videoFirst)
            rec.SetH264();
        SetTimeCode(rec);
        if (!videoFirst)
            rec.SetH264();
        TimeCode(rec, 0);
        rec.FramesAt({0});
        EXPECT_EQ(rec.Close().Box("moov/trak.vide/tref"),
                  Hex(videoFirst ? "00000014 'tref' 0000000C 'tmcd' 00000002"
                                 : "00000014 'tref' 0000000C 'tmcd' 00000001"));
    }
}

// The parameter sets come with the first frame; the video track so takes its id behind the other.
TEST(TheTimeCodeReference, StandsBeforeTheVideoHasItsCodecData)
{
    Recording rec;
    mp4_video_track_info info{};
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    SetTimeCode(rec);
    TimeCode(rec, 0);
    EXPECT_EQ(rec.Video(Hex("000001") + Sps() + Hex("000001") + Pps() + Unit(0x65), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("moov/trak.vide/tref"), Hex("00000014 'tref' 0000000C 'tmcd' 00000001"));
    EXPECT_EQ(file.U32(file.Find("moov/trak.vide/tkhd").begin + 20), 2u);
}

TEST(TheTimeCodeReference, OfASecondSetUpStandsBesideTheFirst)
{
    Recording rec;
    rec.SetH264();
    SetTimeCode(rec);
    SetTimeCode(rec, 25, 1, 25, 0);
    TimeCode(rec, 0);
    rec.FramesAt({0});
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("moov/trak.vide/tref"),
              Hex("00000020 'tref' 0000000C 'tmcd' 00000002 0000000C 'tmcd' 00000003"));
    EXPECT_EQ(file.U32(file.Find("moov/trak.tmcd/tkhd").begin + 20), 3u);
    EXPECT_EQ(file.U32(file.Find(kMedia + "mdhd").begin + 20), 25u);
}

// ---- Missing tracks --------------------------------------------------------------------------

TEST_P(TimeCodeTrack, WithoutASetUpTheBytesStayAloneInTheData)
{
    rec.SetH264();
    EXPECT_EQ(TimeCode(rec, 0x11223344), 0u);
    rec.FramesAt({0});
    const BoxFile file = rec.Close();
    EXPECT_FALSE(file.Has("moov/trak.tmcd"));
    EXPECT_FALSE(file.Has("moov/trak.vide/tref"));
    const auto head = static_cast<std::ptrdiff_t>(
        file.Find("mdat").begin + (GetParam().flags & MP4_OPEN_LARGE_FILE ? 16 : 8));
    const Bytes data(file.All().begin() + head, file.All().begin() + head + 18);
    EXPECT_EQ(data, Hex("11223344 0000000A 65") + Bytes(9, 0xAB));
    EXPECT_THAT(Samples(file, "trak.vide"), ElementsAre(Hex("0000000A 65") + Bytes(9, 0xAB)));
}

TEST(ATimeCodeTrack, SetBehindItsFirstSampleOpensNoChunkForIt)
{
    Recording rec;
    EXPECT_EQ(TimeCode(rec, 1), 0u);
    SetTimeCode(rec);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stsz"), 12), (Numbers{4, 1}));
    EXPECT_EQ(Words(file.Box(kTables + "stsc"), 12), (Numbers{0}));
    EXPECT_EQ(Words(file.Box(kTables + "stco"), 12), (Numbers{0}));
    EXPECT_EQ(file.Box("mdat"), Hex("0000000C 'mdat' 00000001"));
}

TEST(ATimeCodeTrack, SetBehindItsSamplesTakesThoseWhoseChunksWereOpened)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({0});
    EXPECT_EQ(TimeCode(rec, 1), 0u);  // behind the video: id 0 opens a chunk
    SetTimeCode(rec);
    EXPECT_EQ(TimeCode(rec, 2), 0u);  // the id is another now
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.tmcd"), ElementsAre(Hex("00000001"), Hex("00000002")));
    EXPECT_EQ(Words(file.Box(kTables + "stco"), 12), (Numbers{2, 58, 62}));
}

TEST_P(TimeCodeTrack, WithoutASampleIsLeftOutAndStillReferredTo)
{
    rec.SetH264();
    SetTimeCode(rec);
    rec.FramesAt({0});
    const BoxFile file = rec.Close();
    EXPECT_FALSE(file.Has("moov/trak.tmcd"));
    EXPECT_EQ(file.Box("moov/trak.vide/tref"), Hex("00000014 'tref' 0000000C 'tmcd' 00000002"));
    EXPECT_EQ(rec.Log().Count("error audio track samples 0"), 1u);
}

// ---- The whole track -------------------------------------------------------------------------

namespace {

const std::string kMatrix = "00010000 00000000 00000000 00000000 00010000 00000000"
                            "00000000 00000000 40000000";
const std::string kGmin = "00000018 'gmin' 00000000 0040 8000 8000 8000 0000 0000";
const std::string kText = "0000002C 'text'" + kMatrix;
const std::string kTcmi = "00000036 'tmcd' 0000002E 'tcmi' 00000000 0000 0001 000C 0000"
                          "FFFF FFFF FFFF 0000 0000 0000 0D 'Luci' 'da G' 'rand' 65";

}  // namespace

TEST(ATimeCodeTrack, HasTheseBytes)
{
    for (const bool quickTime : {false, true}) {
        Recording rec(quickTime ? "clip.mov" : "clip.mp4");
        rec.SetH264();
        SetTimeCode(rec);
        TimeCode(rec, 107892);
        rec.FramesAt({0, 40});  // 80 ms, 2400 ticks
        EXPECT_EQ(rec.Close().Box("moov/trak.tmcd"),
                  Hex((quickTime ? "00000252 'trak'" : "0000021C 'trak'") +
                      ("0000005C 'tkhd' 00000002 00000000 00000000 00000002 00000000 00000050"
                       "00000000 00000000 0000 0000 0100 0000" + kMatrix) +
                      "00000000 00000000"
                      "00000024 'edts' 0000001C 'elst' 00000000 00000001 00000050 00000000 00010000" +
                      (quickTime ? "000001CA 'mdia'" : "00000194 'mdia'") +
                      "00000020 'mdhd' 00000000 00000000 00000000 00007530 00000960 55C4 0000"
                      "00000030 'hdlr' 00000000 'mhlr' 'tmcd' 00000000 00000000 00000000"
                      "0F 'Time' 'Code' 'Hand' 6C6572" +
                      (quickTime ? "00000172 'minf' 00000082 'gmhd'" + kGmin + kText + kTcmi
                                 : "0000013C 'minf' 0000004C 'nmhd'" + kGmin + kText) +
                      "0000002C 'hdlr' 00000000 'dhlr' 'url ' 00000000 00000000 00000000"
                      "0B 'Data' 'Hand' 6C6572"
                      "00000024 'dinf' 0000001C 'dref' 00000000 00000001"
                      "0000000C 'url ' 00000001"
                      "00000098 'stbl'"
                      "00000034 'stsd' 00000000 00000001 00000024 'tmcd' 000000000000 0001"
                      "00000000 00000001 00007530 000003E9 1E 00 0000"
                      "00000018 'stts' 00000000 00000001 00000001 00000960"
                      "0000001C 'stsc' 00000000 00000001 00000001 00000001 00000001"
                      "00000014 'stsz' 00000000 00000004 00000001"
                      "00000014 'stco' 00000000 00000001" +
                      (quickTime ? "0000001C" : "0000002C")));
    }
}
