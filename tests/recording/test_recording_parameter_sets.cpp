// Parameter sets: found in the stream, given with the record, and refused by their box. And the
// units of a frame, which all reach its sample.
#include "support/recording.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <new>
#include <thread>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kStbl = "moov/trak.vide/mdia/minf/stbl/";
const std::string kAvcc = kStbl + "stsd/avc1/avcC";
const std::string kHvcc = kStbl + "stsd/hev1/hvcC";
const std::string kDropped = "warning no codec data, drop frame";
const std::string kFound = "info found video codec data in stream, set video track info";

// Three SPS that differ, and a PPS.
const Bytes kSpsA = Hex("67 4D 40 1F 0A");
const Bytes kSpsB = Hex("67 64 00 28 0B");
const Bytes kSpsC = Hex("67 42 00 0A 0C");
const Bytes kPps = Hex("68 EE");
const Bytes kIdr = Hex("65 11 22");

Bytes Frame(std::initializer_list<Bytes> units)
{
    Bytes frame;
    for (const Bytes& unit : units)
        frame = frame + Hex("00 00 00 01") + unit;
    return frame;
}

// A track without parameter sets.
void Announce(Recording& rec, std::uint32_t codec = MP4_VIDEO_H264)
{
    mp4_video_track_info info{};
    info.codec = codec;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
}

mp4_video_track_info H264Record(const Bytes& sps, const Bytes& pps)
{
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_H264;
    info.sps = sps.data();
    info.sps_size = static_cast<std::int16_t>(sps.size());
    info.pps = pps.data();
    info.pps_size = static_cast<std::int16_t>(pps.size());
    return info;
}

// What a close that fails prints.
std::string FailedClose(Recording& rec)
{
    StdoutCapture out;
    EXPECT_EQ(rec.CloseStatus(), 1u);
    return out.Take();
}

}  // namespace

// ---- The units of a frame --------------------------------------------------------------------

// Emulation prevention stays, and 00 00 03 at the very end is data too.
TEST(AUnit, IsStoredWithItsEscapes)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(), 0u);
    EXPECT_EQ(rec.Video(Hex("00 00 01 65 00 00 03 01 00 00 03"), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.vide"), ElementsAre(Hex("00000008 65 00 00 03 01 00 00 03")));
    EXPECT_EQ(Words(file.Box(kStbl + "stss"), 12), (Numbers{1, 1}));
}

TEST(AnH264Frame, KeepsUnitsOfEveryType)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(), 0u);
    EXPECT_EQ(rec.Video(Frame({Hex("06 05 80"), Hex("0C FF"), Hex("00 11"), Hex("41 22")}), 0), 0u);
    EXPECT_THAT(Samples(rec.Close(), "trak.vide"),
                ElementsAre(Hex("00000003 060580  00000002 0CFF  00000002 0011  00000002 4122")));
}

// A delimiter, both kinds of SEI and the picture.
TEST(AnHevcFrame, KeepsUnitsOfEveryType)
{
    Recording rec;
    EXPECT_EQ(rec.SetHevc(), 0u);
    const Bytes frame = Frame({Hex("46 01 50"), Hex("4E 01 05"), Hex("50 01 05"), Hex("26 01 AF")});
    EXPECT_EQ(rec.Video(frame, 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.vide"),
                ElementsAre(Hex("00000003 460150  00000003 4E0105  00000003 500105"
                                "00000003 2601AF")));
    EXPECT_EQ(Words(file.Box(kStbl + "stss"), 12), (Numbers{1, 1}));
}

TEST(AnIdrPicture, OfThreeSlicesIsOneSampleOfThreeLengths)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(), 0u);
    EXPECT_EQ(rec.Video(Frame({Hex("65 11"), Hex("65 22 33"), Hex("65 44 55 66")}), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.vide"),
                ElementsAre(Hex("00000002 6511  00000003 652233  00000004 65445566")));
    EXPECT_EQ(Words(file.Box(kStbl + "stsz"), 12), (Numbers{21, 1}));
    EXPECT_EQ(Words(file.Box(kStbl + "stss"), 12), (Numbers{1, 1}));
}

