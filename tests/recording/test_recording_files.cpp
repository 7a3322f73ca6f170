// The life of a file: what create and close leave on the disk and in the log.
#include "support/file_size_limit.h"
#include "support/matches.h"
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kStbl = "moov/trak.vide/mdia/minf/stbl/";

}  // namespace

TEST(AFileWithoutFrames, HasHeadMdatAndAMoovWithoutTracks)
{
    Recording rec;
    const BoxFile file = rec.Close();
    EXPECT_THAT(file.Children(""), ElementsAre("ftyp", "free", "mdat", "moov"));
    EXPECT_EQ(file.Box("mdat"), Hex("00000008 'mdat'"));
    EXPECT_THAT(file.Children("moov"), ElementsAre("mvhd", "udta"));
    EXPECT_EQ(file.U32(file.Find("moov/mvhd").end - 4), 2u);  // next track id
}

TEST(AnMp4File, BeginsWithFtypFreeAndMdatAt36)
{
    Recording rec;
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("ftyp"),
              Hex("0000001C 'ftyp' 'isom' 00000200 'isom' 'iso2' 'mp41'"));
    EXPECT_EQ(file.Box("free"), Hex("00000008 'free'"));
    EXPECT_EQ(file.Find("mdat").begin, 36u);
}

TEST(AMovFile, BeginsWithFtypAndMdatAt20)
{
    Recording rec("clip.mov");
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("ftyp"), Hex("00000014 'ftyp' 'qt  ' 00000200 'qt  '"));
    EXPECT_FALSE(file.Has("free"));
    EXPECT_EQ(file.Find("mdat").begin, 20u);
}

TEST(TheKindOfAFile, FollowsMovAnywhereInThePathAndItsCase)
{
    Folder folder;
    std::filesystem::create_directory(folder / "movies");
    const auto first = [&](const std::string& name) {
        mp4_handle file = nullptr;
        EXPECT_EQ(mp4_create_file_adv_ex((folder / name).string().c_str(), 0, 0, 0, MP4_IO_FILE,
                                         nullptr, &file),
                  0u);
        EXPECT_EQ(mp4_close_file(file), 0u);
        return BoxFile::Read(folder / name).U32(0);
    };
    EXPECT_EQ(first("movies/clip.mp4"), 20u);
    EXPECT_EQ(first("CLIP.MOV"), 28u);
}

TEST(MdatSize, IsTotalIn32BitsOrIn64BitsBehindA1)
{
    for (const bool large : {false, true}) {
        Recording rec("clip.mp4", large ? MP4_OPEN_LARGE_FILE : 0);
        rec.SetH264();
        rec.FramesAt({0, 40});
        const BoxFile file = rec.Close();
        const std::size_t data = 2 * (4 + 10);
        if (large) {
            EXPECT_EQ(file.U32(36), 1u);
            EXPECT_EQ(file.U64(44), 16 + data);
            EXPECT_EQ(Words(file.Box(kStbl + "co64"), 12), (std::vector<std::uint32_t>{1, 0, 52}));
            EXPECT_FALSE(file.Has(kStbl + "stco"));
        } else {
            EXPECT_EQ(file.U32(36), 8 + data);
            EXPECT_EQ(Words(file.Box(kStbl + "stco"), 12), (std::vector<std::uint32_t>{1, 44}));
        }
        EXPECT_THAT(file.Complaints(), IsEmpty());
    }
}

TEST(MdatSize, In64BitsStandsBehindTheShorterHeadOfAMovFileToo)
{
    Recording rec("clip.mov", MP4_OPEN_LARGE_FILE);
    rec.SetH264();
    rec.FramesAt({0, 40});
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.U32(20), 1u);
    EXPECT_EQ(file.U64(28), 16u + 2 * (4 + 10));
    EXPECT_EQ(Words(file.Box(kStbl + "co64"), 12), (std::vector<std::uint32_t>{1, 0, 36}));
}

TEST(FastHeader, ChangesNoByteAndWritesMoovOnce)
{
    const auto record = [](std::uint8_t flags, std::size_t& lines) {
        Recording rec("clip.mp4", flags);
        rec.SetH264();
        rec.SetAac();
        rec.FramesAt({0, 40});
        rec.Audio(Bytes(30, 1), 0);
        rec.FramesAt({80});
        const BoxFile file = rec.Close();
        const std::size_t moov = file.Box("moov").size();
        lines = rec.Log().Count("info moov flush finished, size:" + std::to_string(moov));
        return file.All();
    };
    std::size_t plainLines = 0;
    std::size_t fastLines = 0;
    EXPECT_EQ(record(0, plainLines), record(MP4_OPEN_FAST_HEADER, fastLines));
    EXPECT_EQ(plainLines, 0u);
    EXPECT_EQ(fastLines, 1u);
}

