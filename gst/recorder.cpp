#include "recorder.h"

#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvmp4sink {

namespace {

using namespace std::string_literals;

constexpr std::size_t kLongestPath = 1000;  // characters

// A wide path of the system, from UTF-8.
std::wstring WidePath(const std::string& path)
{
    static_assert(sizeof(wchar_t) == sizeof(gunichar));
    glong length = 0;
    gunichar* const text = g_utf8_to_ucs4(path.c_str(), -1, nullptr, &length, nullptr);
    if (!text)
        throw Failure{GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS,
                      "The location is not valid UTF-8."};
    const std::wstring wide(text, text + length);
    g_free(text);
    return wide;
}

}  // namespace

Recorder::~Recorder()
{
    if (m_file)
        CloseFile();
    if (m_reader >= 0)
        close(m_reader);
}

void Recorder::Check(std::uint32_t status, const char* doing)
{
    if (status == MP4_OK)
        return;
    if (IsOfTheLog(status)) {
        m_trouble = FailureOf(status, "The recording goes on without its log; writing \"" +
                                          m_settings.location + ".info\" failed");
        return;
    }
    m_failed = true;
    throw FailureOf(status, doing + (" \"" + m_settings.location + "\" failed"));
}

template <typename Call>
std::uint32_t Recorder::Try(const char* doing, Call call)
{
    std::optional<Failure> failure;
    try {
        return call();
    } catch (const kv_mp4_exception& error) {
        failure = FailureOfErrno(error.code, doing + (" \"" + m_settings.location + "\" failed"));
    } catch (const std::bad_alloc&) {
        failure = FailureOfErrno(ENOMEM, doing + (" \"" + m_settings.location + "\" failed"));
    } catch (int) {
        failure = Failure{GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                          "The parameter sets of the video are broken."};
    }
    m_failed = true;
    throw *failure;
}

// When only the log fails, one call answers so, its frame is stored and the recording goes on. An
// output that still takes frames drops an empty one with success, another one refuses it.
bool Recorder::IsOfTheLog(std::uint32_t status)
{
    constexpr std::uint8_t kNothing = 0;
    return m_file && m_settings.infoFile && status != MP4_ERR_INVALID_PARAM &&
           !(m_output && m_output->HasFailed()) &&
           mp4_write_video_frame(m_file, &kNothing, 0, 0) == MP4_OK;
}

// A recording that failed has no index, and its log is all that can give it one. The library knows
// this of its own output; behind another it removes the log, by its path, as after a good end.
std::uint32_t Recorder::CloseFile()
{
    const std::string log = m_settings.location + ".info";
    const std::string aside = log + ".kept";
    const bool keep = m_settings.infoFile && m_output && m_output->HasFailed() &&
                      std::rename(log.c_str(), aside.c_str()) == 0;
    const std::uint32_t status = mp4_close_file(std::exchange(m_file, nullptr));
    if (keep)
        std::rename(aside.c_str(), log.c_str());
    return status;
}

