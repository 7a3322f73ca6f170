#include "codec_config.h"
#include "verify.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include <fmt/format.h>

namespace {

const std::map<std::string, std::set<std::string>>& EntriesOf()
{
    static const std::map<std::string, std::set<std::string>> entries = {
        {"vide", {"avc1", "avc2", "avc3", "avc4", "hev1", "hvc1", "apco", "apcs", "apcn", "apch",
                  "ap4h", "ap4x", "mp4v", "av01", "vp08", "vp09", "jpeg", "mjpa", "mjpb", "encv",
                  "vvc1", "vvi1", "dvh1", "dvhe", "dva1", "dvav", "h263", "s263", "raw ", "v210",
                  "2vuy", "rle ", "png ", "AVdn", "AVdh", "AV1x", "smc ", "rpza", "tiff", "gif ",
                  "tga ", "8BPS", "v216", "v308", "WRLE", "YV12", "b16g", "b48r", "b64a", "pxlt",
                  "VP6F", "WMV3", "ovc1", "resv", "avs2", "avs3", "mp1v", "drac", "theo", "dvcp",
                  "dvc ", "dvpp", "cvid", "SVQ3", "mp2v", "CFHD", "FFV1", "vc-1"}},
        {"soun",
         {"mp4a", "ac-3", "ec-3", "alac", "Opus", "fLaC", "enca", "samr", "sawb", "sowt", "twos",
          "lpcm", "in24", "in32", "fl32", "fl64", "raw ", "ulaw", "alaw", ".mp3", "NONE", "ipcm",
          "fpcm", "mhm1", "mha1", "dtsc", "dtsh", "dtsl", "dtse", "dtsx", "dtsy", "ac-4", "mlpa",
          "QDM2", "QDMC", "ima4", "MAC3", "MAC6", "sevc", "sqcp", "agsm", "m4a "}},
        {"tmcd", {"tmcd"}},
        {"clcp", {"c608", "c708"}},
        {"text", {"text", "tx3g", "wvtt", "stpp"}},
        {"sbtl", {"tx3g", "c608", "c708", "text"}},
        {"subt", {"stpp", "sbtt", "wvtt", "tx3g"}},
    };
    return entries;
}

class DescriptionCheck {
public:
    DescriptionCheck(ByteSource& source, const Movie& movie, Findings& findings)
        : m_source(source), m_movie(movie), m_findings(findings)
    {
    }

    void Run()
    {
        for (const Track& track : m_movie.tracks)
            for (const SampleEntry& entry : track.entries)
                Entry(track, entry);
    }

private:
    void Error(const char* code, const Box& box, const std::string& found,
               const std::string& expected)
    {
        m_findings.Error(code, box.path, box.offset, found, expected);
    }
    // A value that something else repeats.
    template <typename Value>
    void Same(const char* code, const Box& box, const char* name, Value found, Value expected,
              const char* where)
    {
        if (found != expected)
            Error(code, box, fmt::format("{} {}", name, found),
                  fmt::format("{}, as in {}", expected, where));
    }

    void Entry(const Track& track, const SampleEntry& entry)
    {
        const Box& box = *entry.box;
        const auto known = EntriesOf().find(track.handler);
        if (known != EntriesOf().end() && known->second.count(box.type) == 0) {
            const bool elsewhere =
                std::any_of(EntriesOf().begin(), EntriesOf().end(),
                            [&](const auto& row) { return row.second.count(box.type) != 0; });
            if (elsewhere)
                Error("sample-entry", box,
                      fmt::format("{} in a {} track", ReadableType(box.type), track.handler),
                      "an entry of its kind");
            else
                m_findings.Add(
                    Family(box.type) ? Severity::note : Severity::warning, "sample-entry-unknown",
                    box.path, box.offset,
                    fmt::format("{} in a {} track", ReadableType(box.type), track.handler));
        }
        const Box* dref = track.At("mdia/minf/dinf/dref");
        if (dref && (entry.dataReference == 0 || entry.dataReference > dref->children.size()))
            Error("data-reference", box, fmt::format("data reference {}", entry.dataReference),
                  fmt::format("1 to {}", dref->children.size()));
        if (track.handler == "vide")
            Video(track, box);
        else if (track.handler == "soun")
            Audio(box);
        else if (box.type == "tmcd")
            TimeCode(track, box);
    }