TEST(Version1, WidensMovieVideoAndAudioHeaders)
{
    Recording rec("clip.mp4", MP4_OPEN_VERSION1);
    rec.SetH264();
    rec.SetAac();
    rec.FramesAt({0, 40});
    rec.Audio(Bytes(30, 1), 0);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("moov/mvhd").size(), 120u);
    for (const std::string track : {"moov/trak.vide", "moov/trak.soun"}) {
        EXPECT_EQ(file.Box(track + "/tkhd").size(), 104u);
        EXPECT_EQ(file.Box(track + "/edts/elst").size(), 36u);
        EXPECT_EQ(file.Box(track + "/mdia/mdhd").size(), 44u);
    }
}

// 10 - 1000 + 5 ticks, without a sign 2^64 - 985, of which 1000 / 3000 are 6148914691236188.
TEST(ADurationBelowZero, IsUnsignedInTheMovieAndSignedInTheTrack)
{
    for (const bool wide : {false, true}) {
        Recording rec("clip.mp4", wide ? MP4_OPEN_VERSION1 : 0);
        rec.SetH264(3000, 5);
        rec.FramesAt({1000, 10});
        EXPECT_EQ(mp4_get_duration_ms(rec.Handle()), 6148914691236188u);
        const BoxFile file = rec.Close();
        const std::size_t mvhd = file.Find("moov/mvhd").begin;
        const std::size_t tkhd = file.Find("moov/trak.vide/tkhd").begin;
        const std::size_t elst = file.Find("moov/trak.vide/edts/elst").begin;
        EXPECT_EQ(file.U32(mvhd + (wide ? 36 : 24)), 0xC3ECE15Cu);
        EXPECT_EQ(file.U32(tkhd + (wide ? 40 : 28)), 0xFFFFFEB8u);  // -328
        EXPECT_EQ(file.U32(elst + (wide ? 20 : 16)), 0xFFFFFEB8u);
        if (wide) {
            EXPECT_EQ(file.U64(mvhd + 32), 0x0015D867C3ECE15Cu);
        }
    }
}

TEST(TheLogOfAClose, NamesEachStepInOrder)
{
    Recording rec("clip.mp4", 0x04);
    EXPECT_THAT(rec.Log().Lines(), ElementsAre("info mp4 flag is 4",
                                               "info fast header write disabled"));
    rec.CloseStatus();
    auto lines = rec.Log().Lines();
    lines.erase(lines.begin(), lines.begin() + 2);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_THAT(lines[0], Matches("info Muxer - Close - mdat finish takes .+ ms"));
    EXPECT_EQ(lines[1], "info moov update size finished");
    EXPECT_THAT(lines[2], Matches("info Muxer - Close - moov write takes .+ ms"));
    EXPECT_THAT(lines[3],
                Matches("info Muxer - Close - remove info file takes .+ ms"));
    EXPECT_THAT(lines[4], Matches("info Muxer - Close - uninit takes .+ ms"));
}

TEST(FlagsWithoutAMeaning, ChangeNothingButTheirOwnLine)
{
    const auto record = [](std::uint8_t flags) {
        Recording rec("clip.mp4", flags);
        EXPECT_EQ(rec.Log().Lines().front(), "info mp4 flag is " + std::to_string(flags));
        rec.SetH264();
        rec.SetAac();
        rec.FramesAt({0, 40});
        EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
        return rec.Close().All();
    };
    const Bytes plain = record(0);
    EXPECT_EQ(record(0xC0), plain);  // "info mp4 flag is 192"
    EXPECT_EQ(record(0x44), plain);
}

TEST(AFileWithAudio, LogsTheSizeWarningOnce)
{
    Recording rec;
    rec.SetAac();
    rec.Audio(Bytes(30, 1), 0);
    const std::size_t moov = rec.Close().Box("moov").size();
    // 52 + 51 bytes of stsd against the constant 96: 7 more than calculated.
    EXPECT_TRUE(rec.Log().Has("warning calc size(" + std::to_string(moov - 7) +
                              ") not equal to moov real size:" + std::to_string(moov)));
}

