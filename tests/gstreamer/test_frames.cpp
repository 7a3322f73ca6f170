// What becomes of frames: their order, their times, and the end.
#include "gstreamer/take.h"
#include "support/reads_as.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kvtest;
using testing::AnyOf;
using testing::ElementsAre;

namespace {

const std::string kVideo = "moov/trak.vide/mdia/minf/stbl/";
const std::string kAudio = "moov/trak.soun/mdia/minf/stbl/";

// Video at 0, 40 and 80 ms.
void ThreePictures(Take& take)
{
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Frame("video", Delta(), 40 * kMs);
    take.Frame("video", Delta(), 80 * kMs);
}

// AAC frames of 1024 samples at 48 kHz, from a time on.
void Sounds(Take& take, int count, GstClockTime from = 0)
{
    take.Caps("audio", kAac);
    for (int i = 0; i < count; ++i)
        take.Frame("audio", Sound(), from + static_cast<guint64>(i) * 1024 * GST_SECOND / 48000);
}

}  // namespace

TEST(GstFrames, ARecordingIsByteForByteThatOfTheLibrary)
{
    Take take;
    ThreePictures(take);
    const BoxFile file = take.Finish();

    Recording rec;
    mp4_video_track_info info{};
    info.timescale = 90000;
    info.sample_duration = 3600;
    info.width = 160;
    info.height = 120;
    mp4_set_video_track(rec.Handle(), &info);
    rec.Video(Key(), 0);
    rec.Video(Delta(), 3600);
    rec.Video(Delta(), 7200);
    EXPECT_EQ(file.All(), rec.Close().All());
}

TEST(GstFrames, OutputThatWaitsForNothingHasTheSameBytes)
{
    Take durable;
    ThreePictures(durable);
    Take quick;
    g_object_set(quick.Element(), "durable", FALSE, nullptr);
    ThreePictures(quick);
    EXPECT_EQ(durable.Finish().All(), quick.Finish().All());
}

// 48 kHz: sounds at 0, 21.3, 42.7, 64 ms; pictures at 0, 40, 80 ms.
TEST(GstFrames, FramesOfTwoPadsGoInByTime)
{
    Take take;
    ThreePictures(take);
    Sounds(take, 4);
    const BoxFile file = take.Finish();
    EXPECT_THAT(file.Box(kVideo + "stco"), ReadsAs("stco  44, 108, 134"));  // 52, 14, 14 bytes
    EXPECT_THAT(file.Box(kAudio + "stco"), ReadsAs("stco  96, 122"));
    EXPECT_THAT(file.Box(kAudio + "stsc"), ReadsAs("stsc  1:2"));
    EXPECT_THAT(file.Complaints(), testing::IsEmpty());
}

TEST(GstFrames, EachPadsSegmentGivesItsRunningTime)
{
    Take take;
    take.Caps("video", kH264);
    take.Segment("video", 3600 * GST_SECOND);
    take.Frame("video", Key(), 3600 * GST_SECOND);
    take.Frame("video", Delta(), 3600 * GST_SECOND + 40 * kMs);
    take.Caps("audio", kAac);
    take.Segment("audio", 7 * GST_SECOND);
    Sounds(take, 3, 7 * GST_SECOND);
    const BoxFile file = take.Finish();
    EXPECT_THAT(file.Box(kVideo + "stts"), ReadsAs("stts  2 x 3600"));
    EXPECT_THAT(file.Box(kAudio + "stts"), ReadsAs("stts  3 x 1024"));
}

TEST(GstFrames, ASecondSegmentGoesOnBehindItsBase)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Segment("video", 0, 40 * kMs);
    take.Frame("video", Delta(), 0);
    EXPECT_THAT(take.Finish().Box(kVideo + "stts"), ReadsAs("stts  2 x 3600"));
}

TEST(GstFrames, ATrackThatComesLaterBeginsWithTheRecording)
{
    Take take;
    ThreePictures(take);
    Sounds(take, 3, 40 * kMs);  // 1920 samples late
    EXPECT_THAT(take.Finish().Box(kAudio + "stts"), ReadsAs("stts  1 x 2944, 2 x 1024"));
}

TEST(GstFrames, TimesThatWereCutToMillisecondsMakeASteadySound)
{
    Take take;
    take.Caps("audio", kAac);
    for (const guint64 time : {0u, 21u, 43u, 64u, 85u})
        take.Frame("audio", Sound(), time * kMs);
    EXPECT_THAT(take.Finish().Box(kAudio + "stts"), ReadsAs("stts  5 x 1024"));
}

TEST(GstFrames, TimesThatDoNotRiseAreMovedByATick)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 40 * kMs);
    take.Frame("video", Delta(), 40 * kMs);
    take.Frame("video", Delta(), 80 * kMs);
    EXPECT_THAT(take.Finish().Box(kVideo + "stts"), ReadsAs("stts  1 x 1, 2 x 3599"));
}

// Demuxers may leave them out: the caps tell how long a frame lasts.
TEST(GstFrames, FramesWithoutTimesFollowEachOther)
{
    Take take;
    take.Caps("video", kH264);
    take.Caps("audio", kAac);
    for (int i = 0; i < 3; ++i) {
        take.Frame("video", Key(), GST_CLOCK_TIME_NONE);
        take.Frame("audio", Sound(), GST_CLOCK_TIME_NONE);
    }
    const BoxFile file = take.Finish();
    EXPECT_THAT(file.Box(kVideo + "stts"), ReadsAs("stts  3 x 3600"));
    EXPECT_THAT(file.Box(kAudio + "stts"), ReadsAs("stts  3 x 1024"));
}

