#include "boxes.h"
#include "trak.h"

namespace {

const std::string kMatrix = Hex("00010000 00000000 00000000 00000000 00010000 00000000"
                                "00000000 00000000 40000000");

struct VideoTrack : testing::Test, On<CMp4VideoTrakAtom> {
    VideoTrack()
    {
        box.m_trackId = 1;
        box.m_movieTimescale = 1000;
        box.m_mdia.m_minf.m_stbl.m_stsd.m_family = 2;  // ProRes needs no parameter sets
    }
    void Add(std::uint64_t time, bool key = true) { box.AddSample(36, 100, time, time, key, true); }
    std::uint32_t TkhdDuration() { return U32At(Find(Written(), "trak/tkhd"), 28); }
};

struct TimeCodeTrack : testing::Test, On<CMp4TCTrakAtom> {
    TimeCodeTrack()
    {
        box.m_trackId = 2;
        box.m_movieTimescale = 1000;
        box.m_info.timescale = 25;
        box.m_mdia.m_minf.m_stbl.AddSample(36, true);
        box.m_sampleCount = 1;
        box.m_lastTime = 100;  // set by "moov"
    }
};

}  // namespace

// ---- tkhd, elst, tref ----------------------------------------------------------------------

TEST(TrackHeader, Version0)
{
    On<CMp4TkhdAtom> on;
    on.box.m_trackId = 3;
    on.box.m_duration = 0x100000005;
    on.box.m_width = 1920;
    on.box.m_height = 1080;
    EXPECT_BYTES(on.Written(),
                 Hex("0000005c 'tkhd' 00000003 00000000 00000000 00000003 00000000 00000005"
                     "0000000000000000 0000 0000 0000 0000") + kMatrix + Hex("07800000 04380000"));
    EXPECT_EQ(on.box.GetSize(), 92u);
}

TEST(TrackHeader, Version1)
{
    On<CMp4TkhdAtom> on;
    on.box.m_version = 1;
    on.box.m_trackId = 3;
    on.box.m_duration = 0x100000005;
    on.box.m_alternateGroup = 1;
    EXPECT_BYTES(on.Written(),
                 Hex("00000068 'tkhd' 01000003 0000000000000000 0000000000000000 00000003 00000000"
                     "0000000100000005 0000000000000000 0000 0001 0100 0000") + kMatrix +
                     Hex("00000000 00000000"));
    EXPECT_EQ(on.box.GetSize(), 104u);
}

TEST(TrackHeader, ATrackThatIsNotEnabledHasFlags2)
{
    On<CMp4TkhdAtom> on;
    on.box.m_notEnabled = true;
    EXPECT_BYTES(on.Written().substr(8, 4), Hex("00000002"));
}

TEST(TrackHeader, AnyOtherVersionIsWrittenAs1)
{
    On<CMp4TkhdAtom> on;
    on.box.m_version = 2;
    EXPECT_BYTES(on.Written().substr(8, 4), Hex("01000003"));
    EXPECT_EQ(on.Written().size(), 104u);
}

// The field has 16 bits; the volume looks at the whole width.
TEST(TrackHeader, AWidthBeyond16BitsIsCutAndSilencesTheTrack)
{
    On<CMp4TkhdAtom> on;
    on.box.m_width = 0x10000;
    EXPECT_BYTES(on.Written().substr(44, 2), Hex("0000"));
    EXPECT_BYTES(on.Written().substr(84, 4), Hex("00000000"));
    on.box.m_width = 0x10780;
    EXPECT_BYTES(on.Written().substr(84, 4), Hex("07800000"));
}

TEST(EditList, Version0)
{
    On<CMp4EdtsAtom> on;
    on.box.m_elst.m_duration = 5;
    EXPECT_BYTES(on.Written(), Hex("00000024 'edts' 0000001c 'elst' 00000000 00000001 00000005"
                                   "00000000 00010000"));
    EXPECT_EQ(on.box.GetSize(), 36u);
}

