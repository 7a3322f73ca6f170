// Caption frames: what becomes a sample, when it counts as malformed, and what the tables say of it.
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

const std::string kTables = "moov/trak.clcp/mdia/minf/stbl/";

std::uint32_t SetCaptions(Recording& rec, std::uint32_t codec, std::uint32_t timescale = 1000)
{
    const mp4_subtitle_track_info info{codec, timescale};
    return mp4_set_subtitle_track(rec.Handle(), &info);
}

std::uint32_t Caption(Recording& rec, const Bytes& frame, std::uint64_t time = 0)
{
    return mp4_write_subtitle_frame(rec.Handle(), frame.data(),
                                    static_cast<std::uint32_t>(frame.size()), time);
}

// A recording of one form with a caption track.
class Frames : public testing::TestWithParam<Form> {
protected:
    explicit Frames(std::uint32_t codec) : rec(GetParam().name, GetParam().flags)
    {
        EXPECT_EQ(SetCaptions(rec, codec), 0u);
    }
    std::vector<Bytes> Close() { return Samples(rec.Close(), "trak.clcp"); }

    Recording rec;
};

struct Cea608 : Frames {
    Cea608() : Frames(MP4_SUBTITLE_CEA608) {}
    std::size_t Complaints() { return rec.Log().Count("error subtitle 608 frame format error"); }
};

struct Cea708 : Frames {
    Cea708() : Frames(MP4_SUBTITLE_CEA708) {}
    std::size_t Complaints() { return rec.Log().Count("error subtitle 708 frame format error"); }
};

INSTANTIATE_TEST_SUITE_P(Forms, Cea608, testing::ValuesIn(kForms), FormName);
INSTANTIATE_TEST_SUITE_P(Forms, Cea708, testing::ValuesIn(kForms), FormName);

}  // namespace

// ---- CEA-608 frames --------------------------------------------------------------------------

TEST_P(Cea608, ASixByteFrameHoldsOneEntry)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20")), 0u);
    EXPECT_EQ(Complaints(), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000A 'cdat' 94 20")));
}

TEST_P(Cea608, BytesBehindTheLastWholeEntryAreIgnored)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20  00"), 0), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 2C  01 80"), 40), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 2F  01 80 80"), 80), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000A 'cdat' 94 20"), Hex("0000000A 'cdat' 94 2C"),
                                     Hex("0000000A 'cdat' 94 2F  0000000A 'cdt2' 80 80")));
}

TEST_P(Cea608, AFiveByteFrameIsMalformed)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94")), 0u);
    EXPECT_EQ(Complaints(), 1u);
    EXPECT_THAT(Close(), ElementsAre(Bytes{}));
}

TEST_P(Cea608, EntriesOfBothFieldsKeepTheirOrder)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  01 11 12  00 21 22  00 31 32  01 41 42")), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000A 'cdt2' 11 12  0000000A 'cdat' 21 22"
                                         "0000000A 'cdat' 31 32  0000000A 'cdt2' 41 42")));
}

TEST_P(Cea608, TheThirdByteIsNotRead)
{
    for (const char* third : {"00", "01", "02", "61", "FF"})
        EXPECT_EQ(Caption(rec, Hex(std::string("61 02 ") + third + " 00 94 20")), 0u);
    EXPECT_EQ(Complaints(), 0u);
    EXPECT_THAT(Close(), testing::AllOf(testing::SizeIs(5),
                                        testing::Each(Hex("0000000A 'cdat' 94 20"))));
}

// Marker, validity and reserved bits stand above the selector in what producers copy here.
TEST_P(Cea608, OnlyTheLowTwoBitsOfASelectorAreRead)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  FC 11 12  FD 21 22  F8 31 32  81 41 42")), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000A 'cdat' 11 12  0000000A 'cdt2' 21 22"
                                         "0000000A 'cdat' 31 32  0000000A 'cdt2' 41 42")));
}

TEST_P(Cea608, EntriesOfOtherSelectorsAreSkipped)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  02 11 12  01 21 22  03 31 32  FE 41 42"), 0), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  FF 51 52"), 40), 0u);
    EXPECT_EQ(Complaints(), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000A 'cdt2' 21 22"), Bytes{}));
}

TEST_P(Cea608, TwentyEntriesMakeTwentyAtoms)
{
    Bytes frame = Hex("61 02 14");
    Bytes sample;
    for (int n = 0; n < 20; ++n) {
        frame = frame + Hex("00 80 80");
        sample = sample + Hex("0000000A 'cdat' 80 80");
    }
    EXPECT_EQ(Caption(rec, frame), 0u);
    EXPECT_EQ(sample.size(), 200u);
    EXPECT_THAT(Close(), ElementsAre(sample));
}

