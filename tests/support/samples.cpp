#include "support/samples.h"

namespace kvtest {

namespace {

std::vector<std::uint64_t> ChunkOffsets(const BoxFile& file, const std::string& stbl)
{
    std::vector<std::uint64_t> offsets;
    const bool wide = file.Has(stbl + "co64");
    const auto words = Words(file.Box(stbl + (wide ? "co64" : "stco")), 16);
    for (std::size_t i = 0; i < words.size(); i += wide ? 2 : 1)
        offsets.push_back(wide ? std::uint64_t{words[i]} << 32 | words[i + 1] : words[i]);
    return offsets;
}

}  // namespace

std::vector<Bytes> Samples(const BoxFile& file, const std::string& track)
{
    const std::string stbl = "moov/" + track + "/mdia/minf/stbl/";
    const auto runs = Words(file.Box(stbl + "stsc"), 16);
    const auto sizes = Words(file.Box(stbl + "stsz"), 12);  // common size, count, sizes
    const auto offsets = ChunkOffsets(file, stbl);
    std::vector<Bytes> samples;
    for (std::size_t chunk = 0, run = 0; chunk < offsets.size(); ++chunk) {
        while (run + 3 < runs.size() && runs[run + 3] <= chunk + 1)
            run += 3;
        std::uint64_t at = offsets[chunk];
        for (std::uint32_t n = 0; n < runs.at(run + 1); ++n) {
            const std::uint32_t size = sizes.at(0) != 0 || sizes.size() == 2
                                           ? sizes.at(0)
                                           : sizes.at(2 + samples.size());
            if (at + size > file.All().size())
                return samples;
            const auto begin = file.All().begin() + static_cast<std::ptrdiff_t>(at);
            samples.emplace_back(begin, begin + size);
            at += size;
        }
    }
    return samples;
}

}  // namespace kvtest
