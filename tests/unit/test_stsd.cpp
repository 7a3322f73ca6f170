#include "boxes.h"
#include "parameter_sets.h"
#include "stsd.h"

#include <new>

namespace {

const std::string kAvcSps = Hex("67 4d 40 1f 00 00 03 01");
const std::string kAvcPps = Hex("68 ee");
const std::string kAvcc = Hex("0000001d 'avcC' 01 4d401f ff e1 0008 674d401f00000301 01 0002 68ee");

// The integer that a call raises; 0 for none.
template <typename Call>
int Raised(Call call)
{
    try {
        call();
    } catch (int value) {
        return value;
    }
    return 0;
}

struct Avcc : testing::Test, On<CMp4AvccAtom> {
    void Set(const std::string& sps, const std::string& pps)
    {
        box.SetCodecData(Record(MP4_VIDEO_H264, "", sps, pps));
    }
    // What a refused Write prints.
    std::string Refusal()
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Raised([this] { box.Write(); }), 49);
        return testing::internal::GetCapturedStdout();
    }
};

struct Hvcc : testing::Test, On<CMp4HvccAtom> {
    // What SetCodecData prints.
    std::string Set(const std::string& vps, const std::string& sps, const std::string& pps)
    {
        testing::internal::CaptureStdout();
        box.SetCodecData(Record(MP4_VIDEO_HEVC, vps, sps, pps));
        return testing::internal::GetCapturedStdout();
    }
    std::string Refusal()
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Raised([this] { box.Write(); }), 71);
        return testing::internal::GetCapturedStdout();
    }
};

struct VideoEntry : testing::Test, On<CMp4VideoStsdAtom> {
    void SetProRes(std::uint32_t format) { box.SetProRes(&format); }
    std::string Entry() { return Written().substr(16); }
};

struct AudioEntry : testing::Test, On<CMp4AudioStsdAtom> {
    AudioEntry()
    {
        std::memcpy(&box.m_fourcc, "mp4a", 4);
        box.m_sampleRate = 48000;
        for (CMp4EsdsAtom* esds : {&box.m_esds, &box.m_wave.m_esds}) {
            esds->m_esId = 2;
            esds->m_configSize = 2;
            esds->m_config = std::make_unique<std::uint8_t[]>(2);
            esds->m_config[0] = 0x11;
            esds->m_config[1] = 0x90;
        }
    }
};

const std::string kEsds = Hex("00000033 'esds' 00000000 03 80808022 0002 00 04 80808014 40 15"
                              "000000 00000000 00000000 05 80808002 1190 06 80808001 02");

struct ProRes {
    std::uint32_t format;
    const char* type;
    const char* compressor;
    int depth;
};

struct ProResEntry : testing::TestWithParam<ProRes> {};

}  // namespace

// ---- avcC ----------------------------------------------------------------------------------

TEST_F(Avcc, HasThreeBytesOfTheSpsAndBothSets)
{
    Set(kAvcSps, kAvcPps);
    EXPECT_BYTES(Written(), kAvcc);
    EXPECT_EQ(box.GetSize(), 29u);
}

TEST_F(Avcc, ASmallestBoxHas24Bytes)
{
    Set(Hex("67 4d 40 1f"), Hex("68"));
    EXPECT_EQ(Written().size(), 24u);
    EXPECT_EQ(box.GetSize(), 24u);
}

TEST_F(Avcc, AHighProfileHasNoExtension)
{
    Set(Hex("67 64 00 28"), Hex("68"));
    EXPECT_BYTES(Written(), Hex("00000018 'avcC' 01 640028 ff e1 0004 67640028 01 0001 68"));
}

TEST_F(Avcc, AnSpsOf3BytesIsRefusedWithALine)
{
    Set(Hex("67 4d 40"), Hex("68 01 02 03"));
    EXPECT_EQ(Refusal(), "LibMp4 : Error - Invalid sps(3) or pps(4) size !\n");
    EXPECT_EQ(sink.m_bytes, "");
}

TEST_F(Avcc, WithoutAPpsIsRefused)
{
    Set(kAvcSps, "");
    EXPECT_EQ(Refusal(), "LibMp4 : Error - Invalid sps(8) or pps(0) size !\n");
}

TEST_F(Avcc, NeverSetIsRefused)
{
    EXPECT_EQ(Refusal(), "LibMp4 : Error - Invalid sps(0) or pps(0) size !\n");
    EXPECT_EQ(box.GetSize(), 0u);
}

