// The simplified front end: its flags, its conversions, and the functions it passes through to.
#include "support/recording.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kvtest;
using testing::ElementsAre;
using Numbers = std::vector<std::uint32_t>;

namespace {

// A file of the front end in a folder of its own. The first open of a process replaces spdlog's
// default logger: a LogCapture is made behind one.
class Simple {
public:
    explicit Simple(const std::string& name = "clip.mp4") : path(m_folder / name)
    {
        file = kv_mp4_open(path.string().c_str());
        EXPECT_NE(file, nullptr);
    }
    ~Simple()
    {
        if (file)
            kv_mp4_close(file);
    }
    Simple(const Simple&) = delete;
    Simple& operator=(const Simple&) = delete;
    BoxFile Close()
    {
        EXPECT_EQ(kv_mp4_close(file), 0u);
        file = nullptr;
        return BoxFile::Read(path);
    }
    std::filesystem::path InfoPath() const { return path.string() + ".info"; }

private:
    Folder m_folder;

public:
    const std::filesystem::path path;
    mp4_handle file = nullptr;
};

}  // namespace

// ---- Opening ---------------------------------------------------------------------------------

TEST(SimpleOpen, MakesALargeFileWithAnInfoFileAndNothingElse)
{
    Simple first;
    LogCapture log;
    Simple second;
    EXPECT_TRUE(log.Has("info mp4 flag is 18"));
    EXPECT_FALSE(log.Has("info safe mode open"));
    EXPECT_TRUE(log.Has("info fast header write disabled"));
    EXPECT_TRUE(std::filesystem::exists(second.InfoPath()));
    const BoxFile file = second.Close();
    EXPECT_FALSE(std::filesystem::exists(second.InfoPath()));
    // A 64-bit size behind the mark 1.
    EXPECT_EQ(file.Box("mdat"), Hex("00000001 'mdat' 0000000000000010"));
}

TEST(SimpleOpen, LogsTheFlagsIntoTheInfoFile)
{
    Simple simple;
    EXPECT_EQ(BoxFile::Read(simple.InfoPath()).All(), Hex("12 00000024"));
}

TEST(SimpleOpen, TakesWidePathsToo)
{
    Folder folder;
    const std::wstring path = (folder / "").wstring() + L"\u00E4.mov";
    const mp4_handle file = kv_mp4_open_ex(path.c_str());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(kv_mp4_close(file), 0u);
    const Bytes bytes = BoxFile::Read(folder / "\xC3\xA4.mov").All();
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 20),
              Hex("00000014 'ftyp' 'qt  ' 00000200 'qt  '"));
}

TEST(SimpleOpen, OfAPathOf1023CharactersIsNullAndOnlyTheLogTellsWhy)
{
    Simple first;
    LogCapture log;
    Folder folder;
    std::string path = (folder / "").string();
    while (path.size() < 1023)
        path += "./";
    path.resize(1023);
    EXPECT_EQ(kv_mp4_open(path.c_str()), nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre("error file path reach the max path size 1024"));
    EXPECT_TRUE(folder.IsEmpty());
}

// The name of the info file is the tighter limit here.
TEST(SimpleOpen, LetsPathsHave1018Characters)
{
    for (const std::size_t length : {1018u, 1019u}) {
        Folder folder;
        std::string path = (folder / "").string();
        while (path.size() + 5 < length)
            path += path.size() + 7 <= length ? "./" : "a";
        path += ".mp4.";
        path.resize(length, 'b');
        const mp4_handle file = kv_mp4_open(path.c_str());
        EXPECT_EQ(file != nullptr, length == 1018) << length;
        const std::wstring wide = std::filesystem::path(path).wstring();
        if (file)
            EXPECT_EQ(kv_mp4_close(file), 0u);
        else
            EXPECT_EQ(kv_mp4_open_ex(wide.c_str()), nullptr);
    }
}

TEST(SimpleOpen, IsNullWhenItFails)
{
    EXPECT_EQ(kv_mp4_open(nullptr), nullptr);
    EXPECT_EQ(kv_mp4_open_ex(nullptr), nullptr);
    EXPECT_EQ(kv_mp4_open("/nowhere/at/all/clip.mp4"), nullptr);
    EXPECT_EQ(kv_mp4_open_ex(L"/nowhere/at/all/clip.mp4"), nullptr);
    EXPECT_EQ(kv_mp4_open("\xFF\xFE.mp4"), nullptr);
}

// ---- Video -----------------------------------------------------------------------------------

