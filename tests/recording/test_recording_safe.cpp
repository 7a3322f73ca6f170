// Where checkpoints come, what they write, and what a close makes of the last one.
#include "support/check.h"
#include "support/checkpoints.h"
#include "support/reads_as.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Positions = std::vector<std::uint64_t>;

namespace {

const mp4_safe_param kDefault{1, 0xA00000, 0x6400000, 0x40000000};

// A distance for a frame of one byte at a position: by strategy, and by where it is.
struct Distance {
    const char* name;
    mp4_safe_param params;
    std::uint64_t position;
    std::uint64_t next;
};

class ACheckpoint : public testing::TestWithParam<Distance> {};

const Distance kDistances[] = {
    {"Fixed", {0, 1000, 5, 0}, 5000, 6000},
    {"FixedBeyondTheThreshold", {0, 1000, 5, 4000}, 5000, 6000},
    {"LinearAtTenMebibytes", kDefault, 10485760, 21893120},        // + 10 MiB + 90 MiB / 102.4
    {"LinearAtHalfAGibibyte", kDefault, 0x20000000, 594542592},    // + 10 MiB + 45 MiB
    {"LinearBelowTheThreshold", kDefault, 0x3FFFFFFF, 1178599422},  // + 10 MiB + 90 MiB - 1
    {"LinearAtTheThreshold", kDefault, 0x40000000, 1178599424},    // + 100 MiB
    {"LinearAboveTheThreshold", kDefault, 0x40000001, 1178599425},
    {"LinearAtAThresholdOfZero", {1, 1000, 2000, 0}, 5000, 7000},
    // The span of the intervals is a 32-bit number: 2^32 - 1000.
    {"LinearWithTheIntervalsReversed", {1, 1000, 0, 5000}, 5000, 4294972296},
    // (2^32 - 1)^2 is -(2^33 - 1) in 64 bits with a sign, and that by 2^32 - 1 is -2.
    {"LinearWithAProductOf64Bits", {1, 2000, 1999, 0xFFFFFFFF}, 0xFFFFFFFF, 4294969293},
    {"SteppedAtTenMebibytes", {2, 0xA00000, 0x6400000, 0x40000000}, 10485760, 20971523},
    {"SteppedWithAnOddInterval", {2, 1000001, 9000000, 0x40000000}, 5000000, 6000002},
    {"SteppedBelowTheThreshold", {2, 0xA00000, 0x6400000, 0x40000000}, 0x3FFFFFFF, 1084227586},
    {"SteppedAtTheThreshold", {2, 0xA00000, 0x6400000, 0x40000000}, 0x40000000, 1178599424},
    {"SteppedAboveTheThreshold", {2, 0xA00000, 0x6400000, 0x40000000}, 0x40000001, 1178599425},
    {"SteppedAtAThresholdOfZero", {2, 1000, 2000, 0}, 5000, 7000},
};

std::string DistanceName(const testing::TestParamInfo<Distance>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Distances, ACheckpoint, testing::ValuesIn(kDistances), DistanceName);

}  // namespace

TEST_P(ACheckpoint, LiesAtTheDistanceOfItsStrategy)
{
    SparseFile rec;
    EXPECT_EQ(rec.CheckpointAt(GetParam().position, GetParam().params), GetParam().next);
    // The size of mdat runs from its header at 36, as far as 32 bits go; moov follows it.
    EXPECT_EQ(rec.sink.U32(36), static_cast<std::uint32_t>(GetParam().next - 36));
    EXPECT_EQ(rec.sink.Read(GetParam().next + 4, 4), Hex("'moov'"));
}

// ---- When --------------------------------------------------------------------------------------

// Twice 5242858 from 44 on is 10485760.
TEST(TheFirstCheckpoint, ComesWhenTwiceTheFramePassesTheSmallestInterval)
{
    SparseFile rec;
    EXPECT_EQ(rec.Frame(5242858), 0u);
    EXPECT_THAT(Checkpoints(rec.log), IsEmpty());
    EXPECT_EQ(rec.sink.U32(36), 8u);  // the placeholder

    SparseFile one;
    EXPECT_EQ(one.Frame(5242859), 0u);
    EXPECT_THAT(Checkpoints(one.log), ElementsAre(10485807));  // 44 + 10 MiB + 3
}

TEST(TheFirstCheckpoint, IsInNoFileThatIsNotInSafeMode)
{
    SparseFile rec(0);
    EXPECT_EQ(rec.Frame(50000000), 0u);
    EXPECT_EQ(rec.Frame(1), 0u);
    EXPECT_THAT(Checkpoints(rec.log), IsEmpty());
}

