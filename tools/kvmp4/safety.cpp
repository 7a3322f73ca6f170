#include "safety.h"

#include "failure.h"
#include "system.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <numeric>

namespace {

constexpr double kDistance = 1.0;    // seconds from checkpoint to checkpoint
constexpr double kWindow = 1.0;      // seconds that the rate is taken from
constexpr double kFlushEvery = 0.5;  // seconds
constexpr std::uint32_t kLinear = 1;
constexpr std::uint64_t kLargestEntries = 40;  // bytes that one sample adds to the index at most
constexpr std::uint32_t kSmallestFlushInterval = 10;

std::uint32_t Cut(std::uint64_t value)
{
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
}

// What a frame takes in the file at most: each unit of four bytes, start code included, may become
// one of five.
std::uint64_t Stored(std::uint64_t frameBytes)
{
    return frameBytes + frameBytes / 4 + 16;
}

}  // namespace

void CheckSafety(const SafetyOptions& options, bool fastHeader)
{
    const bool parameters = options.strategy || options.minInterval || options.maxInterval ||
                            options.threshold;
    if (options.LowLoss() && (parameters || options.infoFlush))
        throw Failure(kExitUsage, "the profile low-loss sets the safe parameters and the flush "
                                  "interval itself");
    if (parameters && !options.Safe())
        throw Failure(kExitUsage, "safe parameters need --safe");
    if (options.infoFlush && !options.Info())
        throw Failure(kExitUsage, "--info-flush needs --info");
    if (options.minInterval && options.maxInterval && *options.minInterval > *options.maxInterval)
        throw Failure(kExitUsage, "--safe-min is above --safe-max");
    if (options.Safe() && fastHeader)
        throw Failure(kExitUsage, "--safe and --fast-header do not go together");
}

void ApplySafety(const SafetyOptions& options, mp4_handle file)
{
    mp4_safe_param params{};
    mp4_get_safe_param(file, &params);
    params.strategy = options.strategy.value_or(params.strategy);
    // The one that is given draws the other along: the library's difference of the two would wrap.
    params.min_interval = options.minInterval.value_or(
        std::min(params.min_interval, options.maxInterval.value_or(params.min_interval)));
    params.max_interval =
        options.maxInterval.value_or(std::max(params.max_interval, params.min_interval));
    params.threshold = options.threshold.value_or(params.threshold);
    mp4_set_safe_param(file, &params);
    if (options.infoFlush) {
        const QuietOutput quiet;
        mp4_repair_set_flush_interval(file, *options.infoFlush);
    }
}

LowLoss::LowLoss(mp4_handle file, std::size_t metadataBytes)
    : m_file(file), m_metadataBytes(metadataBytes)
{
}

void LowLoss::SetFrameRate(double framesPerSecond)
{
    const QuietOutput quiet;
    mp4_repair_set_flush_interval(
        m_file, std::max(kSmallestFlushInterval,
                         static_cast<std::uint32_t>(std::lround(framesPerSecond * kDistance))));
}

void LowLoss::BeforeFrame(const Frame& frame)
{
    const auto bytes = static_cast<std::uint32_t>(frame.data.size());
    if (!m_begin)
        m_begin = m_flushed = frame.seconds;
    m_recent.push_back({frame.seconds, bytes, frame.kind == Kind::kVideo});
    // A clock that is set back leaves frames of the future behind, which nothing would take away.
    std::erase_if(m_recent, [&](const Size& size) {
        return size.seconds < frame.seconds - kWindow || size.seconds > frame.seconds + kWindow;
    });

    // A threshold of 0 makes max_interval the distance everywhere, and leaves min_interval to the
    // first checkpoint alone.
    mp4_safe_param params{};
    params.strategy = kLinear;
    params.threshold = 0;
    if (frame.seconds < *m_begin + kDistance) {
        // Not yet. A recording that ends here gets its index directly behind this limit.
        m_stored += Stored(bytes);
        params.min_interval = Cut(2 * m_stored + 4096);
    }
    // The new index must not touch the one in force, which begins within twice this frame's size
    // from here; and the frame itself goes in front of it.
    const std::uint64_t index = IndexBound(frame.seconds);
    const std::uint64_t least = index + index / 8 + 4096 + 2 * std::uint64_t{bytes};
    const auto wanted = static_cast<std::uint64_t>(Rate() * kDistance) + Stored(bytes);
    params.max_interval = Cut(std::max(least, wanted));
    mp4_set_safe_param(m_file, &params);
}

void LowLoss::AfterFrame(const Frame& frame)
{
    // The library flushes the log at video frames, at every tenth at the most; few frames a second
    // and sound alone would wait for long. This reaches the system, not the medium.
    if (frame.seconds >= m_flushed && frame.seconds < m_flushed + kFlushEvery)
        return;
    m_flushed = frame.seconds;
    std::fflush(nullptr);
}

std::uint64_t LowLoss::IndexBound(double seconds)
{
    // The library counts through its tables for that.
    if (m_index == 0 || seconds < m_indexTime || seconds >= m_indexTime + kDistance) {
        m_index = mp4_get_moov_size(m_file) + m_metadataBytes;
        m_indexTime = seconds;
    }
    m_index += kLargestEntries;
    return m_index;
}

double LowLoss::Rate()
{
    m_video.clear();
    double others = 0;
    for (const Size& size : m_recent) {
        if (size.video)
            m_video.push_back(size.bytes);
        else
            others += size.bytes;
    }
    const auto standOut = static_cast<std::ptrdiff_t>((m_video.size() + 9) / 10);
    std::ranges::nth_element(m_video, m_video.begin() + standOut, std::greater<>());
    const auto rest = static_cast<double>(m_video.size()) - static_cast<double>(standOut);
    const double sum = std::accumulate(m_video.begin() + standOut, m_video.end(), 0.0);
    const double video = rest > 0 ? sum * static_cast<double>(m_video.size()) / rest : 0;
    return (video + others) / kWindow;
}
