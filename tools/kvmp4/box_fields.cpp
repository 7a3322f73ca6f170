#include "box_fields.h"

#include "codec_config.h"
#include "movie.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <map>

#include <fmt/format.h>

using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kRuns = 8;       // of a table that is cut
constexpr std::size_t kLongText = 80;  // of a text that is cut

std::string Text(const std::string& raw, bool all)
{
    std::string bytes = raw.substr(0, raw.find('\0'));
    if (!all && bytes.size() > kLongText)
        bytes = bytes.substr(0, kLongText) + "...";
    return ReadableText(bytes);
}

std::string Fixed(double value, double one)
{
    return fmt::format("{:g}", value / one);
}

class FieldDecoder {
public:
    FieldDecoder(ByteSource& source, const Box& box, const Box& parent, bool all)
        : m_source(source), m_box(box), m_parent(parent), m_all(all),
          f(source, box.Inside(), box.End())
    {
    }

    Json Run()
    {
        if (m_parent.type == "stsd")
            Entry();
        else if (m_parent.type == "tref")
            TrackIds();
        else if (m_parent.type == "udta" && m_box.type[0] == '\xA9')
            UserText();
        else if (const auto decoder = Decoders().find(m_box.type); decoder != Decoders().end())
            (this->*decoder->second)();
        if (!f.Sound())
            m_json["cut"] = true;
        return m_json;
    }

private:
    using Decoder = void (FieldDecoder::*)();
    static const std::map<std::string, Decoder>& Decoders();

    // A code or a text that may be missing.
    void Given(const char* name, const std::string& text)
    {
        if (text.find_first_not_of('\0') != std::string::npos)
            m_json[name] = ReadableText(text);
    }

    // Version and flags; whether the version has 64-bit times.
    bool Head()
    {
        const std::uint32_t head = f.U32();
        m_json["version"] = head >> 24;
        if ((head & 0xFFFFFF) != 0)
            m_json["flags"] = fmt::format("{:06X}", head & 0xFFFFFF);
        return head >> 24 == 1;
    }

    void Dates(bool wide)
    {
        for (const char* name : {"created", "modified"})
            if (const std::string date = MacDate(f.Wide(wide)); !date.empty())
                m_json[name] = date;
    }

    // Entries of a table as text, `words` to each.
    void Table(unsigned words, std::uint64_t countAt,
               const std::function<std::string(const std::uint32_t*)>& entry)
    {
        Findings unused;
        const auto values = ReadEntries(m_source, m_box, words, countAt, unused);
        const std::size_t count = values.size() / words;
        m_json["entries"] = count;
        std::string text;
        for (std::size_t i = 0; i < count && (m_all || i < kRuns); ++i)
            text += (i ? ", " : "") + entry(values.data() + i * words);
        if (!m_all && count > kRuns)
            text += fmt::format(", ... {}", entry(values.data() + (count - 1) * words));
        if (count > 0)
            m_json["runs"] = text;
    }

    // ---- Movie

    void Brands()
    {
        m_json["brand"] = ReadableType(f.Code());
        m_json["minor"] = f.U32();
        std::string brands;
        while (f.Left() >= 4 && brands.size() < 400)
            brands += (brands.empty() ? "" : " ") + ReadableType(f.Code());
        m_json["compatible"] = brands;
    }
    void Mvhd()
    {
        const bool wide = Head();
        Dates(wide);
        const std::uint32_t timescale = f.U32();
        m_json["timescale"] = timescale;
        Duration(f.Wide(wide), timescale);
        m_json["rate"] = Fixed(f.S32(), 65536);
        m_json["volume"] = Fixed(f.S16(), 256);
        f.Skip(10);
        Matrix();
        f.Skip(24);
        m_json["next track id"] = f.U32();
    }
    void Duration(std::uint64_t duration, std::uint32_t timescale)
    {
        m_json["duration"] = duration;
        if (timescale != 0 && duration != UINT32_MAX && duration != UINT64_MAX)
            m_json["seconds"] = std::round(static_cast<double>(duration) / timescale * 1000) / 1000;
    }
    void Matrix()
    {
        std::string text;
        static const std::string identity = "1 0 0 0 1 0 0 0 1";
        for (int i = 0; i < 9; ++i)
            text += (i ? " " : "") + Fixed(f.S32(), i % 3 == 2 ? 1073741824 : 65536);
        if (text != identity)
            m_json["matrix"] = text;
    }
    void Tkhd()
    {
        const bool wide = Head();
        Dates(wide);
        m_json["track id"] = f.U32();
        f.Skip(4);
        m_json["duration"] = f.Wide(wide);
        f.Skip(8);
        m_json["layer"] = f.S16();
        m_json["group"] = f.U16();
        m_json["volume"] = Fixed(f.S16(), 256);
        f.Skip(2);
        Matrix();
        m_json["width"] = Fixed(f.U32(), 65536);
        m_json["height"] = Fixed(f.U32(), 65536);
    }
    void Elst()
    {
        const bool wide = Head();
        const std::uint32_t count = f.U32();
        m_json["entries"] = count;
        std::string text;
        for (std::uint32_t i = 0; i < count && f.Left() >= (wide ? 20 : 12) && (m_all || i < kRuns);
             ++i) {
            const std::uint64_t duration = f.Wide(wide);
            const std::int64_t time = wide ? f.S64() : f.S32();
            const std::string rate = Fixed(f.S32(), 65536);
            text += fmt::format("{}{} from {}{}", i ? ", " : "", duration,
                                time == -1 ? "nothing" : std::to_string(time),
                                rate == "1" ? "" : " at rate " + rate);
        }
        m_json["edits"] = text;
    }
    void TrackIds()
    {
        std::string ids;
        while (f.Left() >= 4 && ids.size() < 200)
            ids += (ids.empty() ? "" : " ") + std::to_string(f.U32());
        m_json["track ids"] = ids;
    }