TEST(EditList, Version1)
{
    On<CMp4EdtsAtom> on;
    on.box.m_elst.m_version = 1;
    on.box.m_elst.m_duration = 0x100000005;
    EXPECT_BYTES(on.Written(), Hex("0000002c 'edts' 00000024 'elst' 01000000 00000001"
                                   "0000000100000005 0000000000000000 00010000"));
    EXPECT_EQ(on.box.GetSize(), 44u);
}

TEST(References, OfATypeOtherThan10HaveAZeroType)
{
    On<CMp4RefTrackTypeAtom> on;
    on.box.m_type = 11;
    on.box.m_count = 2;
    on.box.m_trackIds[0] = 4;
    on.box.m_trackIds[1] = 5;
    EXPECT_BYTES(on.Written(), Hex("00000010 00000000 00000004 00000005"));
    EXPECT_EQ(on.box.GetSize(), 16u);
}

// ---- A track's Write -----------------------------------------------------------------------

TEST_F(VideoTrack, ThatWasNeverSetWritesAndReportsNothing)
{
    box.m_trackId = 0;
    Add(0);
    CLogLines log;
    EXPECT_EQ(Written(), "");
    EXPECT_EQ(box.GetSize(), 0u);
    EXPECT_EQ(log.Text(), "");
}

TEST_F(VideoTrack, WithoutSamplesIsReportedAtEachWrite)
{
    CLogLines log;
    EXPECT_EQ(Written(), "");
    EXPECT_EQ(Written(), "");
    EXPECT_EQ(box.GetSize(), 0u);
    EXPECT_EQ(log.Text(), "error audio track samples 0\nerror audio track samples 0\n");
}

TEST_F(VideoTrack, TheSampleCountIsTestedAsASigned32BitValue)
{
    box.m_sampleCount = 0x80000000;
    CLogLines log;
    EXPECT_EQ(Written(), "");
    EXPECT_EQ(log.Text(), "error audio track samples -2147483648\n");
}

TEST_F(VideoTrack, HasItsChildrenInOrder)
{
    Add(0);
    EXPECT_EQ(Tree(Written()),
              "trak(tkhd edts(elst) mdia(mdhd hdlr minf(vmhd hdlr dinf(dref) "
              "stbl(stsd stts stsz stsc stco stss))))");
}

TEST_F(VideoTrack, ATimeCodeReferenceStandsBetweenEditsAndMedia)
{
    Add(0);
    box.AddTrackReference(7);
    EXPECT_BYTES(Find(Written(), "trak/tref"), Hex("00000014 'tref' 0000000c 'tmcd' 00000007"));
    EXPECT_EQ(Tree(Written()).substr(0, 34), "trak(tkhd edts(elst) tref(tmcd) md");
}

TEST_F(VideoTrack, EachReferenceIsABoxOfItsOwn)
{
    Add(0);
    box.AddTrackReference(7);
    box.AddTrackReference(9);
    EXPECT_BYTES(Find(Written(), "trak/tref"),
                 Hex("00000020 'tref' 0000000c 'tmcd' 00000007 0000000c 'tmcd' 00000009"));
    EXPECT_EQ(box.m_tref.GetSize(), 32u);
}

// ProRes lacks the 26 bytes of "fiel" and "pasp".
TEST_F(VideoTrack, TheSizeCountsTheReference)
{
    Add(0);
    box.AddTrackReference(7);
    const std::string bytes = Written();
    EXPECT_EQ(box.GetSize() + 26, bytes.size());
}

TEST_F(VideoTrack, TheSizeCounts64BitOffsets)
{
    box.m_mdia.m_minf.m_stbl.m_useCo64 = true;
    Add(0);
    const std::string bytes = Written();
    EXPECT_EQ(Find(bytes, "trak/mdia/minf/stbl/co64").size(), 24u);
    EXPECT_EQ(box.GetSize() + 26, bytes.size());
}

TEST_F(VideoTrack, TwoWritesAreAlike)
{
    Add(0);
    Add(40);
    EXPECT_EQ(Written(), Written());
}