void Recorder::Open(const Settings& settings)
{
    m_settings = settings;
    const std::string& path = m_settings.location;
    const std::string doing = "Could not open \"" + path + "\" for writing";
    if (path.empty())
        throw Failure{GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NOT_FOUND,
                      "No file name is set; the property \"location\" is empty."};
    const std::wstring wide = WidePath(path);
    if (wide.size() > kLongestPath)
        throw Failure{GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS, "The location is too long."};

    const auto flags = static_cast<std::uint8_t>((settings.largeFile ? MP4_OPEN_LARGE_FILE : 0) |
                                                 (settings.safeMode ? MP4_OPEN_SAFE_MODE : 0) |
                                                 (settings.infoFile ? MP4_OPEN_INFO_FILE : 0));
    mp4_handle file = nullptr;
    std::uint32_t status = 0;
    if (settings.durable) {
        status = mp4_create_file_adv(wide.c_str(), flags, 4096, 32, MP4_IO_FILE, nullptr, &file);
    } else {
        m_output = std::make_unique<Output>(path);
        status = m_output->Create(wide.c_str(), flags, &file);
        if (m_output->OpenError() != 0)
            throw FailureOfErrno(m_output->OpenError(), doing);
    }
    if (!file)
        throw FailureOf(status, doing);
    m_file = file;
    m_tracks = {};
    m_origin.reset();
    m_end = 0;
    m_flushed = m_failed = false;
    m_trouble.reset();
    m_metadata.clear();
    m_duration = 0;
    m_bytes = 0;
    m_data = -1;
    m_index = 0;

    // The log of what was overwritten would be taken for this recording's.
    if (!settings.infoFile)
        unlink((path + ".info").c_str());
    SetSafeParameters(settings.safe);
    // The library tells of a change on standard output.
    if (settings.infoFile && settings.infoFlush != Settings{}.infoFlush)
        mp4_repair_set_flush_interval(file, settings.infoFlush);

    struct stat about {};
    if ((settings.safeMode || !settings.largeFile) && stat(path.c_str(), &about) == 0 && S_ISREG(about.st_mode))
        m_reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

void Recorder::SetSafeParameters(const mp4_safe_param& parameters)
{
    m_settings.safe = parameters;
    Check(mp4_set_safe_param(m_file, &parameters), "Setting up");
}

void Recorder::SetTags(const GstTagList* tags)
{
    if (!tags || !m_file || m_failed)
        return;
    for (const auto& [key, value] : Metadata(tags)) {
        std::string& known = m_metadata[key];
        if (known != value)
            Check(Try("Writing", [&, k = key.c_str(), v = value.c_str()] {
                return mp4_set_metadata(m_file, k, v);
            }), "Writing");
        known = value;
    }
}

void Recorder::SetCaps(Kind kind, const GstCaps* caps)
{
    const Format format = ReadCaps(kind, caps);
    Track& track = Of(kind);
    if (track.announced && track.format->fixed != format.fixed)
        throw Failure{GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                      "The "s + NameOf(kind) +
                          " changes in the middle of the recording, and a "
                          "track has one description only."};
    track.format = format;
    if (track.announced)  // the track keeps its ticks
        track.step = static_cast<std::uint32_t>(
            gst_util_uint64_scale_round(format.step, track.timescale, format.timescale));
}

void Recorder::Announce(Kind kind, Track& track)
{
    const Format& format = *track.format;
    track.timescale = format.timescale;
    track.step = format.step;
    std::uint32_t status = 0;
    if (kind == Kind::kVideo) {
        mp4_video_track_info info{};  // the parameter sets are taken from the stream
        info.timescale = format.timescale;
        info.sample_duration = format.step;
        info.codec = format.fixed.codec;
        info.width = format.fixed.width;
        info.height = format.fixed.height;
        if (format.fixed.codec == MP4_VIDEO_PRORES)
            info.prores_format = format.fixed.variant;
        status = Try("Setting up", [&] { return mp4_set_video_track(m_file, &info); });
    } else if (kind == Kind::kAudio) {
        mp4_audio_track_info info{};
        info.timescale = format.timescale;
        info.sample_duration = format.step;
        info.codec = format.fixed.codec;
        info.sample_rate = format.fixed.rate;
        info.channels = format.fixed.channels;
        info.object_type = format.fixed.objectType;
        status = Try("Setting up", [&] { return mp4_set_audio_track(m_file, &info); });
    } else {
        const mp4_subtitle_track_info info{format.fixed.codec, format.timescale};
        status = Try("Setting up", [&] { return mp4_set_subtitle_track(m_file, &info); });
    }
    Check(status, "Setting up");
    track.announced = true;
}

// The first picture's time code is that of the recording.
void Recorder::WriteTimeCode(GstBuffer* buffer)
{
    const GstVideoTimeCodeMeta* const meta = gst_buffer_get_video_time_code_meta(buffer);
    const std::optional<TimeCode> code = meta ? ReadTimeCode(meta->tc) : std::nullopt;
    if (!code)
        return;
    Check(Try("Writing", [&] { return mp4_set_time_code_track(m_file, &code->track); }), "Writing");
    Check(Try("Writing", [&] { return mp4_write_time_code(m_file, code->frame); }), "Writing");
}

Recorder::Result Recorder::WriteBytes(Kind kind, const std::uint8_t* data, std::size_t size,
                                      std::int64_t ticks)
{
    const auto write = kind == Kind::kVideo   ? mp4_write_video_frame
                       : kind == Kind::kAudio ? mp4_write_audio_frame
                                              : mp4_write_subtitle_frame;
    const std::uint32_t status = Try("Writing", [&] {
        return write(m_file, data, static_cast<std::uint32_t>(size),
                     static_cast<std::uint64_t>(ticks));
    });
    if (status == MP4_ERR_PARSE_VIDEO || status == MP4_ERR_INVALID_ADTS)
        return Result::kBroken;
    Check(status, "Writing");
    return Result::kRecorded;
}

}  // namespace kvmp4sink