    // ---- Media

    void Mdhd()
    {
        const bool wide = Head();
        Dates(wide);
        const std::uint32_t timescale = f.U32();
        m_json["timescale"] = timescale;
        Duration(f.Wide(wide), timescale);
        const std::uint32_t language = f.U16();
        std::string letters;
        for (const unsigned shift : {10u, 5u, 0u})
            letters += static_cast<char>((language >> shift & 31u) + 0x60);
        m_json["language"] =
            language < 0x400 ? "Macintosh " + std::to_string(language) : ReadableText(letters);
        m_json["quality"] = f.U16();
    }
    void Hdlr()
    {
        Head();
        const std::string component = f.Code();
        Given("component", component);
        Given("handler", f.Code());
        f.Skip(component == "clcp" ? 8 : 12);
        std::string name = f.Text(f.Left());
        // A length in front, or a zero behind.
        if (!name.empty() && static_cast<unsigned char>(name[0]) + std::size_t{1} == name.size())
            name.erase(0, 1);
        Given("name", Text(name, m_all));
    }
    void Vmhd()
    {
        Head();
        m_json["graphics mode"] = f.U16();
    }
    void Smhd()
    {
        Head();
        m_json["balance"] = Fixed(f.S16(), 256);
    }
    void Gmin()
    {
        Head();
        m_json["graphics mode"] = fmt::format("{:04X}", f.U16());
    }
    void Tcmi()
    {
        Head();
        m_json["font"] = f.U16();
        m_json["face"] = f.U16();
        m_json["size"] = f.U16();
        f.Skip(14);
        m_json["font name"] = Text(f.Text(std::min<std::uint64_t>(f.U8(), f.Left())), m_all);
    }
    void Url()
    {
        const std::uint32_t head = f.U32();
        if (head & 1)
            m_json["data"] = "in this file";
        else
            m_json["location"] = Text(f.Text(f.Left()), m_all);
    }
    void Count()
    {
        Head();
        m_json["entries"] = f.U32();
    }

    // ---- Sample tables

