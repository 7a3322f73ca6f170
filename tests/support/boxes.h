// A small reader of box files for the tests; it shares nothing with the library. A path names boxes
// by type, "trak.vide" a track by its handler, and "stsd/avc1" the sample entry.
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
};

class BoxFile {
public:
    BoxFile() = default;
    explicit BoxFile(Bytes bytes) : m_bytes(std::move(bytes)) {}
    static BoxFile Read(const std::filesystem::path& path);

    const Bytes& All() const { return m_bytes; }
    // The box at a path, headers included; empty when there is none.
    Bytes Box(std::string_view path) const;
    Span Find(std::string_view path) const;
    bool Has(std::string_view path) const { return Find(path).Found(); }
    // The types of a box's children, in order; of the file for an empty path.
    std::vector<std::string> Children(std::string_view path) const;
    // What a strict reader finds wrong with sizes, tables and chunks; empty when all is well.
    std::vector<std::string> Complaints() const;

    std::uint32_t U32(std::size_t at) const;
    std::uint64_t U64(std::size_t at) const;

private:
    std::vector<std::pair<std::string, Span>> List(Span parent, std::string_view type) const;
    void CheckTrack(Span track, Span mdat, std::vector<std::string>& complaints) const;
    void CheckNesting(Span box, std::string_view type, std::vector<std::string>& complaints) const;

    Bytes m_bytes;
};

// The big-endian 32-bit words of a box from an offset on.
std::vector<std::uint32_t> Words(const Bytes& box, std::size_t from);
// The text of a box as bytes, for readable expectations: "0000000C 'free' ...".
Bytes Hex(std::string_view text);

}  // namespace kvtest
