#include "codec_config.h"
#include "verify.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

namespace {

enum class Form { none, avc, hevc, proRes, aac, timeCode, captions, text, boxes };

Form FormOf(const std::string& type)
{
    static const std::set<std::string> proRes = {"apco", "apcs", "apcn", "apch", "ap4h", "ap4x"};
    if (type == "avc1" || type == "avc3")
        return Form::avc;
    if (type == "hev1" || type == "hvc1")
        return Form::hevc;
    if (proRes.count(type) != 0)
        return Form::proRes;
    if (type == "mp4a")
        return Form::aac;
    if (type == "tmcd")
        return Form::timeCode;
    if (type == "c608" || type == "c708")
        return Form::captions;
    if (type == "tx3g" || type == "text")
        return Form::text;
    return type == "wvtt" ? Form::boxes : Form::none;
}

// A description as its samples need it.
struct Description {
    Form form = Form::none;
    unsigned lengthSize = 4;
    unsigned width = 0, height = 0;
    bool is4444 = false;
};

struct Sample {
    std::uint64_t begin, end, number;
    std::string path;  // of the table that places it
    bool judged;       // whether its sync flag is known
    bool sync;
};

class SampleCheck {
public:
    SampleCheck(ByteSource& source, const Movie& movie, Findings& findings)
        : m_source(source), m_movie(movie), m_findings(findings),
          // Extents that overlap could make a small file endless.
          m_budget(2 * source.Size() + 1000000)
    {
    }

    void Run()
    {
        for (const Track& track : m_movie.tracks)
            OneTrack(track);
    }

private:
    void OneTrack(const Track& track)
    {
        std::vector<Description> descriptions;
        for (const SampleEntry& entry : track.entries)
            descriptions.push_back(Describe(*entry.box));
        std::size_t sync = 0;
        for (const Extent& extent : track.extents) {
            if (extent.description == 0 || extent.description > descriptions.size() ||
                extent.end > m_source.Size())
                continue;  // told elsewhere
            const Description& description = descriptions[extent.description - 1];
            if (description.form == Form::none || (!extent.listed && extent.commonSize == 0))
                continue;
            std::uint64_t at = extent.begin;
            for (std::uint64_t i = 0; i < extent.samples; ++i) {
                const std::uint64_t size = track.SizeIn(extent, i);
                const std::uint64_t cost = std::max<std::uint64_t>(size, 1);
                if (m_budget < cost)
                    return;
                m_budget -= cost;
                Sample sample{at,
                              at + size,
                              extent.number + i,
                              extent.table->path,
                              extent.number + i <= track.samples,
                              true};
                if (sample.judged && track.sync) {
                    while (sync < track.sync->size() && (*track.sync)[sync] < sample.number)
                        ++sync;
                    sample.sync = sync < track.sync->size() && (*track.sync)[sync] == sample.number;
                }
                OneSample(sample, description);
                at += size;
            }
        }
    }

    Description Describe(const Box& entry)
    {
        Description description;
        description.form = FormOf(entry.type);
        if (const Box* avcc = entry.Child("avcC"))
            description.lengthSize = ReadAvcConfig(m_source, *avcc).lengthSize;
        else if (const Box* hvcc = entry.Child("hvcC"))
            description.lengthSize = ReadHevcConfig(m_source, *hvcc).lengthSize;
        FieldReader f(m_source, entry.Inside() + 24, entry.End());
        description.width = f.U16();
        description.height = f.U16();
        description.is4444 = entry.type == "ap4h" || entry.type == "ap4x";
        if (description.form == Form::aac) {
            const Box* esds = entry.Child("esds");
            esds = esds ? esds : entry.At("wave/esds");
            if (!esds || ReadEsds(m_source, *esds).objectType != 0x40)
                description.form = Form::none;
        }
        return description;
    }

    void Error(const char* code, const Sample& sample, const std::string& found,
               const std::string& expected)
    {
        m_findings.Error(code, sample.path, sample.begin,
                         fmt::format("sample {}: {}", sample.number, found), expected);
    }

    void OneSample(const Sample& sample, const Description& description)
    {
        switch (description.form) {
        case Form::avc:
        case Form::hevc: Units(sample, description); break;
        case Form::proRes: ProRes(sample, description); break;
        case Form::aac: Aac(sample); break;
        case Form::timeCode:
            if (sample.end - sample.begin != 4 && sample.end != sample.begin)
                Error("tmcd-sample", sample, fmt::format("{} bytes", sample.end - sample.begin),
                      "4");
            break;
        case Form::captions: Atoms(sample, "caption-sample"); break;
        case Form::boxes: Atoms(sample, "text-sample"); break;
        case Form::text: Text(sample); break;
        case Form::none: break;
        }
    }