TEST(AKeyFrame, IsOneByItsUnitsAlone)
{
    const auto keys = [](const Bytes& frame) {
        Recording rec;
        EXPECT_EQ(rec.SetH264(), 0u);
        EXPECT_EQ(rec.Video(frame, 0), 0u);
        return Words(rec.Close().Box(kStbl + "stss"), 12);
    };
    EXPECT_EQ(keys(Unit(0x06) + Unit(0x41)), (Numbers{0}));  // an SEI and another slice
    EXPECT_EQ(keys(Unit(0x06) + Unit(0x65)), (Numbers{1, 1}));
    EXPECT_EQ(keys(Hex("00 00 01 65 11")), (Numbers{1, 1}));
    EXPECT_EQ(keys(Hex("00 00 00 01 65 11")), (Numbers{1, 1}));
}

// 26 is IDR_W_RADL, and 65 is type 50 of HEVC.
TEST(AKeyFrame, IsOneByTheCodecOfTheLastSetUp)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(), 0u);
    EXPECT_EQ(rec.SetHevc(), 0u);
    EXPECT_EQ(rec.Video(Unit(0x26), 0), 0u);
    EXPECT_EQ(rec.Video(Unit(0x65), 40), 0u);
    EXPECT_EQ(Words(rec.Close().Box(kStbl + "stss"), 12), (Numbers{1, 1}));
}

// ---- The search in the stream ----------------------------------------------------------------

TEST(TheSearch, TakesTheLastSpsBeforeThePpsAndLooksNoFurther)
{
    Recording rec;
    Announce(rec);
    EXPECT_EQ(rec.Video(Frame({kSpsA, kSpsB, kPps, kSpsC, kIdr}), 0), 0u);
    EXPECT_EQ(rec.Log().Count(kFound), 1u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box(kAvcc),
              Hex("0000001A 'avcC' 01 640028 FF E1 0005 67 640028 0B 01 0002 68EE"));
    // The sample has all five.
    EXPECT_THAT(Samples(file, "trak.vide"),
                ElementsAre(Hex("00000005 67 4D 40 1F 0A  00000005 67 64 00 28 0B  00000002 68 EE"
                                "00000005 67 42 00 0A 0C  00000003 65 11 22")));
}

TEST(TheSearch, LetsALaterFrameReplaceASet)
{
    Recording rec;
    Announce(rec);
    EXPECT_EQ(rec.Video(Frame({kSpsA, kIdr}), 0), 0u);
    EXPECT_EQ(rec.Video(Frame({kSpsC, kIdr}), 40), 0u);
    EXPECT_EQ(rec.Video(Frame({kPps, kIdr}), 80), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 2u);
    EXPECT_EQ(rec.Close().Box(kAvcc),
              Hex("0000001A 'avcC' 01 42000A FF E1 0005 67 42000A 0C 01 0002 68EE"));
}

// A second set-up forgets what the stream brought before it.
TEST(TheSearch, BeginsAnewWithEverySetUp)
{
    for (const bool again : {false, true}) {
        Recording rec;
        Announce(rec);
        EXPECT_EQ(rec.Video(Frame({kSpsA}), 0), 0u);
        if (again)
            Announce(rec);
        EXPECT_EQ(rec.Video(Frame({kPps, kIdr}), 40), 0u);
        EXPECT_EQ(rec.Log().Count(kDropped), again ? 2u : 1u);
        EXPECT_EQ(rec.CloseStatus(), 0u);
    }
}

TEST(TheSearch, BeginsForATrackThatWasCompleteToo)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(), 0u);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 0), 0u);
    Announce(rec);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 40), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 1u);
    EXPECT_EQ(rec.Video(Frame({kSpsA, kPps, kIdr}), 80), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kStbl + "stsz"), 12), (Numbers{0, 2, 7, 22}));
    EXPECT_EQ(file.Box(kAvcc),
              Hex("0000001A 'avcC' 01 4D401F FF E1 0005 67 4D401F 0A 01 0002 68EE"));
}

// The stream has to bring both sets, also the one that the record had.
TEST(TheSearch, KnowsNothingOfTheRecordsSets)
{
    Recording rec;
    mp4_video_track_info info = H264Record(kSpsA, kPps);
    info.pps_size = 0;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(rec.Video(Frame({kPps, kIdr}), 0), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 1u);
    EXPECT_EQ(rec.Video(Frame({kSpsB, kIdr}), 40), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 1u);
    EXPECT_EQ(rec.Close().Box(kAvcc),
              Hex("0000001A 'avcC' 01 640028 FF E1 0005 67 640028 0B 01 0002 68EE"));
}

// No frame waits for a key frame.
TEST(TheSearch, KeepsTheFrameThatEndsItKeyOrNot)
{
    Recording rec;
    Announce(rec);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 0), 0u);
    EXPECT_EQ(rec.Video(Frame({kSpsA, kPps, Hex("41 9A")}), 40), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kStbl + "stsz"), 12), (Numbers{9 + 6 + 6, 1}));
    EXPECT_EQ(Words(file.Box(kStbl + "stss"), 12), (Numbers{0}));
}

