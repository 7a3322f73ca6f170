#include "support/reads_as.h"

#include <optional>

namespace kvtest {

namespace {

std::string N(std::uint64_t number)
{
    return std::to_string(number);
}

std::string Join(const std::vector<std::string>& parts)
{
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : ", ") + part;
    return text.empty() ? "none" : text;
}

// A table of `width` bytes an entry behind its count; nothing when the count does not fit.
std::optional<std::vector<std::uint32_t>> Table(const BoxFile& box, std::size_t width)
{
    const std::size_t size = box.All().size();
    if (size < 16 || size != 16 + width * box.U32(12))
        return {};
    return Words(box.All(), 16);
}

std::optional<std::string> TableText(const BoxFile& box, const std::string& type)
{
    const std::size_t width = type == "stsc" ? 12 : type == "stts" || type == "co64" ? 8 : 4;
    const auto words = Table(box, width);
    if (!words)
        return {};
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < words->size(); i += width / 4) {
        const std::uint32_t* entry = words->data() + i;
        if (type == "stts")
            parts.push_back(N(entry[0]) + " x " + N(entry[1]));
        else if (type == "stsc")
            parts.push_back(N(entry[0]) + ":" + N(entry[1]) +
                            (entry[2] == 1 ? "" : "#" + N(entry[2])));
        else
            parts.push_back(N(type == "co64" ? std::uint64_t{entry[0]} << 32 | entry[1] : entry[0]));
    }
    return Join(parts);
}

std::optional<std::string> SizesText(const BoxFile& box)
{
    const std::size_t size = box.All().size();
    if (size == 20)
        return N(box.U32(16)) + " x " + N(box.U32(12));
    if (size < 20 || box.U32(12) != 0 || size != 20 + std::size_t{box.U32(16)} * 4)
        return {};
    std::vector<std::string> parts;
    for (const std::uint32_t bytes : Words(box.All(), 20))
        parts.push_back(N(bytes));
    return Join(parts);
}

// A number of the width that the version tells.
std::uint64_t Wide(const BoxFile& box, bool wide, std::size_t narrowAt, std::size_t wideAt)
{
    return wide ? box.U64(wideAt) : box.U32(narrowAt);
}

std::string TrackText(const BoxFile& box, bool wide)
{
    const std::size_t at = wide ? 12 : 0;  // how far the fields behind the times have moved
    std::string text = N(Wide(box, wide, 28, 36)) + " id " + N(box.U32(wide ? 28 : 20));
    const std::uint32_t width = box.U32(84 + at);
    const std::uint32_t height = box.U32(88 + at);
    if (width != 0 || height != 0)
        text += " " + N(width >> 16) + "x" + N(height >> 16);
    if (box.U16(42 + at) != 0)
        text += " group " + N(box.U16(42 + at));
    if (box.U16(44 + at) != 0)
        text += " volume " + N(box.U16(44 + at) >> 8);
    const std::uint32_t flags = box.U32(8) & 0xFFFFFF;
    return flags == 3 ? text : text + " flags " + N(flags);
}

// The three letters of a packed language code.
std::string Language(std::uint16_t packed)
{
    std::string letters;
    for (const int shift : {10, 5, 0})
        letters += static_cast<char>(0x60 + (packed >> shift & 31));
    return letters;
}

// The boxes whose fields have two widths.
std::optional<std::string> HeaderText(const BoxFile& box, const std::string& type)
{
    const auto size = [&](std::size_t narrow, std::size_t wide) {
        return box.All().size() == (box.All()[8] == 1 ? wide : narrow);
    };
    const bool wide = box.All()[8] == 1;
    if (type == "mvhd" && size(108, 120))
        return N(Wide(box, wide, 24, 32)) + "/" + N(box.U32(wide ? 28 : 20)) + " next " +
               N(box.U32(wide ? 116 : 104));
    if (type == "tkhd" && size(92, 104))
        return TrackText(box, wide);
    if (type == "mdhd" && size(32, 44))
        return N(Wide(box, wide, 24, 32)) + "/" + N(box.U32(wide ? 28 : 20)) + " " +
               Language(box.U16(wide ? 40 : 28));
    if (type == "elst" && size(28, 36) && box.U32(12) == 1)
        return N(Wide(box, wide, 16, 16)) + " from " + N(Wide(box, wide, 20, 24));
    return {};
}

}  // namespace

std::string Text(const Bytes& bytes)
{
    if (bytes.empty())
        return "no box";
    const BoxFile box(bytes);
    if (bytes.size() < 12 || box.U32(0) != bytes.size())
        return "malformed";
    const std::string type(bytes.begin() + 4, bytes.begin() + 8);
    std::optional<std::string> text;
    if (type == "stts" || type == "stsc" || type == "stco" || type == "co64" || type == "stss")
        text = TableText(box, type);
    else if (type == "stsz")
        text = SizesText(box);
    else if (type == "mvhd" || type == "tkhd" || type == "mdhd" || type == "elst")
        text = HeaderText(box, type);
    else
        text = box.Dump(8, bytes.size());
    return type + (bytes[8] == 1 ? " v1" : "") + "  " + text.value_or("malformed");
}

}  // namespace kvtest