// Nine bytes wait in memory and reach the sink with the next good box.
TEST_F(Avcc, ARefusedBoxLeavesItsFirstNineBytes)
{
    Refusal();
    Set(kAvcSps, kAvcPps);
    EXPECT_BYTES(Written(), Hex("00000008 'avcC' 01") + kAvcc);
}

TEST_F(Avcc, ALengthWithoutAnAddressStoresNothing)
{
    mp4_video_track_info info = Record(MP4_VIDEO_H264, "", "", kAvcPps);
    info.sps_size = 8;
    box.SetCodecData(info);
    EXPECT_EQ(box.m_spsSize, 0);
    EXPECT_EQ(Refusal(), "LibMp4 : Error - Invalid sps(0) or pps(2) size !\n");
}

TEST_F(Avcc, AnAddressWithoutALengthIsAnEmptySet)
{
    mp4_video_track_info info = Record(MP4_VIDEO_H264, "", kAvcSps, kAvcPps);
    info.pps_size = 0;
    box.SetCodecData(info);
    EXPECT_NE(box.m_pps, nullptr);
    EXPECT_EQ(Refusal(), "LibMp4 : Error - Invalid sps(8) or pps(0) size !\n");
}

// Whatever the bytes are: two units in one buffer are one set.
TEST_F(Avcc, ASetIsCopiedWithoutALookInside)
{
    Set(Hex("67 01 02 03  00 00 01 67 04 05 06"), Hex("00"));
    EXPECT_BYTES(Written(), Hex("0000001f 'avcC' 01 010203 ff e1 000b 67010203000001 67040506"
                                "01 0001 00"));
}

TEST_F(Avcc, ANegativeLengthFailsInTheAllocator)
{
    mp4_video_track_info info = Record(MP4_VIDEO_H264, "", kAvcSps, kAvcPps);
    info.sps_size = -32768;
    EXPECT_THROW(box.SetCodecData(info), std::bad_alloc);
}

TEST_F(Avcc, KeepsCopiesOfItsOwn)
{
    std::string sps = kAvcSps;
    Set(sps, kAvcPps);
    sps.assign(sps.size(), 'x');
    EXPECT_BYTES(Written(), kAvcc);
}

TEST_F(Avcc, ASecondRecordReplacesTheFirst)
{
    Set(Hex("67 64 00 28 11 22 33 44 55"), Hex("68 01 02 03"));
    Set(kAvcSps, kAvcPps);
    EXPECT_BYTES(Written(), kAvcc);
    EXPECT_BYTES(Written(), kAvcc);
}

// ---- hvcC ----------------------------------------------------------------------------------

TEST_F(Hvcc, HasTheMergedRecordAndThreeArrays)
{
    const std::string vps = HevcVps(), sps = HevcSps(), pps = HevcPps();
    EXPECT_EQ(Set(vps, sps, pps), "");
    const std::string bytes = Written();
    EXPECT_BYTES(bytes.substr(4, 27), Hex("'hvcC' 01 01 60000000 900000000000 5d f000 fc fd f8 f8"
                                          "0000 0f 03"));
    const auto array = [](const std::string& type, const std::string& unit) {
        return Hex(type + "0001 00") + static_cast<char>(unit.size()) + unit;
    };
    EXPECT_BYTES(bytes.substr(31), array("20", vps) + array("21", sps) + array("22", pps));
    EXPECT_EQ(U32At(bytes, 0), bytes.size());
    EXPECT_EQ(box.GetSize(), bytes.size());
}

TEST_F(Hvcc, WithoutARestrictionThereIsNoParallelism)
{
    Set(HevcVps(), HevcSps(), HevcPps(true, false));
    EXPECT_BYTES(Written().substr(21, 3), Hex("f000 fc"));
}

TEST_F(Hvcc, ARestrictionOfZeroMeansNoParallelismEither)
{
    Set(HevcVps(), HevcSps(0), HevcPps(true, false));
    EXPECT_BYTES(Written().substr(21, 3), Hex("f000 fc"));
}

