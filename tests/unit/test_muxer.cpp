// The muxer from inside, where no export leads.
#include "Mp4Muxer.h"

#include <gtest/gtest.h>

TEST(NextMoovPosition, WithoutAThresholdTheLargestDistanceHoldsAtEveryPosition)
{
    for (const std::uint32_t strategy : {1u, 2u}) {
        CMp4Muxer muxer;
        const mp4_safe_param params{strategy, 10, 100, 0};
        ASSERT_EQ(muxer.SetSafeParam(&params), 0u);
        EXPECT_EQ(muxer.CalcNextMoovPosition(1), 101u);
        EXPECT_EQ(muxer.CalcNextMoovPosition(0), 100u);
        EXPECT_EQ(muxer.CalcNextMoovPosition(-1), 99u);
    }
}
