#include "support/boxes.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>

namespace kvtest {

namespace {

// Bytes between a container's header and its first child; absent: no container.
const std::map<std::string, std::size_t, std::less<>>& Prefixes()
{
    static const std::map<std::string, std::size_t, std::less<>> prefixes{
        {"moov", 0}, {"trak", 0}, {"edts", 0}, {"tref", 0}, {"mdia", 0}, {"minf", 0},
        {"dinf", 0}, {"dref", 8}, {"stbl", 0}, {"stsd", 8}, {"udta", 0}, {"meta", 4},
        {"gmhd", 0}, {"nmhd", 0}, {"avc1", 78}, {"hev1", 78}, {"apco", 78}, {"apcs", 78},
        {"apcn", 78}, {"apch", 78}, {"ap4h", 78}, {"ap4x", 78}, {"ilst", 0}};
    return prefixes;
}

}  // namespace

BoxFile BoxFile::Read(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return BoxFile(Bytes(std::istreambuf_iterator<char>(in), {}));
}

std::uint32_t BoxFile::U32(std::size_t at) const
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = value << 8 | m_bytes.at(at + i);
    return value;
}

std::uint64_t BoxFile::U64(std::size_t at) const
{
    return std::uint64_t{U32(at)} << 32 | U32(at + 4);
}

std::vector<std::pair<std::string, Span>> BoxFile::List(Span parent, std::string_view type) const
{
    std::vector<std::pair<std::string, Span>> list;
    std::size_t at = parent.begin;
    if (!type.empty()) {
        const auto prefix = Prefixes().find(type);
        if (prefix == Prefixes().end())
            return list;
        at += 8 + prefix->second;
    }
    while (at + 8 <= parent.end) {
        std::uint64_t size = U32(at);
        const std::string code(m_bytes.begin() + static_cast<std::ptrdiff_t>(at) + 4,
                               m_bytes.begin() + static_cast<std::ptrdiff_t>(at) + 8);
        if (size == 1 && at + 16 <= parent.end)
            size = U64(at + 8);
        if (size < 8 || at + size > parent.end)
            break;
        list.emplace_back(code, Span{at, at + static_cast<std::size_t>(size)});
        at += static_cast<std::size_t>(size);
    }
    return list;
}

Span BoxFile::Find(std::string_view path) const
{
    Span at{0, m_bytes.size()};
    std::string parent;
    while (!path.empty()) {
        const std::size_t slash = std::min(path.find('/'), path.size());
        const std::string step(path.substr(0, slash));
        path.remove_prefix(std::min(slash + 1, path.size()));
        const std::string type = step.substr(0, 4);
        const std::string handler = step.size() > 5 ? step.substr(5) : "";
        Span found;
        for (const auto& [code, span] : List(at, parent)) {
            if (code != type)
                continue;
            if (!handler.empty()) {
                BoxFile track(Bytes(m_bytes.begin() + static_cast<std::ptrdiff_t>(span.begin),
                                    m_bytes.begin() + static_cast<std::ptrdiff_t>(span.end)));
                const Bytes hdlr = track.Box("trak/mdia/hdlr");
                const std::string words(hdlr.begin() + 12, hdlr.begin() + 20);
                if (words.find(handler) == std::string::npos)
                    continue;
            }
            found = span;
            break;
        }
        if (!found.Found())
            return {};
        at = found;
        parent = type;
    }
    return at;
}

Bytes BoxFile::Box(std::string_view path) const
{
    const Span span = Find(path);
    return {m_bytes.begin() + static_cast<std::ptrdiff_t>(span.begin),
            m_bytes.begin() + static_cast<std::ptrdiff_t>(span.end)};
}

std::vector<std::string> BoxFile::Children(std::string_view path) const
{
    const Span span = Find(path);
    const std::size_t slash = path.rfind('/');
    const auto name = path.substr(slash == std::string_view::npos ? 0 : slash + 1).substr(0, 4);
    std::vector<std::string> names;
    for (const auto& [code, child] : List(span, name))
        names.push_back(code);
    return names;
}

