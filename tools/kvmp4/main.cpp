#include "failure.h"
#include "inspect.h"
#include "repair.h"
#include "system.h"
#include "verify.h"
#if KVMP4_CAN_RECORD
#include "record.h"
#endif

#include <CLI/CLI.hpp>
#include <fmt/core.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#if KVMP4_CAN_RECORD
extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/log.h>
}
#endif

namespace {

#if KVMP4_CAN_RECORD

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

Sudden ends: with --safe the file holds an index of what came before the last checkpoint, and plays
up to there however the recording ended. Checkpoints lie some distance apart, in bytes: at R bits a
second a distance of D bytes is 8 D / R seconds that may be lost, 17 s for the 10 MiB that are the
least by default at 5 Mb/s. --safe-min is the first and the smallest distance, --safe-max the largest,
reached at --safe-threshold; either draws the other along where that is not given. Keep both above the
size of the index and of two frames. --info keeps a log beside the file, OUTPUT.info, from which
"kvmp4 repair" saves all that reached it; it is flushed every --info-flush video frames, and is gone
after a proper end.

--profile low-loss is --safe and --info with a checkpoint each second, whatever the bit rate, and
with a log that is at most a second old. A killed recording loses less than 2 s after a repair. As it
lies it does so too, unless the bit rate has just fallen steeply, or 2 s take less space than the
index, which grows by up to 1.5 KB a second: checkpoints keep that distance at least. With --safe a
recording beyond 4 GiB plays once it has ended properly; one that was killed there needs a repair.

Metadata keys: title, artist, album_artist, composer, album, date, encoding_tool, comment, genre,
copyright, grouping, lyrics, description, synopsis, show, episode_id, network, and any key that
begins with "com.".

Exit codes: 0 recorded; 1 other; 2 usage; 3 the input cannot be opened or read; 4 no usable stream
or a codec that cannot be recorded; 5 the output cannot be created; 6 a write failed.)";

void Interrupt([[maybe_unused]] int signal)
{
    // A second Ctrl-C ends the process at once. A terminal that closes tells that more than once.
    bool urgent = g_stop.exchange(true);
#if defined(SIGHUP)
    urgent = urgent && signal != SIGHUP;
#endif
    if (urgent)
        std::_Exit(kExitOther);
}

CLI::App* AddRecord(CLI::App& app, RecordOptions& options)
{
    CLI::App* const record = app.add_subcommand("record", "Record from files, pipes, streams or devices");
    record->footer(kRecordHelp);
    record->add_option("-i,--input", options.inputs,
                       "Input: a file, pipe, URL or device; again for audio or captions apart")
        ->required()
        ->expected(1, 3);
    record->add_option("-o,--output", options.output, "The file to record to")->required();
    record->add_option("-f,--format", options.format, "Input format, as FFmpeg names it");
    record->add_option("--video", options.video,
                       "Video stream: auto, none, STREAM or INPUT:STREAM, from 0 on");
    record->add_option("--audio", options.audio,
                       "Audio stream: auto, none, STREAM or INPUT:STREAM, from 0 on");
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
    record->add_flag("--large-file,!--no-large-file", options.largeFile,
                     "64-bit sizes (default); without them a recording ends below 4 GiB");
    record->add_flag("--fast-header", options.fastHeader, "Write the index with a single write");
    record->add_flag("--version1,!--no-version1", options.version1,
                     "64-bit durations (default); without them they wrap at 2^32 ticks");
    SafetyOptions& safety = options.safety;
    record->add_flag("--safe", safety.safe, "Write checkpoints, so that a killed recording plays");
    record->add_option("--safe-strategy", safety.strategy,
                       "How the distance grows: fixed, linear (default) or stepped")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, std::uint32_t>{{"fixed", 0}, {"linear", 1}, {"stepped", 2}}));
    record->add_option("--safe-min", safety.minInterval, "First and smallest distance (10MiB)")
        ->transform(CLI::AsSizeValue(false));
    record->add_option("--safe-max", safety.maxInterval, "Largest distance (100MiB)")
        ->transform(CLI::AsSizeValue(false));
    record->add_option("--safe-threshold", safety.threshold,
                       "File size that has the largest distance (1GiB)")
        ->transform(CLI::AsSizeValue(false));
    record->add_flag("--info", safety.info, "Keep a log for \"kvmp4 repair\", OUTPUT.info");
    record->add_option("--info-flush", safety.infoFlush,
                       "Video frames from flush to flush of the log, 10 or more (900)")
        ->check(CLI::Range(10u, 0xFFFFFFFFu));
    record->add_option("--profile", safety.profile, "low-loss: lose less than 2 s (see below)")
        ->check(CLI::IsMember({"low-loss"}));
    record->add_flag("--realtime", options.realtime, "Read a file at the pace of its times");
    record->add_flag("-y,--overwrite", options.overwrite, "Overwrite the output");
    record->add_flag("-v,--verbose", options.verbose, "Show the logs");
    return record;
}
#endif

