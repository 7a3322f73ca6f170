// Flushes of local files that wait for the medium: which, in which order, and when it refuses.
#include "support/checkpoints.h"
#include "support/medium.h"
#include "support/repair.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

class Durable : public testing::Test {
protected:
    void SetUp() override
    {
        if (!Medium::IsWaitedFor())
            GTEST_SKIP() << "built without waits for the medium";
    }

    Medium medium;
};

// A file in safe mode with data up to 500. The next picture of 500 bytes makes a checkpoint, because
// 500 + 1000 passes 1000, with its moov at 500 + 1000.
void BeforeACheckpoint(Recording& rec)
{
    rec.SetProRes(MP4_PRORES_422);
    SetSafeParam(rec.Handle(), {0, 1000, 0, 0});
    EXPECT_EQ(rec.Video(Bytes(456, 1), 0), 0u);  // 44 + 912 does not pass 1000
}

std::uint32_t BE32At(const Bytes& bytes, std::size_t at)
{
    return std::uint32_t{bytes[at]} << 24 | std::uint32_t{bytes[at + 1]} << 16 |
           std::uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

std::string FourCC(const Bytes& bytes, std::size_t at)
{
    return {bytes.begin() + static_cast<std::ptrdiff_t>(at),
            bytes.begin() + static_cast<std::ptrdiff_t>(at) + 4};
}

}  // namespace

TEST_F(Durable, APlainRecordingWaitsForNothing)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({0, 40, 80});
    for (const std::uint64_t time : {120u, 160u})
        EXPECT_EQ(rec.Video(Unit(0x65, 2 << 20), time), 0u);
    rec.Close();
    EXPECT_THAT(medium.Order(), IsEmpty());
    EXPECT_EQ(medium.hints, 0u);
}

TEST_F(Durable, ACheckpointWaitsForTheMoovBeforeTheSwitchAndForTheSwitch)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    BeforeACheckpoint(rec);
    EXPECT_THAT(medium.Order(), IsEmpty());
    EXPECT_EQ(rec.Video(Bytes(500, 1), 40), 0u);
    ASSERT_THAT(medium.Order(), ElementsAre("clip.mp4", "clip.mp4"));
    const Bytes& moov = medium.syncs[0].held;
    const Bytes& switched = medium.syncs[1].held;
    EXPECT_EQ(FourCC(moov, 1504), "moov");
    EXPECT_NE(BE32At(moov, 36), 1500u - 36);
    EXPECT_EQ(BE32At(switched, 36), 1500u - 36);
    EXPECT_EQ(moov.size(), switched.size());
}

TEST_F(Durable, ACloseWaitsForTheWholeFileBeforeTheLogGoes)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    rec.SetH264();
    rec.FramesAt({0, 40});
    medium.syncs.clear();
    rec.Close();
    ASSERT_THAT(medium.Order(), ElementsAre("clip.mp4"));
    EXPECT_EQ(medium.syncs[0].held, BoxFile::Read(rec.Path()).All());
    EXPECT_FALSE(fs::exists(rec.InfoPath()));
}

TEST_F(Durable, TheLogFollowsTheDataThatItNames)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    EXPECT_THAT(medium.Order(), ElementsAre("clip.mp4.info"));  // its five bytes
    EXPECT_EQ(mp4_repair_set_flush_interval(rec.Handle(), 10), 4u);
    rec.SetH264();
    for (std::uint64_t n = 0; n < 9; ++n)
        EXPECT_EQ(rec.Video(Unit(0x65), n), 0u);
    EXPECT_EQ(medium.syncs.size(), 1u);
    EXPECT_EQ(rec.Video(Unit(0x65), 9), 0u);
    ASSERT_THAT(medium.Order(), ElementsAre("clip.mp4.info", "clip.mp4", "clip.mp4.info"));
    EXPECT_EQ(medium.syncs[1].held.size(), 44u + 10 * 14);
}