namespace {

kv_mp4_video_info H264(std::uint32_t timescale = 90000)
{
    kv_mp4_video_info info{};
    info.codec = 1;
    info.timescale = timescale;
    info.width = 160;
    info.height = 120;
    info.sps = Sps().data();
    info.sps_size = static_cast<std::int16_t>(Sps().size());
    info.pps = Pps().data();
    info.pps_size = static_cast<std::int16_t>(Pps().size());
    return info;
}

std::uint32_t Video(mp4_handle file, const Bytes& frame, std::uint64_t time)
{
    return kv_mp4_write_video(file, frame.data(), static_cast<std::uint32_t>(frame.size()), time);
}

}  // namespace

TEST(SimpleVideo, OfCodec1IsH264WithItsParameterSets)
{
    Simple simple;
    kv_mp4_video_info info = H264();
    EXPECT_EQ(kv_mp4_set_video(simple.file, &info), 0u);
    EXPECT_EQ(Video(simple.file, Unit(0x65), 0), 0u);
    EXPECT_EQ(Video(simple.file, Unit(0x61), 3000), 0u);
    const BoxFile file = simple.Close();
    EXPECT_THAT(Samples(file, "trak.vide"),
                ElementsAre(Hex("0000000A 65") + Bytes(9, 0xAB), Hex("0000000A 61") + Bytes(9, 0xAB)));
    const std::string media = "moov/trak.vide/mdia/";
    EXPECT_EQ(Words(file.Box(media + "mdhd"), 20), (Numbers{90000, 6000, 0x55C40000}));
    const Bytes entry = file.Box(media + "minf/stbl/stsd/avc1");
    ASSERT_GT(entry.size(), 86u);
    EXPECT_EQ(Bytes(entry.begin() + 32, entry.begin() + 36), Hex("00A0 0078"));
    EXPECT_TRUE(file.Has(media + "minf/stbl/co64"));
}

// The library's record counts from 0; 0 there is H.264.
TEST(SimpleVideo, OfAnyCodecBut1And2Gives10AndChangesNothing)
{
    Simple simple;
    LogCapture log;
    for (const std::uint32_t codec : {0u, 3u, 0xFFFFFFFFu}) {
        kv_mp4_video_info info = H264();
        info.codec = codec;
        EXPECT_EQ(kv_mp4_set_video(simple.file, &info), 10u);
    }
    EXPECT_THAT(log.Lines(), testing::IsEmpty());
    EXPECT_EQ(Video(simple.file, Unit(0x65), 0), 9u);  // there is no track
}

TEST(SimpleVideo, WithoutParameterSetsTakesThemFromTheStream)
{
    Simple simple;
    LogCapture log;
    kv_mp4_video_info info{};
    info.codec = 1;
    EXPECT_EQ(kv_mp4_set_video(simple.file, &info), 0u);
    EXPECT_TRUE(log.Has("info no codec data in video track info, try to find it in stream"));
    EXPECT_EQ(Video(simple.file, Unit(0x65), 0), 0u);  // dropped
    EXPECT_EQ(Video(simple.file, Hex("000001") + Sps() + Hex("000001") + Pps() + Unit(0x65), 40),
              0u);
    EXPECT_EQ(Samples(simple.Close(), "trak.vide").size(), 1u);
}

TEST(SimpleVideo, HasNoDurationForALoneFrame)
{
    Simple simple;
    kv_mp4_video_info info = H264(0);
    EXPECT_EQ(kv_mp4_set_video(simple.file, &info), 0u);
    EXPECT_EQ(Video(simple.file, Unit(0x65), 25), 0u);
    const BoxFile file = simple.Close();
    EXPECT_EQ(Words(file.Box("moov/trak.vide/mdia/minf/stbl/stts"), 12), (Numbers{1, 1, 0}));
    EXPECT_EQ(Words(file.Box("moov/trak.vide/mdia/mdhd"), 20)[0], 1000u);
}

// The VPS is not looked at for H.264, but needed for HEVC.
TEST(SimpleVideo, OfCodec2IsHevcAndNeedsAVps)
{
    for (const std::uint32_t codec : {1u, 2u}) {
        Simple simple;
        LogCapture log;
        kv_mp4_video_info info = H264();
        info.codec = codec;
        EXPECT_EQ(kv_mp4_set_video(simple.file, &info), 0u);
        EXPECT_EQ(log.Count("info no codec data in video track info, try to find it in stream"),
                  codec - 1);
    }
}

TEST(SimpleVideo, OfCodec2CopiesAllThreeSets)
{
    Simple simple;
    LogCapture log;
    const Bytes vps = Hex("40 01 0C"), sps = Hex("42 01 0D"), pps = Hex("44 01 0E");
    const kv_mp4_video_info info{2, 0, 160, 120, sps.data(), 3, pps.data(), 3, vps.data(), 3};
    EXPECT_EQ(kv_mp4_set_video(simple.file, &info), 0u);
    EXPECT_THAT(log.Lines(), testing::Not(testing::Contains(testing::HasSubstr("no codec data"))));
    // The packet of the track, still in the log's buffer, goes out with ten frames.
    EXPECT_EQ(mp4_repair_set_flush_interval(simple.file, 10), 4u);
    for (std::uint64_t time = 0; time < 10; ++time)
        EXPECT_EQ(Video(simple.file, Hex("000001 26 01 AF"), time), 0u);
    const Bytes logged = BoxFile::Read(simple.InfoPath()).All();
    ASSERT_GT(logged.size(), 44u);
    EXPECT_EQ(Bytes(logged.begin() + 5, logged.begin() + 44),
              Hex("02 00000000 0000000000000000 01 00A0 0078"
                  "00000003 40010C 00000003 42010D 00000003 44010E"));
}

