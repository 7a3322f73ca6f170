#include "boxes.h"
#include "stbl.h"

#include <numeric>

namespace {

struct TimeToSample : testing::Test, On<CMp4SttsAtom> {
    void Times(std::initializer_list<std::uint64_t> times)
    {
        for (const std::uint64_t time : times)
            box.AddSample(time);
    }
};

struct CompositionOffset : testing::Test, On<CMp4CttsAtom> {};

struct SampleSize : testing::Test, On<CMp4StszAtom> {
    void Sizes(std::initializer_list<std::int32_t> sizes)
    {
        for (const std::int32_t size : sizes)
            box.AddSample(size);
    }
};

struct SampleToChunk : testing::Test, On<CMp4StscAtom> {
    void Chunk(int samples)
    {
        for (int i = 0; i < samples; ++i)
            box.AddSample(i == 0);
    }
};

struct Stbl : testing::Test, On<CMp4SubtitleStblAtom> {
    void Add(std::uint64_t offset, std::uint64_t time, bool newChunk)
    {
        box.AddSample(offset, 10, time, time, newChunk);
    }
};

struct TimeCodeStbl : testing::Test, On<CMp4TMCDStblAtom> {};

struct VideoStbl : testing::Test, On<CMp4VideoStblAtom> {};

}  // namespace

// ---- stts ----------------------------------------------------------------------------------

TEST_F(TimeToSample, WithoutSamplesThereIsNoEntry)
{
    EXPECT_BYTES(Written(), Hex("00000010 'stts' 00000000 00000000"));
}

TEST_F(TimeToSample, ALoneSampleTakesTheDefault)
{
    box.m_defaultDelta = 512;
    Times({7000});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000001 00000200"));
}

TEST_F(TimeToSample, TheDefaultIsOneUntilSet)
{
    Times({0});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000001 00000001"));
}

TEST_F(TimeToSample, TwoSamplesShareTheirDelta)
{
    Times({0, 40});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000002 00000028"));
}

TEST_F(TimeToSample, TheLastSampleRepeatsTheOpenRun)
{
    Times({0, 40, 80, 120, 121});
    EXPECT_BYTES(Written(),
                 Hex("00000020 'stts' 00000000 00000002 00000003 00000028 00000002 00000001"));
}

TEST_F(TimeToSample, AFirstTimeAboveZeroIsNoDelta)
{
    Times({1000, 1040});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000002 00000028"));
}

TEST_F(TimeToSample, ATimeThatGoesBackWrapsIn32Bits)
{
    Times({100, 60});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000002 ffffffd8"));
}

TEST_F(TimeToSample, OnlyTheLow32BitsOfTimesCount)
{
    Times({0xFFFFFFFF, 0x100000005});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000002 00000006"));
}

TEST_F(TimeToSample, TwoWritesAreAlike)
{
    Times({0, 40, 80, 81});
    EXPECT_EQ(Written(), Written());
}

TEST_F(TimeToSample, ASampleOfTheSameDeltaAfterAWriteRaisesTheCount)
{
    Times({0, 40});
    Written();
    Times({80});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000003 00000028"));
}

TEST_F(TimeToSample, ACompletedRunOverwritesTheOpenOneOfAWrite)
{
    Times({0, 40, 80});
    Written();
    Times({90});
    EXPECT_BYTES(Written(),
                 Hex("00000020 'stts' 00000000 00000002 00000002 00000028 00000002 0000000a"));
}

TEST_F(TimeToSample, ALoneSampleWrittenEarlyLeavesNoTrace)
{
    Times({0});
    Written();
    Times({40, 80});
    EXPECT_BYTES(Written(), Hex("00000018 'stts' 00000000 00000001 00000003 00000028"));
}

TEST_F(TimeToSample, TheSizeLacksTheOpenRunUntilTheFirstWrite)
{
    Times({0, 40});
    EXPECT_EQ(box.GetSize(), 16u);
    Written();
    EXPECT_EQ(box.GetSize(), 24u);
}

TEST_F(TimeToSample, ARunCompletedBetweenTwoWritesDoesNotShowInTheSizeUntilTheSecond)
{
    Times({0, 40, 80});
    EXPECT_EQ(Written().size(), 24u);
    Times({90});
    EXPECT_EQ(box.GetSize(), 24u);
    EXPECT_EQ(Written().size(), 32u);
    EXPECT_EQ(box.GetSize(), 32u);
}

// ---- ctts ----------------------------------------------------------------------------------

TEST_F(CompositionOffset, RunsAreOfEqualOffsets)
{
    box.AddSample(40, 40);
    box.AddSample(120, 80);
    box.AddSample(160, 120);
    box.AddSample(100, 160);
    EXPECT_BYTES(Written(), Hex("00000028 'ctts' 00000000 00000003 00000001 00000000"
                                "00000002 00000028 00000001 ffffffc4"));
}

