#include "record.h"

#include "box_tree.h"
#include "failure.h"
#include "system.h"
#include "timecode.h"

#include <kv_mp4.h>

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

extern "C" {
#include <libavutil/parseutils.h>
}

namespace {

using namespace std::string_literals;
using Clock = std::chrono::steady_clock;

// Standard error may be gone, as that of a closed terminal is; a recording goes on without it.
void Print(const std::string& text)
{
    std::fputs(text.c_str(), stderr);
}

void Warn(const std::string& sentence)
{
    Print(fmt::format("kvmp4: {}\n", sentence));
}

// One line on a terminal, several times a second; nothing elsewhere.
class Progress {
public:
    explicit Progress(bool shown) : m_shown(shown) {}
    ~Progress() { Clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Update(std::uint64_t frames, double seconds, std::uint64_t bytes)
    {
        const auto now = Clock::now();
        if (!m_shown || now - m_last < std::chrono::milliseconds(200))
            return;
        m_last = now;
        const double wall = std::chrono::duration<double>(now - m_start).count();
        Print(fmt::format("\r\033[K{} frames  {:.1f} s  {:.1f} MiB  {:.1f} Mb/s  x{:.1f}", frames,
                          seconds, static_cast<double>(bytes) / 1048576.0,
                          seconds > 0 ? static_cast<double>(bytes) * 8e-6 / seconds : 0.0,
                          wall > 0 ? seconds / wall : 0.0));
        m_drawn = true;
    }
    void Clear()
    {
        if (m_drawn)
            Print("\r\033[K");
        m_drawn = false;
    }

private:
    const bool m_shown;
    bool m_drawn = false;
    const Clock::time_point m_start = Clock::now();
    Clock::time_point m_last{};
};

// The close of a safe recording writes 32 bits of the size of its data, over the mark that says
// that 64 follow. Beyond 4 GiB nothing finds the index behind the data then: both are written here.
void RestoreLargeSize(const std::string& path)
{
    std::error_code ignored;
    const std::uint64_t size = std::filesystem::file_size(PathOf(path), ignored);
    if (ignored || size >> 32 == 0)
        return;
    errno = 0;
    std::fstream file(PathOf(path), std::ios::binary | std::ios::in | std::ios::out);
    std::uint32_t length = 0;
    const auto read = [&](std::uint64_t at) {  // a box's length; its type
        std::array<unsigned char, 8> head{};
        file.seekg(static_cast<std::streamoff>(at));
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast)
        file.read(reinterpret_cast<char*>(head.data()), head.size());
        length = 0;
        for (std::size_t i = 0; i < 4; ++i)
            length = length << 8 | head[i];
        return std::string(head.begin() + 4, head.end());
    };
    const auto write = [&](std::uint64_t at, std::uint64_t value, int bytes) {
        file.seekp(static_cast<std::streamoff>(at));
        for (int shift = 8 * bytes; shift > 0; shift -= 8)
            file.put(static_cast<char>(value >> (shift - 8) & 0xFF));
    };
    std::uint64_t data = 0;
    while (read(data) != "mdat" && length >= 8)
        data += length;
    const auto fail = [&](const std::string& why) {
        throw Failure(kExitWrite, "finishing " + path + " failed: " + why);
    };
    if (!file)
        fail(std::generic_category().message(errno));
    // The index ends the file, so that its place is the last one with these 32 bits.
    const std::uint64_t low = data + length;
    const std::uint64_t index = low + ((size - low - 8) >> 32 << 32);
    if (index == low)
        return;
    if (read(index) != "moov")
        fail("its index is not in its place");
    write(data + 8, index - data, 8);
    file.flush();
    write(data, 1, 4);
    if (!file.flush())
        fail(std::generic_category().message(errno));
}

// The open output. Closes in any case, so that whatever was recorded plays.
class Output {
public:
    explicit Output(const RecordOptions& options)
        : m_path(options.output), m_large(options.largeFile), m_safe(options.safety.Safe())
    {
        const std::uint8_t flags =
            static_cast<std::uint8_t>((options.largeFile ? MP4_OPEN_LARGE_FILE : 0) |
                                      (options.fastHeader ? MP4_OPEN_FAST_HEADER : 0) |
                                      (options.version1 ? MP4_OPEN_VERSION1 : 0) |
                                      (options.safety.Safe() ? MP4_OPEN_SAFE_MODE : 0) |
                                      (options.safety.Info() ? MP4_OPEN_INFO_FILE : 0));
        std::error_code ignored;
        if (m_path.size() > 1000)
            throw Failure(kExitOutput, "the path of the output is too long");
        const std::uint32_t status = mp4_create_file_adv_ex(
            m_path.c_str(), flags, 4096, 32, MP4_IO_FILE, nullptr, &m_file);
        if (status != MP4_OK || !m_file)
            throw Failure(kExitOutput,
                          "cannot create " + m_path + ": " + StatusText(status));
        // The log of what was overwritten would be taken for this recording's.
        if (!options.safety.Info())
            std::filesystem::remove(PathOf(m_path + ".info"), ignored);
        ApplySafety(options.safety, m_file);
        if (options.safety.LowLoss()) {
            std::size_t metadata = 0;
            for (const std::string& item : options.metadata)
                metadata += 2 * item.size() + 64;
            m_lowLoss.emplace(m_file, metadata);
        }
    }
    ~Output()
    {
        try {
            if (m_file && mp4_close_file(m_file) == MP4_OK && m_large && m_safe)
                RestoreLargeSize(m_path);
        } catch (const std::exception&) {
            // The failure that brought us here is the one to tell.
        }
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void Announce(const TrackInfo& track)
    {
        std::uint32_t status = 0;
        if (track.kind == Kind::kCaptions) {
            const mp4_subtitle_track_info info{track.codec, track.timescale};
            status = mp4_set_subtitle_track(m_file, &info);
        } else if (track.kind == Kind::kVideo) {
            if (m_lowLoss)
                m_lowLoss->SetFrameRate(track.rate.den > 0 ? av_q2d(track.rate) : 0);
            mp4_video_track_info info{};
            info.timescale = track.timescale;
            info.sample_duration = track.sampleDuration;
            info.codec = track.codec;
            info.width = track.width;
            info.height = track.height;
            if (track.codec == MP4_VIDEO_PRORES) {
                info.prores_format = track.proResFormat;
            } else {
                info.sps = track.sps.data();
                info.sps_size = static_cast<std::int16_t>(track.sps.size());
                info.pps = track.pps.data();
                info.pps_size = static_cast<std::int16_t>(track.pps.size());
                info.vps = track.vps.data();
                info.vps_size = static_cast<std::int16_t>(track.vps.size());
            }
            status = mp4_set_video_track(m_file, &info);
        } else {
            mp4_audio_track_info info{};
            info.timescale = track.timescale;
            info.sample_duration = track.sampleDuration;
            info.codec = track.codec;
            info.sample_rate = track.sampleRate;
            info.channels = track.channels;
            info.object_type = track.objectType;
            status = mp4_set_audio_track(m_file, &info);
        }
        if (status != MP4_OK)
            throw Failure(status == MP4_ERR_INVALID_PARAM ? kExitStream : kExitWrite,
                          "the " + track.name + " track cannot be set up: " + StatusText(status));
    }

    // The time code of the first frame.
    void Announce(const TimeCode& code)
    {
        constexpr std::uint32_t kDropFrame = 1, kWrapsAtMidnight = 2;
        mp4_time_code_track_info info{};
        info.timescale = static_cast<std::uint32_t>(code.rate.num);
        info.frame_duration = static_cast<std::uint64_t>(code.rate.den);
        info.frames_per_second = code.base;
        info.flags = kWrapsAtMidnight | (code.dropFrame ? kDropFrame : 0);
        std::uint32_t status = mp4_set_time_code_track(m_file, &info);
        if (status == MP4_OK)
            status = mp4_write_time_code(m_file, code.frame);
        if (status != MP4_OK)
            throw Failure(kExitWrite, "the time code cannot be written: "s + StatusText(status));
    }

    void SetMetadata(const std::string& item)
    {
        const std::size_t equals = item.find('=');
        const std::string key = item.substr(0, equals);
        const std::uint32_t status =
            mp4_set_metadata(m_file, key.c_str(), item.c_str() + equals + 1);
        if (status != MP4_OK)
            throw Failure(kExitWrite, "the item " + key + " cannot be set: " + StatusText(status));
    }

    void Write(const Frame& frame)
    {
        if (frame.kind == Kind::kCaptions && Reaches4GiB(0)) {
            m_captionsEnded = true;  // their places have 32 bits in any file
            return;
        }
        std::uint32_t status = 0;
        try {
            const auto size = static_cast<std::uint32_t>(frame.data.size());
            const auto time = static_cast<std::uint64_t>(frame.time);
            const auto write = frame.kind == Kind::kVideo   ? mp4_write_video_frame
                               : frame.kind == Kind::kAudio ? mp4_write_audio_frame
                                                            : mp4_write_subtitle_frame;
            if (m_lowLoss)
                m_lowLoss->BeforeFrame(frame);
            status = write(m_file, frame.data.data(), size, time);
            if (m_lowLoss)
                m_lowLoss->AfterFrame(frame);
        } catch (const kv_mp4_exception& error) {
            throw Failure(kExitWrite, "writing " + m_path + " failed: " +
                                          std::generic_category().message(error.code));
        }
        if (status == MP4_ERR_PARSE_VIDEO || status == MP4_ERR_INVALID_ADTS)
            ++m_broken;
        else if (status != MP4_OK)
            throw Failure(kExitWrite, "writing " + m_path + " failed: " + StatusText(status));
    }

    void Close()
    {
        const mp4_handle file = m_file;
        m_file = nullptr;
        const std::uint32_t status = mp4_close_file(file);
        if (status != MP4_OK)
            throw Failure(kExitWrite, "finishing " + m_path + " failed: " + StatusText(status));
        if (m_large && m_safe)
            RestoreLargeSize(m_path);
    }

    std::uint64_t Broken() const { return m_broken; }
    bool CaptionsEnded() const { return m_captionsEnded; }
    // Whether another frame may need 64-bit sizes in a file that has none.
    bool IsFull() const
    {
        if (m_large)
            return false;
        mp4_safe_param params{};
        if (m_safe)
            mp4_get_safe_param(m_file, &params);
        return Reaches4GiB(params.max_interval);
    }

private:
    // So far, or with so many bytes more; what has not reached the file yet is allowed for.
    bool Reaches4GiB(std::uint64_t more) const
    {
        std::error_code ignored;
        const std::uint64_t size = std::filesystem::file_size(PathOf(m_path), ignored);
        return !ignored && (size + more + kOnTheWay) >> 32 != 0;
    }

    static constexpr std::uint64_t kOnTheWay = 64u << 20;
    const std::string m_path;
    const bool m_large;
    const bool m_safe;
    mp4_handle m_file = nullptr;
    std::optional<LowLoss> m_lowLoss;
    std::uint64_t m_broken = 0;  // frames that the library could not read
    bool m_captionsEnded = false;
};

// The caption track. It is announced when the first caption comes: a file without any has none.
class CaptionRecorder {
public:
    // `leader` is the kind of the track whose first frame the captions count from, as its track
    // does; `start` is the moment of that frame on the clock of the time code.
    CaptionRecorder(Output& output, Input* source, Kind leader, double start)
        : m_output(output), m_source(source), m_leader(leader), m_start(start)
    {
    }

