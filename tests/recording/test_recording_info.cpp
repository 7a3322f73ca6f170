// The packets of the info file, byte by byte, and when they reach the system.
#include "support/kept_log.h"
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>

using namespace kvtest;

namespace {

// A recording with its log; what is printed is kept away.
class Logged {
public:
    explicit Logged(const std::string& name = "clip.mp4", std::uint8_t flags = 0)
        : rec(name, static_cast<std::uint8_t>(flags | MP4_OPEN_INFO_FILE)), log(rec.InfoPath())
    {
    }
    mp4_handle File() const { return rec.Handle(); }
    // The packets, after a close with this status.
    Bytes Packets(std::uint32_t status = 0)
    {
        EXPECT_EQ(rec.CloseStatus(), status);
        const Bytes all = log.Read();
        EXPECT_EQ(Bytes(all.begin(), all.begin() + 5), Hex("10 00000024"));
        return {all.begin() + 5, all.end()};
    }

private:
    StdoutCapture m_quiet;

public:
    Recording rec;
    KeptLog log;
};

std::uint32_t Flush(Logged& file, std::uint32_t interval)
{
    return mp4_repair_set_flush_interval(file.File(), interval);
}

}  // namespace

// ---- The header --------------------------------------------------------------------------------

TEST(TheHeaderOfTheInfoFile, HoldsTheFlagsAsGivenAndThePlaceOfMdat)
{
    for (const std::uint8_t flags : Hex("10 11 12 13 18 30 3B D0 FF")) {
        for (const bool quickTime : {false, true}) {
            Recording rec(quickTime ? "clip.mov" : "clip.mp4", flags);
            EXPECT_EQ(BoxFile::Read(rec.InfoPath()).All(),
                      Bytes{flags} + Hex(quickTime ? "00000014" : "00000024"));
            const StdoutCapture quiet;
            rec.CloseStatus();
        }
    }
}

namespace {

std::filesystem::path g_seenAtOpen;
bool g_infoWasThere = false;

}  // namespace

TEST(TheInfoFile, IsThereBeforeTheOutput)
{
    Folder folder;
    g_seenAtOpen = folder / "clip.mp4.info";
    g_infoWasThere = false;
    ExternalSink sink;
    ExternalIoFuncs table = *sink.Table();
    static const auto open = table.open;
    table.open = [](void** context, const wchar_t* path, std::uint32_t size,
                    std::uint32_t count) -> std::uint8_t {
        g_infoWasThere = std::filesystem::exists(g_seenAtOpen);
        return open(context, path, size, count);
    };
    mp4_handle file = nullptr;
    const LogCapture log;
    ASSERT_EQ(mp4_create_file_adv_ex((folder / "clip.mp4").string().c_str(), MP4_OPEN_INFO_FILE,
                                     0, 0, MP4_IO_EXTERNAL, &table, &file),
              0u);
    EXPECT_TRUE(g_infoWasThere);
    EXPECT_EQ(mp4_close_file(file), 0u);
}

TEST(AnOlderInfoFile, IsOverwritten)
{
    Folder folder;
    const std::string path = (folder / "clip.mp4").string();
    std::ofstream(path + ".info") << "a longer log of a former capture";
    mp4_handle file = nullptr;
    const LogCapture log;
    ASSERT_EQ(mp4_create_file_adv_ex(path.c_str(), MP4_OPEN_INFO_FILE, 0, 0, MP4_IO_FILE, nullptr,
                                     &file),
              0u);
    EXPECT_EQ(BoxFile::Read(path + ".info").All(), Hex("10 00000024"));
    EXPECT_EQ(mp4_close_file(file), 0u);
}

// ---- Set-up packets ----------------------------------------------------------------------------

TEST(AVideoTrackPacket, HoldsTheRecordAndTheSetsOfH264)
{
    Logged file;
    mp4_video_track_info info{};
    info.sample_duration = 0x0102030405060708;  // the timescale stays 0
    info.width = 0x1234;
    info.height = 0x4321;
    const Bytes sps = Hex("67 64 00 0A 01");
    const Bytes pps = Hex("68 EB");
    info.sps = sps.data();
    info.sps_size = 5;
    info.pps = pps.data();
    info.pps_size = 2;
    EXPECT_EQ(mp4_set_video_track(file.File(), &info), 0u);
    EXPECT_EQ(file.Packets(), Hex("02 00000000 0102030405060708 00 1234 4321"
                                  "00000005 67 64 00 0A 01  00000002 68 EB"));
}

