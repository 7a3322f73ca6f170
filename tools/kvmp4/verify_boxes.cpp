#include "verify.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include <fmt/format.h>

namespace {

constexpr std::uint32_t kAnyFlags = 0xFFFFFF;

// A box with a version: the highest one that is known, the bytes behind the header for versions 0
// and 1 (0 for no fixed number), and the flags that may be set.
struct Form {
    unsigned versions;
    std::uint64_t narrow, wide;
    std::uint32_t flags;
};
const std::map<std::string, Form>& Forms()
{
    static const std::map<std::string, Form> forms = {
        {"mvhd", {1, 100, 112, 0}},     {"tkhd", {1, 84, 96, 15}},
        {"mdhd", {1, 24, 36, 0}},       {"elst", {1, 0, 0, 1}},
        {"vmhd", {0, 12, 0, 1}},        {"smhd", {0, 8, 0, 0}},
        {"hmhd", {0, 20, 0, 0}},        {"sthd", {0, 4, 0, 0}},
        {"hdlr", {0, 0, 0, 0}},         {"dref", {0, 0, 0, 0}},
        {"url ", {0, 0, 0, 1}},         {"urn ", {0, 0, 0, 1}},
        {"stsd", {1, 0, 0, 0}},         {"stts", {0, 0, 0, 0}},
        {"ctts", {1, 0, 0, 0}},         {"cslg", {1, 24, 44, 0}},
        {"stsc", {0, 0, 0, 0}},         {"stsz", {0, 0, 0, 0}},
        {"stz2", {0, 0, 0, 0}},         {"stco", {0, 0, 0, 0}},
        {"co64", {0, 0, 0, 0}},         {"stss", {0, 0, 0, 0}},
        {"stps", {0, 0, 0, 0}},         {"sdtp", {0, 0, 0, 0}},
        {"mehd", {1, 8, 12, 0}},        {"trex", {0, 24, 0, 0}},
        {"mfhd", {0, 8, 0, 0}},         {"tfhd", {0, 0, 0, 0x3003B}},
        {"tfdt", {1, 8, 12, 0}},        {"trun", {1, 0, 0, 0xF05}},
        {"sidx", {1, 0, 0, 0}},         {"tfra", {1, 0, 0, 0}},
        {"mfro", {0, 8, 0, 0}},         {"gmin", {0, 0, 0, 0}},
        {"tcmi", {0, 0, 0, 0}},         {"keys", {0, 0, 0, 0}},
        {"esds", {0, 0, 0, 0}},         {"sbgp", {1, 0, 0, kAnyFlags}},
        {"sgpd", {3, 0, 0, kAnyFlags}}, {"elng", {0, 0, 0, 0}},
    };
    return forms;
}

// Boxes without a version that always have the same bytes behind their header.
const std::map<std::string, std::uint64_t> kLengths = {
    {"pasp", 8}, {"fiel", 2}, {"clap", 32}, {"btrt", 12}, {"frma", 4},
};

// What a container must hold once, and what more than once at most.
struct Contents {
    std::vector<std::string> needed;
    std::vector<std::string> single;
};
const std::map<std::string, Contents>& Needs()
{
    static const std::map<std::string, Contents> needs = {
        {"moov", {{"mvhd"}, {"iods", "mvex", "udta", "meta"}}},
        {"trak", {{"tkhd", "mdia"}, {"edts", "tref", "udta", "meta", "tapt"}}},
        {"edts", {{}, {"elst"}}},
        {"mdia", {{"mdhd", "hdlr", "minf"}, {"elng"}}},
        {"minf", {{"dinf", "stbl"}, {"hdlr", "vmhd", "smhd", "nmhd", "gmhd", "sthd", "hmhd"}}},
        {"dinf", {{"dref"}, {}}},
        {"stbl",
         {{"stsd", "stts", "stsc"},
          {"ctts", "cslg", "stsz", "stz2", "stco", "co64", "stss", "stsh", "sdtp", "stps"}}},
        {"moof", {{"mfhd"}, {}}},
        {"traf", {{"tfhd"}, {"tfdt"}}},
        {"udta", {{}, {"meta"}}},
    };
    return needs;
}

std::string Name(const std::string& type)
{
    return ReadableType(type);
}

class BoxCheck {
public:
    BoxCheck(ByteSource& source, const Box& tree, Findings& findings)
        : m_source(source), m_tree(tree), m_findings(findings)
    {
    }

