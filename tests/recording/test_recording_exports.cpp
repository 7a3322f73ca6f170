// Handles, paths and the set-up of the logger.
#include "support/matches.h"
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace kvtest;
using testing::HasSubstr;

TEST(ANullHandle, Gives2WithALogLine)
{
    LogCapture log;
    EXPECT_EQ(mp4_close_file(nullptr), 2u);
    EXPECT_EQ(mp4_get_duration_ms(nullptr), 2u);
    EXPECT_EQ(mp4_get_moov_size(nullptr), 2u);
    EXPECT_EQ(mp4_set_video_track(nullptr, nullptr), 2u);
    EXPECT_EQ(log.Count("error null handle"), 4u);
}

TEST(AClosedHandle, Gives2WithItsValueInTheLog)
{
    Recording rec;
    const mp4_handle stale = rec.Handle();
    rec.Close();
    EXPECT_EQ(mp4_close_file(stale), 2u);
    EXPECT_THAT(rec.Log().Lines().back(), Matches("error invalid handle 0x[0-9a-f]+"));
}

namespace {

// Keeps the names as it got them, like a logger that writes later.
struct NameKeeper : spdlog::sinks::base_sink<std::mutex> {
    std::vector<const char*> names;

protected:
    void sink_it_(const spdlog::details::log_msg& line) override
    {
        names.push_back(line.source.funcname);
    }
    void flush_() override {}
};

}  // namespace

TEST(TheNameOfAnExport, OutlivesItsLogLine)
{
    const LogCapture restores;
    const auto keeper = std::make_shared<NameKeeper>();
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("keeper", keeper));
    mp4_close_file(nullptr);
    mp4_set_safe_param(keeper.get(), nullptr);
    ASSERT_EQ(keeper->names.size(), 2u);
    EXPECT_STREQ(keeper->names[0], "mp4_close_file");
    EXPECT_STREQ(keeper->names[1], "mp4_set_safe_param");
}

TEST(NullRecords, Give4)
{
    Recording rec;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), nullptr), 4u);
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), nullptr), 4u);
    EXPECT_EQ(mp4_set_subtitle_track(rec.Handle(), nullptr), 4u);
    EXPECT_EQ(mp4_set_time_code_track(rec.Handle(), nullptr), 4u);
    EXPECT_EQ(mp4_get_video_bitrate(rec.Handle(), nullptr), 4u);
    EXPECT_EQ(mp4_get_audio_bitrate(rec.Handle(), nullptr), 4u);
    EXPECT_EQ(mp4_get_safe_param(rec.Handle(), nullptr), 4u);
    EXPECT_EQ(mp4_set_safe_param(rec.Handle(), nullptr), 4u);
    EXPECT_TRUE(rec.Log().Has("error params is NULL when set safe param"));
    mp4_handle handle = nullptr;
    EXPECT_EQ(mp4_create_file(nullptr, 0, &handle), 4u);
    EXPECT_EQ(mp4_create_file(L"a", 0, nullptr), 4u);
    EXPECT_EQ(mp4_create_file_ex("a", 0, nullptr), 4u);
    EXPECT_EQ(mp4_create_file_adv(nullptr, 0, 0, 0, MP4_IO_FILE, nullptr, &handle), 4u);
    EXPECT_EQ(mp4_create_file_adv(L"a", 0, 0, 0, MP4_IO_FILE, nullptr, nullptr), 4u);
    EXPECT_EQ(mp4_create_file_adv_ex("a", 0, 0, 0, MP4_IO_FILE, nullptr, nullptr), 4u);
    EXPECT_EQ(mp4_create_file_adv_ex(nullptr, 0, 0, 0, MP4_IO_FILE, nullptr, &handle), 4u);
    EXPECT_EQ(handle, nullptr);
}