    void Stts()
    {
        Head();
        Table(2, 4, [](const std::uint32_t* e) { return fmt::format("{} x {}", e[0], e[1]); });
    }
    void Ctts()
    {
        const bool negative = Head();
        Table(2, 4, [=](const std::uint32_t* e) {
            return negative ? fmt::format("{} x {}", e[0], static_cast<std::int32_t>(e[1]))
                            : fmt::format("{} x {}", e[0], e[1]);
        });
    }
    void Stsc()
    {
        Head();
        Table(3, 4, [](const std::uint32_t* e) {
            return fmt::format("from {}: {}{}", e[0], e[1],
                               e[2] == 1 ? "" : fmt::format(" of description {}", e[2]));
        });
    }
    void Stsz()
    {
        Head();
        const std::uint32_t common = f.U32();
        const std::uint32_t count = f.U32();
        if (common != 0 || f.Left() == 0) {
            m_json["samples"] = count;
            m_json["each"] = common;
            return;
        }
        Findings unused;
        const auto sizes = ReadEntries(m_source, m_box, 1, 8, unused);
        m_json["samples"] = sizes.size();
        if (sizes.empty())
            return;
        std::uint64_t sum = 0;
        for (const std::uint32_t size : sizes)
            sum += size;
        m_json["total"] = sum;
        m_json["smallest"] = *std::min_element(sizes.begin(), sizes.end());
        m_json["largest"] = *std::max_element(sizes.begin(), sizes.end());
        Table(1, 8, [](const std::uint32_t* e) { return std::to_string(e[0]); });
        m_json.erase("entries");
    }
    void Numbers()
    {
        Head();
        Table(1, 4, [](const std::uint32_t* e) { return std::to_string(e[0]); });
    }
    void Co64()
    {
        Head();
        Table(2, 4, [](const std::uint32_t* e) {
            return std::to_string(std::uint64_t{e[0]} << 32 | e[1]);
        });
    }
    void Sdtp()
    {
        Head();
        m_json["samples"] = f.Left();
    }
    void Sbgp()
    {
        const bool parameter = Head();
        m_json["grouping"] = ReadableType(f.Code());
        Table(2, parameter ? 12 : 8,
              [](const std::uint32_t* e) { return fmt::format("{} x {}", e[0], e[1]); });
    }
    void Sgpd()
    {
        Head();
        m_json["grouping"] = ReadableType(f.Code());
    }

    // ---- Sample entries

    void Entry()
    {
        f.Skip(6);
        m_json["data reference"] = f.U16();
        const std::string& handler = m_box.entryOf;
        if (handler == "vide") {
            f.Skip(4);
            Given("vendor", f.Code());
            f.Skip(8);
            m_json["width"] = f.U16();
            m_json["height"] = f.U16();
            f.Skip(12);
            m_json["frames"] = f.U16();
            const std::string name = f.Text(32);
            if (!name.empty())
                Given("compressor",
                      Text(name.substr(1, static_cast<unsigned char>(name[0])), m_all));
            m_json["depth"] = f.U16();
        } else if (handler == "soun") {
            m_json["version"] = f.U16();
            f.Skip(6);
            m_json["channels"] = f.U16();
            m_json["sample size"] = f.U16();
            m_json["compression id"] = f.S16();
            f.Skip(2);
            m_json["rate"] = f.U16();
        } else if (m_box.type == "tmcd") {
            f.Skip(4);
            m_json["flags"] = fmt::format("{:08X}", f.U32());
            m_json["timescale"] = f.U32();
            m_json["frame duration"] = f.U32();
            m_json["frames a second"] = f.U8();
        }
    }
    void AvcC()
    {
        const AvcConfig config = ReadAvcConfig(m_source, m_box);
        m_json["profile"] = config.profile;
        m_json["constraints"] = config.compatibility;
        m_json["level"] = config.level;
        m_json["name"] = AvcName(config.profile, config.compatibility, config.level);
        m_json["length bytes"] = config.lengthSize;
        Units("sps", config.sps);
        Units("pps", config.pps);
        if (!config.sps.empty())
            if (const auto sps = ParseAvcSps(config.sps.front()))
                m_json["coded picture"] = fmt::format("{} x {}", sps->width, sps->height);
        if (!config.whole)
            m_json["cut"] = true;
    }
    void Units(const char* name, const std::vector<Unit>& units)
    {
        std::string text;
        for (const Unit& unit : units) {
            text += text.empty() ? "" : ", ";
            for (std::size_t i = 0; i < unit.size() && (m_all || i < 12); ++i)
                text += fmt::format("{:02X}", unit[i]);
            text += !m_all && unit.size() > 12 ? fmt::format("... ({} bytes)", unit.size()) : "";
        }
        m_json[name] = text;
    }
    void HvcC()
    {
        const HevcConfig config = ReadHevcConfig(m_source, m_box);
        m_json["profile"] = config.profile.profile;
        m_json["tier"] = config.profile.tier;
        m_json["level"] = config.profile.level;
        m_json["name"] =
            HevcName(config.profile.profile, config.profile.tier, config.profile.level);
        m_json["compatibility"] = fmt::format("{:08X}", config.profile.compatibility);
        m_json["constraints"] = fmt::format("{:012X}", config.profile.constraints);
        m_json["chroma"] = config.chroma;
        m_json["depth"] = config.lumaDepth;
        m_json["layers"] = config.layers;
        m_json["length bytes"] = config.lengthSize;
        for (const HevcConfig::Array& array : config.arrays)
            Units(array.type == 32   ? "vps"
                  : array.type == 33 ? "sps"
                  : array.type == 34 ? "pps"
                                     : "others",
                  array.units);
        if (!config.whole)
            m_json["cut"] = true;
    }
    void EsdsBox()
    {
        const Esds esds = ReadEsds(m_source, m_box);
        m_json["es id"] = esds.esId;
        m_json["object type"] = fmt::format("{:02X}", esds.objectType);
        m_json["stream type"] = esds.streamType;
        m_json["max rate"] = esds.maxRate;
        m_json["average rate"] = esds.averageRate;
        Units("config", {esds.config});
        if (const auto aac = ParseAacConfig(esds.config); aac && esds.objectType == 0x40)
            m_json["aac"] = fmt::format("type {}, {} Hz, {} channels", aac->objectType,
                                        aac->outputRate, aac->channels);
        if (!esds.damage.empty())
            m_json["damage"] = esds.damage;
    }
    void Pasp()
    {
        const std::uint32_t across = f.U32();
        m_json["aspect"] = fmt::format("{}:{}", across, f.U32());
    }
    void Fiel()
    {
        m_json["fields"] = f.U8();
        m_json["order"] = f.U8();
    }
    void Colr()
    {
        m_json["kind"] = ReadableType(f.Code());
        m_json["primaries"] = f.U16();
        m_json["transfer"] = f.U16();
        m_json["matrix"] = f.U16();
    }
    void Btrt()
    {
        m_json["buffer"] = f.U32();
        m_json["max rate"] = f.U32();
        m_json["average rate"] = f.U32();
    }
    void Frma() { m_json["format"] = ReadableType(f.Code()); }

