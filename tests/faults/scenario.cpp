#include "faults/scenario.h"

#include "support/recording.h"

#include <spdlog/sinks/sink.h>
#include <spdlog/spdlog.h>

#include <charconv>
#include <new>
#include <string_view>

namespace kvtest {

namespace {

constexpr std::uint32_t kPictureTime = 3600;   // 25 a second
constexpr std::uint32_t kAudioTime = 1920;     // of each frame, as long as a picture
constexpr std::uint32_t kDistance = 12000;     // bytes from checkpoint to checkpoint

std::size_t g_step = 0;
std::uint64_t g_checkpoint = 0;

// Notes where a checkpoint goes and drops everything.
class CheckpointSink final : public spdlog::sinks::sink {
public:
    void log(const spdlog::details::log_msg& line) override
    {
        constexpr std::string_view start = "update moov header to ";
        const std::string_view text(line.payload.data(), line.payload.size());
        if (text.starts_with(start))
            std::from_chars(text.data() + start.size(), text.data() + text.size(), g_checkpoint);
    }
    void flush() override {}
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}
};

// Bytes that never make a start code and differ from frame to frame.
Bytes Filler(std::size_t size, std::uint32_t seed)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(0x80 | (i * 7 + seed * 13));
    return bytes;
}

// Below and above the buffer of a stream; the pictures that flush the log are small ones.
std::size_t PictureSize(std::uint32_t n)
{
    return n % 7 == 3 ? 5000 : 200 + 37 * (n % 11);
}

std::uint32_t Size(const Bytes& bytes)
{
    return static_cast<std::uint32_t>(bytes.size());
}

}  // namespace

const std::vector<FaultPlan>& FaultPlans()
{
    constexpr std::uint8_t safe = MP4_OPEN_SAFE_MODE;
    constexpr std::uint8_t info = MP4_OPEN_INFO_FILE;
    constexpr std::uint8_t fast = MP4_OPEN_FAST_HEADER;
    constexpr std::uint8_t large = MP4_OPEN_LARGE_FILE;
    static const std::vector<FaultPlan> plans{
        {"safe and info", "clip.mp4", safe | info, false},
        {"plain", "clip.mp4", 0, false},
        {"info, fast header", "clip.mp4", info | fast, false},
        {"info, large, long", "clip.mov", info | large | MP4_OPEN_VERSION1, false},
        {"safe, ProRes", "clip.mov", safe, true},
        {"safe and info, ProRes", "clip.mov", safe | info, true},
        {"fast header, large", "clip.mp4", fast | large, false},
        {"safe and info, in-stream HEVC", "clip.mp4", safe | info, false, true, true},
        {"in-stream H.264", "clip.mp4", 0, false, false, true},
    };
    return plans;
}

std::string StepResult::Text() const
{
    switch (kind) {
    case kNotRun: return "not run";
    case kStatus: return "status " + std::to_string(value);
    case kThrewCode: return "threw code " + std::to_string(value);
    case kThrewInteger: return "threw " + std::to_string(value);
    case kThrewMemory: return "threw bad_alloc";
    default: return "threw something foreign";
    }
}

// ---- The calls -----------------------------------------------------------------------------

Scenario::Scenario(const FaultPlan& plan) : m_plan(plan)
{
    Add("create", Answer::Create, {});
    Add("safe parameters", Answer::Ignores, [](mp4_handle file) {
        const mp4_safe_param params{0, kDistance, 2 * kDistance, 4 * kDistance};
        return mp4_set_safe_param(file, &params);
    });
    Add("flush interval", Answer::Ignores, [interval = plan.flushInterval](mp4_handle file) {
        return mp4_repair_set_flush_interval(file, interval);
    }, 4);
    if (plan.lead != 0)
        AddMetadata("lead", plan.lead);
    AddTracks();
    AddFrames();
    Add("close", Answer::Close, [](mp4_handle file) { return mp4_close_file(file); });
    m_results.resize(m_steps.size());
    m_checkpoints.resize(m_steps.size());
}

void Scenario::Add(const char* name, Answer answer,
                   std::function<std::uint32_t(mp4_handle)> call, std::uint32_t expected)
{
    m_steps.push_back({name, answer, expected, std::move(call)});
}

void Scenario::Brings(unsigned packets, unsigned writes)
{
    m_steps.back().packets = packets;
    m_steps.back().writes = writes;
}

void Scenario::AddMetadata(const char* name, std::uint32_t size)
{
    Add(name, Answer::Refuses, [value = Filler(size, 1)](mp4_handle file) {
        return mp4_set_metadata_ex(file, "com.example.notes", value.data(), Size(value),
                                   MP4_METADATA_BINARY, "mdta");
    });
    Brings(1);
}