    // Codecs that have many entries each.
    static bool Family(const std::string& type)
    {
        static const char* const families[] = {"dv",  "hdv", "xd", "mx",  "ai", "Hap", "mjp", "SVQ",
                                               "yuv", "v4",  "v3", "apr", "DX", "HFY", "icod"};
        return std::any_of(std::begin(families), std::end(families), [&](const char* family) {
            return type.rfind(family, 0) == 0 && std::all_of(type.begin(), type.end(), [](char c) {
                       return std::isalnum(static_cast<unsigned char>(c));
                   });
        });
    }

    // ---- Video

    void Video(const Track& track, const Box& box)
    {
        FieldReader f(m_source, box.Inside() + 24, box.End());
        const unsigned width = f.U16();
        const unsigned height = f.U16();
        if (width == 0 || height == 0)
            m_findings.Error("picture-size", box.path, box.offset,
                             fmt::format("{} x {}", width, height), "a picture");
        const Box* tkhd = track.At("tkhd");
        const bool square = !box.Child("pasp") || Square(*box.Child("pasp"));
        if (tkhd && square && !box.Child("clap") && !track.At("tapt") &&
            (track.width != width << 16 || track.height != height << 16))
            m_findings.Warning(
                "tkhd-picture", tkhd->path, tkhd->End() - 8,
                fmt::format("{} x {}", track.width / 65536.0, track.height / 65536.0),
                fmt::format("{} x {}, as in the sample entry", width, height));
        if (box.type.substr(0, 3) == "avc")
            Avc(box, width, height);
        else if (box.type == "hev1" || box.type == "hvc1")
            Hevc(box, width, height);
    }

    bool Square(const Box& pasp)
    {
        FieldReader f(m_source, pasp.Inside(), pasp.End());
        const std::uint32_t across = f.U32();
        return across == f.U32();
    }

    void Avc(const Box& entry, unsigned width, unsigned height)
    {
        const Box* box = entry.Child("avcC");
        if (!box)
            return Error("avcc-missing", entry, "no avcC", "one");
        const AvcConfig config = ReadAvcConfig(m_source, *box);
        if (config.version != 1)
            return Error("avcc-version", *box, fmt::format("version {}", config.version), "1");
        if (!config.whole)
            return Error("avcc-length", *box, "its parameter sets go beyond its end", "");
        // Some writers leave out the fields of the high profiles, some add zeros for none.
        if (config.left > 0)
            Error("avcc-length", *box, fmt::format("{} bytes behind its fields", config.left),
                  "none");
        if (!config.reservedSet)
            m_findings.Warning("avcc-reserved", box->path, box->offset, "a reserved bit is 0", "1");
        if (config.lengthSize == 3)
            Error("avcc-length-size", *box, "lengths of 3 bytes", "1, 2 or 4");
        if (entry.type == "avc1" && (config.sps.empty() || config.pps.empty()))
            Error("avcc-parameter-sets", *box,
                  fmt::format("{} SPS and {} PPS", config.sps.size(), config.pps.size()),
                  "1 at least of each");
        for (const Unit& pps : config.pps)
            if (pps.empty() || (pps[0] & 31) != 8)
                Error("avcc-pps", *box, "a picture parameter set that is none", "a unit of type 8");
        for (const Unit& unit : config.sps) {
            const auto sps = ParseAvcSps(unit);
            if (!sps) {
                Error("avcc-sps", *box, "a sequence parameter set that cannot be read",
                      "a unit of type 7");
                continue;
            }
            if (&unit != &config.sps.front())
                continue;  // the others may be of other profiles
            Same("avcc-profile", *box, "profile", config.profile, sps->profile, "the SPS");
            Same("avcc-compatibility", *box, "constraint flags", config.compatibility,
                 sps->compatibility, "the SPS");
            Same("avcc-level", *box, "level", config.level, sps->level, "the SPS");
            if (config.hasExtension) {
                Same("avcc-chroma", *box, "chroma format", config.chroma, sps->chroma, "the SPS");
                Same("avcc-depth", *box, "luma depth", config.lumaDepth, sps->lumaDepth, "the SPS");
                Same("avcc-depth", *box, "chroma depth", config.chromaDepth, sps->chromaDepth,
                     "the SPS");
            }
            Picture(entry, width, height, sps->width, sps->height);
        }
    }