// ---- Failed creates --------------------------------------------------------------------------

namespace {

std::uint32_t Create(const std::wstring& path, std::uint8_t flags, std::uint32_t mode,
                     mp4_handle& handle, ExternalIoFuncs* table = nullptr)
{
    return mp4_create_file_adv(path.c_str(), flags, 4096, 32, mode, table, &handle);
}

// The lines of a close without their milliseconds.
std::vector<std::string> WithoutTimes(std::vector<std::string> lines)
{
    for (std::string& line : lines)
        line.erase(std::min(line.find(" takes "), line.size()));
    return lines;
}

}  // namespace

TEST(AFailedCreate, LeavesTheHandleVariableAlone)
{
    Folder folder;
    LogCapture log;
    int mark = 0;
    mp4_handle handle = &mark;
    EXPECT_EQ(Create((folder / "none/a.mp4").wstring(), 0, MP4_IO_FILE, handle), 12u);
    EXPECT_EQ(handle, &mark);
    EXPECT_TRUE(log.Has("error open file failed, error:No such file or directory"));
    EXPECT_TRUE(log.Has("error init CFileWriter writer failed"));
    EXPECT_EQ(mp4_close_file(handle), 2u);
}

TEST(DirectMode, IsRefusedAndTakesTheInfoFileAlong)
{
    Folder folder;
    LogCapture log;
    mp4_handle handle = nullptr;
    EXPECT_EQ(Create((folder / "a.mp4").wstring(), MP4_OPEN_INFO_FILE, MP4_IO_DIRECT, handle), 10u);
    EXPECT_TRUE(log.Has("error windows platform do not support direct io"));
    EXPECT_TRUE(folder.IsEmpty());
}

TEST(ExternalMode, NeedsATable)
{
    LogCapture log;
    mp4_handle handle = nullptr;
    EXPECT_EQ(Create(L"a.mp4", 0, MP4_IO_EXTERNAL, handle), 4u);
    EXPECT_TRUE(log.Has("error error: pFunc should not be null when use external io mode"));
}

// The head of the file fails, and so does the end of the output.
TEST(ExternalMode, ACloseThatThrowsIsNotCalledAgain)
{
    static int closes;
    closes = 0;
    ExternalIoFuncs table{};
    table.open = [](void**, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        return 1;
    };
    table.close = [](void*) {
        ++closes;
        throw std::runtime_error("close");
    };
    table.tell = [](void*) -> std::int64_t { return 0; };
    table.seek = [](void*, std::int64_t, std::int32_t) {};
    table.flush = [](void*) {};
    table.write = [](void*, const void*, std::uint32_t) -> std::int32_t { return 0; };
    LogCapture log;
    mp4_handle handle = nullptr;
    EXPECT_THROW(Create(L"a.mp4", 0, MP4_IO_EXTERNAL, handle, &table), std::runtime_error);
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(handle, nullptr);
}

TEST(ExternalMode, ARefusedOpenGives4AndIsNotClosed)
{
    static int closes;
    closes = 0;
    ExternalIoFuncs table{};
    table.open = [](void**, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        return 0;
    };
    table.close = [](void*) { ++closes; };
    LogCapture log;
    mp4_handle handle = nullptr;
    EXPECT_EQ(Create(L"a.mp4", 0, MP4_IO_EXTERNAL, handle, &table), 4u);
    EXPECT_TRUE(log.Has("error init external writer failed"));
    EXPECT_EQ(closes, 0);
}