// Nor does it end the chunk of the audio around it.
TEST(TheSearch, OpensNoChunkForAFrameThatItDrops)
{
    Recording rec;
    Announce(rec);
    EXPECT_EQ(rec.SetAac(), 0u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 0), 0u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 21), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 1u);
    const BoxFile file = rec.Close();
    const std::string audio = "moov/trak.soun/mdia/minf/stbl/";
    EXPECT_EQ(Words(file.Box(audio + "stco"), 12), (Numbers{1, 44}));
    EXPECT_EQ(Words(file.Box(audio + "stsc"), 12), (Numbers{1, 1, 2, 1}));
    EXPECT_EQ(Words(file.Box(audio + "stsz"), 12), (Numbers{30, 2}));
}

TEST(TheSearch, GivesTheTrackItsIdOnlyAtItsEnd)
{
    Recording rec;
    Announce(rec);
    EXPECT_EQ(rec.SetAac(), 0u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    EXPECT_EQ(rec.Video(Frame({kSpsA, kPps, kIdr}), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box("moov/trak.soun/tkhd"), 20).at(0), 1u);
    EXPECT_EQ(Words(file.Box("moov/trak.vide/tkhd"), 20).at(0), 2u);
}

TEST(TheSearch, TakesTheThreeSetsOfHevcInAnyOrder)
{
    Recording rec;
    Announce(rec, MP4_VIDEO_HEVC);
    EXPECT_EQ(rec.Video(Frame({HevcPps(), HevcVps(), HevcSps(), Hex("26 01 AF")}), 0), 0u);
    const Bytes box = rec.Close().Box(kHvcc);
    const Bytes arrays = Hex("03  20 0001 0018") + HevcVps() + Hex("21 0001 0029") + HevcSps() +
                         Hex("22 0001 0007") + HevcPps();
    ASSERT_EQ(box.size(), 30 + arrays.size());
    EXPECT_EQ(Bytes(box.begin() + 30, box.end()), arrays);
}

TEST(TheSearch, WaitsForTheVpsOfHevc)
{
    Recording rec;
    Announce(rec, MP4_VIDEO_HEVC);
    EXPECT_EQ(rec.Video(Frame({HevcSps(), HevcPps(), Hex("26 01 AF")}), 0), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 1u);
    EXPECT_EQ(rec.Video(Frame({HevcVps(), Hex("26 01 AF")}), 40), 0u);
    EXPECT_EQ(rec.Log().Count(kFound), 1u);
    EXPECT_EQ(Words(rec.Close().Box(kStbl + "stsz"), 12), (Numbers{28 + 7, 1}));
}

// 67 and 68 are types 51 and 52 of HEVC.
TEST(TheSearch, ReadsTypesByTheCodec)
{
    Recording rec;
    Announce(rec, MP4_VIDEO_HEVC);
    EXPECT_EQ(rec.Video(Frame({kSpsA, kPps, kIdr}), 0), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 1u);
    EXPECT_EQ(rec.CloseStatus(), 0u);
}

// ---- Sets that change ------------------------------------------------------------------------

TEST(ASetThatChangesInTheStream, StaysInItsSampleAlone)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(), 0u);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 0), 0u);
    EXPECT_EQ(rec.Video(Frame({kSpsB, kPps, kIdr}), 40), 0u);
    const BoxFile file = rec.Close();
    const Bytes box = file.Box(kAvcc);
    EXPECT_EQ(Bytes(box.begin() + 16, box.begin() + 16 + 24), Sps());
    EXPECT_EQ(file.U32(file.Find("moov/trak.vide/tkhd").end - 8), 160u << 16);
    EXPECT_EQ(file.U32(file.Find(kStbl + "stsd").begin + 12), 1u);  // one description
    EXPECT_THAT(Samples(file, "trak.vide"),
                ElementsAre(Hex("00000003 65 11 22"),
                            Hex("00000005 67 64 00 28 0B  00000002 68 EE  00000003 65 11 22")));
}