    void Run()
    {
        File();
        for (const Box& box : m_tree.children)
            Walk(box, m_tree);
    }

private:
    // ---- The file

    void File()
    {
        const auto first = [&](std::string_view type) {
            const Box* box = m_tree.Child(type);
            return box ? box->offset : UINT64_MAX;
        };
        const bool fragments = m_tree.Child("moof") != nullptr;
        Children(m_tree);
        for (const char* type : {"ftyp", "moov"}) {
            const auto count = std::count_if(m_tree.children.begin(), m_tree.children.end(),
                                             [&](const Box& box) { return box.type == type; });
            if (count > 1)
                m_findings.Error("box-duplicate", type, first(type),
                                 fmt::format("{} of them", count), "one");
        }
        if (!m_tree.Child("moov")) {
            if (fragments)
                m_findings.Note("moov-missing", "", 0, "a segment without its movie");
            else
                m_findings.Error("box-missing", "", 0, "no moov", "one");
        }
        const Box* ftyp = m_tree.Child("ftyp");
        if (!ftyp) {
            if (!m_tree.Child("styp"))
                m_findings.Warning("ftyp-missing", "", 0, "no ftyp", "one, at the beginning");
            return;
        }
        if (ftyp->offset > std::min({first("moov"), first("mdat"), first("moof")}))
            m_findings.Error("ftyp-order", "ftyp", ftyp->offset, "other boxes before it",
                             "ftyp ahead of moov, mdat and moof");
        if (ftyp->Content() < 8 || ftyp->Content() % 4 != 0)
            m_findings.Error("box-length", ftyp->path, ftyp->offset,
                             fmt::format("{} bytes behind the header", ftyp->Content()),
                             "8, and 4 for each compatible brand");
        FieldReader f(m_source, ftyp->Inside(), ftyp->End());
        for (bool major = true; f.Left() >= 4; major = false) {
            const std::string brand = f.Code();
            // Zeros fill the list in some files.
            if (!Printable(brand) && (major || brand != std::string(4, '\0')))
                m_findings.Error("ftyp-brand", ftyp->path, f.At() - 4, "brand " + Hex(brand),
                                 "four printable characters");
            if (major)
                f.Skip(4);
        }
    }

    static bool Printable(const std::string& type)
    {
        return std::all_of(type.begin(), type.end(),
                           [](char c) { return (c >= ' ' && c <= '~') || c == '\xA9'; });
    }

    // ---- Any box

    void Walk(const Box& box, const Box& parent)
    {
        if (box.container)
            Children(box);
        VersionAndLength(box);
        Fields(box, parent);
        for (const Box& child : box.children)
            Walk(child, box);
    }

    // Unknown ones, missing ones, doubled ones.
    void Children(const Box& box)
    {
        std::map<std::string, unsigned> count;
        for (const Box& child : box.children)
            ++count[child.type];
        Types(box);
        const auto needs = Needs().find(box.type);
        if (needs == Needs().end() || !box.entryOf.empty() || !box.container)
            return;
        for (const std::string& type : needs->second.needed)
            if (count[type] == 0)
                Missing(box, type);
        for (const auto* list : {&needs->second.needed, &needs->second.single})
            for (const std::string& type : *list)
                if (count[type] > 1)
                    m_findings.Error("box-duplicate", box.path + "/" + type,
                                     box.Child(type)->offset,
                                     fmt::format("{} of them", count[type]), "one");
        const auto either = [&](const char* one, const char* other) {
            if (count[one] + count[other] == 0)
                Missing(box, one);
            else if (count[one] != 0 && count[other] != 0)
                m_findings.Error("box-duplicate", box.path + "/" + one, box.Child(one)->offset,
                                 fmt::format("{} and {}", one, other), "one of them");
        };
        if (box.type == "stbl") {
            either("stsz", "stz2");
            either("stco", "co64");
        }
    }