TEST(AnUnknownIoMode, GivesAHandleThatAnswers19)
{
    Folder folder;
    LogCapture log;
    mp4_handle handle = nullptr;
    ASSERT_EQ(Create((folder / "a.mp4").wstring(), 0, 3, handle), 0u);
    const Bytes frame = Unit(0x65);
    const mp4_video_track_info video{};
    const mp4_audio_track_info audio{};
    const mp4_subtitle_track_info captions{};
    const mp4_time_code_track_info timeCode{};
    EXPECT_EQ(mp4_write_video_frame(handle, frame.data(), 13, 0), 19u);
    EXPECT_EQ(mp4_write_audio_frame(handle, frame.data(), 13, 0), 19u);
    EXPECT_EQ(mp4_write_subtitle_frame(handle, frame.data(), 13, 0), 19u);
    EXPECT_EQ(mp4_write_time_code(handle, 0), 19u);
    EXPECT_EQ(mp4_set_video_track(handle, &video), 19u);
    EXPECT_EQ(mp4_set_audio_track(handle, &audio), 19u);
    EXPECT_EQ(mp4_set_subtitle_track(handle, &captions), 19u);
    EXPECT_EQ(mp4_set_time_code_track(handle, &timeCode), 19u);
    EXPECT_EQ(mp4_set_metadata(handle, "title", "A"), 19u);
    EXPECT_EQ(log.Count("error file not open!"), 9u);
    EXPECT_EQ(mp4_get_duration_ms(handle), 0u);
    EXPECT_TRUE(log.Has("error no open file, can't get duration"));
    EXPECT_EQ(mp4_get_moov_size(handle), 0u);
    double rate = 0;
    EXPECT_EQ(mp4_get_video_bitrate(handle, &rate), 0u);
    EXPECT_EQ(rate, -1.0);
    rate = 0;
    EXPECT_EQ(mp4_get_audio_bitrate(handle, &rate), 0u);
    EXPECT_EQ(rate, -1.0);
    EXPECT_EQ(mp4_close_file(handle), 0u);
    EXPECT_TRUE(folder.IsEmpty());
}

// 4, not 19: the record is looked at before the file.
TEST(AnUnknownIoMode, StillTestsItsRecords)
{
    LogCapture log;
    mp4_handle handle = nullptr;
    ASSERT_EQ(Create(L"a.mp4", 0, 3, handle), 0u);
    EXPECT_EQ(mp4_set_video_track(handle, nullptr), 4u);
    EXPECT_EQ(mp4_set_audio_track(handle, nullptr), 4u);
    EXPECT_EQ(mp4_set_subtitle_track(handle, nullptr), 4u);
    EXPECT_EQ(mp4_set_time_code_track(handle, nullptr), 4u);
    EXPECT_EQ(mp4_get_video_bitrate(handle, nullptr), 4u);
    EXPECT_EQ(mp4_get_audio_bitrate(handle, nullptr), 4u);
    EXPECT_EQ(mp4_get_safe_param(handle, nullptr), 4u);
    EXPECT_EQ(mp4_set_safe_param(handle, nullptr), 4u);
    EXPECT_EQ(log.Count("error file not open!"), 0u);
    EXPECT_EQ(mp4_close_file(handle), 0u);
}

// The create runs a whole close, and the close another one; neither has a moov to write.
TEST(AnUnknownIoMode, LogsEachStepOfACloseTwice)
{
    LogCapture log;
    mp4_handle handle = nullptr;
    ASSERT_EQ(Create(L"a.mp4", 0, 3, handle), 0u);
    const std::vector<std::string> created = WithoutTimes(log.Lines());
    EXPECT_EQ(mp4_close_file(handle), 0u);
    std::vector<std::string> expected = {"info mp4 flag is 0", "info fast header write disabled"};
    const std::vector<std::string> close = {
        "info Muxer - Close - mdat finish", "info Muxer - Close - moov write",
        "info Muxer - Close - remove info file", "info Muxer - Close - uninit"};
    expected.insert(expected.end(), close.begin(), close.end());
    EXPECT_EQ(created, expected);
    expected.insert(expected.end(), close.begin(), close.end());
    EXPECT_EQ(WithoutTimes(log.Lines()), expected);
}

// Neither has a staging buffer, nor a moov to write.
TEST(AnUnknownIoMode, ClosesInEveryMode)
{
    const LogCapture log;
    for (const unsigned flags : {0x01u, 0x02u, 0x08u, 0x20u, 0x28u, 0x2Bu}) {
        mp4_handle handle = nullptr;
        ASSERT_EQ(Create(L"a.mp4", static_cast<std::uint8_t>(flags), 3, handle), 0u);
        EXPECT_EQ(mp4_close_file(handle), 0u);
    }
}

TEST(TheInfoPath, MayHave1024CharactersWithItsEnd)
{
    Folder folder;
    const std::wstring base = (folder / "").wstring();
    // Long paths made of "./" steps, so that every length can be opened.
    const auto ofLength = [&base](std::size_t length) {
        std::wstring path = base;
        while (path.size() + 7 < length)
            path += L"./";
        return path + std::wstring(length - path.size() - 4, L'a') + L".mp4";
    };
    const LogCapture log;
    mp4_handle handle = nullptr;
    EXPECT_EQ(Create(ofLength(1019), MP4_OPEN_INFO_FILE, MP4_IO_FILE, handle), 4u);
    EXPECT_TRUE(folder.IsEmpty());
    EXPECT_THAT(log.Lines().back(), testing::StartsWith("info Muxer - Close - uninit takes "));
    ASSERT_EQ(Create(ofLength(1018), MP4_OPEN_INFO_FILE, MP4_IO_FILE, handle), 0u);
    EXPECT_EQ(mp4_close_file(handle), 0u);
}

