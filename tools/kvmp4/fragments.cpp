// Movie fragments: their runs become extents of the tracks, and what they say is held against the
// movie, against each other and against the indexes that point at them.
#include "movie.h"

#include <algorithm>

#include <fmt/format.h>

namespace {

constexpr std::uint32_t kNotSync = 0x10000;

class FragmentReader {
public:
    FragmentReader(ByteSource& source, const Box& tree, Movie& movie, Findings& findings)
        : m_source(source), m_tree(tree), m_movie(movie), m_findings(findings)
    {
    }

    void Run()
    {
        for (const Box& box : m_tree.children) {
            if (box.type == "moof")
                Fragment(box);
            else if (box.type == "sidx")
                SegmentIndex(box);
            else if (box.type == "mfra")
                RandomAccess(box);
        }
        ExtendsHeader();
    }

private:
    void Fragment(const Box& moof)
    {
        if (m_movie.box && !m_movie.box->Child("mvex") && !m_findings.Has("mvex-missing"))
            m_findings.Error("mvex-missing", moof.path, moof.offset,
                             "a fragment of a movie without mvex");
        if (const Box* mfhd = moof.Child("mfhd")) {
            FieldReader f(m_source, mfhd->Inside(), mfhd->End());
            f.Skip(4);
            const std::uint32_t number = f.U32();
            if (m_sequence && number <= *m_sequence)
                m_findings.Error("mfhd-sequence", mfhd->path, mfhd->offset,
                                 fmt::format("number {}", number),
                                 fmt::format("more than {}", *m_sequence));
            m_sequence = number;
        }
        std::uint64_t end = moof.offset;  // of the data of the track fragment before
        for (const Box& traf : moof.children)
            if (traf.type == "traf")
                TrackFragment(moof, traf, end);
    }

    void TrackFragment(const Box& moof, const Box& traf, std::uint64_t& dataEnd)
    {
        const Box* tfhd = traf.Child("tfhd");
        if (!tfhd)
            return;
        FieldReader f(m_source, tfhd->Inside(), tfhd->End());
        const std::uint32_t flags = f.U32() & 0xFFFFFFu;
        const std::uint32_t id = f.U32();
        const std::uint64_t base = flags & 1 ? f.U64() : flags & 0x20000 ? moof.offset : dataEnd;
        Track* track = m_movie.ById(id);
        if (!track) {
            if (m_movie.box)
                m_findings.Error("tfhd-track", tfhd->path, tfhd->offset,
                                 fmt::format("track {}", id), "a track of the movie");
            return;
        }
        if (!track->trex && !m_findings.Has("mvex-missing"))
            m_findings.Error("trex-missing", traf.path, traf.offset,
                             fmt::format("a fragment of track {} without defaults", id), "a trex");
        Defaults with{flags & 2 ? f.U32() : track->defaultDescription,
                      flags & 8 ? f.U32() : track->defaultDuration, 0, 0};
        with.size = flags & 0x10 ? f.U32() : track->defaultSize;
        with.flags = flags & 0x20 ? f.U32() : track->defaultFlags;
        if (!f.Sound() || f.Left() > 0)
            m_findings.Error("box-length", tfhd->path, tfhd->offset,
                             fmt::format("{} bytes behind the header", tfhd->Content()),
                             fmt::format("{} by its flags", tfhd->Content() - f.Left()));
        if (with.description == 0 || with.description > track->entries.size())
            m_findings.Error("sample-description", tfhd->path, tfhd->offset,
                             fmt::format("description {}", with.description),
                             fmt::format("1 to {}", track->entries.size()));
        ++track->fragments;
        if (const Box* tfdt = traf.Child("tfdt"))
            DecodeTime(*tfdt, *track);
        std::uint64_t at = base;
        for (const Box& trun : traf.children)
            if (trun.type == "trun")
                Run(trun, *track, with, base, at);
        dataEnd = at;
    }

    struct Defaults {
        std::uint32_t description, duration, size, flags;
    };

