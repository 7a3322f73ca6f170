// A picture of what lies where in a file: boxes, the data of each track, movies that are no longer
// in force, and bytes that nothing refers to. As SVG, alone or in a page.
#pragma once

#include "movie.h"

#include <string>
#include <vector>

enum class Use { box, movie, data, oldMovie, zeros, unused };

// A stretch of the file. They follow each other without a gap.
struct Region {
    std::uint64_t begin, end;
    Use use;
    std::size_t track;  // of data
    std::string name;
};

std::vector<Region> FileRegions(ByteSource& source, const Box& tree, const Movie& movie);
const char* UseName(Use use);

// The picture. `page` puts it into an HTML page with a list of what it shows.
std::string FileMap(const std::string& title, std::uint64_t size, const Movie& movie,
                    const std::vector<Region>& regions, bool page);
