// What libavformat must refuse by itself, where the strict walk would be the first to.
#include "recovery/the_judge.h"

#include <gmock/gmock.h>

using namespace kvtest;
using testing::HasSubstr;

TEST_F(TheJudge, RefusesAChangedByteOfASampleByLibavformatAlone)
{
    ASSERT_EQ(JudgeByLibavformat(take, third.samples, file, file.size()), "");
    file[44 + 4 + 4 + 1] ^= 1;  // in the first sample, behind a time code and a length
    EXPECT_THAT(JudgeByLibavformat(take, third.samples, file, file.size()),
                HasSubstr("not intact"));
}

TEST_F(TheJudge, RefusesTheSamplesOfAnotherCheckpointByLibavformatAlone)
{
    ASSERT_EQ(JudgeByLibavformat(take, third.samples, file, file.size()), "");
    Counts more = third.samples;
    ++more.of[kAudio];
    EXPECT_THAT(JudgeByLibavformat(take, more, file, file.size()), HasSubstr("trak.soun"));
}