    // ---- Metadata

    void Keys()
    {
        Head();
        const std::uint32_t count = f.U32();
        m_json["entries"] = count;
        for (std::uint32_t i = 1; i <= count && f.Left() >= 8 && i <= 100; ++i) {
            const std::uint32_t size = f.U32();
            const std::string space = ReadableType(f.Code());
            m_json[std::to_string(i)] =
                space + " " +
                Text(f.Text(std::min<std::uint64_t>(size < 8 ? 0 : size - 8, f.Left())), m_all);
        }
    }
    void Data()
    {
        const std::uint32_t type = f.U32();
        m_json["type"] = type;
        f.Skip(4);
        const std::uint64_t size = f.Left();
        if (type == 1)
            m_json["value"] = Text(f.Text(std::min<std::uint64_t>(size, 0x10000)), m_all);
        else if ((type == 21 || type == 22) && size <= 8)
            m_json["value"] = f.Number(static_cast<unsigned>(size));
        else
            m_json["bytes"] = size;
    }
    void UserText()
    {
        const std::uint64_t size = f.U16();
        f.Skip(2);
        m_json["value"] = Text(f.Text(std::min(size, f.Left())), m_all);
    }

    // ---- Fragments

    void Mehd()
    {
        const bool wide = Head();
        m_json["duration"] = f.Wide(wide);
    }
    void Trex()
    {
        Head();
        for (const char* name : {"track id", "description", "duration", "size"})
            m_json[name] = f.U32();
        m_json["sample flags"] = fmt::format("{:08X}", f.U32());
    }
    void Mfhd()
    {
        Head();
        m_json["number"] = f.U32();
    }
    void Tfhd()
    {
        const std::uint32_t flags = f.U32() & 0xFFFFFF;
        m_json["flags"] = fmt::format("{:06X}", flags);
        m_json["track id"] = f.U32();
        if (flags & 1)
            m_json["base"] = f.U64();
        if (flags & 2)
            m_json["description"] = f.U32();
        if (flags & 8)
            m_json["duration"] = f.U32();
        if (flags & 0x10)
            m_json["size"] = f.U32();
        if (flags & 0x20)
            m_json["sample flags"] = fmt::format("{:08X}", f.U32());
    }
    void Tfdt()
    {
        const bool wide = Head();
        m_json["time"] = f.Wide(wide);
    }
    void Trun()
    {
        const std::uint32_t head = f.U32();
        m_json["flags"] = fmt::format("{:06X}", head & 0xFFFFFF);
        m_json["samples"] = f.U32();
        if (head & 1)
            m_json["data at"] = f.S32();
        if (head & 4)
            m_json["first flags"] = fmt::format("{:08X}", f.U32());
    }
    void Sidx()
    {
        const bool wide = Head();
        m_json["reference"] = f.U32();
        m_json["timescale"] = f.U32();
        m_json["time"] = f.Wide(wide);
        m_json["first"] = f.Wide(wide);
        f.Skip(2);
        m_json["entries"] = f.U16();
    }
    void Tfra()
    {
        Head();
        m_json["track id"] = f.U32();
        f.Skip(4);
        m_json["entries"] = f.U32();
    }
    void Mfro()
    {
        Head();
        m_json["size"] = f.U32();
    }