    // Called with each frame of video and sound once it is written.
    void Follow(const Frame& frame)
    {
        if (!m_source || (!m_zero && frame.kind != m_leader))
            return;
        if (!m_zero) {
            m_zero = frame.seconds;
            for (Frame& early : std::exchange(m_early, {}))
                Write(m_source, std::move(early));
        }
        if (m_source->Tracks().empty())
            WriteUntil(frame.seconds - *m_zero);
    }

    // A frame from any input; those of others than the source are dropped.
    void Write(const Input* from, Frame frame)
    {
        if (from != m_source)
            return;
        if (!m_zero) {
            m_early.push_back(std::move(frame));
            return;
        }
        frame.time -= std::llround(Shift(frame.seconds) * m_source->CaptionTrack().timescale);
        frame.time = std::max(frame.time, m_begun ? m_last + 1 : 0);
        if (!m_begun) {
            m_output.Announce(m_source->CaptionTrack());
            // A track begins with its first sample: this one keeps the first caption at its time.
            if (frame.time > 0)
                WritePadding(0);
            m_begun = true;
        }
        frame.seconds = Seconds(frame.time);
        m_output.Write(frame);
        m_gap = frame.time - m_last;
        m_last = frame.time;
    }

    // The last sample lasts as long as the one before. After a pause this would be beyond the end
    // of the recording; a sample half-way to it makes both end together.
    void Finish(double end)
    {
        if (!m_begun)
            return;
        const auto left =
            std::llround((end - *m_zero) * m_source->CaptionTrack().timescale) - m_last;
        if (left > 1 && m_gap > left)
            WritePadding(m_last + left / 2);
    }

private:
    // From an input that holds nothing but captions: those up to a moment.
    void WriteUntil(double seconds)
    {
        while (!g_stop) {
            double next = 0;
            const Input::Head head = m_source->Look(&next);
            if (head == Input::Head::kEnd)
                return;
            if (head == Input::Head::kWaiting) {
                m_source->WaitForMore();
                continue;
            }
            if (next - Shift(next) > seconds)
                return;
            Write(m_source, m_source->Take());
        }
    }
    // What is taken from the times of captions, the first of which has this one.
    double Shift(double first)
    {
        if (!m_shift) {
            // A caption file counts from the same clock as the recording, or from its beginning;
            // an input's track from the leader, be it in the same input.
            if (m_source->Captions() == CaptionSource::kFile)
                m_shift = first >= m_start ? m_start : 0;
            else
                m_shift = m_source->Tracks().empty() ? 0 : *m_zero;
        }
        return *m_shift;
    }
    // Like those of the other tracks, whose frames these go between.
    double Seconds(std::int64_t time) const
    {
        return static_cast<double>(time) / m_source->CaptionTrack().timescale;
    }
    void WritePadding(std::int64_t time)
    {
        Frame padding;
        padding.kind = Kind::kCaptions;
        padding.time = time;
        padding.seconds = Seconds(time);
        padding.data = m_source->CaptionPadding();
        m_output.Write(padding);
    }

