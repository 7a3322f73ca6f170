// What becomes of frames: their order, their times, and the end.
#include "gstreamer/take.h"
#include "support/reads_as.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// As behind matroskademux and RTP: the same pictures without decoding times.
TEST(GstFrames, ReorderedPicturesWithoutDecodingTimesGoInEvenStepsWithAWarning)
{
    for (const std::vector<guint64>& group :
         {std::vector<guint64>{3, 1, 2}, std::vector<guint64>{4, 2, 1, 3},
          std::vector<guint64>{8, 4, 2, 1, 3, 6, 5, 7}}) {
        Take take;
        take.Caps("video", kH264);
        take.Frame("video", Key(), GST_SECOND);
        guint64 from = 0;
        for (int i = 0; i < 5; ++i, from += group.size())
            for (const guint64 shown : group)
                take.Frame("video", Delta(), GST_SECOND + (from + shown) * 40 * kMs);
        EXPECT_THAT(take.Finish().Box(kVideo + "stts"),
                    ReadsAs("stts  " + std::to_string(from + 1) + " x 3600"));
        EXPECT_EQ(take.Warning(),
                  "gst-stream-error-quark 11: The video has B-frames: its pictures keep "
                  "their decoding times.");
    }
}

// The caps tell no step: but for the first group, whose third picture shows what comes.
TEST(GstFrames, ReorderedPicturesAtAnyRateRiseEvenlyFromTheFirstThatFalls)
{
    Take take;
    take.Caps("video", "video/x-h264,stream-format=byte-stream,alignment=au,width=160,height=120");
    take.Frame("video", Key(), 0);
    for (guint64 from = 0; from < 9; from += 3)
        for (const guint64 shown : {3u, 1u, 2u})
            take.Frame("video", Delta(), (from + shown) * 40 * kMs);
    // The first of them stands where it is shown, the next two a tick behind.
    EXPECT_THAT(take.Finish().Box(kVideo + "stts"),
                ReadsAs("stts  1 x 10800, 2 x 1, 1 x 3598, 6 x 3600"));
}

// A camera that left out two pictures.
TEST(GstFrames, APauseWithoutDecodingTimesIsMadeUpForByTheNextPicture)
{
    Take take;
    take.Caps("video", kH264);
    for (const guint64 shown : {0u, 1u, 4u, 5u, 6u})
        take.Frame("video", Key(), shown * 40 * kMs);
    EXPECT_THAT(take.Finish().Box(kVideo + "stts"),
                ReadsAs("stts  2 x 3600, 1 x 10800, 2 x 3600"));
    EXPECT_EQ(take.Warning(), "none");
}

// What a stream's first picture waited for to be shown is no matter of the next stream's.
TEST(GstFrames, AnotherStreamBeginsWithADelayOfItsOwn)
{
    for (const bool flush : {false, true}) {
        Take take;
        take.Caps("video", kH264);
        take.Segment("video", 0);
        take.Frame("video", Key(), 80 * kMs, 0);
        take.Frame("video", Delta(), 120 * kMs, 40 * kMs);
        take.Run();
        if (flush) {
            take.Event("video", gst_event_new_flush_start());
            take.Event("video", gst_event_new_flush_stop(FALSE));
        } else {
            take.Event("video", gst_event_new_stream_start("another"));
        }
        take.Segment("video", 0);
        take.Frame("video", Key(), 160 * kMs, 160 * kMs);
        take.Frame("video", Delta(), 200 * kMs, 200 * kMs);
        EXPECT_THAT(Text(take.Finish().Box(kVideo + "stts")),
                    AnyOf("stts  4 x 3600", "stts  1 x 7200, 2 x 3600"));
    }
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
    hevc.Frame("video", HevcKey(), 0);
    EXPECT_TRUE(hevc.Finish().Has(kVideo + "stsd/hev1"));

    Take prores("clip.mov");
    prores.Caps("video", "video/x-prores,variant=hq,width=160,height=120,framerate=30000/1001");
    prores.Frame("video", Bytes(20, 0xAB), 0);
    prores.Frame("video", Bytes(20, 0xAB), 1001 * GST_SECOND / 30000);
    const BoxFile file = prores.Finish();
    EXPECT_TRUE(file.Has(kVideo + "stsd/apch"));
    EXPECT_THAT(file.Box(kVideo + "stts"), ReadsAs("stts  2 x 3003"));
}

// The decoder's configuration has 4 bits of layout behind 5 of type and 4 of rate.
TEST(GstFrames, RawSoundKeepsItsChannelConfiguration)
{
    const struct {
        const char* config;  // what is given: LC at 48 kHz with the layout in the second byte
        int channels;
        std::uint8_t kept;
    } cases[] = {{"1188", 1, 1}, {"11b0", 6, 6}, {"11b8", 8, 7}, {"1180", 8, 7},
                 {"1180", 7, 11}, {"1180", 6, 6}, {"11d8", 7, 11}, {"11e0", 8, 12}};
    for (const auto& [config, channels, kept] : cases) {
        Take take;
        take.Caps("audio", "audio/mpeg,mpegversion=4,stream-format=raw,rate=48000,channels=" +
                               std::to_string(channels) + ",codec_data=(buffer)" + config);
        take.Frame("audio", Sound(), 0);
        const Bytes entry = take.Finish().Box(kAudio + "stsd/mp4a/esds");
        EXPECT_EQ(Bytes(entry.begin() + 43, entry.begin() + 45),
                  (Bytes{0x11, static_cast<std::uint8_t>(0x80 | kept << 3)}))
            << config << " with " << channels;
    }
}

TEST(GstFrames, AReservedChannelConfigurationIsRefused)
{
    for (const char* config : {"11c0", "11c8", "11d0", "11f8"}) {  // 8, 9, 10, 15
        Take take;
        take.Caps("audio", std::string("audio/mpeg,mpegversion=4,stream-format=raw,rate=48000,"
                                       "channels=8,codec_data=(buffer)") + config);
        take.Frame("audio", Sound(), 0);
        take.Run();
        EXPECT_THAT(take.Error(), testing::HasSubstr("reserved")) << config;
    }
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
