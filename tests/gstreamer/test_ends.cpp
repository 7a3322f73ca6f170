// What is left when a recording cannot go on, and what is told of it.
#include "gstreamer/take.h"
#include "support/file_size_limit.h"
#include "support/reads_as.h"
#include "support/samples.h"

#include <kv_mp4.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace kvtest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

// Pictures of `size` bytes and some, the first of which begins the stream.
void Pictures(Take& take, guint64 count, std::size_t size)
{
    take.Caps("video", kH264);
    for (guint64 i = 0; i < count; ++i)
        take.Frame("video", i == 0 ? Key() : Unit(0x41, size), i * 40 * kMs);
}

std::uint32_t Number(std::ifstream& file, std::streamoff at)
{
    unsigned char bytes[4] = {};
    file.seekg(at);
    file.read(static_cast<char*>(static_cast<void*>(bytes)), sizeof bytes);
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
}

}  // namespace

// Of 100 pictures of a kilobyte 40 KB hold 39, of which the stream may have kept the last four to
// itself; the log has every tenth at least, and a repair leaves its last one out. In safe mode the
// 20th, at 18.2 of 20 KB, asks for the first checkpoint, whose place the disk does not have.
TEST(GstEnds, AFullDiskLeavesTheLogFromWhichThePicturesComeBack)
{
    const Bytes unit = Unit(0x41, 1000);
    const Bytes picture = Bytes{0, 0, 3, 0xe8} + Bytes(unit.begin() + 3, unit.end());
    for (const gboolean durable : {1, 0})
        for (const gboolean safe : {0, 1}) {
            SCOPED_TRACE(testing::Message() << "durable " << durable << ", safe " << safe);
            Take take;
            g_object_set(take.Element(), "durable", durable, "safe-mode", safe, "info-file", TRUE,
                         "info-flush-interval", 10, "checkpoint-interval", 20000, nullptr);
            Pictures(take, 100, 1000);
            {
                const FileSizeLimit full(40000);
                take.Run();
                EXPECT_THAT(take.Error(), StartsWith("gst-resource-error-quark"));
                take.Stop();
            }
            ASSERT_TRUE(std::filesystem::exists(take.Path() + ".info"));
            EXPECT_FALSE(std::filesystem::exists(take.Path() + ".info.kept"));
            ASSERT_EQ(mp4_repair_file_ex(take.Path().c_str(), 0), MP4_OK);
            const BoxFile file = BoxFile::Read(take.Path());
            const auto samples = Samples(file, "trak.vide");
            const std::size_t least = safe ? 18 : 29;
            ASSERT_GE(samples.size(), least);
            for (std::size_t i = 1; i < least; ++i)
                EXPECT_EQ(samples[i], picture);
        }
}

// 5 bytes of media a picture, but 22 of its log.
TEST(GstEnds, ALogThatFailsIsAWarningAndTheRecordingGoesOn)
{
    for (const gboolean durable : {1, 0}) {
        Take take;
        g_object_set(take.Element(), "durable", durable, "info-file", TRUE, nullptr);
        Pictures(take, 600, 1);
        {
            const FileSizeLimit full(8500);
            take.Run();
            EXPECT_THAT(take.Warning(), HasSubstr("The recording goes on without its log"));
        }
        EXPECT_THAT(take.Finish().Box("moov/trak.vide/mdia/minf/stbl/stts"),
                    ReadsAs("stts  600 x 3600"));
        EXPECT_EQ(take.Warning(), "none");
    }
}

TEST(GstEnds, PicturesThatWaitForTheParameterSetsAreAWarning)
{
    Take take;
    take.Caps("video", kH264);
    take.Frame("video", Delta(), 0);
    take.Frame("video", Delta(), 40 * kMs);
    take.Frame("video", Key(), 80 * kMs);
    take.Finish();
    EXPECT_EQ(take.Warning(), "gst-stream-error-quark 11: Pictures are left out until the video "
                              "brings all its parameter sets.");
    EXPECT_EQ(take.Warning(), "none");
}

TEST(GstEnds, AVideoWhoseParameterSetsNeverComeIsAnError)
{
    Take take;
    Pictures(take, 1, 1);
    take.Finish();
    EXPECT_EQ(take.Message(GST_MESSAGE_ERROR), nullptr);

    take.Caps("video", kH264);
    take.Frame("video", Delta(), 0);
    take.Event("video", gst_event_new_eos());
    take.Run();
    EXPECT_THAT(take.Error(), StartsWith("gst-stream-error-quark 11: The file has no video"));
}

// The file grows by a hole, as if so much had been recorded.
TEST(GstEnds, ARecordingWithSmallSizesEndsWholeBelow4GiB)
{
    for (const gboolean durable : {1, 0}) {
        Take take;
        g_object_set(take.Element(), "durable", durable, nullptr);
        Pictures(take, 2, 10);
        take.Run();
        EXPECT_EQ(take.Message(GST_MESSAGE_ERROR), nullptr);
        std::filesystem::resize_file(take.Path(), 0xfff00000);
        take.Frame("video", Delta(), 80 * kMs);
        take.Frame("video", Delta(), 120 * kMs);
        take.Run();
        EXPECT_THAT(take.Error(), StartsWith("gst-resource-error-quark 14: The recording ends"));
        take.Stop();
        std::ifstream file(take.Path(), std::ios::binary);
        const std::uint32_t mdat = Number(file, 36);
        EXPECT_LT(mdat, 1000u);
        EXPECT_EQ(Number(file, 36 + mdat + 4), 0x6d6f6f76u);  // "moov"
    }
}

TEST(GstEnds, ALargeFileGoesOnBeyond4GiB)
{
    Take take;
    g_object_set(take.Element(), "large-file", TRUE, nullptr);
    Pictures(take, 2, 10);
    take.Run();
    std::filesystem::resize_file(take.Path(), 0xfff00000);
    take.Frame("video", Delta(), 80 * kMs);
    take.Event("video", gst_event_new_eos());
    take.Run();
    GstMessage* end = take.Message(
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), true);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(end), GST_MESSAGE_EOS);
    gst_clear_message(&end);
}

// The size of `mdat` has 32 bits in safe mode, in large files too, and leads nowhere beyond them.
TEST(GstEnds, ACheckpointBeyond4GiBIsNotTold)
{
    Take take;
    g_object_set(take.Element(), "safe-mode", TRUE, "large-file", TRUE, "checkpoint-strategy", 2,
                 "checkpoint-threshold", 0, "checkpoint-interval", 3000, "checkpoint-max-interval",
                 0xffffffffu, nullptr);
    Pictures(take, 10, 1000);
    take.Run();
    take.Stop();
    EXPECT_GT(std::filesystem::file_size(take.Path()), 0xffffffffu);
    EXPECT_THAT(take.Checkpoints(), IsEmpty());
}

TEST(GstEnds, ACheckpointThatWouldLieBeyond4GiBEndsARecordingWithSmallSizes)
{
    Take take;
    g_object_set(take.Element(), "safe-mode", TRUE, "checkpoint-strategy", 2,
                 "checkpoint-threshold", 0, "checkpoint-interval", 3000, "checkpoint-max-interval",
                 0xffffffffu, nullptr);
    Pictures(take, 10, 1000);
    take.Run();
    EXPECT_THAT(take.Error(), HasSubstr("4 GiB"));
    take.Stop();
    EXPECT_LT(std::filesystem::file_size(take.Path()), 10000u);
}