    // Units behind their lengths, which must fill the sample to the byte.
    void Units(const Sample& sample, const Description& description)
    {
        FieldReader f(m_source, sample.begin, sample.end);
        bool idr = false;
        bool random = false;  // the decoder can begin here
        bool slices = false;
        bool intra = true;
        while (f.Left() > 0) {
            const std::uint64_t at = f.At();
            const std::uint64_t length = f.Number(description.lengthSize);
            if (!f.Sound() || length > f.Left()) {
                m_findings.Error("nal-length", sample.path, at,
                                 fmt::format("sample {}: a unit of {} bytes with {} left",
                                             sample.number, length, f.Left()),
                                 "units that fill the sample");
                return;
            }
            if (length == 0) {
                // Two start codes in a row leave one; behind shorter lengths it is the first half
                // of a longer one.
                m_findings.Add(description.lengthSize == 4 ? Severity::note : Severity::error,
                               "nal-empty", sample.path, at,
                               fmt::format("sample {}: a unit of 0 bytes", sample.number),
                               "units behind lengths as in the description");
                continue;
            }
            const std::uint8_t first = f.U8();
            if (first & 0x80)
                m_findings.Error(
                    "nal-header", sample.path, at,
                    fmt::format("sample {}: a unit that begins with {:02X}", sample.number, first),
                    "a first bit of 0");
            const std::uint64_t rest = length - 1;
            if (description.form == Form::hevc) {
                const unsigned type = HevcType(first);
                slices = slices || type < 32;
                idr = idr || type == 19 || type == 20;
                random = random || (type >= 16 && type <= 23);
                f.Skip(rest);
                continue;
            }
            const unsigned type = first & 31u;
            if (type == 1 || type == 5) {
                slices = true;
                idr = idr || type == 5;
                const auto head = f.Bytes(std::min<std::uint64_t>(rest, 8));
                BitFields bits(head);
                bits.Ue();
                const unsigned slice = bits.Ue() % 5;
                intra = intra && bits.Sound() && (slice == 2 || slice == 4);
                f.Skip(rest - head.size());
            } else {
                // A recovery point says that pictures come right from here on.
                if (type == 6 && rest > 0) {
                    random = random || f.U8() == 6;
                    f.Skip(rest - 1);
                } else {
                    f.Skip(rest);
                }
            }
        }
        if (!sample.judged || !slices)
            return;
        if (description.form == Form::avc)
            random = random || idr || intra;
        if (sample.sync && !random)
            Error("sync-not-key", sample, "a sync sample that refers to others", "a key frame");
        else if (!sample.sync && idr)
            m_findings.Warning(
                "sync-missing", sample.path, sample.begin,
                fmt::format("sample {}: a key frame that stss does not name", sample.number));
    }

    void ProRes(const Sample& sample, const Description& description)
    {
        FieldReader f(m_source, sample.begin, sample.end);
        const std::uint32_t size = f.U32();
        const std::string mark = f.Code();
        if (mark != "icpf")
            return Error("prores-frame", sample, "no frame mark", "icpf");
        if (size != sample.end - sample.begin)
            Error("prores-frame", sample, fmt::format("a frame of {} bytes", size),
                  fmt::format("{}, the size of the sample", sample.end - sample.begin));
        f.Skip(8);
        const unsigned width = f.U16();
        const unsigned height = f.U16();
        const unsigned chroma = f.U8() >> 6;
        if (width != description.width || height != description.height)
            Error("picture-size", sample, fmt::format("{} x {}", width, height),
                  fmt::format("{} x {}, as in the sample entry", description.width,
                              description.height));
        if (chroma != 2 && !(chroma == 3 && description.is4444))
            Error("prores-chroma", sample, fmt::format("chroma format {}", chroma),
                  description.is4444 ? "3, or 2" : "2, for 4:2:2");
    }

    // A transport frame where the raw one should be.
    void Aac(const Sample& sample)
    {
        const std::uint64_t size = sample.end - sample.begin;
        if (size < 7)
            return;
        FieldReader f(m_source, sample.begin, sample.end);
        const std::uint32_t head = f.U24();
        const std::uint32_t rest = f.U32();
        const std::uint32_t length = rest >> 13 & 0x1FFFu;
        if (head >> 12 == 0xFFF && (head >> 9 & 3u) == 0 && length == size)
            Error("adts-in-sample", sample, "an ADTS frame", "a raw one");
    }

    void Atoms(const Sample& sample, const char* code)
    {
        FieldReader f(m_source, sample.begin, sample.end);
        while (f.Left() > 0) {
            const std::uint64_t left = f.Left();
            const std::uint32_t size = f.U32();
            f.Code();
            if (!f.Sound() || size < 8 || size > left)
                return Error(code, sample,
                             fmt::format("an atom of {} bytes with {} left", size, left),
                             "atoms that fill the sample");
            f.Skip(size - 8);
        }
    }

    void Text(const Sample& sample)
    {
        const std::uint64_t size = sample.end - sample.begin;
        FieldReader f(m_source, sample.begin, sample.end);
        const std::uint64_t length = f.U16();
        if (size != 0 && (!f.Sound() || length > f.Left()))
            Error("text-sample", sample, fmt::format("a text of {} bytes in {}", length, size),
                  "one that its sample holds");
    }

    ByteSource& m_source;
    const Movie& m_movie;
    Findings& m_findings;
    std::uint64_t m_budget;
};

}  // namespace

void VerifySamples(ByteSource& source, const Movie& movie, Findings& findings)
{
    SampleCheck(source, movie, findings).Run();
}