    void Picture(const Box& entry, unsigned width, unsigned height, unsigned codedWidth,
                 unsigned codedHeight)
    {
        if (width != codedWidth || height != codedHeight)
            Error("picture-size", entry, fmt::format("{} x {}", width, height),
                  fmt::format("{} x {}, as in the SPS", codedWidth, codedHeight));
    }

    void Hevc(const Box& entry, unsigned width, unsigned height)
    {
        const Box* box = entry.Child("hvcC");
        if (!box)
            return Error("hvcc-missing", entry, "no hvcC", "one");
        const HevcConfig config = ReadHevcConfig(m_source, *box);
        if (config.version != 1)
            return Error("hvcc-version", *box, fmt::format("version {}", config.version), "1");
        if (!config.whole)
            return Error("hvcc-length", *box, "its parameter sets go beyond its end", "");
        if (config.left > 0)
            Error("hvcc-length", *box, fmt::format("{} bytes behind its arrays", config.left),
                  "none");
        if (!config.reservedSet)
            m_findings.Warning("hvcc-reserved", box->path, box->offset, "a reserved bit is 0", "1");
        if (config.lengthSize == 3)
            Error("hvcc-length-size", *box, "lengths of 3 bytes", "1, 2 or 4");
        for (const HevcConfig::Array& array : config.arrays)
            for (const Unit& unit : array.units)
                if (unit.size() < 2 || HevcType(unit[0]) != array.type)
                    Error("hvcc-array", *box,
                          fmt::format("a unit that is none in the array of type {}", array.type),
                          "units of that type");
        for (const unsigned type : {32u, 33u, 34u})
            if (entry.type == "hvc1" && (!config.Of(type) || config.Of(type)->units.empty()))
                Error("hvcc-parameter-sets", *box, fmt::format("none of type {}", type),
                      "all parameter sets of hvc1");
        const HevcConfig::Array* array = config.Of(33);
        if (!array || array->units.empty())
            return;
        const auto sps = ParseHevcSps(array->units.front());
        if (!sps)
            return Error("hvcc-sps", *box, "a sequence parameter set that cannot be read", "");
        const HevcProfile& own = config.profile;
        const HevcProfile& coded = sps->profile;
        Same("hvcc-profile", *box, "profile space", own.space, coded.space, "the SPS");
        Same("hvcc-profile", *box, "profile", own.profile, coded.profile, "the SPS");
        Same("hvcc-tier", *box, "tier", own.tier, coded.tier, "the SPS");
        if (own.level < coded.level)
            Error("hvcc-level", *box, fmt::format("level {}", own.level),
                  fmt::format("{} at least, as in the SPS", coded.level));
        // What is promised must hold for each parameter set.
        if ((own.compatibility & ~coded.compatibility) != 0 ||
            (own.constraints & ~coded.constraints) != 0)
            Error("hvcc-compatibility", *box,
                  fmt::format("flags {:08X} {:012X}", own.compatibility, own.constraints),
                  fmt::format("none but {:08X} {:012X} of the SPS", coded.compatibility,
                              coded.constraints));
        Same("hvcc-chroma", *box, "chroma format", config.chroma, sps->chroma, "the SPS");
        Same("hvcc-depth", *box, "luma depth", config.lumaDepth, sps->lumaDepth, "the SPS");
        Same("hvcc-depth", *box, "chroma depth", config.chromaDepth, sps->chromaDepth, "the SPS");
        if (config.layers != 0 && config.layers < sps->subLayers)
            Error("hvcc-layers", *box, fmt::format("{} temporal layers", config.layers),
                  fmt::format("{} at least, as in the SPS", sps->subLayers));
        Picture(entry, width, height, sps->width, sps->height);
    }

    // ---- Audio

