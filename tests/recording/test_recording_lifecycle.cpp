// What holds for a file as a whole, whatever its tracks: handles, statuses, several threads, and
// where each log line comes from.
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

using namespace kvtest;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

std::uint32_t CreateFile(const std::filesystem::path& path, std::uint8_t flags, mp4_handle& file)
{
    return mp4_create_file_adv_ex(path.string().c_str(), flags, 0, 0, MP4_IO_FILE, nullptr, &file);
}

// Every export that takes a handle, with arguments that are good for an open file.
const std::map<std::string, std::function<std::uint64_t(mp4_handle)>>& HandleCalls()
{
    static const mp4_video_track_info video{};
    static const mp4_audio_track_info audio{};
    static const mp4_subtitle_track_info captions{};
    static const mp4_time_code_track_info timeCode{};
    static const std::uint8_t data[4] = {};
    static mp4_safe_param safe{};
    static double rate = 0;
    using H = mp4_handle;
    static const std::map<std::string, std::function<std::uint64_t(H)>> calls = {
        {"mp4_close_file", [](H h) { return mp4_close_file(h); }},
        {"mp4_set_video_track", [](H h) { return mp4_set_video_track(h, &video); }},
        {"mp4_set_audio_track", [](H h) { return mp4_set_audio_track(h, &audio); }},
        {"mp4_set_subtitle_track", [](H h) { return mp4_set_subtitle_track(h, &captions); }},
        {"mp4_set_time_code_track", [](H h) { return mp4_set_time_code_track(h, &timeCode); }},
        {"mp4_set_metadata", [](H h) { return mp4_set_metadata(h, "title", "A"); }},
        {"mp4_set_metadata_ex",
         [](H h) { return mp4_set_metadata_ex(h, "title", "A", 1, 1, nullptr); }},
        {"mp4_write_video_frame", [](H h) { return mp4_write_video_frame(h, data, 4, 0); }},
        {"mp4_write_audio_frame", [](H h) { return mp4_write_audio_frame(h, data, 4, 0); }},
        {"mp4_write_subtitle_frame", [](H h) { return mp4_write_subtitle_frame(h, data, 4, 0); }},
        {"mp4_write_time_code", [](H h) { return mp4_write_time_code(h, 0); }},
        {"mp4_get_duration_ms", [](H h) { return mp4_get_duration_ms(h); }},
        {"mp4_get_moov_size", [](H h) { return mp4_get_moov_size(h); }},
        {"mp4_get_video_bitrate", [](H h) { return mp4_get_video_bitrate(h, &rate); }},
        {"mp4_get_audio_bitrate", [](H h) { return mp4_get_audio_bitrate(h, &rate); }},
        {"mp4_get_safe_param", [](H h) { return mp4_get_safe_param(h, &safe); }},
        {"mp4_set_safe_param", [](H h) { return mp4_set_safe_param(h, &safe); }},
        {"mp4_repair_set_flush_interval",
         [](H h) { return mp4_repair_set_flush_interval(h, 10); }},
    };
    return calls;
}

}  // namespace

// ---- Handles ---------------------------------------------------------------------------------

TEST(EveryCallOnAFile, WithANullHandleGives2AndNamesItself)
{
    for (const auto& [name, call] : HandleCalls()) {
        const LogCapture log;
        EXPECT_EQ(call(nullptr), 2u) << name;
        EXPECT_THAT(log.Lines(), ElementsAre("error null handle"));
        EXPECT_THAT(log.Sources(), ElementsAre("src/mp4 " + name));
    }
}

TEST(EveryCallOnAFile, WithAClosedHandleGives2AndNamesItself)
{
    mp4_handle stale = nullptr;
    {
        const Folder folder;
        const LogCapture quiet;
        ASSERT_EQ(CreateFile(folder / "a.mp4", 0, stale), 0u);
        ASSERT_EQ(mp4_close_file(stale), 0u);
    }
    for (const auto& [name, call] : HandleCalls()) {
        const LogCapture log;
        EXPECT_EQ(call(stale), 2u) << name;
        EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("error invalid handle 0x")));
        EXPECT_THAT(log.Sources(), ElementsAre("src/mp4 " + name));
    }
}