void BoxFile::CheckNesting(Span box, std::string_view type,
                           std::vector<std::string>& complaints) const
{
    const auto children = List(box, type);
    if (type == "moov" || type == "trak" || type == "mdia" || type == "minf" || type == "stbl" ||
        type == "udta" || type == "meta" || type.empty()) {
        const std::size_t end = children.empty() ? box.end : children.back().second.end;
        if (end != box.end)
            complaints.push_back(std::string(type) + " does not end with its last child");
    }
    for (const auto& [code, span] : children)
        if (code != "ilst")
            CheckNesting(span, code, complaints);
}

void BoxFile::CheckTrack(Span track, Span mdat, std::vector<std::string>& complaints) const
{
    const BoxFile box(Bytes(m_bytes.begin() + static_cast<std::ptrdiff_t>(track.begin),
                            m_bytes.begin() + static_cast<std::ptrdiff_t>(track.end)));
    const auto table = [&box](const char* name) {
        return box.Box(std::string("trak/mdia/minf/stbl/") + name);
    };
    const auto complain = [&](const std::string& what) { complaints.push_back("trak: " + what); };

    const Bytes stsz = table("stsz");
    if (stsz.size() < 20)
        return complain("no stsz");
    const auto head = Words(stsz, 12);
    const std::uint32_t samples = head[1];
    std::vector<std::uint32_t> sizes(samples, head[0]);
    if (head[0] == 0 && stsz.size() > 20)
        sizes = Words(stsz, 20);
    if (sizes.size() != samples)
        complain("stsz count");

    const auto stts = Words(table("stts"), 12);
    std::uint64_t timed = 0;
    for (std::size_t i = 1; i + 1 < stts.size(); i += 2)
        timed += stts[i];
    if (stts.size() != 1 + std::size_t{stts.at(0)} * 2 || timed != samples)
        complain("stts covers " + std::to_string(timed) + " of " + std::to_string(samples));

    const bool large = box.Has("trak/mdia/minf/stbl/co64");
    const auto words = Words(table(large ? "co64" : "stco"), 12);
    std::vector<std::uint64_t> chunks;
    for (std::size_t i = 1; i < words.size(); i += large ? 2 : 1)
        chunks.push_back(large ? std::uint64_t{words[i]} << 32 | words.at(i + 1) : words[i]);
    if (chunks.size() != words.at(0))
        complain("chunk count");

    const auto stsc = Words(table("stsc"), 12);
    if (stsc.size() != 1 + std::size_t{stsc.at(0)} * 3)
        complain("stsc count");
    std::size_t sample = 0;
    std::size_t entry = 1;
    std::uint64_t before = 0;
    for (std::size_t chunk = 0; chunk < chunks.size(); ++chunk) {
        while (entry + 3 < stsc.size() && stsc[entry + 3] <= chunk + 1)
            entry += 3;
        std::uint64_t end = chunks[chunk];
        if (end < before)
            complain("chunks overlap");
        for (std::uint32_t i = 0; i < stsc.at(entry + 1) && sample < sizes.size(); ++i)
            end += sizes[sample++];
        if (chunks[chunk] < mdat.begin + 8 || end > mdat.end)
            complain("chunk outside mdat");
        before = end;
    }
    if (sample != samples)
        complain("stsc covers " + std::to_string(sample) + " of " + std::to_string(samples));

    const Bytes stss = table("stss");
    if (!stss.empty()) {
        std::uint32_t last = 0;
        const auto keys = Words(stss, 16);
        for (const std::uint32_t key : keys) {
            if (key <= last || key > samples)
                complain("stss out of order");
            last = key;
        }
    }
}

std::vector<std::string> BoxFile::Complaints() const
{
    std::vector<std::string> complaints;
    const Span file{0, m_bytes.size()};
    CheckNesting(file, "", complaints);
    const Span mdat = Find("mdat");
    if (!mdat.Found() || !Has("moov"))
        complaints.push_back("no mdat or no moov");
    for (const auto& [code, span] : List(Find("moov"), "moov"))
        if (code == "trak")
            CheckTrack(span, mdat, complaints);
    return complaints;
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