    void DecodeTime(const Box& tfdt, Track& track)
    {
        FieldReader f(m_source, tfdt.Inside(), tfdt.End());
        const std::uint64_t time = f.Wide(f.U32() >> 24 == 1);
        if (track.fragmentEnd && time < *track.fragmentEnd)
            m_findings.Error(
                "tfdt-order", tfdt.path, tfdt.offset, fmt::format("time {}", time),
                fmt::format("at least {}, where the fragment before ends", *track.fragmentEnd));
        track.fragmentEnd = time;
    }

    void Run(const Box& trun, Track& track, const Defaults& with, std::uint64_t base,
             std::uint64_t& at)
    {
        FieldReader f(m_source, trun.Inside(), trun.End());
        const std::uint32_t flags = f.U32() & 0xFFFFFFu;
        const std::uint64_t count = f.U32();
        if (flags & 1)
            at = base + static_cast<std::uint64_t>(std::int64_t{f.S32()});
        const bool first = (flags & 4) != 0;
        const std::uint32_t firstFlags = first ? f.U32() : 0;
        unsigned width = 0;
        for (const std::uint32_t field : {0x100u, 0x200u, 0x400u, 0x800u})
            width += flags & field ? 4 : 0;
        if (!f.Sound() || f.Left() != count * width) {
            m_findings.Error(
                "table-length", trun.path, trun.offset,
                fmt::format("{} entries of {} bytes in {} bytes", count, width, f.Left()),
                fmt::format("{} bytes", count * width));
            return;
        }
        Extent extent{at,
                      0,
                      count,
                      track.AllSamples() + 1,
                      (flags & 0x200) != 0,
                      track.sizes.size(),
                      with.size,
                      with.description,
                      &trun};
        std::uint64_t bytes = flags & 0x200 ? 0 : count * with.size;
        std::uint64_t duration = flags & 0x100 ? 0 : count * with.duration;
        std::uint64_t keys = 0;
        if (width == 0) {
            keys = with.flags & kNotSync ? 0 : count;
            if (first && count > 0)
                keys = (with.flags & kNotSync ? 0 : count - 1) + (firstFlags & kNotSync ? 0 : 1);
        }
        for (std::uint64_t i = 0; width > 0 && i < count; ++i) {
            if (flags & 0x100)
                duration += f.U32();
            if (flags & 0x200) {
                track.sizes.push_back(f.U32());
                bytes += track.sizes.back();
            }
            const std::uint32_t own = flags & 0x400 ? f.U32() : with.flags;
            keys += (i == 0 && first ? firstFlags : own) & kNotSync ? 0 : 1;
            if (flags & 0x800)
                f.Skip(4);
        }
        at = at > UINT64_MAX - bytes ? UINT64_MAX : at + bytes;
        extent.end = at;
        track.extents.push_back(extent);
        track.fragmentSamples += count;
        track.fragmentDuration += duration;
        track.fragmentKeys += keys;
        if (track.fragmentEnd)
            *track.fragmentEnd += duration;
    }

    const Box* BoxAt(std::uint64_t offset) const
    {
        const auto found = std::lower_bound(
            m_tree.children.begin(), m_tree.children.end(), offset,
            [](const Box& box, std::uint64_t place) { return box.offset < place; });
        return found == m_tree.children.end() || found->offset != offset ? nullptr : &*found;
    }

    void SegmentIndex(const Box& sidx)
    {
        FieldReader f(m_source, sidx.Inside(), sidx.End());
        const bool wide = f.U32() >> 24 == 1;
        f.Skip(8);
        f.Wide(wide);
        std::uint64_t at = sidx.End() + f.Wide(wide);
        f.Skip(2);
        const std::uint64_t count = f.U16();
        if (!f.Sound() || f.Left() != count * 12) {
            m_findings.Error("table-length", sidx.path, sidx.offset,
                             fmt::format("{} entries of 12 bytes in {} bytes", count, f.Left()));
            return;
        }
        for (std::uint64_t i = 0; i < count; ++i) {
            const Box* target = BoxAt(at);
            if (!target || target->type == "mdat" || target->type == "moov")
                m_findings.Error("sidx-reference", sidx.path, f.At(),
                                 fmt::format("entry {} begins at {}", i + 1, at),
                                 "the beginning of a segment");
            at += f.U32() & 0x7FFFFFFFu;
            f.Skip(8);
        }
        if (count > 0 && at != m_tree.End() && !BoxAt(at))
            m_findings.Error("sidx-reference", sidx.path, sidx.offset,
                             fmt::format("its last entry ends at {}", at), "the end of a segment");
    }

