// The muxer from inside, where no export leads: what its methods answer to each other, what is left
// behind a close, and the times that a close logs, by a clock that the linker puts in the place of
// the system's (--wrap).
#include "Mp4Muxer.h"
#include "boxes.h"
#include "platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

namespace {

std::int64_t g_clock = -1;  // -1 for the system's

}  // namespace

extern "C" {
std::int64_t __real__ZN8platform7ClockMsEv();

std::int64_t __wrap__ZN8platform7ClockMsEv()
{
    return g_clock < 0 ? __real__ZN8platform7ClockMsEv() : g_clock;
}
}

namespace {

using testing::ElementsAre;

constexpr std::int64_t kMdat = 36;
constexpr std::int64_t kMoov = 100;  // in safe mode; else 44

// An output that keeps nothing. The clock moves on by 7 at the size of mdat, by 100 at that of
// moov, which is written twice, and by 5000 at the end.
ExternalIoFuncs* Output()
{
    static std::int64_t position;
    static ExternalIoFuncs table;
    table.open = [](void** context, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        position = 0;
        *context = &position;
        return 1;
    };
    table.close = [](void*) { g_clock += 5000; };
    table.tell = [](void*) { return position; };
    table.seek = [](void*, std::int64_t offset, std::int32_t) { position = offset; };
    table.flush = [](void*) {};
    table.write = [](void*, const void*, std::uint32_t size) -> std::int32_t {
        g_clock += position == kMdat ? 7 : position == 44 || position == kMoov ? 100 : 0;
        position += size;
        return 1;
    };
    return &table;
}

struct AMuxer : testing::Test {
    AMuxer() { g_clock = 0; }
    ~AMuxer() override { g_clock = -1; }
    void Create(std::uint8_t flags)
    {
        ASSERT_EQ(m_muxer.Create(L"clip.mp4", 0, 0, flags, MP4_IO_EXTERNAL, Output()), 0u);
        const mp4_safe_param params{0, kMoov, 0, 0};
        ASSERT_EQ(m_muxer.SetSafeParam(&params), 0u);
    }
    // The "Muxer - Close - " lines so far, as "what milliseconds".
    std::vector<std::string> Times() const
    {
        const std::string text = m_log.Text();
        const std::regex line("Muxer - Close - ([a-z ]+) takes (\\d+) ms");
        std::vector<std::string> times;
        for (std::sregex_iterator at(text.begin(), text.end(), line), end; at != end; ++at)
            times.push_back((*at)[1].str() + " " + (*at)[2].str());
        return times;
    }

    CLogLines m_log;
    CMp4Muxer m_muxer;
};

}  // namespace

// ---- Checkpoints -----------------------------------------------------------------------------

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

// 1 is no such threshold: below it the distance is the smallest, or by the exclusive or 10 ^ 3.
TEST(NextMoovPosition, WithAThresholdOf1GoesByThePosition)
{
    CMp4Muxer muxer;
    mp4_safe_param params{1, 10, 100, 1};
    ASSERT_EQ(muxer.SetSafeParam(&params), 0u);
    EXPECT_EQ(muxer.CalcNextMoovPosition(0), 10u);
    params.strategy = 2;
    ASSERT_EQ(muxer.SetSafeParam(&params), 0u);
    EXPECT_EQ(muxer.CalcNextMoovPosition(0), 9u);
}

// The quotient is 0 for all positions above 0; of -20 and 10 it is -2, and 5 x -2 + 1000 is 990.
TEST(NextMoovPosition, SteppedAddsTheSmallestIntervalToTheSteps)
{
    CMp4Muxer muxer;
    const mp4_safe_param params{2, 1000, 1005, 10};
    ASSERT_EQ(muxer.SetSafeParam(&params), 0u);
    EXPECT_EQ(muxer.CalcNextMoovPosition(-20), 969u);  // -20 + (990 ^ 3)
}

TEST_F(AMuxer, OutOfSafeModeHasRoomForAnyFrame)
{
    Create(0);
    EXPECT_TRUE(m_muxer.CheckSafeWrite(5000));
    EXPECT_EQ(m_log.Text().find("update moov header"), std::string::npos);
}

TEST_F(AMuxer, HasRoomUpToTheLimitAndBehindItsCheckpoint)
{
    Create(MP4_OPEN_SAFE_MODE);
    EXPECT_TRUE(m_muxer.CheckSafeWrite(28));  // 44 + 56
    EXPECT_EQ(m_log.Text().find("update moov header"), std::string::npos);
    EXPECT_TRUE(m_muxer.CheckSafeWrite(29));
    EXPECT_NE(m_log.Text().find("update moov header to 144"), std::string::npos);
}

TEST_F(AMuxer, HasNoRoomWhereTheStrategyIsUnknown)
{
    Create(MP4_OPEN_SAFE_MODE);
    const mp4_safe_param params{3, 100, 0, 0};
    ASSERT_EQ(m_muxer.SetSafeParam(&params), 0u);
    EXPECT_TRUE(m_muxer.CheckSafeWrite(28));
    EXPECT_FALSE(m_muxer.CheckSafeWrite(29));
}

// ---- The close -------------------------------------------------------------------------------

TEST_F(AMuxer, ThatIsClosedHasNoBoxesAndCanBeClosedAgain)
{
    for (const std::uint8_t flags : {std::uint8_t{0}, std::uint8_t{MP4_OPEN_SAFE_MODE},
                                     std::uint8_t{MP4_OPEN_FAST_HEADER}}) {
        Create(flags);
        EXPECT_EQ(m_muxer.Close(), 0u);
        EXPECT_EQ(m_muxer.GetMoovSize(), 0u);
        EXPECT_EQ(m_muxer.GetVideoBitrate(), -1.0);
        EXPECT_EQ(m_muxer.WriteTimeCode(1), 19u);
        EXPECT_EQ(m_muxer.WriteAudioFrame({1, nullptr, 0}), 19u);
        EXPECT_EQ(m_muxer.Close(), 0u);
    }
}

// 144 was the place of the first file's moov.
TEST_F(AMuxer, ThatIsClosedHasNoMoovInForce)
{
    Create(MP4_OPEN_SAFE_MODE);
    EXPECT_TRUE(m_muxer.CheckSafeWrite(29));
    EXPECT_EQ(m_muxer.Close(), 0u);
    EXPECT_NE(m_log.Text().find("mdat end update to 144"), std::string::npos);
    EXPECT_EQ(m_muxer.Close(), 0u);
    EXPECT_NE(m_log.Text().find("mdat end update to 100"), std::string::npos);
}

TEST_F(AMuxer, LogsTheTimeOfEachStepOfItsClose)
{
    Create(0);
    EXPECT_EQ(m_muxer.Close(), 0u);
    EXPECT_THAT(Times(), ElementsAre("mdat finish 7", "moov write 200", "remove info file 0",
                                     "uninit 5000"));
}

// There is no line for the end of mdat, and its time is in no other.
TEST_F(AMuxer, LogsTheTimeOfItsMoovInSafeModeWithoutThatOfMdat)
{
    Create(MP4_OPEN_SAFE_MODE);
    EXPECT_EQ(m_muxer.Close(), 0u);
    EXPECT_THAT(Times(), ElementsAre("moov write 200", "remove info file 0", "uninit 5000"));
}