TEST(SafeParameters, ComeBackAsTheyWereSet)
{
    Recording rec;
    mp4_safe_param params{};
    EXPECT_EQ(mp4_get_safe_param(rec.Handle(), &params), 0u);
    EXPECT_EQ(params.strategy, 1u);
    EXPECT_EQ(params.min_interval, 0xA00000u);
    EXPECT_EQ(params.max_interval, 0x6400000u);
    EXPECT_EQ(params.threshold, 0x40000000u);
    const mp4_safe_param other{7, 1, 2, 3};
    EXPECT_EQ(mp4_set_safe_param(rec.Handle(), &other), 0u);
    EXPECT_EQ(mp4_get_safe_param(rec.Handle(), &params), 0u);
    EXPECT_EQ(params.strategy, 7u);
    EXPECT_EQ(params.threshold, 3u);
}

TEST(TheFlushInterval, AnswersFourForChangedAndZeroForRefused)
{
    Recording rec;
    testing::internal::CaptureStdout();
    EXPECT_EQ(mp4_repair_set_flush_interval(rec.Handle(), 9), 0u);
    EXPECT_EQ(mp4_repair_set_flush_interval(rec.Handle(), 10), 4u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ERROR:info file flush interval(9) too small\n"
              "change info file flush interval from 900 to 10\n");
}

TEST(DurationAndBitrate, AreThoseOfTheTracks)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({0, 500});
    EXPECT_EQ(mp4_get_duration_ms(rec.Handle()), 1000u);
    double rate = 0;
    EXPECT_EQ(mp4_get_video_bitrate(rec.Handle(), &rate), 0u);
    EXPECT_DOUBLE_EQ(rate, 28.0 / 1024);  // 2 x 14 bytes in one second
    EXPECT_EQ(mp4_get_audio_bitrate(rec.Handle(), &rate), 0u);
    EXPECT_EQ(rate, 0.0);
}

// 1000 ticks from the first to the end of the last: two samples in one second, or in two.
TEST(TheBitrate, IsTheBytesOfAMilliSecondTrackInKiBASecond)
{
    Recording rec;
    rec.SetAac();
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 0u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 500), 0u);
    double rate = 0;
    EXPECT_EQ(mp4_get_audio_bitrate(rec.Handle(), &rate), 0u);
    EXPECT_DOUBLE_EQ(rate, 60.0 / 1024);
}

TEST(TheBitrate, GoesByTheTimescale)
{
    Recording rec;
    rec.SetH264(500);
    rec.FramesAt({0, 500});
    double rate = 0;
    EXPECT_EQ(mp4_get_video_bitrate(rec.Handle(), &rate), 0u);
    EXPECT_DOUBLE_EQ(rate, 14.0 / 1024);  // 28 bytes in two seconds
}

TEST(AMultibytePath, MayHave1022Characters)
{
    Folder folder;
    LogCapture log;
    std::string path = (folder / "").string();
    while (path.size() < 1023)
        path += "./";
    path.resize(1023);
    mp4_handle handle = nullptr;
    EXPECT_EQ(mp4_create_file_ex(path.c_str(), 0, &handle), 1u);
    EXPECT_TRUE(log.Has("error file path reach the max path size 1024"));
    EXPECT_EQ(kv_mp4_open(path.c_str()), nullptr);
}

TEST(APathThatIsNotValidInTheLocale, Gives1)
{
    LogCapture log;
    mp4_handle handle = nullptr;
    EXPECT_EQ(mp4_create_file_ex("\xFF\xFE.mp4", 0, &handle), 1u);
    EXPECT_TRUE(log.Has("error wcstombs failed"));
}

#if !defined(_WIN32)  // where any 16-bit characters name a file

// A lone surrogate, and what lies beyond the last code point.
TEST(AWidePathThatNoFileCanHave, Gives1)
{
    for (const wchar_t* name : {L"\xD800.mp4", L"\x110000.mp4"}) {
        LogCapture log;
        mp4_handle handle = nullptr;
        EXPECT_EQ(mp4_create_file_adv(name, 0, 0, 0, MP4_IO_FILE, nullptr, &handle), 1u);
        EXPECT_EQ(handle, nullptr);
        EXPECT_TRUE(log.Has("error open file failed, error:" + std::string(std::strerror(EILSEQ))));
    }
}

