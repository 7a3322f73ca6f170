#include "support/check.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace kvtest {

namespace {

// What the tracks of each handler hold.
struct Kind {
    const char* header;  // of minf, as a pattern
    const char* tables;  // of stbl, as a pattern
    const char* entry;   // of stsd, as a pattern
};
const std::map<std::string, Kind> kKinds = {
    {"vide", {"vmhd", "stsd,stts,stsz,stsc,(stco|co64),stss,", "avc1|hev1|apc[osnh]|ap4[hx]"}},
    {"soun", {"smhd", "stsd,stts,stsz,stsc,(stco|co64),", "mp4a"}},
    {"tmcd", {"[ng]mhd", "stsd,stts,stsc,stsz,(stco|co64),", "tmcd"}},
    {"clcp", {"gmhd", "stsd,stts,stsz,stsc,stco,", "c[67]08"}},
};

struct Sample {
    std::uint64_t begin;
    std::uint64_t end;
    std::string track;
};

class CFileCheck {
public:
    CFileCheck(const Bytes& bytes, bool filled)
        : m_file(bytes), m_filled(filled), m_complaints(m_file.Damage())
    {
        if (m_complaints.empty())
            m_complaints = CheckShape(m_file);
    }

    std::vector<std::string> Run()
    {
        if (!m_complaints.empty())
            return std::move(m_complaints);  // without sound boxes the rest would only echo
        const BoxNode& moov = *m_file.Node("moov");
        Movie(moov);
        for (const BoxNode& child : moov.children)
            if (child.type == "trak")
                Track(child);
        Durations();
        Coverage();
        Metadata(moov);
        return std::move(m_complaints);
    }

private:
    void Complain(const std::string& what) { m_complaints.push_back(m_where + what); }
    void Expect(bool holds, const std::string& what)
    {
        if (!holds)
            Complain(what);
    }

    // ---- The movie

    void Movie(const BoxNode& moov)
    {
        m_where = "mvhd: ";
        const auto [mvhd, wide] = Header(moov.Child("mvhd"), 108, 120);
        if (!mvhd)
            return;
        const std::size_t at = mvhd->span.begin;
        m_movieTimescale = m_file.U32(at + (wide ? 28 : 20));
        m_movieDuration = wide ? m_file.U64(at + 32) : m_file.U32(at + 24);
        m_nextTrackId = m_file.U32(mvhd->span.end - 4);
        Expect(m_movieTimescale != 0, "timescale 0");
    }

    // A header box in version 0 or 1 with its size; null after a complaint.
    std::pair<const BoxNode*, bool> Header(const BoxNode* box, std::size_t narrow,
                                           std::size_t broad)
    {
        if (!box) {
            Complain("missing");
            return {nullptr, false};
        }
        const std::uint8_t version = m_file.All().at(box->span.begin + 8);
        if (version > 1 || box->span.Size() != (version ? broad : narrow)) {
            Complain("version " + std::to_string(version) + " with " +
                     std::to_string(box->span.Size()) + " bytes");
            return {nullptr, false};
        }
        return {box, version == 1};
    }

    void Durations()
    {
        // Nothing but the video's duration makes that of the time code.
        if (m_timeCode.timescale != 0 && m_video.timescale != 0)
            Expect(m_timeCode.duration ==
                       m_video.duration * m_timeCode.timescale / m_video.timescale,
                   "trak.tmcd: duration " + std::to_string(m_timeCode.duration) +
                       " is not the video's");
        m_where = "mvhd: ";
        const std::uint64_t longest =
            m_playing.empty() ? 0 : *std::max_element(m_playing.begin(), m_playing.end());
        Expect(m_movieDuration == longest, "duration " + std::to_string(m_movieDuration) +
                                               " is not that of the longest track, " +
                                               std::to_string(longest));
    }

    // ---- A track

