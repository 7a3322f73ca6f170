// The boxes of an MP4 or MOV file, whoever wrote it, as far as their sizes hold. Reading goes on
// behind a damage where that makes sense; what was wrong stands among the findings.
#pragma once

#include "byte_source.h"
#include "finding.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct Box {
    std::string type;          // four bytes as they stand; empty for the file itself
    std::string path;          // "moov/trak[2]/tkhd"; the number only among several of a type
    std::uint64_t offset = 0;  // of the size field
    std::uint64_t size = 0;    // with the header; cut at the end of what it lies in
    std::uint32_t header = 0;  // bytes: 8, 16 with a 64-bit size, 16 more with an extended type
    bool toEnd = false;        // its size field says "up to the end of the file"
    bool cut = false;          // it claims more than there is
    bool container = false;    // it was looked into
    std::string entryOf;       // a sample entry: the handler of its track
    std::vector<Box> children;

    std::uint64_t Inside() const { return offset + header; }
    std::uint64_t End() const { return offset + size; }
    std::uint64_t Content() const { return size - header; }
    // The first child of a type, or null.
    const Box* Child(std::string_view name) const;
    // The first box at a path of types, or null.
    const Box* At(std::string_view way) const;
};

// The whole tree, under a box without a type.
Box ReadTree(ByteSource& source, Findings& findings);
// Whether any box of the file is one that such files have at their top.
bool LooksLikeBoxFile(const Box& tree);

// A type for the eye: bytes that are no printable ASCII as dots, 0xA9 as the sign it stands for.
std::string ReadableType(const std::string& type);
// Bytes as UTF-8, whatever they are.
std::string ReadableText(const std::string& text);
bool IsUtf8(const std::string& text);

// What the format knows to stand in a container ("" is the file); null where anything may.
const std::vector<std::string_view>* KnownChildren(std::string_view container);
// Whether a container of some kind has children of this type.
bool KnownSomewhere(const std::string& type);

// The place where a "moov" that another box hides begins, in a range; 0 if there is none.
std::uint64_t FindMovie(ByteSource& source, std::uint64_t begin, std::uint64_t end);
// The first byte that is not zero from `begin` on; `end` if there is none.
std::uint64_t SkipZeros(ByteSource& source, std::uint64_t begin, std::uint64_t end);
