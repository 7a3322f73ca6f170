// The tracks of a movie as its tables tell them, fragments included: what inspect sums up and
// verify holds against each other. Reading tells only of tables that their boxes do not hold.
#pragma once

#include "box_tree.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct TimeRun {
    std::uint32_t count, delta;
};
struct OffsetRun {
    std::uint32_t count;
    std::int64_t offset;
};
struct ChunkRun {
    std::uint32_t first, samples, description;
};
struct Edit {
    std::uint64_t duration;  // in the movie's timescale
    std::int64_t time;       // -1 for an empty one
    std::uint32_t rate;      // 16.16
};

// Samples that lie one behind the other: a chunk, or a run of a fragment.
struct Extent {
    std::uint64_t begin, end;
    std::uint64_t samples;
    std::uint64_t number;  // of the first sample in its track, from 1
    bool listed;           // their sizes stand in the track's list from `sizes` on
    std::size_t sizes;
    std::uint32_t commonSize;  // else all have this one
    std::uint32_t description;
    const Box* table;  // that says where it lies
};

struct SampleEntry {
    const Box* box;
    std::uint32_t dataReference;
};

struct Track {
    const Box* box = nullptr;  // "trak"
    std::uint32_t id = 0, flags = 0;
    std::uint64_t duration = 0;                       // in the movie's timescale
    std::uint32_t width = 0, height = 0, volume = 0;  // 16.16, 8.8
    std::string handler;                              // "vide" and the like
    std::uint32_t timescale = 0;
    std::uint64_t mediaDuration = 0;
    std::uint32_t language = 0;
    std::vector<Edit> edits;
    std::vector<SampleEntry> entries;
    std::vector<TimeRun> times;
    std::vector<OffsetRun> offsets;
    std::uint32_t commonSize = 0;
    std::uint64_t samples = 0;         // of the sample table, without fragments
    std::vector<std::uint32_t> sizes;  // its listed ones first, those of fragments behind
    std::vector<ChunkRun> chunkRuns;
    std::vector<std::uint64_t> chunks;
    std::optional<std::vector<std::uint32_t>> sync;
    std::vector<Extent> extents;

    // Defaults of its fragments, and what they add up to.
    const Box* trex = nullptr;
    std::uint32_t defaultDescription = 0, defaultDuration = 0, defaultSize = 0, defaultFlags = 0;
    std::uint64_t fragments = 0, fragmentSamples = 0, fragmentDuration = 0, fragmentKeys = 0;
    std::optional<std::uint64_t> fragmentEnd;  // decoding time behind the last run

    const Box* At(std::string_view way) const { return box->At(way); }
    const Box* Table(std::string_view name) const;  // of "stbl"
    std::string Where(std::string_view way) const;  // the path of a box that may be missing
    bool HasListedSizes() const { return commonSize == 0 && !sizes.empty(); }
    std::uint64_t TimeSum() const;   // of all deltas
    std::uint64_t DataSize() const;  // of all samples
    std::uint64_t AllSamples() const { return samples + fragmentSamples; }
    std::string Codec() const;  // the type of the first entry
    // The size of a sample of an extent.
    std::uint64_t SizeIn(const Extent& extent, std::uint64_t index) const
    {
        return extent.listed ? sizes[extent.sizes + static_cast<std::size_t>(index)]
                             : extent.commonSize;
    }
};

struct Movie {
    const Box* box = nullptr;  // "moov"
    std::uint32_t timescale = 0;
    std::uint64_t duration = 0;
    std::uint32_t nextTrackId = 0;
    std::vector<Track> tracks;

    Track* ById(std::uint32_t id);
};

// Reads the tables of a tree. The tree must stay where it is.
Movie ReadMovie(ByteSource& source, const Box& tree, Findings& findings);
// The fragments, in fragments.cpp: adds their samples to the tracks and tells what is wrong there.
void ReadFragments(ByteSource& source, const Box& tree, Movie& movie, Findings& findings);

// The version and flags of a box that has them; 0 for one that is too short.
std::uint32_t VersionFlags(ByteSource& source, const Box& box);
inline std::uint32_t Version(ByteSource& source, const Box& box)
{
    return VersionFlags(source, box) >> 24;
}
// The value of 32-bit words of a table, `words` to an entry, behind its count; as many as there
// are. Tells when its count and its bytes do not agree.
std::vector<std::uint32_t> ReadEntries(ByteSource& source, const Box& box, unsigned words,
                                       std::uint64_t countAt, Findings& findings);