// An SPS of level 3.1 in place of 1.
TEST(AnHevcSetThatChangesInTheStream, StaysInItsSampleAlone)
{
    Bytes sps = HevcSps();
    ASSERT_EQ(sps[17], 0x1E);
    sps[17] = 0x5D;
    const Bytes idr = Hex("26 01 AF");
    BoxFile files[2];
    for (const bool changed : {false, true}) {
        Recording rec;
        EXPECT_EQ(rec.SetHevc(), 0u);
        EXPECT_EQ(rec.Video(Frame({idr}), 0), 0u);
        const Bytes next = changed ? Frame({HevcVps(), sps, HevcPps(), idr}) : Frame({idr});
        EXPECT_EQ(rec.Video(next, 40), 0u);
        files[changed] = rec.Close();
    }
    EXPECT_EQ(files[true].Box(kStbl + "stsd"), files[false].Box(kStbl + "stsd"));
    EXPECT_EQ(files[true].Box("moov/trak.vide/tkhd"), files[false].Box("moov/trak.vide/tkhd"));
    EXPECT_EQ(files[true].U32(files[true].Find(kStbl + "stsd").begin + 12), 1u);
    const Bytes units = Hex("00000018") + HevcVps() + Hex("00000029") + sps + Hex("00000007") +
                        HevcPps() + Hex("00000003") + idr;
    EXPECT_THAT(Samples(files[true], "trak.vide"), ElementsAre(Hex("00000003") + idr, units));
}

// The stream's sets are of 160x120.
TEST(AnHevcTrack, HasTheSizeOfItsRecord)
{
    Recording rec;
    mp4_video_track_info info = HevcRecord();
    info.width = 1920;
    info.height = 1080;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(rec.Video(Frame({Hex("26 01 AF")}), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.U32(file.Find(kStbl + "stsd").begin + 48), 0x07800438u);
    EXPECT_EQ(file.U64(file.Find("moov/trak.vide/tkhd").end - 8), 0x0780000004380000u);
}

TEST(AFrameOfParameterSetsAlone, IsASampleLikeAnyOther)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(), 0u);
    EXPECT_EQ(rec.Video(Frame({kSpsA, kPps}), 0), 0u);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 40), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kStbl + "stsz"), 12), (Numbers{0, 2, 15, 7}));
    EXPECT_EQ(Words(file.Box(kStbl + "stss"), 12), (Numbers{1, 2}));
}

// ---- Lengths ---------------------------------------------------------------------------------

// 65560 is 1 0018 in hexadecimal.
TEST(AFoundSps, HasTheLow16BitsOfItsLength)
{
    Recording rec;
    Announce(rec);
    EXPECT_EQ(rec.Video(Frame({Sps() + Bytes(65536, 0xAB), kPps}), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box(kAvcc),
              Hex("0000002D 'avcC' 01 64000A FF E1 0018") + Sps() + Hex("01 0002 68EE"));
    EXPECT_EQ(Words(file.Box(kStbl + "stsz"), 12), (Numbers{4 + 65560 + 6, 1}));
}

// Its address tells that it was found, though its length is 0 in 16 bits.
TEST(AFoundSps, Of65536BytesEndsTheSearchAndFailsTheClose)
{
    ExternalSink sink;
    Recording rec(sink);
    Announce(rec);
    const Bytes sps = Sps() + Bytes(65512, 0xAB);
    ASSERT_EQ(sps.size(), 65536u);
    EXPECT_EQ(rec.Video(Frame({sps, kPps, kIdr}), 0), 0u);
    EXPECT_EQ(rec.Log().Count(kFound), 1u);
    EXPECT_EQ(rec.Log().Count(kDropped), 0u);
    EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - Invalid sps(0) or pps(2) size !\n");
    // The data end with the sample: 4 + 65536, 4 + 2 and 4 + 3 bytes.
    EXPECT_EQ(sink.File().Box("mdat").size(), 8u + 65553);
}

// A length of 32768 is negative, and no memory has it. The search is over all the same.
TEST(AFoundSps, Of32768BytesLeavesAsAnExceptionOfTheAllocator)
{
    Recording good;
    Announce(good);
    EXPECT_EQ(good.Video(Frame({kSpsA + Bytes(32767 - 5, 0xAB), kPps}), 0), 0u);
    EXPECT_EQ(good.CloseStatus(), 0u);

    Recording rec;
    Announce(rec);
    EXPECT_THROW(rec.Video(Frame({kSpsA + Bytes(32768 - 5, 0xAB), kPps}), 0), std::bad_alloc);
    EXPECT_EQ(rec.Log().Count(kFound), 1u);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 40), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 0u);
    EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - Invalid sps(0) or pps(0) size !\n");
}

