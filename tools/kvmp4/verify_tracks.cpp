#include "verify.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>

namespace {

constexpr std::uint32_t kNegative = 0x80000000;  // a 32-bit difference from here on went back

// Whether two times differ by what rounding from one timescale to another can make of them.
bool Near(std::uint64_t a, std::uint64_t b, std::uint64_t within)
{
    return (a > b ? a - b : b - a) <= within;
}

class TrackCheck {
public:
    TrackCheck(ByteSource& source, const Box& tree, const Movie& movie, Findings& findings)
        : m_source(source), m_tree(tree), m_movie(movie), m_findings(findings)
    {
    }

    void Run()
    {
        MovieHeader();
        std::set<std::uint32_t> ids;
        for (const Track& track : m_movie.tracks) {
            if (!ids.insert(track.id).second)
                m_findings.Error("track-id-taken", track.Where("tkhd"), track.box->offset,
                                 fmt::format("track id {}", track.id), "one of its own");
            OneTrack(track);
        }
        Places();
    }

private:
    bool Fragmented() const { return m_movie.box->Child("mvex") != nullptr; }

    // ---- The movie

    void MovieHeader()
    {
        const Box* mvhd = m_movie.box->Child("mvhd");
        if (!mvhd)
            return;
        if (m_movie.timescale == 0)
            m_findings.Error("mvhd-timescale", mvhd->path, mvhd->offset, "timescale 0",
                             "more than 0");
        if (m_movie.tracks.empty())
            m_findings.Note("track-none", m_movie.box->path, m_movie.box->offset,
                            "a movie without a track");
        std::uint32_t highest = 0;
        std::uint64_t longest = 0;
        std::uint64_t playing = 0;  // where captions and time code do not count
        for (const Track& track : m_movie.tracks) {
            highest = std::max(highest, track.id);
            longest = std::max(longest, track.duration);
            if (track.handler == "vide" || track.handler == "soun")
                playing = std::max(playing, track.duration);
        }
        // Writers of fragments count their tracks later, and nobody adds one to theirs.
        if (m_movie.nextTrackId <= highest)
            m_findings.Add(Fragmented() ? Severity::note : Severity::error, "mvhd-next-track-id",
                           mvhd->path, mvhd->End() - 4,
                           fmt::format("next track id {}", m_movie.nextTrackId),
                           fmt::format("more than {}", highest));
        const bool open = m_movie.duration == 0 || m_movie.duration == UINT32_MAX ||
                          m_movie.duration == UINT64_MAX;
        if (!(Fragmented() && open) && !Near(m_movie.duration, longest, 2) &&
            !Near(m_movie.duration, playing, 2))
            m_findings.Error("mvhd-duration", mvhd->path, mvhd->offset,
                             fmt::format("duration {}", m_movie.duration),
                             fmt::format("{}, that of the longest track", longest));
    }

    // ---- A track

    void OneTrack(const Track& track)
    {
        const Box* tkhd = track.At("tkhd");
        if (tkhd && track.id == 0)
            m_findings.Error("track-id-zero", tkhd->path, tkhd->offset, "track id 0",
                             "more than 0");
        const Box* mdhd = track.At("mdia/mdhd");
        if (mdhd && track.timescale == 0)
            m_findings.Error("mdhd-timescale", mdhd->path, mdhd->offset, "timescale 0",
                             "more than 0");
        MediaHeader(track);
        References(track);
        TimeToSample(track);
        CompositionOffsets(track);
        SampleToChunk(track);
        SyncSamples(track);
        PerSample(track);
        if (mdhd)
            MediaDuration(track, *mdhd);
        if (tkhd)
            TrackDuration(track, *tkhd);
        EditList(track);
    }

    void MediaHeader(const Track& track)
    {
        const Box* minf = track.At("mdia/minf");
        if (!minf)
            return;
        static const std::map<std::string, std::set<std::string>> headers = {
            {"vide", {"vmhd"}},
            {"auxv", {"vmhd"}},
            {"soun", {"smhd"}},
            {"hint", {"hmhd", "gmhd"}},
            {"tmcd", {"gmhd", "nmhd"}},
            {"clcp", {"gmhd", "nmhd", "sthd"}},
            {"text", {"gmhd", "nmhd", "sthd"}},
            {"sbtl", {"gmhd", "nmhd", "sthd"}},
            {"subt", {"sthd", "nmhd", "gmhd"}},
            {"meta", {"nmhd", "gmhd"}}};
        const auto expected = headers.find(track.handler);
        std::string found;
        const Box* where = minf;
        for (const Box& child : minf->children)
            if (child.type.substr(1) == "mhd" || child.type == "sthd") {
                found = child.type;
                where = &child;
            }
        const bool text =
            track.handler == "text" || track.handler == "sbtl" || track.handler == "subt";
        if (found.empty() && text)
            m_findings.Note("media-header-none", minf->path, minf->offset,
                            "no media header of a text track");
        else if (found.empty())
            m_findings.Error("box-missing", minf->path, minf->offset, "no media header",
                             expected == headers.end() ? "one" : *expected->second.begin());
        else if (expected != headers.end() && expected->second.count(found) == 0)
            m_findings.Error("media-header", where->path, where->offset,
                             fmt::format("{} of a {} track", ReadableType(found),
                                         ReadableType(track.handler)),
                             *expected->second.begin());
    }