// ---- Samples and durations -----------------------------------------------------------------

TEST_F(VideoTrack, KeyFramesAreNumberedFrom1)
{
    Add(0, true);
    Add(40, false);
    Add(80, true);
    EXPECT_BYTES(Find(Written(), "trak/mdia/minf/stbl/stss"),
                 Hex("00000018 'stss' 00000000 00000002 00000001 00000003"));
}

TEST_F(VideoTrack, TheDurationReachesToTheEndOfTheLastSample)
{
    box.m_lastDuration = 30;
    Add(100);
    Add(140);
    EXPECT_EQ(box.GetDuration(), 70u);
}

TEST_F(VideoTrack, AnUnknownLastDurationIsTheLatestDelta)
{
    Add(100);
    Add(140);
    Add(165);
    EXPECT_EQ(box.GetDuration(), 90u);
}

TEST_F(VideoTrack, TheLatestDeltaLatchesWhenTheDurationIsFirstAsked)
{
    Add(0);
    Add(40);
    EXPECT_EQ(box.GetDuration(), 80u);
    Add(140);
    EXPECT_EQ(box.GetDuration(), 180u);
    EXPECT_EQ(box.m_lastDelta, 100u);
}

// Its delta counts from 0.
TEST_F(VideoTrack, ALoneSampleLastsAsLongAsItsTime)
{
    Add(500);
    EXPECT_EQ(box.m_firstTime, 500u);
    EXPECT_EQ(box.GetDuration(), 500u);
}

TEST_F(VideoTrack, ARecordingThatBeginsWithoutAKeyFrameCountsFromZero)
{
    Add(500, false);
    Add(540, true);
    EXPECT_EQ(box.m_firstTime, 0u);
    EXPECT_EQ(box.GetDuration(), 580u);
}

TEST_F(VideoTrack, DeltasAreOf32Bits)
{
    Add(0xFFFFFFF0);
    Add(0x100000010);
    EXPECT_EQ(box.m_lastDelta, 0x20u);
}

TEST_F(VideoTrack, InTheMoviesTimescaleTheDurationIsTakenAsItIs)
{
    Add(0);
    Add(40);
    EXPECT_EQ(TkhdDuration(), 80u);
    EXPECT_EQ(U32At(Find(Written(), "trak/edts/elst"), 16), 80u);
    EXPECT_EQ(U32At(Find(Written(), "trak/mdia/mdhd"), 24), 80u);
}

TEST_F(VideoTrack, OtherTimescalesAreCutDown)
{
    box.m_info.timescale = 90000;
    Add(0);
    Add(3003);
    EXPECT_EQ(TkhdDuration(), 66u);  // 6006 / 90
    EXPECT_EQ(U32At(Find(Written(), "trak/mdia/mdhd"), 24), 6006u);
}

// 10 - 1000 + 5 ticks of 1/3000 s are -328.33 ms.
TEST_F(VideoTrack, TheDivisionIsSignedAndTruncates)
{
    box.m_info.timescale = 3000;
    Add(1000);
    Add(10);
    box.m_lastDuration = 5;
    EXPECT_EQ(TkhdDuration(), static_cast<std::uint32_t>(-328));
}

TEST_F(VideoTrack, LongDurationsTouchThreeBoxes)
{
    Add(0);
    box.SetLongDuration();
    const std::string bytes = Written();
    EXPECT_EQ(Find(bytes, "trak/tkhd").size(), 104u);
    EXPECT_EQ(Find(bytes, "trak/edts/elst").size(), 36u);
    EXPECT_EQ(Find(bytes, "trak/mdia/mdhd").size(), 44u);
    EXPECT_EQ(box.GetSize() + 26, bytes.size());
}

// 1000 * 2048 bytes over 2 * 1024 ms * 1024.
TEST_F(VideoTrack, TheBitrateIsInKibibytesPerSecond)
{
    box.m_lastDuration = 1024;
    box.AddSample(36, 1024, 0, 0, true, true);
    box.AddSample(36, 1024, 1024, 1024, false, true);
    EXPECT_DOUBLE_EQ(box.GetBitrate(), 1000.0 * 2048 / (2048.0 * 1024));
}