TEST_F(Hvcc, ARestrictionBringsTheTypeOfParallelism)
{
    const char* expected[] = {"f004 fd", "f004 fe", "f004 ff", "f004 fc"};
    for (int i = 0; i < 4; ++i) {
        Set(HevcVps(), HevcSps(4), HevcPps(i & 1, i & 2));
        EXPECT_BYTES(Written().substr(21, 3), Hex(expected[i]));
    }
}

// The VPS's level 93 stands, as the tiers are equal; the flags are joined.
TEST_F(Hvcc, VpsAndSpsAreMerged)
{
    Set(HevcVps(), HevcSps(-1, Hex("02 20 00 00 03 00 80 00 00 03 00 00 03 00 5a")), HevcPps());
    EXPECT_BYTES(Written().substr(9, 12), Hex("02 20000000 800000000000 5d"));
}

TEST_F(Hvcc, AHigherTierBringsItsOwnLevel)
{
    Set(HevcVps(), HevcSps(-1, Hex("21 60 00 00 03 00 90 00 00 03 00 00 03 00 5a")), HevcPps());
    EXPECT_BYTES(Written().substr(9, 12), Hex("21 60000000 900000000000 5a"));
}

// Profile space 3, high tier, profile 4; 4:4:4 with 10 bits of luma and 12 of chroma; 3 layers in
// a nest.
TEST_F(Hvcc, EveryFieldHasItsBits)
{
    Set(HevcVps(), HevcSps(), HevcPps());
    HEVCDecoderConfigurationRecord& c = *box.m_config;
    c.general_profile_space = 3;
    c.general_tier_flag = 1;
    c.general_profile_idc = 4;
    c.general_profile_compatibility_flags = 0x01020304;
    c.general_constraint_indicator_flags = 0x05060708090A;
    c.general_level_idc = 186;
    c.min_spatial_segmentation_idc = 0xABC;
    c.parallelismType = 2;
    c.chromaFormat = 3;
    c.bitDepthLumaMinus8 = 2;
    c.bitDepthChromaMinus8 = 4;
    c.avgFrameRate = 0x1234;
    c.constantFrameRate = 1;
    c.numTemporalLayers = 3;
    c.temporalIdNested = 1;
    EXPECT_BYTES(Written().substr(8, 23), Hex("01 e4 01020304 05060708090a ba fabc fe ff fa fc"
                                              "1234 5f 03"));
}

// 4096 has a bit in common with the four ones before it.
TEST_F(Hvcc, TheGreatestRestrictionIsStillOne)
{
    Set(HevcVps(), HevcSps(4096), HevcPps(true, false));
    EXPECT_BYTES(Written().substr(21, 3), Hex("f000 fe"));
}

TEST_F(Hvcc, TwoUnitsOfOneTypeShareAnArray)
{
    const std::string sps = HevcSps(), pps = HevcPps();
    EXPECT_EQ(Set(pps, sps, pps), "");
    const std::string unit = Hex("0005") + pps;
    ASSERT_EQ(pps.size(), 5u);
    const std::string first = Hex("02 22 0002") + unit + unit + Hex("21 0001");
    const std::string bytes = Written();
    EXPECT_BYTES(bytes.substr(30, first.size()), first);
    EXPECT_EQ(box.GetSize(), 31 + 3 + 2 * 7 + 3 + 2 + sps.size());
    EXPECT_EQ(bytes.size(), box.GetSize());
}

TEST_F(Hvcc, AUnitIsWrittenAsInTheStream)
{
    Set(HevcVps(), HevcSps(), HevcPps());
    EXPECT_NE(Written().find(Hex("01 60 00 00 03 00 90 00 00 03 00 00 03 00 5d")),
              std::string::npos);
}

TEST_F(Hvcc, ALengthWithoutAnAddressStoresNothing)
{
    const std::string vps = HevcVps(), sps = HevcSps(), pps = HevcPps();
    mp4_video_track_info info = Record(MP4_VIDEO_HEVC, vps, sps, pps);
    info.sps = nullptr;
    box.SetCodecData(info);
    EXPECT_EQ(box.m_config->arrays.size(), 2u);
    EXPECT_EQ(Refusal(), "LibMp4 : Error - NULL hevc head !\n");
}

TEST_F(Hvcc, AnAddressWithoutALengthDoesNotParse)
{
    const std::string vps = HevcVps(), sps = HevcSps(), pps = HevcPps();
    mp4_video_track_info info = Record(MP4_VIDEO_HEVC, vps, sps, pps);
    info.sps_size = 0;
    testing::internal::CaptureStdout();
    box.SetCodecData(info);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "LibMp4 : Error - Parse hevc sps fail !\n");
    EXPECT_EQ(box.m_config->arrays.size(), 2u);
}

