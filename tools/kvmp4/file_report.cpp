#include "file_report.h"

#include "failure.h"
#include "system.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

using Data = std::span<const char>;

std::uint64_t Number(Data data, std::size_t offset, unsigned width)
{
    if (offset + width > data.size())
        throw std::out_of_range("a box ends early");
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value = value << 8 | static_cast<std::uint8_t>(data[offset + i]);
    return value;
}

// The content of the first box with this name among the boxes of `data`, or of the next one behind
// `from`. Boxes must fill their parent exactly.
std::optional<Data> Find(Data data, std::string_view name, std::size_t* from = nullptr)
{
    std::size_t position = from ? *from : 0;
    while (position < data.size()) {
        const std::uint64_t size = Number(data, position, 4);
        if (size < 8 || size > data.size() - position)
            throw std::out_of_range("a box leaves its parent");
        const Data box = data.subspan(position, size);
        position += size;
        if (from)
            *from = position;
        if (std::string_view(box.data() + 4, 4) == name)
            return box.subspan(8);
    }
    return std::nullopt;
}

Data Descend(Data data, std::initializer_list<std::string_view> path)
{
    for (const std::string_view name : path) {
        const auto box = Find(data, name);
        if (!box)
            throw std::out_of_range("a box is missing");
        data = *box;
    }
    return data;
}

// A stretch of the file.
struct Range {
    std::uint64_t begin;
    std::uint64_t end;
};

// How many samples of a track lie inside the data. With time codes a repair writes the index over
// the end of the last sample, which does not count then.
std::uint64_t CountReachable(Data stbl, std::uint64_t samples, std::span<const Range> data)
{
    const Data sizes = Descend(stbl, {"stsz"});
    const Data groups = Descend(stbl, {"stsc"});
    const auto wide = Find(stbl, "co64");
    const Data chunks = wide ? *wide : Descend(stbl, {"stco"});
    const unsigned width = wide ? 8 : 4;
    const std::uint64_t chunkCount = Number(chunks, 4, 4);
    const std::uint64_t groupCount = Number(groups, 4, 4);
    const std::uint64_t oneSize = Number(sizes, 4, 4);
    std::uint64_t sample = 0;
    std::uint64_t reachable = 0;
    for (std::uint64_t group = 0; group < groupCount; ++group) {
        const std::uint64_t first = Number(groups, 8 + 12 * group, 4);
        const std::uint64_t perChunk = Number(groups, 12 + 12 * group, 4);
        const std::uint64_t next =
            group + 1 < groupCount ? Number(groups, 20 + 12 * group, 4) : chunkCount + 1;
        for (std::uint64_t chunk = first; chunk < next && sample < samples; ++chunk) {
            std::uint64_t end = Number(chunks, 8 + width * (chunk - 1), width);
            for (std::uint64_t i = 0; i < perChunk && sample < samples; ++i, ++sample) {
                const std::uint64_t begin = end;
                // Samples that all have 0 bytes need no list, like all of one size.
                if (oneSize != 0 || sizes.size() > 12)
                    end += oneSize != 0 ? oneSize : Number(sizes, 12 + 4 * sample, 4);
                reachable += std::ranges::any_of(data, [&](const Range& range) {
                    return begin >= range.begin && end <= range.end;
                });
            }
        }
    }
    return reachable;
}

void AddTrack(Data trak, std::span<const Range> data, FileReport& report)
{
    const Data mdia = Descend(trak, {"mdia"});
    const Data hdlr = Descend(mdia, {"hdlr"});
    if (hdlr.size() < 12)
        return;
    std::string_view handler(hdlr.data() + 8, 4);
    // The library's caption tracks: the one type word stands first.
    if (const std::string_view first(hdlr.data() + 4, 4); first == "clcp")
        handler = first;
    static constexpr std::string_view kHandlers[] = {"vide", "soun", "clcp", "tmcd"};
    const auto kind = std::ranges::find(kHandlers, handler) - std::begin(kHandlers);
    if (kind == kTracks)
        return;
    IndexedTrack& track = report.tracks[static_cast<std::size_t>(kind)];
    const Data mdhd = Descend(mdia, {"mdhd"});
    const bool wide = Number(mdhd, 0, 1) != 0;
    const std::uint64_t timescale = Number(mdhd, wide ? 20 : 12, 4);
    const std::uint64_t duration = wide ? Number(mdhd, 24, 8) : Number(mdhd, 16, 4);
    track.seconds =
        timescale != 0 ? static_cast<double>(duration) / static_cast<double>(timescale) : 0;
    const Data stbl = Descend(mdia, {"minf", "stbl"});
    track.samples = Number(Descend(stbl, {"stsz"}), 8, 4);
    track.reachable = CountReachable(stbl, track.samples, data);
}

