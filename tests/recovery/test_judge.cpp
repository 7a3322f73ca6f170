// The judge sees what it is there to see: each test spoils what has passed before.
#include "recovery/the_judge.h"

#include "recovery/proof.h"

#include <gmock/gmock.h>

using namespace kvtest;
using testing::HasSubstr;

TEST_F(TheJudge, TakesEachCheckpointAndTheWholeFile)
{
    Replay fresh(take.trace);
    for (const Checkpoint& checkpoint : take.checkpoints)
        EXPECT_EQ(JudgeCheckpoint(take, checkpoint, fresh.FileAt(Behind(checkpoint))), "");
    Counts all;
    for (const Track track : kAllTracks)
        all.of[track] = take.tracks[track].size();
    EXPECT_EQ(JudgeFile(take, all, fresh.FileAt({take.trace.Calls().size(), 0})), "");
}

TEST_F(TheJudge, RefusesAChangedByteOfASample)
{
    ASSERT_EQ(JudgeCheckpoint(take, third, file), "");
    file[44 + 4 + 4 + 1] ^= 1;  // in the first sample, behind a time code and a length
    EXPECT_THAT(JudgeCheckpoint(take, third, file), HasSubstr("not intact"));
}

TEST_F(TheJudge, RefusesAFileWithoutTheEndOfItsMoov)
{
    ASSERT_EQ(JudgeCheckpoint(take, third, file), "");
    file.pop_back();
    EXPECT_EQ(JudgeCheckpoint(take, third, file), "no moov in reach");
}

TEST_F(TheJudge, RefusesTheSamplesOfAnotherCheckpoint)
{
    EXPECT_NE(JudgeCheckpoint(take, take.checkpoints.at(1), file), "");
    EXPECT_NE(JudgeCheckpoint(take, take.checkpoints.at(3), file), "");
}

TEST_F(TheJudge, RefusesATableThatDisagrees)
{
    ASSERT_EQ(JudgeCheckpoint(take, third, file), "");
    const Span stss = BoxFile(file).Find("moov/trak.vide/mdia/minf/stbl/stss");
    file[stss.begin + 19] = 0;  // the first sync sample becomes sample 0
    EXPECT_THAT(JudgeCheckpoint(take, third, file), HasSubstr("stss"));
}

TEST_F(TheJudge, RefusesARepairThatCannotKeepItsSamples)
{
    const LogCapture log;
    const StdoutCapture quiet;
    const Folder folder;
    const WreckState state{Behind(third),
                           take.logEnds.at(take.trace.Calls()[third.switchCall].step - 1), false};
    EXPECT_EQ(JudgeRepair(take, state, file, (folder / "").string()).wrong, "");
    // The media of fewer samples than the log tells.
    Bytes shorter(file.begin(), file.begin() + 5000);
    EXPECT_NE(JudgeRepair(take, state, shorter, (folder / "").string()).wrong, "");
}

// The states of a proof: none twice, each behind the first switch and before the close.
TEST_F(TheJudge, IsGivenEachStateOnce)
{
    const auto states = KillStates(take);
    ASSERT_GT(states.size(), 10000u);
    for (std::size_t n = 1; n < states.size(); ++n)
        ASSERT_LT(states[n - 1].cut, states[n].cut);
    EXPECT_EQ(states.front().cut, Behind(take.checkpoints.front()));
    const auto& calls = take.trace.Calls();
    EXPECT_LT(calls[states.back().cut.call].step, take.closeStep);
    EXPECT_EQ(states.back().inForce, &take.checkpoints.back());
}

TEST_F(TheJudge, KnowsPayloadByTheFrameThatWasHandedOver)
{
    std::size_t payload = 0;
    for (const TraceCall& call : take.trace.Calls())
        payload += call.payload ? call.size : 0;
    std::size_t handed = 0;
    for (const Sample& sample : take.tracks[kAudio])
        handed += sample.size;
    for (const Bytes& frame : EncodedVideo(Codec::H264))
        for (const Bytes& unit : SplitUnits(frame))
            handed += unit.size();
    EXPECT_EQ(payload, handed);
}
