// The bytes of checkpoints: their order at the output, what stands in them, and how a close ends
// the last one.
#include "support/check.h"
#include "support/checkpoints.h"
#include "support/reads_as.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Positions = std::vector<std::uint64_t>;

namespace {

const std::string kVideo = "moov/trak.vide/mdia/minf/stbl/";

// Everything that an output was told, but where it stands.
std::vector<std::string> Calls(const ExternalSink& sink)
{
    std::vector<std::string> calls = sink.Calls();
    std::erase(calls, "tell");
    return calls;
}

// An output with frames of 100 bytes from 44 on, and fixed distances.
struct SafeSink {
    explicit SafeSink(std::uint32_t interval, const std::string& name = "clip.mp4",
                      std::uint8_t flags = MP4_OPEN_SAFE_MODE)
        : rec(sink, name, flags)
    {
        rec.SetProRes(MP4_PRORES_422);
        SetSafeParam(rec.Handle(), {0, interval, 0, 0});
    }
    void Frames(std::size_t count, std::size_t size = 100)
    {
        for (std::size_t n = 0; n < count; ++n, time += 40)
            EXPECT_EQ(rec.Video(Bytes(size, 1), time), 0u);
    }

    ExternalSink sink;
    Recording rec;
    std::uint64_t time = 0;
};

}  // namespace

// ---- A checkpoint ------------------------------------------------------------------------------

TEST(ACheckpointsMoov, IsFlushedBeforeTheSizeOfMdatIsTouched)
{
    SafeSink out(500);
    out.Frames(1);
    out.sink.ForgetCalls();
    out.Frames(1, 200);  // 144 + 400 passes 500
    const auto calls = Calls(out.sink);
    EXPECT_EQ(calls.front(), "seek 644 0");
    const auto flush = std::find(calls.begin(), calls.end(), "flush");
    ASSERT_EQ(calls.end() - flush, 6);
    EXPECT_EQ(flush[-1], "seek 144 0");
    EXPECT_THAT(std::vector(flush, calls.end()),
                ElementsAre("flush", "seek 36 0", "write 4", "seek 144 0", "flush", "write 200"));
}

TEST(ACheckpointsMoov, HoldsTheSamplesBeforeTheFrameThatCrossed)
{
    SafeSink out(500);
    out.Frames(1);
    out.Frames(1, 200);
    const BoxFile file = out.sink.File();
    EXPECT_THAT(file.Children(""), ElementsAre("ftyp", "free", "mdat", "moov"));
    EXPECT_EQ(file.Find("mdat").begin, 36u);
    EXPECT_EQ(file.Find("mdat").end, 644u);
    EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  1 x 100"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
    EXPECT_EQ(file.Dump(142, 4), "01 01 01 01");  // the frame lies behind the sample
    EXPECT_EQ(file.Dump(342, 4), "01 01 00 00");  // and the gap reads as zeros
}

TEST(ACheckpointsMoov, LeavesOutTracksWithoutASample)
{
    SafeSink out(500);
    out.rec.SetAac();
    out.Frames(1, 300);  // 44 + 600
    EXPECT_THAT(out.sink.File().Children("moov"), ElementsAre("mvhd", "udta"));
    out.Frames(5, 100);  // 444 + 200 passes 544
    const BoxFile file = out.sink.File();
    EXPECT_THAT(file.Children("moov"), ElementsAre("mvhd", "trak", "udta"));
    EXPECT_EQ(Checkpoints(out.rec.Log()), (Positions{544, 944}));
}

// The last sample of an open run is provisional; what follows it writes the run anew.
TEST(ACheckpointsMoov, ChangesNoSampleTable)
{
    SafeSink out(600);
    for (const std::uint64_t time : {0u, 40u, 80u})
        EXPECT_EQ(out.rec.Video(Bytes(100, 1), time), 0u);
    EXPECT_EQ(out.rec.Video(Bytes(150, 1), 120), 0u);  // 344 + 300 passes 600
    EXPECT_THAT(out.sink.File().Box(kVideo + "stts"), ReadsAs("stts  3 x 40"));
    EXPECT_EQ(out.rec.Video(Bytes(10, 1), 121), 0u);
    const BoxFile file = out.rec.Close();
    EXPECT_THAT(file.Box(kVideo + "stts"), ReadsAs("stts  3 x 40, 2 x 1"));
    EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  100, 100, 100, 150, 10"));
    EXPECT_THAT(file.Box(kVideo + "stco"), ReadsAs("stco  44"));
}