TEST(AVideoTrackPacket, HoldsTheThreeSetsOfHevcWithTheVpsFirst)
{
    Logged file;
    EXPECT_EQ(file.rec.SetHevc(90000), 0u);
    EXPECT_EQ(file.Packets(), Hex("02 00015F90 0000000000000000 01 00A0 0078  00000018") +
                                  HevcVps() + Hex("00000029") + HevcSps() + Hex("00000007") +
                                  HevcPps());
    EXPECT_EQ(HevcVps().size(), 0x18u);
    EXPECT_EQ(HevcSps().size(), 0x29u);
}

TEST(AVideoTrackPacket, HoldsTheLowByteOfTheProResFormat)
{
    for (const std::uint32_t format : {3u, 0x10203u}) {
        Logged file;
        EXPECT_EQ(file.rec.SetProRes(format), 0u);
        EXPECT_EQ(file.Packets(), Hex("02 00000000 0000000000000000 02 00A0 0078 03"));
    }
}

TEST(AVideoTrackPacket, ComesAtEachSetUpThatIsComplete)
{
    Logged file;
    file.rec.SetProRes(1);
    mp4_video_track_info info{};
    EXPECT_EQ(mp4_set_video_track(file.File(), &info), 0u);  // waits for the stream
    info.codec = 3;
    EXPECT_EQ(mp4_set_video_track(file.File(), &info), 5u);
    file.rec.SetProRes(2);
    EXPECT_EQ(file.Packets(), Hex("02 00000000 0000000000000000 02 00A0 0078 01"
                                  "02 00000000 0000000000000000 02 00A0 0078 02"));
}

// Neither the incomplete sets of the record nor their lengths.
TEST(AVideoTrackPacket, HoldsTheSetsFoundInTheStream)
{
    Logged file;
    mp4_video_track_info info{};
    info.timescale = 1000;
    info.width = 160;
    info.height = 120;
    const Bytes other = Hex("67 01 02 03");
    info.sps = other.data();
    info.sps_size = 4;
    EXPECT_EQ(mp4_set_video_track(file.File(), &info), 0u);
    const Bytes start = Hex("000001");
    EXPECT_EQ(file.rec.Video(Unit(0x41), 0), 0u);  // dropped, and not logged
    EXPECT_EQ(file.rec.Video(start + Sps() + start + Pps() + Unit(0x65, 5), 7), 0u);
    EXPECT_EQ(Sps().size() + Pps().size(), 30u);
    EXPECT_EQ(file.Packets(),
              Hex("02 000003E8 0000000000000000 00 00A0 0078  00000018") + Sps() +
                  Hex("00000006") + Pps() +
                  // Three units: 4 bytes for each length, 24 + 6 + 5 of their own.
                  Hex("04 0000000000000007 0000000000000007 01 0000002F"));
}

namespace {

// The packets of an H.264 track of 160x120 without sets, which the first frame brings: an SPS of
// `size` bytes and a PPS of two.
Bytes PacketsOfALongSps(std::size_t size, std::uint32_t closeStatus)
{
    Logged file;
    mp4_video_track_info info{};
    info.timescale = 1000;
    info.width = 160;
    info.height = 120;
    EXPECT_EQ(mp4_set_video_track(file.File(), &info), 0u);
    EXPECT_EQ(file.rec.Video(Unit(0x67, size) + Hex("000001 68 EE"), 0), 0u);
    return file.Packets(closeStatus);
}

}  // namespace

// 65536 is 0 in 16 bits: a set of no bytes. The index cannot hold it; that is the close's status.
TEST(AVideoTrackPacket, HoldsNoneOfASetOf65536Bytes)
{
    EXPECT_EQ(PacketsOfALongSps(65536, 1),
              Hex("02 000003E8 0000000000000000 00 00A0 0078 00000000 00000002 68EE"
                  "04 0000000000000000 0000000000000000 00 0001000A"));  // 4 + 65536 + 4 + 2
}

TEST(AVideoTrackPacket, HoldsTheBytesThatTheLow16BitsOfALengthLeave)
{
    EXPECT_EQ(PacketsOfALongSps(65560, 0),
              Hex("02 000003E8 0000000000000000 00 00A0 0078 00000018 67") + Bytes(23, 0xAB) +
                  Hex("00000002 68EE"
                      "04 0000000000000000 0000000000000000 00 00010022"));
}

