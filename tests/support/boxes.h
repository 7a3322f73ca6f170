// A small reader of box files for the tests; it shares nothing with the library. A path names boxes
// by type, "trak.vide" a track by its handler, and "stsd/avc1" the sample entry. The children of a
// box are looked for only where the format has them, behind the fixed part of their parent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace kvtest {

using Bytes = std::vector<std::uint8_t>;

struct Span {
    std::size_t begin = 0;  // of the box's size field
    std::size_t end = 0;
    bool Found() const { return end != 0; }
    std::size_t Size() const { return end - begin; }
};

// A box and what it contains, as far as its sizes hold.
struct BoxNode {
    std::string type;        // empty for the file itself
    Span span;
    std::size_t header = 0;  // bytes: 8, or 16 with a 64-bit size; 0 for the file itself
    std::vector<BoxNode> children;

    // The first child of a type, or null.
    const BoxNode* Child(std::string_view name) const;
    // The first box at a path without handlers, or null.
    const BoxNode* At(std::string_view path) const;
};

class BoxFile {
public:
    BoxFile() = default;
    explicit BoxFile(Bytes bytes);
    static BoxFile Read(const std::filesystem::path& path);

    const Bytes& All() const { return m_bytes; }
    const BoxNode& Tree() const { return m_root; }
    // The sizes that do not hold: boxes beyond their parent's end, bytes behind the last child.
    const std::vector<std::string>& Damage() const { return m_damage; }

    // The box at a path, headers included; empty when there is none.
    Bytes Box(std::string_view path) const;
    Bytes Box(const BoxNode& node) const;
    // The first box at a path, or null.
    const BoxNode* Node(std::string_view path) const;
    Span Find(std::string_view path) const;
    bool Has(std::string_view path) const { return Find(path).Found(); }
    // The types of a box's children, in order; of the file for an empty path.
    std::vector<std::string> Children(std::string_view path) const;
    // What CheckFile says of these bytes.
    std::vector<std::string> Complaints() const;
    // The bytes from `at` on as two-digit hexadecimal numbers.
    std::string Dump(std::size_t at, std::size_t count) const;

    std::uint16_t U16(std::size_t at) const;
    std::uint32_t U32(std::size_t at) const;
    std::uint64_t U64(std::size_t at) const;
    // The four-character code at a place.
    std::string Code(std::size_t at) const;
    // The handler of a "trak": its word at offset 16, or "clcp", which stands at offset 12.
    std::string Handler(const BoxNode& track) const;

private:
    void Parse(BoxNode& parent, std::string_view grandparent);

    Bytes m_bytes;
    BoxNode m_root;
    std::vector<std::string> m_damage;
};

// The big-endian 32-bit words of a box from an offset on.
std::vector<std::uint32_t> Words(const Bytes& box, std::size_t from);
// The text of a box as bytes, for readable expectations: "0000000C 'free' ...".
Bytes Hex(std::string_view text);

}  // namespace kvtest