TEST(TheInfoFile, StandsWhileRecordingAndGoesWithACleanClose)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE | MP4_OPEN_LARGE_FILE);
    const BoxFile info = BoxFile::Read(rec.InfoPath());
    EXPECT_EQ(info.All(), Hex("12 00000024"));  // the flags, the position of mdat
    EXPECT_EQ(rec.CloseStatus(), 0u);
    EXPECT_FALSE(std::filesystem::exists(rec.InfoPath()));
}

namespace {

// The whole log of a recording, which a close that fails leaves behind.
Bytes LogOf(const std::function<void(Recording&)>& record)
{
    Folder folder;
    ExternalSink sink;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    record(rec);
    sink.FailWrite(1, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_EQ(rec.CloseStatus(), 16u);
    return BoxFile::Read(rec.InfoPath()).All();
}

}  // namespace

TEST(TheInfoFile, LogsARemovedItemAsAValueOfLengthZero)
{
    const Bytes log = LogOf([](Recording& rec) {
        EXPECT_EQ(mp4_set_metadata(rec.Handle(), "title", "A"), 0u);
        EXPECT_EQ(mp4_set_metadata(rec.Handle(), "title", nullptr), 0u);
        EXPECT_EQ(mp4_set_metadata_ex(rec.Handle(), "title", nullptr, 5, 0, nullptr), 0u);
    });
    EXPECT_EQ(log, Hex("10 00000024"
                       "01 01 00000006 'title' 00 00000002 'A' 00 00000000"
                       "01 01 00000006 'title' 00 00000000 00000000"
                       "01 00 00000006 'title' 00 00000000 00000000"));
}

TEST(TheInfoFile, LogsTheLengthOfAParameterSetWithoutAnAddress)
{
    const Bytes log = LogOf([](Recording& rec) {
        mp4_video_track_info info{};
        info.sps_size = 5;
        info.pps_size = -2;
        const StdoutCapture quiet;
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    });
    EXPECT_EQ(log, Hex("10 00000024 02 00000000 00000000 00000000 00 0000 0000"
                       "00000005 FFFFFFFE"));
}

TEST(TheInfoFile, LogsTheLengthsOfHevcSetsWithoutAnAddress)
{
    const Bytes log = LogOf([](Recording& rec) {
        mp4_video_track_info info{};
        info.codec = MP4_VIDEO_HEVC;
        info.vps_size = 4;
        info.sps_size = 5;
        info.pps_size = -2;
        const StdoutCapture quiet;
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
        // Complete by its sizes alone.
        EXPECT_FALSE(rec.Log().Has("info no codec data in video track info, try to find it in "
                                   "stream"));
    });
    EXPECT_EQ(log, Hex("10 00000024 02 00000000 00000000 00000000 01 0000 0000"
                       "00000004 00000005 FFFFFFFE"));
}

TEST(TheInfoFile, HoldsNoVideoTrackOfARefusedCodec)
{
    const Bytes log = LogOf([](Recording& rec) {
        mp4_video_track_info info{};
        info.codec = 3;
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 5u);
    });
    EXPECT_EQ(log, Hex("10 00000024"));
}

TEST(TheInfoFile, EndsAtAnEmptyBinaryValue)
{
    const Bytes log = LogOf([](Recording& rec) {
        const StdoutCapture quiet;
        EXPECT_EQ(mp4_set_metadata_ex(rec.Handle(), "title", "A", 0, 0, nullptr), 1u);
        EXPECT_EQ(mp4_set_metadata(rec.Handle(), "title", "A"), 0u);
    });
    EXPECT_EQ(log, Hex("10 00000024 01 00 00000006 'title' 00 00000000"));
}