TEST_P(Cea608, WrongMarksAreMalformed)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), 0), 0u);
    EXPECT_EQ(Complaints(), 0u);
    for (const char* frame : {"60 02 00  00 94 20", "62 02 00  00 94 20", "61 03 00  00 94 20",
                              "61 00 00  00 94 20", "02 61 00  00 94 20"})
        EXPECT_EQ(Caption(rec, Hex(frame), 40), 0u);
    EXPECT_EQ(Complaints(), 5u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000A 'cdat' 94 20"), Bytes{}, Bytes{}, Bytes{},
                                     Bytes{}, Bytes{}));
}

TEST_P(Cea608, AFrameOfTheOtherKindIsMalformed)
{
    EXPECT_EQ(Caption(rec, Hex("61 01 03  11 22 33")), 0u);
    EXPECT_EQ(Complaints(), 1u);
    EXPECT_THAT(Close(), ElementsAre(Bytes{}));
}

// Unlike video and audio, which drop such frames.
TEST_P(Cea608, AFrameWithoutDataIsMalformedAndNotDropped)
{
    EXPECT_EQ(Caption(rec, {}, 0), 0u);
    EXPECT_EQ(mp4_write_subtitle_frame(rec.Handle(), nullptr, 6, 40), 0u);
    EXPECT_EQ(Complaints(), 2u);
    EXPECT_THAT(Close(), ElementsAre(Bytes{}, Bytes{}));
}

// ---- CEA-708 frames --------------------------------------------------------------------------

TEST_P(Cea708, TheDataBecomesOneAtom)
{
    EXPECT_EQ(Caption(rec, Hex("61 01 05  96 69 05 4F 00")), 0u);
    EXPECT_EQ(Complaints(), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000D 'ccdp' 96 69 05 4F 00")));
}

TEST_P(Cea708, NoDataMakesAnAtomOfEightBytes)
{
    EXPECT_EQ(Caption(rec, Hex("61 01 00")), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 01 00  11 22")), 0u);
    EXPECT_EQ(Complaints(), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("00000008 'ccdp'"), Hex("00000008 'ccdp'")));
}

TEST_P(Cea708, TheLargestFrameHas255Bytes)
{
    EXPECT_EQ(Caption(rec, Hex("61 01 FF") + Bytes(255, 0x5A)), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("00000107 'ccdp'") + Bytes(255, 0x5A)));
}

TEST_P(Cea708, BytesBehindTheLengthAreDropped)
{
    EXPECT_EQ(Caption(rec, Hex("61 01 02  11 22 33")), 0u);
    EXPECT_EQ(Complaints(), 0u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000A 'ccdp' 11 22")));
}

TEST_P(Cea708, ALengthBeyondTheFrameIsMalformed)
{
    EXPECT_EQ(Caption(rec, Hex("61 01 03  11 22 33"), 0), 0u);
    EXPECT_EQ(Complaints(), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 01 04  11 22 33"), 40), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 01 01"), 80), 0u);
    EXPECT_EQ(Complaints(), 2u);
    EXPECT_THAT(Close(), ElementsAre(Hex("0000000B 'ccdp' 11 22 33"), Bytes{}, Bytes{}));
}

TEST_P(Cea708, AFrameBelowThreeBytesOrWithoutDataIsMalformed)
{
    EXPECT_EQ(Caption(rec, Hex("61 01"), 0), 0u);
    EXPECT_EQ(Caption(rec, Hex("61"), 40), 0u);
    EXPECT_EQ(Caption(rec, {}, 80), 0u);
    EXPECT_EQ(mp4_write_subtitle_frame(rec.Handle(), nullptr, 3, 120), 0u);
    EXPECT_EQ(Complaints(), 4u);
    EXPECT_THAT(Close(), ElementsAre(Bytes{}, Bytes{}, Bytes{}, Bytes{}));
}

TEST_P(Cea708, WrongMarksAreMalformed)
{
    for (const char* frame : {"60 01 01  11", "61 00 01  11", "61 02 01  11", "01 61 01  11"})
        EXPECT_EQ(Caption(rec, Hex(frame)), 0u);
    EXPECT_EQ(Complaints(), 4u);
    EXPECT_THAT(Close(), testing::AllOf(testing::SizeIs(4), testing::Each(Bytes{})));
}

TEST_P(Cea708, AFrameOfTheOtherKindIsMalformed)
{
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20")), 0u);
    EXPECT_EQ(Complaints(), 1u);
    EXPECT_THAT(Close(), ElementsAre(Bytes{}));
}

