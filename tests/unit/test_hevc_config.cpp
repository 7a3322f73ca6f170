// The walks over HEVC parameter sets: what they keep, where they end, and what they refuse.
#include "hevc_syntax.h"
#include "stsd.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace {

// A stretch of syntax with a name for the test's.
template <typename Set>
struct Stretch {
    const char* name;
    Set set;
};

template <typename Set>
std::string NameOf(const testing::TestParamInfo<Stretch<Set>>& info)
{
    return info.param.name;
}

struct SpsStretch : testing::TestWithParam<Stretch<Sps>> {};
struct VuiStretch : testing::TestWithParam<Stretch<Vui>> {};

// An SPS with its default stretches but for one.
Sps With(CBits Sps::*stretch, const CBits& bits)
{
    Sps sps;
    sps.*stretch = bits;
    return sps;
}

Vui With(CBits Vui::*stretch, const CBits& bits)
{
    Vui vui;
    vui.*stretch = bits;
    return vui;
}

Sps SpsOf(std::uint32_t subLayersMinus1, std::uint32_t nesting = 1, const TierLevel& level = {})
{
    Sps sps;
    sps.subLayersMinus1 = subLayersMinus1;
    sps.nesting = nesting;
    sps.tierLevel = level;
    return sps;
}

Config OfTierLevels(const TierLevel& vps, const TierLevel& sps)
{
    return Parsed({Vps{0, vps}.Nal(), SpsOf(0, 1, sps).Nal()});
}

CBits Repeated(int times, const CBits& bits)
{
    CBits all;
    for (int i = 0; i < times; ++i)
        all.Add(bits);
    return all;
}

// 2^32: behind 33 zeros the base is 1, and the suffix is 2^32 - 1.
const CBits kWide = CBits().U(32, 0).U(1, 0).U(1, 1).U(1, 0).U(32, 0xFFFFFFFF);

}  // namespace

// ---- One unit ------------------------------------------------------------------------------

TEST(AUnit, NeedsTwoBytes)
{
    Config config;
    EXPECT_TRUE(Parse(config, Hex("4e 01")));
    EXPECT_FALSE(Parse(config, Hex("4e")));
    EXPECT_FALSE(Parse(config, ""));
    EXPECT_FALSE(ParseHevcNal(&config, nullptr, -1));
    EXPECT_EQ(config.arrays.size(), 1u);
}

TEST(AUnit, OfAnotherTypeUpTo40IsFiledAndNotLookedAt)
{
    for (std::uint32_t type = 0; type <= 40; ++type) {
        Config config;
        const bool set = type >= 32 && type <= 34;
        const std::string nal = CBits().U(1, 0).U(6, type).U(9, 1).Bare();
        EXPECT_EQ(Parse(config, nal), !set) << type;  // a set of two bytes is cut off
        ASSERT_EQ(config.arrays.size(), 1u);
        EXPECT_EQ(config.arrays[0].NAL_unit_type, type);
        EXPECT_EQ(config.numTemporalLayers, 0);
    }
}

TEST(AUnit, OfATypeAbove40FailsAndIsNotFiled)
{
    for (std::uint32_t type = 41; type < 64; ++type) {
        Config config;
        EXPECT_FALSE(Parse(config, CBits().U(1, 0).U(6, type).U(9, 1).U(32, ~0u).Bare())) << type;
        EXPECT_TRUE(config.arrays.empty());
    }
}

TEST(AUnit, IsKnownByItsTypeAndNotByTheForbiddenBit)
{
    Config config;
    std::string nal = Pps().Nal();
    nal[0] = static_cast<char>(nal[0] | 0x80);
    EXPECT_TRUE(Parse(config, Pps().Nal()));
    EXPECT_TRUE(Parse(config, nal));
    EXPECT_EQ(config.arrays.size(), 1u);
}

TEST(AUnit, OfAKnownTypeJoinsItsArray)
{
    const std::string vps = Vps().Nal(), sei = Hex("4e 01 05"), pps = Pps().Nal();
    const Config config = Parsed({vps, sei, pps, vps, sei});
    ASSERT_EQ(config.arrays.size(), 3u);
    EXPECT_EQ(config.arrays[0].NAL_unit_type, 32);
    EXPECT_EQ(config.arrays[0].nalUnits.size(), 2u);
    EXPECT_EQ(config.arrays[1].NAL_unit_type, 39);
    EXPECT_EQ(config.arrays[1].nalUnits.size(), 2u);
    EXPECT_EQ(config.arrays[2].NAL_unit_type, 34);
    for (const HvccNalArray& array : config.arrays)
        EXPECT_EQ(array.array_completeness, 0);
}

TEST(AFiledUnit, HasItsAddressAndTheLow16BitsOfItsSize)
{
    Config config;
    const std::uint8_t nal[] = {0x40, 1};
    AddNalUnit(&config, nal, 65540, 32, 0);
    EXPECT_EQ(config.arrays[0].nalUnits[0].nalUnitLength, 4);
    EXPECT_EQ(config.arrays[0].nalUnits[0].nalUnit, nal);
}

TEST(AFiledUnit, MarksOnlyParameterSetsAsComplete)
{
    const std::uint8_t nal[] = {0, 1};
    for (const int type : {31, 32, 33, 34, 35, 39}) {
        Config config;
        AddNalUnit(&config, nal, 2, static_cast<std::uint8_t>(type), 1);
        EXPECT_EQ(config.arrays[0].array_completeness, type >= 32 && type <= 34) << type;
    }
}

TEST(AFreshRecord, BeginsWhereAMergeCanStart)
{
    const Config c;
    EXPECT_EQ(c.configurationVersion, 1);
    EXPECT_EQ(c.general_profile_compatibility_flags, 0xFFFFFFFFu);
    EXPECT_EQ(c.general_constraint_indicator_flags, 0xFFFFFFFFFFFFu);
    EXPECT_EQ(c.min_spatial_segmentation_idc, 4097);
    EXPECT_EQ(c.lengthSizeMinusOne, 3);
    EXPECT_EQ(c.general_profile_space | c.general_tier_flag | c.general_profile_idc |
                  c.general_level_idc | c.parallelismType | c.chromaFormat | c.bitDepthLumaMinus8 |
                  c.bitDepthChromaMinus8 | c.avgFrameRate | c.constantFrameRate |
                  c.numTemporalLayers | c.temporalIdNested,
              0);
}

