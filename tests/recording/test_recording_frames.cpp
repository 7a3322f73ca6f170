// The frame paths: what becomes a sample, and what the tables say of it.
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kvtest;
using testing::IsEmpty;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kVideo = "moov/trak.vide/mdia/minf/stbl/";
const std::string kAudio = "moov/trak.soun/mdia/minf/stbl/";

// The media data of an MP4 file with a 32-bit mdat.
Bytes Data(const BoxFile& file)
{
    const Bytes mdat = file.Box("mdat");
    return Bytes(mdat.begin() + 8, mdat.end());
}

const Bytes kAdts48 = Hex("FF F1 4C 80 01 1F FC") + Bytes(20, 0x21);

}  // namespace

// ---- Video -----------------------------------------------------------------------------------

TEST(AVideoFrame, BecomesLengthPrefixedUnits)
{
    Recording rec;
    rec.SetH264();
    EXPECT_EQ(rec.Video(Hex("00 00 00 01 09 F0  00 00 01 65 11 22"), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Data(file), Hex("00000002 09 F0  00000003 65 11 22"));
    EXPECT_EQ(Words(file.Box(kVideo + "stsz"), 12), (Numbers{13, 1}));
}

TEST(AVideoFrame, GrowsByOneByteForEachShortStartCode)
{
    Recording rec;
    rec.SetH264();
    rec.Video(Unit(0x65, 10) + Unit(0x65, 10) + Unit(0x65, 10), 0);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Data(file).size(), 42u);  // 39 bytes came in
    EXPECT_EQ(Words(file.Box(kVideo + "stss"), 12), (Numbers{1, 1}));
}

TEST(AVideoFrame, WithoutDataIsDroppedWithAWarning)
{
    Recording rec;
    rec.SetH264();
    EXPECT_EQ(rec.Video({}, 0), 0u);
    EXPECT_EQ(mp4_write_video_frame(rec.Handle(), nullptr, 5, 0), 0u);
    EXPECT_EQ(rec.Log().Count("warning write video frame with empty data"), 2u);
    EXPECT_THAT(Data(rec.Close()), IsEmpty());
}

TEST(AVideoFrame, OfSize0IsDroppedThoughItHasAnAddress)
{
    Recording rec;
    rec.SetH264();
    const Bytes frame = Unit(0x65);
    EXPECT_EQ(mp4_write_video_frame(rec.Handle(), frame.data(), 0, 0), 0u);
    EXPECT_EQ(rec.Log().Count("warning write video frame with empty data"), 1u);
    EXPECT_EQ(rec.Close().Box("mdat"), Hex("00000008 'mdat'"));
}

TEST(AVideoFrame, BeforeItsTrackAnswers9OrWithoutAStartCode8)
{
    Recording rec;
    EXPECT_EQ(rec.Video(Unit(0x65), 0), 9u);
    EXPECT_TRUE(rec.Log().Has("error invalid video track!"));
    EXPECT_EQ(rec.Video(Bytes(20, 7), 0), 8u);
    EXPECT_TRUE(rec.Log().Has("error Parse video frame fail !"));
    EXPECT_THAT(Data(rec.Close()), IsEmpty());
}

TEST(AVideoFrame, WithAnEmptyUnitGetsFourZeroBytes)
{
    Recording rec;
    rec.SetH264();
    EXPECT_EQ(rec.Video(Hex("00 00 01  00 00 01 65 11"), 0), 0u);
    EXPECT_EQ(Data(rec.Close()), Hex("00000000  00000002 65 11"));
}

TEST(AThreeByteFrame, NeverParses)
{
    Recording rec;
    rec.SetH264();
    EXPECT_EQ(rec.Video(Hex("00 00 01"), 0), 8u);
    EXPECT_EQ(rec.Video(Hex("00 00 01 65"), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Data(file), Hex("00000001 65"));
}

TEST(Times, BecomeRunsWhoseLastIsExtended)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({0, 40, 80, 120, 121});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kVideo + "stts"), 12), (Numbers{2, 3, 40, 2, 1}));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

