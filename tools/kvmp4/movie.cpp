#include "movie.h"

#include <algorithm>

#include <fmt/format.h>

namespace {

class MovieReader {
public:
    MovieReader(ByteSource& source, Findings& findings) : m_source(source), m_findings(findings) {}

    Movie Run(const Box& tree)
    {
        Movie movie;
        movie.box = tree.Child("moov");
        if (!movie.box)
            return movie;
        if (const Box* mvhd = movie.box->Child("mvhd")) {
            FieldReader f(m_source, mvhd->Inside(), mvhd->End());
            const bool wide = f.U32() >> 24 == 1;
            f.Skip(wide ? 16 : 8);
            movie.timescale = f.U32();
            movie.duration = f.Wide(wide);
            f.Skip(76);
            movie.nextTrackId = f.U32();
        }
        for (const Box& child : movie.box->children)
            if (child.type == "trak")
                movie.tracks.push_back(ReadTrack(child));
        if (const Box* mvex = movie.box->Child("mvex"))
            for (const Box& child : mvex->children)
                if (child.type == "trex")
                    Defaults(movie, child);
        return movie;
    }

private:
    Track ReadTrack(const Box& box)
    {
        Track track;
        track.box = &box;
        if (const Box* tkhd = box.Child("tkhd")) {
            FieldReader f(m_source, tkhd->Inside(), tkhd->End());
            const std::uint32_t head = f.U32();
            const bool wide = head >> 24 == 1;
            track.flags = head & 0xFFFFFFu;
            f.Skip(wide ? 16 : 8);
            track.id = f.U32();
            f.Skip(4);
            track.duration = f.Wide(wide);
            f.Skip(12);
            track.volume = f.U16();
            f.Skip(2 + 36);
            track.width = f.U32();
            track.height = f.U32();
        }
        if (const Box* mdhd = box.At("mdia/mdhd")) {
            FieldReader f(m_source, mdhd->Inside(), mdhd->End());
            const bool wide = f.U32() >> 24 == 1;
            f.Skip(wide ? 16 : 8);
            track.timescale = f.U32();
            track.mediaDuration = f.Wide(wide);
            track.language = f.U16();
        }
        if (const Box* hdlr = box.At("mdia/hdlr")) {
            FieldReader f(m_source, hdlr->Inside(), hdlr->End());
            f.Skip(4);
            const std::string first = f.Code();
            track.handler = f.Code();
            // A form of caption tracks: the one type word stands first.
            if (first == "clcp")
                track.handler = first;
        }
        if (const Box* elst = box.At("edts/elst"))
            Edits(*elst, track);
        if (const Box* stbl = box.At("mdia/minf/stbl"))
            Tables(*stbl, track);
        return track;
    }

    void Edits(const Box& elst, Track& track)
    {
        const bool wide = Version(m_source, elst) == 1;
        const auto words = ReadEntries(m_source, elst, wide ? 5 : 3, 4, m_findings);
        const auto pair = [&](std::size_t at) {
            return std::uint64_t{words[at]} << 32 | words[at + 1];
        };
        for (std::size_t i = 0; i + (wide ? 5 : 3) <= words.size(); i += wide ? 5 : 3) {
            if (wide)
                track.edits.push_back(
                    {pair(i), static_cast<std::int64_t>(pair(i + 2)), words[i + 4]});
            else
                track.edits.push_back(
                    {words[i], static_cast<std::int32_t>(words[i + 1]), words[i + 2]});
        }
    }

