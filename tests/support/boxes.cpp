#include "support/boxes.h"

#include "support/check.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <optional>

namespace kvtest {

namespace {

bool OneOf(std::string_view type, std::initializer_list<std::string_view> types)
{
    return std::find(types.begin(), types.end(), type) != types.end();
}

// Bytes between a box's header and its first child; nothing for a box without children. "tmcd" and
// "mp4a" are different things in different places, so that the parent counts too.
std::optional<std::size_t> FixedPart(std::string_view type, std::string_view parent,
                                     std::uint16_t entryVersion)
{
    if (parent == "stsd") {
        if (OneOf(type, {"avc1", "hev1", "apco", "apcs", "apcn", "apch", "ap4h", "ap4x"}))
            return 78;
        if (type == "mp4a")
            return entryVersion == 1 ? 44 : 28;
        return {};
    }
    if (parent == "ilst" || (parent == "gmhd" && type == "tmcd"))
        return 0;
    if (OneOf(type, {"", "moov", "trak", "edts", "tref", "mdia", "minf", "dinf", "stbl", "udta",
                     "gmhd", "nmhd", "ilst", "wave"}))
        return 0;
    if (type == "meta")
        return 4;
    if (OneOf(type, {"stsd", "dref"}))
        return 8;
    return {};
}

}  // namespace

// ---- Tree ----------------------------------------------------------------------------------

const BoxNode* BoxNode::Child(std::string_view name) const
{
    for (const BoxNode& child : children)
        if (child.type == name)
            return &child;
    return nullptr;
}

const BoxNode* BoxNode::At(std::string_view path) const
{
    const BoxNode* node = this;
    while (node && !path.empty()) {
        const std::size_t slash = std::min(path.find('/'), path.size());
        node = node->Child(path.substr(0, slash));
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
    return node;
}

BoxFile::BoxFile(Bytes bytes) : m_bytes(std::move(bytes))
{
    m_root.span = {0, m_bytes.size()};
    Parse(m_root, "");
}

BoxFile BoxFile::Read(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    Bytes bytes(in ? static_cast<std::size_t>(in.tellg()) : 0);
    in.seekg(0).read(reinterpret_cast<char*>(bytes.data()),
                     static_cast<std::streamsize>(bytes.size()));
    return BoxFile(std::move(bytes));
}

void BoxFile::Parse(BoxNode& parent, std::string_view grandparent)
{
    const std::size_t begin = parent.span.begin + parent.header;
    const std::size_t end = parent.span.end;
    const auto complain = [&](const std::string& what) {
        m_damage.push_back((parent.type.empty() ? "file" : parent.type) + ": " + what);
    };
    const std::uint16_t version =
        grandparent == "stsd" && begin + 10 <= end ? U16(begin + 8) : std::uint16_t{0};
    const auto fixed = FixedPart(parent.type, grandparent, version);
    if (!fixed)
        return;
    if (begin + *fixed > end)
        return complain("too short for its fixed part");
    std::size_t at = begin + *fixed;
    while (at < end) {
        if (end - at < 8)
            return complain(std::to_string(end - at) + " bytes behind the last child");
        BoxNode child;
        child.type = Code(at + 4);
        child.header = 8;
        std::uint64_t size = U32(at);
        if (size == 1) {
            if (end - at < 16)
                return complain(child.type + " is cut in its 64-bit size");
            child.header = 16;
            size = U64(at + 8);
        }
        if (size < child.header || size > end - at)
            return complain(child.type + " has the size " + std::to_string(size) + " with " +
                            std::to_string(end - at) + " bytes left");
        child.span = {at, at + static_cast<std::size_t>(size)};
        at = child.span.end;
        Parse(parent.children.emplace_back(std::move(child)), parent.type);
    }
}

// ---- Look-up -------------------------------------------------------------------------------

std::string BoxFile::Handler(const BoxNode& track) const
{
    const BoxNode* hdlr = track.At("mdia/hdlr");
    if (!hdlr || hdlr->span.Size() < 20)
        return {};
    const std::string first = Code(hdlr->span.begin + 12);
    return first == "clcp" ? first : Code(hdlr->span.begin + 16);
}

const BoxNode* BoxFile::Node(std::string_view path) const
{
    const BoxNode* node = &m_root;
    while (node && !path.empty()) {
        const std::size_t slash = std::min(path.find('/'), path.size());
        const std::string_view step = path.substr(0, slash);
        path.remove_prefix(std::min(slash + 1, path.size()));
        const BoxNode* found = nullptr;
        for (const BoxNode& child : node->children) {
            if (child.type == step.substr(0, 4) &&
                (step.size() <= 5 || Handler(child) == step.substr(5))) {
                found = &child;
                break;
            }
        }
        node = found;
    }
    return node;
}

Span BoxFile::Find(std::string_view path) const
{
    const BoxNode* node = Node(path);
    return node ? node->span : Span{};
}

Bytes BoxFile::Box(const BoxNode& node) const
{
    return {m_bytes.begin() + static_cast<std::ptrdiff_t>(node.span.begin),
            m_bytes.begin() + static_cast<std::ptrdiff_t>(node.span.end)};
}

Bytes BoxFile::Box(std::string_view path) const
{
    const BoxNode* node = Node(path);
    return node ? Box(*node) : Bytes{};
}

std::vector<std::string> BoxFile::Children(std::string_view path) const
{
    std::vector<std::string> names;
    if (const BoxNode* node = Node(path))
        for (const BoxNode& child : node->children)
            names.push_back(child.type);
    return names;
}

std::vector<std::string> BoxFile::Complaints() const
{
    return CheckFile(m_bytes);
}

// ---- Bytes ---------------------------------------------------------------------------------

std::string BoxFile::Code(std::size_t at) const
{
    return {m_bytes.begin() + static_cast<std::ptrdiff_t>(at),
            m_bytes.begin() + static_cast<std::ptrdiff_t>(at) + 4};
}

std::uint16_t BoxFile::U16(std::size_t at) const
{
    return static_cast<std::uint16_t>(m_bytes.at(at) << 8 | m_bytes.at(at + 1));
}

std::uint32_t BoxFile::U32(std::size_t at) const
{
    return std::uint32_t{U16(at)} << 16 | U16(at + 2);
}

std::uint64_t BoxFile::U64(std::size_t at) const
{
    return std::uint64_t{U32(at)} << 32 | U32(at + 4);
}

std::string BoxFile::Dump(std::size_t at, std::size_t count) const
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = at; i < std::min(at + count, m_bytes.size()); ++i) {
        if (!text.empty())
            text += ' ';
        text += digits[m_bytes[i] >> 4];
        text += digits[m_bytes[i] & 15];
    }
    return text;
}

std::vector<std::uint32_t> Words(const Bytes& box, std::size_t from)
{
    std::vector<std::uint32_t> words;
    for (std::size_t at = from; at + 4 <= box.size(); at += 4)
        words.push_back(std::uint32_t{box[at]} << 24 | std::uint32_t{box[at + 1]} << 16 |
                        std::uint32_t{box[at + 2]} << 8 | box[at + 3]);
    return words;
}

Bytes Hex(std::string_view text)
{
    Bytes bytes;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == '\'') {
            for (++i; text[i] != '\''; ++i)
                bytes.push_back(static_cast<std::uint8_t>(text[i]));
            ++i;
        } else if (std::isxdigit(static_cast<unsigned char>(text[i]))) {
            bytes.push_back(
                static_cast<std::uint8_t>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
            i += 2;
        } else {
            ++i;
        }
    }
    return bytes;
}

}  // namespace kvtest