// ---- Audio -----------------------------------------------------------------------------------

TEST(SimpleAudio, OfCodec1CopiesItsRecord)
{
    Simple simple;
    const kv_mp4_audio_info info{1, 44100, 44100, 1, 2};
    EXPECT_EQ(kv_mp4_set_audio(simple.file, &info), 0u);
    const Bytes frame(20, 0x21);
    EXPECT_EQ(kv_mp4_write_audio(simple.file, frame.data(), 20, 0), 0u);
    EXPECT_EQ(kv_mp4_write_audio(simple.file, frame.data(), 20, 1024), 0u);
    const BoxFile file = simple.Close();
    EXPECT_THAT(Samples(file, "trak.soun"), ElementsAre(frame, frame));
    EXPECT_EQ(Words(file.Box("moov/trak.soun/mdia/mdhd"), 20)[0], 44100u);
    const Bytes entry = file.Box("moov/trak.soun/mdia/minf/stbl/stsd/mp4a");
    ASSERT_EQ(entry.size(), 36u + 51u);
    EXPECT_EQ(Bytes(entry.begin() + 32, entry.begin() + 34), Hex("AC44"));
    EXPECT_EQ(Bytes(entry.end() - 8, entry.end() - 6), Hex("1208"));  // LC, 44100, one channel
}

TEST(SimpleAudio, OfCodec1WithoutARateOrChannelsGives4)
{
    Simple simple;
    const kv_mp4_audio_info rate{1, 48000, 0, 2, 2}, channels{1, 48000, 48000, 0, 2};
    EXPECT_EQ(kv_mp4_set_audio(simple.file, &rate), 4u);
    EXPECT_EQ(kv_mp4_set_audio(simple.file, &channels), 4u);
}

TEST(SimpleAudio, OfCodec2TakesRateAndChannelsFromTheStream)
{
    for (const std::uint8_t nonsense : {std::uint8_t{0}, std::uint8_t{7}}) {
        Simple simple;
        const kv_mp4_audio_info info{2, 48000, nonsense, nonsense, nonsense};
        EXPECT_EQ(kv_mp4_set_audio(simple.file, &info), 0u);
        const Bytes adts = Hex("FF F1 4C 80 01 1F FC") + Bytes(20, 0x21);  // LC, 48000, stereo
        EXPECT_EQ(kv_mp4_write_audio(simple.file, adts.data(), 27, 0), 0u);
        const BoxFile file = simple.Close();
        EXPECT_THAT(Samples(file, "trak.soun"), ElementsAre(Bytes(20, 0x21)));
        const Bytes entry = file.Box("moov/trak.soun/mdia/minf/stbl/stsd/mp4a");
        ASSERT_EQ(entry.size(), 36u + 51u);
        EXPECT_EQ(Bytes(entry.begin() + 32, entry.begin() + 34), Hex("BB80"));
        EXPECT_EQ(Bytes(entry.end() - 8, entry.end() - 6), Hex("1190"));
    }
}

TEST(SimpleAudio, OfAnyOtherCodecGives10)
{
    Simple simple;
    for (const std::uint32_t codec : {0u, 3u, 0xFFFFFFFFu}) {
        const kv_mp4_audio_info info{codec, 48000, 48000, 2, 2};
        EXPECT_EQ(kv_mp4_set_audio(simple.file, &info), 10u);
    }
}

// ---- Captions --------------------------------------------------------------------------------

TEST(SimpleCaptions, OfBothCodecsBecomeTheirTracks)
{
    for (const std::uint32_t codec : {1u, 2u}) {
        Simple simple("clip.mov");
        const kv_mp4_subtitle_info info{codec, 30000};
        EXPECT_EQ(kv_mp4_set_subtitle(simple.file, &info), 0u);
        const Bytes frame = Hex(codec == 1 ? "61 02 00  00 94 20" : "61 01 02  96 69");
        EXPECT_EQ(kv_mp4_write_subtitle(simple.file, frame.data(),
                                        static_cast<std::uint32_t>(frame.size()), 0),
                  0u);
        const BoxFile file = simple.Close();
        const std::string sample = codec == 1 ? "'cdat' 94 20" : "'ccdp' 96 69";
        EXPECT_THAT(Samples(file, "trak.clcp"), ElementsAre(Hex("0000000A" + sample)));
        EXPECT_TRUE(file.Has(std::string("moov/trak.clcp/mdia/minf/stbl/stsd/") +
                             (codec == 1 ? "c608" : "c708")));
        EXPECT_EQ(Words(file.Box("moov/trak.clcp/mdia/mdhd"), 20)[0], 30000u);
        EXPECT_FALSE(file.Has("moov/trak.clcp/mdia/minf/stbl/co64"));
    }
}