    void Audio(const Box& entry)
    {
        FieldReader f(m_source, entry.Inside() + 8, entry.End());
        const unsigned version = f.U16();
        f.Skip(6);
        const unsigned channels = f.U16();
        f.Skip(2);
        f.Skip(4);
        const std::uint32_t rate = f.U16();
        if (entry.type != "mp4a")
            return;
        const Box* box = entry.Child("esds");
        if (!box)
            box = entry.At("wave/esds");
        if (!box)
            return Error("esds-missing", entry, "no esds", "one");
        const Esds esds = ReadEsds(m_source, *box);
        if (!esds.damage.empty())
            return Error("esds-length", *box, esds.damage, "");
        if (esds.streamType != 5)
            Error("esds-stream-type", *box, fmt::format("stream type {}", esds.streamType),
                  "5, audio");
        if (!esds.hasSl || esds.sl != 2)
            m_findings.Warning("esds-sl", box->path, box->offset, "no predefined sync layer", "2");
        static const std::set<unsigned> audio = {0x40, 0x66, 0x67, 0x68, 0x69, 0x6B,
                                                 0xA5, 0xA6, 0xA9, 0xAC, 0xDD, 0xE1};
        if (audio.count(esds.objectType) == 0)
            Error("esds-object-type", *box, fmt::format("object type {:02X}", esds.objectType),
                  "one of audio, 40 for AAC");
        if (esds.objectType != 0x40)
            return;
        if (!esds.hasConfig || esds.config.size() < 2)
            return Error("aac-config", *box,
                         fmt::format("a configuration of {} bytes", esds.config.size()),
                         "2 at least");
        const auto config = ParseAacConfig(esds.config);
        if (!config || config->objectType == 0)
            return Error("aac-config", *box, "a configuration that cannot be read", "");
        if (config->rate == 0)
            return Error("aac-config", *box, fmt::format("rate index {}", config->rateIndex),
                         "one that is not reserved");
        if (config->channelsIndex == 15 ||
            (config->channelsIndex >= 8 && config->channelsIndex <= 10))
            Error("aac-config", *box, fmt::format("channel configuration {}", config->channelsIndex),
                  "one that is not reserved");
        if (version != 2)
            AacEntry(entry, *config, channels, rate);
    }

    void AacEntry(const Box& entry, const AacConfig& config, unsigned channels, std::uint32_t rate)
    {
        // The entry's rate has 16 bits; 88200 and 96000 may be 0 there, or lose their upper bits
        // and stand with the configuration of 44100, as in recordings of this library.
        const bool cut = rate == (96000 & 0xFFFF) || rate == (88200 & 0xFFFF) || rate == 7350;
        if (rate != 0 && rate != config.rate && rate != config.outputRate) {
            if (cut && config.rate == 44100)
                m_findings.Note("aac-rate-cut", entry.path, entry.Inside() + 24,
                                fmt::format("a rate of {} that does not fit its field", rate));
            else
                Error("aac-rate", entry, fmt::format("rate {}", rate),
                      fmt::format("{}, as in its configuration", config.rate));
        }
        // 2 stands for any number in MP4 files.
        if (config.channels != 0 && channels != config.channels && channels != 2)
            Error("aac-channels", entry, fmt::format("{} channels", channels),
                  fmt::format("{}, as in its configuration", config.channels));
    }

    // ---- Time code

    void TimeCode(const Track& track, const Box& entry)
    {
        FieldReader f(m_source, entry.Inside() + 16, entry.End());
        const std::uint32_t timescale = f.U32();
        const std::uint32_t duration = f.U32();
        const std::uint32_t frames = f.U8();
        if (!f.Sound())
            return;
        if (timescale == 0 || duration == 0 || frames == 0) {
            m_findings.Warning("tmcd-rate", entry.path, entry.Inside() + 16,
                               fmt::format("{} frames, each {} of {}", frames, duration, timescale),
                               "numbers above 0");
            return;
        }
        // Frames are counted in whole ones: 30 of 30000 / 1001.
        const double rate = static_cast<double>(timescale) / duration;
        if (rate > frames + 0.5 || rate < frames - 0.5)
            m_findings.Warning("tmcd-rate", entry.path, entry.Inside() + 24,
                               fmt::format("{} frames a second", frames),
                               fmt::format("{:.2f}, as of its duration", rate));
        if (track.timescale != 0 && timescale != track.timescale)
            m_findings.Note("tmcd-timescale", entry.path, entry.Inside() + 16,
                            fmt::format("timescale {}", timescale),
                            fmt::format("{}, as in mdhd", track.timescale));
    }

    ByteSource& m_source;
    const Movie& m_movie;
    Findings& m_findings;
};

}  // namespace

void VerifyDescriptions(ByteSource& source, const Movie& movie, Findings& findings)
{
    DescriptionCheck(source, movie, findings).Run();
}