TEST_F(CompositionOffset, AnOffsetBeyond32BitsNeverExtendsARun)
{
    box.AddSample(0x100000000, 0);
    box.AddSample(0x100000000, 0);
    EXPECT_BYTES(Written(), Hex("00000020 'ctts' 00000000 00000002 00000001 00000000"
                                "00000001 00000000"));
}

TEST_F(CompositionOffset, EqualNegativeOffsetsShareARun)
{
    box.AddSample(100, 160);
    box.AddSample(100, 160);
    EXPECT_BYTES(Written(), Hex("00000018 'ctts' 00000000 00000001 00000002 ffffffc4"));
}

TEST_F(CompositionOffset, AWriteTakesTheEntriesAndLeavesTheOpenRun)
{
    box.AddSample(40, 40);
    box.AddSample(120, 80);
    EXPECT_BYTES(Written(), Hex("00000020 'ctts' 00000000 00000002 00000001 00000000"
                                "00000001 00000028"));
    EXPECT_BYTES(Written(), Hex("00000018 'ctts' 00000000 00000001 00000001 00000028"));
}

TEST_F(CompositionOffset, WithoutSamplesThereIsAnEmptyRun)
{
    EXPECT_BYTES(Written(), Hex("00000018 'ctts' 00000000 00000001 00000000 00000000"));
}

TEST_F(CompositionOffset, TheSizeIsAConstant)
{
    EXPECT_EQ(box.GetSize(), 24u);
}

// ---- stsz ----------------------------------------------------------------------------------

TEST_F(SampleSize, OneSampleIsCompact)
{
    Sizes({5});
    EXPECT_BYTES(Written(), Hex("00000014 'stsz' 00000000 00000005 00000001"));
    EXPECT_EQ(box.GetSize(), 20u);
}

TEST_F(SampleSize, EqualSizesAreCompactForAnyCount)
{
    for (int i = 0; i < 1000; ++i)
        box.AddSample(0x01020304);
    EXPECT_BYTES(Written(), Hex("00000014 'stsz' 00000000 01020304 000003e8"));
}

TEST_F(SampleSize, DifferentSizesAreListed)
{
    Sizes({5, 5, 6});
    EXPECT_BYTES(Written(), Hex("00000020 'stsz' 00000000 00000000 00000003"
                                "00000005 00000005 00000006"));
    EXPECT_EQ(box.GetSize(), 32u);
}

// Words are compared, not bytes.
TEST_F(SampleSize, SizesOfTheSameBytesInAnotherOrderDiffer)
{
    Sizes({0x01000100, 0x00010001});
    EXPECT_EQ(Written().size(), 28u);
}

TEST_F(SampleSize, ADifferenceInTheFirstSampleIsSeen)
{
    Sizes({6, 5, 5, 5});
    EXPECT_EQ(Written().size(), 36u);
}

TEST_F(SampleSize, WithoutSamplesAllIsZero)
{
    EXPECT_BYTES(Written(), Hex("00000014 'stsz' 00000000 00000000 00000000"));
}

TEST_F(SampleSize, TheSumExtendsTheSign)
{
    Sizes({100, -1});
    EXPECT_EQ(box.GetDataSize(), 99u);
}

TEST_F(SampleSize, TwoWritesAreAlike)
{
    Sizes({1, 2});
    EXPECT_EQ(Written(), Written());
}

TEST_F(SampleSize, ATableIsTwoHeaderWritesAndOneBlock)
{
    for (std::int32_t i = 0; i < 5000; ++i)
        box.AddSample(i);
    Written();
    EXPECT_EQ(sink.m_writes, (std::vector<std::uint32_t>{8, 12, 20000}));
}

// ---- stsc ----------------------------------------------------------------------------------

TEST_F(SampleToChunk, EqualNeighboursShareAnEntry)
{
    for (const int samples : {3, 3, 2, 3})
        Chunk(samples);
    EXPECT_BYTES(Written(), Hex("00000034 'stsc' 00000000 00000003 00000001 00000003 00000001"
                                "00000003 00000002 00000001 00000004 00000003 00000001"));
    EXPECT_EQ(box.GetSize(), 52u);
}

TEST_F(SampleToChunk, OneLongChunkIsOneEntry)
{
    Chunk(100);
    EXPECT_BYTES(Written(), Hex("0000001c 'stsc' 00000000 00000001 00000001 00000064 00000001"));
}

TEST_F(SampleToChunk, AlternatingTracksGiveOneEntry)
{
    for (int i = 0; i < 50; ++i)
        Chunk(1);
    EXPECT_BYTES(Written(), Hex("0000001c 'stsc' 00000000 00000001 00000001 00000001 00000001"));
}