    void Tables(const Box& stbl, Track& track)
    {
        if (const Box* stsd = stbl.Child("stsd"))
            for (const Box& entry : stsd->children) {
                FieldReader f(m_source, entry.Inside(), entry.End());
                f.Skip(6);
                track.entries.push_back({&entry, f.U16()});
            }
        if (const Box* stts = stbl.Child("stts")) {
            const auto words = ReadEntries(m_source, *stts, 2, 4, m_findings);
            for (std::size_t i = 0; i + 2 <= words.size(); i += 2)
                track.times.push_back({words[i], words[i + 1]});
        }
        if (const Box* ctts = stbl.Child("ctts")) {
            const bool negative = Version(m_source, *ctts) == 1;
            const auto words = ReadEntries(m_source, *ctts, 2, 4, m_findings);
            for (std::size_t i = 0; i + 2 <= words.size(); i += 2)
                track.offsets.push_back(
                    {words[i], negative ? std::int64_t{static_cast<std::int32_t>(words[i + 1])}
                                        : std::int64_t{words[i + 1]}});
        }
        if (const Box* stsz = stbl.Child("stsz"))
            Sizes(*stsz, track);
        else if (const Box* stz2 = stbl.Child("stz2"))
            SmallSizes(*stz2, track);
        if (const Box* stsc = stbl.Child("stsc")) {
            const auto words = ReadEntries(m_source, *stsc, 3, 4, m_findings);
            for (std::size_t i = 0; i + 3 <= words.size(); i += 3)
                track.chunkRuns.push_back({words[i], words[i + 1], words[i + 2]});
        }
        if (const Box* stco = stbl.Child("stco")) {
            const auto words = ReadEntries(m_source, *stco, 1, 4, m_findings);
            track.chunks.assign(words.begin(), words.end());
        } else if (const Box* co64 = stbl.Child("co64")) {
            const auto words = ReadEntries(m_source, *co64, 2, 4, m_findings);
            for (std::size_t i = 0; i + 2 <= words.size(); i += 2)
                track.chunks.push_back(std::uint64_t{words[i]} << 32 | words[i + 1]);
        }
        if (const Box* stss = stbl.Child("stss"))
            track.sync = ReadEntries(m_source, *stss, 1, 4, m_findings);
        Chunks(stbl, track);
    }

    void Sizes(const Box& stsz, Track& track)
    {
        FieldReader f(m_source, stsz.Inside(), stsz.End());
        f.Skip(4);
        track.commonSize = f.U32();
        track.samples = f.U32();
        // The short form of samples without bytes has no list either.
        if (track.commonSize == 0 && f.Left() > 0) {
            track.sizes = ReadEntries(m_source, stsz, 1, 8, m_findings);
            track.samples = track.sizes.size();
        } else if (track.commonSize != 0 && f.Left() > 0) {
            m_findings.Error("table-length", stsz.path, stsz.offset,
                             fmt::format("{} bytes behind a common size", f.Left()), "none");
        } else if (!f.Sound()) {
            m_findings.Error("table-length", stsz.path, stsz.offset, "a cut table");
        }
    }

    void SmallSizes(const Box& stz2, Track& track)
    {
        FieldReader f(m_source, stz2.Inside(), stz2.End());
        f.Skip(7);
        const unsigned width = f.U8();
        const std::uint64_t count = f.U32();
        if ((width != 4 && width != 8 && width != 16) || (count * width + 7) / 8 != f.Left()) {
            m_findings.Error(
                "table-length", stz2.path, stz2.offset,
                fmt::format("{} entries of {} bits in {} bytes", count, width, f.Left()));
            return;
        }
        const auto bytes = f.Bytes(f.Left());
        for (std::size_t i = 0; i < count; ++i)
            track.sizes.push_back(width == 16  ? bytes[2 * i] * 256u + bytes[2 * i + 1]
                                  : width == 8 ? bytes[i]
                                               : bytes[i / 2] >> (i % 2 ? 0 : 4) & 15u);
        track.samples = track.sizes.size();
    }

