#include "support/check.h"

#include <algorithm>
#include <map>
#include <optional>
#include <regex>

namespace kvtest {

namespace {

// What a box must hold, as a pattern of its children's types with a comma behind each. "a/b" is the
// type b inside a, where the type alone means something else elsewhere; a byte that is no letter
// stands as a dot.
const std::map<std::string, std::string> kContents = {
    {"", "ftyp,(free,)?mdat,moov,"},
    {"moov", "mvhd,(trak,)*udta,"},
    {"trak", "tkhd,edts,(tref,)?mdia,"},
    {"edts", "elst,"},
    {"tref", "tmcd,"},
    {"mdia", "mdhd,hdlr,minf,"},
    {"minf", "[vsng]mhd,hdlr,dinf,stbl,"},
    {"nmhd", "gmin,text,"},
    {"gmhd", "gmin,text,tmcd,"},
    {"gmhd/tmcd", "tcmi,"},
    {"dinf", "dref,"},
    {"dref", "url ,"},
    {"stbl", "stsd,stts,(stsz,stsc|stsc,stsz),(stco|co64),(stss,)?"},
    {"stsd", "[A-Za-z0-9]{4},"},
    {"avc1", "avcC,"},
    {"hev1", "hvcC,"},
    {"apco", "fiel,pasp,"},
    {"apcs", "fiel,pasp,"},
    {"apcn", "fiel,pasp,"},
    {"apch", "fiel,pasp,"},
    {"ap4h", "fiel,pasp,"},
    {"ap4x", "fiel,pasp,"},
    {"stsd/mp4a", "(esds|wave),"},
    {"wave", "frma,mp4a,esds,[.]{4},"},
    {"udta", "meta,"},
    {"meta", "hdlr,(keys,)?ilst,"},
    {"ilst", "(.{4},)*"},
};

// The bytes of the boxes that always have the same.
const std::map<std::string, std::size_t> kSizes = {
    {"free", 8},       {"vmhd", 20},      {"smhd", 16}, {"gmin", 24}, {"text", 44},
    {"url ", 12},      {"fiel", 10},      {"pasp", 16}, {"frma", 12}, {"wave/mp4a", 12},
    {"wave/....", 8},  {"stsd/tmcd", 36}, {"c608", 16}, {"c708", 16}, {"tref/tmcd", 12},
    {"meta/hdlr", 33},
};

std::string Readable(std::string type)
{
    std::replace_if(type.begin(), type.end(), [](char c) { return c < ' ' || c > '~'; }, '.');
    return type;
}

// What a table says of a box, by its type inside its parent or by its type alone.
template <typename Table>
std::optional<typename Table::mapped_type> RuleFor(const Table& table, const BoxNode& box,
                                                   const std::string& parent)
{
    auto found = table.find(parent + "/" + Readable(box.type));
    if (found == table.end())
        found = table.find(Readable(box.type));
    if (found == table.end())
        return {};
    return found->second;
}

// A leaf of a length that its type or its own bytes tell; empty when it has it.
std::string CheckLeaf(const BoxFile& file, const BoxNode& box, const std::string& parent)
{
    const std::size_t size = box.span.Size();
    const std::size_t begin = box.span.begin;
    const auto exactly = [&](std::size_t expected) {
        return size == expected ? "" : Readable(box.type) + " has " + std::to_string(size) +
                                           " bytes, not " + std::to_string(expected);
    };
    // A text with its length in front, behind `at` bytes.
    const auto pascal = [&](std::size_t at) {
        return exactly(size > at ? at + 1 + file.All()[begin + at] : at + 1);
    };
    if (const auto fixed = RuleFor(kSizes, box, parent))
        return exactly(*fixed);
    if (box.type == "hdlr")
        return pascal(size > 16 && file.Code(begin + 12) == "clcp" ? 28 : 32);
    if (box.type == "tcmi")
        return pascal(32);
    if (box.type == "ftyp")
        return exactly(size < 20 ? 20 : size / 4 * 4);
    if (box.type == "avcC" || box.type == "hvcC" || box.type == "esds")
        return CheckConfiguration(file, box);
    // These are looked at with what they say.
    static const char* const others[] = {"mdat", "mvhd", "tkhd", "elst", "mdhd", "stts", "stsz",
                                         "stsc", "stco", "co64", "stss", "keys", "data"};
    if (std::find(std::begin(others), std::end(others), box.type) == std::end(others))
        return Readable(box.type) + " has no place here";
    return {};
}

void CheckBox(const BoxFile& file, const BoxNode& box, const std::string& parent,
              std::vector<std::string>& complaints)
{
    const std::string name = box.type.empty() ? "file" : Readable(box.type);
    if (const auto contents = RuleFor(kContents, box, parent)) {
        const std::string list = TypeList(box);
        if (!TypesMatch(list, *contents))
            complaints.push_back(name + " holds " + (list.empty() ? "nothing" : list));
    } else if (parent != "ilst") {  // the items are looked at with the keys
        if (const std::string trouble = CheckLeaf(file, box, parent); !trouble.empty())
            complaints.push_back((parent.empty() ? "file" : parent) + ": " + trouble);
    }
    for (const BoxNode& child : box.children)
        CheckBox(file, child, box.type, complaints);
}

}  // namespace

bool TypesMatch(const std::string& types, const std::string& pattern)
{
    // Made once: they take longer than their use.
    static thread_local std::map<std::string, std::regex> made;
    const auto [entry, isNew] = made.try_emplace(pattern);
    if (isNew)
        entry->second = std::regex(pattern);
    return std::regex_match(types, entry->second);
}

std::string TypeList(const BoxNode& box)
{
    std::string list;
    for (const BoxNode& child : box.children)
        list += Readable(child.type) + ",";
    return list;
}

std::vector<std::string> CheckShape(const BoxFile& file)
{
    std::vector<std::string> complaints;
    CheckBox(file, file.Tree(), "", complaints);
    return complaints;
}

}  // namespace kvtest
