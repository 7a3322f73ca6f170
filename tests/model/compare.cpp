#include "model/run.h"

#include <algorithm>
#include <fmt/format.h>

namespace model {

namespace {

std::string Text(const Outcome& outcome)
{
    static constexpr const char* kKinds[] = {"returned", "threw kv_mp4_exception",
                                             "threw something else"};
    return fmt::format("{} {} (result {:#x}) after {} log lines",
                       kKinds[static_cast<size_t>(outcome.kind)], outcome.value, outcome.result,
                       outcome.lines);
}

std::string Text(const LogLine& line)
{
    return fmt::format("[{}] {}: {}", line.level, line.unit, line.text);
}

std::string Hex(const Image& image, uint64_t at)
{
    std::string text;
    for (const uint8_t byte :
         image.Read(at, at < image.Size() ? std::min<uint64_t>(16, image.Size() - at) : 0)) {
        text += fmt::format("{:02x} ", byte);
    }
    return text.empty() ? "the end" : text;
}

// Where a byte lies: the boxes around it, as far as their sizes lead there.
std::string Path(const Image& image, uint64_t begin, uint64_t end, uint64_t at)
{
    while (begin + 8 <= end) {
        const Bytes head = image.Read(begin, 16);
        uint64_t size = 0;
        for (size_t i = 0; i < 4; ++i) {
            size = size << 8 | head[i];
        }
        const std::string code(head.begin() + 4, head.begin() + 8);
        if (size == 1) {
            for (size_t i = 8; i < 16; ++i) {
                size = size << 8 | head[i];
            }
        }
        if (size < 8 || begin + size > end) {
            return "?";
        }
        if (at < begin + size) {
            static const std::string kContainers = "moovtrakedtstrefmdiaminfdinfgmhdnmhdstbludta";
            const size_t known = kContainers.find(code);
            uint64_t inside = known != std::string::npos && known % 4 == 0 ? 8 : 0;
            inside = code == "meta" ? 12 : code == "stsd" ? 16 : inside;
            if (inside != 0 && at >= begin + inside) {
                return code + "/" + Path(image, begin + inside, begin + size, at);
            }
            return fmt::format("{}+{}", code, at - begin);
        }
        begin += size;
    }
    return "?";
}

std::string CompareImages(const char* what, const std::optional<Image>& expected,
                          const std::optional<Image>& shown)
{
    if (expected.has_value() != shown.has_value()) {
        return fmt::format("{}: expected {}\n", what, expected ? "a file" : "none");
    }
    if (!expected) {
        return "";
    }
    const auto at = Image::FirstDifference(*expected, *shown);
    if (!at) {
        return "";
    }
    return fmt::format(
        "{} (expected {} bytes, shows {}) differs at {}, {}\n  expected {}\n  shows    {}\n", what,
        expected->Size(), shown->Size(), *at, Path(*expected, 0, expected->Size(), *at),
        Hex(*expected, *at), Hex(*shown, *at));
}

Image ImageOf(const Bytes& bytes)
{
    Image image;
    image.Write(0, bytes.data(), bytes.size());
    return image;
}

std::string CompareBytes(const char* what, const Bytes& expected, const Bytes& shown)
{
    return expected == shown ? "" : CompareImages(what, ImageOf(expected), ImageOf(shown));
}

std::string CompareOutcomes(const Observed& expected, const Observed& shown,
                            const std::vector<std::string>& calls)
{
    for (size_t i = 0; i < expected.outcomes.size(); ++i) {
        const Outcome& e = expected.outcomes[i];
        const Outcome& s = shown.outcomes[i];
        const size_t lines = std::max(e.lines, s.lines);
        for (size_t line = i == 0 ? 0 : expected.outcomes[i - 1].lines; line < lines; ++line) {
            const std::string wanted = line < e.lines ? Text(expected.lines[line]) : "no line";
            const std::string got = line < s.lines ? Text(shown.lines[line]) : "no line";
            if (wanted != got) {
                return fmt::format("call {} ({}) logs\n  expected {}\n  shows    {}\n", i, calls[i],
                                   wanted, got);
            }
        }
        if (e.kind != s.kind || e.value != s.value || e.result != s.result) {
            return fmt::format("call {} ({})\n  expected {}\n  shows    {}\n", i, calls[i], Text(e),
                               Text(s));
        }
        if (e.infoSize != 0 && e.infoSize != s.infoSize) {
            return fmt::format("call {} ({}): info file on the disk: expected {}, shows {}\n", i,
                               calls[i], e.infoSize, s.infoSize);
        }
    }
    return "";
}

std::string Text(const SinkCall& call)
{
    static constexpr const char* kKinds[] = {"open", "write", "read", "tell",
                                             "seek", "flush", "close"};
    return fmt::format("{} {} after {} bytes", kKinds[static_cast<size_t>(call.kind)],
                       call.argument, call.stream);
}

std::string CompareSinks(const Observed& expected, const Observed& shown)
{
    const auto [e, s] = std::mismatch(expected.sinkCalls.begin(), expected.sinkCalls.end(),
                                      shown.sinkCalls.begin(), shown.sinkCalls.end());
    if (e != expected.sinkCalls.end() || s != shown.sinkCalls.end()) {
        return fmt::format("sink call {}:\n  expected {}\n  shows    {}\n",
                           e - expected.sinkCalls.begin(),
                           e == expected.sinkCalls.end() ? "none" : Text(*e),
                           s == shown.sinkCalls.end() ? "none" : Text(*s));
    }
    if (const std::string text =
            CompareBytes("bytes handed to the sink", expected.sinkStream, shown.sinkStream);
        !text.empty()) {
        return text;
    }
    if (expected.sinkFailures != shown.sinkFailures) {
        return fmt::format("failures of the sink: expected {}, shows {}\n", expected.sinkFailures,
                           shown.sinkFailures);
    }
    size_t at = 0;
    for (const SinkWrite& write : expected.sinkWrites) {
        const auto& writes = shown.sinkWrites;
        // Several begin at one byte where the sink takes none of it.
        while (at < writes.size() &&
               (writes[at].stream < write.stream ||
                (writes[at].stream == write.stream && writes[at].size != write.size))) {
            ++at;
        }
        if (at == writes.size() || writes[at].stream != write.stream) {
            return fmt::format("byte {} handed to the sink begins no write of {} bytes\n",
                               write.stream, write.size);
        }
    }
    return "";
}

std::string CompareCheckpoints(const Observed& expected, const Observed& shown)
{
    for (size_t i = 0; i < expected.checkpoints.size(); ++i) {
        Checkpoint point = expected.checkpoints[i];
        const Image& disk = shown.checkpoints[i].image;
        const uint64_t end = std::min(point.end, disk.Size());
        if (point.begin < end) {
            const Bytes own = disk.Read(point.begin, static_cast<size_t>(end - point.begin));
            point.image.Write(point.begin, own.data(), own.size());
        }
        const std::string text = CompareImages(
            fmt::format("the disk after the checkpoint of call {}", point.call).c_str(),
            point.image, disk);
        if (!text.empty()) {
            return text;
        }
    }
    return "";
}

std::string CompareObserved(const Observed& expected, const Observed& shown,
                            const std::vector<std::string>& calls)
{
    std::string text = CompareOutcomes(expected, shown, calls);
    if (text.empty() && expected.printed != shown.printed) {
        text = fmt::format("printed:\n--- expected\n{}--- shows\n{}---\n", expected.printed,
                           shown.printed);
    }
    if (text.empty()) {
        text = CompareCheckpoints(expected, shown);
    }
    if (text.empty()) {
        text = CompareSinks(expected, shown);
    }
    if (text.empty()) {
        text = CompareImages("media file", expected.media, shown.media);
    }
    if (text.empty() && expected.info.has_value() != shown.info.has_value()) {
        text = fmt::format("info file: expected {}\n", expected.info ? "one" : "none");
    }
    if (text.empty() && expected.info) {
        text = CompareBytes("info file", *expected.info, *shown.info);
    }
    if (text.empty() && expected.infoIsLeft != shown.infoIsLeft) {
        text = fmt::format("info file at the end: expected {}\n",
                           expected.infoIsLeft ? "there" : "gone");
    }
    return text;
}

}  // namespace

std::string Compare(const Result& expected, const Result& shown, const Sequence& sequence)
{
    std::vector<std::string> calls = {Describe(sequence.opening)};
    // Named only when they differ: the texts take longer than the calls.
    std::string text;
    calls.resize(sequence.steps.size() + 1);
    text = CompareObserved(expected.recording, shown.recording, calls);
    if (!text.empty()) {
        for (size_t i = 0; i < sequence.steps.size(); ++i) {
            calls[i + 1] = Describe(sequence.steps[i]).substr(0, 100);
        }
        return CompareObserved(expected.recording, shown.recording, calls);
    }
    if (expected.repair) {
        text = CompareObserved(*expected.repair, *shown.repair, {"repair", "repair again"});
        text = text.empty() ? "" : "repair: " + text;
    }
    return text;
}

}  // namespace model