// ---- Emulation prevention ------------------------------------------------------------------

TEST(EmulationPrevention, IsTakenOutForTheWalkAlone)
{
    const std::string nal = Vps().Nal();
    // 60 00 00 00 90 00 00 00 00 00 5d, with a 03 wherever two zeros stand before a 0.
    EXPECT_BYTES(nal.substr(7), Hex("60 00 00 03 00 90 00 00 03 00 00 03 00 5d 80"));
    Config config;
    ASSERT_TRUE(Parse(config, nal));
    EXPECT_EQ(config.general_profile_compatibility_flags, 0x60000000u);
    EXPECT_EQ(config.general_constraint_indicator_flags, 0x900000000000u);
    EXPECT_EQ(config.general_level_idc, 0x5d);
    EXPECT_EQ(config.arrays[0].nalUnits[0].nalUnitLength, nal.size());
}

// 00 40 00 03: the third byte completes no 00 00 03 with the header's second byte.
TEST(EmulationPrevention, IsNotSeenInTheHeader)
{
    std::string nal = Vps().Nal();
    nal.replace(1, 3, Hex("00 00 03"));   // vps_max_sub_layers_minus1 is 1
    nal.replace(21, 1, Hex("00 00 80"));  // flags and reserved bits of the sub-layer
    EXPECT_EQ(Parsed({nal}).numTemporalLayers, 2);
}

TEST(EmulationPrevention, GoesFromTheVeryEndToo)
{
    const TierLevel level4{0, 0, 1, 0x60000000, 0x900000000000, 4};
    std::string nal = Hex("40 01") + Vps{0, level4}.Bits().Bare();
    Config config;
    EXPECT_TRUE(Parse(config, nal));  // 00 00 04 are its last bytes
    nal.back() = 3;
    EXPECT_FALSE(Parse(config, nal));  // a level of 3 is lost
}

TEST(EmulationPrevention, NeedsExactlyTwoZerosBefore03)
{
    // Constraint flags 00 03 01 00 00 02: none is taken out.
    const TierLevel odd{0, 0, 1, 0x60000001, 0x000301000002, 93};
    const std::string plain = Hex("40 01") + Vps{0, odd}.Bits().Bare();
    EXPECT_EQ(Parsed({plain}).general_constraint_indicator_flags, 0x000301000002u);
    // 00 00 00 03 01 is read as 00 00 00 01.
    std::string zeros = plain;
    zeros.replace(11, 6, Hex("00 00 00 03 01 00"));
    zeros.insert(17, 1, '\x02');
    EXPECT_EQ(Parsed({zeros}).general_constraint_indicator_flags, 0x000000010002u);
}

// ---- VPS -----------------------------------------------------------------------------------

TEST(AVps, GivesLayersProfileTierAndLevel)
{
    const Config c = Parsed({Vps{2, {1, 1, 2, 0x20000000, 0xB00000000001, 150}}.Nal()});
    EXPECT_EQ(c.numTemporalLayers, 3);
    EXPECT_EQ(c.general_profile_space, 1);
    EXPECT_EQ(c.general_tier_flag, 1);
    EXPECT_EQ(c.general_profile_idc, 2);
    EXPECT_EQ(c.general_profile_compatibility_flags, 0x20000000u);
    EXPECT_EQ(c.general_constraint_indicator_flags, 0xB00000000001u);
    EXPECT_EQ(c.general_level_idc, 150);
    EXPECT_EQ(c.temporalIdNested, 0);  // only an SPS tells
}

TEST(AVps, IsReadNoFurtherThanItsLevel)
{
    const std::string nal = Hex("40 01") + Vps().Bits().Bare();
    Config config;
    ASSERT_EQ(nal.size(), 18u);
    EXPECT_TRUE(Parse(config, nal));
    EXPECT_FALSE(Parse(config, nal.substr(0, 17)));
    EXPECT_TRUE(Parse(config, nal + std::string(9, '\xff')));
    EXPECT_EQ(config.arrays[0].nalUnits.size(), 3u);
}

TEST(AVps, EndsAtBit128)
{
    Config config;
    EXPECT_EQ(End(Vps().Bits(), [&](CBitReader& r) { ParseVps(&config, r); }), 128u);
}

// ---- Profile, tier and level ---------------------------------------------------------------

TEST(TierLevels, OfOneLayerHaveNoSubLayerFlags)
{
    Config config;
    const auto walk = [&](std::uint32_t n) {
        return [&config, n](CBitReader& r) { ParseProfileTierLevel(&config, r, n); };
    };
    const CBits general = TierLevel().Bits();
    EXPECT_EQ(End(general, walk(0)), 96u);
    const CBits one = CBits(general).U(2, 0).U(14, 0x3FFF);
    EXPECT_EQ(End(one, walk(1)), 112u);
    const CBits seven = CBits(general).U(14, 0).U(2, 3);
    EXPECT_EQ(End(seven, walk(7)), 112u);
}

TEST(TierLevels, SkipWhatASubLayersFlagsAnnounce)
{
    Config config;
    // Profile and level of the first, a level of the second, a profile of the third.
    CBits bits = TierLevel().Bits().U(2, 3).U(2, 1).U(2, 2).U(10, 0);
    bits.Add(Repeated(6, CBits().U(32, 0)));
    EXPECT_EQ(End(bits, [&](CBitReader& r) { ParseProfileTierLevel(&config, r, 3); }),
              112u + 96 + 8 + 88);
    EXPECT_EQ(config.general_level_idc, 93);
}

TEST(TierLevels, OfSevenSubLayersAreAllSkipped)
{
    Config config;
    CBits bits = TierLevel().Bits().U(14, 0x3FFF).U(2, 0);
    bits.Add(Repeated(7 * 3, CBits().U(32, 0)));
    EXPECT_EQ(End(bits, [&](CBitReader& r) { ParseProfileTierLevel(&config, r, 7); }),
              112u + 7 * 96);
}