TEST(AFullDisk, FailsTheCloseAndKeepsTheInfoFile)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    rec.SetH264();
    rec.FramesAt({0});
    std::uint32_t status = 0;
    {
        const FileSizeLimit limit(100);
        testing::internal::CaptureStdout();
        status = rec.CloseStatus();
        testing::internal::GetCapturedStdout();
    }
    EXPECT_EQ(status, FileSizeLimit::kStatus);
    EXPECT_TRUE(std::filesystem::exists(rec.InfoPath()));
}

TEST(ADiskThatFillsInTheLastBuffer, FailsTheCloseToo)
{
    // All boxes are patched in time; only the last bytes of moov are still in the stream's buffer.
    std::uintmax_t whole = 0;
    for (const bool limited : {false, true}) {
        Recording rec("clip.mp4", MP4_OPEN_INFO_FILE | MP4_OPEN_FAST_HEADER);
        std::uint32_t status = 0;
        testing::internal::CaptureStdout();
        if (limited) {
            const FileSizeLimit limit(whole - 1);
            status = rec.CloseStatus();
        } else {
            status = rec.CloseStatus();
            whole = std::filesystem::file_size(rec.Path());
        }
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(status, limited ? FileSizeLimit::kStatus : 0u);
        EXPECT_EQ(std::filesystem::exists(rec.InfoPath()), limited);
    }
}

// moov is written as far as its own line can tell; the log stays, without the line of its end.
TEST(ADiskThatFillsInTheLastBuffer, LosesTheLineOfTheInfoFileAlone)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE | MP4_OPEN_FAST_HEADER);
    std::uint32_t status = 0;
    {
        const StdoutCapture quiet;
        const FileSizeLimit limit(44 + 177 - 1);  // the head, and a moov without tracks
        status = rec.CloseStatus();
    }
    EXPECT_EQ(status, FileSizeLimit::kStatus);
    std::vector<std::string> lines = WithoutTimes(rec.Log().Lines());
    lines.erase(lines.begin(), lines.begin() + 2);  // of the create
    EXPECT_THAT(lines, ElementsAre("info Muxer - Close - mdat finish",
                                   "info moov update size finished",
                                   "info moov flush finished, size:177",
                                   "info Muxer - Close - moov write",
                                   "info Muxer - Close - uninit"));
}

// The frames of the first buffer are lost with the rest of it, and the log is all that is left.
TEST(ALocalDiskThatFillsWhileRecording, FailsEveryLaterCallAndKeepsTheInfoFile)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    EXPECT_EQ(rec.SetAac(), 0u);
    std::uint32_t status = 0;
    {
        const StdoutCapture quiet;
        const FileSizeLimit limit(100);
        for (std::uint64_t n = 0; status == 0 && n < 100; ++n)
            status = rec.Audio(Bytes(3000, 1), n);
        EXPECT_EQ(status, FileSizeLimit::kStatus);
        EXPECT_EQ(rec.Audio(Bytes(1, 1), 100), FileSizeLimit::kStatus);
        EXPECT_EQ(rec.SetH264(), FileSizeLimit::kStatus);
        EXPECT_EQ(mp4_get_duration_ms(rec.Handle()), 0u);
    }
    // Nothing would fail any more; the first failure decides.
    EXPECT_EQ(rec.CloseStatus(), FileSizeLimit::kStatus);
    EXPECT_TRUE(std::filesystem::exists(rec.InfoPath()));
    EXPECT_EQ(std::filesystem::file_size(rec.Path()), 100u);
    const std::vector<std::string> lines = WithoutTimes(rec.Log().Lines());
    EXPECT_THAT(lines, testing::Not(testing::Contains("info Muxer - Close - remove info file")));
    EXPECT_EQ(lines.back(), "info Muxer - Close - uninit");
}

// ---- A caller's own output -------------------------------------------------------------------

namespace {

// A memory file whose writes fail from one on.
struct Memory {
    Bytes bytes;
    std::size_t position = 0;
    std::size_t writesLeft = SIZE_MAX;
    std::vector<std::string> calls;