// ---- The writes ------------------------------------------------------------------------------

namespace {

// The calls that one frame makes on the caller's output.
std::vector<std::string> CallsOf(std::uint32_t codec, const Bytes& frame)
{
    ExternalSink sink;
    Recording rec(sink);
    SetCaptions(rec, codec);
    sink.ForgetCalls();
    EXPECT_EQ(Caption(rec, frame), 0u);
    return sink.Calls();
}

}  // namespace

TEST(ACaption, GoesOutInOneWriteAnEntryOrInHeaderAndData)
{
    EXPECT_THAT(CallsOf(MP4_SUBTITLE_CEA608, Hex("61 02 00  00 94 20  01 94 2C")),
                ElementsAre("write 10", "write 10"));
    EXPECT_THAT(CallsOf(MP4_SUBTITLE_CEA708, Hex("61 01 04  96 69 04 4F")),
                ElementsAre("write 8", "write 4"));
}

TEST(ACaption, WithoutDataIsOneWriteAndAMalformedOneNone)
{
    EXPECT_THAT(CallsOf(MP4_SUBTITLE_CEA708, Hex("61 01 00")), ElementsAre("write 8"));
    EXPECT_THAT(CallsOf(MP4_SUBTITLE_CEA708, Hex("61 01 01")), IsEmpty());
    EXPECT_THAT(CallsOf(MP4_SUBTITLE_CEA608, Hex("61 02 00  00 94")), IsEmpty());
}

// ---- Missing tracks --------------------------------------------------------------------------

TEST(ACaptionFrame, WithoutATrackGives6AndWritesNothing)
{
    Recording rec;
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20")), 6u);
    EXPECT_THAT(rec.Log().Lines(), testing::Contains("error unknown subtitle codec type 0"));
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("mdat"), Hex("00000008 'mdat'"));
    EXPECT_FALSE(file.Has("moov/trak"));
}

TEST(ACaptionTrack, OfAnUnknownCodecIsAcceptedAndRefusesEveryFrame)
{
    for (const std::uint32_t codec : {0u, 3u, 0xFFFFFFFFu}) {
        Recording rec;
        const std::string number = std::to_string(codec);
        EXPECT_EQ(SetCaptions(rec, codec), 0u);
        EXPECT_EQ(rec.Log().Count("error unknown subtitle codec " + number), 1u);
        EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), 0), 6u);
        EXPECT_EQ(Caption(rec, Hex("61 01 01  11"), 40), 6u);
        EXPECT_EQ(rec.Log().Count("error unknown subtitle codec type " + number), 2u);
        const BoxFile file = rec.Close();
        EXPECT_EQ(file.Box("mdat"), Hex("00000008 'mdat'"));
        EXPECT_FALSE(file.Has("moov/trak"));
    }
}

TEST(ACaptionTrack, WithoutFramesIsLeftOutWithALogLine)
{
    for (const char* name : {"clip.mp4", "clip.mov"}) {
        Recording rec(name);
        EXPECT_EQ(SetCaptions(rec, MP4_SUBTITLE_CEA608), 0u);
        const BoxFile file = rec.Close();
        EXPECT_FALSE(file.Has("moov/trak"));
        EXPECT_EQ(rec.Log().Count("error audio track samples 0"), 1u);
        EXPECT_EQ(Words(file.Box("moov/mvhd"), 104), Numbers{2});  // its id is taken all the same
    }
}

// ---- Times and tables ------------------------------------------------------------------------

TEST(CaptionTimes, OfTwoMalformedFramesGiveTheirDelta)
{
    Recording rec;
    SetCaptions(rec, MP4_SUBTITLE_CEA608);
    EXPECT_EQ(Caption(rec, {}, 500), 0u);
    EXPECT_EQ(Caption(rec, {}, 533), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 2, 33}));
    EXPECT_EQ(Words(file.Box(kTables + "stsz"), 12), (Numbers{0, 2}));
    EXPECT_EQ(file.Box("mdat"), Hex("00000008 'mdat'"));
}

TEST(CaptionTimes, OfALoneSampleGiveADeltaOfZero)
{
    Recording rec;
    SetCaptions(rec, MP4_SUBTITLE_CEA608);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), 700), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{1, 1, 0}));
    // The latest delta is that to time 0, and so the duration.
    EXPECT_EQ(Words(file.Box("moov/trak.clcp/mdia/mdhd"), 20), (Numbers{1000, 700, 0x55C40000}));
}