TEST(Times, ThatFallGiveAHugeDelta)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({100, 60});
    EXPECT_EQ(Words(rec.Close().Box(kVideo + "stts"), 12), (Numbers{1, 2, 0xFFFFFFD8}));
}

TEST(Times, ThatAreEqualGiveADeltaOfZero)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({100, 100});
    EXPECT_EQ(Words(rec.Close().Box(kVideo + "stts"), 12), (Numbers{1, 2, 0}));
}

TEST(ALoneFrame, TakesTheRecordsDuration)
{
    Recording rec;
    rec.SetH264(90000, 3003);
    rec.FramesAt({500});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kVideo + "stts"), 12), (Numbers{1, 1, 3003}));
    EXPECT_EQ(Words(file.Box("moov/trak.vide/mdia/mdhd"), 20), (Numbers{90000, 3003, 0x55C40000}));
    EXPECT_EQ(Words(file.Box("moov/mvhd"), 20).at(1), 33u);  // 3003 x 1000 / 90000
}

TEST(ALoneFrame, WithoutADurationTakesItsTime)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({500});
    EXPECT_EQ(Words(rec.Close().Box("moov/trak.vide/mdia/mdhd"), 20).at(1), 500u);
}

TEST(AFirstFrameThatIsNoKeyFrame, CountsTheDurationFromZero)
{
    Recording rec;
    rec.SetH264();
    rec.Video(Unit(0x41), 1000);
    rec.Video(Unit(0x41), 1040);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box("moov/trak.vide/mdia/mdhd"), 20).at(1), 1080u);
    EXPECT_EQ(file.Box(kVideo + "stss"), Hex("00000010 'stss' 00000000 00000000"));
}

TEST(MissingParameterSets, AreTakenFromTheStream)
{
    Recording rec;
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_H264;
    ASSERT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_TRUE(rec.Log().Has(
        "info no codec data in video track info, try to find it in stream"));
    EXPECT_EQ(rec.Video(Unit(0x65), 0), 0u);
    EXPECT_TRUE(rec.Log().Has("warning no codec data, drop frame"));

    const Bytes code = Hex("00 00 00 01");
    const Bytes whole = code + Sps() + code + Pps() + Unit(0x65);
    EXPECT_EQ(rec.Video(whole, 40), 0u);
    EXPECT_TRUE(rec.Log().Has("info found video codec data in stream, set video track info"));
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kVideo + "stsz"), 16), (Numbers{1}));
    EXPECT_EQ(Data(file).size(), 4 + Sps().size() + 4 + Pps().size() + 14);
    const Bytes avcc = file.Box(kVideo + "stsd/avc1/avcC");
    EXPECT_EQ(avcc, Hex("00000031 'avcC' 01 64000A FF E1 0018") + Sps() + Hex("01 0006") + Pps());
}

TEST(ParameterSetsInTwoFrames, CompleteTheSetThoughTheFirstBufferIsGone)
{
    Recording rec;
    mp4_video_track_info info{};
    ASSERT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    {
        Bytes first = Hex("00 00 01") + Sps();
        EXPECT_EQ(rec.Video(first, 0), 0u);
        std::fill(first.begin(), first.end(), std::uint8_t{0xEE});
    }
    EXPECT_EQ(rec.Video(Hex("00 00 01") + Pps() + Unit(0x65), 40), 0u);
    const Bytes avcc = rec.Close().Box(kVideo + "stsd/avc1/avcC");
    EXPECT_EQ(Bytes(avcc.begin() + 16, avcc.begin() + 16 + 24), Sps());
}