    static Memory& Of(void* context) { return *static_cast<Memory*>(context); }
    static Memory* s_opened;
    ExternalIoFuncs Table()
    {
        s_opened = this;
        ExternalIoFuncs t{};
        t.open = [](void** context, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
            *context = s_opened;
            return 1;
        };
        t.close = [](void* c) { Of(c).calls.push_back("close"); };
        t.tell = [](void* c) { return static_cast<std::int64_t>(Of(c).position); };
        t.seek = [](void* c, std::int64_t offset, std::int32_t) {
            Of(c).position = static_cast<std::size_t>(offset);
        };
        t.flush = [](void* c) { Of(c).calls.push_back("flush"); };
        t.write = [](void* c, const void* data, std::uint32_t size) -> std::int32_t {
            Memory& m = Of(c);
            if (m.writesLeft == 0) {
                errno = ENOSPC;
                return 0;
            }
            --m.writesLeft;
            const auto* from = static_cast<const std::uint8_t*>(data);
            if (m.bytes.size() < m.position + size)
                m.bytes.resize(m.position + size);
            std::copy(from, from + size, m.bytes.begin() + static_cast<std::ptrdiff_t>(m.position));
            m.position += size;
            return 1;
        };
        return t;
    }
};
Memory* Memory::s_opened = nullptr;

}  // namespace

TEST(AnExternalOutput, GetsTheSameBytesAndIsClosedOnceAndNeverFlushed)
{
    Recording local;
    local.SetH264();
    local.FramesAt({0, 40});
    const Bytes expected = local.Close().All();

    Memory memory;
    ExternalIoFuncs table = memory.Table();
    mp4_handle handle = nullptr;
    ASSERT_EQ(Create(L"clip.mp4", 0, MP4_IO_EXTERNAL, handle, &table), 0u);
    mp4_video_track_info info{};
    info.timescale = 1000;
    info.width = 160;
    info.height = 120;
    info.sps = Sps().data();
    info.sps_size = static_cast<std::int16_t>(Sps().size());
    info.pps = Pps().data();
    info.pps_size = static_cast<std::int16_t>(Pps().size());
    ASSERT_EQ(mp4_set_video_track(handle, &info), 0u);
    const Bytes frame = Unit(0x65);
    EXPECT_EQ(mp4_write_video_frame(handle, frame.data(), 13, 0), 0u);
    EXPECT_EQ(mp4_write_video_frame(handle, frame.data(), 13, 40), 0u);
    EXPECT_EQ(mp4_close_file(handle), 0u);
    EXPECT_EQ(memory.bytes, expected);
    EXPECT_THAT(memory.calls, ElementsAre("close"));
}

namespace {

// Everything that a close tells an output, but where it stands.
std::vector<std::string> CallsOfAClose(std::uint8_t flags)
{
    ExternalSink sink;
    Recording rec(sink, "clip.mp4", flags);
    sink.ForgetCalls();
    EXPECT_EQ(rec.CloseStatus(), 0u);
    std::vector<std::string> calls = sink.Calls();
    std::erase(calls, "tell");
    return calls;
}

}  // namespace

TEST(AClose, EndsMdatAndThenWritesMoovBehindIt)
{
    const auto calls = CallsOfAClose(0);
    ASSERT_GT(calls.size(), 10u);
    EXPECT_THAT(std::vector(calls.begin(), calls.begin() + 6),
                ElementsAre("seek 36 0", "write 4", "seek 44 0", "write 4", "write 4",
                            "write 108"));
    // 8 + 108 + 61 bytes of moov.
    EXPECT_THAT(std::vector(calls.end() - 4, calls.end()),
                ElementsAre("seek 44 0", "write 4", "seek 221 0", "close"));
}

TEST(AClose, EndsALargeMdatInIts64Bits)
{
    const auto calls = CallsOfAClose(MP4_OPEN_LARGE_FILE);
    ASSERT_GT(calls.size(), 3u);
    EXPECT_THAT(std::vector(calls.begin(), calls.begin() + 3),
                ElementsAre("seek 44 0", "write 8", "seek 52 0"));
}

TEST(AClose, WithAFastHeaderEndsWithOneWrite)
{
    const auto calls = CallsOfAClose(MP4_OPEN_FAST_HEADER);
    EXPECT_THAT(calls, ElementsAre("seek 36 0", "write 4", "seek 44 0", "write 177", "close"));
}

// Its last position is kept behind the close.
TEST(AClose, AsksWhereTheOutputStandsBeforeItClosesIt)
{
    ExternalSink sink;
    Recording rec(sink, "clip.mp4", MP4_OPEN_FAST_HEADER);
    EXPECT_EQ(rec.CloseStatus(), 0u);
    ASSERT_GT(sink.Calls().size(), 3u);
    EXPECT_THAT(std::vector(sink.Calls().end() - 3, sink.Calls().end()),
                ElementsAre("write 177", "tell", "close"));
}

