// What a recording does against its own sudden end: the checkpoints inside the file, the log beside
// it, and the profile that keeps both close behind the present.
#pragma once

#include "input.h"

#include <kv_mp4.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

struct SafetyOptions {
    bool safe = false;
    bool info = false;
    std::string profile;  // "low-loss" or empty
    // What is not given stays as the library has it.
    std::optional<std::uint32_t> strategy;
    std::optional<std::uint32_t> minInterval;  // bytes
    std::optional<std::uint32_t> maxInterval;  // bytes
    std::optional<std::uint32_t> threshold;    // bytes
    std::optional<std::uint32_t> infoFlush;    // video frames

    bool LowLoss() const { return profile == "low-loss"; }
    bool Safe() const { return safe || LowLoss(); }
    bool Info() const { return info || LowLoss(); }
};

// Throws a Failure (usage) for options that do not go together.
void CheckSafety(const SafetyOptions& options, bool fastHeader);
// Hands the options to a file that has just been created.
void ApplySafety(const SafetyOptions& options, mp4_handle file);

// The profile "low-loss": a checkpoint each second and a log that is a second old at most, at any
// bit rate. The library knows distances in bytes only, so the distance follows what is recorded: it
// is set before every frame, as any frame may be the one that makes a checkpoint.
class LowLoss {
public:
    // `metadataBytes` bounds what the metadata adds to the index.
    LowLoss(mp4_handle file, std::size_t metadataBytes);
    // How often the library flushes the log by itself; it counts video frames.
    void SetFrameRate(double framesPerSecond);
    void BeforeFrame(const Frame& frame);
    void AfterFrame(const Frame& frame);

private:
    struct Size {
        double seconds;
        std::uint32_t bytes;
        bool video;
    };
    // Bytes a second, but for the few large frames that stand out: a key frame is room for itself.
    double Rate();
    // What the index takes at most; to be asked once a frame.
    std::uint64_t IndexBound(double seconds);

    const mp4_handle m_file;
    const std::uint64_t m_metadataBytes;
    std::deque<Size> m_recent;           // of the last second
    std::vector<std::uint32_t> m_video;  // scratch of Rate
    std::optional<double> m_begin;       // the time of the first frame
    std::uint64_t m_index = 0;           // bytes
    double m_indexTime = 0;              // when it was measured
    double m_flushed = 0;                // the time of the last flush
    std::uint64_t m_stored = 0;          // an upper bound of the data until the first checkpoint
};