    Output& m_output;
    Input* const m_source;
    const Kind m_leader;
    const double m_start;
    std::optional<double> m_zero;   // the time of the leader's first frame, seconds
    std::optional<double> m_shift;  // seconds
    std::vector<Frame> m_early;     // came before the leader's first frame
    bool m_begun = false;
    std::int64_t m_last = 0;  // ticks
    std::int64_t m_gap = 0;   // between the last two captions
};

// A caption file goes before a track, a track before what may ride in the pictures.
Input* ChooseCaptions(const std::vector<std::unique_ptr<Input>>& inputs)
{
    Input* best = nullptr;
    for (const auto& input : inputs) {
        if (best && best->Captions() == CaptionSource::kFile &&
            input->Captions() == CaptionSource::kFile)
            throw Failure(kExitUsage, "there is more than one caption file");
        if (input->Captions() > (best ? best->Captions() : CaptionSource::kNone))
            best = input.get();
    }
    return best;
}

std::optional<TimeCode> ChooseTimeCode(const RecordOptions& options,
                                       const std::vector<std::unique_ptr<Input>>& inputs)
{
    if (options.timeCode == "none")
        return std::nullopt;
    std::string why;
    for (const auto& input : inputs) {
        const auto video =
            std::ranges::find(input->Tracks(), Kind::kVideo, &TrackInfo::kind);
        if (video == input->Tracks().end())
            continue;
        if (options.timeCode != "auto") {
            auto code = ParseTimeCode(options.timeCode, video->rate, why);
            if (!code)
                throw Failure(kExitUsage, "the time code \"" + options.timeCode + "\" " + why);
            return code;
        }
        if (input->TimeCode().empty())
            continue;
        auto code = ParseTimeCode(input->TimeCode(), input->TimeCodeRate(), why);
        if (!code)
            Warn("the time code of the input is left out: \"" + input->TimeCode() + "\" " + why);
        return code;
    }
    if (options.timeCode != "auto")
        throw Failure(kExitUsage, "--timecode needs a video");
    return std::nullopt;
}

// The input whose next frame comes first; null at the end. Waits for an input without a frame,
// unless another is full: its writer may be the one that feeds both. Inputs that hold nothing but
// captions are left alone.
Input* Next(const std::vector<std::unique_ptr<Input>>& inputs)
{
    while (true) {
        Input* best = nullptr;
        Input* waiting = nullptr;
        bool full = false;
        double bestTime = 0;
        for (const auto& input : inputs) {
            if (input->Tracks().empty())
                continue;
            double seconds = 0;
            const Input::Head head = input->Look(&seconds);
            if (head == Input::Head::kWaiting)
                waiting = input.get();
            if (head != Input::Head::kFrame && head != Input::Head::kFull)
                continue;
            full |= head == Input::Head::kFull;
            if (!best || seconds < bestTime) {
                best = input.get();
                bestTime = seconds;
            }
        }
        if (!waiting || (best && full))
            return best;
        waiting->WaitForMore();
    }
}

void CheckOptions(const RecordOptions& options, AVRational& fps)
{
    if (!options.captionFormat.empty() && options.captionFormat != "608" &&
        options.captionFormat != "708")
        throw Failure(kExitUsage, "captions are recorded as 608 or 708, not as \"" +
                                      options.captionFormat + "\"");
    if (!options.fps.empty() &&
        (av_parse_video_rate(&fps, options.fps.c_str()) < 0 || fps.num <= 0))
        throw Failure(kExitUsage, "\"" + options.fps + "\" is no frame rate");
    static constexpr std::string_view kKeys[] = {
        "title", "artist", "album_artist", "composer", "album", "date", "encoding_tool", "comment",
        "genre", "copyright", "grouping", "lyrics", "description", "synopsis", "show",
        "episode_id", "network"};
    for (const std::string& item : options.metadata) {
        const std::string key = item.substr(0, item.find('='));
        if (key.empty() || key.size() == item.size())
            throw Failure(kExitUsage, "metadata is given as key=value, not \"" + item + "\"");
        if (!key.starts_with("com.") && std::ranges::find(kKeys, key) == std::end(kKeys))
            throw Failure(kExitUsage, "\"" + key + "\" is no metadata key (see --help)");
    }
    CheckSafety(options.safety, options.fastHeader);
    // The library would take it for the path up to there.
    if (!IsUtf8(options.output))
        throw Failure(kExitUsage, "the path of the output is not valid UTF-8");
    std::error_code ignored;
    const std::filesystem::path output = PathOf(options.output);
    for (const std::string& input : options.inputs)
        if (std::filesystem::equivalent(PathOf(input), output, ignored) ||
            (input.starts_with("file:") &&
             std::filesystem::equivalent(PathOf(input.substr(5)), output, ignored)))
            throw Failure(kExitUsage, "the output is the input itself: " + input);
    if (!options.overwrite && std::filesystem::is_regular_file(output, ignored))
        throw Failure(kExitOutput, options.output + " exists already (-y overwrites it)");
    if (!options.overwrite && std::filesystem::exists(PathOf(options.output + ".info"), ignored))
        throw Failure(kExitOutput, options.output + ".info exists already, the log of a recording "
                                   "that did not end properly (-y overwrites it)");
    const std::filesystem::path extension = output.extension();
    const bool quickTime = options.output.find("mov") != std::string::npos;
    if (quickTime && extension == ".mp4")
        Warn("the path contains \"mov\", so that this becomes a QuickTime file");
    if (!quickTime && extension == ".MOV")
        Warn("only a lower-case \"mov\" makes a QuickTime file; this becomes an MP4 file");
}

using Inputs = std::vector<std::unique_ptr<Input>>;

// Ends the readers. One may be blocked in an open or a read that nothing ends: the process goes
// then, with what there is to be told. There is no output any more.
void Leave(const Inputs& inputs, ExitCode code, const std::string& sentence)
{
    for (const auto& input : inputs)
        input->Leave();
    for (const auto& input : inputs) {
        if (input->WaitForEnd())
            continue;
        if (!sentence.empty())
            Warn(sentence);
        std::_Exit(code);
    }
}

void RecordFrom(Inputs& inputs, const RecordOptions& options, AVRational fps)
{
    const std::uint32_t captionCodec = options.captionFormat == "608"   ? MP4_SUBTITLE_CEA608
                                       : options.captionFormat == "708" ? MP4_SUBTITLE_CEA708
                                                                        : 0;

    // 1. All inputs open side by side: FIFOs may be fed in any order.
    for (const std::string& url : options.inputs)
        inputs.push_back(std::make_unique<Input>(
            InputOptions{url, options.format, inputs.size(), options.video, options.audio,
                         options.captions, captionCodec, fps}));
    std::vector<const TrackInfo*> tracks;
    for (bool open = false; !open && !g_stop;) {
        open = true;
        for (const auto& input : inputs)
            open &= input->WaitForOpen();
    }
    if (g_stop)
        throw Failure(kExitOther, "stopped before the recording began");
    for (const auto& input : inputs) {
        for (const TrackInfo& track : input->Tracks()) {
            for (const TrackInfo* other : tracks)
                if (other->kind == track.kind)
                    throw Failure(kExitStream, "both inputs hold the same kind of stream; choose "
                                               "with --video or --audio INPUT:STREAM");
            tracks.push_back(&track);
        }
    }
    const auto check = [&](const std::string& wish, Kind kind, const char* name) {
        if (wish != "auto" && wish != "none" &&
            std::ranges::find(tracks, kind, &TrackInfo::kind) == tracks.end())
            throw Failure(kExitStream, fmt::format("there is no {} stream {}", name, wish));
    };
    check(options.video, Kind::kVideo, "video");
    check(options.audio, Kind::kAudio, "audio");

    if (tracks.empty())
        throw Failure(kExitStream, "captions alone cannot be recorded; give a video or audio too");
    Input* const captionSource = ChooseCaptions(inputs);
    if (!captionSource && options.captions != "auto" && options.captions != "none" &&
        options.captions != "video")
        throw Failure(kExitStream, "there is no caption stream " + options.captions);
    const std::optional<TimeCode> timeCode = ChooseTimeCode(options, inputs);

    // 2. The output, only now: a failing input leaves no file.
    Output output(options);
    for (const TrackInfo* track : tracks)
        output.Announce(*track);
    if (timeCode)
        output.Announce(*timeCode);
    const bool hasVideo = std::ranges::any_of(
        tracks, [](const TrackInfo* track) { return track->kind == Kind::kVideo; });
    CaptionRecorder captions(output, captionSource, hasVideo ? Kind::kVideo : Kind::kAudio,
                             timeCode ? timeCode->frame / av_q2d(timeCode->rate) : 0);
    for (const std::string& item : options.metadata)
        output.SetMetadata(item);

    // 3. Frames, by time.
    Progress progress(isatty(STDERR_FILENO) && !options.verbose);
    const auto start = Clock::now();
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    double seconds = 0;
    double end = 0;  // of the last frame, seconds
    bool warned = false;
    bool jumped = false;
    bool full = false;
    while (!g_stop && !full) {
        Input* const input = Next(inputs);
        if (!input)
            break;
        Frame frame = input->Take();
        if (options.duration > 0 && frame.seconds >= options.duration) {
            if (frame.kind == Kind::kCaptions)
                continue;  // they may run ahead of the rest
            break;
        }
        if (options.realtime) {
            const auto due = start + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(frame.seconds));
            while (Clock::now() < due && !g_stop)
                std::this_thread::sleep_for(
                    std::min<Clock::duration>(due - Clock::now(), std::chrono::milliseconds(50)));
        }
        if (frame.kind == Kind::kCaptions) {
            captions.Write(input, std::move(frame));
            continue;
        }
        output.Write(frame);
        captions.Follow(frame);
        full = output.IsFull();
        if (input->HasReordering() && !warned) {
            progress.Clear();
            Warn("the video has B-frames: pictures keep their decoding times (see --help)");
            warned = true;
        }
        if (input->HasJumped() && !jumped) {
            progress.Clear();
            Warn("the clock of " + input->Url() + " jumped: its times go on from where they were");
            jumped = true;
        }
        frames += frame.kind == Kind::kVideo;
        bytes += frame.data.size();
        seconds = std::max(seconds, frame.seconds);
        end = std::max(end, frame.seconds + input->FrameSeconds(frame.kind));
        progress.Update(frames, seconds, bytes);
    }
    progress.Clear();