    void Track(const BoxNode& track)
    {
        const std::string handler = m_file.Handler(track);
        m_where = "trak." + handler + ": ";
        const auto kind = kKinds.find(handler);
        if (kind == kKinds.end())
            return Complain("no handler that is known");
        const BoxNode& minf = *track.At("mdia/minf");
        const BoxNode& stbl = *minf.Child("stbl");
        const BoxNode& stsd = *stbl.Child("stsd");
        const std::string entry = stsd.children[0].type;
        const auto& [header, tables, entryKinds] = kind->second;
        for (const auto& [text, pattern] :
             {std::pair(minf.children[0].type, header), std::pair(TypeList(stbl), tables),
              std::pair(entry, entryKinds)})
            if (!TypesMatch(text, pattern))
                return Complain("holds " + text);
        EntryCount(*minf.At("dinf/dref"));
        EntryCount(stsd);

        const std::vector<std::uint64_t> sizes = Sizes(*stbl.Child("stsz"));
        const auto deltas = Entries(*stbl.Child("stts"), 8);
        TimeToSample(deltas, sizes.size());
        const std::size_t first = m_samples.size();
        Chunks(stbl, sizes, handler);
        if (entry == "avc1" || entry == "hev1")
            for (std::size_t i = first; i < m_samples.size(); ++i)
                Units(m_samples[i], i - first + 1);
        bool fromZero = false;  // without a key frame first, the duration counts from 0
        if (const BoxNode* stss = stbl.Child("stss"))
            fromZero = !SyncSamples(*stss, sizes.size());
        Times(track, handler, deltas, fromZero);
        if (handler == "vide")
            PictureSize(track, stsd.children[0]);
    }

    void Units(const Sample& sample, std::size_t number)
    {
        const bool inside = sample.end <= m_file.All().size();
        Expect(inside && UnitsFill(m_file, static_cast<std::size_t>(sample.begin),
                                   static_cast<std::size_t>(sample.end)),
               "units do not fill sample " + std::to_string(number));
    }

    void PictureSize(const BoxNode& track, const BoxNode& entry)
    {
        const std::size_t end = track.Child("tkhd")->span.end;
        const std::size_t begin = entry.span.begin;
        Expect(m_file.U32(end - 8) == std::uint32_t{m_file.U16(begin + 32)} << 16 &&
                   m_file.U32(end - 4) == std::uint32_t{m_file.U16(begin + 34)} << 16,
               "tkhd and sample entry have pictures of other sizes");
    }

    void EntryCount(const BoxNode& box)
    {
        Expect(m_file.U32(box.span.begin + 12) == box.children.size(),
               box.type + " counts other entries than it has");
    }

    // The 32-bit words of a table behind its count, after a test of the count.
    std::vector<std::uint32_t> Entries(const BoxNode& table, std::size_t width)
    {
        const std::size_t size = table.span.Size();
        if (size < 16 || size != 16 + width * m_file.U32(table.span.begin + 12)) {
            Complain(table.type + " has " + std::to_string(size) +
                     " bytes, which is not what its count says");
            return {};
        }
        Expect(m_file.U32(table.span.begin + 8) == 0, table.type + " has a version or flags");
        return Words(m_file.Box(table), 16);
    }

    std::vector<std::uint64_t> Sizes(const BoxNode& stsz)
    {
        const std::size_t bytes = stsz.span.Size();
        if (bytes < 20) {
            Complain("stsz is cut");
            return {};
        }
        const std::uint32_t common = m_file.U32(stsz.span.begin + 12);
        const std::uint32_t count = m_file.U32(stsz.span.begin + 16);
        // The compact form of samples without bytes has no sizes behind it either.
        if (bytes == 20)
            return std::vector<std::uint64_t>(count, common);
        if (common != 0 || bytes != 20 + std::size_t{count} * 4) {
            Complain("stsz has " + std::to_string(bytes) +
                     " bytes, which is not what its count says");
            return {};
        }
        const auto words = Words(m_file.Box(stsz), 20);
        Expect(std::adjacent_find(words.begin(), words.end(), std::not_equal_to<>()) != words.end(),
               "stsz lists sizes that are all the same");
        return {words.begin(), words.end()};
    }

    void TimeToSample(const std::vector<std::uint32_t>& entries, std::size_t samples)
    {
        std::uint64_t count = 0;
        for (std::size_t i = 0; i + 1 < entries.size(); i += 2) {
            Expect(entries[i] != 0, "stts has an empty run");
            Expect(i == 0 || entries[i + 1] != entries[i - 1], "stts has two runs in place of one");
            count += entries[i];
        }
        Expect(count == samples, "stts covers " + std::to_string(count) + " of " +
                                     std::to_string(samples) + " samples");
    }