    void References(const Track& track)
    {
        const Box* tref = track.At("tref");
        if (!tref)
            return;
        for (const Box& kind : tref->children) {
            FieldReader f(m_source, kind.Inside(), kind.End());
            if (f.Left() % 4 != 0)
                m_findings.Error("table-length", kind.path, kind.offset,
                                 fmt::format("{} bytes of track ids", f.Left()), "a multiple of 4");
            while (f.Left() >= 4) {
                const std::uint32_t id = f.U32();
                const bool there = std::any_of(m_movie.tracks.begin(), m_movie.tracks.end(),
                                               [&](const Track& other) { return other.id == id; });
                // 0 stands for a reference that is not used. A time code that was announced and
                // never came leaves one to a track that is left out.
                if (there || id == 0)
                    continue;
                if (kind.type == "tmcd" && id < m_movie.nextTrackId)
                    m_findings.Note("tref-unused", kind.path, kind.offset,
                                    fmt::format("track {} was announced and has no samples", id));
                else
                    m_findings.Error("tref-track", kind.path, f.At() - 4,
                                     fmt::format("track {}", id), "a track of the movie");
            }
        }
    }

    // ---- Tables

    void TimeToSample(const Track& track)
    {
        const Box* stts = track.Table("stts");
        if (!stts)
            return;
        std::uint64_t count = 0;
        for (std::size_t i = 0; i < track.times.size(); ++i) {
            const TimeRun& run = track.times[i];
            const std::uint64_t at = stts->Inside() + 8 + 8 * i;
            if (run.count == 0)
                m_findings.Error("stts-empty-run", stts->path, at,
                                 fmt::format("entry {} counts 0", i + 1), "1 at least");
            if (run.delta >= kNegative)
                m_findings.Error("stts-delta", stts->path, at + 4,
                                 fmt::format("entry {} goes back by {}", i + 1,
                                             std::uint64_t{UINT32_MAX} - run.delta + 1),
                                 "times that rise");
            count += run.count;
        }
        if (count != track.samples)
            m_findings.Error("stts-samples", stts->path, stts->offset,
                             fmt::format("{} samples in all", count),
                             fmt::format("{}, as in stsz", track.samples));
    }

    void CompositionOffsets(const Track& track)
    {
        const Box* ctts = track.Table("ctts");
        if (!ctts)
            return;
        std::uint64_t count = 0;
        for (std::size_t i = 0; i < track.offsets.size(); ++i) {
            const OffsetRun& run = track.offsets[i];
            if (run.count == 0)
                m_findings.Error("ctts-empty-run", ctts->path, ctts->Inside() + 8 + 8 * i,
                                 fmt::format("entry {} counts 0", i + 1), "1 at least");
            // Players take them for negative ones, which version 0 does not have.
            if (run.offset >= kNegative)
                m_findings.Warning("ctts-version", ctts->path, ctts->Inside() + 12 + 8 * i,
                                   fmt::format("entry {} is an offset of {}", i + 1, run.offset),
                                   "version 1 for negative offsets");
            count += run.count;
        }
        if (count != track.samples)
            m_findings.Error("ctts-samples", ctts->path, ctts->offset,
                             fmt::format("{} samples in all", count),
                             fmt::format("{}, as in stsz", track.samples));
        else
            Collisions(track, *ctts);
    }

    // Two pictures at one time: an offset that is not the one the encoder meant.
    void Collisions(const Track& track, const Box& ctts)
    {
        std::vector<std::int64_t> shown = Shown(track);
        std::sort(shown.begin(), shown.end());
        const auto twin = std::adjacent_find(shown.begin(), shown.end());
        if (track.handler == "vide" && twin != shown.end())
            m_findings.Warning("ctts-collision", ctts.path, ctts.offset,
                               fmt::format("two pictures are shown at {}", *twin), "one at a time");
    }

