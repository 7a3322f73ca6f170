// A recording with all that is known of it: every call at its output, every sample that it was
// handed, its whole log, and where each checkpoint comes into force.
#pragma once

#include "recovery/encoded.h"
#include "recovery/log_packets.h"
#include "recovery/trace.h"

#include <kv_mp4.h>

#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace kvtest {

enum Track { kVideo, kAudio, kCaptions, kTimeCode };
constexpr Track kAllTracks[] = {kVideo, kAudio, kCaptions, kTimeCode};
constexpr std::size_t kTracks = std::size(kAllTracks);
constexpr const char* kTrackNames[kTracks] = {"trak.vide", "trak.soun", "trak.clcp", "trak.tmcd"};

// What makes recordings differ.
struct TakePlan {
    Codec codec = Codec::H264;
    bool quickTime = false;
    std::uint8_t flags = MP4_OPEN_SAFE_MODE | MP4_OPEN_INFO_FILE;
    std::uint32_t strategy = 0;
    bool cea708 = false;
    bool timeCode = true;
    // Parameter sets and audio format come in the streams: H.264 and HEVC, ADTS.
    bool announced = true;

    std::string Name() const;
    bool IsSafe() const { return (flags & MP4_OPEN_SAFE_MODE) != 0; }
    std::string FileName() const { return quickTime ? "take.mov" : "take.mp4"; }
};

// All combinations that the proof covers.
std::vector<TakePlan> AllPlans();

struct Sample {
    Track track;
    std::uint64_t hash;  // of the bytes as the file must hold them
    std::uint32_t size;
    std::uint32_t step;  // the recorder's call that was handed it
};

// How many samples of each track a file holds.
struct Counts {
    std::size_t of[kTracks] = {};
};

struct Checkpoint {
    std::size_t switchCall;  // the write of the size of mdat, in the trace
    std::uint64_t position;  // of its moov
    Counts samples;          // that it holds
};

struct Take {
    TakePlan plan;
    Trace trace;
    std::vector<Sample> samples;          // in the order of the calls
    std::vector<Sample> tracks[kTracks];  // the same by track
    std::vector<Checkpoint> checkpoints;  // in the order of the file
    Bytes log;                            // the info file, complete
    std::vector<LogPacket> packets;       // in it
    // By step: how far the log reaches when it is over.
    std::vector<std::size_t> logEnds;
    std::uint32_t closeStep = 0;
    std::uint64_t mdat = 0;  // position of its header
};

std::uint64_t Hash(const std::uint8_t* bytes, std::size_t size);

// Records a plan; throws when a call fails.
std::unique_ptr<Take> Record(const TakePlan& plan);

}  // namespace kvtest