// The layers of the VPS come before its level and are kept; of the rest not one value is.
TEST(TierLevels, ThatEndBeforeTheLevelMergeNothing)
{
    const std::string nal = Hex("40 01") + Vps().Bits().Bare();
    ASSERT_EQ(Parsed({nal}).general_level_idc, 93);
    Config config;
    EXPECT_FALSE(Parse(config, nal.substr(0, 17)));
    EXPECT_EQ(config.numTemporalLayers, 1);
    EXPECT_EQ(config.general_profile_idc, 0);
    EXPECT_EQ(config.general_level_idc, 0);
    EXPECT_EQ(config.general_profile_compatibility_flags, 0xFFFFFFFFu);
    EXPECT_EQ(config.general_constraint_indicator_flags, 0xFFFFFFFFFFFFu);
    EXPECT_EQ(config.arrays.size(), 1u);
}

TEST(TheLevel, IsTheGreaterOneWithinATier)
{
    const TierLevel low{0, 0, 1, 0, 0, 93}, high{0, 0, 1, 0, 0, 123};
    EXPECT_EQ(OfTierLevels(low, high).general_level_idc, 123);
    EXPECT_EQ(OfTierLevels(high, low).general_level_idc, 123);
    const TierLevel highTier{0, 1, 1, 0, 0, 120};
    EXPECT_EQ(OfTierLevels(highTier, {0, 1, 1, 0, 0, 90}).general_level_idc, 120);
}

TEST(TheLevel, IsThatOfTheSpsWhenItRaisesTheTier)
{
    const Config c = OfTierLevels({0, 0, 1, 0, 0, 153}, {0, 1, 1, 0, 0, 120});
    EXPECT_EQ(c.general_level_idc, 120);
    EXPECT_EQ(c.general_tier_flag, 1);
}

TEST(TheLevel, OfALowerTierStillCountsWhenGreater)
{
    const Config c = OfTierLevels({0, 1, 1, 0, 0, 120}, {0, 0, 1, 0, 0, 153});
    EXPECT_EQ(c.general_level_idc, 153);
    EXPECT_EQ(c.general_tier_flag, 1);
}

TEST(TheProfile, IsTheGreaterOneAndItsSpaceTheLast)
{
    const TierLevel first{2, 0, 4, 0, 0, 93}, second{1, 0, 2, 0, 0, 93};
    EXPECT_EQ(OfTierLevels(first, second).general_profile_idc, 4);
    EXPECT_EQ(OfTierLevels(second, first).general_profile_idc, 4);
    EXPECT_EQ(OfTierLevels(first, second).general_profile_space, 1);
    EXPECT_EQ(OfTierLevels(second, first).general_profile_space, 2);
}

TEST(TheFlags, AreThoseThatAllSetsShare)
{
    const TierLevel first{0, 0, 1, 0xF0F0F0F1, 0xFFFF0000FFFF, 93};
    const TierLevel second{0, 0, 1, 0x60FF00F1, 0x8000FFFFFFFE, 93};
    const Config c = OfTierLevels(first, second);
    EXPECT_EQ(c.general_profile_compatibility_flags, 0x60F000F1u);
    EXPECT_EQ(c.general_constraint_indicator_flags, 0x80000000FFFEu);
}

TEST(ThreeSets, AreMergedOneAfterAnother)
{
    // Levels: 90; a higher tier brings 60; the lower tier's 80 is greater.
    const Config c = Parsed({Vps{0, {0, 0, 1, 0x70000000, 7, 90}}.Nal(),
                             SpsOf(0, 1, {0, 1, 3, 0x60000000, 6, 60}).Nal(),
                             SpsOf(0, 1, {0, 0, 2, 0x38000000, 4, 80}).Nal()});
    EXPECT_EQ(c.general_level_idc, 80);
    EXPECT_EQ(c.general_tier_flag, 1);
    EXPECT_EQ(c.general_profile_idc, 3);
    EXPECT_EQ(c.general_profile_compatibility_flags, 0x20000000u);
    EXPECT_EQ(c.general_constraint_indicator_flags, 4u);
    EXPECT_EQ(c.arrays[1].nalUnits.size(), 2u);
}

// ---- Layers --------------------------------------------------------------------------------

TEST(TheNumberOfLayers, IsTheGreaterOneOfVpsAndSps)
{
    EXPECT_EQ(Parsed({Vps{2, {}}.Nal(), SpsOf(0).Nal()}).numTemporalLayers, 3);
    EXPECT_EQ(Parsed({Vps{0, {}}.Nal(), SpsOf(2).Nal()}).numTemporalLayers, 3);
    EXPECT_EQ(Parsed({Vps{0, {}}.Nal(), SpsOf(0).Nal()}).numTemporalLayers, 1);
    EXPECT_EQ(Parsed({Vps{7, {}}.Nal(), SpsOf(6).Nal()}).numTemporalLayers, 8);
}

TEST(Nesting, IsThatOfTheLastSps)
{
    EXPECT_EQ(Parsed({SpsOf(0, 1).Nal()}).temporalIdNested, 1);
    EXPECT_EQ(Parsed({SpsOf(0, 1).Nal(), SpsOf(0, 0).Nal()}).temporalIdNested, 0);
}

// ---- SPS -----------------------------------------------------------------------------------

// Wherever a stretch ends, the walk has to arrive at the mark in the VUI and end behind it.
TEST_P(SpsStretch, LeadsToTheMark)
{
    const Sps& sps = GetParam().set;
    Config config;
    EXPECT_EQ(End(sps.Bits(), [&](CBitReader& r) { ParseSps(&config, r); }), sps.Bits().Size());
    EXPECT_EQ(config.min_spatial_segmentation_idc, kMark);
    EXPECT_EQ(Parsed({sps.Nal()}).min_spatial_segmentation_idc, kMark);
}