// Unlike the full function, which leaves it to the frames.
TEST(SimpleCaptions, OfAnyOtherCodecGive10AndNoTrack)
{
    Simple simple;
    LogCapture log;
    for (const std::uint32_t codec : {0u, 3u, 0xFFFFFFFFu}) {
        const kv_mp4_subtitle_info info{codec, 1000};
        EXPECT_EQ(kv_mp4_set_subtitle(simple.file, &info), 10u);
    }
    const Bytes frame = Hex("61 02 00  00 94 20");
    EXPECT_EQ(kv_mp4_write_subtitle(simple.file, frame.data(), 6, 0), 6u);
    EXPECT_THAT(log.Lines(), ElementsAre("error unknown subtitle codec type 0"));
}

// ---- Handles ---------------------------------------------------------------------------------

TEST(SimpleRecords, AreTestedBeforeTheHandle)
{
    kv_mp4_video_info video{};
    kv_mp4_audio_info audio{};
    kv_mp4_subtitle_info captions{};
    EXPECT_EQ(kv_mp4_set_video(nullptr, &video), 10u);
    EXPECT_EQ(kv_mp4_set_audio(nullptr, &audio), 10u);
    EXPECT_EQ(kv_mp4_set_subtitle(nullptr, &captions), 10u);
    EXPECT_EQ(kv_mp4_set_video(nullptr, nullptr), 4u);
    EXPECT_EQ(kv_mp4_set_audio(nullptr, nullptr), 4u);
    EXPECT_EQ(kv_mp4_set_subtitle(nullptr, nullptr), 4u);
    video.codec = audio.codec = captions.codec = 1;
    EXPECT_EQ(kv_mp4_set_video(nullptr, &video), 2u);
    EXPECT_EQ(kv_mp4_set_audio(nullptr, &audio), 2u);
    EXPECT_EQ(kv_mp4_set_subtitle(nullptr, &captions), 2u);
}

TEST(SimpleFunctions, WithANullHandleAnswerAsTheirFullOnes)
{
    LogCapture log;
    const std::uint8_t byte = 0;
    EXPECT_EQ(kv_mp4_write_video(nullptr, &byte, 1, 0), 2u);
    EXPECT_EQ(kv_mp4_write_audio(nullptr, &byte, 1, 0), 2u);
    EXPECT_EQ(kv_mp4_write_subtitle(nullptr, &byte, 1, 0), 2u);
    EXPECT_EQ(kv_mp4_close(nullptr), 2u);
    EXPECT_EQ(log.Count("error null handle"), 4u);
}

TEST(SimpleFunctions, TakeHandlesOfTheFullOnesAndTheReverse)
{
    Recording rec;
    kv_mp4_video_info info = H264();
    EXPECT_EQ(kv_mp4_set_video(rec.Handle(), &info), 0u);
    EXPECT_EQ(Video(rec.Handle(), Unit(0x65), 0), 0u);
    EXPECT_EQ(Samples(rec.Close(), "trak.vide").size(), 1u);

    Simple simple;
    EXPECT_EQ(mp4_set_metadata(simple.file, "title", "A"), 0u);
    const mp4_handle file = simple.file;
    simple.file = nullptr;
    EXPECT_EQ(mp4_close_file(file), 0u);
    EXPECT_EQ(kv_mp4_close(file), 2u);
}

// Also a size of more than 16 bits and a time of more than 32: 2^32 / 48000 seconds.
TEST(SimpleFunctions, ForwardAllArguments)
{
    Simple simple;
    const kv_mp4_audio_info audio{1, 48000, 48000, 2, 2};
    EXPECT_EQ(kv_mp4_set_audio(simple.file, &audio), 0u);
    const Bytes frame(70000, 0x21);
    EXPECT_EQ(kv_mp4_write_audio(simple.file, frame.data(), 70000, 0), 0u);
    EXPECT_EQ(kv_mp4_write_audio(simple.file, frame.data(), 70000, 0x1'0000'0000), 0u);
    const BoxFile file = simple.Close();
    EXPECT_THAT(Samples(file, "trak.soun"), ElementsAre(frame, frame));
    EXPECT_EQ(file.U32(file.Find("moov/trak.soun/tkhd").begin + 28), 89478485u);
}