// Shown 0, 120, 40, 80 ms; decoded one picture apart, the first when it is shown.
TEST(GstFrames, ReorderedPicturesKeepTheirDecodingTimesWithAWarning)
{
    Take take;
    take.Caps("video", kH264);
    take.Segment("video", GST_SECOND);
    take.Frame("video", Key(), GST_SECOND, GST_SECOND - 80 * kMs);
    take.Frame("video", Delta(), GST_SECOND + 120 * kMs, GST_SECOND - 40 * kMs);
    take.Frame("video", Delta(), GST_SECOND + 40 * kMs, GST_SECOND);
    take.Frame("video", Delta(), GST_SECOND + 80 * kMs, GST_SECOND + 40 * kMs);
    EXPECT_THAT(take.Finish().Box(kVideo + "stts"), ReadsAs("stts  4 x 3600"));
    EXPECT_EQ(take.Warning(),
              "gst-stream-error-quark 11: The video has B-frames: its pictures keep "
              "their decoding times.");
}

TEST(GstFrames, PicturesBeforeTheParameterSetsAreLeftOut)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Delta(), 0);
    take.Frame("video", Delta(), 40 * kMs);
    take.Frame("video", Key(), 80 * kMs);
    take.Frame("video", Delta(), 120 * kMs);
    const BoxFile file = take.Finish();
    EXPECT_THAT(file.Box(kVideo + "stts"), ReadsAs("stts  2 x 3600"));
    EXPECT_THAT(file.Box("moov/mvhd"), ReadsAs("mvhd  80/1000 next 2"));
}

TEST(GstFrames, HevcAndProResAreRecorded)
{
    Take hevc;
    hevc.Caps("video", kHevc);
    const Bytes start{0, 0, 1};
    hevc.Frame("video", start + HevcVps() + start + HevcSps() + start + HevcPps() + Unit(0x26), 0);
    EXPECT_TRUE(hevc.Finish().Has(kVideo + "stsd/hev1"));

    Take prores("clip.mov");
    prores.Caps("video", "video/x-prores,variant=hq,width=160,height=120,framerate=30000/1001");
    prores.Frame("video", Bytes(20, 0xAB), 0);
    prores.Frame("video", Bytes(20, 0xAB), 1001 * GST_SECOND / 30000);
    const BoxFile file = prores.Finish();
    EXPECT_TRUE(file.Has(kVideo + "stsd/apch"));
    EXPECT_THAT(file.Box(kVideo + "stts"), ReadsAs("stts  2 x 3003"));
}

TEST(GstFrames, AdtsLosesItsHeaderWithOrWithoutAChecksum)
{
    Take take;
    take.Caps("audio", kAdts);
    take.Frame("audio", Bytes{0xff, 0xf1, 0x4c, 0x80, 1, 0x5f, 0xfc} + Sound(), 0);
    take.Frame("audio", Bytes{0xff, 0xf0, 0x4c, 0x80, 1, 0x5f, 0xfc, 7, 7} + Sound(), 21 * kMs);
    EXPECT_THAT(Samples(take.Finish(), "trak.soun"), ElementsAre(Sound(), Sound()));
}

// The end of one pad alone must not end the recording: sound goes on behind the video's.
TEST(GstFrames, TheRecordingEndsWhenAllPadsHaveEnded)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Event("video", gst_event_new_eos());
    Sounds(take, 50);
    take.Event("audio", gst_event_new_eos());
    EXPECT_THAT(take.Finish().Box(kAudio + "stsz"), ReadsAs("stsz  50 x 6"));
}

// A pad takes a frame when the one before it is recorded.
TEST(GstFrames, AStopWithoutAnEndFinishesTheFile)
{
    Take take;
    ThreePictures(take);
    take.Run();
    take.Stop();
    const BoxFile file = BoxFile::Read(take.Path());
    EXPECT_THAT(file.Complaints(), testing::IsEmpty());
    EXPECT_THAT(Text(file.Box(kVideo + "stts")), AnyOf("stts  2 x 3600", "stts  3 x 3600"));
}

TEST(GstFrames, AGapOfCaptionsHoldsNobodyUp)
{
    Take take;
    ThreePictures(take);
    take.Caps("caption", kLine21);
    take.Segment("caption", 0);
    take.Event("caption", gst_event_new_gap(0, 200 * kMs));
    EXPECT_THAT(take.Finish().Box(kVideo + "stts"), ReadsAs("stts  3 x 3600"));
}

// What still waits when the flush comes is dropped: the second picture may.
TEST(GstFrames, WhatFollowsAFlushGoesBehindWhatIsRecorded)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Frame("video", Delta(), 40 * kMs);
    take.Event("video", gst_event_new_flush_start());
    take.Event("video", gst_event_new_flush_stop(TRUE));
    take.Segment("video", 0);
    take.Frame("video", Key(), 0);
    take.Frame("video", Delta(), 40 * kMs);
    EXPECT_THAT(Text(take.Finish().Box(kVideo + "stts")),
                AnyOf("stts  3 x 3600", "stts  4 x 3600"));
}