    // When the samples are shown; nothing for tables that are too long or that do not agree.
    static std::vector<std::int64_t> Shown(const Track& track)
    {
        if (track.samples > 4000000 || track.times.empty())
            return {};
        std::vector<std::int64_t> shown;
        std::size_t run = 0;
        std::uint64_t left = track.times[0].count;
        std::int64_t time = 0;
        for (const OffsetRun& offset : track.offsets)
            for (std::uint32_t i = 0; i < offset.count; ++i) {
                while (left == 0 && run + 1 < track.times.size())
                    left = track.times[++run].count;
                if (left == 0 || track.times[run].delta == 0)
                    return {};
                shown.push_back(time + offset.offset);
                time += track.times[run].delta;
                --left;
            }
        return shown;
    }

    void SampleToChunk(const Track& track)
    {
        const Box* stsc = track.Table("stsc");
        if (!stsc || (!track.Table("stco") && !track.Table("co64")))
            return;
        std::uint64_t covered = 0;
        const auto& runs = track.chunkRuns;
        if (!runs.empty() && runs[0].first != 1)
            m_findings.Error("stsc-first", stsc->path, stsc->Inside() + 8,
                             fmt::format("it begins with chunk {}", runs[0].first), "chunk 1");
        for (std::size_t i = 0; i < runs.size(); ++i) {
            const std::uint64_t at = stsc->Inside() + 8 + 12 * i;
            if (i > 0 && runs[i].first <= runs[i - 1].first)
                m_findings.Error("stsc-order", stsc->path, at,
                                 fmt::format("entry {} begins with chunk {}", i + 1, runs[i].first),
                                 fmt::format("more than {}", runs[i - 1].first));
            if (runs[i].first > track.chunks.size())
                m_findings.Error("stsc-chunk", stsc->path, at,
                                 fmt::format("entry {} names chunk {}", i + 1, runs[i].first),
                                 fmt::format("at most {}", track.chunks.size()));
            if (runs[i].samples == 0)
                m_findings.Error("stsc-empty", stsc->path, at + 4,
                                 fmt::format("entry {} has chunks without samples", i + 1),
                                 "1 at least");
            if (runs[i].description == 0 || runs[i].description > track.entries.size())
                m_findings.Error(
                    "sample-description", stsc->path, at + 8,
                    fmt::format("entry {} names description {}", i + 1, runs[i].description),
                    fmt::format("1 to {}", track.entries.size()));
            const std::uint64_t next =
                i + 1 < runs.size() ? runs[i + 1].first : std::uint64_t{track.chunks.size()} + 1;
            if (next > runs[i].first)
                covered += (next - runs[i].first) * runs[i].samples;
        }
        if (covered != track.samples)
            m_findings.Error("stsc-samples", stsc->path, stsc->offset,
                             fmt::format("{} samples in {} chunks", covered, track.chunks.size()),
                             fmt::format("{}, as in stsz", track.samples));
    }

    void SyncSamples(const Track& track)
    {
        const Box* stss = track.Table("stss");
        if (!stss || !track.sync)
            return;
        std::uint32_t last = 0;
        for (std::size_t i = 0; i < track.sync->size(); ++i) {
            const std::uint32_t number = (*track.sync)[i];
            const std::uint64_t at = stss->Inside() + 8 + 4 * i;
            if (number <= last)
                m_findings.Error("stss-order", stss->path, at,
                                 fmt::format("entry {} is sample {}", i + 1, number),
                                 fmt::format("more than {}", last));
            if (number > track.samples)
                m_findings.Error("stss-range", stss->path, at,
                                 fmt::format("entry {} is sample {}", i + 1, number),
                                 fmt::format("at most {}", track.samples));
            last = number;
        }
    }

    // Tables with an entry for each sample, or for all of them in runs.
    void PerSample(const Track& track)
    {
        const Box* stbl = track.At("mdia/minf/stbl");
        if (!stbl)
            return;
        for (const Box& box : stbl->children) {
            if (box.type == "sdtp" && box.Content() != track.samples + 4)
                m_findings.Error("sdtp-samples", box.path, box.offset,
                                 fmt::format("{} samples", box.Content() - std::min<std::uint64_t>(
                                                                               4, box.Content())),
                                 fmt::format("{}, as in stsz", track.samples));
            if (box.type != "sbgp")
                continue;
            const std::uint64_t countAt = Version(m_source, box) == 1 ? 12 : 8;
            const auto runs = ReadEntries(m_source, box, 2, countAt, m_findings);
            std::uint64_t count = 0;
            for (std::size_t i = 0; i + 2 <= runs.size(); i += 2)
                count += runs[i];
            if (count > track.samples && !Fragmented())
                m_findings.Error("sbgp-samples", box.path, box.offset,
                                 fmt::format("{} samples", count),
                                 fmt::format("at most {}", track.samples));
        }
    }