TEST_F(Hvcc, EightTemporalLayersRunOverIntoTheFrameRate)
{
    Set(HevcVps(), HevcSps(), HevcPps());
    box.m_config->numTemporalLayers = 8;
    EXPECT_BYTES(Written().substr(29, 1), Hex("47"));  // 0x40 | 4 | 3
}

TEST_F(Hvcc, TwoWritesAreAlike)
{
    Set(HevcVps(), HevcSps(4), HevcPps(true, true));
    EXPECT_EQ(Written(), Written());
}

TEST_F(Hvcc, EachRecordStartsAfresh)
{
    Set(HevcVps(), HevcSps(4), HevcPps());
    Set(HevcVps(), HevcSps(), HevcPps());
    EXPECT_BYTES(Written().substr(21, 2), Hex("f000"));
    EXPECT_EQ(box.m_config->arrays.size(), 3u);
}

TEST_F(Hvcc, NeverSetIsRefusedAndLeavesNothingBehind)
{
    EXPECT_EQ(Refusal(), "LibMp4 : Error - NULL hevc head !\n");
    Set(HevcVps(), HevcSps(), HevcPps());
    EXPECT_EQ(Written().size(), box.GetSize());
}

TEST_F(Hvcc, AnyMissingSetIsRefused)
{
    const std::string sets[3] = {HevcVps(), HevcSps(), HevcPps()};
    for (int missing = 0; missing < 3; ++missing) {
        const auto set = [&](int i) { return i == missing ? std::string() : sets[i]; };
        EXPECT_EQ(Set(set(0), set(1), set(2)), "");
        EXPECT_EQ(Refusal(), "LibMp4 : Error - NULL hevc head !\n");
    }
}

TEST_F(Hvcc, AOneByteVpsGetsNoArray)
{
    EXPECT_EQ(Set(Hex("40"), HevcSps(), HevcPps()), "LibMp4 : Error - Parse hevc vps fail !\n");
    EXPECT_EQ(box.m_config->arrays.size(), 2u);
    EXPECT_EQ(Refusal(), "LibMp4 : Error - NULL hevc head !\n");
}

TEST_F(Hvcc, ASetThatIsCutOffKeepsItsCopyAndItsArray)
{
    EXPECT_EQ(Set(HevcVps(), HevcSps().substr(0, 20), HevcPps()),
              "LibMp4 : Error - Parse hevc sps fail !\n");
    EXPECT_EQ(box.m_spsSize, 0);
    EXPECT_NE(box.m_sps, nullptr);
    EXPECT_EQ(box.m_config->arrays.size(), 3u);
    EXPECT_EQ(box.GetSize(), 31 + 3 * 5 + HevcVps().size() + 20 + HevcPps().size());
}

TEST_F(Hvcc, APpsThatIsCutOffIsReported)
{
    EXPECT_EQ(Set(HevcVps(), HevcSps(), Hex("44 01 c0")),
              "LibMp4 : Error - Parse hevc pps fail !\n");
}

TEST_F(Hvcc, AnotherTypeInASlotHasAnArrayOfItsOwn)
{
    EXPECT_EQ(Set(Hex("4e 01 05"), HevcSps(), HevcPps()), "");
    const std::string bytes = Written();
    EXPECT_BYTES(bytes.substr(30, 9), Hex("03 27 0001 0003 4e0105"));
}

TEST_F(Hvcc, ANegativeLengthFailsInTheAllocator)
{
    const std::string vps = HevcVps(), sps = HevcSps(), pps = HevcPps();
    mp4_video_track_info info = Record(MP4_VIDEO_HEVC, vps, sps, pps);
    info.pps_size = -1;
    EXPECT_THROW(box.SetCodecData(info), std::bad_alloc);
}

// ---- Video entries -------------------------------------------------------------------------