// In bytes, of which Linux takes 4095.
TEST(AWidePathOfMoreBytesThanTheSystemTakes, Gives1)
{
    Folder folder;
    const std::wstring name = L"/\u20AC.mp4";  // 8 bytes
    std::wstring path = (folder / "").wstring();
    path.resize(path.size() - 1);
    while (path.size() < 4095 - 8)
        path += L"/.";
    path.resize(4095 - 8, L'/');
    mp4_handle handle = nullptr;
    ASSERT_EQ(mp4_create_file_adv((path + name).c_str(), 0, 0, 0, MP4_IO_FILE, nullptr, &handle),
              0u);
    EXPECT_EQ(mp4_close_file(handle), 0u);
    EXPECT_TRUE(std::filesystem::exists(folder / "\xE2\x82\xAC.mp4"));
    LogCapture log;
    handle = nullptr;
    EXPECT_EQ(mp4_create_file_adv((path + L"/" + name).c_str(), 0, 0, 0, MP4_IO_FILE, nullptr,
                                  &handle),
              1u);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(
        log.Has("error open file failed, error:" + std::string(std::strerror(ENAMETOOLONG))));
}

#endif

TEST(ANonAsciiPath, KeepsItsNameInBothForms)
{
    Folder folder;
    const std::filesystem::path path = folder / "\xC3\xA4\xE2\x82\xAC.mp4";
    mp4_handle handle = nullptr;
    ASSERT_EQ(mp4_create_file_adv_ex(Utf8(path).c_str(), 0, 0, 0, MP4_IO_FILE, nullptr, &handle),
              0u);
    EXPECT_TRUE(std::filesystem::exists(path));
    mp4_close_file(handle);
    const std::wstring wide = (folder / "").wstring() + L"\u20AC\uFF0B\U0001F3A5.mp4";
    ASSERT_EQ(mp4_create_file_adv(wide.c_str(), 0, 0, 0, MP4_IO_FILE, nullptr, &handle), 0u);
    mp4_close_file(handle);
    EXPECT_TRUE(std::filesystem::exists(folder / "\xE2\x82\xAC\xEF\xBC\x8B\xF0\x9F\x8E\xA5.mp4"));
}

TEST(TheFirstPlainCreate, AnnouncesTheVersionOnceAndSetsTheLogger)
{
    Folder folder;
    LogCapture log;
    for (const char* name : {"a.mp4", "b.mp4"}) {
        mp4_handle handle = nullptr;
        ASSERT_EQ(mp4_create_file_ex((folder / name).string().c_str(), 0, &handle), 0u);
        mp4_close_file(handle);
    }
    EXPECT_EQ(log.Count("info lumivane mp4 library 1.0.1.17543"), 1u);
    // The rest went to the library's own logger.
    EXPECT_THAT(log.Sources(), testing::ElementsAre("src/mp4 mp4_create_file"));
    EXPECT_EQ(spdlog::default_logger()->name(), "msvc_logger");
    EXPECT_EQ(spdlog::default_logger()->sinks().size(), 1u);
    EXPECT_EQ(spdlog::default_logger()->level(), spdlog::level::info);
}

TEST(TheSimpleFrontEnd, CountsVideoCodecsFrom1AndTestsThemBeforeTheHandle)
{
    kv_mp4_video_info video{};
    EXPECT_EQ(kv_mp4_set_video(nullptr, &video), 10u);
    video.codec = 2;
    EXPECT_EQ(kv_mp4_set_video(nullptr, &video), 2u);
    kv_mp4_audio_info audio{};
    EXPECT_EQ(kv_mp4_set_audio(nullptr, &audio), 10u);
    kv_mp4_subtitle_info captions{3, 0};
    EXPECT_EQ(kv_mp4_set_subtitle(nullptr, &captions), 10u);
    EXPECT_EQ(kv_mp4_set_video(nullptr, nullptr), 4u);
}