TEST(CaptionTimes, BecomeDifferencesAndADurationInTheTracksTimescale)
{
    Recording rec;
    SetCaptions(rec, MP4_SUBTITLE_CEA608, 30000);
    for (const std::uint64_t time : {9000u, 10001u, 11002u, 13004u})
        EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), time), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stts"), 12), (Numbers{2, 2, 1001, 2, 2002}));
    // 13004 - 9000 + 2002 ticks, 200.2 ms.
    EXPECT_EQ(Words(file.Box("moov/trak.clcp/mdia/mdhd"), 20), (Numbers{30000, 6006, 0x55C40000}));
    EXPECT_EQ(file.U32(file.Find("moov/trak.clcp/tkhd").begin + 28), 200u);
    EXPECT_EQ(file.U32(file.Find("moov/trak.clcp/edts/elst").begin + 16), 200u);
}

TEST(CaptionTimes, WithoutATimescaleAreMilliseconds)
{
    Recording rec;
    SetCaptions(rec, MP4_SUBTITLE_CEA708, 0);
    EXPECT_EQ(Caption(rec, Hex("61 01 00"), 0), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 01 00"), 40), 0u);
    EXPECT_EQ(Words(rec.Close().Box("moov/trak.clcp/mdia/mdhd"), 20),
              (Numbers{1000, 80, 0x55C40000}));
}

TEST(CaptionTimes, CountInNoDurationOfTheMovie)
{
    Recording rec;
    rec.SetH264();
    SetCaptions(rec, MP4_SUBTITLE_CEA608);
    rec.FramesAt({0, 40});
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), 0), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), 90000), 0u);
    EXPECT_EQ(mp4_get_duration_ms(rec.Handle()), 80u);
    EXPECT_EQ(Words(rec.Close().Box("moov/mvhd"), 20)[1], 80u);
}

// One caption frame a video frame, the usual order of a live source.
TEST(CaptionChunks, AreOneSampleEachBetweenOtherTracks)
{
    Recording rec;
    rec.SetH264();
    SetCaptions(rec, MP4_SUBTITLE_CEA608);
    for (const std::uint64_t time : {0u, 40u, 80u}) {
        rec.FramesAt({time});  // 14 bytes in the file
        EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), time), 0u);
    }
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stsc"), 12), (Numbers{1, 1, 1, 1}));
    EXPECT_EQ(Words(file.Box(kTables + "stco"), 12), (Numbers{3, 44 + 14, 44 + 38, 44 + 62}));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

TEST(CaptionChunks, HoldSuccessiveSamplesAndEmptyOnesTakeNoRoom)
{
    Recording rec;
    SetCaptions(rec, MP4_SUBTITLE_CEA608);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), 0), 0u);
    EXPECT_EQ(Caption(rec, {}, 40), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  01 94 2C"), 80), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stsc"), 12), (Numbers{1, 1, 3, 1}));
    EXPECT_EQ(Words(file.Box(kTables + "stco"), 12), (Numbers{1, 44}));
    EXPECT_THAT(Samples(file, "trak.clcp"),
                ElementsAre(Hex("0000000A 'cdat' 94 20"), Bytes{}, Hex("0000000A 'cdt2' 94 2C")));
}

// A sample of no bytes ends the chunk of the video all the same.
TEST(CaptionChunks, OpenForAMalformedFrameBetweenPictures)
{
    Recording rec;
    rec.SetH264();
    SetCaptions(rec, MP4_SUBTITLE_CEA608);
    rec.FramesAt({0});  // 14 bytes in the file
    EXPECT_EQ(Caption(rec, {}, 0), 0u);
    rec.FramesAt({40});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kTables + "stco"), 12), (Numbers{1, 58}));
    EXPECT_EQ(Words(file.Box(kTables + "stsz"), 12), (Numbers{0, 1}));
    EXPECT_EQ(Words(file.Box("moov/trak.vide/mdia/minf/stbl/stco"), 12), (Numbers{2, 44, 58}));
}

TEST(CaptionChunks, NeverHave64BitOffsets)
{
    for (const char* name : {"clip.mp4", "clip.mov"}) {
        Recording rec(name, MP4_OPEN_LARGE_FILE);
        rec.SetH264();
        SetCaptions(rec, MP4_SUBTITLE_CEA608);
        rec.FramesAt({0});
        EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20")), 0u);
        const BoxFile file = rec.Close();
        EXPECT_TRUE(file.Has("moov/trak.vide/mdia/minf/stbl/co64"));
        EXPECT_FALSE(file.Has(kTables + "co64"));
        EXPECT_TRUE(file.Has(kTables + "stco"));
        EXPECT_THAT(file.Complaints(), IsEmpty());
    }
}