    ByteSource& m_source;
    const Box& m_box;
    const Box& m_parent;
    const bool m_all;
    FieldReader f;
    Json m_json = Json::object();
};

const std::map<std::string, FieldDecoder::Decoder>& FieldDecoder::Decoders()
{
    using D = FieldDecoder;
    static const std::map<std::string, Decoder> decoders = {
        {"ftyp", &D::Brands},  {"styp", &D::Brands},  {"mvhd", &D::Mvhd},  {"tkhd", &D::Tkhd},
        {"elst", &D::Elst},    {"mdhd", &D::Mdhd},    {"hdlr", &D::Hdlr},  {"vmhd", &D::Vmhd},
        {"smhd", &D::Smhd},    {"gmin", &D::Gmin},    {"tcmi", &D::Tcmi},  {"url ", &D::Url},
        {"urn ", &D::Url},     {"dref", &D::Count},   {"stsd", &D::Count}, {"stts", &D::Stts},
        {"ctts", &D::Ctts},    {"stsc", &D::Stsc},    {"stsz", &D::Stsz},  {"stco", &D::Numbers},
        {"stss", &D::Numbers}, {"stps", &D::Numbers}, {"co64", &D::Co64},  {"sdtp", &D::Sdtp},
        {"sbgp", &D::Sbgp},    {"sgpd", &D::Sgpd},    {"avcC", &D::AvcC},  {"hvcC", &D::HvcC},
        {"esds", &D::EsdsBox}, {"pasp", &D::Pasp},    {"fiel", &D::Fiel},  {"colr", &D::Colr},
        {"btrt", &D::Btrt},    {"frma", &D::Frma},    {"keys", &D::Keys},  {"data", &D::Data},
        {"mehd", &D::Mehd},    {"trex", &D::Trex},    {"mfhd", &D::Mfhd},  {"tfhd", &D::Tfhd},
        {"tfdt", &D::Tfdt},    {"trun", &D::Trun},    {"sidx", &D::Sidx},  {"tfra", &D::Tfra},
        {"mfro", &D::Mfro},
    };
    return decoders;
}

}  // namespace

Json BoxFields(ByteSource& source, const Box& box, const Box& parent, bool all)
{
    return FieldDecoder(source, box, parent, all).Run();
}

std::string AvcName(unsigned profile, unsigned compatibility, unsigned level)
{
    static const std::map<unsigned, const char*> names = {
        {66, "Baseline"}, {77, "Main"},        {88, "Extended"},    {100, "High"},
        {110, "High 10"}, {122, "High 4:2:2"}, {244, "High 4:4:4"}, {44, "CAVLC 4:4:4"}};
    const auto found = names.find(profile);
    const std::string name = found == names.end() ? fmt::format("profile {}", profile)
                             : profile == 66 && (compatibility & 0x40) != 0 ? "Constrained Baseline"
                                                                            : found->second;
    return fmt::format("{} {}.{}", name, level / 10, level % 10);
}

std::string HevcName(unsigned profile, unsigned tier, unsigned level)
{
    static const char* const names[] = {"", "Main", "Main 10", "Main Still Picture",
                                        "Range Extensions"};
    const std::string name =
        profile > 0 && profile < 5 ? names[profile] : fmt::format("profile {}", profile);
    return fmt::format("{} {}.{}{}", name, level / 30, level % 30 / 3, tier ? " High tier" : "");
}

std::string MacDate(std::uint64_t seconds)
{
    constexpr std::uint64_t kTo1970 = 2082844800;
    // Up to the year 2200; what lies beyond is no date.
    if (seconds == 0 || seconds < kTo1970 || seconds > kTo1970 + 230ULL * 31557600)
        return seconds == 0 ? "" : std::to_string(seconds);
    const std::chrono::sys_seconds time{
        std::chrono::seconds{static_cast<std::int64_t>(seconds - kTo1970)}};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date{day};
    const std::chrono::hh_mm_ss clock{time - day};
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}