    void Missing(const Box& box, const std::string& type)
    {
        m_findings.Error("box-missing", box.path, box.offset, "no " + type, "one");
    }

    void Types(const Box& box)
    {
        const bool inGeneric = box.type == "tmcd" && box.entryOf.empty();
        const auto* known = KnownChildren(!box.entryOf.empty() ? "stsd/entry"
                                          : inGeneric          ? "gmhd/tmcd"
                                                               : std::string_view(box.type));
        for (const Box& child : box.children) {
            // Keyed items have a number for a type; the atom that ends a list has none.
            const bool free =
                (box.type == "ilst" && (child.type[0] == '\0' || child.type == "\x07"
                                                                               "ART")) ||
                (box.type == "wave" && child.type == std::string(4, '\0'));
            if (free)
                continue;
            if (!Printable(child.type))
                m_findings.Error("box-type", child.path, child.offset,
                                 "bytes that are no type: " + Hex(child.type));
            else if ((known &&
                      std::find(known->begin(), known->end(), child.type) == known->end()) ||
                     (box.type == "ilst" && !KnownItem(child.type)) ||
                     (box.type == "udta" && !PlausibleUserData(child)))
                m_findings.Warning(KnownSomewhere(child.type) ? "box-place" : "box-unknown",
                                   child.path, child.offset,
                                   fmt::format("{} in {}", Name(child.type),
                                               box.type.empty() ? "the file" : Name(box.type)));
        }
    }

    // A text with a language: the sign and three letters or digits.
    static bool Signed(const std::string& type)
    {
        return std::all_of(type.begin() + 1, type.end(), [](char c) {
            return c == ' ' || std::isalnum(static_cast<unsigned char>(c));
        });
    }

    static bool KnownItem(const std::string& type)
    {
        static const std::set<std::string> items = {
            "aART", "covr", "desc", "ldes", "tvsh", "tven", "tvnn", "tves", "tvsn", "trkn",
            "disk", "gnre", "cpil", "pgap", "tmpo", "cprt", "rtng", "stik", "catg", "keyw",
            "purd", "purl", "egid", "pcst", "hdvd", "akID", "apID", "atID", "cnID", "geID",
            "plID", "sfID", "cmID", "sonm", "soar", "soaa", "soal", "soco", "sosn", "xid ",
            "----", "flvr", "rate", "perf", "titl", "ownr", "sdes", "itnu", "shwm"};
        return type[0] == '\xA9' ? Signed(type) : items.count(type) != 0;
    }

    // User data may be of any type; but what begins as a "meta" does should be one.
    bool PlausibleUserData(const Box& box)
    {
        if (box.type[0] == '\xA9')
            return Signed(box.type);
        FieldReader f(m_source, box.Inside(), box.End());
        f.Skip(4);
        const bool narrow = f.Code() == "hdlr";
        return box.type == "meta" || (!narrow && f.Code() != "hdlr");
    }

    static std::string Hex(const std::string& type)
    {
        std::string text;
        for (const char c : type)
            text += fmt::format("{:02X} ", static_cast<unsigned char>(c));
        text.pop_back();
        return text;
    }

    // ---- Version, flags and length

    void VersionAndLength(const Box& box)
    {
        const auto fixed = kLengths.find(box.type);
        if (fixed != kLengths.end() && box.Content() != fixed->second)
            Length(box, fixed->second);
        const auto found = Forms().find(box.type);
        if (found == Forms().end() || box.type.empty() || !box.entryOf.empty())
            return;
        const Form& form = found->second;
        if (box.Content() < 4) {
            Length(box, 4);
            return;
        }
        const std::uint32_t head = VersionFlags(m_source, box);
        const unsigned version = head >> 24;
        const std::uint32_t flags = head & 0xFFFFFFu;
        if (version > form.versions) {
            m_findings.Error("box-version", box.path, box.Inside(),
                             fmt::format("version {}", version),
                             form.versions == 0 ? "0" : fmt::format("0 to {}", form.versions));
            return;
        }
        const std::uint64_t length = version == 0 ? form.narrow : form.wide;
        if (length != 0 && box.Content() != length)
            Length(box, length);
        if ((flags & ~form.flags) != 0 || (box.type == "vmhd" && flags != 1))
            m_findings.Warning("box-flags", box.path, box.Inside() + 1,
                               fmt::format("flags {:06X}", flags),
                               fmt::format("{:06X}", flags & form.flags));
    }