TEST_F(Durable, TheSystemIsAskedToBeginWithEachMebibyte)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    rec.SetProRes(MP4_PRORES_422);
    EXPECT_EQ(rec.Video(Bytes((1 << 20) - 200, 1), 0), 0u);  // and the head, of some 50 bytes
    EXPECT_EQ(medium.hints, 0u);
    EXPECT_EQ(rec.Video(Bytes(200, 1), 40), 0u);
    EXPECT_EQ(medium.hints, Medium::kTakesHints ? 1u : 0u);
}

// ---- A medium that refuses -------------------------------------------------------------------

TEST_F(Durable, ACheckpointThatItRefusesLeavesThroughTheFrameCall)
{
    const StdoutCapture quiet;
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    BeforeACheckpoint(rec);
    medium.error = ENOSPC;
    try {
        rec.Video(Bytes(500, 1), 40);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const kv_mp4_exception& error) {
        EXPECT_EQ(error.code, ENOSPC);
    }
    ASSERT_EQ(medium.syncs.size(), 1u);  // the switch was not made
    EXPECT_EQ(rec.Video(Bytes(1, 1), 80), 16u);
    EXPECT_EQ(rec.CloseStatus(), 16u);
}

TEST_F(Durable, ACloseThatItRefusesFailsAndKeepsTheLog)
{
    const StdoutCapture quiet;
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    rec.SetH264();
    rec.FramesAt({0, 40});
    medium.error = ENOSPC;
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_TRUE(fs::exists(rec.InfoPath()));
}

TEST_F(Durable, DataThatItRefusesAheadOfTheLogFailsTheNextFrame)
{
    const StdoutCapture quiet;
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    mp4_repair_set_flush_interval(rec.Handle(), 10);
    rec.SetH264();
    for (std::uint64_t n = 0; n < 9; ++n)
        EXPECT_EQ(rec.Video(Unit(0x65), n), 0u);
    medium.error = ENOSPC;
    medium.refusedFile = "clip.mp4";
    EXPECT_EQ(rec.Video(Unit(0x65), 9), 0u);
    EXPECT_EQ(rec.Video(Unit(0x65), 10), 16u);
    medium.error = 0;  // the log stays all the same: the file has no moov
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_TRUE(fs::exists(rec.InfoPath()));
}

TEST_F(Durable, AFileWithoutAMediumIsNoFailure)
{
    for (const int error : {EINVAL, EROFS, ENOTSUP}) {
        Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
        rec.SetH264();
        medium.error = error;
        rec.FramesAt({0, 40});
        EXPECT_EQ(rec.CloseStatus(), 0u) << error;
        medium.error = 0;
    }
}

TEST_F(Durable, ARepairThatItRefusesFailsAndKeepsTheLog)
{
    const InfoLog log = InfoLog().ProRes().Video(0, 100).Closed();
    Wreck wreck(DeadFile(100), log);
    medium.error = ENOSPC;
    EXPECT_EQ(wreck.Repair(1), 16u);
    EXPECT_TRUE(wreck.HasInfo());
    EXPECT_GE(fs::file_size(wreck.Path()), 144u);  // and nothing was cut
    medium.error = 0;
    EXPECT_EQ(wreck.Repair(1), 0u);
    EXPECT_FALSE(wreck.HasInfo());
}

// ---- A caller's own output -------------------------------------------------------------------

TEST_F(Durable, ACallersOutputSeesNoFurtherCall)
{
    ExternalSink sink;
    Folder folder;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    mp4_repair_set_flush_interval(rec.Handle(), 10);
    rec.SetH264();
    for (std::uint64_t n = 0; n < 10; ++n)
        EXPECT_EQ(rec.Video(Unit(0x65), n), 0u);
    EXPECT_EQ(sink.Count("flush"), 0u);
    EXPECT_EQ(rec.CloseStatus(), 0u);
    EXPECT_EQ(sink.Count("flush"), 0u);
}
