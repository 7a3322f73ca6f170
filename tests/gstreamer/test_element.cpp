// What the element shows, and what it refuses.
#include "gstreamer/take.h"
#include "support/reads_as.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

using namespace kvtest;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

GstPad* Request(Take& take, const char* name)
{
    GstElementClass* const type = GST_ELEMENT_GET_CLASS(take.Element());
    return gst_element_request_pad(take.Element(), gst_element_class_get_pad_template(type, name),
                                   nullptr, nullptr);
}

guint64 Number(Take& take, const char* property)
{
    guint64 value = 0;
    g_object_get(take.Element(), property, &value, nullptr);
    return value;
}

// Whether a pad takes caps, and so data.
bool Takes(const std::string& pad, const std::string& caps)
{
    Take take;
    take.Caps(pad, caps);
    take.Frame(pad, caps == kHevc ? HevcKey() : Key(), 0);
    take.Event(pad, gst_event_new_eos());
    take.Run();
    // Caps that the element refuses itself end it with an error, and what was pushed is long taken.
    GstMessage* end = take.Message(
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), true);
    const bool ended = end && GST_MESSAGE_TYPE(end) == GST_MESSAGE_EOS;
    gst_clear_message(&end);
    return ended && take.Refused() == 0;
}

}  // namespace

TEST(GstElement, IsASinkThatTakesTags)
{
    Take take;
    EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(take.Element(), GST_ELEMENT_FLAG_SINK));
    EXPECT_TRUE(GST_IS_TAG_SETTER(take.Element()));
}

TEST(GstElement, EachKindHasAPadOfItsName)
{
    Take take;
    for (const char* name : {"video", "audio", "caption"}) {
        GstPad* const pad = Request(take, name);
        ASSERT_NE(pad, nullptr);
        EXPECT_STREQ(GST_PAD_NAME(pad), name);
        gst_object_unref(pad);
    }
}

TEST(GstElement, ASecondPadOfAKindIsRefusedWithAnError)
{
    for (const char* name : {"video", "audio", "caption"}) {
        Take take;
        gst_object_unref(Request(take, name));
        EXPECT_EQ(Request(take, name), nullptr);
        EXPECT_THAT(take.Error(), StartsWith("gst-core-error-quark 5: There is a pad"));
    }
}

TEST(GstElement, AReleasedPadCanBeRequestedAgain)
{
    Take take;
    GstPad* const pad = Request(take, "video");
    gst_element_release_request_pad(take.Element(), pad);
    gst_object_unref(pad);
    GstPad* again = Request(take, "video");
    EXPECT_NE(again, nullptr);
    gst_clear_object(&again);
}

// The video waits for the sound, and its thread in the pad that is released.
TEST(GstElement, APadIsReleasedUnderTheThreadThatFeedsIt)
{
    Take take;
    take.Caps("audio", kAac);
    take.Caps("video", kH264);
    for (guint64 i = 0; i < 10; ++i)
        take.Frame("video", Key(), i * 40 * kMs);
    std::thread feeding([&take] { take.Run(); });
    GstPad* const pad = gst_element_get_static_pad(take.Element(), "video");
    while (!gst_pad_has_current_caps(pad))
        std::this_thread::yield();
    gst_element_release_request_pad(take.Element(), pad);
    feeding.join();
    gst_object_unref(pad);
    EXPECT_GT(take.Refused(), 0);
}

TEST(GstElement, TakesWhatTheLibraryTakes)
{
    for (const std::string& caps : {kH264, kHevc})
        EXPECT_TRUE(Takes("video", caps)) << caps;
    for (const std::string& caps : {kAac, kAdts})
        EXPECT_TRUE(Takes("audio", caps)) << caps;
    for (const std::string& caps :
         {kLine21, kPackets, std::string("closedcaption/x-cea-608,format=raw")})
        EXPECT_TRUE(Takes("caption", caps)) << caps;
}