    void Chunks(const BoxNode& stbl, const std::vector<std::uint64_t>& sizes,
                const std::string& handler)
    {
        std::vector<std::uint64_t> chunks;
        if (const BoxNode* co64 = stbl.Child("co64")) {
            const auto words = Entries(*co64, 8);
            for (std::size_t i = 0; i + 1 < words.size(); i += 2)
                chunks.push_back(std::uint64_t{words[i]} << 32 | words[i + 1]);
        } else if (const BoxNode* stco = stbl.Child("stco")) {
            const auto words = Entries(*stco, 4);
            chunks.assign(words.begin(), words.end());
        }
        const auto runs = Entries(*stbl.Child("stsc"), 12);
        Expect(runs.empty() == chunks.empty() && (runs.empty() || runs[0] == 1),
               "stsc does not begin with chunk 1");
        for (std::size_t i = 0; i + 2 < runs.size(); i += 3) {
            Expect(i == 0 || runs[i] > runs[i - 3], "stsc does not rise");
            Expect(i == 0 || runs[i + 1] != runs[i - 2], "stsc has two runs in place of one");
            Expect(runs[i] <= chunks.size(), "stsc names a chunk that is not there");
            Expect(runs[i + 1] != 0, "stsc has an empty chunk");
            Expect(runs[i + 2] == 1,
                   "stsc names a description that is not there");
        }
        const BoxNode& mdat = *m_file.Node("mdat");
        std::size_t sample = 0;
        std::uint64_t covered = 0;
        std::size_t run = 0;
        for (std::size_t chunk = 0; chunk < chunks.size() && !runs.empty(); ++chunk) {
            while (run + 3 < runs.size() && runs[run + 3] <= chunk + 1)
                run += 3;
            covered += runs[run + 1];
            std::uint64_t at = chunks[chunk];
            Expect(chunk == 0 || at >= chunks[chunk - 1], "chunks go back");
            for (std::uint32_t i = 0; i < runs[run + 1] && sample < sizes.size(); ++i) {
                m_samples.push_back({at, at + sizes[sample], handler});
                at += sizes[sample++];
            }
            Expect(chunks[chunk] >= mdat.span.begin + mdat.header && at <= mdat.span.end,
                   "chunk " + std::to_string(chunk + 1) + " is outside mdat");
        }
        Expect(covered == sizes.size(), "stsc covers " + std::to_string(covered) + " of " +
                                            std::to_string(sizes.size()) + " samples");
    }

    // Whether the first sample is a key frame.
    bool SyncSamples(const BoxNode& stss, std::size_t samples)
    {
        std::uint32_t last = 0;
        const auto numbers = Entries(stss, 4);
        for (const std::uint32_t number : numbers) {
            Expect(number > last, "stss does not rise");
            Expect(number <= samples, "stss names a sample that is not there");
            last = number;
        }
        return !numbers.empty() && numbers[0] == 1;
    }

    // A duration is the time from the first to the last sample and a delta of the track's own.
    void MediaDuration(std::uint64_t duration, const std::vector<std::uint32_t>& deltas,
                       bool fromZero)
    {
        std::uint64_t end = 0;
        for (std::size_t i = 0; i + 1 < deltas.size(); i += 2)
            end += std::uint64_t{deltas[i]} * deltas[i + 1];
        if (deltas.empty() || end == 0)
            return;  // a lone sample of unknown duration, or times that stand still
        const std::uint64_t span = end - deltas.back();
        bool known = fromZero && duration >= span;
        for (std::size_t i = 1; i < deltas.size(); i += 2)
            known = known || duration == span + deltas[i];
        Expect(known, "mdhd duration " + std::to_string(duration) +
                          " is not what stts says, with the last sample at " +
                          std::to_string(span));
    }