void Scenario::Keep(Track track, const Bytes& sample)
{
    m_take.tracks[track].push_back({track, Hash(sample.data(), sample.size()), Size(sample),
                                    static_cast<std::uint32_t>(m_steps.size())});
}

void Scenario::AddTracks()
{
    Add("video track", Answer::Refuses, [plan = m_plan](mp4_handle file) {
        mp4_video_track_info info = plan.hevc && !plan.inStream ? HevcRecord()
                                                                : mp4_video_track_info{};
        info.timescale = 90000;
        info.width = 160;
        info.height = 120;
        info.codec = plan.proRes ? MP4_VIDEO_PRORES : plan.hevc ? MP4_VIDEO_HEVC : MP4_VIDEO_H264;
        if (!plan.proRes && !plan.hevc && !plan.inStream) {
            info.sps = Sps().data();
            info.sps_size = static_cast<std::int16_t>(Sps().size());
            info.pps = Pps().data();
            info.pps_size = static_cast<std::int16_t>(Pps().size());
        }
        return mp4_set_video_track(file, &info);
    });
    const bool inStream = m_plan.inStream;
    Brings(inStream ? 0 : 1);
    Add("audio track", Answer::Refuses, [inStream](mp4_handle file) {
        const mp4_audio_track_info info{48000,
                                        kAudioTime,
                                        inStream ? std::uint8_t{MP4_AUDIO_AAC_ADTS}
                                                 : std::uint8_t{MP4_AUDIO_AAC_RAW},
                                        static_cast<std::uint16_t>(inStream ? 0 : 48000),
                                        static_cast<std::uint16_t>(inStream ? 0 : 2),
                                        2};
        return mp4_set_audio_track(file, &info);
    });
    Brings(inStream ? 0 : 1);
    Add("caption track", Answer::Refuses, [inStream](mp4_handle file) {
        const mp4_subtitle_track_info info{inStream ? std::uint32_t{MP4_SUBTITLE_CEA708}
                                                    : std::uint32_t{MP4_SUBTITLE_CEA608},
                                           1000};
        return mp4_set_subtitle_track(file, &info);
    });
    Brings(1);
    Add("time code track", Answer::Ignores, [](mp4_handle file) {
        const mp4_time_code_track_info info{25, 1, 25, 0};
        return mp4_set_time_code_track(file, &info);
    });
    Brings(1);
    Add("title", Answer::Refuses,
        [](mp4_handle file) { return mp4_set_metadata(file, "title", "A recording"); });
    Brings(1);
}

void Scenario::AddFrames()
{
    for (std::uint32_t n = 0; n < m_plan.pictures; ++n) {
        if (n % 16 == 0)
            AddTimeCode(n);
        AddVideo(n);
        AddAudio(n);
        if (n % 8 == 0)
            AddCaption(n);
        if (n == 13)
            // Larger than the buffer of a stream: the log goes out with it.
            AddMetadata("metadata", 5000);
        if (n == 20)
            Add("duration", Answer::Ignores, [](mp4_handle file) {
                mp4_get_duration_ms(file);  // 0 from a failed output
                return mp4_get_moov_size(file) == 0;
            });
    }
}

void Scenario::AddVideo(std::uint32_t n)
{
    const Bytes body = Filler(PictureSize(n), n);
    const Bytes code = Hex("00000001");
    Bytes frame = code + Hex(m_plan.hevc ? "26 01 AF" : "65 88 84") + body;
    const bool sets = m_plan.inStream && n == 0;
    if (sets && m_plan.hevc)
        frame = code + HevcVps() + code + HevcSps() + code + HevcPps() + frame;
    else if (sets)
        frame = code + Sps() + code + Pps() + frame;
    if (m_plan.proRes)
        frame = body;
    Keep(kVideo, m_plan.proRes ? body : WithLengths(frame));
    Add("video frame", Answer::Refuses, [frame, n](mp4_handle file) {
        return mp4_write_video_frame(file, frame.data(), Size(frame),
                                     std::uint64_t{n} * kPictureTime);
    });
    // A length and a unit each, or the bytes alone.
    const unsigned units = sets ? m_plan.hevc ? 4 : 3 : 1;
    Brings(sets ? 2 : 1, m_plan.proRes ? 1 : 2 * units);
}