TEST_F(SampleToChunk, SamplesAheadOfTheFirstChunkAreNotCounted)
{
    box.AddSample(false);
    EXPECT_BYTES(Written(), Hex("00000010 'stsc' 00000000 00000000"));
    EXPECT_EQ(box.GetSize(), 16u);
}

TEST_F(SampleToChunk, TwoWritesAreAlike)
{
    Chunk(3);
    Chunk(1);
    EXPECT_EQ(Written(), Written());
}

TEST_F(SampleToChunk, ASampleThatLevelsTheLastChunkTakesAnEntryAway)
{
    Chunk(3);
    Chunk(2);
    EXPECT_BYTES(Written(), Hex("00000028 'stsc' 00000000 00000002 00000001 00000003 00000001"
                                "00000002 00000002 00000001"));
    box.AddSample(false);
    EXPECT_BYTES(Written(), Hex("0000001c 'stsc' 00000000 00000001 00000001 00000003 00000001"));
    EXPECT_EQ(box.GetSize(), 28u);
    box.AddSample(false);
    EXPECT_BYTES(Written(), Hex("00000028 'stsc' 00000000 00000002 00000001 00000003 00000001"
                                "00000002 00000004 00000001"));
    EXPECT_EQ(box.GetSize(), 40u);
}

TEST_F(SampleToChunk, ASampleAheadOfTheFirstChunkLeavesNoTraceInIt)
{
    box.AddSample(false);
    box.AddSample(true);
    EXPECT_BYTES(Written(), Hex("0000001c 'stsc' 00000000 00000001 00000001 00000001 00000001"));
}

// 16 + 12 * 5460 is 65536: the longest table that stands in memory as a whole.
TEST_F(SampleToChunk, ATableOf64KibibytesIsOneWrite)
{
    for (int i = 0; i < 5460; ++i)
        Chunk(1 + i % 2);
    Written();
    EXPECT_EQ(sink.m_writes, (std::vector<std::uint32_t>{65536}));
}

TEST_F(SampleToChunk, ALongerTableGoesInBlocksWithTheSameBytes)
{
    for (int i = 0; i < 20000; ++i)
        Chunk(1 + i % 2);
    const std::string bytes = Written();
    EXPECT_BYTES(bytes.substr(0, 16), Hex("0003a990 'stsc' 00000000 00004e20"));
    ASSERT_EQ(bytes.size(), 16u + 12 * 20000);
    for (std::uint32_t i = 0; i < 20000; ++i) {
        ASSERT_EQ(U32At(bytes, 16 + 12 * i), i + 1);
        ASSERT_EQ(U32At(bytes, 20 + 12 * i), 1 + i % 2);
        ASSERT_EQ(U32At(bytes, 24 + 12 * i), 1u);
    }
    for (const std::uint32_t size : sink.m_writes)
        EXPECT_LE(size, 65536u);
}

// ---- Offsets and key frames ----------------------------------------------------------------

TEST(ChunkOffset, CutsTheUpperHalfOff)
{
    On<CMp4StcoAtom> on;
    on.box.AddChunk(0x24);
    on.box.AddChunk(0x500000010);
    EXPECT_BYTES(on.Written(), Hex("00000018 'stco' 00000000 00000002 00000024 00000010"));
    EXPECT_EQ(on.box.GetSize(), 24u);
}

TEST(ChunkOffset, IsWholeIn64Bits)
{
    On<CMp4Co64Atom> on;
    on.box.AddChunk(0x24);
    on.box.AddChunk(0x500000010);
    EXPECT_BYTES(on.Written(), Hex("00000020 'co64' 00000000 00000002 0000000000000024"
                                   "0000000500000010"));
    EXPECT_EQ(on.box.GetSize(), 32u);
}

TEST(SyncSample, ListsNumbers)
{
    On<CMp4StssAtom> on;
    on.box.AddSample(1);
    on.box.AddSample(61);
    EXPECT_BYTES(on.Written(), Hex("00000018 'stss' 00000000 00000002 00000001 0000003d"));
    EXPECT_EQ(on.box.GetSize(), 24u);
}

TEST(Tables, AnEmptyTableMakesNoEmptyWrite)
{
    On<CMp4StssAtom> on;
    on.Written();
    EXPECT_EQ(on.sink.m_writes, (std::vector<std::uint32_t>{8, 8}));
}

TEST(Tables, AClosedSinkTakesNothing)
{
    On<CMp4StszAtom> on;
    on.box.AddSample(1);
    on.box.AddSample(2);
    on.sink.Close();
    EXPECT_EQ(on.Written(), "");
}

// ---- stbl ----------------------------------------------------------------------------------

