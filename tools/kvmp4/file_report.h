// What a media file holds as it lies, read independently of the library: the boxes from its start
// up to the first index, and what that index promises.
#pragma once

#include "log_report.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

struct IndexedTrack {
    std::uint64_t samples = 0;
    std::uint64_t reachable = 0;  // of these, the ones that lie inside an `mdat`
    double seconds = 0;
};

struct FileReport {
    std::uint64_t size = 0;
    bool quickTime = false;         // by `ftyp`
    bool hasType = false;           // there is an `ftyp`
    std::optional<std::uint64_t> index;  // position of `moov`: the file plays if it is there
    std::array<IndexedTrack, kTracks> tracks;

    std::uint64_t Samples() const;
    double Seconds() const;  // of the longest track
};

// Throws a Failure when the file cannot be read.
FileReport ReadFile(const std::string& path);
// Whether the box that begins at `position` is an `mdat`.
bool HoldsMediaData(const std::string& path, std::uint64_t position);
