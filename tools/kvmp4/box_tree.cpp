#include "box_tree.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <set>

#include <fmt/format.h>

namespace {

constexpr unsigned kDeepest = 24;  // real files nest about ten boxes
constexpr std::size_t kMostBoxes = 1000000;
// How far from a wrong end of mdat the movie is looked for.
constexpr std::uint64_t kSearch = 0x400000;

bool Printable(const std::string& type)
{
    return std::all_of(type.begin(), type.end(),
                       [](char c) { return (c >= ' ' && c <= '~') || c == '\xA9'; });
}

bool AllZero(ByteSource& source, std::uint64_t begin, std::uint64_t end)
{
    return SkipZeros(source, begin, end) == end;
}

// Containers without fields of their own, wherever they stand.
const std::set<std::string> kPlain = {"moov", "trak", "edts", "mdia", "minf", "dinf", "stbl",
                                      "mvex", "moof", "traf", "mfra", "udta", "tref", "gmhd",
                                      "tapt", "clip", "matt", "sinf", "schi", "rinf", "wave",
                                      "ilst", "strk", "strd", "meco"};

const std::set<std::string> kVisual = {"vide", "auxv", "pict"};

class TreeReader {
public:
    TreeReader(ByteSource& source, Findings& findings) : m_source(source), m_findings(findings) {}

    Box Run()
    {
        Box root;
        root.size = m_source.Size();
        root.container = true;
        root.children = List(root, 0);
        Name(root);
        for (Box& child : root.children)
            Descend(child, "", "", 1);
        return root;
    }

private:
    // The boxes of a range, one behind the other.
    std::vector<Box> List(const Box& parent, std::uint64_t from)
    {
        std::vector<Box> boxes;
        const bool top = parent.type.empty();
        const std::uint64_t end = parent.End();
        std::uint64_t at = top ? from : parent.Inside() + from;
        while (at < end) {
            if (end - at < 8) {
                Rest(parent, at);
                break;
            }
            if (++m_boxes > kMostBoxes) {
                m_findings.Error("box-count", parent.path, at,
                                 fmt::format("more than {} boxes", kMostBoxes));
                break;
            }
            if (top && Tail(boxes, at))
                break;
            const std::optional<Box> box = Header(parent, at);
            if (!box) {
                if (const auto next = top ? Resume(boxes, at) : 0) {
                    at = next;
                    continue;
                }
                break;
            }
            if (top && !boxes.empty() && Implausible(*box)) {
                if (const auto next = Resume(boxes, at)) {
                    at = next;
                    continue;
                }
            }
            boxes.push_back(*box);
            at += box->size;
            // A box that claims more than there is may hide the movie behind it.
            if (top && box->cut && box->type == "mdat")
                if (const auto next = Resume(boxes, at))
                    at = next;
        }
        return boxes;
    }

    std::optional<Box> Header(const Box& parent, std::uint64_t at)
    {
        FieldReader f(m_source, at, parent.End());
        Box box;
        box.offset = at;
        box.size = f.U32();
        box.type = f.Code();
        box.header = 8;
        const std::string path = Under(parent, box.type);
        if (box.size == 1) {
            box.size = f.U64();
            box.header = 16;
        } else if (box.size == 0 && parent.type.empty()) {
            box.toEnd = true;
            box.size = parent.End() - at;
        }
        if (box.type == "uuid")
            box.header += 16;
        if (!f.Sound() || box.size < box.header) {
            m_findings.Error("box-size", path, at,
                             f.Sound() ? fmt::format("size {}", box.size) : "a cut header",
                             fmt::format("at least {}", box.header));
            return {};
        }
        if (box.size > parent.End() - at) {
            const bool top = parent.type.empty();
            m_findings.Error(top ? "box-beyond-file" : "box-beyond-parent", path, at,
                             fmt::format("size {}", box.size),
                             fmt::format("at most {}, the {} ends at {}", parent.End() - at,
                                         top ? "file" : "box around it", parent.End()));
            box.size = parent.End() - at;
            box.cut = true;
        }
        return box;
    }

    static std::string Under(const Box& parent, const std::string& type)
    {
        return parent.path + (parent.path.empty() ? "" : "/") + ReadableType(type);
    }

    bool Implausible(const Box& box) const
    {
        return !Printable(box.type) || (box.cut && !KnownSomewhere(box.type));
    }