// 40 is the difference that the checkpoint finds.
TEST(ACheckpointsMoov, FixesTheDurationOfTheLastSample)
{
    for (const bool checkpoint : {true, false}) {
        SafeSink out(checkpoint ? 400 : 4000);
        for (const std::uint64_t time : {0u, 40u})
            EXPECT_EQ(out.rec.Video(Bytes(100, 1), time), 0u);
        EXPECT_EQ(out.rec.Video(Bytes(100, 1), 140), 0u);  // 244 + 200 passes 400
        EXPECT_THAT(out.rec.Close().Box("moov/trak.vide/mdia/mdhd"),
                    ReadsAs(checkpoint ? "mdhd  180/1000 und" : "mdhd  240/1000 und"));
    }
}

TEST(ACheckpointsMoov, LiesBehindTheHeaderOfAMovFileToo)
{
    SafeSink out(500, "clip.mov");
    out.Frames(5);  // 28 + 4 x 100 + 200 passes 500 before the fifth, and before the fourth: 328
    EXPECT_EQ(Checkpoints(out.rec.Log()), Positions{828});
    const BoxFile file = out.sink.File();
    EXPECT_EQ(file.Find("mdat").begin, 20u);
    EXPECT_EQ(file.Find("mdat").end, 828u);
    EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  3 x 100"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

// The mark of a 64-bit size becomes an ordinary size; what was to hold it is payload.
TEST(ACheckpointsMoov, TakesTheLongFormFromMdat)
{
    SafeSink out(500, "clip.mp4", MP4_OPEN_SAFE_MODE | MP4_OPEN_LARGE_FILE);
    EXPECT_EQ(out.sink.File().Dump(36, 16),
              "00 00 00 01 6D 64 61 74 00 00 00 00 00 00 00 01");
    out.Frames(1);
    out.Frames(1, 200);  // 152 + 400 passes 500
    const BoxFile file = out.sink.File();
    EXPECT_EQ(file.Dump(36, 16), "00 00 02 68 6D 64 61 74 00 00 00 00 00 00 00 01");  // 652 - 36
    EXPECT_THAT(file.Box(kVideo + "co64"), ReadsAs("co64  52"));
    EXPECT_EQ(out.rec.CloseStatus(), 0u);
    EXPECT_EQ(out.sink.File().Dump(36, 4), "00 00 02 68");
}

TEST(ACheckpointsMoov, HasItsOffsetsRightBeyond4GiB)
{
    SparseFile rec(MP4_OPEN_SAFE_MODE | MP4_OPEN_LARGE_FILE);
    const mp4_audio_track_info audio{0, 0, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    EXPECT_EQ(mp4_set_audio_track(rec.file, &audio), 0u);
    rec.GoTo(0x1'0000'0000);
    const Bytes frame(10, 2);
    SetSafeParam(rec.file, {99, 0, 0, 0});  // none for this one
    EXPECT_EQ(mp4_write_audio_frame(rec.file, frame.data(), 10, 0), 0u);
    const std::uint64_t next = 0x1'0000'0000 + 10 + 1000000;
    EXPECT_EQ(rec.CheckpointAt(0x1'0000'0000 + 10, {0, 1000000, 0, 0}), next);
    EXPECT_EQ(rec.sink.U32(36), 1000010u - 36);  // wrapped
    const BoxFile moov = rec.sink.BoxAt(next);
    EXPECT_THAT(moov.Box("moov/trak.soun/mdia/minf/stbl/co64"), ReadsAs("co64  4294967296"));
}

TEST(ACheckpointsMoov, AtThePositionItselfNeedsNoSeek)
{
    SafeSink out(0);
    out.sink.ForgetCalls();
    out.Frames(1);
    EXPECT_EQ(Checkpoints(out.rec.Log()), Positions{44});
    const auto calls = Calls(out.sink);
    ASSERT_GT(calls.size(), 1u);
    EXPECT_EQ(calls[0], "write 4");
    EXPECT_EQ(calls[1], "write 4");
}

TEST(ACheckpointsMoov, ReportsItsEmptyTracksAnewEachTime)
{
    SafeSink out(500);
    out.rec.SetAac();
    const std::string line = "error audio track samples 0";
    out.Frames(1, 300);  // 44 + 600: neither track has a sample
    EXPECT_EQ(out.rec.Log().Count(line), 2u);
    out.Frames(5);
    EXPECT_EQ(Checkpoints(out.rec.Log()).size(), 2u);
    EXPECT_EQ(out.rec.Log().Count(line), 3u);
    EXPECT_EQ(out.rec.CloseStatus(), 0u);
    EXPECT_EQ(out.rec.Log().Count(line), 4u);
}

TEST(ACheckpointsMoov, HoldsTheMetadataSetByThen)
{
    const std::string meta = "moov/udta/meta/";
    SafeSink out(500);
    EXPECT_EQ(mp4_set_metadata(out.rec.Handle(), "title", "A"), 0u);
    out.Frames(1);
    out.Frames(1, 200);
    const BoxFile first = out.sink.File();
    EXPECT_EQ(first.Box(meta + "ilst"), Hex("00000021 'ilst' 00000019 A9'nam' 00000011 'data'"
                                            "00000001 00000000 41"));
    EXPECT_EQ(first.Code(first.Find(meta + "hdlr").begin + 16), "mdir");
    EXPECT_FALSE(first.Has(meta + "keys"));
    EXPECT_EQ(mp4_set_metadata(out.rec.Handle(), "title", "B"), 0u);
    EXPECT_EQ(mp4_set_metadata(out.rec.Handle(), "com.x", "C"), 0u);
    out.Frames(4);  // 544 + 200 passes 644
    ASSERT_EQ(Checkpoints(out.rec.Log()).size(), 2u);
    const BoxFile second = out.sink.File();
    EXPECT_EQ(second.Box(meta + "ilst"), Hex("0000003A 'ilst' 00000019 A9'nam' 00000011 'data'"
                                             "00000001 00000000 42"
                                             "00000019 00000001 00000011 'data'"
                                             "00000001 00000000 43"));
    EXPECT_EQ(second.Code(second.Find(meta + "hdlr").begin + 16), "mdta");
    EXPECT_TRUE(second.Has(meta + "keys"));
}

TEST(ACheckpointsMoov, ReportsAnUnknownMetadataTypeAnewEachTime)
{
    SafeSink out(500);
    EXPECT_EQ(mp4_set_metadata_ex(out.rec.Handle(), "com.u", "A", 1, 7, nullptr), 0u);
    out.Frames(1);
    out.Frames(1, 200);
    out.Frames(4);
    ASSERT_EQ(Checkpoints(out.rec.Log()).size(), 2u);
    EXPECT_EQ(out.rec.CloseStatus(), 0u);
    EXPECT_EQ(out.rec.Log().Count("error unknown meta data type:7"), 3u);
}

// What is flushed is with the system: another reader of the file finds it.
TEST(ACheckpointsMoov, IsInTheLocalFileAtOnce)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    rec.SetProRes(MP4_PRORES_422);
    SetSafeParam(rec.Handle(), {0, 500, 0, 0});
    EXPECT_EQ(rec.Video(Bytes(100, 1), 0), 0u);
    EXPECT_EQ(rec.Video(Bytes(200, 1), 40), 0u);
    const BoxFile file = BoxFile::Read(rec.Path());
    EXPECT_EQ(file.Find("moov").begin, 644u);
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

// ---- Between checkpoints -----------------------------------------------------------------------

TEST(AFrameBetweenCheckpoints, AsksForThePositionAndNothingElse)
{
    SafeSink out(500);
    out.sink.ForgetCalls();
    out.Frames(1);
    EXPECT_THAT(out.sink.Calls(), ElementsAre("tell", "write 100"));
}

TEST(ACutBehindTheMoovInForce, LeavesAWholeFile)
{
    SafeSink out(2000);
    out.Frames(30);
    ASSERT_EQ(Checkpoints(out.rec.Log()), (Positions{3844}));
    const Bytes all = out.sink.Data();
    const std::size_t end = out.sink.File().Find("moov").end;
    ASSERT_EQ(all.size(), end);
    EXPECT_THAT(CheckFile(all), IsEmpty());
    // The next checkpoint is being written further on: any part of it may be there.
    out.sink.FailWrite(60, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_THROW(out.Frames(10), kv_mp4_exception);
    const Bytes torn = out.sink.Data();
    ASSERT_GT(torn.size(), end + 300);
    for (std::size_t size : {end, end + 1, end + 7, end + 8, torn.size() - 1, torn.size()}) {
        const Bytes cut(torn.begin(), torn.begin() + static_cast<std::ptrdiff_t>(size));
        const BoxFile file(cut);
        EXPECT_EQ(file.Find("moov").end, end);
        EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  18 x 100"));
        EXPECT_THAT(CheckFile(Bytes(cut.begin(), cut.begin() + static_cast<std::ptrdiff_t>(end))),
                    IsEmpty());
    }
}

TEST(AFrameLargerThanTheDistance, OverrunsItsOwnMoovAndTheNextMakesAnother)
{
    SafeSink out(1000);
    out.Frames(1, 5000);  // 44 + 10000
    EXPECT_EQ(Checkpoints(out.rec.Log()), Positions{1044});
    EXPECT_EQ(out.sink.File().Dump(1044, 4), "01 01 01 01");
    out.Frames(1, 1);
    EXPECT_EQ(Checkpoints(out.rec.Log()), (Positions{1044, 6044}));
    const BoxFile file = out.sink.File();
    EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  1 x 5000"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

// Frames go on and over the moov in force; each one beyond the limit says so.
TEST(AnUnknownStrategy, MakesNoCheckpointAndLosesTheMoovInForce)
{
    SafeSink out(500);
    out.Frames(1);
    out.Frames(1, 200);
    SetSafeParam(out.rec.Handle(), {5, 500, 0, 0});
    const std::string line = "error unsupported strategy 5";
    out.Frames(1);  // 344 + 200 is within 644
    EXPECT_EQ(out.rec.Log().Count(line), 0u);
    EXPECT_EQ(out.sink.File().Dump(648, 4), "6D 6F 6F 76");
    out.Frames(4);  // 444 + 200 is still within
    EXPECT_EQ(out.rec.Log().Count(line), 3u);
    EXPECT_EQ(out.sink.File().Dump(648, 4), "01 01 01 01");
    EXPECT_EQ(Checkpoints(out.rec.Log()), Positions{644});
}

TEST(AnUnknownStrategy, IsNamedInItsLine)
{
    for (const std::uint32_t strategy : {3u, 4u, 0xFFFFFFFFu}) {
        SparseFile rec;
        EXPECT_EQ(rec.CheckpointAt(5000, {strategy, 0, 0, 0}), 0u);
        EXPECT_EQ(rec.log.Count("error unsupported strategy " + std::to_string(strategy)), 1u);
    }
}

// ---- The close ---------------------------------------------------------------------------------

TEST(ACloseInSafeMode, EndsMdatBeforeItWritesTheLastMoovInPlace)
{
    SafeSink out(500);
    out.Frames(1);
    out.Frames(1, 200);
    out.sink.ForgetCalls();
    const BoxFile file = out.rec.Close();
    EXPECT_TRUE(out.rec.Log().Has("info mdat end update to 644"));
    const auto calls = Calls(out.sink);
    ASSERT_GT(calls.size(), 5u);
    EXPECT_THAT(std::vector(calls.begin(), calls.begin() + 4),
                ElementsAre("seek 36 0", "write 4", "seek 344 0", "seek 644 0"));
    EXPECT_EQ(calls.back(), "close");
    EXPECT_EQ(out.sink.Count("flush"), 0u);
    EXPECT_EQ(file.Find("moov").begin, 644u);
    EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  100, 200"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

TEST(ACloseInSafeMode, HasNoLineOfAnEndOfMdat)
{
    SafeSink out(500);
    EXPECT_EQ(out.rec.CloseStatus(), 0u);
    std::vector<std::string> lines = out.rec.Log().Lines();
    for (std::string& line : lines)
        if (const std::size_t at = line.find(" takes "); at != std::string::npos)
            line.erase(at);
    const auto end = std::find(lines.begin(), lines.end(), "info mdat end update to 500");
    ASSERT_NE(end, lines.end());
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("info Muxer"); });
    EXPECT_THAT(lines, ElementsAre("info Muxer - Close - moov write",
                                   "info Muxer - Close - remove info file",
                                   "info Muxer - Close - uninit"));
}

TEST(ACloseInSafeMode, PutsTheMoovOfAShortFileAtTheSmallestInterval)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    rec.SetH264();
    rec.FramesAt({0, 40});
    const BoxFile file = rec.Close();
    EXPECT_TRUE(rec.Log().Has("info mdat end update to 10485760"));
    EXPECT_EQ(file.Find("mdat").begin, 36u);
    EXPECT_EQ(file.Find("mdat").end, 10485760u);
    EXPECT_EQ(file.Find("moov").end, file.All().size());
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

// Without a frame and a checkpoint the long form of mdat goes as well.
TEST(ACloseInSafeMode, TakesTheLongFormFromMdat)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE | MP4_OPEN_LARGE_FILE);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Dump(36, 16),
              "00 9F FF DC 6D 64 61 74 00 00 00 00 00 00 00 01");  // 10485760 - 36
    EXPECT_EQ(file.Find("moov").begin, 10485760u);
}

// Whatever lies there: with an unknown strategy the data have long passed it.
TEST(ACloseWithoutACheckpoint, PutsTheMoovAtTheSmallestIntervalOfThatMoment)
{
    SafeSink out(500);
    SetSafeParam(out.rec.Handle(), {9, 700, 0, 0});
    out.Frames(20);
    const BoxFile file = out.rec.Close();
    EXPECT_TRUE(out.rec.Log().Has("info mdat end update to 700"));
    EXPECT_EQ(file.Find("mdat").end, 700u);
    EXPECT_EQ(file.Find("moov").begin, 700u);
    EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  20 x 100"));
}
