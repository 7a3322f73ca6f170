#include "failure.h"
#include "record.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <csignal>
#include <exception>

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/log.h>
}

namespace {

constexpr char kRecordHelp[] = R"(
Takes H.264, HEVC or ProRes video and AAC audio from the inputs, without re-encoding, and records
them into an MP4 file, or a MOV file where the path contains "mov".

B-frames: a picture has one time in these files. A stream with B-frames is recorded in decoding
order with its decoding times, moved so that the first picture and the sound begin together: these
times rise evenly, and a decoder brings the pictures into their order. Presentation times would fall
from picture to picture, which the file's table of differences cannot hold. Encode without B-frames
(-bf 0) for exact times.

Captions: CEA-608 and CEA-708 come from an .scc file given as an input, from a caption track (c608,
c708) of an input, or from the SEI data of H.264 and HEVC video; the first that is there is taken.
They are recorded as CEA-608, which most readers know, or a c708 track as CEA-708; --caption-format
decides otherwise: 708 keeps all that rides in the video, 608 its two fields. The times of an .scc
file count from the recording's time code, or from its beginning where they lie before that.

Time code: the one of the input's time-code track or metadata, unless --timecode gives or drops it.
It is kept in both kinds of file; most players look for it in MOV files only.

Metadata keys: title, artist, album_artist, composer, album, date, encoding_tool, comment, genre,
copyright, grouping, lyrics, description, synopsis, show, episode_id, network, and any key that
begins with "com.".

Exit codes: 0 recorded; 1 other; 2 usage; 3 the input cannot be opened or read; 4 no usable stream
or a codec that cannot be recorded; 5 the output cannot be created; 6 a write failed.)";

void OnSignal(int)
{
    // A second Ctrl-C ends the process at once.
    if (g_stop.exchange(true))
        std::_Exit(kExitOther);
}

int Fail(ExitCode code, const std::string& sentence)
{
    fmt::print(stderr, "kvmp4: {}\n", sentence);
    return code;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Records live video into MP4 and MOV files.", "kvmp4"};
    app.set_version_flag("--version", "kvmp4 " KVMP4_VERSION);
    app.require_subcommand(1);

    RecordOptions options;
    CLI::App* record = app.add_subcommand("record", "Record from files, pipes, streams or devices");
    record->footer(kRecordHelp);
    record->add_option("-i,--input", options.inputs,
                       "Input: a file, pipe, URL or device; again for audio or captions apart")
        ->required()
        ->expected(1, 3);
    record->add_option("-o,--output", options.output, "The file to record to")->required();
    record->add_option("-f,--format", options.format, "Input format, as FFmpeg names it");
    record->add_option("--video", options.video, "Video stream: auto, none or its index");
    record->add_option("--audio", options.audio, "Audio stream: auto, none or its index");
    record->add_option("--captions", options.captions,
                       "Captions: auto, none, video or a stream's index");
    record->add_option("--caption-format", options.captionFormat,
                       "What the caption track holds: 608 or 708");
    record->add_option("--timecode", options.timeCode,
                       "Time code of the first frame: HH:MM:SS:FF (;FF drops frames), auto, none");
    record->add_option("--fps", options.fps,
                       "Frame rate of a raw stream without times, e.g. 25 or 30000/1001");
    record->add_option("--metadata", options.metadata, "An item key=value; may be repeated")
        ->expected(1)
        ->take_all();
    record->add_option("--duration", options.duration, "Stop after so many seconds")
        ->check(CLI::PositiveNumber);
    record->add_flag("--large-file", options.largeFile, "64-bit sizes, for files beyond 4 GiB");
    record->add_flag("--fast-header", options.fastHeader, "Write the index with a single write");
    record->add_flag("--version1", options.version1, "64-bit durations in the headers");
    record->add_flag("--realtime", options.realtime, "Read a file at the pace of its times");
    record->add_flag("-y,--overwrite", options.overwrite, "Overwrite the output");
    record->add_flag("-v,--verbose", options.verbose, "Show the logs");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? kExitOk : kExitUsage;
    }

    // The library logs through spdlog's default logger, which is ours.
    spdlog::set_default_logger(spdlog::stderr_color_mt("kvmp4"));
    spdlog::set_level(options.verbose ? spdlog::level::info : spdlog::level::off);
    av_log_set_level(options.verbose ? AV_LOG_INFO : AV_LOG_FATAL);
    avdevice_register_all();

    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);

    try {
        Record(options);
    } catch (const Failure& failure) {
        return Fail(failure.code, failure.what());
    } catch (const std::exception& error) {
        return Fail(kExitOther, error.what());
    }
    return kExitOk;
}