TEST(AHandle, IsGoneWhateverTheCloseReturned)
{
    ExternalSink sink;
    Recording rec(sink);
    const mp4_handle file = rec.Handle();
    sink.FailWrite(1, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_EQ(mp4_close_file(file), 2u);
}

TEST(APath, Of1022CharactersPassesOn)
{
    const Folder folder;
    std::string path = (folder / "").string();
    while (path.size() < 1022 - 8)
        path += "./";
    path += std::string(1022 - 4 - path.size(), 'a') + ".mp4";
    ASSERT_EQ(path.size(), 1022u);
    const LogCapture log;
    mp4_handle file = nullptr;
    ASSERT_EQ(mp4_create_file_ex(path.c_str(), 0, &file), 0u);
    EXPECT_EQ(mp4_close_file(file), 0u);
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(log.Count("error file path reach the max path size 1024"), 0u);
}

TEST(ARefusedPath, AnnouncesNoVersion)
{
    const LogCapture log;
    mp4_handle file = nullptr;
    EXPECT_EQ(mp4_create_file_ex("\xFF.mp4", 0, &file), 1u);
    EXPECT_EQ(mp4_create_file_ex(std::string(1023, 'a').c_str(), 0, &file), 1u);
    EXPECT_THAT(log.Lines(), ElementsAre("error wcstombs failed",
                                         "error file path reach the max path size 1024"));
}

TEST(TheLongCreates, LeaveTheLoggerAsItIs)
{
    const Folder folder;
    const LogCapture log;
    const auto logger = spdlog::default_logger();
    const std::string path = (folder / "a.mp4").string();  // ASCII
    mp4_handle file = nullptr;
    ASSERT_EQ(CreateFile(path, 0, file), 0u);
    EXPECT_EQ(mp4_close_file(file), 0u);
    ASSERT_EQ(mp4_create_file_adv(std::wstring(path.begin(), path.end()).c_str(), 0, 0, 0,
                                  MP4_IO_FILE, nullptr, &file),
              0u);
    EXPECT_EQ(mp4_close_file(file), 0u);
    EXPECT_EQ(spdlog::default_logger(), logger);
    EXPECT_EQ(log.Count("info lumivane mp4 library 1.0.1.17543"), 0u);
}

TEST(AnExternalOutput, IsOpenedWithThePathAndBothNumbers)
{
    const LogCapture log;
    ExternalSink sink;
    mp4_handle file = nullptr;
    ASSERT_EQ(mp4_create_file_adv(L"some/where.mp4", 0, 7, 9, MP4_IO_EXTERNAL, sink.Table(), &file),
              0u);
    EXPECT_EQ(sink.Calls().front(), "open some/where.mp4 7 9");
    EXPECT_EQ(mp4_close_file(file), 0u);
}

// ---- Queries ---------------------------------------------------------------------------------

TEST(TheSizeOfMoov, IsThatOfItsBoxesSoFar)
{
    Recording rec;
    EXPECT_EQ(mp4_get_moov_size(rec.Handle()), 8u + 108 + 61);
    rec.SetH264();
    EXPECT_EQ(mp4_get_moov_size(rec.Handle()), 8u + 108 + 61);  // no samples, no track
    rec.FramesAt({0, 40});
    const std::uint32_t size = mp4_get_moov_size(rec.Handle());
    // The run that is still open is not counted.
    EXPECT_EQ(rec.Close().Box("moov").size(), size + 8);
}

// ---- Statuses --------------------------------------------------------------------------------

TEST(AFailedWrite, GivesTheStatusOfItsErrno)
{
    const std::pair<int, std::uint32_t> rows[] = {{1, 11},  {2, 12},  {13, 13}, {16, 14},
                                                  {24, 15}, {28, 16}, {30, 17}, {5, 1},
                                                  {0, 1},   {1000, 0}};
    for (const auto& [error, status] : rows) {
        ExternalSink sink;
        Recording rec(sink);
        EXPECT_EQ(rec.SetAac(), 0u);
        sink.FailWrite(1, error);
        const StdoutCapture quiet;
        EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), status) << error;
        EXPECT_EQ(rec.Audio(Bytes(30, 1), 21), status) << error;  // now from the writer's state
        EXPECT_EQ(rec.SetH264(), status);
        EXPECT_EQ(rec.CloseStatus(), status);
    }
}