namespace {

const CBits kListByReference = CBits().U(1, 0).Ue(2);

// scaling_list_data( ) with all coefficients.
CBits AllScalingLists()
{
    CBits bits;
    for (int size = 0; size < 4; ++size) {
        const CBits list = Repeated(size == 0 ? 16 : 64, CBits().Se(-7));
        const CBits head = size > 1 ? CBits().U(1, 1).Se(8) : CBits().U(1, 1);
        bits.Add(Repeated(size == 3 ? 2 : 6, CBits(head).Add(list)));
    }
    return bits;
}

// A short-term set of `count` negative pictures behind other ones.
CBits Pictures(std::uint32_t count)
{
    return CBits().U(1, 0).Ue(count).Ue(0).Add(
        Repeated(static_cast<int>(count), CBits().Ue(3).U(1, 1)));
}

Sps WithOrdering(std::uint32_t subLayersMinus1, const CBits& ordering)
{
    Sps sps = SpsOf(subLayersMinus1);
    sps.ordering = ordering;
    return sps;
}

Sps WithLongTerm(std::uint32_t poc, const CBits& longTerm)
{
    Sps sps = With(&Sps::longTerm, longTerm);
    sps.poc = CBits().Ue(poc);
    return sps;
}

const CBits kOrder = CBits().Ue(5).Ue(0).Ue(9);

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Each, SpsStretch,
    testing::Values(
        Stretch<Sps>{"Plain", {}},
        Stretch<Sps>{"Monochrome", With(&Sps::chroma, CBits().Ue(0))},
        Stretch<Sps>{"SeparatePlanes", With(&Sps::chroma, CBits().Ue(3).U(1, 1))},
        Stretch<Sps>{"Window", With(&Sps::window, CBits().U(1, 1).Ue(0).Ue(7).Ue(300).Ue(4))},
        Stretch<Sps>{"OrderingOnce", WithOrdering(2, CBits().U(1, 0).Add(kOrder))},
        Stretch<Sps>{"OrderingOfThree", WithOrdering(2, CBits().U(1, 1).Add(Repeated(3, kOrder)))},
        Stretch<Sps>{"OrderingOfEight", WithOrdering(7, CBits().U(1, 1).Add(Repeated(8, kOrder)))},
        Stretch<Sps>{"DefaultScalingLists", With(&Sps::scaling, CBits().U(1, 1).U(1, 0))},
        Stretch<Sps>{"ScalingListsByReference",
                     With(&Sps::scaling, CBits().U(2, 3).Add(Repeated(20, kListByReference)))},
        Stretch<Sps>{"ScalingLists", With(&Sps::scaling, CBits().U(2, 3).Add(AllScalingLists()))},
        Stretch<Sps>{"Pcm", With(&Sps::pcm, CBits().U(1, 1).U(8, 0x77).Ue(2).Ue(1).U(1, 1))},
        Stretch<Sps>{"ShortTermSet",
                     With(&Sps::shortTerm, CBits().Ue(1).Ue(2).Ue(1).Add(
                                               Repeated(3, CBits().Ue(30).U(1, 1))))},
        Stretch<Sps>{"ThreeShortTermSets",
                     With(&Sps::shortTerm,
                          CBits().Ue(3).Ue(0).Ue(0).Add(Pictures(5)).Add(Pictures(0)))},
        Stretch<Sps>{"LongTermNone", With(&Sps::longTerm, CBits().U(1, 1).Ue(0))},
        Stretch<Sps>{"LongTermOf4Bits",
                     WithLongTerm(0, CBits().U(1, 1).Ue(2).U(4, 9).U(1, 1).U(4, 6).U(1, 0))},
        Stretch<Sps>{"LongTermOf16Bits",
                     WithLongTerm(12, CBits().U(1, 1).Ue(1).U(16, 0x9999).U(1, 1))},
        // 13 plus 4 is more than a picture order count can have.
        Stretch<Sps>{"LongTermOfNoMoreThan16Bits",
                     WithLongTerm(13, CBits().U(1, 1).Ue(1).U(16, 0x9999).U(1, 1))}),
    NameOf<Sps>);

TEST(AnSps, GivesChromaAndDepths)
{
    Sps sps = With(&Sps::depths, CBits().Ue(4).Ue(2));
    sps.chroma = CBits().Ue(2);
    const Config c = Parsed({sps.Nal()});
    EXPECT_EQ(c.chromaFormat, 2);
    EXPECT_EQ(c.bitDepthLumaMinus8, 4);
    EXPECT_EQ(c.bitDepthChromaMinus8, 2);
}

// 259 is kept as 3, but no colour plane flag follows it.
TEST(AnSps, KeepsTheLow8BitsOfAValue)
{
    Sps sps = With(&Sps::depths, CBits().Ue(0x104).Ue(0xF02));
    sps.chroma = CBits().Ue(259);
    const Config c = Parsed({sps.Nal()});
    EXPECT_EQ(c.chromaFormat, 3);
    EXPECT_EQ(c.bitDepthLumaMinus8, 4);
    EXPECT_EQ(c.bitDepthChromaMinus8, 2);
    EXPECT_EQ(c.min_spatial_segmentation_idc, kMark);
}

TEST(ASecondSps, OverwritesChromaAndDepths)
{
    Sps sps = With(&Sps::depths, CBits().Ue(2).Ue(2));
    sps.chroma = CBits().Ue(3).U(1, 0);
    const Config c = Parsed({sps.Nal(), Sps().Nal()});
    EXPECT_EQ(c.chromaFormat, 1);
    EXPECT_EQ(c.bitDepthLumaMinus8, 0);
    EXPECT_EQ(c.bitDepthChromaMinus8, 0);
}

TEST(AnSps, IsReadNoFurtherThanItsVui)
{
    Sps sps = With(&Sps::vui, CBits().U(1, 0));
    EXPECT_EQ(Parsed({sps.Nal() + std::string(20, '\xff')}).min_spatial_segmentation_idc, 4097);
}

// The values before the cut are kept, and the unit stays in its array.
TEST(AnSps, CutOffInTheVuiFailsAsAWhole)
{
    Sps sps = With(&Sps::depths, CBits().Ue(2).Ue(2));
    ASSERT_EQ(Parsed({sps.Nal()}).min_spatial_segmentation_idc, kMark);
    sps.vui = CBits().U(1, 1).U(1, 1).U(4, 0);
    Config config;
    EXPECT_FALSE(Parse(config, Hex("42 01") + sps.Bits().Bare()));
    EXPECT_EQ(config.chromaFormat, 1);
    EXPECT_EQ(config.bitDepthLumaMinus8, 2);
    EXPECT_EQ(config.general_level_idc, 93);
    EXPECT_EQ(config.arrays.size(), 1u);
}