    // What the chunks hold, as far as there are samples.
    void Chunks(const Box& stbl, Track& track)
    {
        const Box* table = stbl.Child(stbl.Child("stco") ? "stco" : "co64");
        std::size_t run = 0;
        std::uint64_t sample = 0;
        for (std::size_t chunk = 0; chunk < track.chunks.size() && !track.chunkRuns.empty();
             ++chunk) {
            while (run + 1 < track.chunkRuns.size() && track.chunkRuns[run + 1].first <= chunk + 1)
                ++run;
            const ChunkRun& of = track.chunkRuns[run];
            const std::uint64_t samples =
                std::min<std::uint64_t>(of.samples, track.samples - sample);
            Extent extent{track.chunks[chunk],
                          0,
                          samples,
                          sample + 1,
                          track.HasListedSizes(),
                          static_cast<std::size_t>(track.HasListedSizes() ? sample : 0),
                          track.commonSize,
                          of.description,
                          table};
            std::uint64_t bytes = samples * extent.commonSize;
            if (extent.listed)
                for (std::uint64_t i = 0; i < samples; ++i)
                    bytes += track.SizeIn(extent, i);
            // No sum of 32-bit sizes that a file can hold wraps, but a place may be anything.
            extent.end = extent.begin > UINT64_MAX - bytes ? UINT64_MAX : extent.begin + bytes;
            sample += samples;
            track.extents.push_back(extent);
        }
    }

    void Defaults(Movie& movie, const Box& trex)
    {
        FieldReader f(m_source, trex.Inside(), trex.End());
        f.Skip(4);
        Track* track = movie.ById(f.U32());
        if (!track)
            return;
        track->trex = &trex;
        track->defaultDescription = f.U32();
        track->defaultDuration = f.U32();
        track->defaultSize = f.U32();
        track->defaultFlags = f.U32();
    }

    ByteSource& m_source;
    Findings& m_findings;
};

}  // namespace

const Box* Track::Table(std::string_view name) const
{
    const Box* stbl = box->At("mdia/minf/stbl");
    return stbl ? stbl->Child(name) : nullptr;
}

std::string Track::Where(std::string_view way) const
{
    const Box* found = box->At(way);
    return found ? found->path : box->path + "/" + std::string(way);
}

std::uint64_t Track::TimeSum() const
{
    std::uint64_t sum = 0;
    for (const TimeRun& run : times)
        sum += std::uint64_t{run.count} * run.delta;
    return sum;
}

std::uint64_t Track::DataSize() const
{
    std::uint64_t sum = 0;
    for (const Extent& extent : extents)
        sum += extent.end - extent.begin;
    return sum;
}

std::string Track::Codec() const
{
    return entries.empty() ? "" : ReadableType(entries[0].box->type);
}

Track* Movie::ById(std::uint32_t id)
{
    const auto found = std::find_if(tracks.begin(), tracks.end(),
                                    [&](const Track& track) { return track.id == id; });
    return found == tracks.end() ? nullptr : &*found;
}

Movie ReadMovie(ByteSource& source, const Box& tree, Findings& findings)
{
    return MovieReader(source, findings).Run(tree);
}

std::uint32_t VersionFlags(ByteSource& source, const Box& box)
{
    return FieldReader(source, box.Inside(), box.End()).U32();
}

std::vector<std::uint32_t> ReadEntries(ByteSource& source, const Box& box, unsigned words,
                                       std::uint64_t countAt, Findings& findings)
{
    FieldReader f(source, box.Inside(), box.End());
    f.Skip(countAt);
    const std::uint64_t count = f.U32();
    const std::uint64_t bytes = count * words * 4;
    if (!f.Sound() || bytes != f.Left()) {
        findings.Error(
            "table-length", box.path, box.offset,
            fmt::format("{} entries of {} bytes in {} bytes", count, words * 4, f.Left()),
            fmt::format("{} bytes", bytes));
        if (!f.Sound())
            return {};
    }
    const auto raw = f.Bytes(std::min(bytes, f.Left() / (words * 4) * (words * 4)));
    std::vector<std::uint32_t> values(raw.size() / 4);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = std::uint32_t{raw[4 * i]} << 24 | std::uint32_t{raw[4 * i + 1]} << 16 |
                    std::uint32_t{raw[4 * i + 2]} << 8 | raw[4 * i + 3];
    return values;
}
