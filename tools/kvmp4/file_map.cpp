#include "file_map.h"

#include <algorithm>
#include <array>
#include <map>

#include <fmt/format.h>

namespace {

constexpr unsigned kWidth = 1200;
constexpr unsigned kLeft = 110;     // the names of the lanes
constexpr unsigned kRows = 24;      // of the second picture, which has the file row by row
constexpr unsigned kCell = 3;       // its smallest step
constexpr std::size_t kNamed = 40;  // regions that get a line of their own

class RegionFinder {
public:
    RegionFinder(ByteSource& source, const Box& tree, const Movie& movie) : m_source(source)
    {
        for (std::size_t i = 0; i < movie.tracks.size(); ++i)
            for (const Extent& extent : movie.tracks[i].extents)
                if (extent.end > extent.begin)
                    m_data.push_back({extent.begin, extent.end, i});
        std::sort(m_data.begin(), m_data.end(),
                  [](const Data& a, const Data& b) { return a.begin < b.begin; });
        for (const Box& box : tree.children)
            TopLevel(box);
        Fill(source.Size());
    }

    std::vector<Region> Take() { return std::move(m_regions); }

private:
    struct Data {
        std::uint64_t begin, end;
        std::size_t track;
    };

    void Put(std::uint64_t end, Use use, std::size_t track, const std::string& name)
    {
        if (end <= m_at)
            return;
        Region* const last = m_regions.empty() ? nullptr : &m_regions.back();
        if (last && use == Use::data && last->use == use && last->track == track)
            last->end = end;
        else
            m_regions.push_back({m_at, end, use, track, name});
        m_at = end;
    }

    void TopLevel(const Box& box)
    {
        Fill(box.offset);
        if (box.type != "mdat") {
            Put(box.End(), box.type == "moov" ? Use::movie : Use::box, 0, ReadableType(box.type));
            return;
        }
        Put(std::min(box.Inside(), box.End()), Use::box, 0, "mdat");
        auto data =
            std::lower_bound(m_data.begin(), m_data.end(), m_at,
                             [](const Data& one, std::uint64_t at) { return one.end <= at; });
        for (; data != m_data.end() && data->begin < box.End(); ++data) {
            Fill(data->begin);
            Put(std::min(data->end, box.End()), Use::data, data->track, "");
        }
        Fill(box.End());
    }

    // Bytes that nothing refers to, up to `end`: older movies, other remains, zeros.
    void Fill(std::uint64_t end)
    {
        end = std::min(end, m_source.Size());
        while (m_at < end) {
            const std::uint64_t movie = FindMovie(m_source, m_at, end);
            Remains(movie == 0 ? end : movie);
            if (movie == 0)
                return;
            FieldReader f(m_source, movie, end);
            Put(std::min(end, movie + f.U32()), Use::oldMovie, 0, "moov, no longer in force");
        }
    }

    void Remains(std::uint64_t end)
    {
        while (m_at < end) {
            const std::uint64_t zeros = SkipZeros(m_source, m_at, end);
            // A few zeros are nothing special.
            if (zeros - m_at >= 64 || zeros == end)
                Put(zeros, Use::zeros, 0, "zeros");
            if (m_at < end)
                Put(NextZeros(std::max(zeros, m_at), end), Use::unused, 0, "unused");
        }
    }

    // Where a long stretch of zeros begins, from a byte on that is none.
    std::uint64_t NextZeros(std::uint64_t at, std::uint64_t end)
    {
        std::array<std::uint8_t, 0x4000> piece{};
        std::uint64_t run = 0;
        while (at < end) {
            const std::size_t wanted =
                static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), end - at));
            const std::size_t got = m_source.Read(at, piece.data(), wanted);
            if (got == 0)
                return end;
            for (std::size_t i = 0; i < got; ++i) {
                run = piece[i] == 0 ? run + 1 : 0;
                if (run == 256)
                    return at + i + 1 - run;
            }
            at += got;
        }
        return run > 64 ? end - run : end;
    }

    ByteSource& m_source;
    std::vector<Data> m_data;
    std::vector<Region> m_regions;
    std::uint64_t m_at = 0;
};

std::string Escaped(const std::string& text)
{
    std::string out;
    for (const char c : text)
        out += c == '&'   ? "&amp;"
               : c == '<' ? "&lt;"
               : c == '>' ? "&gt;"
               : c == '"' ? "&quot;"
                          : std::string(1, c);
    return out;
}

std::string Size(std::uint64_t bytes)
{
    if (bytes < 10000)
        return fmt::format("{} bytes", bytes);
    double value = static_cast<double>(bytes) / 1024;
    const char* unit = "KiB";
    for (const char* next : {"MiB", "GiB", "TiB"})
        if (value >= 1024) {
            value /= 1024;
            unit = next;
        }
    return fmt::format("{:.1f} {}", value, unit);
}

