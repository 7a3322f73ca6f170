// The states in which a file does not play as it lies, or not after a repair, by design: those that
// docs/recovery.md names.
#include "recovery/judge.h"
#include "recovery/proof.h"
#include "support/checkpoints.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace kvtest;

namespace {

// Frames of ProRes in safe mode with fixed distances.
struct SafeRecording {
    explicit SafeRecording(std::uint32_t interval, std::uint32_t strategy = 0)
        : rec(sink, "clip.mp4", MP4_OPEN_SAFE_MODE)
    {
        rec.SetProRes(MP4_PRORES_422);
        Set({strategy, interval, 0, 0});
    }
    void Set(const mp4_safe_param& params)
    {
        EXPECT_EQ(mp4_set_safe_param(rec.Handle(), &params), 0u);
    }
    void Frames(std::size_t count, std::size_t size)
    {
        for (std::size_t n = 0; n < count; ++n, time += 40)
            EXPECT_EQ(rec.Video(Bytes(size, 1), time), 0u);
    }
    bool Plays() const { return sink.File().Has("moov"); }

    ExternalSink sink;
    Recording rec;
    std::uint64_t time = 0;
};

std::unique_ptr<Take> Recorded(const TakePlan& plan)
{
    const LogCapture log;
    return Record(plan);
}

}  // namespace

// A system that does not write four bytes as one leaves a size that is neither.
TEST(ASwitchTornInItsFourBytes, LeavesNoMoovInReach)
{
    const auto take = Recorded({});
    Replay replay(take->trace);
    std::size_t torn = 0;
    for (std::size_t n = 1; n < take->checkpoints.size(); ++n) {
        const Checkpoint& before = take->checkpoints[n - 1];
        const std::size_t call = take->checkpoints[n].switchCall;
        EXPECT_EQ(JudgeCheckpoint(*take, before, replay.FileAt({call, 0})), "");
        for (std::uint32_t bytes = 1; bytes < 4; ++bytes)
            torn += JudgeCheckpoint(*take, before, replay.FileAt({call, bytes})) != "";
        EXPECT_EQ(JudgeCheckpoint(*take, take->checkpoints[n], replay.FileAt({call, 4})), "");
    }
    EXPECT_GT(torn, 0u);
}

TEST(BeforeTheFirstCheckpoint, ThereIsNoMoov)
{
    const auto take = Recorded({});
    Replay replay(take->trace);
    EXPECT_FALSE(BoxFile(replay.FileAt({take->checkpoints[0].switchCall, 0})).Has("moov"));
}

TEST(TheClose, OverwritesTheMoovInForceInPlace)
{
    const auto take = Recorded({});
    const auto& calls = take->trace.Calls();
    const Checkpoint& last = take->checkpoints.back();
    Replay replay(take->trace);
    std::size_t call = 0;
    while (calls[call].step != take->closeStep)
        ++call;
    // As far as the size of mdat, which stays what it is, all is well.
    for (std::size_t writes = 0; writes == 0 || calls[call - 1].position != last.position; ++call) {
        EXPECT_EQ(JudgeCheckpoint(*take, last, replay.FileAt({call, 0})), "");
        writes += calls[call].kind == TraceCall::kWrite;
    }
    std::size_t broken = 0;
    for (; call < calls.size(); ++call)
        broken += JudgeCheckpoint(*take, last, replay.FileAt({call, 0})) != "";
    EXPECT_GT(broken, 20u);
}

TEST(AFrameLargerThanTheDistance, LeavesNoMoovUntilTheNextFrame)
{
    SafeRecording out(1000);
    out.Frames(1, 900);
    EXPECT_TRUE(out.Plays());
    out.Frames(1, 5000);
    EXPECT_FALSE(out.Plays());
    out.Frames(1, 10);
    EXPECT_TRUE(out.Plays());
}

TEST(AnUnknownStrategy, LeavesNoMoovOnceTheDataPassIt)
{
    SafeRecording out(1000);
    out.Frames(1, 900);
    out.Set({7, 1000, 0, 0});
    out.Frames(1, 100);
    EXPECT_TRUE(out.Plays());
    out.Frames(3, 100);
    EXPECT_FALSE(out.Plays());
}

// The new moov begins before the end of the one in force.
TEST(ADistanceBelowAMoovAndTwoFrames, LeavesNoMoovWhileTheNextIsWritten)
{
    SafeRecording out(2000);
    out.Frames(3, 500);  // the first checkpoint is at 3044
    out.Set({0, 400, 0, 0});
    out.Frames(2, 500);
    EXPECT_TRUE(out.Plays());
    const StdoutCapture quiet;
    out.sink.FailWrite(60, ENOSPC);
    EXPECT_THROW(out.Frames(1, 500), kv_mp4_exception);  // the second is at 2944
    EXPECT_FALSE(out.Plays());
}

// The size of mdat has wrapped, and ends somewhere in the data.
TEST(ASafeFileBeyond4GiB, LeadsNoReaderToItsMoov)
{
    SparseFile out(MP4_OPEN_SAFE_MODE | MP4_OPEN_LARGE_FILE);
    const Bytes moov = Hex("'moov'");
    for (const bool beyond : {false, true}) {
        const std::uint64_t next =
            out.CheckpointAt(beyond ? 0x1'0000'0000 : 0x8000'0000, {0, 1000000, 0, 0});
        EXPECT_EQ(out.sink.Read(next + 4, 4), moov);
        EXPECT_EQ(out.sink.Read(36 + std::uint64_t{out.sink.U32(36)} + 4, 4) == moov, !beyond);
    }
}

// A checkpoint has overwritten the mark that says "64-bit"; a repair writes the 64 bits alone.
TEST(ARepairedLargeFileInSafeMode, LacksTheMarkOfIts64BitSize)
{
    TakePlan plan;
    plan.flags |= MP4_OPEN_LARGE_FILE;
    const auto take = Recorded(plan);
    const LogCapture log;
    const StdoutCapture quiet;
    const Folder folder;
    const Checkpoint& first = take->checkpoints[0];
    const std::size_t step = take->trace.Calls()[first.switchCall].step;
    for (const std::uint32_t done : {0u, 4u}) {
        Replay replay(take->trace);
        const RepairVerdict verdict =
            JudgeRepair(*take, {{first.switchCall, done}, take->logEnds[step - 1], false},
                        replay.FileAt({first.switchCall, done}), (folder / "").string());
        EXPECT_EQ(verdict.wrong, "");
        EXPECT_EQ(verdict.unmarked, done == 4);
        EXPECT_EQ(BoxFile::Read(folder / "take.mp4").Has("moov"), done == 0);
    }
}