constexpr char kRepairHelp[] = R"(
Rebuilds the index of a recording that did not end properly, from the log beside it, FILE.info, which
"kvmp4 record --info" keeps. Says beforehand what both files hold, what will be kept and what lost:
the last packet of the log always is, and so is what had not reached both files. The recorded frames
are neither read nor moved.

A file is left as it is, with exit code 10, where a repair would leave less than there is: where it
would empty the file, or where the file plays as it lies with more than the log knows, as a recording
with --safe does that was killed soon after a checkpoint. --force repairs it all the same. Give the
path that the file was recorded to: a "mov" in it decides its kind.

The log stays, and the repair can be repeated, unless --delete-log removes it; a damaged one always
stays. With --backup both files are copied first, to FILE.bak and FILE.bak.info.

Exit codes: 0 repaired, or nothing speaks against it (--dry-run); 1 other; 2 usage; 3 the file cannot
be opened or read; 5 the backup cannot be made; 6 a write failed, that of the report among them; 7 there
is no log; 8 the log cannot be read; 9 it is not a log; 10 refused; 11 the log is damaged, and what came
before the damage is repaired.)";

constexpr char kVerifyHelp[] = R"(
Judges the structure of an MP4 or MOV file, whoever wrote it: the sizes and the nesting of its boxes,
its tables against each other, the place of every sample, times against durations, parameter sets
against the boxes that describe them, and the form of the samples' bytes. Each finding tells how grave
it is, its kind (docs/verify.md lists them all), the box, the place in the file, what is there and
what should be. Nothing is decoded and nothing changed.

Notes are about what is unusual and meant to be so; they appear with --verbose and in JSON, and
change no verdict.

Exit codes: 0 sound; 12 errors; 13 nothing worse than warnings; 2 usage; 3 the file cannot be opened
or read; 6 the report cannot be written; 14 it is neither an MP4 nor a MOV file.)";

constexpr char kInspectHelp[] = R"(
Shows what an MP4 or MOV file, whoever wrote it, is made of: its tracks in a line each, and its boxes
with their places, sizes and fields; tables as runs, "3 x 40, 2 x 1", cut after a few unless --all is
given. Fragments count in the tracks. Of a damaged file it shows what can be read and tells where
reading met the damage.

Given the log of a recording, FILE.info, it shows its header and tracks and counts its packets;
--packets lists them.

--map draws what lies where: boxes, the data of each track, movies no longer in force (the checkpoints
of a recording with --safe), zeros and bytes that nothing refers to. A name that ends with .html makes
a page, any other an SVG picture.

Exit codes: 0 read whole; 12 damaged, and what could be read is shown; 2 usage; 3 the file cannot be
opened or read; 5 the map cannot be created; 6 a write failed; 14 it is no MP4 or MOV file and no
log.)";

int Fail(ExitCode code, const std::string& sentence)
{
    fmt::print(stderr, "kvmp4: {}\n", sentence);
    return code;
}