TEST(ShortSps, IsAcceptedAndFailsTheClose)
{
    Recording rec;
    mp4_video_track_info info{};
    const Bytes sps{0x67, 1, 2};
    const Bytes pps{0x68, 1, 2, 3};
    info.sps = sps.data();
    info.sps_size = 3;
    info.pps = pps.data();
    info.pps_size = 4;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    rec.FramesAt({0});
    testing::internal::CaptureStdout();
    EXPECT_EQ(rec.CloseStatus(), 1u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "LibMp4 : Error - Invalid sps(3) or pps(4) size !\n");
}

TEST(AProResPicture, IsStoredWholeAndIsAKeyFrame)
{
    Recording rec("clip.mov");
    ASSERT_EQ(rec.SetProRes(MP4_PRORES_422), 0u);
    EXPECT_EQ(rec.Video(Bytes(50, 9), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kVideo + "stsz"), 12), (Numbers{50, 1}));
    EXPECT_EQ(Words(file.Box(kVideo + "stss"), 12), (Numbers{1, 1}));
    const Bytes entry = file.Box(kVideo + "stsd/apcn");
    EXPECT_EQ(entry.size(), 112u);
    EXPECT_EQ(Bytes(entry.begin() + 86, entry.end()),
              Hex("0000000A 'fiel' 01 00  00000010 'pasp' 00000001 00000001"));
}

TEST(AnInvalidVideoCodec, Gives5)
{
    Recording rec;
    mp4_video_track_info info{};
    info.codec = 3;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 5u);
    EXPECT_TRUE(rec.Log().Has("error invalid codec type 3"));
    EXPECT_EQ(rec.Video(Unit(0x65), 0), 9u);
}

TEST(ABadCodecAfterProRes, LeavesProResFramesWorking)
{
    Recording rec("clip.mov");
    ASSERT_EQ(rec.SetProRes(0), 0u);
    mp4_video_track_info info{};
    info.codec = 9;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 5u);
    EXPECT_EQ(rec.Video(Bytes(50, 9), 0), 0u);
}

// ---- Chunks ----------------------------------------------------------------------------------

TEST(Chunks, EndWhereASampleOfAnotherTrackBegins)
{
    Recording rec;
    rec.SetH264();
    rec.SetAac();
    for (const std::uint64_t turn : {0u, 1u}) {
        rec.FramesAt({80 * turn, 80 * turn + 40});
        rec.Audio(Bytes(30, 1), 80 * turn);
    }
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kVideo + "stco"), 12), (Numbers{2, 44, 44 + 28 + 30}));
    EXPECT_EQ(Words(file.Box(kVideo + "stsc"), 12), (Numbers{1, 1, 2, 1}));
    EXPECT_EQ(Words(file.Box(kAudio + "stco"), 12), (Numbers{2, 72, 130}));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

TEST(Chunks, HoldTheAudioBetweenTwoPictures)
{
    Recording rec;
    rec.SetH264();
    rec.SetAac();
    rec.FramesAt({0});  // 14 bytes in the file
    for (const std::uint64_t time : {0u, 21u, 42u})
        rec.Audio(Bytes(30, 1), time);
    rec.FramesAt({40});
    rec.Audio(Bytes(30, 1), 64);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kAudio + "stsc"), 12), (Numbers{2, 1, 3, 1, 2, 1, 1}));
    EXPECT_EQ(Words(file.Box(kAudio + "stco"), 12), (Numbers{2, 44 + 14, 44 + 14 + 90 + 14}));
}

TEST(Tracks, GetTheirIdsInTheOrderOfTheCalls)
{
    Recording rec;
    rec.SetAac();
    rec.SetH264();
    rec.FramesAt({0});
    rec.Audio(Bytes(30, 1), 0);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box("moov/trak.soun/tkhd"), 20).at(0), 1u);
    EXPECT_EQ(Words(file.Box("moov/trak.vide/tkhd"), 20).at(0), 2u);
    EXPECT_EQ(file.U32(file.Find("moov/mvhd").end - 4), 3u);
}

