// What goes beside video and sound: captions, time codes, tags, and what is told of checkpoints.
#include "gstreamer/take.h"
#include "support/reads_as.h"
#include "support/samples.h"

#include <gst/video/video.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

using namespace kvtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// `seconds` of one picture each.
void Pictures(Take& take, guint64 seconds)
{
    take.Caps("video", kH264);
    for (guint64 i = 0; i <= seconds; ++i)
        take.Frame("video", Key(), i * GST_SECOND);
}

const Bytes kCdat{0, 0, 0, 10, 'c', 'd', 'a', 't'};
const Bytes kCdt2{0, 0, 0, 10, 'c', 'd', 't', '2'};

std::string Contents(const BoxFile& file)
{
    return {file.All().begin(), file.All().end()};
}

}  // namespace

TEST(GstCaptions, PairsOfBothFieldsBecomeASample)
{
    Take take;
    Pictures(take, 1);
    take.Caps("caption", kLine21);
    take.Frame("caption", {0x80, 0x94, 0x20, 0x00, 0x15, 0x2c}, 0);
    EXPECT_THAT(Samples(take.Finish(), "trak.clcp"),
                ElementsAre(kCdat + Bytes{0x94, 0x20} + kCdt2 + Bytes{0x15, 0x2c}));
}

TEST(GstCaptions, BarePairsAreOfTheFirstField)
{
    Take take;
    Pictures(take, 1);
    take.Caps("caption", "closedcaption/x-cea-608,format=raw");
    take.Frame("caption", {0x94, 0x20}, 0);
    EXPECT_THAT(Samples(take.Finish(), "trak.clcp"), ElementsAre(kCdat + Bytes{0x94, 0x20}));
}

TEST(GstCaptions, APacketStaysAsItIs)
{
    Take take;
    Pictures(take, 1);
    take.Caps("caption", kPackets);
    take.Frame("caption", {0x96, 0x69, 5}, 0);
    EXPECT_THAT(Samples(take.Finish(), "trak.clcp"),
                ElementsAre(Bytes{0, 0, 0, 11, 'c', 'c', 'd', 'p', 0x96, 0x69, 5}));
}

TEST(GstCaptions, OneThatIsTooLongIsLeftOutWithAWarning)
{
    for (const auto& [caps, bytes] : {std::pair{kPackets, 256}, std::pair{kLine21, 256 * 3}}) {
        for (const int less : {0, 1}) {
            Take take;
            Pictures(take, 1);
            take.Caps("caption", caps);
            const auto size = static_cast<std::size_t>(caps == kPackets ? bytes - less
                                                                        : bytes - 3 * less);
            take.Frame("caption", Bytes(size, 0x80), 0);
            EXPECT_EQ(take.Finish().Has("moov/trak.clcp"), less == 1);
            EXPECT_EQ(take.Warning() == "none", less == 1);
        }
    }
}

// The track begins with the recording, so a sample that says nothing goes in front.
TEST(GstCaptions, TheFirstCaptionKeepsItsTime)
{
    Take take;
    Pictures(take, 3);
    take.Caps("caption", kLine21);
    take.Frame("caption", {0x80, 0x94, 0x20}, GST_SECOND);
    take.Frame("caption", {0x80, 0x94, 0x2f}, 2 * GST_SECOND);
    const BoxFile file = take.Finish();
    EXPECT_THAT(Samples(file, "trak.clcp"),
                ElementsAre(kCdat + Bytes{0x80, 0x80}, kCdat + Bytes{0x94, 0x20},
                            kCdat + Bytes{0x94, 0x2f}));
    EXPECT_THAT(file.Box("moov/trak.clcp/mdia/minf/stbl/stts"), ReadsAs("stts  3 x 90000"));
}

