#include "model/tree.h"

#include <algorithm>

namespace model {

uint64_t Track::Duration()
{
    if (lastDuration == 0) {
        lastDuration = lastDelta;
    }
    return last - first + lastDuration;
}

void Track::Add(uint64_t offset, uint32_t size, uint64_t time, bool newChunk)
{
    if (newChunk) {
        offsets.push_back(offset);
        chunks.push_back(1);
    } else if (!chunks.empty()) {
        ++chunks.back();
    }
    sizes.push_back(size);
    dataSize += static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(size)));
    times.push_back(time);
}

std::vector<std::pair<uint32_t, uint32_t>> Track::Runs() const
{
    std::vector<std::pair<uint32_t, uint32_t>> runs;  // count, delta
    for (size_t i = 1; i < times.size(); ++i) {
        const uint32_t delta =
            static_cast<uint32_t>(times[i]) - static_cast<uint32_t>(times[i - 1]);
        if (runs.empty() || runs.back().second != delta) {
            runs.emplace_back(0, delta);
        }
        ++runs.back().first;
    }
    return runs;
}

bool Track::SizesAreEqual() const
{
    return std::adjacent_find(sizes.begin(), sizes.end(), std::not_equal_to<>()) == sizes.end();
}

namespace {

// The chunks that begin a new entry of stsc: first chunk and samples in it.
std::vector<std::pair<uint32_t, uint32_t>> ChunkEntries(const std::vector<uint32_t>& chunks)
{
    std::vector<std::pair<uint32_t, uint32_t>> entries;
    uint32_t before = 0;
    for (size_t i = 0; i < chunks.size(); ++i) {
        if (chunks[i] != before) {
            entries.emplace_back(static_cast<uint32_t>(i + 1), chunks[i]);
        }
        before = chunks[i];
    }
    return entries;
}

// A table with its true size ahead, the entries behind in one write.
void PutTable(Target& io, std::string_view code, size_t count, const Bytes& entries)
{
    io.Put(Bin().U32(entries.size() + 16).Text(code).U32(0).U32(count).bytes);
    io.PutWhole(entries);
}

template <class T>
Bytes Entries(const std::vector<T>& values, int width)
{
    Bin entries;
    for (const T value : values) {
        entries.Number(value, width);
    }
    return entries.bytes;
}

}  // namespace

uint32_t Track::TablesSize() const
{
    const size_t runs = Runs().size();
    const size_t stts = 16 + std::max(8 * (runs == 0 ? 0 : runs - 1), sttsHigh);
    const size_t stsz = 20 + (SizesAreEqual() ? 0 : 4 * sizes.size());
    const size_t stsc = 16 + 12 * ChunkEntries(chunks).size();
    const size_t stco = 16 + (co64 ? 8 : 4) * offsets.size();
    return static_cast<uint32_t>(stts + stsz + stsc + stco);
}

void Tree::WriteTables(Track& track)
{
    const auto stts = [&] {
        auto runs = track.Runs();
        if (runs.empty()) {
            runs.emplace_back(0, track.loneDelta);
        }
        ++runs.back().first;  // the last sample
        Bin entries;
        for (const auto& [count, delta] : runs) {
            entries.U32(count).U32(delta);
        }
        track.sttsHigh = entries.bytes.size();
        PutTable(m_io, "stts", runs.size(), entries.bytes);
    };
    const auto stsz = [&] {
        const bool equal = track.SizesAreEqual();
        const Bytes entries = equal ? Bytes() : Entries(track.sizes, 4);
        m_io.Put(Bin()
                     .U32(20 + entries.size())
                     .Text("stsz")
                     .U32(0)
                     .U32(equal ? track.sizes.front() : 0)
                     .U32(track.sizes.size())
                     .bytes);
        m_io.PutWhole(entries);
    };
    const auto stsc = [&] {
        const auto entries = ChunkEntries(track.chunks);
        Bin box;
        box.U32(16 + 12 * entries.size()).Text("stsc").U32(0).U32(entries.size());
        for (const auto& [chunk, samples] : entries) {
            box.U32(chunk).U32(samples).U32(1);
        }
        m_io.PutWhole(box.bytes);
    };

    stts();
    if (track.kind == Kind::TimeCode) {
        stsc();
        stsz();
    } else {
        stsz();
        stsc();
    }
    PutTable(m_io, track.co64 ? "co64" : "stco", track.offsets.size(),
             Entries(track.offsets, track.co64 ? 8 : 4));
    if (track.kind == Kind::Video) {
        PutTable(m_io, "stss", track.syncs.size(), Entries(track.syncs, 4));
    }
}

}  // namespace model
