// The set-up of tracks and metadata: what is accepted, in what order, and what the file then holds.
#include "support/check.h"
#include "support/reads_as.h"
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kVideo = "moov/trak.vide/mdia/minf/stbl/";
const std::string kAudio = "moov/trak.soun/mdia/minf/stbl/";
constexpr char kSearches[] = "info no codec data in video track info, try to find it in stream";
constexpr char kDropped[] = "warning no codec data, drop frame";

const Bytes kCode = Hex("00 00 01");

std::uint32_t Id(const BoxFile& file, const std::string& track)
{
    return file.U32(file.Find("moov/" + track + "/tkhd").begin + 20);
}

}  // namespace

// ---- Video -----------------------------------------------------------------------------------

TEST(AnHevcRecord, WithAllThreeSetsIsComplete)
{
    Recording rec;
    const mp4_video_track_info info = HevcRecord();
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    EXPECT_FALSE(rec.Log().Has(kSearches));
    EXPECT_EQ(rec.Video(Unit(0x26), 0), 0u);
    EXPECT_EQ(Words(rec.Close().Box(kVideo + "stsz"), 12), (Numbers{14, 1}));
}

TEST(AnHevcRecord, WithoutAnyOfTheThreeSearchesTheStreamAndDropsFrames)
{
    for (int missing = 0; missing < 3; ++missing) {
        Recording rec;
        mp4_video_track_info info = HevcRecord();
        (missing == 0 ? info.vps_size : missing == 1 ? info.sps_size : info.pps_size) = 0;
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
        EXPECT_EQ(rec.Log().Count(kSearches), 1u);
        EXPECT_EQ(rec.Video(Unit(0x26), 0), 0u);
        EXPECT_EQ(rec.Log().Count(kDropped), 1u);
        // The record's own sets are not kept: all three must come.
        EXPECT_EQ(rec.Video(kCode + HevcVps() + Unit(0x26), 40), 0u);
        EXPECT_EQ(rec.Log().Count(kDropped), 2u);
        EXPECT_EQ(rec.Video(kCode + HevcSps() + kCode + HevcPps() + Unit(0x26), 80), 0u);
        const BoxFile file = rec.Close();
        EXPECT_EQ(Words(file.Box(kVideo + "stsz"), 16), (Numbers{1}));
        EXPECT_THAT(file.Complaints(), IsEmpty());
    }
}

TEST(AnH264Record, WithoutEitherSetSearchesTheStreamAndDropsFrames)
{
    for (const bool sps : {true, false}) {
        Recording rec;
        mp4_video_track_info info{};
        info.sps = Sps().data();
        info.pps = Pps().data();
        (sps ? info.sps_size : info.pps_size) = 6;
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
        EXPECT_EQ(rec.Log().Count(kSearches), 1u);
        EXPECT_EQ(rec.Video(Unit(0x65), 0), 0u);
        EXPECT_EQ(rec.Log().Count(kDropped), 1u);
        EXPECT_FALSE(rec.Close().Has("moov/trak"));
    }
}

TEST(AProResRecord, IsCompleteWithoutParameterSets)
{
    for (std::uint32_t format = 0; format < 6; ++format) {
        Recording rec("clip.mov");
        EXPECT_EQ(rec.SetProRes(format), 0u);
        EXPECT_FALSE(rec.Log().Has(kSearches));
        EXPECT_EQ(rec.Video(Bytes(50, 9), 0), 0u);
        EXPECT_EQ(rec.Video(Bytes(40, 9), 40), 0u);
        const BoxFile file = rec.Close();
        const char* const types[] = {"apco", "apcs", "apcn", "apch", "ap4h", "ap4x"};
        EXPECT_THAT(file.Children(kVideo + "stsd"), ElementsAre(types[format]));
        EXPECT_THAT(CheckFile(file.All(), true), IsEmpty());
    }
}