TEST(AnAudioTrackPacket, HoldsTheRecord)
{
    Logged file;
    const mp4_audio_track_info info{0x01020304, 0x05060708090A0B0C, MP4_AUDIO_AAC_RAW,
                                    48000, 0x0102, 5};
    EXPECT_EQ(mp4_set_audio_track(file.File(), &info), 0u);
    const Bytes packet = Hex("03 01020304 05060708090A0B0C 01 BB80 0102 05");
    EXPECT_EQ(packet.size(), 19u);
    EXPECT_EQ(file.Packets(), packet);
}

TEST(AnAudioTrackPacket, HoldsAnyCodec)
{
    Logged file;
    const mp4_audio_track_info info{48000, 0, 7, 48000, 2, 2};
    EXPECT_EQ(mp4_set_audio_track(file.File(), &info), 0u);
    EXPECT_EQ(file.Packets(), Hex("03 0000BB80 0000000000000000 07 BB80 0002 02"));
}

TEST(AnAudioTrackPacket, IsNotWrittenForARefusedRecord)
{
    Logged file;
    const mp4_audio_track_info info{1000, 0, MP4_AUDIO_AAC_RAW, 48000, 0, 2};
    EXPECT_EQ(mp4_set_audio_track(file.File(), &info), 4u);
    EXPECT_EQ(file.Packets(), Bytes{});
}

// The header of the frame tells 44100, 2 channels and AAC LC; it is not part of the sample.
TEST(AnAudioTrackPacket, WaitsForTheFirstAdtsFrame)
{
    Logged file;
    EXPECT_EQ(file.rec.SetAdts(44100), 0u);
    EXPECT_EQ(file.rec.Audio(Hex("00 00 00 00 00 00 00 00"), 0), 7u);  // no ADTS frame
    const Bytes frame = Hex("FF F1 50 80 01 7F FC  21 10 05 06");
    EXPECT_EQ(file.rec.Audio(frame, 0x1'0000'0000), 0u);
    EXPECT_EQ(file.rec.Audio(frame, 0x1'0000'0400), 0u);
    EXPECT_EQ(file.Packets(), Hex("03 0000AC44 0000000000000000 02 AC44 0002 02"
                                  "05 0000000100000000 00000004"
                                  "05 0000000100000400 00000004"));
}

// The reverse of the record's order.
TEST(ACaptionTrackPacket, HoldsTheTimescaleAheadOfTheCodec)
{
    Logged file;
    for (const mp4_subtitle_track_info info :
         {mp4_subtitle_track_info{MP4_SUBTITLE_CEA608, 0}, {MP4_SUBTITLE_CEA708, 0x01020304}})
        EXPECT_EQ(mp4_set_subtitle_track(file.File(), &info), 0u);
    EXPECT_EQ(file.Packets(), Hex("06 000003E8 01"  // 0 stands for 1000
                                  "06 01020304 02"));
}

TEST(ATimeCodeTrackPacket, HoldsTheRecord)
{
    Logged file;
    const mp4_time_code_track_info info{0x01020304, 0x0102030405060708, 30, 0xFFFFFFFF};
    EXPECT_EQ(mp4_set_time_code_track(file.File(), &info), 0u);
    EXPECT_EQ(file.Packets(), Hex("08 01020304 0102030405060708 1E FFFFFFFF"));
}

// ---- Sample packets ----------------------------------------------------------------------------

TEST(AVideoFramePacket, HoldsTheTimeTwiceTheKeyFlagAndTheBytesInTheFile)
{
    Logged file;
    file.rec.SetH264();
    EXPECT_EQ(file.rec.Video(Unit(0x65, 10), 0x0102030405060708), 0u);
    EXPECT_EQ(file.rec.Video(Unit(0x41, 10) + Unit(0x41, 3), 0x0102030405060709), 0u);
    const Bytes packets = file.Packets();
    const Bytes frames(packets.end() - 44, packets.end());
    EXPECT_EQ(frames, Hex("04 0102030405060708 0102030405060708 01 0000000E"
                          "04 0102030405060709 0102030405060709 00 00000015"));
}