    // ---- Durations

    // The time from the first to the last sample and a length for that: its own, or another one of
    // the track's where the recorder did not know it yet.
    void MediaDuration(const Track& track, const Box& mdhd)
    {
        const std::uint64_t sum = track.TimeSum();
        const std::uint64_t duration = track.mediaDuration;
        if (track.times.empty() || sum == 0 || track.samples == 0) {
            if (track.samples != 0 && duration != 0)
                m_findings.Note("mdhd-alone", mdhd.path, mdhd.offset,
                                fmt::format("duration {} of samples without durations", duration));
            return;
        }
        if (Fragmented() && (duration == 0 || duration == sum + track.fragmentDuration))
            return;
        const std::uint64_t span = sum - track.times.back().delta;
        // Some count from the first to the last picture shown.
        const std::vector<std::int64_t> shown = Shown(track);
        const std::uint64_t showing =
            shown.empty()
                ? span
                : static_cast<std::uint64_t>(*std::max_element(shown.begin(), shown.end()) -
                                             *std::min_element(shown.begin(), shown.end()));
        std::uint64_t longest = 0;
        for (const TimeRun& run : track.times) {
            if (duration == span + run.delta || duration == showing + run.delta)
                return;
            longest = std::max<std::uint64_t>(longest, run.delta);
        }
        const bool keyFirst = track.sync && !track.sync->empty() && track.sync->front() == 1;
        if (duration >= span &&
            duration - span <= std::max<std::uint64_t>(longest, track.timescale))
            m_findings.Note("mdhd-last", mdhd.path, mdhd.offset,
                            fmt::format("the last sample lasts {}, as no other", duration - span));
        else if (duration > span && track.sync && !keyFirst)
            m_findings.Note("mdhd-from-zero", mdhd.path, mdhd.offset,
                            "counts from 0, as the track does not begin with a key frame");
        else
            m_findings.Error("mdhd-duration", mdhd.path, mdhd.offset,
                             fmt::format("duration {}", duration),
                             fmt::format("{}, the sum of stts", sum));
    }

    void TrackDuration(const Track& track, const Box& tkhd)
    {
        if (track.timescale == 0 || m_movie.timescale == 0)
            return;
        if (Fragmented() &&
            (track.duration == 0 || track.duration == UINT32_MAX || track.duration == UINT64_MAX))
            return;
        const double scaled =
            static_cast<double>(track.mediaDuration) * m_movie.timescale / track.timescale;
        std::uint64_t edits = 0;
        for (const Edit& edit : track.edits)
            edits += edit.duration;
        const double found = static_cast<double>(track.duration);
        if (!track.edits.empty() && edits != 0) {
            if (!Near(track.duration, edits, track.edits.size() + 1))
                m_findings.Error("tkhd-duration", tkhd.path, tkhd.offset,
                                 fmt::format("duration {}", track.duration),
                                 fmt::format("{}, the sum of its edits", edits));
        } else if (track.mediaDuration != 0 && (found < scaled - 2 || found > scaled + 2)) {
            m_findings.Error("tkhd-duration", tkhd.path, tkhd.offset,
                             fmt::format("duration {}", track.duration),
                             fmt::format("{:.0f}, as in mdhd", scaled));
        }
    }

    void EditList(const Track& track)
    {
        const Box* elst = track.At("edts/elst");
        if (!elst || track.timescale == 0 || m_movie.timescale == 0)
            return;
        const std::uint64_t width = Version(m_source, *elst) == 1 ? 20 : 12;
        std::int64_t latest = 0;
        for (const OffsetRun& run : track.offsets)
            latest = std::max(latest, run.offset);
        // Where the presentation of the media ends at the latest.
        const double end = static_cast<double>(std::max(track.mediaDuration, track.TimeSum())) +
                           static_cast<double>(latest);
        for (std::size_t i = 0; i < track.edits.size(); ++i) {
            const Edit& edit = track.edits[i];
            const std::uint64_t at = elst->Inside() + 8 + width * i;
            if (edit.rate != 0x10000 && edit.rate != 0)
                m_findings.Warning("elst-rate", elst->path, at + width - 4,
                                   fmt::format("rate {:08X}", edit.rate), "00010000");
            if (edit.time < -1)
                m_findings.Error("elst-time", elst->path, at,
                                 fmt::format("media time {}", edit.time), "-1 or more");
            // Fragments make the media longer than the tables say.
            if (edit.time < 0 || Fragmented())
                continue;
            const double length =
                static_cast<double>(edit.duration) * track.timescale / m_movie.timescale;
            const double tick = 2.0 * track.timescale / m_movie.timescale + 1;
            if (static_cast<double>(edit.time) > end ||
                static_cast<double>(edit.time) + length > end + tick)
                m_findings.Error("elst-beyond", elst->path, at,
                                 fmt::format("edit {} ends at {:.0f}", i + 1,
                                             static_cast<double>(edit.time) + length),
                                 fmt::format("at most {:.0f}, where the media ends", end));
        }
    }