// Told apart by most eyes, whatever they see of colours.
const char* Colour(const Region& region)
{
    static constexpr std::array<const char*, 6> tracks = {"#0072b2", "#e69f00", "#009e73",
                                                          "#cc79a7", "#56b4e9", "#8c6d31"};
    switch (region.use) {
    case Use::box: return "#222222";
    case Use::movie: return "#d55e00";
    case Use::oldMovie: return "#f0c000";
    case Use::zeros: return "#e8e8e8";
    case Use::unused: return "#a0a0a0";
    default: return tracks[region.track % tracks.size()];
    }
}

class Painter {
public:
    Painter(std::uint64_t size, const Movie& movie, const std::vector<Region>& regions)
        : m_size(std::max<std::uint64_t>(size, 1)), m_movie(movie), m_regions(regions)
    {
    }

    std::string Draw(const std::string& title)
    {
        Line(26, 18, "bold", Escaped(title));
        Line(46, 13, "normal", fmt::format("{} ({} bytes)", Size(m_size), m_size));
        m_y = 64;
        Lanes();
        m_y += 14;
        Line(m_y + 12, 13, "bold", "Row by row");
        m_y += 22;
        Rows();
        m_y += 12;
        Legend();
        return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
                           "viewBox=\"0 0 {0} {1}\" font-family=\"sans-serif\">\n"
                           "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n{2}</svg>\n",
                           kLeft + kWidth + 20, m_y + 10, m_svg);
    }

private:
    void Line(unsigned y, unsigned size, const char* weight, const std::string& text)
    {
        m_svg +=
            fmt::format("<text x=\"10\" y=\"{}\" font-size=\"{}\" font-weight=\"{}\">{}</text>\n",
                        y, size, weight, text);
    }

    std::string LaneOf(const Region& region) const
    {
        if (region.use == Use::data)
            return m_movie.tracks[region.track].handler == "vide"
                       ? fmt::format("track {} video", m_movie.tracks[region.track].id)
                   : m_movie.tracks[region.track].handler == "soun"
                       ? fmt::format("track {} sound", m_movie.tracks[region.track].id)
                       : fmt::format("track {} {}", m_movie.tracks[region.track].id,
                                     ReadableType(m_movie.tracks[region.track].handler));
        return region.use == Use::box || region.use == Use::movie ? "boxes"
               : region.use == Use::oldMovie                      ? "old movies"
                                                                  : "unused";
    }

    // One lane for each kind of use, across the whole file.
    void Lanes()
    {
        std::vector<std::string> names = {"boxes"};
        for (std::size_t i = 0; i < m_movie.tracks.size() && i < 32; ++i)
            names.push_back(LaneOf({0, 0, Use::data, i, ""}));
        names.insert(names.end(), {"old movies", "unused"});
        std::map<std::string, std::vector<const Region*>> lanes;
        for (const Region& region : m_regions)
            lanes[LaneOf(region)].push_back(&region);
        for (const std::string& name : names) {
            m_svg += fmt::format("<text x=\"10\" y=\"{}\" font-size=\"12\">{}</text>\n", m_y + 15,
                                 Escaped(name));
            m_svg += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"20\" "
                                 "fill=\"#f7f7f7\"/>\n",
                                 kLeft, m_y, kWidth);
            Lane(lanes[name]);
            m_y += 24;
        }
    }

    double X(std::uint64_t at) const
    {
        return kLeft + static_cast<double>(at) * kWidth / static_cast<double>(m_size);
    }

    // Regions closer than a pixel are drawn as one.
    void Lane(const std::vector<const Region*>& regions)
    {
        for (std::size_t i = 0; i < regions.size();) {
            const Region& first = *regions[i];
            const double from = X(first.begin);
            double to = std::max(X(first.end), from + 1);
            std::uint64_t bytes = first.end - first.begin;
            std::size_t next = i + 1;
            while (next < regions.size() && X(regions[next]->begin) <= to + 0.5 &&
                   Colour(*regions[next]) == Colour(first)) {
                to = std::max(to, X(regions[next]->end));
                bytes += regions[next]->end - regions[next]->begin;
                ++next;
            }
            // The paler, the less of these pixels it fills.
            const double share = std::clamp(static_cast<double>(bytes) * kWidth /
                                                (static_cast<double>(m_size) * (to - from)),
                                            0.25, 1.0);
            m_svg += fmt::format(
                "<rect x=\"{:.1f}\" y=\"{}\" width=\"{:.1f}\" height=\"20\" "
                "fill=\"{}\" fill-opacity=\"{:.2f}\"><title>{}</title></rect>\n",
                from, m_y, to - from, Colour(first), first.use == Use::data ? share : 1.0,
                Escaped(fmt::format("{} {} to {}, {}",
                                    first.name.empty() ? LaneOf(first) : first.name, first.begin,
                                    regions[next - 1]->end, Size(bytes))));
            i = next;
        }
    }

    // The file from left to right and from row to row, each step in the colour of what fills most
    // of it.
    void Rows()
    {
        constexpr std::uint64_t cells = std::uint64_t{kRows} * (kWidth / kCell);
        std::map<std::string, std::string> paths;
        std::size_t region = 0;
        for (std::uint64_t cell = 0; cell < cells;) {
            const char* const colour = CellColour(cell, cells, region);
            const std::uint64_t row = cell / (kWidth / kCell);
            std::uint64_t end = cell + 1;
            while (colour && end / (kWidth / kCell) == row && end < cells &&
                   CellColour(end, cells, region) == colour)
                ++end;
            if (colour)
                paths[colour] += fmt::format("M{} {}h{}", kLeft + cell % (kWidth / kCell) * kCell,
                                             m_y + row * 12 + 5, (end - cell) * kCell);
            cell = end;
        }
        for (unsigned row = 0; row < kRows; row += 4)
            m_svg += fmt::format("<text x=\"10\" y=\"{}\" font-size=\"10\">{}</text>\n",
                                 m_y + row * 12 + 9, Size(m_size / kRows * row));
        for (const auto& [colour, path] : paths)
            m_svg +=
                fmt::format("<path stroke=\"{}\" stroke-width=\"10\" d=\"{}\"/>\n", colour, path);
        m_y += kRows * 12;
    }

    // `region` is where to look from on; the cells come in order.
    const char* CellColour(std::uint64_t cell, std::uint64_t cells, std::size_t& region) const
    {
        const auto place = [&](std::uint64_t n) {
            return static_cast<std::uint64_t>(static_cast<double>(m_size) * static_cast<double>(n) /
                                              static_cast<double>(cells));
        };
        const std::uint64_t begin = place(cell);
        const std::uint64_t end = std::max(place(cell + 1), begin + 1);
        while (region < m_regions.size() && m_regions[region].end <= begin)
            ++region;
        std::map<const char*, std::uint64_t> bytes;
        for (std::size_t i = region; i < m_regions.size() && m_regions[i].begin < end; ++i) {
            std::uint64_t weight =
                std::min(end, m_regions[i].end) - std::max(begin, m_regions[i].begin);
            // What is small and matters shows all the same.
            if (m_regions[i].use == Use::movie || m_regions[i].use == Use::oldMovie)
                weight += end - begin;
            bytes[Colour(m_regions[i])] += weight;
        }
        const auto most =
            std::max_element(bytes.begin(), bytes.end(),
                             [](const auto& a, const auto& b) { return a.second < b.second; });
        return most == bytes.end() ? nullptr : most->first;
    }

    void Legend()
    {
        std::map<std::string, std::pair<const Region*, std::uint64_t>> sums;
        std::vector<std::string> order;
        for (const Region& region : m_regions) {
            const std::string name = region.use == Use::data ? LaneOf(region) : UseName(region.use);
            auto& [first, bytes] = sums[name];
            if (!first) {
                first = &region;
                order.push_back(name);
            }
            bytes += region.end - region.begin;
        }
        for (const std::string& name : order) {
            const auto& [region, bytes] = sums[name];
            m_svg +=
                fmt::format("<rect x=\"10\" y=\"{}\" width=\"14\" height=\"12\" fill=\"{}\"/>\n"
                            "<text x=\"30\" y=\"{}\" font-size=\"12\">{}: {} ({:.1f}%)</text>\n",
                            m_y, Colour(*region), m_y + 11, Escaped(name), Size(bytes),
                            static_cast<double>(bytes) * 100 / static_cast<double>(m_size));
            m_y += 18;
        }
    }

    const std::uint64_t m_size;
    const Movie& m_movie;
    const std::vector<Region>& m_regions;
    std::string m_svg;
    unsigned m_y = 0;
};