TEST(ScalingLists, Have1020BitsWhenAllHaveShortestCoefficients)
{
    CBits bits;
    bits.Add(Repeated(6, CBits().U(1, 1).U(16, 0xFFFF)));                // 17 bits each
    bits.Add(Repeated(6, CBits().U(1, 1).U(32, ~0u).U(32, ~0u)));        // 65
    bits.Add(Repeated(8, CBits().U(2, 3).U(32, ~0u).U(32, ~0u)));        // 66
    EXPECT_EQ(End(bits, SkipScalingListData), 1020u);
    EXPECT_EQ(End(Repeated(20, CBits().U(1, 0).Ue(0)), SkipScalingListData), 40u);
}

TEST(AnSps, MayHave64ShortTermSetsButNot65)
{
    const auto sets = [](std::uint32_t count) {
        return CBits().Ue(count).Ue(0).Ue(0).Add(
            Repeated(static_cast<int>(count) - 1, Pictures(0)));
    };
    EXPECT_EQ(Parsed({With(&Sps::shortTerm, sets(64)).Nal()}).min_spatial_segmentation_idc, kMark);
    Config config;
    EXPECT_FALSE(Parse(config, With(&Sps::shortTerm, sets(65)).Nal()));
    EXPECT_EQ(SpsReason(With(&Sps::shortTerm, sets(65))), 283);
}

TEST(AnSps, MayHave31LongTermPicturesButNot32)
{
    const auto pictures = [](std::uint32_t count) {
        return CBits().U(1, 1).Ue(count).Add(
            Repeated(static_cast<int>(count), CBits().U(8, 0).U(1, 1)));
    };
    EXPECT_EQ(SpsReason(With(&Sps::longTerm, pictures(31))), 0);
    EXPECT_EQ(SpsReason(With(&Sps::longTerm, pictures(32))), 293);
    Config config;
    EXPECT_FALSE(Parse(config, With(&Sps::longTerm, pictures(32)).Nal()));
}

TEST(Counts, AreTakenByTheirLow32Bits)
{
    EXPECT_EQ(Parsed({With(&Sps::shortTerm, kWide).Nal()}).min_spatial_segmentation_idc, kMark);
    const CBits longTerm = CBits().U(1, 1).Add(kWide);
    EXPECT_EQ(Parsed({With(&Sps::longTerm, longTerm).Nal()}).min_spatial_segmentation_idc, kMark);
}

TEST(AnSps, WithACodeOf64ZerosRaises28)
{
    const CBits zeros63 = CBits().U(32, 0).U(31, 0);
    const CBits rest = CBits().U(1, 1).U(32, 0).U(31, 0);
    EXPECT_EQ(SpsReason(With(&Sps::size, CBits(zeros63).Add(rest).Ue(0))), 0);
    EXPECT_EQ(SpsReason(With(&Sps::size, CBits(zeros63).U(1, 0).Add(rest).Ue(0))), 28);
    Config config;
    EXPECT_FALSE(Parse(config, With(&Sps::size, CBits(zeros63).U(1, 0).Add(rest).Ue(0)).Nal()));
}

// ---- Short-term sets -----------------------------------------------------------------------

namespace {

// The counts after one set behind sets of `before` pictures.
struct ShortTerm {
    std::uint32_t counts[kMaxShortTermSets] = {};
    std::uint64_t end = 0;

    ShortTerm(std::uint32_t before, std::uint32_t index, const CBits& bits)
    {
        counts[0] = before;
        counts[1] = 99;
        end = End(bits, [&](CBitReader& r) { ParseShortTermRefPicSet(r, index, 3, counts); });
    }
};

// inter_ref_pic_set_prediction_flag, delta_rps_sign and an abs_delta_rps_minus1 of 1: 5 bits.
const CBits kPredicted = CBits().U(1, 1).U(1, 0).Ue(1);

}  // namespace

TEST(AShortTermSet, CountsItsNegativeAndPositivePictures)
{
    const CBits bits = CBits().Ue(1).Ue(2).Add(Repeated(3, CBits().Ue(2).U(1, 0)));
    const ShortTerm first(7, 0, bits);  // the first set has no prediction flag
    EXPECT_EQ(first.counts[0], 3u);
    EXPECT_EQ(first.end, 3u + 3 + 3 * 4);
    const ShortTerm second(7, 1, CBits().U(1, 0).Add(bits));
    EXPECT_EQ(second.counts[1], 3u);
    EXPECT_EQ(second.end, 1u + 18);
}

TEST(APredictedSet, BehindAnEmptyOneReadsOneEntry)
{
    const ShortTerm used(0, 1, CBits(kPredicted).U(1, 1));
    EXPECT_EQ(used.counts[1], 1u);
    EXPECT_EQ(used.end, 6u);
    const ShortTerm kept(0, 1, CBits(kPredicted).U(2, 1));
    EXPECT_EQ(kept.counts[1], 1u);
    EXPECT_EQ(kept.end, 7u);
    const ShortTerm dropped(0, 1, CBits(kPredicted).U(2, 0));
    EXPECT_EQ(dropped.counts[1], 0u);
    EXPECT_EQ(dropped.end, 7u);
}

TEST(APredictedSet, ReadsOneEntryMoreThanTheSetBeforeHas)
{
    // Used, dropped, kept, used: 1 00 01 1.
    const ShortTerm set(3, 1, CBits(kPredicted).U(6, 0b100011));
    EXPECT_EQ(set.counts[1], 3u);
    EXPECT_EQ(set.end, 11u);
}

TEST(APredictedSet, IsTheBaseOfTheNext)
{
    // 0 pictures; predicted to 1; predicted to 2, with two entries.
    const CBits sets = CBits().Ue(3).Ue(0).Ue(0).Add(kPredicted).U(1, 1).Add(kPredicted).U(2, 3);
    EXPECT_EQ(Parsed({With(&Sps::shortTerm, sets).Nal()}).min_spatial_segmentation_idc, kMark);
}

TEST(APredictedSet, MustBeOneOfTheCountedSets)
{
    std::uint32_t counts[kMaxShortTermSets] = {};
    const std::string bytes = CBits(kPredicted).U(1, 1).Bytes();
    const auto reason = [&](std::uint32_t index) {
        return Reason(bytes, [&](CBitReader& r) { ParseShortTermRefPicSet(r, index, 3, counts); });
    };
    EXPECT_EQ(reason(2), 0);
    EXPECT_EQ(reason(3), 501);
}