TEST(GstElement, RefusesOtherCaps)
{
    EXPECT_FALSE(Takes("video", "video/x-h264,stream-format=avc,alignment=au,width=16,height=16"));
    EXPECT_FALSE(Takes("video", "video/x-h264,stream-format=byte-stream,alignment=nal,width=16,"
                                "height=16"));
    EXPECT_FALSE(Takes("video", "video/x-h264,stream-format=byte-stream,alignment=au"));
    EXPECT_FALSE(Takes("video", "video/x-vp9,width=16,height=16"));
    EXPECT_FALSE(Takes("video", "video/x-prores,variant=raw,width=16,height=16"));
    EXPECT_FALSE(Takes("audio", "audio/mpeg,mpegversion=1,layer=3,rate=48000,channels=2"));
    EXPECT_FALSE(Takes("audio", "audio/mpeg,mpegversion=4,stream-format=adts,rate=96000,"
                                "channels=2"));
    EXPECT_FALSE(Takes("caption", "closedcaption/x-cea-708,format=cc_data"));
}

TEST(GstElement, RawAacWithoutItsConfigurationIsAnError)
{
    Take take;
    take.Caps("audio", "audio/mpeg,mpegversion=4,stream-format=raw,rate=48000,channels=2");
    take.Frame("audio", Sound(), 0);
    take.Run();
    EXPECT_THAT(take.Error(), HasSubstr("Raw AAC without codec_data"));
}

TEST(GstElement, PropertiesHaveTheLibrarysDefaultsAndKeepWhatIsSet)
{
    Take take;
    guint first = 0, largest = 0, threshold = 0, flush = 0;
    gint strategy = -1;
    gboolean safe = TRUE, log = TRUE, large = TRUE, durable = FALSE;
    const auto read = [&] {
        g_object_get(take.Element(), "checkpoint-interval", &first, "checkpoint-max-interval",
                     &largest, "checkpoint-threshold", &threshold, "checkpoint-strategy", &strategy,
                     "info-flush-interval", &flush, "safe-mode", &safe, "info-file", &log,
                     "large-file", &large, "durable", &durable, nullptr);
        return std::vector<guint>{first, largest, threshold, static_cast<guint>(strategy), flush};
    };
    EXPECT_EQ(read(), (std::vector<guint>{0xA00000, 0x6400000, 0x40000000, 1, 900}));
    EXPECT_FALSE(safe || log || large || !durable);
    g_object_set(take.Element(), "checkpoint-interval", 1, "checkpoint-max-interval", 2,
                 "checkpoint-threshold", 3, "checkpoint-strategy", 2, "info-flush-interval", 10,
                 "safe-mode", TRUE, "info-file", TRUE, "large-file", TRUE, "durable", FALSE,
                 nullptr);
    EXPECT_EQ(read(), (std::vector<guint>{1, 2, 3, 2, 10}));
    EXPECT_TRUE(safe && log && large && !durable);
}

TEST(GstElement, CountsWhatItRecords)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Frame("video", Delta(), 40 * kMs);
    take.Finish();
    EXPECT_EQ(Number(take, "duration"), 80 * kMs);
    EXPECT_EQ(Number(take, "bytes-written"), Key().size() + Delta().size());
}

TEST(GstElement, AnEmptyLocationIsAnError)
{
    Take take;
    g_object_set(take.Element(), "location", nullptr, nullptr);
    EXPECT_FALSE(take.Play());
    EXPECT_THAT(take.Error(), StartsWith("gst-resource-error-quark 3: No file name"));
}

TEST(GstElement, AFolderThatIsNotThereIsAnError)
{
    for (const gboolean durable : {1, 0}) {
        Take take;
        g_object_set(take.Element(), "location", (take.Path() + "/none/clip.mp4").c_str(),
                     "durable", durable, nullptr);
        EXPECT_FALSE(take.Play());
        EXPECT_THAT(take.Error(), HasSubstr("for writing"));
    }
}

TEST(GstElement, AFolderInPlaceOfAFileIsAnError)
{
    Take take;
    std::filesystem::create_directory(take.Path());
    EXPECT_FALSE(take.Play());
    EXPECT_THAT(take.Error(), StartsWith("gst-resource-error-quark"));
}

TEST(GstElement, AFullDiskIsAnErrorThatSaysSo)
{
    for (const gboolean durable : {1, 0}) {
        Take take;
        g_object_set(take.Element(), "location", "/dev/full", "durable", durable, nullptr);
        take.Caps("video", kH264);
        for (guint64 i = 0; i < 20; ++i)
            take.Frame("video", Key() + Unit(0x41, 1000), i * 40 * kMs);
        if (take.Play())  // where nothing is held back, the first bytes fail
            take.Run();
        EXPECT_THAT(take.Error(), StartsWith("gst-resource-error-quark 14: "));
    }
}