std::string Page(const std::string& title, const std::string& picture,
                 const std::vector<Region>& regions)
{
    std::string rows;
    std::size_t named = 0;
    for (const Region& region : regions)
        if (region.use != Use::data && named++ < kNamed)
            rows +=
                fmt::format("<tr><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n", region.begin,
                            region.end - region.begin, UseName(region.use), Escaped(region.name));
    if (named > kNamed)
        rows += fmt::format("<tr><td colspan=\"4\">and {} more</td></tr>\n", named - kNamed);
    return fmt::format(
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<title>{}</title>\n<style>body{{font-family:sans-serif}}"
        "td{{padding:0 1em;text-align:right}}svg{{max-width:100%;height:auto}}"
        "</style></head>\n<body>\n{}<table>\n<tr><th>at</th><th>bytes</th><th>use</th>"
        "<th>name</th></tr>\n{}</table>\n</body></html>\n",
        Escaped(title), picture, rows);
}

}  // namespace

std::vector<Region> FileRegions(ByteSource& source, const Box& tree, const Movie& movie)
{
    return RegionFinder(source, tree, movie).Take();
}

const char* UseName(Use use)
{
    switch (use) {
    case Use::box: return "box";
    case Use::movie: return "movie in force";
    case Use::data: return "data";
    case Use::oldMovie: return "old movie";
    case Use::zeros: return "zeros";
    default: return "unused";
    }
}

std::string FileMap(const std::string& title, std::uint64_t size, const Movie& movie,
                    const std::vector<Region>& regions, bool page)
{
    const std::string picture = Painter(size, movie, regions).Draw(title);
    return page ? Page(title, picture, regions) : picture;
}