    // ---- Where the samples lie

    // Whether the samples of a description stand in this file.
    bool Here(const Track& track, std::uint32_t description) const
    {
        const Box* dref = track.At("mdia/minf/dinf/dref");
        if (!dref || description == 0 || description > track.entries.size())
            return true;
        const std::uint32_t index = track.entries[description - 1].dataReference;
        if (index == 0 || index > dref->children.size())
            return true;
        return (VersionFlags(m_source, dref->children[index - 1]) & 1) != 0;
    }

    void Places()
    {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> data;
        for (const Box& box : m_tree.children)
            if (box.type == "mdat" || box.type == "imda")
                data.emplace_back(box.Inside(), box.End());
        struct Place {
            const Extent* extent;
            const Track* track;
        };
        std::vector<Place> places;
        for (const Track& track : m_movie.tracks) {
            if (PacketSizes(track))
                continue;
            for (const Extent& extent : track.extents) {
                if (!Here(track, extent.description)) {
                    m_findings.Note("data-elsewhere", track.box->path, track.box->offset,
                                    "samples in another file");
                    break;
                }
                places.push_back({&extent, &track});
            }
        }
        if (data.empty() && !places.empty())
            m_findings.Error("box-missing", "", 0, "no mdat", "one, as there are samples");
        for (const Place& place : places)
            Inside(*place.track, *place.extent, data);
        std::sort(places.begin(), places.end(),
                  [](const Place& a, const Place& b) { return a.extent->begin < b.extent->begin; });
        const Place* before = nullptr;  // the one that reaches furthest
        for (const Place& place : places) {
            if (place.extent->begin == place.extent->end)
                continue;
            if (before && place.extent->begin < before->extent->end)
                m_findings.Error("sample-overlap", place.extent->table->path, place.extent->begin,
                                 fmt::format("samples from {} on", place.extent->number),
                                 fmt::format("from {} on, behind those of track {} from {} on",
                                             before->extent->end, before->track->id,
                                             before->extent->number));
            if (!before || place.extent->end > before->extent->end)
                before = &place;
        }
    }

    // Old QuickTime sound counts single values, which say nothing about bytes.
    static bool PacketSizes(const Track& track)
    {
        return track.handler == "soun" && track.commonSize == 1 && !track.entries.empty() &&
               track.Codec() != "raw " && track.Codec() != "ulaw" && track.Codec() != "alaw";
    }

    void Inside(const Track& track, const Extent& extent,
                const std::vector<std::pair<std::uint64_t, std::uint64_t>>& data)
    {
        // The last range that begins before it; they stand in the order of the file.
        auto around = std::upper_bound(
            data.begin(), data.end(), extent.begin,
            [](std::uint64_t place, const auto& range) { return place < range.first; });
        around = around == data.begin() ? data.end() : std::prev(around);
        if (around != data.end() && extent.begin > around->second)
            around = data.end();
        if (extent.samples == 0 || (around != data.end() && extent.end <= around->second))
            return;
        // The first sample that is not inside.
        std::uint64_t at = extent.begin;
        std::uint64_t number = extent.number;
        if (around != data.end() && extent.listed)
            for (std::uint64_t i = 0; i + 1 < extent.samples; ++i) {
                if (at + track.SizeIn(extent, i) > around->second)
                    break;
                at += track.SizeIn(extent, i);
                ++number;
            }
        m_findings.Error("sample-outside-mdat", extent.table->path, at,
                         fmt::format("sample {} at {}", number, at),
                         around == data.end()
                             ? "inside an mdat"
                             : fmt::format("inside mdat, which ends at {}", around->second));
    }

    ByteSource& m_source;
    const Box& m_tree;
    const Movie& m_movie;
    Findings& m_findings;
};

}  // namespace

void VerifyTracks(ByteSource& source, const Box& tree, const Movie& movie, Findings& findings)
{
    if (movie.box)
        TrackCheck(source, tree, movie, findings).Run();
}