TEST_F(VideoEntry, OfH264)
{
    std::memcpy(&box.m_fourcc, "avc1", 4);
    box.m_width = 1920;
    box.m_height = 1080;
    box.m_avcc.SetCodecData(Record(MP4_VIDEO_H264, "", kAvcSps, kAvcPps));
    EXPECT_BYTES(Written(), Hex("00000083 'stsd' 00000000 00000001 00000073 'avc1' 000000000000"
                                "0001 0000 0000 00000000 00000000 00000000 0780 0438"
                                "00480000 00480000"
                                "00000000 0001") + Zeros(32) + Hex("0018 ffff") + kAvcc);
    EXPECT_EQ(box.GetSize(), 131u);
}

TEST_F(VideoEntry, OfHevcEndsWithHvcc)
{
    std::memcpy(&box.m_fourcc, "hev1", 4);
    const std::string vps = HevcVps(), sps = HevcSps(), pps = HevcPps();
    box.m_hvcc.SetCodecData(Record(MP4_VIDEO_HEVC, vps, sps, pps));
    EXPECT_EQ(Tree(Entry().substr(86)), "hvcC");
    EXPECT_EQ(box.GetSize(), Written().size());
}

TEST_F(VideoEntry, SizesOfPicturesAreCutTo16Bits)
{
    box.m_width = 0x10005;
    box.m_height = 0x20006;
    EXPECT_BYTES(Entry().substr(32, 4), Hex("0005 0006"));
}

TEST_F(VideoEntry, OfAnUnsetTrackHasNoTypeAndNoConfiguration)
{
    EXPECT_BYTES(Entry().substr(0, 8), Hex("00000056 00000000"));
    EXPECT_EQ(box.GetSize(), 102u);
}

TEST_P(ProResEntry, HasATypeANameAndADepth)
{
    const ProRes& row = GetParam();
    On<CMp4VideoStsdAtom> on;
    on.box.SetProRes(&row.format);
    const std::string entry = on.Written().substr(16);
    const std::string name = row.compressor;
    EXPECT_EQ(entry.size(), 112u);
    EXPECT_BYTES(entry.substr(4, 4), row.type);
    EXPECT_BYTES(entry.substr(20, 4), "appl");
    EXPECT_BYTES(entry.substr(50, 32),
                 static_cast<char>(name.size()) + name + Zeros(31 - name.size()));
    EXPECT_EQ(entry[83], row.depth);
    EXPECT_BYTES(entry.substr(86), Hex("0000000a 'fiel' 01 00 00000010 'pasp' 00000001 00000001"));
    EXPECT_EQ(on.box.GetSize(), 102u);
}

INSTANTIATE_TEST_SUITE_P(Formats, ProResEntry,
                         testing::Values(ProRes{0, "apco", "Apple ProRes 422 Proxy", 24},
                                         ProRes{1, "apcs", "Apple ProRes 422 LT", 24},
                                         ProRes{2, "apcn", "Apple ProRes 422", 24},
                                         ProRes{3, "apch", "Apple ProRes 422 HQ", 24},
                                         ProRes{4, "ap4h", "Apple ProRes 4444", 32},
                                         ProRes{5, "ap4x", "Apple ProRes 4444 XQ", 32}));

TEST_F(VideoEntry, OfAnInvalidProResFormatHasNoType)
{
    CLogLines log;
    SetProRes(6);
    EXPECT_EQ(log.Text(), "error invalid prores format 6\n");
    const std::string entry = Entry();
    EXPECT_EQ(entry.size(), 112u);
    EXPECT_BYTES(entry.substr(4, 4), Zeros(4));
    EXPECT_BYTES(entry.substr(50, 34), Zeros(32) + Hex("0018"));
}

TEST_F(VideoEntry, AnInvalidFormatLeavesAnEarlierOneInForce)
{
    SetProRes(4);
    CLogLines log;
    SetProRes(0xFFFFFFFF);
    EXPECT_EQ(log.Text(), "error invalid prores format 4294967295\n");
    const std::string entry = Entry();
    EXPECT_BYTES(entry.substr(4, 4), "ap4h");
    EXPECT_BYTES(entry.substr(50, 34), Hex("11 'Apple ProRes 4444'") + Zeros(14) + Hex("0020"));
}

// The family stays ProRes, so that the rest of the entry does, with the configuration behind it.
TEST_F(VideoEntry, OfH264BehindProResMixesBoth)
{
    SetProRes(4);
    std::memcpy(&box.m_fourcc, "avc1", 4);
    box.m_avcc.SetCodecData(Record(MP4_VIDEO_H264, "", kAvcSps, kAvcPps));
    const std::string entry = Entry();
    EXPECT_BYTES(entry.substr(4, 4), "avc1");
    EXPECT_BYTES(entry.substr(20, 4), "appl");
    EXPECT_BYTES(entry.substr(50, 34), Hex("11 'Apple ProRes 4444'") + Zeros(14) + Hex("0018"));
    EXPECT_EQ(Tree(entry.substr(86)), "fiel pasp avcC");
}