// Pictures at 0 to 3 s, the last one of 40 ms; captions at 0 and 3 s: another half-way to the end.
TEST(GstCaptions, TheTrackEndsWithTheRecording)
{
    Take take;
    Pictures(take, 3);
    take.Caps("caption", kPackets);
    take.Frame("caption", {0x96, 0x69, 5}, 0);
    take.Frame("caption", {0x96, 0x69, 5}, 3 * GST_SECOND);
    const BoxFile file = take.Finish();
    EXPECT_THAT(file.Box("moov/trak.clcp/mdia/minf/stbl/stts"),
                ReadsAs("stts  1 x 270000, 2 x 1800"));
    unsigned sum = 0;  // of the packet that was put in, behind its 8 bytes of header
    const Bytes last = Samples(file, "trak.clcp").back();
    for (std::size_t at = 8; at < last.size(); ++at)
        sum += last[at];
    EXPECT_EQ(sum % 256, 0u);
    EXPECT_EQ(last[10], last.size() - 8);
}

TEST(GstCaptions, NoCaptionMakesNoTrack)
{
    Take take;
    Pictures(take, 1);
    take.Caps("caption", kLine21);
    EXPECT_FALSE(take.Finish().Has("moov/trak.clcp"));
}

TEST(GstTimeCode, TheFirstPicturesIsThatOfTheRecording)
{
    Take take("clip.mov");
    take.Caps("video", kH264);
    for (guint hours : {1u, 9u}) {
        const Bytes key = Key();
        GstBuffer* const buffer = gst_buffer_new_memdup(key.data(), key.size());
        GST_BUFFER_PTS(buffer) = hours * GST_SECOND;
        gst_buffer_add_video_time_code_meta_full(buffer, 25, 1, nullptr,
                                                 GST_VIDEO_TIME_CODE_FLAGS_NONE, hours, 0, 2, 3, 0);
        take.Buffer("video", buffer);
    }
    const BoxFile file = take.Finish();
    // 1 hour, 2 seconds and 3 frames of 25 a second: 90053 frames.
    EXPECT_THAT(Samples(file, "trak.tmcd"), ElementsAre(Bytes{0, 1, 0x5f, 0xc5}));
}

TEST(GstTimeCode, DroppedFramesAreMarked)
{
    Take take("clip.mov");
    take.Caps("video", kH264);
    const Bytes key = Key();
    GstBuffer* const buffer = gst_buffer_new_memdup(key.data(), key.size());
    GST_BUFFER_PTS(buffer) = 0;
    gst_buffer_add_video_time_code_meta_full(buffer, 30000, 1001, nullptr,
                                             GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME, 0, 1, 0, 2, 0);
    take.Buffer("video", buffer);
    const BoxFile file = take.Finish();
    // Minute 1 begins with frame 2, so that its label is the 1800th frame.
    EXPECT_THAT(Samples(file, "trak.tmcd"), ElementsAre(Bytes{0, 0, 7, 8}));
    const Bytes entry = file.Box("moov/trak.tmcd/mdia/minf/stbl/stsd/tmcd");
    // Behind the 16 bytes of every entry and 4 reserved ones: flags, ticks, ticks a frame, frames.
    EXPECT_EQ(Bytes(entry.begin() + 20, entry.begin() + 33),
              (Bytes{0, 0, 0, 3, 0, 0, 0x75, 0x30, 0, 0, 3, 0xe9, 30}));
}

TEST(GstTags, OfTheApplicationAndOfTheStreamBecomeMetadata)
{
    Take take;
    gst_tag_setter_add_tags(GST_TAG_SETTER(take.Element()), GST_TAG_MERGE_REPLACE, GST_TAG_TITLE,
                            "Of the application", nullptr);
    take.Caps("video", kH264);
    take.Event("video", gst_event_new_tag(gst_tag_list_new(
                            GST_TAG_TITLE, "Of the stream", GST_TAG_ARTIST, "An artist",
                            GST_TAG_EXTENDED_COMMENT, "com.example.camera=left", nullptr)));
    take.Frame("video", Key(), 0);
    const std::string file = Contents(take.Finish());
    EXPECT_THAT(file, HasSubstr("Of the application"));  // it goes before those of the stream
    EXPECT_THAT(file, Not(HasSubstr("Of the stream")));
    EXPECT_THAT(file, HasSubstr("An artist"));
    EXPECT_THAT(file, HasSubstr("com.example.camera"));
}

TEST(GstTags, OfTheLastMomentAreRecorded)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Run();
    gst_tag_setter_add_tags(GST_TAG_SETTER(take.Element()), GST_TAG_MERGE_REPLACE, GST_TAG_COMMENT,
                            "Late", nullptr);
    EXPECT_THAT(Contents(take.Finish()), HasSubstr("Late"));
}

