// Checkpoints at outputs that fail: nothing is caught, and the moov in force is never touched.
#include "support/check.h"
#include "support/checkpoints.h"
#include "support/reads_as.h"
#include "support/throwing_writes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Positions = std::vector<std::uint64_t>;

namespace {

// A file in safe mode whose next frame of 200 bytes makes a checkpoint. The first is at 1044.
struct BeforeACheckpoint {
    BeforeACheckpoint() : rec(sink, "clip.mp4", MP4_OPEN_SAFE_MODE)
    {
        rec.SetProRes(MP4_PRORES_422);
        SetSafeParam(rec.Handle(), {0, 1000, 0, 0});
        EXPECT_EQ(rec.Video(Bytes(500, 1), 0), 0u);   // 44 + 1000 passes 1000
        EXPECT_EQ(rec.Video(Bytes(200, 1), 40), 0u);  // 544 + 400 does not pass 1044
    }
    std::uint32_t Cross() { return rec.Video(Bytes(200, 1), 80); }  // 744 + 400 does
    BoxFile File() const
    {
        const std::size_t end = sink.File().Find("moov").end;
        return BoxFile(Bytes(sink.Data().begin(),
                             sink.Data().begin() + static_cast<std::ptrdiff_t>(end)));
    }

    ExternalSink sink;
    Recording rec;
};

std::size_t WritesOfACheckpoint()
{
    BeforeACheckpoint out;
    out.sink.ForgetCalls();
    EXPECT_EQ(out.Cross(), 0u);
    return out.sink.Count("write") - 1;  // less the frame
}

// Which seek of the checkpoint goes there first, from 1.
std::size_t SeekOfACheckpoint(const std::string& place)
{
    BeforeACheckpoint out;
    out.sink.ForgetCalls();
    EXPECT_EQ(out.Cross(), 0u);
    std::size_t n = 0;
    for (const std::string& call : out.sink.Calls()) {
        n += call.starts_with("seek ");
        if (call == place)
            return n;
    }
    ADD_FAILURE() << "no " << place;
    return 1;
}

}  // namespace

TEST(AWriteThatFailsInACheckpoint, LeavesThroughTheFrameCall)
{
    BeforeACheckpoint out;
    const StdoutCapture quiet;
    out.sink.FailWrite(1, ENOSPC);
    try {
        out.Cross();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const kv_mp4_exception& error) {
        EXPECT_EQ(error.code, ENOSPC);
    }
    EXPECT_EQ(out.rec.Video(Bytes(1, 1), 80), 16u);
    EXPECT_EQ(out.rec.SetAac(), 16u);
    EXPECT_EQ(out.rec.CloseStatus(), 16u);
}

// The moov of the first checkpoint stays in force, whichever write of the second one it is.
TEST(AWriteThatFailsInACheckpoint, LeavesTheMoovInForceAlone)
{
    const std::size_t writes = WritesOfACheckpoint();
    ASSERT_GT(writes, 20u);
    const StdoutCapture quiet;
    for (std::size_t n = 1; n <= writes; ++n) {
        BeforeACheckpoint out;
        out.sink.FailWrite(n, ENOSPC);
        EXPECT_THROW(out.Cross(), kv_mp4_exception);
        EXPECT_EQ(out.sink.File().Find("moov").begin, 1044u);
        EXPECT_THAT(out.File().Complaints(), IsEmpty());
    }
}