TEST_F(VideoEntry, OfAnInvalidProResFormatBehindH264LosesItsType)
{
    CLogLines log;
    std::memcpy(&box.m_fourcc, "avc1", 4);
    SetProRes(6);
    const std::string entry = Entry();
    EXPECT_EQ(entry.size(), 112u);
    EXPECT_BYTES(entry.substr(4, 4), Zeros(4));
    EXPECT_BYTES(entry.substr(20, 4), "appl");
    EXPECT_EQ(Tree(entry.substr(86)), "fiel pasp");
}

TEST_F(VideoEntry, OfProRes422Has112Bytes)
{
    SetProRes(2);
    box.m_width = 1920;
    box.m_height = 1080;
    EXPECT_BYTES(Entry(), Hex("00000070 'apcn' 000000000000 0001 0000 0000 'appl' 00000000 00000000"
                              "0780 0438 00480000 00480000 00000000 0001 10 'Apple ProRes 422'") +
                              Zeros(15) + Hex("0018 ffff 0000000a 'fiel' 01 00"
                                              "00000010 'pasp' 00000001 00000001"));
}

TEST_F(VideoEntry, ALongCompressorNameIsCutAt31ButNotItsLength)
{
    box.m_compressor = std::string(40, 'x');
    EXPECT_BYTES(Entry().substr(50, 32), Hex("28") + std::string(31, 'x'));
}

TEST_F(VideoEntry, ACompressorNameOf31CharactersFillsItsField)
{
    box.m_compressor = std::string(31, 'x');
    EXPECT_BYTES(Entry().substr(50, 34), Hex("1f") + std::string(31, 'x') + Hex("0018"));
    box.m_compressor = std::string(32, 'x');
    EXPECT_BYTES(Entry().substr(50, 34), Hex("20") + std::string(31, 'x') + Hex("0018"));
}

TEST_F(VideoEntry, TheLengthOfACompressorNameHas8Bits)
{
    box.m_compressor = std::string(300, 'x');
    EXPECT_BYTES(Entry().substr(50, 34), Hex("2c") + std::string(31, 'x') + Hex("0018"));
}

TEST(Fiel, IsWrittenOnlyWhenAsked)
{
    On<CMp4FielAtom> on;
    EXPECT_BYTES(on.Written(), Hex("0000000a 'fiel' 01 00"));
    EXPECT_EQ(on.box.GetSize(), 10u);
}

// ---- Audio entries -------------------------------------------------------------------------

TEST_F(AudioEntry, OfMp4FilesHasEsds)
{
    EXPECT_BYTES(Written(), Hex("00000067 'stsd' 00000000 00000001 00000057 'mp4a' 000000000000"
                                "0001 0000 0000 00000000 0002 0010 0000 0000 bb80 0000") + kEsds);
}

TEST_F(AudioEntry, OfMovFilesHasWave)
{
    box.m_mov = true;
    EXPECT_BYTES(Written(), Hex("0000009f 'stsd' 00000000 00000001 0000008f 'mp4a' 000000000000"
                                "0001 0001 0000 00000000 0002 0010 fffe 0000 bb80 0000"
                                "00000000 00000000 00000000 00000000"
                                "0000005b 'wave' 0000000c 'frmamp4a' 0000000c 'mp4a' 00000000") +
                                kEsds + Hex("00000008 00000000"));
}

TEST_F(AudioEntry, TheSizeIsAConstantInBothForms)
{
    EXPECT_EQ(box.GetSize(), 96u);
    box.m_mov = true;
    EXPECT_EQ(box.GetSize(), 96u);
    EXPECT_EQ(box.m_wave.GetSize(), 44u);
}

TEST_F(AudioEntry, RatesFrom65536OnAreZero)
{
    box.m_sampleRate = 65535;
    EXPECT_BYTES(Written().substr(48, 4), Hex("ffff 0000"));
    box.m_sampleRate = 65536;
    EXPECT_BYTES(Written().substr(48, 4), Hex("0000 0000"));
}