TEST(ACaptionTrack, StaysInVersion0)
{
    Recording rec("clip.mp4", MP4_OPEN_VERSION1);
    SetCaptions(rec, MP4_SUBTITLE_CEA608);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20")), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("moov/mvhd").size(), 120u);
    EXPECT_EQ(file.Box("moov/trak.clcp/tkhd").size(), 92u);
    EXPECT_EQ(file.Box("moov/trak.clcp/edts/elst").size(), 28u);
    EXPECT_EQ(file.Box("moov/trak.clcp/mdia/mdhd").size(), 32u);
}

TEST(ACaptionTrack, CanBeSetBetweenFramesAndTakesTheNextId)
{
    Recording rec;
    EXPECT_EQ(Caption(rec, Hex("61 01 01  11"), 0), 6u);
    rec.SetH264();
    rec.FramesAt({0});
    EXPECT_EQ(SetCaptions(rec, MP4_SUBTITLE_CEA608), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 02 00  00 94 20"), 0), 0u);
    EXPECT_EQ(SetCaptions(rec, MP4_SUBTITLE_CEA708, 90000), 0u);
    EXPECT_EQ(Caption(rec, Hex("61 01 01  11"), 40), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.clcp"),
                ElementsAre(Hex("0000000A 'cdat' 94 20"), Hex("00000009 'ccdp' 11")));
    EXPECT_EQ(file.U32(file.Find("moov/trak.clcp/tkhd").begin + 20), 3u);
    EXPECT_EQ(file.U32(file.Find("moov/trak.clcp/mdia/mdhd").begin + 20), 90000u);
    EXPECT_TRUE(file.Has(kTables + "stsd/c708"));
}

// ---- The whole track -------------------------------------------------------------------------

namespace {

const std::string kMatrix = "00010000 00000000 00000000 00000000 00010000 00000000"
                            "00000000 00000000 40000000";
const std::string kGmhd = "00000082 'gmhd' 00000018 'gmin' 00000000 0040 8000 8000 8000 0000 0000"
                          "0000002C 'text'" + kMatrix +
                          "00000036 'tmcd' 0000002E 'tcmi' 00000000 0000 0001 000C 0000"
                          "FFFF FFFF FFFF 0000 0000 0000 0D 'Luci' 'da G' 'rand' 65";
const std::string kDataReference = "0000002C 'hdlr' 00000000 'dhlr' 'url ' 00000000 00000000 00000000"
                                   "0B 'Data' 'Hand' 6C6572"
                                   "00000024 'dinf' 0000001C 'dref' 00000000 00000001"
                                   "0000000C 'url ' 00000001";

}  // namespace

TEST(ACaptionTrack, HasTheseBytesInBothKindsOfFile)
{
    for (const bool quickTime : {false, true}) {
        Recording rec(quickTime ? "clip.mov" : "clip.mp4");
        SetCaptions(rec, MP4_SUBTITLE_CEA708, 600);
        EXPECT_EQ(Caption(rec, Hex("61 01 00"), 60), 0u);
        EXPECT_EQ(Caption(rec, Hex("61 01 00"), 90), 0u);
        // 60 ticks are 100 ms. Kept: the handler has its type in the place of the component type.
        EXPECT_EQ(rec.Close().Box("moov/trak.clcp"),
                  Hex("0000023A 'trak'"
                      "0000005C 'tkhd' 00000003 00000000 00000000 00000001 00000000 00000064"
                      "00000000 00000000 0000 0000 0100 0000" + kMatrix + "00000000 00000000"
                      "00000024 'edts' 0000001C 'elst' 00000000 00000001 00000064 00000000 00010000"
                      "000001B2 'mdia'"
                      "00000020 'mdhd' 00000000 00000000 00000000 00000258 0000003C 55C4 0000"
                      "0000002C 'hdlr' 00000000 'clcp' 00000000 00000000 00000000"
                      "0F 'lumi' 'vane' 20 'stre' 616D"
                      "0000015E 'minf'" + kGmhd + kDataReference +
                      "00000084 'stbl'"
                      "00000020 'stsd' 00000000 00000001 00000010 'c708' 000000000000 0001"
                      "00000018 'stts' 00000000 00000001 00000002 0000001E"
                      "00000014 'stsz' 00000000 00000008 00000002"
                      "0000001C 'stsc' 00000000 00000001 00000001 00000002 00000001"
                      "00000014 'stco' 00000000 00000001" +
                      (quickTime ? "0000001C" : "0000002C")));
    }
}