// Frames of 100000 bytes begin at 44 + n x 100000; within 200000 of the limit one comes.
TEST(FixedCheckpoints, ComeEachTimeTheLimitIsWithinTwoFrames)
{
    SparseFile rec;
    SetSafeParam(rec.file, {0, 1000000, 0, 0});
    Positions before;
    for (int n = 0; n < 27; ++n) {
        const std::size_t count = Checkpoints(rec.log).size();
        EXPECT_EQ(rec.Frame(100000), 0u);
        if (Checkpoints(rec.log).size() != count)
            before.push_back(44 + static_cast<std::uint64_t>(n) * 100000);
    }
    EXPECT_EQ(before, (Positions{800044, 1700044, 2600044}));
    EXPECT_EQ(Checkpoints(rec.log), (Positions{1800044, 2700044, 3600044}));
}

// Twice the size is a 32-bit number with a sign: 0, -2 and -2^31, which no unsigned limit holds.
TEST(TwiceTheSize, HasASign)
{
    for (const std::uint32_t size : {0x80000000u, 0x7FFFFFFFu}) {
        SparseFile none;
        SetSafeParam(none.file, {0, 45, 0, 0});
        EXPECT_EQ(none.Frame(size), 0u);
        EXPECT_THAT(Checkpoints(none.log), IsEmpty());
    }
    SparseFile rec;
    SetSafeParam(rec.file, {0, 0xFFFFFFFF, 0, 0});
    EXPECT_EQ(rec.Frame(0x3FFFFFFF), 0u);
    EXPECT_THAT(Checkpoints(rec.log), IsEmpty());
    EXPECT_EQ(rec.Frame(0x40000000), 0u);
    EXPECT_EQ(Checkpoints(rec.log), Positions{44 + 0x3FFFFFFFull + 0xFFFFFFFFull});
}

TEST(NewSafeParameters, HoldFromTheNextDecisionOn)
{
    SparseFile rec;
    SetSafeParam(rec.file, {0, 5000, 0, 0});
    EXPECT_EQ(rec.Frame(3000), 0u);  // 44 + 6000 passes 5000: the moov in force is at 5044
    SetSafeParam(rec.file, {0, 70000, 0, 0});
    EXPECT_EQ(rec.Frame(1000), 0u);  // 3044 + 2000 is 5044
    EXPECT_EQ(rec.Frame(500), 0u);   // 4044 + 1000 is 5044
    EXPECT_EQ(Checkpoints(rec.log), Positions{5044});
    EXPECT_EQ(rec.Frame(251), 0u);   // 4544 + 502
    EXPECT_EQ(Checkpoints(rec.log), (Positions{5044, 74544}));
}

TEST(AnAudioFrame, MakesCheckpointsToo)
{
    for (const std::size_t size : {std::size_t{478}, std::size_t{479}}) {
        Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
        rec.SetAac();
        SetSafeParam(rec.Handle(), {0, 1000, 0, 0});
        EXPECT_EQ(rec.Audio(Bytes(size, 1), 0), 0u);
        EXPECT_EQ(Checkpoints(rec.Log()).size(), size == 478 ? 0u : 1u);  // 44 + 2 x 478 is 1000
    }
}

// ---- Frames that are no samples ----------------------------------------------------------------

TEST(AFrameThatIsDropped, HasMadeItsCheckpoint)
{
    Recording video("clip.mp4", MP4_OPEN_SAFE_MODE);
    mp4_video_track_info info{};
    EXPECT_EQ(mp4_set_video_track(video.Handle(), &info), 0u);  // without parameter sets
    SetSafeParam(video.Handle(), {0, 50, 0, 0});
    EXPECT_EQ(video.Video(Unit(0x65), 0), 0u);
    EXPECT_TRUE(video.Log().Has("warning no codec data, drop frame"));
    EXPECT_EQ(Checkpoints(video.Log()), Positions{94});

    Recording audio("clip.mp4", MP4_OPEN_SAFE_MODE);
    audio.SetAdts();
    SetSafeParam(audio.Handle(), {0, 50, 0, 0});
    EXPECT_EQ(audio.Audio(Bytes(10, 0), 0), 7u);
    EXPECT_EQ(Checkpoints(audio.Log()), Positions{94});
}

TEST(AFrameThatIsNoFrame, MakesNoCheckpoint)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    SetSafeParam(rec.Handle(), {0, 1, 0, 0});
    EXPECT_EQ(rec.Video(Unit(0x65), 0), 9u);        // no track
    EXPECT_EQ(rec.Video(Bytes(10, 0xAB), 0), 8u);   // no start code
    EXPECT_EQ(rec.Video(Bytes{}, 0), 0u);           // no data
    EXPECT_THAT(Checkpoints(rec.Log()), IsEmpty());
    rec.SetH264();
    EXPECT_EQ(rec.Video(Unit(0x65), 0), 0u);
    EXPECT_EQ(Checkpoints(rec.Log()).size(), 1u);
}