    // 4. A proper end, whatever ended the loop.
    captions.Finish(end);
    output.Close();
    std::uint64_t broken = output.Broken();
    for (const auto& input : inputs)
        broken += input->BrokenPackets();
    if (broken > 0)
        Warn(fmt::format("{} broken frames were left out", broken));
    if (output.CaptionsEnded())
        Warn("the captions end at 4 GiB: no file has a place for them beyond");
    if (captionSource && captionSource->BrokenCaptions() > 0)
        Warn(fmt::format("{} broken captions were left out", captionSource->BrokenCaptions()));
    if (full)
        throw Failure(kExitWrite, "with --no-large-file the recording ends below 4 GiB; what came "
                                  "before is recorded");
    for (const auto& input : inputs)
        if (const std::string trouble = input->Trouble(); !trouble.empty())
            throw Failure(kExitInput, trouble + "; what came before is recorded");
}

}  // namespace

void Record(const RecordOptions& options)
{
    AVRational fps{0, 1};
    CheckOptions(options, fps);
    std::optional<QuietOutput> quiet;
    if (kLibraryLogsAlone && !options.verbose)
        quiet.emplace();

    Inputs inputs;
    try {
        RecordFrom(inputs, options, fps);
    } catch (const Failure& failure) {
        Leave(inputs, failure.code, failure.what());
        throw;
    } catch (const std::exception& error) {
        Leave(inputs, kExitOther, error.what());
        throw;
    }
    Leave(inputs, kExitOk, "");
}