TEST(AVideoFramePacket, HoldsThePlainSizeOfAProResPicture)
{
    Logged file;
    file.rec.SetProRes(2);
    EXPECT_EQ(file.rec.Video(Bytes(300, 1), 5), 0u);
    const Bytes packets = file.Packets();
    EXPECT_EQ(Bytes(packets.begin() + 19, packets.end()),
              Hex("04 0000000000000005 0000000000000005 01 0000012C"));
}

TEST(AnAudioFramePacket, HoldsTimeAndSize)
{
    Logged file;
    file.rec.SetAac();
    EXPECT_EQ(file.rec.Audio(Bytes(9, 1), 0x0102030405060708), 0u);
    const Bytes packets = file.Packets();
    EXPECT_EQ(Bytes(packets.begin() + 19, packets.end()), Hex("05 0102030405060708 00000009"));
}

TEST(TheInfoFile, HoldsNoFrameThatTheTreeDoesNot)
{
    Logged file;
    EXPECT_EQ(file.rec.Video(Unit(0x65), 0), 9u);
    file.rec.SetH264();
    EXPECT_EQ(file.rec.Video(Bytes(10, 0xAB), 0), 8u);
    EXPECT_EQ(file.rec.Video(Bytes{}, 0), 0u);
    EXPECT_EQ(file.Packets().size(), 18u + 8 + 24 + 6);  // the track alone
}

// ---- Metadata ----------------------------------------------------------------------------------

TEST(AMetadataPacket, HasItsTextsWithTheirEndMarks)
{
    Logged file;
    EXPECT_EQ(mp4_set_metadata(file.File(), "title", "A take"), 0u);
    EXPECT_EQ(mp4_set_metadata(file.File(), "artist", ""), 0u);
    EXPECT_EQ(file.Packets(), Hex("01 01 00000006 'title' 00 00000007 'A take' 00 00000000"
                                  "01 01 00000007 'artist' 00 00000001 00 00000000"));
}

// Type 1 is measured by its end mark, whatever size the caller gives.
TEST(AMetadataPacket, HasTheNamespaceWithItsEndMark)
{
    Logged file;
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "com.a", "xy", 77, 1, "mine"), 0u);
    EXPECT_EQ(file.Packets(), Hex("01 01 00000006 'com.a' 00 00000003 'xy' 00"
                                  "00000005 'mine' 00"));
}

TEST(AMetadataPacket, HasTheCallersBytesForAnyOtherType)
{
    Logged file;
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "com.b", "\1\0\2", 3, 0, nullptr), 0u);
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "com.n", "\1\2\3\4", 4, 21, nullptr), 0u);
    // The store keeps the text "abc" of these; the packet only its first two bytes.
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "com.t", "abc", 2, 7, nullptr), 0u);
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "title", "abc", 2, 0, nullptr), 0u);
    EXPECT_EQ(file.Packets(), Hex("01 00 00000006 'com.b' 00 00000003 01 00 02 00000000"
                                  "01 15 00000006 'com.n' 00 00000004 01 02 03 04 00000000"
                                  "01 07 00000006 'com.t' 00 00000002 'ab' 00000000"
                                  "01 00 00000006 'title' 00 00000002 'ab' 00000000"));
}

// Which is that of an integer here, and of nothing that the store knows.
TEST(AMetadataPacket, HasTheLowByteOfTheType)
{
    Logged file;
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "com.n", "ab", 2, 0x115, nullptr), 0u);
    EXPECT_EQ(file.Packets(), Hex("01 15 00000006 'com.n' 00 00000002 'ab' 00000000"));
}

TEST(AMetadataPacket, HasAnEmptyNamespaceAsItsEndMark)
{
    Logged file;
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "com.a", "x", 0, 1, ""), 0u);
    EXPECT_EQ(file.Packets(), Hex("01 01 00000006 'com.a' 00 00000002 'x' 00 00000001 00"));
}

// The store has no use for it.
TEST(AMetadataPacket, HasTheNamespaceOfANamedItemToo)
{
    Logged file;
    EXPECT_EQ(mp4_set_metadata_ex(file.File(), "title", "x", 0, 1, "mine"), 0u);
    EXPECT_EQ(file.Packets(),
              Hex("01 01 00000006 'title' 00 00000002 'x' 00 00000005 'mine' 00"));
}