// Errno 1000 stands for the end of data, and that is no failure.
TEST(ACreateThatFailed, CanGive0AndAHandleWithoutAFile)
{
    const LogCapture log;
    ExternalSink sink;
    ExternalIoFuncs* table = sink.Table();
    sink.FailWrite(1, 1000);
    mp4_handle file = nullptr;
    {
        const StdoutCapture quiet;
        EXPECT_EQ(mp4_create_file_adv(L"a.mp4", 0, 0, 0, MP4_IO_EXTERNAL, table, &file), 0u);
    }
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(mp4_set_metadata(file, "title", "A"), 19u);
    EXPECT_EQ(sink.Count("close"), 1u);
    EXPECT_EQ(mp4_close_file(file), 0u);
}

TEST(AFailedWriter, TakesNoTrackButTheTimeCode)
{
    ExternalSink sink;
    Recording rec(sink);
    sink.FailWrite(1, EROFS);
    const StdoutCapture quiet;
    EXPECT_EQ(rec.SetAac(), 0u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 17u);
    const mp4_subtitle_track_info captions{1, 0};
    const mp4_time_code_track_info timeCode{25, 1, 25, 0};
    EXPECT_EQ(rec.SetH264(), 17u);
    EXPECT_EQ(rec.SetAac(), 17u);
    EXPECT_EQ(mp4_set_subtitle_track(rec.Handle(), &captions), 17u);
    EXPECT_EQ(mp4_set_time_code_track(rec.Handle(), &timeCode), 0u);
}

TEST(AnOutputThatTakesNothing, EndsTheCreateAndRemovesTheInfoFile)
{
    const Folder folder;
    const LogCapture log;
    ExternalSink sink;
    ExternalIoFuncs* table = sink.Table();
    sink.FailWrite(4, ENOSPC);
    mp4_handle file = nullptr;
    const StdoutCapture quiet;
    EXPECT_EQ(mp4_create_file_adv_ex((folder / "a.mp4").string().c_str(), MP4_OPEN_INFO_FILE, 0,
                                     0, MP4_IO_EXTERNAL, table, &file),
              16u);
    EXPECT_EQ(sink.Data(), Hex("00000000 'ftyp' 'isom'"));
    EXPECT_EQ(sink.Count("close"), 1u);
    EXPECT_TRUE(folder.IsEmpty());
}

// ---- Threads ---------------------------------------------------------------------------------