TEST(ARecordedLength, From32768OnLeavesAsAnExceptionOfTheAllocator)
{
    for (const bool hevc : {false, true}) {
        Recording rec;
        mp4_video_track_info info = hevc ? HevcRecord() : H264Record(kSpsA, kPps);
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
        info.sps_size = std::numeric_limits<std::int16_t>::min();
        EXPECT_THROW(mp4_set_video_track(rec.Handle(), &info), std::bad_alloc);
    }
}

// The sets before are gone; of the new ones stands what came ahead of the failure.
TEST(ARecordedLength, ThatNoMemoryHasEndsTheSetUpHalfway)
{
    const std::int16_t least = std::numeric_limits<std::int16_t>::min();
    const std::int16_t lengths[][2] = {{least, 2}, {5, -1}};
    for (const auto& [sps, pps] : lengths) {
        Recording rec;
        mp4_video_track_info info = H264Record(kSpsA, kPps);
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
        info.sps_size = sps;
        info.pps_size = pps;
        EXPECT_THROW(mp4_set_video_track(rec.Handle(), &info), std::bad_alloc);
        EXPECT_EQ(rec.Video(Frame({kIdr}), 0), 0u);
        EXPECT_EQ(FailedClose(rec), sps == 5
                                        ? "LibMp4 : Error - Invalid sps(5) or pps(0) size !\n"
                                        : "LibMp4 : Error - Invalid sps(0) or pps(0) size !\n");
    }
}

TEST(ARecordedLength, OfHevcThatNoMemoryHasEndsTheSetUpHalfwayToo)
{
    Recording rec;
    mp4_video_track_info info = HevcRecord();
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    info.sps_size = std::numeric_limits<std::int16_t>::min();
    EXPECT_THROW(mp4_set_video_track(rec.Handle(), &info), std::bad_alloc);
    EXPECT_EQ(rec.Video(Frame({Hex("26 01 AF")}), 0), 0u);
    EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - NULL hevc head !\n");
}

// Whatever leaves an export, the locks are free again and the handle is good.
TEST(AnExceptionThatLeaves, LocksNoOtherThreadOut)
{
    Recording rec;
    Announce(rec);
    EXPECT_THROW(rec.Video(Frame({kSpsA + Bytes(32768 - 5, 0xAB), kPps}), 0), std::bad_alloc);
    std::uint32_t status = 99;
    std::thread([&] { status = rec.Video(Frame({kIdr}), 40); }).join();
    EXPECT_EQ(status, 0u);
    FailedClose(rec);
}

// Lengths tell whether a record has its sets, addresses what is stored.
TEST(ALengthWithoutAnAddress, IsAcceptedAndFailsTheClose)
{
    Recording avc;
    const Bytes pps = Hex("68 01 02 03");
    mp4_video_track_info info = H264Record(kSpsA, pps);
    info.sps = nullptr;
    EXPECT_EQ(mp4_set_video_track(avc.Handle(), &info), 0u);
    EXPECT_EQ(avc.Video(Frame({kIdr}), 0), 0u);
    EXPECT_EQ(avc.Log().Count(kDropped), 0u);
    EXPECT_EQ(FailedClose(avc), "LibMp4 : Error - Invalid sps(0) or pps(4) size !\n");

    Recording hevc;
    info = HevcRecord();
    info.vps = nullptr;
    EXPECT_EQ(mp4_set_video_track(hevc.Handle(), &info), 0u);
    EXPECT_EQ(hevc.Video(Frame({Hex("26 01 AF")}), 0), 0u);
    EXPECT_EQ(FailedClose(hevc), "LibMp4 : Error - NULL hevc head !\n");
}

TEST(ALengthWithoutAnAddress, IsAcceptedOfAPpsToo)
{
    Recording rec;
    const Bytes sps = kSpsA + Hex("01 02 03");
    mp4_video_track_info info = H264Record(sps, kPps);
    info.pps = nullptr;
    info.pps_size = 4;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(rec.Video(Frame({kIdr}), 0), 0u);
    EXPECT_EQ(rec.Log().Count(kDropped), 0u);
    EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - Invalid sps(8) or pps(0) size !\n");
}

// ---- Sets that do not parse ------------------------------------------------------------------

