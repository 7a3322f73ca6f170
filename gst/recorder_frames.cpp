// The way of a frame into the file, and the end of the recording.
#include "recorder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace kvmp4sink {

namespace {

constexpr std::int64_t kLateStart = 20 * static_cast<std::int64_t>(GST_MSECOND);
constexpr std::uint32_t kSteadySound = 1000;  // a part of a second

std::int64_t Scale(std::int64_t value, std::uint64_t numerator, std::uint64_t denominator)
{
    if (value <= 0)
        return 0;
    return static_cast<std::int64_t>(
        gst_util_uint64_scale_round(static_cast<std::uint64_t>(value), numerator, denominator));
}

// The bytes of a buffer while it lives.
class Mapped {
public:
    explicit Mapped(GstBuffer* buffer) : m_buffer(buffer)
    {
        if (!gst_buffer_map(buffer, &m_map, GST_MAP_READ))
            throw Failure{GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, "A buffer cannot be read."};
    }
    ~Mapped() { gst_buffer_unmap(m_buffer, &m_map); }
    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;
    const std::uint8_t* Data() const { return m_map.data; }
    std::size_t Size() const { return m_map.size; }

private:
    GstBuffer* m_buffer;
    GstMapInfo m_map{};
};

}  // namespace

// A track whose first frame comes later than the recording's by more than nobody sees or hears
// begins with it, as the file knows no pause in front of a track.
std::int64_t Recorder::TicksOf(Kind kind, const Track& track, std::int64_t time) const
{
    const auto ticks = Scale(time, track.timescale, GST_SECOND);
    if (!track.begun)
        return kind != Kind::kCaption && time > kLateStart ? 0 : ticks;
    if (kind == Kind::kAudio) {
        // Times that were cut to milliseconds on their way would make each frame another length.
        const std::int64_t expected = track.last + track.format->step;
        if (std::llabs(ticks - expected) <= track.timescale / kSteadySound)
            return expected;
    }
    return std::max(ticks, track.last + 1);  // the tables take rising times only
}

Recorder::Result Recorder::Write(Kind kind, GstBuffer* buffer, std::int64_t time)
{
    Track& track = Of(kind);
    if (!track.format)
        throw Failure{GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION,
                      std::string("The ") + NameOf(kind) + " pad got data before its caps."};
    m_before = {0, m_duration, m_bytes};
    const Mapped mapped(buffer);
    const std::uint8_t* data = mapped.Data();
    std::size_t size = mapped.Size();
    std::vector<std::uint8_t> packed;
    if (kind == Kind::kCaption) {
        packed = PackCaption(track.format->fixed, data, size);
        if (packed.empty() && size > 255)
            return Result::kBroken;
        data = packed.data();
        size = packed.size();
    } else if (kind == Kind::kAudio) {
        packed = WithoutChecksum(data, size);
        data = packed.empty() ? data : packed.data();
        size = packed.empty() ? size : packed.size();
    }
    if (size == 0)
        return Result::kNothing;
    StopAtTheLimit(size);
    if (!track.announced)
        Announce(kind, track);

    if (kind == Kind::kVideo && !track.begun) {
        // The library drops what comes before the last missing set, without a word to the caller.
        const unsigned needed = ParameterSetsOf(track.format->fixed);
        if (needed != 0)
            track.sets |= ParameterSetsIn(track.format->fixed, data, size);
        if ((track.sets & needed) != needed) {
            const Result result = WriteBytes(kind, data, size, 0);
            return result == Result::kRecorded ? Result::kWaiting : result;
        }
        WriteTimeCode(buffer);
    }

    const bool anew = m_flushed && m_origin && time - *m_origin < m_end;
    const std::int64_t origin = !m_origin ? time : anew ? time - m_end : *m_origin;
    const std::int64_t ticks = TicksOf(kind, track, time - origin);
    // A track begins with its first sample: this one keeps the first caption at its time.
    if (kind == Kind::kCaption && !track.begun && ticks > 0) {
        const auto padding = CaptionPadding(track.format->fixed);
        WriteBytes(kind, padding.data(), padding.size(), 0);
    }
    if (const Result result = WriteBytes(kind, data, size, ticks); result != Result::kRecorded)
        return result;

    m_origin = origin;
    m_flushed = false;
    track.begun = true;
    track.gap = ticks - std::exchange(track.last, ticks);
    m_bytes += size;
    if (kind != Kind::kCaption) {
        const std::int64_t step = track.step != 0 ? track.step : track.gap;
        m_end = std::max(m_end, Scale(ticks + step, GST_SECOND, track.timescale));
        m_duration = static_cast<GstClockTime>(m_end);
    }
    return Result::kRecorded;
}

bool Recorder::MayReorder(Kind kind) const
{
    const std::optional<Format>& format = Of(kind).format;
    return kind == Kind::kVideo && format && format->fixed.codec != MP4_VIDEO_PRORES;
}