void Scenario::AddAudio(std::uint32_t n)
{
    const Bytes sample = Filler(60 + n % 5, 100 + n);
    Bytes frame = sample;
    if (m_plan.inStream) {  // LC, 48000 Hz, stereo
        const std::uint32_t size = Size(sample) + 7;
        frame = Bytes{0xFF, 0xF1, 0x4C, static_cast<std::uint8_t>(0x80 | size >> 11),
                      static_cast<std::uint8_t>(size >> 3),
                      static_cast<std::uint8_t>(size << 5 | 0x1F), 0xFC} +
                sample;
    }
    Keep(kAudio, sample);
    Add("audio frame", Answer::Refuses, [frame, n](mp4_handle file) {
        return mp4_write_audio_frame(file, frame.data(), Size(frame),
                                     std::uint64_t{n} * kAudioTime);
    });
    Brings(m_plan.inStream && n == 0 ? 2 : 1, 1);
}

void Scenario::AddCaption(std::uint32_t n)
{
    const std::uint8_t second = static_cast<std::uint8_t>(n);
    const bool packed = m_plan.inStream;  // CEA-708
    const Bytes frame = packed ? Bytes{0x61, 1, 3, 0x94, second, 7}
                               : Bytes{0x61, 2, 1, 0, 0x94, second};
    Keep(kCaptions, packed ? Hex("0000000B 'ccdp' 94") + Bytes{second, 7}
                           : Hex("0000000A 'cdat' 94") + Bytes{second});
    Add("caption frame", Answer::Refuses, [frame, n](mp4_handle file) {
        return mp4_write_subtitle_frame(file, frame.data(), Size(frame), n * 40);
    });
    Brings(1, packed ? 2 : 1);
}

void Scenario::AddTimeCode(std::uint32_t n)
{
    Keep(kTimeCode, {0, 0, 0, static_cast<std::uint8_t>(n)});
    Add("time code", Answer::Ignores,
        [n](mp4_handle file) { return mp4_write_time_code(file, n); });
    Brings(1, 1);
}

// ---- A run ---------------------------------------------------------------------------------

std::size_t Scenario::Now()
{
    return g_step;
}

void Scenario::Run(const std::filesystem::path& path, ExternalIoFuncs* table, const Around& around)
{
    RunSteps(path, table, around, false);
}

void Scenario::RunAgain(const std::filesystem::path& path, ExternalIoFuncs* table,
                        const Around& around)
{
    RunSteps(path, table, around, true);
}

namespace {

template <typename Call>
StepResult ResultOf(Call call)
{
    try {
        return {StepResult::kStatus, call()};
    } catch (const kv_mp4_exception& error) {
        return {StepResult::kThrewCode, error.code};
    } catch (const std::bad_alloc&) {
        return {StepResult::kThrewMemory, 0};
    } catch (int number) {
        return {StepResult::kThrewInteger, number};
    } catch (...) {
        return {StepResult::kThrewOther, 0};
    }
}

}  // namespace

void Scenario::RunSteps(const std::filesystem::path& path, ExternalIoFuncs* table,
                        const Around& around, bool again)
{
    const std::string name = Utf8(path);
    std::fill(m_results.begin(), m_results.end(), StepResult{});
    std::fill(m_checkpoints.begin(), m_checkpoints.end(), 0);
    mp4_handle file = nullptr;
    const auto call = [&] {
        if (around)
            around(true);
        const StepResult result = ResultOf([&] {
            return g_step != 0 ? m_steps[g_step].call(file)
                               : mp4_create_file_adv_ex(name.c_str(), m_plan.flags, 4096, 32,
                                                        table ? MP4_IO_EXTERNAL : MP4_IO_FILE,
                                                        table, &file);
        });
        if (around)
            around(false);
        return result;
    };
    for (g_step = 0; g_step < m_steps.size(); ++g_step) {
        g_checkpoint = 0;
        m_results[g_step] = call();
        const StepResult usual{StepResult::kStatus, m_steps[g_step].expected};
        // A file is closed once, whatever the close said.
        if (again && m_results[g_step] != usual && m_steps[g_step].answer != Answer::Close)
            m_results[g_step] = call();
        m_checkpoints[g_step] = g_checkpoint;
        if (!file)
            return;
    }
}

Counts Scenario::SamplesBefore(std::size_t step) const
{
    Counts counts;
    for (const Track track : kAllTracks)
        for (const Sample& sample : m_take.tracks[track])
            counts.of[track] += sample.step < step;
    return counts;
}

// ---- Quiet ---------------------------------------------------------------------------------

Quiet::Quiet() : m_before(spdlog::default_logger())
{
    spdlog::set_default_logger(
        std::make_shared<spdlog::logger>("faults", std::make_shared<CheckpointSink>()));
}

Quiet::~Quiet()
{
    spdlog::set_default_logger(std::static_pointer_cast<spdlog::logger>(m_before));
}

}  // namespace kvtest
