#include "support/recording.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <mutex>

namespace kvtest {

// ---- LogCapture ----------------------------------------------------------------------------

struct LogCapture::State : spdlog::sinks::base_sink<std::mutex> {
    std::vector<std::string> lines;
    std::vector<std::string> sources;

protected:
    void sink_it_(const spdlog::details::log_msg& line) override
    {
        const auto level = spdlog::level::to_string_view(line.level);
        lines.push_back(std::string(level.begin(), level.end()) + " " +
                        std::string(line.payload.begin(), line.payload.end()));
        sources.push_back(line.source.empty() ? ""
                                              : std::string(line.source.filename) + " " +
                                                    line.source.funcname);
    }
    void flush_() override {}
};

LogCapture::LogCapture() : m_state(std::make_shared<State>()), m_before(spdlog::default_logger())
{
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("kvtest", m_state));
}

LogCapture::~LogCapture()
{
    spdlog::set_default_logger(std::static_pointer_cast<spdlog::logger>(m_before));
}

const std::vector<std::string>& LogCapture::Lines() const
{
    return m_state->lines;
}

std::size_t LogCapture::Count(const std::string& line) const
{
    return static_cast<std::size_t>(std::count(Lines().begin(), Lines().end(), line));
}

const std::vector<std::string>& LogCapture::Sources() const
{
    return m_state->sources;
}

// ---- StdoutCapture -------------------------------------------------------------------------

StdoutCapture::StdoutCapture()
{
    testing::internal::CaptureStdout();
}

StdoutCapture::~StdoutCapture()
{
    if (m_running)
        testing::internal::GetCapturedStdout();
}

std::string StdoutCapture::Take()
{
    m_running = false;
    return testing::internal::GetCapturedStdout();
}

// ---- Streams -------------------------------------------------------------------------------

const Bytes& Sps()
{
    static const Bytes sps = Hex("67 64 00 0A AC D9 42 8D F9 E1 00 00 03 00 01 00 00 03 00 32 8F 12 25 96");
    return sps;
}

const Bytes& Pps()
{
    static const Bytes pps = Hex("68 EB E3 CB 22 C0");
    return pps;
}

const Bytes& HevcVps()
{
    static const Bytes vps =
        Hex("40 01 0C 01 FF FF 01 60 00 00 03 00 90 00 00 03 00 00 03 00 1E 92 80 90");
    return vps;
}

const Bytes& HevcSps()
{
    static const Bytes sps =
        Hex("42 01 01 01 60 00 00 03 00 90 00 00 03 00 00 03 00 1E A0 14 20 79 65 92 A4 93 2B C0 "
            "5A 02 00 00 03 00 02 00 00 03 00 32 10");
    return sps;
}

const Bytes& HevcPps()
{
    static const Bytes pps = Hex("44 01 C1 72 B4 62 40");
    return pps;
}

Bytes Unit(std::uint8_t header, std::size_t size)
{
    Bytes unit(3 + size, 0xAB);
    unit[0] = 0;
    unit[1] = 0;
    unit[2] = 1;
    unit[3] = header;
    return unit;
}

Bytes operator+(const Bytes& left, const Bytes& right)
{
    Bytes both = left;
    both.insert(both.end(), right.begin(), right.end());
    return both;
}

// ---- Recording -----------------------------------------------------------------------------

Recording::Recording(const std::string& name, std::uint8_t flags) : m_name(name)
{
    // Not the plain create: that one replaces the logger that collects the lines.
    const std::uint32_t status = mp4_create_file_adv_ex(Utf8(Path()).c_str(), flags, 4096, 32,
                                                        MP4_IO_FILE, nullptr, &m_handle);
    EXPECT_EQ(status, 0u);
}

Recording::Recording(ExternalSink& sink, const std::string& name, std::uint8_t flags)
    : m_name(name), m_sink(&sink)
{
    const std::uint32_t status = mp4_create_file_adv_ex(name.c_str(), flags, 4096, 32,
                                                        MP4_IO_EXTERNAL, sink.Table(), &m_handle);
    EXPECT_EQ(status, 0u);
}

Recording::~Recording()
{
    if (m_handle)
        mp4_close_file(m_handle);
}

std::uint32_t Recording::SetH264(std::uint32_t timescale, std::uint64_t sampleDuration)
{
    mp4_video_track_info info{};
    info.timescale = timescale;
    info.sample_duration = sampleDuration;
    info.codec = MP4_VIDEO_H264;
    info.width = 160;
    info.height = 120;
    info.sps = Sps().data();
    info.sps_size = static_cast<std::int16_t>(Sps().size());
    info.pps = Pps().data();
    info.pps_size = static_cast<std::int16_t>(Pps().size());
    return mp4_set_video_track(m_handle, &info);
}

mp4_video_track_info HevcRecord()
{
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_HEVC;
    info.width = 160;
    info.height = 120;
    info.sps = HevcSps().data();
    info.sps_size = static_cast<std::int16_t>(HevcSps().size());
    info.pps = HevcPps().data();
    info.pps_size = static_cast<std::int16_t>(HevcPps().size());
    info.vps = HevcVps().data();
    info.vps_size = static_cast<std::int16_t>(HevcVps().size());
    return info;
}

std::uint32_t Recording::SetHevc(std::uint32_t timescale)
{
    mp4_video_track_info info = HevcRecord();
    info.timescale = timescale;
    return mp4_set_video_track(m_handle, &info);
}

std::uint32_t Recording::SetProRes(std::uint32_t format)
{
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_PRORES;
    info.width = 160;
    info.height = 120;
    info.prores_format = format;
    return mp4_set_video_track(m_handle, &info);
}

std::uint32_t Recording::SetAac(std::uint32_t timescale, std::uint64_t sampleDuration)
{
    const mp4_audio_track_info info{timescale, sampleDuration, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    return mp4_set_audio_track(m_handle, &info);
}

std::uint32_t Recording::SetAdts(std::uint32_t timescale)
{
    const mp4_audio_track_info info{timescale, 0, MP4_AUDIO_AAC_ADTS, 0, 0, 0};
    return mp4_set_audio_track(m_handle, &info);
}

std::uint32_t Recording::Video(const Bytes& frame, std::uint64_t time)
{
    return mp4_write_video_frame(m_handle, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                 time);
}

std::uint32_t Recording::Audio(const Bytes& frame, std::uint64_t time)
{
    return mp4_write_audio_frame(m_handle, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                 time);
}

void Recording::FramesAt(std::initializer_list<std::uint64_t> times)
{
    for (const std::uint64_t time : times)
        EXPECT_EQ(Video(Unit(0x65), time), 0u);
}

std::uint32_t Recording::CloseStatus()
{
    const mp4_handle handle = m_handle;
    m_handle = nullptr;
    return mp4_close_file(handle);
}

BoxFile Recording::Close()
{
    EXPECT_EQ(CloseStatus(), 0u);
    return m_sink ? m_sink->File() : BoxFile::Read(Path());
}

}  // namespace kvtest