// Without 64-bit sizes whatever lies beyond 4 GiB could not be found. The recording ends in time, so
// that its file is whole.
void Recorder::StopAtTheLimit(std::size_t size)
{
    constexpr std::uint64_t kLimit = std::uint64_t{1} << 32;
    constexpr std::uint64_t kHeldBack = 1 << 20;  // more than the library's output ever is
    struct stat about {};
    if (m_settings.largeFile || m_reader < 0 || fstat(m_reader, &about) != 0)
        return;
    // Start codes of 3 bytes become lengths of 4, each in front of a byte at least.
    std::uint64_t end = static_cast<std::uint64_t>(about.st_size) + kHeldBack + size + size / 4;
    if (m_settings.safeMode) {  // the next index counts, too
        const mp4_safe_param& safe = m_settings.safe;
        const std::uint64_t behind = end - kHeldBack;
        const bool far = behind >= safe.threshold || safe.threshold == 0;
        std::uint64_t distance = safe.min_interval;
        if (safe.strategy != 0 && far)
            distance = safe.max_interval;
        else if (safe.strategy == 1 && safe.max_interval > safe.min_interval)
            distance += gst_util_uint64_scale(safe.max_interval - safe.min_interval, behind,
                                              safe.threshold);
        end += size + distance;
    }
    if (end > kLimit)
        throw Failure{GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT,
                      "The recording ends before 4 GiB; larger ones need \"large-file\"."};
}

std::int64_t Recorder::StepOf(Kind kind) const
{
    const std::optional<Format>& format = Of(kind).format;
    return format && format->step != 0 ? Scale(format->step, GST_SECOND, format->timescale) : 0;
}

// The file itself is asked, and by the way a reader takes: what is told here is what a crash
// leaves.
std::optional<Checkpoint> Recorder::NewCheckpoint()
{
    if (m_reader < 0 || !m_settings.safeMode)
        return std::nullopt;
    std::uint8_t head[8] = {};
    std::uint64_t size = 0;
    const auto box = [&](std::int64_t at) {
        if (pread(m_reader, head, sizeof head, at) != static_cast<ssize_t>(sizeof head))
            return false;
        size = GST_READ_UINT32_BE(head);
        return true;
    };
    constexpr int kBoxesInFront = 3;
    for (std::int64_t at = 0, i = 0; m_data < 0 && i < kBoxesInFront; ++i) {
        if (!box(at))
            return std::nullopt;
        if (std::memcmp(head + 4, "mdat", 4) == 0)
            m_data = at;
        at += static_cast<std::int64_t>(size);
    }
    if (m_data < 0 || !box(m_data))
        return std::nullopt;
    constexpr std::uint64_t kOpen = 8;  // until the first checkpoint: 8, or 1 in a large file
    const std::uint64_t index = static_cast<std::uint64_t>(m_data) + size;
    if (size <= kOpen || index == m_index)
        return std::nullopt;
    // Beyond 4 GiB the size wraps and leads a reader astray.
    if (!box(static_cast<std::int64_t>(index)) || std::memcmp(head + 4, "moov", 4) != 0)
        return std::nullopt;
    m_index = index;
    // The library makes it ahead of the frame that needs the room, which is not in it.
    return Checkpoint{index, m_before.duration, m_before.bytes};
}

// The last sample lasts as long as the one before. After a pause this would be beyond the end of
// the recording; a sample half-way to it makes both end together.
void Recorder::FinishCaptions()
{
    const Track& track = Of(Kind::kCaption);
    if (!track.begun || m_failed)
        return;
    const std::int64_t left = Scale(m_end, track.timescale, GST_SECOND) - track.last;
    if (left <= 1 || track.gap <= left)
        return;
    const auto padding = CaptionPadding(track.format->fixed);
    WriteBytes(Kind::kCaption, padding.data(), padding.size(), track.last + left / 2);
}

void Recorder::Close()
{
    if (!m_file)
        return;
    const bool failed = m_failed;
    std::optional<Failure> trouble;
    try {
        FinishCaptions();
    } catch (const Failure& failure) {
        trouble = failure;
    }
    const std::uint32_t status = CloseFile();
    const int closing = m_output ? m_output->CloseError() : 0;
    m_output.reset();
    if (m_reader >= 0)
        close(std::exchange(m_reader, -1));
    if (trouble)
        throw *trouble;
    if (failed)
        return;  // which has been told
    Check(status, "Finishing");
    if (closing != 0)
        throw FailureOfErrno(closing, "Finishing \"" + m_settings.location + "\" failed");
    const Track& video = Of(Kind::kVideo);
    if (video.announced && !video.begun)
        throw Failure{GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                      "The file has no video: the stream never brought all its parameter sets."};
}

}  // namespace kvmp4sink