TEST_F(AudioEntry, ANegativeRateKeepsItsLow16Bits)
{
    box.m_sampleRate = -1;
    EXPECT_BYTES(Written().substr(48, 4), Hex("ffff 0000"));
}

TEST_F(AudioEntry, TwoWritesAreAlike)
{
    box.m_mov = true;
    EXPECT_EQ(Written(), Written());
}

TEST_F(AudioEntry, TheEsIdHas16Bits)
{
    box.m_esds.m_esId = 0x10003;
    EXPECT_BYTES(Find(Written().substr(52), "esds").substr(17, 2), Hex("0003"));
}

TEST(Esds, WithoutAConfigurationItHas44Bytes)
{
    On<CMp4EsdsAtom> on;
    EXPECT_BYTES(on.Written(), Hex("0000002c 'esds' 00000000 03 80808022 0000 00 04 80808014 40 15"
                                   "000000 00000000 00000000 06 80808001 02"));
    EXPECT_EQ(on.box.GetSize(), 44u);
}

// The outer lengths are constants, right for two bytes alone.
TEST(Esds, AConfigurationOfFiveBytesChangesOnlyItsOwnLength)
{
    On<CMp4EsdsAtom> on;
    on.box.m_configSize = 5;
    on.box.m_config.reset(new std::uint8_t[5]{1, 2, 3, 4, 5});
    EXPECT_BYTES(on.Written(), Hex("00000036 'esds' 00000000 03 80808022 0000 00 04 80808014 40 15"
                                   "000000 00000000 00000000 05 80808005 0102030405"
                                   "06 80808001 02"));
    EXPECT_EQ(on.box.GetSize(), 54u);
}

TEST_F(AudioEntry, EsdsWithATwoByteConfigurationHas51Bytes)
{
    EXPECT_EQ(box.m_esds.GetSize(), 51u);
}

// ---- Captions and time code ----------------------------------------------------------------

TEST(CaptionEntry, OfBothCodecs)
{
    On<CMp4SubtitleStsdAtom> on;
    on.box.SetCodec(1);
    EXPECT_BYTES(on.Written(), Hex("00000020 'stsd' 00000000 00000001 00000010 'c608'"
                                   "000000000000 0001"));
    on.box.SetCodec(2);
    EXPECT_BYTES(on.Written().substr(20, 4), "c708");
    EXPECT_EQ(on.box.GetSize(), 32u);
}

TEST(CaptionEntry, AnUnknownCodecIsLoggedAndLeavesFourZeroBytes)
{
    CLogLines log;
    On<CMp4SubtitleStsdAtom> on;
    on.box.SetCodec(3);
    EXPECT_EQ(log.Text(), "error unknown subtitle codec 3\n");
    EXPECT_BYTES(on.Written().substr(20, 4), Zeros(4));
}

TEST(CaptionEntry, AnUnknownCodecLeavesAnEarlierOneInForce)
{
    CLogLines log;
    On<CMp4SubtitleStsdAtom> on;
    on.box.SetCodec(2);
    on.box.SetCodec(0);
    EXPECT_BYTES(on.Written().substr(20, 4), "c708");
}

TEST(TimeCodeEntry, BeginsWithTheValuesOfNtsc)
{
    On<CMp4TMCDStsdAutom> on;
    EXPECT_BYTES(on.Written(), Hex("00000034 'stsd' 00000000 00000001 00000024 'tmcd' 000000000000"
                                   "0001 00000000 00000000 00007530 000003e9 00 00 0000"));
    EXPECT_EQ(on.box.GetSize(), 52u);
}

TEST(TimeCodeEntry, ShowsItsFields)
{
    On<CMp4TMCDStsdAutom> on;
    on.box.m_flags = 1;
    on.box.m_timescale = 25;
    on.box.m_frameDuration = 2;
    on.box.m_frames = 30;
    EXPECT_BYTES(on.Written().substr(36), Hex("00000001 00000019 00000002 1e 00 0000"));
}

TEST(TimeCodeEntry, ItsUserDataIsWrittenOnlyWhenAsked)
{
    On<CMp4TMCDUdatAtom> on;
    EXPECT_BYTES(on.Written(), Hex("0000001c 'udta' 00000014 'name' 'Lumivane' 00000000"));
    EXPECT_EQ(on.box.GetSize(), 28u);
}