TEST(AProResRecord, OfAnUnknownFormatIsRecordedWithoutAnEntryType)
{
    Recording rec("clip.mov");
    EXPECT_EQ(rec.SetProRes(6), 0u);
    EXPECT_EQ(rec.Video(Bytes(50, 9), 0), 0u);
    const BoxFile file = rec.Close();
    const std::size_t entry = file.Find(kVideo + "stsd").begin + 16;
    EXPECT_EQ(file.U32(entry), 112u);
    EXPECT_EQ(file.U32(entry + 4), 0u);
}

TEST(ASecondVideoRecord, TakesAnotherIdAndKeepsTheSamples)
{
    Recording rec;
    EXPECT_EQ(rec.SetH264(1000), 0u);
    rec.FramesAt({0, 40});
    EXPECT_EQ(rec.SetH264(500), 0u);
    rec.FramesAt({80});
    const BoxFile file = rec.Close();
    EXPECT_EQ(Id(file, "trak.vide"), 2u);
    EXPECT_THAT(file.Box("moov/trak.vide/mdia/mdhd"), ReadsAs("mdhd  120/500 und"));
    EXPECT_THAT(file.Box(kVideo + "stsz"), ReadsAs("stsz  3 x 14"));
    // The new id differs from that of the sample before.
    EXPECT_THAT(file.Box(kVideo + "stsc"), ReadsAs("stsc  1:2, 2:1"));
}

// What ProRes brought stays in the entry, but for the type and the depth that follows it.
TEST(ASecondVideoRecord, OfH264BehindProResMixesBothInTheEntry)
{
    Recording rec("clip.mov");
    EXPECT_EQ(rec.SetProRes(MP4_PRORES_4444), 0u);
    EXPECT_EQ(rec.SetH264(), 0u);
    rec.FramesAt({0});
    const BoxFile file = rec.Close();
    const std::size_t entry = file.Find(kVideo + "stsd").begin + 16;
    EXPECT_EQ(file.Code(entry + 4), "avc1");
    EXPECT_EQ(file.Code(entry + 20), "appl");
    EXPECT_EQ(file.Dump(entry + 50, 6), "11 41 70 70 6C 65");  // 17, "Apple"
    EXPECT_EQ(file.U16(entry + 82), 0x18u);
    EXPECT_THAT(file.Children(kVideo + "stsd/avc1"), ElementsAre("fiel", "pasp", "avcC"));
}

// ---- Audio -----------------------------------------------------------------------------------

TEST(AnAudioRecord, WithoutChannelsOrRateGives4)
{
    Recording rec;
    const mp4_audio_track_info mute{1000, 0, MP4_AUDIO_AAC_RAW, 48000, 0, 2};
    const mp4_audio_track_info still{1000, 0, MP4_AUDIO_AAC_RAW, 0, 2, 2};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &mute), 4u);
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &still), 4u);
    EXPECT_TRUE(rec.Log().Has("error invalid audio channel(0) or sample rate(48000)"));
    EXPECT_TRUE(rec.Log().Has("error invalid audio channel(2) or sample rate(0)"));
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("mdat").size(), 38u);
    EXPECT_FALSE(file.Has("moov/trak"));
}

TEST(AnAudioRecord, OfMovFilesHasItsConfigurationInWave)
{
    Recording rec("clip.mov");
    rec.SetAac(48000);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(file.Children(kAudio + "stsd/mp4a"), ElementsAre("wave"));
    EXPECT_EQ(file.Box(kAudio + "stsd").size(), 0x9Fu);
    EXPECT_EQ(file.Box(kAudio + "stsd")[33], 1u);  // the entry's version
    const std::size_t moov = file.Box("moov").size();
    // 159 bytes against the constant 96.
    EXPECT_TRUE(rec.Log().Has("warning calc size(" + std::to_string(moov - 63) +
                              ") not equal to moov real size:" + std::to_string(moov)));
}