TEST(AnHevcSetThatDoesNotParse, IsPrintedAndFailsTheClose)
{
    const std::int16_t full[] = {24, 41, 7};
    const char* names[] = {"vps", "sps", "pps"};
    for (int cut = 0; cut < 3; ++cut) {
        Recording rec;
        mp4_video_track_info info = HevcRecord();
        std::int16_t* const sizes[] = {&info.vps_size, &info.sps_size, &info.pps_size};
        ASSERT_EQ(*sizes[cut], full[cut]);
        *sizes[cut] = 3;
        StdoutCapture out;
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
        const std::string name = names[cut];
        EXPECT_EQ(out.Take(), "LibMp4 : Error - Parse hevc " + name + " fail !\n");
        EXPECT_EQ(rec.Video(Frame({Hex("26 01 AF")}), 0), 0u);
        EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - NULL hevc head !\n");
    }
}

TEST(HevcSetsThatDoNotParse, ArePrintedInTheOrderOfTheBox)
{
    Recording rec;
    mp4_video_track_info info = HevcRecord();
    info.vps_size = info.sps_size = info.pps_size = 3;
    StdoutCapture out;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(out.Take(), "LibMp4 : Error - Parse hevc vps fail !\n"
                          "LibMp4 : Error - Parse hevc sps fail !\n"
                          "LibMp4 : Error - Parse hevc pps fail !\n");
    EXPECT_EQ(rec.Video(Frame({Hex("26 01 AF")}), 0), 0u);
    EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - NULL hevc head !\n");
}

// Its last two bytes end the time scale of the VUI.
TEST(AnHevcSps, CutInsideItsVuiFailsTheClose)
{
    Recording rec;
    mp4_video_track_info info = HevcRecord();
    info.sps_size = static_cast<std::int16_t>(info.sps_size - 2);
    StdoutCapture out;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(out.Take(), "LibMp4 : Error - Parse hevc sps fail !\n");
    EXPECT_EQ(rec.Video(Frame({Hex("26 01 AF")}), 0), 0u);
    EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - NULL hevc head !\n");
}

TEST(AnHevcVps, OfType41FailsTheClose)
{
    Recording rec;
    const Bytes vps = Hex("52 01 05");
    mp4_video_track_info info = HevcRecord();
    info.vps = vps.data();
    info.vps_size = 3;
    StdoutCapture out;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(out.Take(), "LibMp4 : Error - Parse hevc vps fail !\n");
    EXPECT_EQ(rec.Video(Frame({Hex("26 01 AF")}), 0), 0u);
    EXPECT_EQ(FailedClose(rec), "LibMp4 : Error - NULL hevc head !\n");
}

// The search goes by types, so that a set found in the stream may be as bad.
TEST(AFoundSetThatDoesNotParse, LetsItsFrameBeStored)
{
    Recording rec;
    Announce(rec, MP4_VIDEO_HEVC);
    StdoutCapture out;
    EXPECT_EQ(rec.Video(Frame({HevcVps(), Hex("42 01 01"), HevcPps()}), 0), 0u);
    EXPECT_EQ(out.Take(), "LibMp4 : Error - Parse hevc sps fail !\n");
    EXPECT_EQ(rec.Log().Count(kFound), 1u);
    FailedClose(rec);
}

// ---- Refused boxes at a checkpoint -----------------------------------------------------------

// The integer that the box raises has no handler on the way out of a frame.
TEST(ARefusedBox, LeavesTheFrameThatNeedsACheckpoint)
{
    for (const bool hevc : {false, true}) {
        Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
        const mp4_safe_param params{0, 1000, 0, 0};  // a checkpoint every 1000 bytes
        EXPECT_EQ(mp4_set_safe_param(rec.Handle(), &params), 0u);
        mp4_video_track_info info = hevc ? HevcRecord() : H264Record(kSpsA, kPps);
        (hevc ? info.vps_size : info.sps_size) = hevc ? 1 : 3;
        StdoutCapture out;
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
        EXPECT_EQ(rec.Video(Unit(hevc ? 0x26 : 0x65, 100), 0), 0u);
        int raised = 0;
        try {
            rec.Video(Unit(hevc ? 0x26 : 0x65, 500), 40);
        } catch (int reason) {
            raised = reason;
        }
        EXPECT_EQ(raised, hevc ? 71 : 49);
        EXPECT_EQ(rec.CloseStatus(), 1u);
        EXPECT_EQ(out.Take(), hevc ? "LibMp4 : Error - Parse hevc vps fail !\n"
                                     "LibMp4 : Error - NULL hevc head !\n"
                                     "LibMp4 : Error - NULL hevc head !\n"
                                   : "LibMp4 : Error - Invalid sps(3) or pps(2) size !\n"
                                     "LibMp4 : Error - Invalid sps(3) or pps(2) size !\n");
    }
}