TEST(ATrackWithoutSamples, IsLeftOutWithALogLine)
{
    Recording rec;
    rec.SetH264();
    const BoxFile file = rec.Close();
    EXPECT_FALSE(file.Has("moov/trak"));
    EXPECT_EQ(rec.Log().Count("error audio track samples 0"), 1u);
}

// ---- Audio -----------------------------------------------------------------------------------

TEST(AnAdtsStream, DescribesItselfByItsFirstFrame)
{
    Recording rec;
    ASSERT_EQ(rec.SetAdts(), 0u);
    EXPECT_TRUE(rec.Log().Has("info audio codec is adts, wait audio stream to get meta data"));
    EXPECT_EQ(rec.Audio(kAdts48, 0), 0u);
    EXPECT_TRUE(rec.Log().Has("info ADTS stream, get and set audio track"));
    const BoxFile file = rec.Close();
    EXPECT_EQ(Data(file), Bytes(20, 0x21));
    const Bytes stsd = file.Box(kAudio + "stsd");
    EXPECT_EQ(stsd.size(), 52u + 51u);
    EXPECT_EQ(Bytes(stsd.begin() + 48, stsd.begin() + 52), Hex("BB 80 00 00"));
    EXPECT_EQ(Bytes(stsd.end() - 13, stsd.end()), Hex("05 80 80 80 02 11 90 06 80 80 80 01 02"));
}

TEST(AnAdtsTrack, WaitsUntilAFrameHasTheSyncWord)
{
    Recording rec;
    rec.SetAdts();
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 7u);
    EXPECT_EQ(rec.Audio(Hex("FF F1 4C 80 00 FF FC"), 0), 7u);  // 7 bytes are no ADTS frame
    EXPECT_EQ(rec.Log().Count("error invalid ADTS stream, please check it."), 2u);
    EXPECT_EQ(rec.Audio(kAdts48, 0), 0u);
    EXPECT_EQ(rec.Audio(Bytes(9, 1), 21), 0u);  // only the first frame is held to the test
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kAudio + "stsz"), 16), (Numbers{2, 20, 9}));
}

TEST(AnAdtsHeader, IsSevenBytesWhateverTheCodecAndTheCrc)
{
    Recording rec;
    rec.SetAac();
    EXPECT_EQ(rec.Audio(Hex("FF F8 01 02 03 04 05 06"), 0), 0u);
    EXPECT_EQ(rec.Audio(Hex("FF F0 01 02 03 04 05 C1 C2 06"), 1), 0u);
    EXPECT_EQ(rec.Audio(Hex("FF F1 01 02 03 04 05"), 2), 0u);
    EXPECT_EQ(Data(rec.Close()), Hex("06  C1 C2 06  FF F1 01 02 03 04 05"));
}

TEST(AnAdtsStreamAt96kHz, CarriesTheCutRateAndDeclares44100)
{
    Recording rec;
    rec.SetAdts();
    EXPECT_EQ(rec.Audio(Hex("FF F1 40 80 01 1F FC") + Bytes(20, 1), 0), 0u);
    const Bytes stsd = rec.Close().Box(kAudio + "stsd");
    EXPECT_EQ(Bytes(stsd.begin() + 48, stsd.begin() + 50), Hex("77 00"));  // 30464
    EXPECT_EQ(Bytes(stsd.end() - 8, stsd.end() - 6), Hex("12 10"));
}

TEST(AnAudioFrame, WithoutDataIsDroppedWithAWarning)
{
    Recording rec;
    rec.SetAac();
    EXPECT_EQ(rec.Audio({}, 0), 0u);
    EXPECT_TRUE(rec.Log().Has("warning write audio frame with empty data"));
}

