// What a strict reader finds wrong with a finished file: boxes in the wrong place, sizes that are
// not exact, tables that disagree, chunks outside mdat, samples that overlap or that their units do
// not fill, durations that the sample times do not give. An empty list is a sound file. It shares
// nothing with the library, and asks for more than the formats do: a table's runs must be as long
// as can be, and a duration must end with one of the track's own deltas.
#pragma once

#include "support/boxes.h"

#include <string>
#include <vector>

namespace kvtest {

// With `filled`, each byte of mdat must belong to a sample too.
std::vector<std::string> CheckFile(const Bytes& bytes, bool filled = false);

// ---- Its part about boxes, in check_shape.cpp

// Boxes that hold others than they should, or that are too long or too short.
std::vector<std::string> CheckShape(const BoxFile& file);
// The types of a box's children with a comma behind each; bytes that are no letters stand as dots.
std::string TypeList(const BoxNode& box);
// Whether a list of types is as a regular expression says.
bool TypesMatch(const std::string& types, const std::string& pattern);

// ---- Its part about codecs, in check_codec.cpp

// What is wrong with an "avcC", "hvcC" or "esds"; empty for nothing.
std::string CheckConfiguration(const BoxFile& file, const BoxNode& box);
// Whether units behind 32-bit lengths fill the bytes from `begin` to `end`.
bool UnitsFill(const BoxFile& file, std::size_t begin, std::size_t end);

}  // namespace kvtest