TEST(GstElement, ALocationThatIsNoTextIsAnError)
{
    Take take;
    g_object_set(take.Element(), "location", "/tmp/\xff.mp4", nullptr);
    EXPECT_FALSE(take.Play());
    EXPECT_THAT(take.Error(), HasSubstr("not valid UTF-8"));
}

TEST(GstElement, AnotherPictureSizeInMidRecordingIsAnError)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Caps("video", "video/x-h264,stream-format=byte-stream,alignment=au,width=320,height=240");
    take.Frame("video", Key(), 40 * kMs);
    take.Run();
    EXPECT_THAT(take.Error(), HasSubstr("The video changes in the middle of the recording"));
}

TEST(GstElement, AnotherFrameRateInMidRecordingIsRecorded)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Caps("video", "video/x-h264,stream-format=byte-stream,alignment=au,width=160,height=120,"
                       "framerate=50/1");
    take.Frame("video", Key(), 40 * kMs);
    take.Frame("video", Key(), 60 * kMs);
    EXPECT_THAT(take.Finish().Box("moov/trak.vide/mdia/minf/stbl/stts"),
                ReadsAs("stts  1 x 3600, 2 x 1800"));
}

// 30 to 24000/1001: the track's ticks stay those of 30, the last picture lasts as the new caps say.
TEST(GstElement, AnotherFrameRateIsCountedInTheTicksOfTheTrack)
{
    Take take;
    const std::string caps = "video/x-h264,stream-format=byte-stream,alignment=au,width=160,"
                             "height=120,framerate=";
    take.Caps("video", caps + "30/1");
    take.Frame("video", Key(), 0);
    take.Caps("video", caps + "24000/1001");
    take.Frame("video", Key(), GST_SECOND);
    take.Finish();
    EXPECT_NEAR(static_cast<double>(Number(take, "duration")), 1e9 + 1001e9 / 24000, 2e4);
}

TEST(GstElement, ABrokenFrameIsLeftOutWithAWarning)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Frame("video", Bytes(20, 0xAB), 40 * kMs);
    take.Frame("video", Delta(), 80 * kMs);
    EXPECT_THAT(take.Finish().Box("moov/trak.vide/mdia/minf/stbl/stts"), ReadsAs("stts  2 x 7200"));
    EXPECT_THAT(take.Warning(), HasSubstr("without a start code"));
}

TEST(GstElement, SegmentsThatAreNotInTimeAreAnError)
{
    Take take;
    take.Caps("video", kH264);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_BYTES);
    take.Segment("video", 0);
    take.Event("video", gst_event_new_segment(&segment));
    take.Frame("video", Key(), 0);
    take.Run();
    EXPECT_THAT(take.Error(), HasSubstr("segments in time"));
    take.Stop();
    EXPECT_EQ(take.Message(GST_MESSAGE_ERROR), nullptr);  // it is told once
    EXPECT_EQ(BoxFile::Read(take.Path()).U32(36), 8u);    // "mdat" without the frame behind it
}

TEST(GstElement, RecordsASecondFileAfterTheFirst)
{
    Take take;
    Bytes files[2];
    for (Bytes& bytes : files) {
        take.Caps("video", kH264);
        take.Segment("video", 0);
        take.Frame("video", Key(), 0);
        bytes = take.Finish().All();
        std::filesystem::remove(take.Path());
    }
    EXPECT_EQ(files[0], files[1]);
}

TEST(GstElement, TheLogOfAnOlderRecordingGoes)
{
    Take take;
    std::ofstream(take.Path() + ".info") << "old";
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Finish();
    EXPECT_FALSE(std::filesystem::exists(take.Path() + ".info"));
}

TEST(GstElement, AnInfoFileLiesBesideTheRecordingUntilItsEnd)
{
    Take take;
    g_object_set(take.Element(), "info-file", TRUE, nullptr);
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Run();
    EXPECT_TRUE(std::filesystem::exists(take.Path() + ".info"));
    take.Stop();
    EXPECT_FALSE(std::filesystem::exists(take.Path() + ".info"));
}