// The position has moved before the write; the close of the failed writer still tells it.
TEST(AWriteThatFailsInACheckpoint, LeavesThePositionMoved)
{
    BeforeACheckpoint out;
    EXPECT_EQ(Checkpoints(out.rec.Log()), Positions{1044});
    out.sink.FailWrite(1, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_THROW(out.Cross(), kv_mp4_exception);
    EXPECT_EQ(Checkpoints(out.rec.Log()), (Positions{1044, 1744}));
    out.sink.ForgetCalls();
    EXPECT_EQ(out.rec.CloseStatus(), 16u);
    EXPECT_TRUE(out.rec.Log().Has("info mdat end update to 1744"));
    EXPECT_EQ(out.sink.Count("write"), 0u);
    EXPECT_EQ(out.sink.File().Find("moov").begin, 1044u);
}

// Whatever a caller's output throws goes the same way, and no line tells it.
TEST(AWriteThatThrowsInACheckpoint, LeavesTheCallAndTheMoovInForceAlone)
{
    BeforeACheckpoint out;
    {
        const ThrowingWrites throwing(out.sink, 0);
        EXPECT_THROW(out.Cross(), std::runtime_error);
    }
    EXPECT_EQ(out.rec.Log().Count("error exception when write file"), 0u);
    EXPECT_EQ(out.sink.File().Find("moov").begin, 1044u);
    EXPECT_THAT(out.File().Complaints(), IsEmpty());
}

// Nothing that an output does in a flush is looked at.
TEST(AFlushThatFailsInACheckpoint, GoesUnnoticed)
{
    BeforeACheckpoint out;
    ExternalIoFuncs* const table = out.sink.Table();
    const auto flush = table->flush;
    table->flush = [](void*) { errno = EIO; };
    EXPECT_EQ(out.Cross(), 0u);
    table->flush = flush;
    EXPECT_THAT(out.rec.Close().Complaints(), IsEmpty());
}

// Nor in a seek, so that the next write goes where the output stood. A size of mdat that so went to
// 744 lies below the frame, and the moov before stays in force until the close.
TEST(ASeekThatFailsInACheckpoint, LeavesTheMoovInForceWhenItWasThatOfTheSwitch)
{
    BeforeACheckpoint out;
    out.sink.Fail(ExternalSink::kSeek, SeekOfACheckpoint("seek 36 0"), EIO, false);
    EXPECT_EQ(out.Cross(), 0u);
    EXPECT_EQ(out.sink.File().U32(36), 1044u - 36);
    EXPECT_EQ(out.sink.File().U32(744), 0x01010101u);  // of the frame
    EXPECT_EQ(out.sink.File().Find("moov").begin, 1044u);
    EXPECT_THAT(out.File().Complaints(), IsEmpty());
    EXPECT_THAT(out.rec.Close().Complaints(), IsEmpty());
}

// The new moov so begins at 744, and runs over the one in force. Only its size goes to 1744, counted
// from there, and the switch follows it: the file has no moov until the close.
TEST(ASeekThatFailsInACheckpoint, LeavesNoMoovWhenItWasThatToItsPlace)
{
    BeforeACheckpoint sound;
    EXPECT_EQ(sound.Cross(), 0u);
    const std::uint32_t size = sound.sink.File().U32(1744);
    ASSERT_GT(size, 300u);
    ASSERT_LT(size, 1000u);

    BeforeACheckpoint out;
    out.sink.Fail(ExternalSink::kSeek, SeekOfACheckpoint("seek 1744 0"), EIO, false);
    EXPECT_EQ(out.Cross(), 0u);
    const BoxFile file = out.sink.File();
    EXPECT_EQ(file.All().size(), 1744u + 4);
    EXPECT_EQ(file.U32(36), 1744u - 36);
    EXPECT_EQ(file.U32(1744), size - 1000);
    EXPECT_FALSE(file.Has("moov"));
    EXPECT_THAT(out.rec.Close().Complaints(), IsEmpty());
}

// ---- Safe mode with a fast header --------------------------------------------------------------

// The staging buffer refuses to seek to the position in the file.
TEST(SafeModeWithAFastHeader, ThrowsAtTheFirstCheckpointAndFailsTheClose)
{
    Folder folder;
    ExternalSink sink;
    Recording rec(sink, (folder / "clip.mp4").string(),
                  MP4_OPEN_SAFE_MODE | MP4_OPEN_FAST_HEADER | MP4_OPEN_INFO_FILE);
    rec.SetProRes(MP4_PRORES_422);
    SetSafeParam(rec.Handle(), {0, 1000, 0, 0});
    const StdoutCapture quiet;
    EXPECT_EQ(rec.Video(Bytes(100, 1), 0), 0u);
    errno = EROFS;
    try {
        rec.Video(Bytes(500, 1), 40);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const kv_mp4_exception& error) {
        EXPECT_EQ(error.code, EROFS);
    }
    EXPECT_EQ(Checkpoints(rec.Log()), Positions{1144});
    // The output did not fail: with the position moved, frames go on.
    EXPECT_EQ(rec.Video(Bytes(100, 1), 40), 0u);
    errno = ENOSPC;
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_TRUE(std::filesystem::exists(folder / "clip.mp4.info"));
}

TEST(SafeModeWithAFastHeader, FailsTheCloseOfAFileWithoutFramesToo)
{
    ExternalSink sink;
    Recording rec(sink, "clip.mp4", MP4_OPEN_SAFE_MODE | MP4_OPEN_FAST_HEADER);
    const StdoutCapture quiet;
    errno = ENOSPC;
    EXPECT_EQ(rec.CloseStatus(), 16u);
    const BoxFile file = sink.File();
    EXPECT_FALSE(file.Has("moov"));
    EXPECT_EQ(file.U32(36), 0xA00000u - 36);  // mdat was ended before
}

// ---- The parameters ----------------------------------------------------------------------------

TEST(SafeParametersThatAreNull, Give4WithTheirLine)
{
    Recording rec;
    EXPECT_EQ(mp4_set_safe_param(rec.Handle(), nullptr), 4u);
    EXPECT_TRUE(rec.Log().Has("error params is NULL when set safe param"));
}

TEST(SafeParameters, ComeBackWithAllFourFields)
{
    Recording rec;
    SetSafeParam(rec.Handle(), {7, 1, 2, 3});
    mp4_safe_param params{};
    EXPECT_EQ(mp4_get_safe_param(rec.Handle(), &params), 0u);
    EXPECT_EQ(params.strategy, 7u);
    EXPECT_EQ(params.min_interval, 1u);
    EXPECT_EQ(params.max_interval, 2u);
    EXPECT_EQ(params.threshold, 3u);
}