TEST(AnAudioFrame, OfSize0IsDroppedThoughItHasAnAddress)
{
    Recording rec;
    rec.SetAac();
    EXPECT_EQ(mp4_write_audio_frame(rec.Handle(), kAdts48.data(), 0, 0), 0u);
    EXPECT_EQ(rec.Log().Count("warning write audio frame with empty data"), 1u);
    EXPECT_EQ(rec.Close().Box("mdat"), Hex("00000008 'mdat'"));
}

TEST(ARefusedAudioRecord, LeavesLaterFramesInMdatWithoutATrack)
{
    Recording rec;
    const mp4_audio_track_info bad{1000, 0, MP4_AUDIO_AAC_RAW, 48000, 0, 2};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &bad), 4u);
    EXPECT_TRUE(rec.Log().Has("error invalid audio channel(0) or sample rate(48000)"));
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Data(file).size(), 30u);
    EXPECT_FALSE(file.Has("moov/trak"));
}

TEST(AudioAlone, IsOneChunk)
{
    Recording rec;
    rec.SetAac(48000);
    for (std::uint64_t i = 0; i < 5; ++i)
        rec.Audio(Bytes(30, 1), 1024 * i);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kAudio + "stsc"), 12), (Numbers{1, 1, 5, 1}));
    EXPECT_EQ(Words(file.Box(kAudio + "stsz"), 12), (Numbers{30, 5}));
    EXPECT_EQ(Words(file.Box(kAudio + "stts"), 12), (Numbers{1, 5, 1024}));
}

// ---- Metadata --------------------------------------------------------------------------------

TEST(NoMetadata, LeavesUdtaWith61Bytes)
{
    Recording rec;
    EXPECT_EQ(rec.Close().Box("moov/udta"),
              Hex("0000003D 'udta' 00000035 'meta' 00000000"
                  "00000021 'hdlr' 00000000 00000000 'mdir' 'appl' 00000000 00000000 00"
                  "00000008 'ilst'"));
}

TEST(ATitle, KeepsItsLastValueAndANullRemovesIt)
{
    Recording rec;
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "title", "first"), 0u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "\xA9nam", "A"), 0u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "album", "B"), 0u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "album", nullptr), 0u);
    EXPECT_EQ(rec.Close().Box("moov/udta/meta/ilst"),
              Hex("00000021 'ilst' 00000019 A9'nam' 00000011 'data' 00000001 00000000 'A'"));
}

TEST(FreeKeys, GetAKeysTableAndValuesByIndex)
{
    Recording rec;
    const std::int32_t number = 0x01020304;
    EXPECT_EQ(mp4_set_metadata_ex(rec.Handle(), "com.a", &number, 4, 21, nullptr), 0u);
    EXPECT_EQ(mp4_set_metadata_ex(rec.Handle(), "com.", "xy", 2, 0, "udtaX"), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("moov/udta/meta/keys"),
              Hex("00000029 'keys' 00000000 00000002"
                  "0000000D 'mdta' 'com.a'  0000000C 'udta' 'com.'"));
    EXPECT_EQ(file.Box("moov/udta/meta/ilst"),
              Hex("0000003E 'ilst'"
                  "0000001C 00000001 00000014 'data' 00000015 00000000 01020304"
                  "0000001A 00000002 00000012 'data' 00000001 00000000 'xy'"));
}

TEST(UnknownKeysAndNullValues, Give4)
{
    Recording rec;
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "colour", "red"), 4u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), nullptr, "red"), 4u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "com.x", nullptr), 4u);
    EXPECT_TRUE(rec.Close().Has("moov/udta/meta/keys"));  // the key stays
}

TEST(AnUnknownMetadataType, IsReportedAtTheWrite)
{
    Recording rec;
    EXPECT_EQ(mp4_set_metadata_ex(rec.Handle(), "com.x", "y", 0, 7, nullptr), 0u);
    EXPECT_EQ(rec.Close().Box("moov/udta/meta/ilst").size(), 8u);
    EXPECT_TRUE(rec.Log().Has("error unknown meta data type:7"));
}