TEST(AMetadataPacket, IsNotWrittenForARefusedKey)
{
    Logged file;
    EXPECT_EQ(mp4_set_metadata(file.File(), "nothing", "x"), 4u);
    EXPECT_EQ(mp4_set_metadata(file.File(), "com.x", nullptr), 4u);
    EXPECT_EQ(file.Packets(), Bytes{});
}

// ---- Flushes -----------------------------------------------------------------------------------

TEST(TheFlushInterval, BelowTenIsRefusedWith0)
{
    Logged file;
    for (const std::uint32_t interval : {0u, 9u})
        EXPECT_EQ(Flush(file, interval), 0u);
    EXPECT_EQ(Flush(file, 10), 4u);
    EXPECT_EQ(Flush(file, 0xFFFFFFFF), 4u);
}

TEST(TheFlushInterval, PrintsWhatBecameOfIt)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    StdoutCapture printed;
    for (const std::uint32_t interval : {9u, 10u, 0xFFFFFFFFu, 3u, 900u})
        mp4_repair_set_flush_interval(rec.Handle(), interval);
    EXPECT_EQ(printed.Take(), "ERROR:info file flush interval(9) too small\n"
                              "change info file flush interval from 900 to 10\n"
                              "change info file flush interval from 10 to -1\n"
                              "ERROR:info file flush interval(3) too small\n"
                              "change info file flush interval from -1 to 900\n");
}

namespace {

constexpr std::size_t kHead = 5 + 19;  // header and the ProRes track
constexpr std::size_t kFrame = 22;

// The video frame, counted from 1, behind which the whole log is with the system for the first time.
std::size_t FirstFlush(Logged& file, const std::function<void(std::size_t)>& before = {})
{
    file.rec.SetProRes(2);
    for (std::size_t n = 1; n < 2000; ++n) {
        if (before)
            before(n);
        EXPECT_EQ(file.rec.Video(Bytes(1, 1), n), 0u);
        // The stream drains by itself in blocks, which no packet ends at here.
        if (file.log.Size() == kHead + n * kFrame)
            return n;
    }
    return 0;
}

}  // namespace

TEST(TheInfoFile, IsFirstFlushedAtTheNineHundredthVideoFrame)
{
    Logged file;
    EXPECT_EQ(FirstFlush(file), 900u);
}

TEST(TheInfoFile, IsFlushedAtAShorterIntervalThatWasRefused)
{
    Logged file;
    Flush(file, 12);
    Flush(file, 9);
    EXPECT_EQ(FirstFlush(file), 12u);
}

TEST(TheInfoFile, IsFlushedAgainAfterEachInterval)
{
    Logged file;
    Flush(file, 10);
    EXPECT_EQ(FirstFlush(file), 10u);
    for (std::uint64_t n = 11; n <= 20; ++n) {
        EXPECT_EQ(file.log.Size(), kHead + 10 * kFrame);
        EXPECT_EQ(file.rec.Video(Bytes(1, 1), n), 0u);
    }
    EXPECT_EQ(file.log.Size(), kHead + 20 * kFrame);
}

// The count goes on while the interval changes: the eleventh frame meets it.
TEST(TheFlushInterval, HoldsFromTheNextFrameOn)
{
    Logged file;
    EXPECT_EQ(FirstFlush(file, [&](std::size_t n) {
                  if (n == 11)
                      Flush(file, 10);
              }),
              11u);
}

TEST(TheInfoFile, IsFlushedByVideoFramesAlone)
{
    Logged file;
    Flush(file, 10);
    EXPECT_EQ(file.rec.SetAac(), 0u);
    const mp4_subtitle_track_info captions{MP4_SUBTITLE_CEA608, 1000};
    EXPECT_EQ(mp4_set_subtitle_track(file.File(), &captions), 0u);
    const Bytes caption = Hex("61 02 00  00 94 20");
    for (std::uint32_t n = 0; n < 50; ++n) {
        EXPECT_EQ(file.rec.Audio(Bytes(1, 1), n), 0u);
        EXPECT_EQ(mp4_write_subtitle_frame(file.File(), caption.data(), 6, n), 0u);
        EXPECT_EQ(mp4_write_time_code(file.File(), n), 0u);
        EXPECT_EQ(mp4_set_metadata(file.File(), "title", "A"), 0u);
    }
    EXPECT_EQ(file.log.Size(), 5u);  // 3 KB of packets are in the stream
    EXPECT_EQ(file.Packets().size(), 19u + 6 + 50 * (13 + 13 + 5 + 22));
}