    void Length(const Box& box, std::uint64_t length)
    {
        m_findings.Error("box-length", box.path, box.offset,
                         fmt::format("{} bytes behind the header", box.Content()),
                         fmt::format("{}", length));
    }

    // ---- Fields of single boxes

    void Fields(const Box& box, const Box& parent)
    {
        if (box.type == "mvhd")
            MovieHeader(box);
        else if (box.type == "tkhd")
            Matrix(box, Version(m_source, box) == 1 ? 52 : 40);
        else if (box.type == "mdhd")
            MediaHeader(box);
        else if (box.type == "hdlr")
            Handler(box, parent);
        else if (box.type == "stsd" || box.type == "dref")
            EntryCount(box);
        else if (box.type == "keys")
            Keys(box);
        else if (box.type == "ilst")
            Items(box, parent);
        else if (box.type == "meta" && box.container && !box.Child("hdlr"))
            Missing(box, "hdlr");
        else if (box.type == "nmhd" && !box.container && box.Content() != 4)
            Length(box, 4);
        else if (box.type == "nmhd" && box.container)
            m_findings.Note("nmhd-container", box.path, box.offset,
                            "holds what a QuickTime media header does, without version and flags");
        else if (box.type == "gmin" && box.Content() == 14)
            m_findings.Note("gmin-short", box.path, box.offset, "no reserved field at its end");
        else if (box.type == "gmin" && box.Content() != 16)
            Length(box, 16);
        else if (box.type == "pasp")
            PixelAspect(box);
    }

    void MovieHeader(const Box& box)
    {
        const bool wide = Version(m_source, box) == 1;
        FieldReader f(m_source, box.Inside() + (wide ? 32 : 20), box.End());
        const std::uint32_t rate = f.U32();
        if (rate == 0 || rate > 0x640000)
            m_findings.Warning("mvhd-rate", box.path, f.At() - 4, fmt::format("rate {:08X}", rate),
                               "00010000");
        if (f.U16() > 0x100)
            m_findings.Warning("mvhd-volume", box.path, f.At() - 2, "more than full volume",
                               "0100");
        Matrix(box, wide ? 48 : 36);
    }

    // A matrix that shows nothing, or that is no plane one.
    void Matrix(const Box& box, std::uint64_t at)
    {
        FieldReader f(m_source, box.Inside() + at, box.End());
        const std::uint64_t begin = f.At();
        const double a = f.S32();
        const double b = f.S32();
        const std::uint32_t u = f.U32();
        const double c = f.S32();
        const double d = f.S32();
        const std::uint32_t v = f.U32();
        f.Skip(8);
        const std::uint32_t w = f.U32();
        if (f.Sound() && (a * d - b * c == 0 || u != 0 || v != 0 || w != 0x40000000))
            m_findings.Error("matrix", box.path, begin, "a matrix that shows no picture",
                             "the identity, turned or scaled");
    }

    void MediaHeader(const Box& box)
    {
        const bool wide = Version(m_source, box) == 1;
        FieldReader f(m_source, box.Inside() + (wide ? 32 : 20), box.End());
        const std::uint32_t language = f.U16();
        const auto letter = [&](unsigned shift) { return (language >> shift & 31u) - 1 < 26; };
        // Below 0x400 and at 0x7FFF it is one of the Macintosh's.
        if (f.Sound() && language >= 0x400 && language != 0x7FFF &&
            (language > 0x7FFF || !letter(0) || !letter(5) || !letter(10)))
            m_findings.Warning("mdhd-language", box.path, f.At() - 2,
                               fmt::format("language {:04X}", language), "three packed letters");
    }