    void Times(const BoxNode& track, const std::string& handler,
               const std::vector<std::uint32_t>& deltas, bool fromZero)
    {
        const std::string where = m_where;
        m_where = where + "tkhd ";
        const auto [tkhd, wideTrack] = Header(track.Child("tkhd"), 92, 104);
        m_where = where + "mdhd ";
        const auto [mdhd, wideMedia] = Header(track.At("mdia/mdhd"), 32, 44);
        m_where = where + "elst ";
        const auto [elst, wideEdit] = Header(track.At("edts/elst"), 28, 36);
        m_where = where;
        if (!tkhd || !mdhd || !elst)
            return;

        const std::uint32_t id = m_file.U32(tkhd->span.begin + (wideTrack ? 28 : 20));
        Expect(id != 0 && id < m_nextTrackId, "track id " + std::to_string(id) + " with next id " +
                                                  std::to_string(m_nextTrackId));
        Expect(m_ids.insert(id).second, "track id " + std::to_string(id) + " is taken");

        const std::size_t media = mdhd->span.begin;
        const std::uint32_t timescale = m_file.U32(media + (wideMedia ? 28 : 20));
        const std::uint64_t duration =
            wideMedia ? m_file.U64(media + 32) : m_file.U32(media + 24);
        Expect(timescale != 0, "timescale 0");
        if (handler != "tmcd")
            MediaDuration(duration, deltas, fromZero);
        Expect(duration >> 62 == 0, "mdhd duration is negative");

        const std::size_t head = tkhd->span.begin;
        const std::uint64_t inMovie = wideTrack ? m_file.U64(head + 36) : m_file.U32(head + 28);
        if (timescale != 0 && m_movieTimescale != 0)
            Expect(inMovie == duration * m_movieTimescale / timescale,
                   "tkhd duration " + std::to_string(inMovie) + " is not mdhd's " +
                       std::to_string(duration) + "/" + std::to_string(timescale));
        const std::size_t edit = elst->span.begin;
        Expect(m_file.U32(edit + 12) == 1, "elst has not one entry");
        Expect((wideEdit ? m_file.U64(edit + 16) : m_file.U32(edit + 16)) == inMovie,
               "elst plays another duration than tkhd's");
        Expect((wideEdit ? m_file.U64(edit + 24) : m_file.U32(edit + 20)) == 0,
               "elst does not begin at 0");
        if (handler == "vide" || handler == "soun")
            m_playing.push_back(inMovie);
        if (handler == "vide")
            m_video = {duration, timescale};
        if (handler == "tmcd")
            m_timeCode = {duration, timescale};
    }

    // ---- All tracks together

    void Coverage()
    {
        m_where.clear();
        const BoxNode& mdat = *m_file.Node("mdat");
        std::stable_sort(m_samples.begin(), m_samples.end(),
                         [](const Sample& a, const Sample& b) { return a.begin < b.begin; });
        std::uint64_t end = mdat.span.begin + mdat.header;
        for (const Sample& sample : m_samples) {
            Expect(sample.begin >= end || sample.begin == sample.end,
                   "a sample of " + sample.track + " at " + std::to_string(sample.begin) +
                       " overlaps the one before");
            Expect(!m_filled || sample.begin <= end,
                   "bytes from " + std::to_string(end) + " on belong to no sample");
            end = std::max(end, sample.end);
        }
        Expect(!m_filled || end == mdat.span.end,
               "bytes from " + std::to_string(end) + " on belong to no sample");
    }

    void Metadata(const BoxNode& moov)
    {
        m_where = "meta: ";
        std::uint32_t keys = 0;
        if (const BoxNode* box = moov.At("udta/meta/keys")) {
            keys = m_file.U32(box->span.begin + 12);
            std::size_t at = box->span.begin + 16;
            std::uint32_t found = 0;
            while (at + 8 <= box->span.end && m_file.U32(at) >= 8) {
                at += m_file.U32(at);
                ++found;
            }
            Expect(at == box->span.end && found == keys, "keys do not fill their box");
        }
        for (const BoxNode& item : moov.At("udta/meta/ilst")->children) {
            Expect(item.children.size() == 1 && item.children[0].type == "data" &&
                       item.children[0].span.Size() >= 16,
                   "an item without its data");
            const std::uint32_t index = m_file.U32(item.span.begin + 4);
            Expect(index >> 24 != 0 || (index >= 1 && index <= keys),
                   "an item of key " + std::to_string(index) + " of " + std::to_string(keys));
        }
    }

    const BoxFile m_file;
    const bool m_filled;
    std::vector<std::string> m_complaints;
    std::string m_where;  // begins each complaint
    std::uint32_t m_movieTimescale = 0;
    std::uint64_t m_movieDuration = 0;
    std::uint32_t m_nextTrackId = 0;
    std::set<std::uint32_t> m_ids;
    std::vector<std::uint64_t> m_playing;  // durations of the video and audio tracks
    std::vector<Sample> m_samples;         // of all tracks
    struct MediaTime {
        std::uint64_t duration = 0;
        std::uint32_t timescale = 0;
    };
    MediaTime m_video;
    MediaTime m_timeCode;
};

}  // namespace

std::vector<std::string> CheckFile(const Bytes& bytes, bool filled)
{
    return CFileCheck(bytes, filled).Run();
}

}  // namespace kvtest
