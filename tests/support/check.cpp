#include "support/check.h"

#include <algorithm>
#include <set>
#include <utility>

namespace kvtest {

namespace {

struct Sample {
    std::uint64_t begin;
    std::uint64_t end;
    std::string track;
};

class CFileCheck {
public:
    explicit CFileCheck(const Bytes& bytes) : m_file(bytes), m_complaints(m_file.Damage()) {}

    std::vector<std::string> Run()
    {
        Layout();
        const BoxNode* moov = m_file.Node("moov");
        if (!moov || !m_complaints.empty())
            return std::move(m_complaints);  // without sound sizes the rest would only echo
        Movie(*moov);
        for (const BoxNode& child : moov->children)
            if (child.type == "trak")
                Track(child);
        MovieDuration();
        Overlaps();
        Metadata(*moov);
        return std::move(m_complaints);
    }

private:
    void Complain(const std::string& what) { m_complaints.push_back(m_where + what); }
    void Expect(bool holds, const std::string& what)
    {
        if (!holds)
            Complain(what);
    }

    // ---- The file and the movie

    void Layout()
    {
        const auto boxes = m_file.Children("");
        for (const char* type : {"ftyp", "mdat", "moov"})
            Expect(std::count(boxes.begin(), boxes.end(), type) == 1,
                   std::string("not one ") + type);
        Expect(!boxes.empty() && boxes.front() == "ftyp", "ftyp is not first");
    }

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
        const std::uint8_t version = m_file.All()[box->span.begin + 8];
        if (version > 1 || box->span.Size() != (version ? broad : narrow)) {
            Complain("version " + std::to_string(version) + " with " +
                     std::to_string(box->span.Size()) + " bytes");
            return {nullptr, false};
        }
        return {box, version == 1};
    }

    void MovieDuration()
    {
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
        for (const char* path : {"tkhd", "edts/elst", "mdia/mdhd", "mdia/hdlr", "mdia/minf/hdlr",
                                 "mdia/minf/dinf/dref/url ", "mdia/minf/stbl/stsd",
                                 "mdia/minf/stbl/stts", "mdia/minf/stbl/stsz",
                                 "mdia/minf/stbl/stsc"})
            if (!track.At(path))
                return Complain(std::string("no ") + path);
        const BoxNode& stbl = *track.At("mdia/minf/stbl");
        Expect((stbl.Child("stco") != nullptr) != (stbl.Child("co64") != nullptr),
               "not one of stco and co64");
        Expect((stbl.Child("stss") != nullptr) == (handler == "vide"),
               "stss belongs to video tracks alone");
        EntryCount(*track.At("mdia/minf/dinf/dref"));
        EntryCount(*stbl.Child("stsd"));
        m_descriptions = stbl.Child("stsd")->children.size();

        const std::vector<std::uint64_t> sizes = Sizes(*stbl.Child("stsz"));
        const std::uint64_t span = TimeToSample(*stbl.Child("stts"), sizes.size());
        Chunks(stbl, sizes, handler);
        if (const BoxNode* stss = stbl.Child("stss"))
            SyncSamples(*stss, sizes.size());
        Times(track, handler, span);
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
        return {words.begin(), words.end()};
    }

    // The time between the first and the last sample.
    std::uint64_t TimeToSample(const BoxNode& stts, std::size_t samples)
    {
        const auto entries = Entries(stts, 8);
        std::uint64_t count = 0;
        std::uint64_t time = 0;
        for (std::size_t i = 0; i + 1 < entries.size(); i += 2) {
            Expect(entries[i] != 0, "stts has an empty run");
            Expect(i == 0 || entries[i + 1] != entries[i - 1], "stts has two runs in place of one");
            count += entries[i];
            time += std::uint64_t{entries[i]} * entries[i + 1];
        }
        Expect(count == samples, "stts covers " + std::to_string(count) + " of " +
                                     std::to_string(samples) + " samples");
        return entries.empty() ? 0 : time - entries.back();
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
            Expect(runs[i + 2] >= 1 && runs[i + 2] <= m_descriptions,
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

    void SyncSamples(const BoxNode& stss, std::size_t samples)
    {
        std::uint32_t last = 0;
        for (const std::uint32_t number : Entries(stss, 4)) {
            Expect(number > last, "stss does not rise");
            Expect(number <= samples, "stss names a sample that is not there");
            last = number;
        }
    }

    // `span` is the time from the first to the last sample.
    void Times(const BoxNode& track, const std::string& handler, std::uint64_t span)
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
        // Behind the last sample's time there is only its own duration.
        Expect(duration >= span, "mdhd duration " + std::to_string(duration) +
                                     " ends before the last sample at " + std::to_string(span));
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
    }

    // ---- All tracks together

    void Overlaps()
    {
        m_where.clear();
        std::stable_sort(m_samples.begin(), m_samples.end(),
                         [](const Sample& a, const Sample& b) { return a.begin < b.begin; });
        std::uint64_t end = 0;
        for (const Sample& sample : m_samples) {
            Expect(sample.begin >= end || sample.begin == sample.end,
                   "a sample of " + sample.track + " at " + std::to_string(sample.begin) +
                       " overlaps the one before");
            end = std::max(end, sample.end);
        }
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
        const BoxNode* ilst = moov.At("udta/meta/ilst");
        if (!ilst)
            return Complain("no ilst");
        for (const BoxNode& item : ilst->children) {
            Expect(item.children.size() == 1 && item.children[0].type == "data" &&
                       item.children[0].span.Size() >= 16,
                   "an item without its data");
            const std::uint32_t index = m_file.U32(item.span.begin + 4);
            Expect(index >> 24 != 0 || (index >= 1 && index <= keys),
                   "an item of key " + std::to_string(index) + " of " + std::to_string(keys));
        }
    }

    const BoxFile m_file;
    std::vector<std::string> m_complaints;
    std::string m_where;  // begins each complaint
    std::uint32_t m_movieTimescale = 0;
    std::uint64_t m_movieDuration = 0;
    std::uint32_t m_nextTrackId = 0;
    std::size_t m_descriptions = 0;          // entries in the current track's stsd
    std::set<std::uint32_t> m_ids;
    std::vector<std::uint64_t> m_playing;    // durations of the video and audio tracks
    std::vector<Sample> m_samples;           // of all tracks
};

}  // namespace

std::vector<std::string> CheckFile(const Bytes& bytes)
{
    return CFileCheck(bytes).Run();
}

}  // namespace kvtest