    void RandomAccess(const Box& mfra)
    {
        for (const Box& tfra : mfra.children)
            if (tfra.type == "tfra")
                TrackAccess(tfra);
        if (const Box* mfro = mfra.Child("mfro")) {
            FieldReader f(m_source, mfro->Inside(), mfro->End());
            f.Skip(4);
            const std::uint32_t size = f.U32();
            if (size != mfra.size)
                m_findings.Error("mfro-size", mfro->path, mfro->offset,
                                 fmt::format("size {}", size),
                                 fmt::format("{}, that of mfra", mfra.size));
        }
    }

    void TrackAccess(const Box& tfra)
    {
        FieldReader f(m_source, tfra.Inside(), tfra.End());
        const bool wide = f.U32() >> 24 == 1;
        const std::uint32_t id = f.U32();
        if (m_movie.box && !m_movie.ById(id))
            m_findings.Error("tfra-track", tfra.path, tfra.offset, fmt::format("track {}", id),
                             "a track of the movie");
        const std::uint32_t widths = f.U32();
        const std::uint64_t numbers = 3 + (widths & 3) + (widths >> 2 & 3) + (widths >> 4 & 3);
        const std::uint64_t count = f.U32();
        const std::uint64_t width = (wide ? 16 : 8) + numbers;
        if (!f.Sound() || f.Left() != count * width) {
            m_findings.Error(
                "table-length", tfra.path, tfra.offset,
                fmt::format("{} entries of {} bytes in {} bytes", count, width, f.Left()));
            return;
        }
        for (std::uint64_t i = 0; i < count; ++i) {
            f.Wide(wide);
            const std::uint64_t at = f.At();
            const std::uint64_t offset = f.Wide(wide);
            f.Skip(numbers);
            const Box* target = BoxAt(offset);
            if (offset == 0)  // a fragment that its writer no longer knew
                m_findings.Note("tfra-unknown", tfra.path, at,
                                fmt::format("entry {} points nowhere", i + 1));
            else if (!target || target->type != "moof")
                m_findings.Error("tfra-offset", tfra.path, at,
                                 fmt::format("entry {} points at {}", i + 1, offset),
                                 "the beginning of a moof");
        }
    }

    // The duration that the movie promises with all its fragments.
    void ExtendsHeader()
    {
        const Box* mehd = m_movie.box ? m_movie.box->At("mvex/mehd") : nullptr;
        if (!mehd || m_movie.timescale == 0)
            return;
        FieldReader f(m_source, mehd->Inside(), mehd->End());
        const std::uint64_t duration = f.Wide(f.U32() >> 24 == 1);
        double longest = 0;
        for (const Track& track : m_movie.tracks)
            if (track.timescale != 0)
                longest = std::max(longest,
                                   static_cast<double>(track.TimeSum() + track.fragmentDuration) /
                                       track.timescale);
        const double seconds = static_cast<double>(duration) / m_movie.timescale;
        // Starts of tracks and edits count here too; only what cannot be so is told.
        if (duration != 0 && (seconds < longest * 0.9 - 1 || seconds > longest * 1.1 + 1))
            m_findings.Error("mehd-duration", mehd->path, mehd->offset,
                             fmt::format("{:.3f} s", seconds), fmt::format("{:.3f} s", longest));
    }

    ByteSource& m_source;
    const Box& m_tree;
    Movie& m_movie;
    Findings& m_findings;
    std::optional<std::uint32_t> m_sequence;
};

}  // namespace

void ReadFragments(ByteSource& source, const Box& tree, Movie& movie, Findings& findings)
{
    FragmentReader(source, tree, movie, findings).Run();
}