    void Handler(const Box& box, const Box& parent)
    {
        FieldReader f(m_source, box.Inside() + 4, box.End());
        const std::string first = f.Code();
        const std::string type = f.Code();
        if (box.Content() < 20)
            return Length(box, 20);
        // The caption handler of these recordings has its one type word in the first place.
        if (parent.type == "mdia" && first == "clcp") {
            m_findings.Note("hdlr-caption", box.path, box.Inside() + 4,
                            "the handler's word stands in the first place");
        } else {
            if (first != std::string(4, '\0') && first != "mhlr" && first != "dhlr")
                m_findings.Warning("hdlr-component", box.path, box.Inside() + 4,
                                   "component type " + Name(first), "none, mhlr or dhlr");
            static const std::set<std::string> media = {
                "vide", "soun", "hint", "text", "sbtl", "subt", "clcp", "tmcd", "meta", "subp",
                "auxv", "pict", "fdsm", "sdsm", "odsm", "ocsm", "data", "mpeg", "MPEG", "musi",
                "twen", "qd3d", "strm", "gesm", "camm", "priv", "null", "alis"};
            if (parent.type == "mdia" && media.count(type) == 0)
                m_findings.Error("hdlr-type", box.path, box.Inside() + 8, "handler " + Name(type),
                                 "one that is known");
        }
        Text(box, f.At() + (first == "clcp" && parent.type == "mdia" ? 8 : 12));
    }

    // A name that ends with a zero, or that has its length in front.
    void Text(const Box& box, std::uint64_t at)
    {
        FieldReader f(m_source, at, box.End());
        const std::string name = f.Text(f.Left());
        const bool ended = !name.empty() && name.back() == '\0';
        const bool counted =
            !name.empty() && static_cast<unsigned char>(name[0]) + std::size_t{1} == name.size();
        if (!name.empty() && !ended && !counted)
            m_findings.Warning("hdlr-name", box.path, at, "a name without an end",
                               "a zero behind it, or its length in front");
    }

    void EntryCount(const Box& box)
    {
        FieldReader f(m_source, box.Inside() + 4, box.End());
        const std::uint32_t count = f.U32();
        if (count != box.children.size())
            m_findings.Error("entry-count", box.path, box.Inside() + 4,
                             fmt::format("{} entries counted", count),
                             fmt::format("{}, as many as there are", box.children.size()));
        if (box.children.empty())
            m_findings.Error("entry-none", box.path, box.offset, "no entry", "one at least");
    }

    void Keys(const Box& box)
    {
        FieldReader f(m_source, box.Inside() + 4, box.End());
        const std::uint32_t count = f.U32();
        std::uint32_t found = 0;
        while (f.Left() >= 8) {
            const std::uint32_t size = f.U32();
            if (size < 8 || size - 4 > f.Left())
                break;
            f.Skip(size - 4);
            ++found;
        }
        if (f.Left() != 0 || found != count)
            m_findings.Error(
                "keys-count", box.path, box.offset,
                fmt::format("{} keys counted, {} found, {} bytes left", count, found, f.Left()));
    }

    void Items(const Box& box, const Box& meta)
    {
        const Box* keys = meta.Child("keys");
        const std::uint32_t count =
            keys ? FieldReader(m_source, keys->Inside() + 4, keys->End()).U32() : 0;
        for (const Box& item : box.children) {
            FieldReader f(m_source, item.offset + 4, item.End());
            const std::uint32_t index = f.U32();
            const Box* data = item.Child("data");
            if (!data || data->Content() < 8)
                m_findings.Error("ilst-data", item.path, item.offset, "an item without a value",
                                 "a data box of 16 bytes at least");
            if (index >> 24 == 0 && (index == 0 || index > count))
                m_findings.Error("ilst-key", item.path, item.offset, fmt::format("key {}", index),
                                 fmt::format("1 to {}", count));
        }
    }

    void PixelAspect(const Box& box)
    {
        FieldReader f(m_source, box.Inside(), box.End());
        const std::uint32_t across = f.U32();
        const std::uint32_t down = f.U32();
        if (f.Sound() && (across == 0) != (down == 0))
            m_findings.Warning("pixel-aspect", box.path, box.Inside(),
                               fmt::format("{}:{}", across, down), "two numbers above 0");
    }

    ByteSource& m_source;
    const Box& m_tree;
    Findings& m_findings;
};

}  // namespace

void VerifyBoxes(ByteSource& source, const Box& tree, Findings& findings)
{
    BoxCheck(source, tree, findings).Run();
}