// Each picture takes two bits at least.
TEST(AShortTermSet, MayNotHaveMorePicturesThanTheBitsLeftHold)
{
    std::uint32_t counts[kMaxShortTermSets] = {};
    const auto reason = [&](const CBits& bits) {
        return Reason(bits.Bare(),
                      [&](CBitReader& r) { ParseShortTermRefPicSet(r, 0, 1, counts); });
    };
    const CBits four = CBits().Ue(1).Ue(3);  // 3 + 5 bits
    EXPECT_EQ(reason(CBits(four).U(8, 0xFF)), 0);
    EXPECT_EQ(counts[0], 4u);
    EXPECT_EQ(reason(CBits(four)), 543);
    const CBits five = CBits().Ue(2).Ue(3);  // 3 + 5 bits
    EXPECT_EQ(reason(CBits(five).U(8, 0xFF)), 543);
}

// Two counts of 2^32 - 1 do not wrap.
TEST(AShortTermSet, AddsItsCountsIn64Bits)
{
    const CBits most = CBits().U(32, 0).U(1, 1).U(32, 0xFFFFFFFF);
    EXPECT_EQ(SpsReason(With(&Sps::shortTerm, CBits().Ue(1).Add(most).Ue(0))), 543);
    const CBits half = CBits().U(31, 0).U(1, 1).U(31, 1);  // 2^31
    EXPECT_EQ(SpsReason(With(&Sps::shortTerm, CBits().Ue(1).Add(half).Add(half))), 543);
}

TEST(AShortTermSet, TakesItsCountsByTheirLow32Bits)
{
    for (const CBits& bits : {CBits(kWide).Ue(0), CBits().Ue(0).Add(kWide)}) {
        const ShortTerm set(7, 0, bits);
        EXPECT_EQ(set.counts[0], 0u);
        EXPECT_EQ(set.end, 67u + 1);
    }
}

// ---- VUI -----------------------------------------------------------------------------------

TEST_P(VuiStretch, LeadsToTheMark)
{
    const CBits bits = GetParam().set.Bits();
    Config config;
    EXPECT_EQ(End(bits, [&](CBitReader& r) { ParseVui(&config, r, 0); }), bits.Size());
    EXPECT_EQ(config.min_spatial_segmentation_idc, kMark);
}

namespace {

const CBits kTicks = CBits().U(1, 1).U(32, 1001).U(32, 60000);

// hrd_parameters( ) of one layer without NAL and VCL parts: a rate within the sequence, one buffer.
const CBits kSmallHrd = CBits().U(2, 0).U(2, 1).Ue(0).Ue(0);

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Each, VuiStretch,
    testing::Values(
        Stretch<Vui>{"Plain", {}},
        Stretch<Vui>{"AspectByNumber", With(&Vui::aspect, CBits().U(1, 1).U(8, 254))},
        Stretch<Vui>{"AspectBySize",
                     With(&Vui::aspect, CBits().U(1, 1).U(8, 255).U(16, 40).U(16, 33))},
        Stretch<Vui>{"Overscan", With(&Vui::overscan, CBits().U(1, 1).U(1, 1))},
        Stretch<Vui>{"Signal", With(&Vui::signal, CBits().U(1, 1).U(4, 0xB).U(1, 0))},
        Stretch<Vui>{"Colours",
                     With(&Vui::signal, CBits().U(1, 1).U(4, 0xA).U(1, 1).U(24, 0x090109))},
        Stretch<Vui>{"ChromaLocation", With(&Vui::chromaLocation, CBits().U(1, 1).Ue(2).Ue(3))},
        Stretch<Vui>{"Window", With(&Vui::window, CBits().U(1, 1).Ue(0).Ue(9).Ue(100).Ue(1))},
        Stretch<Vui>{"Timing", With(&Vui::timing, CBits(kTicks).U(1, 0).U(1, 0))},
        Stretch<Vui>{"TimingByPictures", With(&Vui::timing, CBits(kTicks).U(1, 1).Ue(77).U(1, 0))},
        Stretch<Vui>{"Hrd", With(&Vui::timing, CBits(kTicks).U(1, 0).U(1, 1).Add(kSmallHrd))}),
    NameOf<Vui>);

TEST(AVui, WithoutARestrictionEndsBehindItsFlag)
{
    const CBits bits = With(&Vui::restriction, CBits().U(1, 0)).Bits();
    Config config;
    EXPECT_EQ(End(bits, [&](CBitReader& r) { ParseVui(&config, r, 0); }), 10u);
    EXPECT_EQ(config.min_spatial_segmentation_idc, 4097);
}

TEST(TheRestriction, IsTheLeastOfAllSps)
{
    const auto least = [](std::uint32_t first, std::uint32_t second) {
        Config config;
        for (const std::uint32_t value : {first, second}) {
            const CBits bits = With(&Vui::restriction, Restriction(value)).Bits();
            End(bits, [&](CBitReader& r) { ParseVui(&config, r, 0); });
        }
        return config.min_spatial_segmentation_idc;
    };
    EXPECT_EQ(least(100, 200), 100);
    EXPECT_EQ(least(200, 100), 100);
    EXPECT_EQ(least(4096, 70000), 4096);   // compared as 32 bits, not as 16
    EXPECT_EQ(least(4097, 65536), 4097);
    EXPECT_EQ(least(5, 0), 0);
}

TEST(TheRestriction, IsComparedByItsLow32Bits)
{
    const CBits restriction = CBits().U(1, 1).U(3, 0).Add(kWide).Ue(2).Ue(1).Ue(15).Ue(15);
    const CBits bits = With(&Vui::restriction, restriction).Bits();
    Config config;
    EXPECT_EQ(End(bits, [&](CBitReader& r) { ParseVui(&config, r, 0); }), bits.Size());
    EXPECT_EQ(config.min_spatial_segmentation_idc, 0);
}

TEST(AVui, TakesAllLayersIntoItsHrd)
{
    Vui vui = With(&Vui::timing, CBits(kTicks).U(1, 0).U(1, 1).U(2, 0));
    vui.timing.Add(Repeated(3, CBits().U(2, 1).Ue(9).Ue(0)));
    Config config;
    EXPECT_EQ(End(vui.Bits(), [&](CBitReader& r) { ParseVui(&config, r, 2); }),
              vui.Bits().Size());
    EXPECT_EQ(config.min_spatial_segmentation_idc, kMark);
}

// ---- HRD -----------------------------------------------------------------------------------