TEST_F(VideoTrack, WithoutADurationTheBitrateIsZero)
{
    box.AddSample(36, 1024, 0, 0, true, true);
    EXPECT_EQ(box.GetBitrate(), 0.0);
}

TEST_F(VideoTrack, AskingForTheBitrateLatchesTheDuration)
{
    Add(0);
    Add(40);
    box.GetBitrate();
    EXPECT_EQ(box.m_lastDuration, 40u);
}

// ---- The other kinds -----------------------------------------------------------------------

TEST(Tracks, BeginWithATimescaleOf1000)
{
    CMemorySink sink;
    EXPECT_EQ(CMp4VideoTrakAtom(&sink).GetTimescale(), 1000u);
    EXPECT_EQ(CMp4AudioTrakAtom(&sink).GetTimescale(), 1000u);
    EXPECT_EQ(CMp4SubtitleTrakAtom(&sink).GetTimescale(), 1000u);
    EXPECT_EQ(CMp4TCTrakAtom(&sink).GetTimescale(), 0u);
}

TEST(Tracks, OnlyAudioIsInAnAlternateGroup)
{
    CMemorySink sink;
    EXPECT_EQ(CMp4VideoTrakAtom(&sink).m_tkhd.m_alternateGroup, 0u);
    EXPECT_EQ(CMp4AudioTrakAtom(&sink).m_tkhd.m_alternateGroup, 1u);
    EXPECT_EQ(CMp4SubtitleTrakAtom(&sink).m_tkhd.m_alternateGroup, 0u);
    EXPECT_EQ(CMp4TCTrakAtom(&sink).m_tkhd.m_alternateGroup, 0u);
}

TEST_F(TimeCodeTrack, ALoneSampleSpansTheTrack)
{
    const std::string bytes = Written();
    EXPECT_BYTES(Find(bytes, "trak/mdia/minf/stbl/stts"),
                 Hex("00000018 'stts' 00000000 00000001 00000001 00000064"));
    EXPECT_EQ(U32At(Find(bytes, "trak/tkhd"), 28), 4000u);
    EXPECT_EQ(U32At(Find(bytes, "trak/mdia/mdhd"), 24), 100u);
}

TEST_F(TimeCodeTrack, ATimescaleOfZeroMakesTheMovieDurationZero)
{
    box.m_info.timescale = 0;
    EXPECT_EQ(U32At(Find(Written(), "trak/tkhd"), 28), 0u);
}

TEST_F(TimeCodeTrack, KnowsNoDataSize)
{
    EXPECT_EQ(box.GetDataSize(), 0u);
}

TEST_F(TimeCodeTrack, LongDurationsTouchThreeBoxes)
{
    box.SetLongDuration();
    const std::string bytes = Written();
    EXPECT_EQ(Find(bytes, "trak/tkhd").size(), 104u);
    EXPECT_EQ(Find(bytes, "trak/edts/elst").size(), 36u);
    EXPECT_EQ(Find(bytes, "trak/mdia/mdhd").size(), 44u);
    EXPECT_EQ(box.GetSize(), bytes.size());
}

TEST(Captions, CanHaveLongDurationsToo)
{
    On<CMp4SubtitleTrakAtom> on;
    on.box.m_trackId = 1;
    on.box.m_movieTimescale = 1000;
    on.box.m_mdia.m_minf.m_stbl.AddSample(36, 10, 0, 0, true);
    on.box.m_sampleCount = 1;
    on.box.SetLongDuration();
    const std::string bytes = on.Written();
    EXPECT_EQ(Find(bytes, "trak/tkhd").size(), 104u);
    EXPECT_EQ(Find(bytes, "trak/edts/elst").size(), 36u);
    EXPECT_EQ(Find(bytes, "trak/mdia/mdhd").size(), 44u);
}