void ReadIndex(Data moov, std::span<const Range> data, FileReport& report)
{
    std::size_t position = 0;
    while (const auto trak = Find(moov, "trak", &position))
        AddTrack(*trak, data, report);
}

std::vector<char> ReadAt(std::ifstream& file, std::uint64_t position, std::uint64_t size)
{
    std::vector<char> bytes(size);
    file.clear();
    file.seekg(static_cast<std::streamoff>(position));
    errno = 0;
    file.read(bytes.data(), static_cast<std::streamsize>(size));
    if (file.bad())
        throw Failure(kExitInput, "the file cannot be read: " +
                                      std::generic_category().message(errno != 0 ? errno : EIO));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return bytes;
}

std::ifstream Open(const std::string& path, std::uint64_t& size)
{
    errno = 0;
    std::ifstream file(PathOf(path), std::ios::binary | std::ios::ate);
    const auto end = file ? static_cast<std::streamoff>(file.tellg()) : -1;
    if (end < 0 || end == std::numeric_limits<std::streamoff>::max())
        throw Failure(kExitInput, "the file " + path + " cannot be read: " +
                                      std::generic_category().message(errno != 0 ? errno : EIO));
    size = static_cast<std::uint64_t>(end);
    return file;
}

}  // namespace

std::uint64_t FileReport::Samples() const
{
    std::uint64_t sum = 0;
    for (const IndexedTrack& track : tracks)
        sum += track.reachable;
    return sum;
}

double FileReport::Seconds() const
{
    return std::ranges::max(tracks, {}, &IndexedTrack::seconds).seconds;
}

FileReport ReadFile(const std::string& path)
{
    FileReport report;
    std::ifstream file = Open(path, report.size);
    std::vector<char> moov;
    std::vector<Range> data;
    std::uint64_t position = 0;
    while (position + 8 <= report.size) {
        const std::vector<char> head = ReadAt(file, position, 16);
        if (head.size() < 8)
            break;
        std::uint64_t size = Number(head, 0, 4);
        const std::string_view name(head.data() + 4, 4);
        if (size == 0 && name == "mdat" && report.index)
            size = report.size - position;
        if (size == 1)
            size = head.size() == 16 ? Number(head, 8, 8) : 0;
        if (name == "ftyp" && head.size() >= 12) {
            report.hasType = true;
            report.quickTime = std::string_view(head.data() + 8, 4) == "qt  ";
        }
        if (name == "mdat" && report.index && size > report.size - position)
            size = report.size - position;  // cut off behind its index
        if (size < 8 || size > report.size - position)
            break;
        if (name == "mdat")
            data.push_back({position, position + size});
        if (name == "moov" && !report.index) {
            report.index = position;
            moov = ReadAt(file, position + 8, size - 8);
        }
        position += size;
    }
    if (report.index) {
        try {
            ReadIndex(moov, data, report);
        } catch (const std::out_of_range&) {
            report.index.reset();  // damaged: as good as none
            report.tracks = {};
        }
    }
    return report;
}

bool HoldsMediaData(const std::string& path, std::uint64_t position)
{
    std::uint64_t size = 0;
    std::ifstream file = Open(path, size);
    const std::vector<char> head = ReadAt(file, position, 8);
    return head.size() == 8 && std::memcmp(head.data() + 4, "mdat", 4) == 0;
}
