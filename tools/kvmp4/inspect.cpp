#include "inspect.h"

#include "box_fields.h"
#include "codec_config.h"
#include "failure.h"
#include "file_map.h"
#include "finding_report.h"
#include "info_file.h"
#include "movie.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

using Json = nlohmann::ordered_json;

namespace {

using Print = std::function<void(const std::string&)>;

std::string Value(const Json& value)
{
    return value.is_string() ? value.get<std::string>()
                             : value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Text(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

// "version 0, timescale 1000"
std::string Joined(const Json& fields)
{
    std::string text;
    for (const auto& [name, value] : fields.items())
        text += (text.empty() ? "" : ", ") + name + " " + Value(value);
    return text;
}

// ---- A movie

Json BoxJson(ByteSource& source, const Box& box, const Box& parent, bool all)
{
    Json json = {{"type", ReadableType(box.type)},
                 {"path", box.path},
                 {"offset", box.offset},
                 {"size", box.size}};
    if (box.header != 8)
        json["header"] = box.header;
    if (box.toEnd)
        json["to end"] = true;
    if (box.cut)
        json["cut"] = true;
    if (const Json fields = BoxFields(source, box, parent, all); !fields.empty())
        json["fields"] = fields;
    if (box.container) {
        json["boxes"] = Json::array();
        for (const Box& child : box.children)
            json["boxes"].push_back(BoxJson(source, child, box, all));
    }
    return json;
}

void PrintBoxes(ByteSource& source, const Box& parent, unsigned depth, bool all, const Print& print)
{
    for (const Box& box : parent.children) {
        std::string line = fmt::format("{:>12}{:>13}  {:{}}{}", box.offset, box.size, "", 2 * depth,
                                       ReadableType(box.type));
        if (const Json fields = BoxFields(source, box, parent, all); !fields.empty())
            line += "  " + Joined(fields);
        if (box.header == 16 && box.type != "uuid")
            line += "  (64-bit size)";
        if (box.toEnd)
            line += "  (to the end of the file)";
        if (box.cut)
            line += "  (cut)";
        print(line);
        PrintBoxes(source, box, depth + 1, all, print);
    }
}

const char* KindName(const std::string& handler)
{
    static const std::pair<const char*, const char*> names[] = {
        {"vide", "video"},     {"soun", "audio"},    {"tmcd", "time code"},
        {"clcp", "captions"},  {"text", "text"},     {"sbtl", "subtitles"},
        {"subt", "subtitles"}, {"meta", "metadata"}, {"hint", "hints"}};
    for (const auto& [word, name] : names)
        if (handler == word)
            return name;
    return "other";
}

// What a sample entry says of its codec.
std::string Detail(ByteSource& source, const Track& track)
{
    if (track.entries.empty())
        return "";
    const Box& entry = *track.entries[0].box;
    if (const Box* box = entry.Child("avcC")) {
        const AvcConfig config = ReadAvcConfig(source, *box);
        return "H.264 " + AvcName(config.profile, config.compatibility, config.level);
    }
    if (const Box* box = entry.Child("hvcC")) {
        const HevcProfile profile = ReadHevcConfig(source, *box).profile;
        return "HEVC " + HevcName(profile.profile, profile.tier, profile.level);
    }
    const Box* box = entry.Child("esds") ? entry.Child("esds") : entry.At("wave/esds");
    if (box)
        if (const auto aac = ParseAacConfig(ReadEsds(source, *box).config))
            return fmt::format("AAC type {}, {} Hz, {} channel{}", aac->objectType, aac->outputRate,
                               aac->channels, aac->channels == 1 ? "" : "s");
    return "";
}

double Rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

Json TrackJson(ByteSource& source, const Track& track)
{
    Json json = {{"id", track.id},
                 {"kind", KindName(track.handler)},
                 {"handler", ReadableType(track.handler)},
                 {"codec", track.Codec()}};
    if (const std::string detail = Detail(source, track); !detail.empty())
        json["detail"] = detail;
    if (track.handler == "vide" && !track.entries.empty()) {
        const Box& entry = *track.entries[0].box;
        FieldReader f(source, entry.Inside() + 24, entry.End());
        json["width"] = f.U16();
        json["height"] = f.U16();
    }
    const std::uint64_t samples = track.AllSamples();
    const std::uint64_t keys =
        (track.sync ? track.sync->size() : track.samples) + track.fragmentKeys;
    const double ticks = static_cast<double>(track.TimeSum() + track.fragmentDuration);
    const double seconds = track.timescale == 0 ? 0 : ticks / track.timescale;
    const std::uint64_t bytes = track.DataSize();
    json["timescale"] = track.timescale;
    json["samples"] = samples;
    json["key frames"] = keys;
    json["chunks"] = track.chunks.size();
    if (track.fragments > 0)
        json["fragments"] = track.fragments;
    json["seconds"] = Rounded(seconds);
    json["bytes"] = bytes;
    if (seconds > 0) {
        json["rate"] = Rounded(static_cast<double>(samples) / seconds);
        json["bits a second"] =
            static_cast<std::uint64_t>(std::min(static_cast<double>(bytes) * 8 / seconds, 9e18));
    }
    return json;
}

// "1 sample", "2 samples"
std::string Counted(const Json& count, const char* what)
{
    return fmt::format("{} {}{}", Value(count), what, count == 1 ? "" : "s");
}

std::string TrackLine(const Json& track)
{
    std::string line = fmt::format("track {}: {}, {}", Value(track["id"]), Value(track["kind"]),
                                   Value(track["codec"]));
    if (track.contains("detail"))
        line += " (" + Value(track["detail"]) + ")";
    if (track.contains("width"))
        line += fmt::format(", {} x {}", Value(track["width"]), Value(track["height"]));
    line += ", " + Counted(track["samples"], "sample");
    if (track["kind"] == "video")
        line += ", " + Counted(track["key frames"], "key frame");
    line +=
        fmt::format(", {:.3f} s, {} bytes", track["seconds"].get<double>(), Value(track["bytes"]));
    if (track.contains("rate")) {
        if (track["kind"] == "video")
            line += fmt::format(", {:.2f} a second", track["rate"].get<double>());
        line += fmt::format(", {:.0f} kbit/s", track["bits a second"].get<double>() / 1000);
    }
    line += ", " + Counted(track["chunks"], "chunk");
    if (track.contains("fragments"))
        line += ", " + Counted(track["fragments"], "fragment");
    return line;
}

struct Contents {
    Box tree;
    Movie movie;
    Findings findings;
};

// The movie must stay where it is: it refers to the tree.
void ReadContents(ByteSource& source, Contents& contents)
{
    contents.tree = ReadTree(source, contents.findings);
    contents.movie = ReadMovie(source, contents.tree, contents.findings);
    ReadFragments(source, contents.tree, contents.movie, contents.findings);
}

// What inspect has to say of a damage is where reading met it.
Json Damage(const Findings& findings)
{
    Json list = Json::array();
    for (const Finding& finding : findings.All())
        if (finding.severity == Severity::error)
            list.push_back(FindingJson(finding));
    return list;
}

void ShowMovie(ByteSource& source, const Contents& contents, const InspectOptions& options,
               const Print& print)
{
    if (options.json) {
        Json json = {{"file", ReadableText(options.file)}, {"size", source.Size()}};
        json["tracks"] = Json::array();
        for (const Track& track : contents.movie.tracks)
            json["tracks"].push_back(TrackJson(source, track));
        json["boxes"] = Json::array();
        for (const Box& box : contents.tree.children)
            json["boxes"].push_back(BoxJson(source, box, contents.tree, options.all));
        json["damage"] = Damage(contents.findings);
        print(Text(json));
        return;
    }
    print(fmt::format("{}: {} bytes", options.file, source.Size()));
    for (const Track& track : contents.movie.tracks)
        print("  " + TrackLine(TrackJson(source, track)));
    print("");
    print(fmt::format("{:>12}{:>13}  box", "at", "size"));
    PrintBoxes(source, contents.tree, 0, options.all, print);
    bool first = true;
    for (const Finding& finding : contents.findings.All()) {
        if (finding.severity != Severity::error)
            continue;
        if (first)
            print("\nReading met this (\"kvmp4 verify\" judges all of the file):");
        first = false;
        print(FindingLine(finding));
    }
}

// ---- A log

Json PacketJson(const InfoPacket& packet)
{
    Json json = {{"at", packet.offset}, {"packet", packet.name}};
    for (const auto& [name, value] : packet.fields.items())
        json[name] = value;
    return json;
}

bool ShowInfo(ByteSource& source, const InspectOptions& options, const Print& print)
{
    Json listed = Json::array();
    const auto line = [&](const InfoPacket& packet) {
        return fmt::format("{:>12}  {}  {}", packet.offset, packet.name, Joined(packet.fields));
    };
    std::function<void(const InfoPacket&)> each;
    if (options.packets && options.json)
        each = [&](const InfoPacket& packet) { listed.push_back(PacketJson(packet)); };
    else if (options.packets)
        each = [&](const InfoPacket& packet) { print(line(packet)); };
    const InfoFile info = ReadInfoFile(source, each);
    if (options.json) {
        Json json = {{"file", ReadableText(options.file)},
                     {"size", source.Size()},
                     {"flags", info.flags},
                     {"mdat position", info.mdatPosition},
                     {"packets", info.packets},
                     {"counts", info.counts}};
        json["set up"] = Json::array();
        for (const InfoPacket& packet : info.setUp)
            json["set up"].push_back(PacketJson(packet));
        if (options.packets)
            json["listed"] = listed;
        json["end"] = info.end;
        if (!info.stopped.empty())
            json["stopped"] = info.stopped;
        print(Text(json));
        return !info.damaged;
    }
    print(fmt::format("{}: log of {} bytes", options.file, source.Size()));
    print(fmt::format("  flags {:02X} ({}), mdat at {}", info.flags, InfoFlags(info.flags),
                      info.mdatPosition));
    if (!options.packets)
        for (const InfoPacket& packet : info.setUp)
            print(line(packet));
    std::string counts;
    for (const auto& [name, count] : info.counts.items())
        counts += (counts.empty() ? ": " : ", ") + Value(count) + " x " + name;
    print(fmt::format("  {}{}", Counted(info.packets, "packet"), counts));
    if (!info.stopped.empty())
        print(fmt::format("  ends at {} of {}: {}", info.end, source.Size(), info.stopped));
    return !info.damaged;
}

void WriteMap(ByteSource& source, const Contents& contents, const InspectOptions& options)
{
    const std::filesystem::path path(std::u8string(options.map.begin(), options.map.end()));
    const std::filesystem::path name(std::u8string(options.file.begin(), options.file.end()));
    std::error_code unused;
    if (std::filesystem::equivalent(path, name, unused))
        throw Failure(kExitOutput, fmt::format("the map {} would overwrite the file", options.map));
    if (!options.overwrite && std::filesystem::exists(path, unused))
        throw Failure(kExitOutput,
                      fmt::format("{} is there already (-y overwrites it)", options.map));
    const bool page = path.extension() == ".html" || path.extension() == ".htm";
    const std::u8string title = name.filename().u8string();
    const auto regions = FileRegions(source, contents.tree, contents.movie);
    std::ofstream file(path, std::ios::binary);
    if (!file)
        throw Failure(kExitOutput, fmt::format("cannot create {}", options.map));
    file << FileMap(ReadableText(std::string(title.begin(), title.end())), source.Size(),
                    contents.movie, regions, page);
    if (!file.flush())
        throw Failure(kExitWrite, fmt::format("cannot write {}", options.map));
}

}  // namespace

int Inspect(const InspectOptions& options)
{
    FileSource source;
    if (const std::string trouble = source.Open(options.file); !trouble.empty())
        throw Failure(kExitInput, fmt::format("cannot read {}: {}", options.file, trouble));
    const Print print = [](const std::string& line) { fmt::print("{}\n", line); };
    Contents contents;
    ReadContents(source, contents);
    if (!LooksLikeBoxFile(contents.tree)) {
        if (!LooksLikeInfoFile(source))
            throw Failure(kExitNotAMovie,
                          fmt::format("{} is no MP4 or MOV file and no log of one", options.file));
        if (!options.map.empty())
            throw Failure(kExitUsage, "a log has no map");
        return ShowInfo(source, options, print) ? kExitOk : kExitErrors;
    }
    if (!options.map.empty())
        WriteMap(source, contents, options);
    ShowMovie(source, contents, options, print);
    return contents.findings.Count(Severity::error) > 0 ? kExitErrors : kExitOk;
}

std::string InspectText(ByteSource& source, const std::string& name, bool json)
{
    InspectOptions options;
    options.file = name;
    options.json = json;
    options.packets = true;
    std::string text;
    const Print print = [&text](const std::string& line) { text += line + "\n"; };
    Contents contents;
    ReadContents(source, contents);
    if (!LooksLikeBoxFile(contents.tree)) {
        if (LooksLikeInfoFile(source))
            ShowInfo(source, options, print);
        return text;
    }
    ShowMovie(source, contents, options, print);
    const auto regions = FileRegions(source, contents.tree, contents.movie);
    return text + FileMap(name, source.Size(), contents.movie, regions, json);
}
