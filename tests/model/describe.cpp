#include "model/sequence.h"

#include <fmt/format.h>

namespace model {

namespace {

std::string Hex(const Bytes& bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        text += fmt::format("{:02x}", byte);
    }
    return text;
}

std::string Hex(const std::string& text)
{
    return Hex(Bytes(text.begin(), text.end()));
}

std::string Describe(const char* name, const ParameterSet& set)
{
    if (!set.bytes && set.size == 0) {
        return "";
    }
    return fmt::format(" {} {}:{}", name, set.size, set.bytes ? Hex(*set.bytes) : "null");
}

constexpr const char* kCalls[] = {
    "set_video",       "set_audio",      "set_subtitle",  "set_time_code",  "set_metadata",
    "set_metadata_ex", "write_video",    "write_audio",   "write_subtitle", "write_time_code",
    "get_duration_ms", "get_moov_size",  "video_bitrate", "audio_bitrate",  "get_safe_param",
    "set_safe_param",  "flush_interval", "close"};

std::string Arguments(const Step& step)
{
    switch (step.call) {
    case Call::SetVideo:
        return fmt::format(" codec {} timescale {} duration {} {}x{} format {}", step.codec,
                           step.timescale, step.time, step.width, step.height, step.number) +
               Describe("vps", step.vps) + Describe("sps", step.sps) + Describe("pps", step.pps);
    case Call::SetAudio:
        return fmt::format(" codec {} timescale {} duration {} rate {} channels {} type {}",
                           step.codec, step.timescale, step.time, step.width, step.height,
                           step.number);
    case Call::SetSubtitle:
        return fmt::format(" codec {} timescale {}", step.codec, step.timescale);
    case Call::SetTimeCode:
        return fmt::format(" timescale {} duration {} frames {} flags {}", step.timescale,
                           step.time, step.number, step.flags);
    case Call::SetMetadata:
    case Call::SetMetadataEx:
        return fmt::format(" key {} value {} size {} type {} namespace {}",
                           step.key ? "\"" + Hex(*step.key) + "\"" : "null", Hex(step.data),
                           step.size, step.type,
                           step.keyNamespace ? "\"" + *step.keyNamespace + "\"" : "null");
    case Call::WriteVideo:
    case Call::WriteAudio:
    case Call::WriteSubtitle:
        return fmt::format(" at {} size {}: {}", step.time, step.data.size(), Hex(step.data));
    case Call::SetSafe:
        return fmt::format(" {} {} {} {}", step.safe[0], step.safe[1], step.safe[2], step.safe[3]);
    case Call::WriteTimeCode:
    case Call::FlushInterval: return fmt::format(" {}", step.number);
    default: return "";
    }
}

std::string Describe(const Fault& fault)
{
    static constexpr const char* kWays[] = {"answers", "throws kv_mp4_exception",
                                            "throws something else"};
    std::string text;
    if (fault.openAnswer != 1) {
        text += fmt::format(" open answers {}", fault.openAnswer);
    }
    if (fault.limit != UINT64_MAX) {
        text += fmt::format(" after {} bytes {} {} errno {}{}", fault.limit,
                            kWays[static_cast<size_t>(fault.way)], fault.answer, fault.error,
                            fault.again ? " from then on" : "");
    }
    if (fault.tellsMinusOne || fault.tellsMore != 0) {
        text += fault.tellsMinusOne ? " tells -1" : fmt::format(" tells {} more", fault.tellsMore);
    }
    return text + (fault.ignoresSeeks ? " ignores seeks" : "");
}

}  // namespace

std::string Describe(const Opening& opening)
{
    static constexpr const char* kNames[] = {"create_file",     "create_file_ex",
                                             "create_file_adv", "create_file_adv_ex",
                                             "kv_open",         "kv_open_ex"};
    std::string text =
        fmt::format("{} {} flags {:#04x} io_mode {}", kNames[static_cast<size_t>(opening.create)],
                    opening.nullPath ? "null" : opening.path, opening.flags, opening.ioMode);
    if (opening.stale) {
        text += " over older files";
    }
    if (!opening.table) {
        text += " no table";
    }
    if (opening.nullOut) {
        text += " no place for the handle";
    }
    if (opening.start != 0) {
        text += fmt::format(" from {} on", opening.start);
    }
    if (opening.ioMode == 2) {
        text += fmt::format(" blocks {} x {}", opening.blockSize, opening.blockCount);
    }
    return text + Describe(opening.fault);
}

std::string Describe(const Step& step)
{
    static constexpr const char* kHandles[] = {"", " null handle", " unknown handle"};
    return fmt::format(
        "{}{}{}{}{}{}", step.front ? "kv_" : "", kCalls[static_cast<size_t>(step.call)],
        kHandles[static_cast<size_t>(step.handle)], step.null ? " null" : "",
        step.error != 0 ? fmt::format(" errno {}", step.error) : "", Arguments(step));
}

std::string Describe(const Repair& repair)
{
    std::string text =
        fmt::format("{}repair{} option {} errno {} runs {}", repair.front ? "kv_" : "",
                    repair.multibyte ? "_ex" : "", repair.option, repair.error, repair.runs);
    text += repair.fit != 0 ? fmt::format(" fit {}", repair.fit) : "";
    text += repair.nullPath ? " null path" : "";
    text += repair.noMedia ? " no media" : "";
    text += repair.noLog ? " no log" : "";
    text += repair.madeUpLog ? " log " + Hex(*repair.madeUpLog) : "";
    if (repair.logCut != UINT64_MAX) {
        text += fmt::format(" log cut {}", repair.logCut);
    }
    for (const auto& [at, bits] : repair.logFlips) {
        text += fmt::format(" flip {}^{:#x}", at, bits);
    }
    if (!repair.logTail.empty()) {
        text += " tail " + Hex(repair.logTail);
    }
    if (repair.mediaCut != UINT64_MAX) {
        text += fmt::format(" media cut {}", repair.mediaCut);
    }
    return text + fmt::format(" media tail {}", repair.mediaTail);
}

std::string Describe(const Sequence& sequence)
{
    std::string text = "    " + Describe(sequence.opening) + "\n";
    for (const Step& step : sequence.steps) {
        text += "    " + Describe(step) + "\n";
    }
    if (sequence.repair) {
        text += "    " + Describe(*sequence.repair) + "\n";
    }
    return text;
}

}  // namespace model