TEST_F(Stbl, HasItsTablesInOrder)
{
    Add(36, 0, true);
    EXPECT_EQ(Tree(Written()), "stbl(stsd stts stsz stsc stco)");
}

TEST_F(Stbl, OnlyNewChunksHaveAnOffset)
{
    Add(36, 0, true);
    Add(46, 40, false);
    Add(100, 80, true);
    EXPECT_BYTES(Find(Written(), "stbl/stco"),
                 Hex("00000018 'stco' 00000000 00000002 00000024 00000064"));
}

TEST_F(Stbl, CompositionOffsetsNeverReachTheFile)
{
    box.AddSample(36, 10, 80, 0, true);
    box.AddSample(46, 10, 40, 40, false);
    EXPECT_EQ(Tree(Written()), "stbl(stsd stts stsz stsc stco)");
    EXPECT_EQ(box.m_ctts.m_runCount, 1u);
}

TEST_F(Stbl, DecodingTimesMakeTheDeltas)
{
    box.AddSample(36, 10, 80, 0, true);
    box.AddSample(46, 10, 40, 25, false);
    EXPECT_BYTES(Find(Written(), "stbl/stts"),
                 Hex("00000018 'stts' 00000000 00000001 00000002 00000019"));
}

TEST_F(Stbl, WithCo64TheOffsetsHave64Bits)
{
    box.m_useCo64 = true;
    Add(0x100000000, 0, true);
    EXPECT_EQ(Tree(Written()), "stbl(stsd stts stsz stsc co64)");
    EXPECT_BYTES(Find(Written(), "stbl/co64"),
                 Hex("00000018 'co64' 00000000 00000001 0000000100000000"));
}

TEST_F(Stbl, With64BitOffsetsTheSizeCountsThem)
{
    box.m_useCo64 = true;
    Add(36, 0, true);
    const std::string bytes = Written();
    EXPECT_EQ(box.GetSize(), bytes.size());
}

TEST_F(Stbl, TheSizeIsExactAfterAWrite)
{
    Add(36, 0, true);
    Add(100, 40, true);
    const std::string bytes = Written();
    EXPECT_EQ(box.GetSize(), bytes.size());
}

TEST_F(Stbl, TheDataSizeIsTheSumOfTheSamples)
{
    Add(36, 0, true);
    Add(46, 40, false);
    EXPECT_EQ(box.GetDataSize(), 20u);
}

TEST_F(VideoStbl, HasItsKeyFramesLastAlsoWhenThereAreNone)
{
    box.AddSample(36, 10, 0, 0, true);
    EXPECT_EQ(Tree(Written()), "stbl(stsd stts stsz stsc stco stss)");
    EXPECT_BYTES(Find(Written(), "stbl/stss"), Hex("00000010 'stss' 00000000 00000000"));
    EXPECT_EQ(box.GetSize(), Written().size());
}

TEST_F(TimeCodeStbl, HasItsChunksAheadOfItsSizes)
{
    box.AddSample(36, true);
    EXPECT_EQ(Tree(Written()), "stbl(stsd stts stsc stsz stco)");
    EXPECT_EQ(box.GetSize(), Written().size());
}

TEST_F(TimeCodeStbl, ALoneSampleTakesTheDefault)
{
    box.m_stts.m_defaultDelta = 90000;
    box.AddSample(36, true);
    EXPECT_BYTES(Find(Written(), "stbl/stts"),
                 Hex("00000018 'stts' 00000000 00000001 00000001 00015f90"));
}

TEST_F(TimeCodeStbl, MoreSamplesHaveTheDeltaZero)
{
    for (int i = 0; i < 3; ++i)
        box.AddSample(36, i == 0);
    EXPECT_BYTES(Find(Written(), "stbl/stts"),
                 Hex("00000018 'stts' 00000000 00000001 00000003 00000000"));
}

TEST_F(TimeCodeStbl, SamplesHaveFourBytesAndAlwaysTheCompactForm)
{
    box.AddSample(36, true);
    box.AddSample(90, true);
    EXPECT_BYTES(Find(Written(), "stbl/stsz"),
                 Hex("00000014 'stsz' 00000000 00000004 00000002"));
    EXPECT_EQ(box.m_stsz.GetDataSize(), 8u);
}

TEST_F(TimeCodeStbl, CanHave64BitOffsets)
{
    box.m_useCo64 = true;
    box.AddSample(0x100000000, true);
    EXPECT_EQ(Tree(Written()), "stbl(stsd stts stsc stsz co64)");
}

TEST_F(TimeCodeStbl, With64BitOffsetsTheSizeCountsThem)
{
    box.m_useCo64 = true;
    box.AddSample(36, true);
    const std::string bytes = Written();
    EXPECT_EQ(box.GetSize(), bytes.size());
}