// Runs what reports on standard output. A report that is lost there is a write that failed.
template <typename Options>
int Report(int (*run)(const Options&), const Options& options)
{
    int code = kExitOk;
    try {
        code = run(options);
    } catch (const std::system_error&) {
        if (!std::ferror(stdout))
            throw;
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw Failure(kExitWrite, "the report cannot be written to standard output");
    return code;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Records live video into MP4 and MOV files.", "kvmp4"};
    app.set_version_flag("--version", "kvmp4 " KVMP4_VERSION);
    app.require_subcommand(1);
    app.allow_windows_style_options(false);  // a path may begin with a slash

#if KVMP4_CAN_RECORD
    RecordOptions options;
    CLI::App* record = AddRecord(app, options);
#endif

    RepairOptions repairOptions;
    CLI::App* repair = app.add_subcommand("repair", "Repair a recording that was cut off");
    repair->footer(kRepairHelp);
    repair->add_option("file", repairOptions.file, "The recording; its log is FILE.info")
        ->required();
    repair->add_flag("-n,--dry-run", repairOptions.dryRun, "Only say what a repair would do");
    repair->add_flag("--backup", repairOptions.backup, "Copy both files to FILE.bak(.info) first");
    repair->add_flag("--force", repairOptions.force, "Repair even if that leaves less");
    repair->add_flag("--delete-log", repairOptions.deleteLog, "Delete the log after a repair");
    repair->add_flag("--json", repairOptions.json, "Report on standard output as JSON");
    repair->add_flag("-v,--verbose", repairOptions.verbose, "Show the logs");

    InspectOptions inspectOptions;
    CLI::App* inspect = app.add_subcommand("inspect", "Show what a file is made of");
    inspect->footer(kInspectHelp);
    inspect->add_option("file", inspectOptions.file, "The file, or a log, FILE.info")->required();
    inspect->add_flag("--all", inspectOptions.all, "Show tables and texts whole");
    inspect->add_flag("--packets", inspectOptions.packets, "List the packets of a log");
    inspect->add_option("--map", inspectOptions.map, "Draw the file into this SVG or HTML file");
    inspect->add_flag("--json", inspectOptions.json, "Show all as JSON");
    inspect->add_flag("-y,--overwrite", inspectOptions.overwrite, "Overwrite the map");

    VerifyOptions verifyOptions;
    CLI::App* verify = app.add_subcommand("verify", "Judge the structure of an MP4 or MOV file");
    verify->footer(kVerifyHelp);
    verify->add_option("file", verifyOptions.file, "The file")->required();
    verify->add_flag("--tables-only", verifyOptions.tablesOnly, "Do not read the samples' bytes");
    verify->add_flag("--json", verifyOptions.json, "Report as JSON");
    verify->add_flag("-v,--verbose", verifyOptions.verbose, "Tell what is unusual, too");

    try {
        std::vector<std::string> arguments = Arguments(argc, argv);
        std::ranges::reverse(arguments);  // the parser takes them from the back
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? kExitOk : kExitUsage;
    }

    // The library logs through spdlog's default logger, which is ours.
    spdlog::set_default_logger(spdlog::stderr_color_mt("kvmp4"));
    bool verbose = repairOptions.verbose;
#if KVMP4_CAN_RECORD
    verbose = verbose || options.verbose;
    av_log_set_level(options.verbose ? AV_LOG_INFO : AV_LOG_FATAL);
    avdevice_register_all();
    if (record->parsed())
        OnInterrupt(Interrupt);
#endif
    spdlog::set_level(verbose ? spdlog::level::info : spdlog::level::off);
#if !defined(_WIN32)
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
#endif

    try {
        if (repair->parsed())
            return Report(Repair, repairOptions);
        if (inspect->parsed())
            return Report(Inspect, inspectOptions);
        if (verify->parsed())
            return Report(Verify, verifyOptions);
#if KVMP4_CAN_RECORD
        if (record->parsed())
            Record(options);
#endif
    } catch (const Failure& failure) {
        return Fail(failure.code, failure.what());
    } catch (const std::exception& error) {
        return Fail(kExitOther, error.what());
    }
    return kExitOk;
}