// The end of mdat, then size and type of moov have been written.
TEST(AClose, ThatFailsInTheMovieHeaderLeavesTheHeadOfMoov)
{
    ExternalSink sink;
    Recording rec(sink);
    sink.FailWrite(4, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_EQ(rec.CloseStatus(), 16u);
    const Bytes& data = sink.Data();
    ASSERT_GT(data.size(), 44u);
    EXPECT_EQ(Bytes(data.begin() + 44, data.end()), Hex("00000008 'moov'"));
}

TEST(AFailedWriter, KeepsAnsweringWithItsFirstFailure)
{
    LogCapture log;
    Memory memory;
    ExternalIoFuncs table = memory.Table();
    mp4_handle handle = nullptr;
    ASSERT_EQ(Create(L"clip.mp4", 0, MP4_IO_EXTERNAL, handle, &table), 0u);
    const mp4_audio_track_info audio{1000, 0, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    ASSERT_EQ(mp4_set_audio_track(handle, &audio), 0u);
    const Bytes frame(100, 1);
    EXPECT_EQ(mp4_write_audio_frame(handle, frame.data(), 100, 0), 0u);
    memory.writesLeft = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(mp4_write_audio_frame(handle, frame.data(), 100, 21), 16u);
    EXPECT_EQ(mp4_write_audio_frame(handle, frame.data(), 100, 43), 16u);
    EXPECT_EQ(mp4_set_audio_track(handle, &audio), 16u);
    EXPECT_EQ(mp4_set_metadata(handle, "title", "A"), 16u);
    EXPECT_EQ(mp4_get_duration_ms(handle), 0u);
    EXPECT_EQ(mp4_close_file(handle), 16u);
    testing::internal::GetCapturedStdout();
    // The seeks of a close still go out, its writes do not.
    EXPECT_EQ(log.Count("info moov update size finished"), 1u);
    EXPECT_THAT(log.Lines(), testing::Contains(testing::EndsWith("moov real size:0")));
    EXPECT_THAT(memory.calls, ElementsAre("close"));
}

TEST(AProResWriteThatFails, LeavesAsAnExceptionAndKeepsTheHandle)
{
    LogCapture log;
    Memory memory;
    ExternalIoFuncs table = memory.Table();
    mp4_handle handle = nullptr;
    ASSERT_EQ(Create(L"clip.mov", 0, MP4_IO_EXTERNAL, handle, &table), 0u);
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_PRORES;
    ASSERT_EQ(mp4_set_video_track(handle, &info), 0u);
    memory.writesLeft = 0;
    const Bytes frame(100, 1);
    testing::internal::CaptureStdout();
    std::int32_t code = 0;
    try {
        mp4_write_video_frame(handle, frame.data(), 100, 0);
    } catch (const kv_mp4_exception& error) {
        code = error.code;
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, ENOSPC);
    EXPECT_EQ(mp4_write_video_frame(handle, frame.data(), 100, 0), 16u);
    EXPECT_EQ(mp4_close_file(handle), 16u);
}

TEST(TheLogOfAFailedClose, CountsTheLastStepFromTheLastReadingOfTheClock)
{
    LogCapture log;
    Memory memory;
    ExternalIoFuncs table = memory.Table();
    mp4_handle handle = nullptr;
    ASSERT_EQ(Create(L"clip.mp4", 0, MP4_IO_EXTERNAL, handle, &table), 0u);
    table.write = [](void*, const void*, std::uint32_t) -> std::int32_t {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        errno = ENOSPC;
        return 0;
    };
    const StdoutCapture quiet;
    EXPECT_EQ(mp4_close_file(handle), 16u);
    const std::string head = "info Muxer - Close - uninit takes ";
    ASSERT_THAT(log.Lines().back(), testing::StartsWith(head));
    EXPECT_GE(std::stoi(log.Lines().back().substr(head.size())), 20);  // at least the sleep
}

TEST(AFailedCreate, ReportsTheWriteThatFailed)
{
    for (std::size_t writes = 0; writes < 8; ++writes) {
        LogCapture log;
        Memory memory;
        memory.writesLeft = writes;
        ExternalIoFuncs table = memory.Table();
        mp4_handle handle = nullptr;
        testing::internal::CaptureStdout();
        EXPECT_EQ(Create(L"clip.mp4", 0, MP4_IO_EXTERNAL, handle, &table), 16u) << writes;
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(handle, nullptr);
        EXPECT_THAT(memory.calls, ElementsAre("close"));
    }
}