namespace {

std::uint64_t HrdEnd(const CBits& bits, std::uint32_t subLayersMinus1 = 0, bool common = true)
{
    return End(bits, [=](CBitReader& r) { ParseHrd(r, common, subLayersMinus1); });
}

// The common part with NAL or VCL parameters, without and with those of sub-pictures.
CBits Common(std::uint32_t nal, std::uint32_t vcl)
{
    return CBits().U(1, nal).U(1, vcl).U(1, 0).U(23, 0);
}
CBits CommonOfSubPictures(std::uint32_t nal, std::uint32_t vcl)
{
    return CBits().U(1, nal).U(1, vcl).U(1, 1).U(19, 0).U(8, 0).U(4, 0).U(15, 0);
}

// A layer with a fixed rate within the sequence and so many buffers.
CBits Layer(std::uint32_t buffersMinus1) { return CBits().U(2, 1).Ue(0).Ue(buffersMinus1); }

const CBits kBuffer = CBits().Ue(3).Ue(5).U(1, 1);                     // 5 + 5 + 1 bits
const CBits kSubPictureBuffer = CBits().Ue(3).Ue(5).Ue(1).Ue(2).U(1, 0);  // 17 bits

}  // namespace

TEST(AnHrd, WithoutNalAndVclHasOnlyItsLayers)
{
    EXPECT_EQ(HrdEnd(CBits().U(2, 0).Add(Layer(0))), 2u + 4);
    EXPECT_EQ(HrdEnd(CBits().U(2, 0).Add(Layer(3)).Add(Layer(0)), 1), 2u + 8 + 4);
}

TEST(AnHrd, WithoutCommonInformationBeginsWithItsLayers)
{
    EXPECT_EQ(HrdEnd(Layer(0), 0, false), 4u);
}

TEST(AnHrd, OfNalOrVclHasItsBuffers)
{
    EXPECT_EQ(HrdEnd(Common(1, 0).Add(Layer(0)).Add(kBuffer)), 26u + 4 + 11);
    EXPECT_EQ(HrdEnd(Common(0, 1).Add(Layer(0)).Add(kBuffer)), 26u + 4 + 11);
    // Two buffers of each kind.
    EXPECT_EQ(HrdEnd(Common(1, 1).Add(Layer(1)).Add(Repeated(4, kBuffer))), 26u + 6 + 44);
}

TEST(AnHrd, OfSubPicturesHasLongerBuffers)
{
    EXPECT_EQ(HrdEnd(CommonOfSubPictures(1, 0).Add(Layer(0)).Add(kSubPictureBuffer)),
              49u + 4 + 17);
    EXPECT_EQ(HrdEnd(CommonOfSubPictures(1, 1).Add(Layer(1)).Add(Repeated(4, kSubPictureBuffer))),
              49u + 6 + 68);
}

TEST(AnHrd, OfSeveralLayersCountsTheBuffersOfEach)
{
    CBits bits = Common(1, 0);
    bits.Add(Layer(2)).Add(Repeated(3, kBuffer));
    bits.Add(Layer(0)).Add(kBuffer);
    EXPECT_EQ(HrdEnd(bits, 1), 26u + 6 + 33 + 4 + 11);
}

// No rate is fixed, and the delay is low: one buffer, and no count of them.
TEST(AnHrd, OfLowDelayHasNoCount)
{
    EXPECT_EQ(HrdEnd(Common(1, 0).U(3, 0b001).Add(kBuffer)), 26u + 3 + 11);
}

TEST(AnHrd, OfNoFixedRateAndNoLowDelayHasACount)
{
    EXPECT_EQ(HrdEnd(Common(1, 0).U(3, 0b000).Ue(1).Add(Repeated(2, kBuffer))), 26u + 3 + 3 + 22);
}

// A general fixed rate is followed by low_delay_hrd_flag here, not by an elemental duration.
TEST(AnHrd, OfAFixedRateIsReadOutOfStep)
{
    EXPECT_EQ(HrdEnd(Common(1, 0).U(2, 0b11).Add(kBuffer)), 26u + 2 + 11);
    EXPECT_EQ(HrdEnd(Common(1, 0).U(2, 0b10).Ue(1).Add(Repeated(2, kBuffer))), 26u + 2 + 3 + 22);
}

TEST(AnHrd, MayHave32BuffersButNot33)
{
    const auto reason = [](std::uint32_t buffersMinus1) {
        CBits bits = Common(1, 0).Add(Layer(buffersMinus1)).Add(Repeated(33, kBuffer));
        return Reason(bits.Bytes(), [](CBitReader& r) { ParseHrd(r, true, 0); });
    };
    EXPECT_EQ(reason(31), 0);
    EXPECT_EQ(reason(32), 703);
}

TEST(AnHrd, CountsItsBuffersByTheLow32Bits)
{
    const CBits layer = CBits().U(2, 1).Ue(0).Add(kWide);
    EXPECT_EQ(HrdEnd(Common(1, 0).Add(layer).Add(kBuffer)), 26u + 3 + 67 + 11);
}

TEST(AnHrd, OfTooManyBuffersFailsItsSps)
{
    const auto sps = [](std::uint32_t buffersMinus1) {
        const CBits hrd = CBits().U(2, 0).Add(Layer(buffersMinus1));
        const Vui vui = With(&Vui::timing, CBits(kTicks).U(1, 0).U(1, 1).Add(hrd));
        return With(&Sps::vui, CBits().U(1, 1).Add(vui.Bits()));
    };
    EXPECT_EQ(Parsed({sps(31).Nal()}).min_spatial_segmentation_idc, kMark);
    Config config;
    EXPECT_FALSE(Parse(config, sps(32).Nal()));
    EXPECT_EQ(SpsReason(sps(32)), 703);
}

// ---- PPS -----------------------------------------------------------------------------------

TEST(APps, TellsTheTypeOfParallelism)
{
    const auto type = [](std::uint32_t tiles, std::uint32_t wavefront) {
        return Parsed({Pps{tiles, wavefront}.Nal()}).parallelismType;
    };
    EXPECT_EQ(type(0, 0), 1);  // slices
    EXPECT_EQ(type(1, 0), 2);  // tiles
    EXPECT_EQ(type(0, 1), 3);  // wavefront
    EXPECT_EQ(type(1, 1), 0);  // mixed
}