    // Fewer bytes than a header has at the end of a container.
    void Rest(const Box& parent, std::uint64_t at)
    {
        // QuickTime ends user data with a 32-bit zero, and sample entries are padded alike.
        const bool padded =
            parent.type == "udta" || parent.type == "wave" || !parent.entryOf.empty();
        const std::uint64_t left = parent.End() - at;
        const bool usual = left == 4 || (parent.type == "tmcd" && left == 2);
        if (padded && usual && AllZero(m_source, at, parent.End()))
            return;
        m_findings.Error("box-trailing", parent.path, at,
                         fmt::format("{} bytes behind the last box", left), "none");
    }

    // What a recording with checkpoints has behind the movie when it is killed: the gap up to the
    // next checkpoint, and as much of that as was written.
    bool Tail(const std::vector<Box>& boxes, std::uint64_t at)
    {
        if (boxes.empty() || boxes.back().type != "moov" || boxes.back().cut ||
            std::none_of(boxes.begin(), boxes.end(),
                         [](const Box& box) { return box.type == "mdat"; }))
            return false;
        const std::uint64_t end = m_source.Size();
        if (!AllZero(m_source, at, at + 8))
            return false;
        const std::uint64_t data = SkipZeros(m_source, at, end);
        FieldReader f(m_source, data, end);
        const std::string head = f.Text(std::min<std::uint64_t>(8, end - data));
        const bool checkpoint = head.find("moov") <= 4 || end - data < 8;
        if (data != end && !checkpoint)
            return false;
        m_findings.Note("tail-unfinished", "", at,
                        fmt::format("{} bytes behind the movie, {}", end - at,
                                    data == end ? "all zeros" : "with an unfinished checkpoint"));
        return true;
    }

    // Where to go on when the bytes behind a box are none; 0 for nowhere.
    std::uint64_t Resume(std::vector<Box>& boxes, std::uint64_t at)
    {
        if (boxes.empty() || boxes.back().type != "mdat" ||
            std::any_of(boxes.begin(), boxes.end(),
                        [](const Box& box) { return box.type == "moov"; }))
            return 0;
        Box& data = boxes.back();
        const std::uint64_t from = std::max(data.Inside(), at - std::min(at, kSearch));
        const std::uint64_t size = m_source.Size();
        std::uint64_t movie = FindMovie(m_source, from, std::min(size, at + kSearch));
        if (movie == 0)
            movie =
                FindMovie(m_source, std::max(data.Inside(), size - std::min(size, kSearch)), size);
        if (movie == 0)
            return 0;
        m_findings.Error("mdat-size", "mdat", data.offset,
                         fmt::format("it ends at {}, where no box is", at),
                         fmt::format("size {}, up to the moov at {}", movie - data.offset, movie));
        data.size = movie - data.offset;
        data.cut = false;
        return movie;
    }

    // Gives the children their paths, with numbers where there are several of a type.
    static void Name(Box& parent)
    {
        std::map<std::string, unsigned> total;
        std::map<std::string, unsigned> seen;
        for (const Box& child : parent.children)
            ++total[child.type];
        for (Box& child : parent.children) {
            child.path = Under(parent, child.type);
            if (total[child.type] > 1)
                child.path += fmt::format("[{}]", ++seen[child.type]);
        }
    }

    // How many bytes of a box stand before its children; nothing for a box without any.
    std::optional<std::uint64_t> FieldsBefore(const Box& box, const std::string& parent,
                                              const std::string& handler)
    {
        if (parent == "stsd")
            return EntryFields(box, handler);
        if (parent == "ilst")
            return 0;
        if (parent == "wave" || parent == "tref" || (parent == "gmhd" && box.type != "tmcd"))
            return {};
        if (box.type == "tmcd" && parent == "gmhd")
            return 0;
        if (box.type == "udta" || kPlain.count(box.type) != 0)
            return 0;
        if (box.type == "stsd" || box.type == "dref")
            return 8;
        FieldReader f(m_source, box.Inside(), box.End());
        if (box.type == "meta") {
            // QuickTime's has no version; a handler comes first in both.
            f.Skip(4);
            return f.Code() == "hdlr" ? 0 : 4;
        }
        // A null media header that holds what a QuickTime generic one does.
        if (box.type == "nmhd" && box.Content() >= 16) {
            f.Skip(4);
            if (Printable(f.Code()))
                return 0;
        }
        return {};
    }

