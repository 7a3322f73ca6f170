// What the log of a recording (FILE.info) holds, read independently of the library: which samples a
// repair will keep, and where the log ends.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum TrackKind : std::size_t { kVideoTrack, kAudioTrack, kCaptionTrack, kTimeCodeTrack, kTracks };
extern const std::array<const char*, kTracks> kTrackNames;

struct LoggedTrack {
    bool announced = false;
    std::string codec;
    std::uint64_t samples = 0;
    double seconds = 0;  // from the first sample to the last one

    std::uint32_t timescale = 1000;
    std::uint64_t first = 0, last = 0;  // ticks
};

struct LogReport {
    std::uint64_t size = 0;
    bool hasHeader = false;  // 6 bytes or more; a shorter log says nothing
    std::uint8_t flags = 0;
    std::uint64_t mdatPosition = 0;
    std::array<LoggedTrack, kTracks> tracks;
    // Of each sample kept, in file order.
    struct Sample {
        std::uint64_t end;  // position behind it
        TrackKind track;
    };
    std::vector<Sample> samples;
    std::uint64_t dataEnd = 0;     // position behind the last sample kept
    std::uint64_t indexStart = 0;  // where a repair puts the index
    std::uint64_t packets = 0;     // that were read whole
    std::string lost;              // what the packet at the end describes, e.g. "video sample"
    std::string damage;            // why the reading ended before the end of the log; empty if not
    std::uint64_t damageAt = 0;    // byte of the log

    std::uint64_t Samples() const { return samples.size(); }
};

// Throws a Failure when the log cannot be read.
LogReport ReadLog(const std::string& path);