TEST(APps, AssignsTheTypeAnew)
{
    EXPECT_EQ(Parsed({Pps{0, 1}.Nal(), Pps{1, 0}.Nal()}).parallelismType, 2);
    EXPECT_EQ(Parsed({Pps{1, 0}.Nal(), Pps{1, 1}.Nal()}).parallelismType, 0);
}

TEST(APps, HasADepthOfQuantizationWhenItsFlagIsSet)
{
    const Pps pps{1, 0, CBits().U(1, 1).Ue(3)};
    Config config;
    EXPECT_EQ(End(pps.Bits(), [&](CBitReader& r) { ParsePps(&config, r); }), pps.Bits().Size());
    EXPECT_EQ(config.parallelismType, 2);
}

// 5 + 1 + 7 + 3 + 3 + 5 + 2 + 1 + 7 + 7 + 4 + 2 bits.
TEST(APps, IsReadNoFurtherThanItsTwoFlags)
{
    Config config;
    EXPECT_EQ(End(Pps{0, 1}.Bits(), [&](CBitReader& r) { ParsePps(&config, r); }), 47u);
    EXPECT_EQ(config.parallelismType, 3);
}

TEST(APps, MayEndRightBehindItsLastFlag)
{
    const Pps pps{1, 1, CBits().U(1, 1).Ue(0)};
    ASSERT_EQ(pps.Bits().Size(), 48u);
    const std::string nal = Hex("44 01") + pps.Bits().Bare();
    EXPECT_EQ(Parsed({nal}).parallelismType, 0);
    Config config;
    EXPECT_FALSE(Parse(config, nal.substr(0, 7)));
}

// The bit behind the end is read as 0.
TEST(APps, MayEndRightBeforeItsLastFlag)
{
    const Pps pps{1, 1, CBits().U(1, 0), 7};
    ASSERT_EQ(pps.Bits().Size(), 49u);
    const std::string nal = Hex("44 01") + pps.Bits().Bare();
    EXPECT_EQ(Parsed({nal}).parallelismType, 0);
    EXPECT_EQ(Parsed({nal.substr(0, 8)}).parallelismType, 2);
}

TEST(APps, MayNotEndBeforeBothFlags)
{
    const Pps pps{1, 1, CBits().U(1, 1).Ue(1)};
    ASSERT_EQ(pps.Bits().Size(), 50u);
    const std::string nal = Hex("44 01") + pps.Bits().Bare();
    Config config;
    EXPECT_TRUE(Parse(config, nal));
    EXPECT_FALSE(Parse(config, nal.substr(0, 8)));
}

TEST(APps, WithACodeOf64ZerosRaises28)
{
    const CBits bits = CBits().U(32, 0).U(32, 0).U(1, 1).Add(Pps().Bits());
    Config config;
    EXPECT_EQ(Reason(bits.Bytes(), [&](CBitReader& r) { ParsePps(&config, r); }), 28);
}

// ---- The end of the merge ------------------------------------------------------------------

TEST(FinishConfig, TakesAnUnsetRestrictionAsZero)
{
    const auto finished = [](std::uint16_t minSpatial) {
        Config config;
        config.min_spatial_segmentation_idc = minSpatial;
        config.parallelismType = 2;
        FinishConfig(&config);
        FinishConfig(&config);  // safe to repeat
        return std::make_pair(int{config.min_spatial_segmentation_idc},
                              int{config.parallelismType});
    };
    EXPECT_EQ(finished(4096), std::make_pair(4096, 2));
    EXPECT_EQ(finished(4097), std::make_pair(0, 0));
    EXPECT_EQ(finished(0xFFFF), std::make_pair(0, 0));
    EXPECT_EQ(finished(1), std::make_pair(1, 2));
    EXPECT_EQ(finished(0), std::make_pair(0, 0));
}

// A format of 5 and depths of 9 and 16 run over into the bits beside them.
TEST(TheBox, JoinsChromaAndDepthsWithoutMasks)
{
    Sps sps = With(&Sps::depths, CBits().Ue(9).Ue(16));
    sps.chroma = CBits().Ue(5);
    On<CMp4HvccAtom> hvcc;
    hvcc.box.SetCodecData(Record(MP4_VIDEO_HEVC, Vps().Nal(), sps.Nal(), Pps().Nal()));
    EXPECT_BYTES(hvcc.Written().substr(24, 3), Hex("fd f9 f8"));
}

// ---- Damage --------------------------------------------------------------------------------

// A set is filed when its header is sound; a walk reads nothing behind its end but one zero bit.
TEST(ACutSet, FailsAtEveryLengthThatLacksAField)
{
    const auto shortest = [](const std::string& nal) {
        std::size_t size = nal.size();
        for (; size > 0; --size) {
            const auto exact = std::make_unique<std::uint8_t[]>(size);  // guarded by sanitizers
            std::memcpy(exact.get(), nal.data(), size);
            Config config;
            if (!ParseHevcNal(&config, exact.get(), static_cast<std::int32_t>(size)))
                break;
        }
        return size + 1;
    };
    EXPECT_EQ(shortest(Hex("40 01") + Vps().Bits().Bytes()), 18u);
    EXPECT_EQ(shortest(Hex("42 01") + Sps().Bits().Bytes()), 2 + (Sps().Bits().Size() + 7) / 8);
    EXPECT_EQ(shortest(Hex("44 01") + Pps().Bits().Bytes()), 8u);
}

TEST(RandomSets, RaiseNothing)
{
    std::uint32_t state = 1;
    const auto next = [&state] { return state = state * 1664525 + 1013904223, state >> 24; };
    int good = 0;
    for (int n = 0; n < 60000; ++n) {
        const std::size_t size = 2 + next() % 60;
        const auto nal = std::make_unique<std::uint8_t[]>(size);
        for (std::size_t i = 0; i < size; ++i)
            nal[i] = static_cast<std::uint8_t>(next() & next());
        nal[0] = static_cast<std::uint8_t>((32 + n % 3) << 1);
        Config config;
        EXPECT_NO_THROW(good += ParseHevcNal(&config, nal.get(), static_cast<int>(size)));
        ASSERT_EQ(config.arrays.size(), 1u);
    }
    EXPECT_GT(good, 10000);
    EXPECT_LT(good, 50000);
}