TEST(Threads, RecordTheirOwnFilesSideBySide)
{
    const LogCapture log;
    const Folder folder;
    const auto record = [&folder](int number) {
        mp4_handle file = nullptr;
        const std::filesystem::path path = folder / (std::to_string(number) + ".mp4");
        ASSERT_EQ(CreateFile(path, MP4_OPEN_INFO_FILE, file), 0u);
        const mp4_audio_track_info aac{48000, 1024, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
        ASSERT_EQ(mp4_set_audio_track(file, &aac), 0u);
        const Bytes frame(100, static_cast<std::uint8_t>(number));
        for (std::uint64_t i = 0; i < 500; ++i)
            ASSERT_EQ(mp4_write_audio_frame(file, frame.data(), 100, 1024 * i), 0u);
        ASSERT_EQ(mp4_close_file(file), 0u);
    };
    std::vector<std::thread> threads;
    for (int number = 1; number <= 4; ++number)
        threads.emplace_back(record, number);
    for (std::thread& thread : threads)
        thread.join();
    for (int number = 1; number <= 4; ++number) {
        const BoxFile file = BoxFile::Read(folder / (std::to_string(number) + ".mp4"));
        EXPECT_THAT(file.Complaints(), IsEmpty());
        const Bytes mdat = file.Box("mdat");
        EXPECT_THAT(Bytes(mdat.begin() + 8, mdat.end()),
                    Each(static_cast<std::uint8_t>(number)));
    }
}

TEST(Threads, OfWhichOneClosesTheFileLeaveTheOtherAnInvalidHandle)
{
    const LogCapture log;
    const Folder folder;
    mp4_handle file = nullptr;
    ASSERT_EQ(CreateFile(folder / "a.mp4", 0, file), 0u);
    std::uint32_t status = 0;
    std::thread writer([&] {
        const Bytes frame(10, 1);
        while (status == 0)
            status = mp4_write_audio_frame(file, frame.data(), 10, 0);
    });
    EXPECT_EQ(mp4_close_file(file), 0u);
    writer.join();
    EXPECT_EQ(status, 2u);
}

// ---- Log lines -------------------------------------------------------------------------------

namespace {

// Which unit each line is of, by a part of its text; class names follow the unit.
const std::pair<const char*, const char*> kOrigins[] = {
    {"mp4 flag is", "src/Mp4Muxer CMp4Muxer::"},
    {"fast header write", "src/Mp4Muxer CMp4Muxer::"},
    {"safe mode open", "src/Mp4Muxer CMp4Muxer::"},
    {"no codec data", "src/Mp4Muxer CMp4Muxer::"},
    {"audio codec is adts", "src/Mp4Muxer CMp4Muxer::"},
    {"Parse video frame fail", "src/Mp4Muxer CMp4Muxer::"},
    {"with empty data", "src/Mp4Muxer CMp4Muxer::"},
    {"mdat end update to", "src/Mp4Muxer CMp4Muxer::"},
    {"Muxer - Close", "src/Mp4Muxer CMp4Muxer::"},
    {"moov update size finished", "src/moov CMp4MoovAtom::"},
    {"calc size(", "src/moov CMp4MoovAtom::"},
    {"m_mvhd size:", "src/moov CMp4MoovAtom::"},
    {"moov flush finished", "src/moov CMp4MoovAtom::"},
    {"audio track samples", "src/trak CMp4TrakAtom::"},
    {"unknown meta data type", "src/ilst CMp4IlstAtom::"},
    {"unknown subtitle codec", "src/stsd CMp4SubtitleStsdAtom::"},
    {"invalid prores format", "src/stsd CMp4VideoStsdAtom::"},
    {"open file failed", "src/BaseIO CFileWriter::Init"},
    {"init CFileWriter", "src/Mp4Muxer CMp4Muxer::"},
};

// Checks all lines so far, and gives those that were met.
void CheckOrigins(const LogCapture& log, std::map<std::string, int>& met)
{
    for (std::size_t i = 0; i < log.Lines().size(); ++i) {
        bool known = false;
        for (const auto& [text, origin] : kOrigins) {
            if (log.Lines()[i].find(text) == std::string::npos)
                continue;
            EXPECT_THAT(log.Sources()[i], StartsWith(origin)) << log.Lines()[i];
            known = true;
            ++met[text];
        }
        EXPECT_TRUE(known) << log.Lines()[i];
    }
}

}  // namespace

TEST(EveryLogLine, NamesItsUnitAndItsFunction)
{
    std::map<std::string, int> met;
    for (const std::uint8_t flags : {std::uint8_t{0}, std::uint8_t{MP4_OPEN_FAST_HEADER},
                                     std::uint8_t{MP4_OPEN_SAFE_MODE}}) {
        Recording rec("clip.mp4", flags);
        const mp4_safe_param near{1, 1000, 2000, 0};
        EXPECT_EQ(mp4_set_safe_param(rec.Handle(), &near), 0u);
        const mp4_video_track_info incomplete{};
        EXPECT_EQ(mp4_set_video_track(rec.Handle(), &incomplete), 0u);
        rec.Video(Bytes(20, 7), 0);
        rec.Video({}, 0);
        rec.SetProRes(9);
        rec.SetAdts();
        rec.SetAac();
        rec.Audio({}, 0);
        rec.Audio(Bytes(30, 1), 0);
        const mp4_subtitle_track_info captions{7, 0};
        EXPECT_EQ(mp4_set_subtitle_track(rec.Handle(), &captions), 0u);
        EXPECT_EQ(mp4_set_metadata_ex(rec.Handle(), "com.x", "y", 0, 7, nullptr), 0u);
        EXPECT_EQ(rec.CloseStatus(), 0u);
        mp4_handle none = nullptr;
        EXPECT_EQ(CreateFile("/none/a.mp4", 0, none), 12u);
        CheckOrigins(rec.Log(), met);
    }
    EXPECT_EQ(met.size(), std::size(kOrigins));
}