    std::optional<std::uint64_t> EntryFields(const Box& box, const std::string& handler)
    {
        if (kVisual.count(handler) != 0)
            return 78;
        if (handler == "soun") {
            FieldReader f(m_source, box.Inside(), box.End());
            f.Skip(8);
            const std::uint16_t version = f.U16();
            // Version 1 of ISO files stands in an "stsd" of version 1 and is no longer.
            return 28 + (version == 1 && !m_isoEntries ? 16 : version == 2 ? 36 : 0);
        }
        static const std::map<std::string, std::uint64_t> others = {
            {"tmcd", 26}, {"c608", 8}, {"c708", 8}, {"tx3g", 38}, {"wvtt", 8}, {"mp4s", 8}};
        const auto found = others.find(box.type);
        return found == others.end() ? std::nullopt : std::optional(found->second);
    }

    void Descend(Box& box, const std::string& parent, std::string handler, unsigned depth)
    {
        if (parent == "stsd")
            box.entryOf = handler.empty() ? "????" : handler;
        if (box.type == "stsd") {
            FieldReader f(m_source, box.Inside(), box.End());
            m_isoEntries = f.U8() == 1;
        }
        const auto fields = FieldsBefore(box, parent, handler);
        if (!fields)
            return;
        if (depth > kDeepest) {
            m_findings.Error("box-depth", box.path, box.offset,
                             fmt::format("more than {} boxes in each other", kDeepest));
            return;
        }
        if (box.Content() < *fields) {
            m_findings.Error("box-length", box.path, box.offset,
                             fmt::format("{} bytes behind the header", box.Content()),
                             fmt::format("at least {}", *fields));
            return;
        }
        box.container = true;
        box.children = List(box, *fields);
        Name(box);
        if (box.type == "mdia")
            handler = HandlerOf(box);
        for (Box& child : box.children)
            Descend(child, box.type, handler, depth + 1);
    }

    std::string HandlerOf(const Box& media)
    {
        const Box* hdlr = media.Child("hdlr");
        if (!hdlr)
            return "";
        FieldReader f(m_source, hdlr->Inside(), hdlr->End());
        f.Skip(4);
        const std::string first = f.Code();
        const std::string second = f.Code();
        return first == "clcp" ? first : second;
    }

    ByteSource& m_source;
    Findings& m_findings;
    std::size_t m_boxes = 0;
    bool m_isoEntries = false;  // the entries of the "stsd" at hand are those of ISO files
};

}  // namespace

const Box* Box::Child(std::string_view name) const
{
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&](const Box& box) { return box.type == name; });
    return found == children.end() ? nullptr : &*found;
}

const Box* Box::At(std::string_view way) const
{
    const Box* box = this;
    while (box && !way.empty()) {
        const std::size_t slash = way.find('/');
        box = box->Child(way.substr(0, slash));
        way = slash == std::string_view::npos ? "" : way.substr(slash + 1);
    }
    return box;
}

Box ReadTree(ByteSource& source, Findings& findings)
{
    return TreeReader(source, findings).Run();
}

bool LooksLikeBoxFile(const Box& tree)
{
    const auto* known = KnownChildren("");
    return std::any_of(tree.children.begin(), tree.children.end(), [&](const Box& box) {
        return std::find(known->begin(), known->end(), box.type) != known->end();
    });
}

std::uint64_t FindMovie(ByteSource& source, std::uint64_t begin, std::uint64_t end)
{
    constexpr std::size_t kPiece = 0x40000;
    std::vector<char> piece(
        static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, end - std::min(begin, end))));
    for (std::uint64_t at = begin; at + 16 <= end;) {
        const std::size_t wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, end - at));
        const std::size_t got = source.Read(at, piece.data(), wanted);
        if (got < 16)
            return 0;
        for (std::size_t i = 4; i + 12 <= got; ++i) {
            if (std::memcmp(piece.data() + i, "moov", 4) != 0 ||
                std::memcmp(piece.data() + i + 8, "mvhd", 4) != 0)
                continue;
            FieldReader f(source, at + i - 4, source.Size());
            const std::uint32_t size = f.U32();
            if (size >= 16)
                return at + i - 4;
        }
        at += got - 15;
    }
    return 0;
}

std::uint64_t SkipZeros(ByteSource& source, std::uint64_t begin, std::uint64_t end)
{
    std::array<char, 0x4000> piece{};
    static constexpr std::array<char, 0x4000> kZeros{};
    while (begin < end) {
        const std::size_t wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), end - begin));
        const std::size_t got = source.Read(begin, piece.data(), wanted);
        if (got == 0)
            return begin;
        if (std::memcmp(piece.data(), kZeros.data(), got) != 0)
            return begin + static_cast<std::uint64_t>(std::find_if(piece.begin(), piece.end(),
                                                                   [](char c) { return c != 0; }) -
                                                      piece.begin());
        begin += got;
    }
    return end;
}