TEST(AnAudioRecord, OfMp4FilesHasItsConfigurationInTheEntry)
{
    Recording rec;
    rec.SetAac(48000);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(file.Children(kAudio + "stsd/mp4a"), ElementsAre("esds"));
    EXPECT_EQ(file.Box(kAudio + "stsd").size(), 103u);
    EXPECT_EQ(file.Box(kAudio + "stsd")[33], 0u);
}

TEST(AnAudioRecord, GivesALoneSampleTheLow32BitsOfItsDuration)
{
    Recording rec;
    rec.SetAac(48000, 0x100000400);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    EXPECT_EQ(Words(rec.Close().Box(kAudio + "stts"), 12), (Numbers{1, 1, 0x400}));
}

// The refused record is not kept: the ADTS track goes on waiting no more, with its old record.
TEST(AnAudioRecord, ThatIsRefusedBehindAdtsEndsTheWait)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 7u);
    const mp4_audio_track_info mute{1000, 0, MP4_AUDIO_AAC_RAW, 48000, 0, 2};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &mute), 4u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    EXPECT_FALSE(rec.Close().Has("moov/trak"));
}

TEST(AnAudioRecord, OfAnUnknownCodecPassesWithoutALineAndHasNoEntryType)
{
    Recording rec;
    const std::size_t lines = rec.Log().Lines().size();
    const mp4_audio_track_info other{1000, 0, 3, 0, 0, 0};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &other), 0u);
    EXPECT_EQ(rec.Log().Lines().size(), lines);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    EXPECT_THAT(rec.Close().Children(kAudio + "stsd"), ElementsAre(std::string(4, '\0')));
}

TEST(AnAdtsRecord, PassesWithoutARateAndLogsThatItWaits)
{
    Recording rec;
    const mp4_audio_track_info adts{1000, 0, MP4_AUDIO_AAC_ADTS, 0, 0, 0};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &adts), 0u);
    EXPECT_EQ(rec.Log().Count("info audio codec is adts, wait audio stream to get meta data"), 1u);
    EXPECT_FALSE(rec.Close().Has("moov/trak"));
}

// They open a chunk behind the video, which the id that comes later takes over.
TEST(AudioAheadOfItsRecord, BelongsToTheTrackOnceItIsSet)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({0});
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    rec.FramesAt({40});
    EXPECT_EQ(rec.SetAac(), 0u);
    EXPECT_EQ(rec.Audio(Bytes(31, 1), 40), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Id(file, "trak.soun"), 2u);
    EXPECT_THAT(file.Box(kAudio + "stsz"), ReadsAs("stsz  30, 31"));
    EXPECT_THAT(file.Box(kAudio + "stco"), ReadsAs("stco  58, 102"));
    EXPECT_THAT(CheckFile(file.All(), true), IsEmpty());
}

// ---- Several tracks --------------------------------------------------------------------------

TEST(TracksThatTakeTurns, HaveAChunkForEachSample)
{
    Recording rec;
    rec.SetH264();
    rec.SetAac();
    for (const std::uint64_t time : {0u, 40u, 80u}) {
        rec.FramesAt({time});
        EXPECT_EQ(rec.Audio(Bytes(30, 1), time), 0u);
    }
    const BoxFile file = rec.Close();
    for (const std::string& track : {kVideo, kAudio})
        EXPECT_EQ(Words(file.Box(track + "stsc"), 12), (Numbers{1, 1, 1, 1}));
    EXPECT_EQ(Words(file.Box(kVideo + "stco"), 12), (Numbers{3, 44, 88, 132}));
    EXPECT_EQ(Words(file.Box(kAudio + "stco"), 12), (Numbers{3, 58, 102, 146}));
}

TEST(ChunksOfThreeThreeTwoAndThree, HaveThreeRuns)
{
    Recording rec;
    rec.SetH264();
    rec.SetAac();
    std::uint64_t time = 0;
    for (const int samples : {3, 3, 2, 3}) {
        for (int i = 0; i < samples; ++i)
            rec.FramesAt({time += 40});
        rec.Audio(Bytes(30, 1), time);
    }
    const BoxFile file = rec.Close();
    EXPECT_THAT(file.Box(kVideo + "stsc"), ReadsAs("stsc  1:3, 3:2, 4:3"));
    EXPECT_THAT(file.Box(kAudio + "stsc"), ReadsAs("stsc  1:1"));
    EXPECT_THAT(CheckFile(file.All(), true), IsEmpty());
}