TEST(GstTags, OfAStreamEndWithItsRecording)
{
    Take take;
    std::string files[2];
    for (int i = 0; i < 2; ++i) {
        take.Caps("video", kH264);
        take.Event("video", gst_event_new_tag(gst_tag_list_new(
                                GST_TAG_TITLE, i == 0 ? "The first" : "The second", nullptr)));
        take.Frame("video", Key(), 0);
        files[i] = Contents(take.Finish());
    }
    EXPECT_THAT(files[0], HasSubstr("The first"));
    EXPECT_THAT(files[1], HasSubstr("The second"));
    EXPECT_THAT(files[1], Not(HasSubstr("The first")));
}

TEST(GstTags, OfOneKeyAreOneItemWithTheLastValue)
{
    Take take;
    take.Caps("video", kH264);
    for (int i = 0; i < 2; ++i) {
        GstTagList* const tags = gst_tag_list_new(GST_TAG_EXTENDED_COMMENT, "com.x.y=one", nullptr);
        gst_tag_list_add(tags, GST_TAG_MERGE_APPEND, GST_TAG_EXTENDED_COMMENT, "com.x.y=two",
                         nullptr);
        take.Event("video", gst_event_new_tag(tags));
    }
    take.Frame("video", Key(), 0);
    const std::string file = Contents(take.Finish());
    EXPECT_EQ(file.find("com.x.y"), file.rfind("com.x.y"));
    EXPECT_THAT(file, HasSubstr("two"));
    EXPECT_THAT(file, Not(HasSubstr("one")));
}

TEST(GstCheckpoints, AreToldWithTheirPlaceInTheFile)
{
    for (const gboolean durable : {1, 0}) {
        Take take;
        g_object_set(take.Element(), "safe-mode", TRUE, "checkpoint-strategy", 0,
                     "checkpoint-interval", 3000, "durable", durable, nullptr);
        take.Caps("video", kH264);
        for (guint64 i = 0; i < 10; ++i)
            take.Frame("video", Key() + Unit(0x41, 997), i * 40 * kMs);
        const BoxFile file = take.Finish();
        const auto checkpoints = take.Checkpoints();
        // Frames of 1049 bytes, 1053 in the file, from 44 on; twice a frame must fit in front of
        // the limit of 3000. The 2nd at 1097 does not, nor any after it.
        ASSERT_EQ(checkpoints.size(), 9u);
        for (std::size_t i = 0; i < checkpoints.size(); ++i) {
            EXPECT_EQ(checkpoints[i].at("position"), 1097 + 1053 * i + 3000);
            EXPECT_EQ(checkpoints[i].at("duration"), (i + 1) * 40 * kMs);
            EXPECT_EQ(checkpoints[i].at("bytes"), (i + 1) * 1049);
        }
        EXPECT_EQ(file.Find("moov").begin, checkpoints.back().at("position"));
        EXPECT_THAT(file.Damage(), IsEmpty());
    }
}

TEST(GstCheckpoints, FollowAChangeOfTheirDistance)
{
    Take take;
    g_object_set(take.Element(), "safe-mode", TRUE, nullptr);
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    take.Run();
    EXPECT_THAT(take.Checkpoints(), IsEmpty());
    g_object_set(take.Element(), "checkpoint-strategy", 0, "checkpoint-interval", 3000, nullptr);
    for (guint64 i = 1; i < 10; ++i)
        take.Frame("video", Key() + Unit(0x41, 997), i * 40 * kMs);
    take.Finish();
    EXPECT_FALSE(take.Checkpoints().empty());
}

TEST(GstCheckpoints, AreNotMadeOutsideSafeMode)
{
    Take take;
    g_object_set(take.Element(), "checkpoint-strategy", 0, "checkpoint-interval", 3000, nullptr);
    take.Caps("video", kH264);
    for (guint64 i = 0; i < 10; ++i)
        take.Frame("video", Key() + Unit(0x41, 997), i * 40 * kMs);
    take.Finish();
    EXPECT_THAT(take.Checkpoints(), IsEmpty());
}