TEST(AFileOfAllFourTracks, HasItsHandlersAndLanguagesInBothKinds)
{
    for (const std::string name : {"clip.mp4", "clip.mov"}) {
        Recording rec(name, MP4_OPEN_VERSION1 | MP4_OPEN_LARGE_FILE);
        rec.SetH264();
        rec.SetAac();
        const mp4_time_code_track_info timeCode{25, 1, 25, 0};
        const mp4_subtitle_track_info captions{MP4_SUBTITLE_CEA608, 0};
        EXPECT_EQ(mp4_set_time_code_track(rec.Handle(), &timeCode), 0u);
        EXPECT_EQ(mp4_set_subtitle_track(rec.Handle(), &captions), 0u);
        const Bytes caption = Hex("61 01 02  00 94 20");
        rec.FramesAt({0, 40});
        rec.Audio(Bytes(30, 1), 0);
        EXPECT_EQ(mp4_write_time_code(rec.Handle(), 1), 0u);
        EXPECT_EQ(mp4_write_subtitle_frame(rec.Handle(), caption.data(), 6, 0), 0u);
        const BoxFile file = rec.Close();
        EXPECT_THAT(file.Complaints(), IsEmpty());
        const std::pair<const char*, std::size_t> handlers[] = {
            {"vide", 45}, {"soun", 45}, {"tmcd", 48}, {"clcp", 44}};
        for (const auto& [handler, size] : handlers) {
            const std::string mdia = std::string("moov/trak.") + handler + "/mdia/";
            const bool wide = size == 45;  // video and audio alone have version 1 and co64
            EXPECT_EQ(file.Box(mdia + "hdlr").size(), size);
            EXPECT_EQ(file.Box(mdia + "minf/hdlr").size(), 44u);
            EXPECT_EQ(file.Box(mdia + "mdhd").size(), wide ? 44u : 32u);
            EXPECT_EQ(file.Dump(file.Find(mdia + "mdhd").end - 4, 4), "55 C4 00 00");
            EXPECT_EQ(file.Has(mdia + "minf/stbl/stco"), std::string(handler) == "clcp");
        }
    }
}

// ---- Metadata --------------------------------------------------------------------------------

TEST(Metadata, CanComeAtAnyTimeBeforeTheClose)
{
    Recording rec;
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "title", "early"), 0u);
    rec.SetH264();
    rec.FramesAt({0, 40});
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "title", "late"), 0u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "com.", "free"), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("moov/udta/meta/keys"),
              Hex("0000001C 'keys' 00000000 00000001 0000000C 'mdta' 'com.'"));
    EXPECT_EQ(file.Box("moov/udta/meta/ilst"),
              Hex("00000040 'ilst' 0000001C A9'nam' 00000014 'data' 00000001 00000000 'late'"
                  "0000001C 00000001 00000014 'data' 00000001 00000000 'free'"));
}

TEST(Metadata, IsTheSameInMovFiles)
{
    Recording rec("clip.mov");
    EXPECT_EQ(rec.Close().Box("moov/udta"),
              Hex("0000003D 'udta' 00000035 'meta' 00000000 00000021 'hdlr' 00000000 00000000"
                  "'mdir' 'appl' 00000000 00000000 00 00000008 'ilst'"));
}

TEST(Metadata, ThatIsRefusedLogsNothing)
{
    Recording rec;
    const std::size_t lines = rec.Log().Lines().size();
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "titel", "A"), 4u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), nullptr, "A"), 4u);
    EXPECT_EQ(mp4_set_metadata(rec.Handle(), "com.x", nullptr), 4u);
    EXPECT_EQ(rec.Log().Lines().size(), lines);
}
