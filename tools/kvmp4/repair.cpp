#include "repair.h"

#include "box_tree.h"
#include "failure.h"
#include "file_report.h"
#include "log_report.h"
#include "system.h"

#include <kv_mp4.h>

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr std::size_t kLongestPath = 1018;  // characters, as the library has it

// What a repair would leave, worked out beforehand.
struct Plan {
    std::array<std::uint64_t, kTracks> kept{};    // samples that the new index names
    std::array<std::uint64_t, kTracks> broken{};  // of these, the ones whose data is not all there
    std::uint64_t unlogged = 0;  // bytes behind the last sample kept, empty room included
    std::string refusal;         // why not, as a sentence's end; empty: nothing speaks against it
    bool hopeless = false;       // the library would do nothing: not even --force helps
};

std::uint64_t Sum(const std::array<std::uint64_t, kTracks>& counts)
{
    std::uint64_t sum = 0;
    for (const std::uint64_t count : counts)
        sum += count;
    return sum;
}

// Throws where the log is no log at all.
void CheckLog(const std::string& path, const LogReport& log)
{
    const bool none = log.size > 0 && !(log.flags & MP4_OPEN_INFO_FILE);
    if (none || (log.packets == 0 && !log.damage.empty()))
        throw Failure(kExitNotALog, path + " is not the log of a recording");
}

Plan MakePlan(const std::string& path, const FileReport& file, const LogReport& log)
{
    Plan plan;
    const std::uint64_t room = std::min(file.size, log.indexStart);
    for (const LogReport::Sample& sample : log.samples) {
        ++plan.kept[sample.track];
        plan.broken[sample.track] += sample.end > room;
    }
    plan.unlogged = file.size > log.dataEnd ? file.size - log.dataEnd : 0;

    const bool announced = log.tracks[kVideoTrack].announced || log.tracks[kAudioTrack].announced;
    const bool movPath = path.find("mov") != std::string::npos;
    // The index of a recording without 64-bit sizes has 32 bits for the place of a sample.
    const bool tooLong = !(log.flags & MP4_OPEN_LARGE_FILE) &&
                         log.indexStart > std::numeric_limits<std::uint32_t>::max();
    if (const std::string writer = std::max(Writer(path), Writer(path + ".info")); !writer.empty())
        plan.refusal = writer + " is still writing it";
    else if (!log.hasHeader)
        plan.refusal = "the log ends in its header, and a repair would empty the file";
    else if (file.size < log.mdatPosition + 8)
        plan.refusal = "the file ends before its data begins, and a repair would empty it";
    else if (!HoldsMediaData(path, log.mdatPosition))
        plan.refusal = "the log belongs to another file: the data does not begin where it says";
    else if (!announced && !log.damage.empty())
        plan.refusal = "the log is damaged before its first track";
    else if (!announced)
        plan.refusal =
            "the log names no video and no audio track, and a repair would empty the file";
    else if (Sum(plan.kept) == 0)
        plan.refusal =
            "the log names no sample but the one that is lost, and a repair would cut all "
            "data away";
    else if (file.index && file.Samples() > Sum(plan.kept) - Sum(plan.broken))
        plan.refusal = fmt::format("the file plays as it lies with {} samples, and a repair would "
                                   "leave {}",
                                   file.Samples(), Sum(plan.kept) - Sum(plan.broken));
    else if (tooLong)
        plan.refusal =
            "its data go beyond 4 GiB, it was not recorded as a large file, and a repaired "
            "one would not play";
    else if (file.hasType && movPath != file.quickTime)
        plan.refusal =
            file.quickTime
                ? "this is a QuickTime file, but its path does not contain \"mov\": give "
                  "it the path that it was recorded to"
                : "this is an MP4 file, but its path contains \"mov\": give it the path "
                  "that it was recorded to";
    plan.hopeless =
        log.hasHeader && file.size >= log.mdatPosition + 8 && !announced && !log.damage.empty();
    return plan;
}

// "288 video and 449 audio samples"
std::string Samples(const std::array<std::uint64_t, kTracks>& counts)
{
    std::string text;
    for (std::size_t track = 0; track < kTracks; ++track)
        if (counts[track] != 0)
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", counts[track],
                                kTrackNames[track]);
    return text.empty() ? "no samples" : text + " samples";
}

std::array<std::uint64_t, kTracks> Reachable(const FileReport& file)
{
    std::array<std::uint64_t, kTracks> counts{};
    for (std::size_t track = 0; track < kTracks; ++track)
        counts[track] = file.tracks[track].reachable;
    return counts;
}

// How long the log's recording is; it knows the beginning of its last sample, not its end.
double Seconds(const LogReport& log)
{
    return std::ranges::max(log.tracks, {}, &LoggedTrack::seconds).seconds;
}

void PrintFindings(const RepairOptions& options, const FileReport& file, const LogReport& log,
                   const Plan& plan)
{
    fmt::print("{}: {} bytes, its log: {} bytes\n", options.file, file.size, log.size);
    for (std::size_t i = 0; i < kTracks; ++i)
        if (log.tracks[i].announced || log.tracks[i].samples != 0)
            fmt::print("  {:<9}  {} samples to be saved{}{}\n", kTrackNames[i],
                       log.tracks[i].samples, log.tracks[i].codec.empty() ? "" : ", ",
                       log.tracks[i].codec);
    if (file.index)
        fmt::print("The file plays as it lies: {:.1f} s, {}.\n", file.Seconds(),
                   Samples(Reachable(file)));
    else
        fmt::print("The file does not play as it lies.\n");
    fmt::print("A repair keeps {:.1f} s, {}.\n", Seconds(log), Samples(plan.kept));
    if (!log.damage.empty())
        fmt::print("The log is damaged at byte {} of {} ({}): what follows is lost.\n",
                   log.damageAt, log.size, log.damage);
    else
        fmt::print("The last packet of the log is lost{}.\n",
                   log.lost.empty() ? "" : " (" + log.lost + ")");
    if (plan.unlogged != 0 && !log.damage.empty())
        fmt::print(
            "The {} bytes behind the last sample before the damage are not cut, but the index is "
            "written over the first of them; they may hold frames: keep a copy (--backup).\n",
            plan.unlogged);
    else if (plan.unlogged != 0)
        fmt::print(
            "The {} bytes behind the last sample of the log are cut; they may hold frames that "
            "it does not name.\n",
            plan.unlogged);
    if (Sum(plan.broken) != 0)
        fmt::print("The data of {} is not all there: they stay in, but broken.\n",
                   Samples(plan.broken));
}

Json Tracks(const std::array<std::uint64_t, kTracks>& counts)
{
    Json object = Json::object();
    for (std::size_t i = 0; i < kTracks; ++i)
        if (counts[i] != 0)
            object[kTrackNames[i]] = counts[i];
    return object;
}

Json Describe(const FileReport& file)
{
    return {{"size", file.size},
            {"plays", file.index.has_value()},
            {"seconds", file.Seconds()},
            {"samples", Tracks(Reachable(file))}};
}

Json Describe(const FileReport& file, const LogReport& log, const Plan& plan)
{
    Json tracks = Json::array();
    for (std::size_t i = 0; i < kTracks; ++i)
        if (log.tracks[i].announced || log.tracks[i].samples != 0)
            tracks.push_back({{"kind", kTrackNames[i]},
                              {"codec", log.tracks[i].codec},
                              {"samples", log.tracks[i].samples},
                              {"seconds", log.tracks[i].seconds}});
    Json damage;
    if (!log.damage.empty())
        damage = {{"byte", log.damageAt}, {"what", log.damage}};
    return {{"file", Describe(file)},
            {"log", {{"size", log.size}, {"tracks", tracks}, {"damage", damage}}},
            {"keeps", {{"seconds", Seconds(log)}, {"samples", Tracks(plan.kept)}}},
            {"loses",
             {{"last_packet", log.lost},
              {"broken_samples", Tracks(plan.broken)},
              {"unlogged_bytes", plan.unlogged}}}};
}

void Copy(const std::string& from, const std::string& to)
{
    if (const std::error_code failure = CopyFile(from, to))
        throw Failure(kExitOutput, "the backup " + to + " cannot be made: " + failure.message());
}

// A checkpoint in a large file replaces the mark of the 64-bit size, and a repair writes that size
// alone: without its mark nothing finds the index.
void RestoreLargeSizeMark(const std::string& path, const LogReport& log)
{
    if (!(log.flags & MP4_OPEN_LARGE_FILE))
        return;
    constexpr char kMark[] = {0, 0, 0, 1};
    errno = 0;
    std::fstream file(PathOf(path), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(log.mdatPosition));
    const bool done = file.write(kMark, sizeof kMark) && file.flush();
    const int error = errno;
    if (!done)
        throw Failure(kExitWrite, "the repair of " + path + " failed: " +
                                      std::generic_category().message(error));
}

class Run {
public:
    explicit Run(const RepairOptions& options) : m_options(options)
    {
        m_json["path"] = options.file;
    }

    int Go()
    {
        const std::string log = LogPath();
        CheckPaths(log);
        m_file = ReadFile(m_options.file);
        m_log = ReadLog(log);
        CheckLog(log, m_log);
        m_plan = MakePlan(m_options.file, m_file, m_log);
        m_json["found"] = Describe(m_file, m_log, m_plan);
        if (!m_options.json)
            PrintFindings(m_options, m_file, m_log, m_plan);

        if (!m_plan.refusal.empty() && (!m_options.force || m_plan.hopeless))
            throw Failure(kExitRefused,
                          m_options.file + " is left as it is: " + m_plan.refusal +
                              (m_plan.hopeless ? "" : " (--force does it all the same)"));
        if (m_options.dryRun) {
            m_json["action"] = "none";
            if (!m_options.json)
                fmt::print("Nothing was changed.\n");
            return m_log.damage.empty() ? kExitOk : kExitPartly;
        }
        if (m_options.backup) {
            Copy(m_options.file, m_options.file + ".bak");
            Copy(log, m_options.file + ".bak.info");
            m_json["backup"] = m_options.file + ".bak";
        }
        return Change();
    }

    void Fail(const Failure& failure)
    {
        m_json["action"] = failure.code == kExitWrite ? "failed" : "none";
        m_json["error"] = failure.what();
        Finish(failure.code);
    }
    void Finish(int code)
    {
        m_json["exit_code"] = code;
        if (m_options.json)
            fmt::print("{}\n", m_json.dump(2, ' ', false, Json::error_handler_t::replace));
    }

private:
    std::string LogPath() const { return m_options.file + ".info"; }

    void CheckPaths(const std::string& log) const
    {
        const std::string& path = m_options.file;
        std::error_code error;
        if (!IsUtf8(path))
            throw Failure(kExitUsage,
                          "the path of the file is not valid UTF-8, and the library could "
                          "take it for another one: rename the file and its log first");
        if (path.size() > kLongestPath)
            throw Failure(kExitUsage, "the path of the file is too long");
        const fs::file_status status = fs::status(PathOf(path), error);
        if (!fs::exists(status) || !fs::is_regular_file(status))
            throw Failure(kExitInput, "the file " + path + " cannot be opened: " +
                                          (fs::exists(status) ? "not a regular file"
                                                              : error.message()));
        if (const std::error_code no = MayOpen(path, !m_options.dryRun))
            throw Failure(kExitInput,
                          "the file " + path + " cannot be opened: " + no.message());
        if (!fs::exists(fs::symlink_status(PathOf(log), error)))
            throw Failure(kExitNoLog, path + " has no log, " + log +
                                          ": it was closed properly or recorded without --info");
        if (fs::exists(PathOf(log), error) && !fs::is_regular_file(PathOf(log), error))
            throw Failure(kExitLog, "the log " + log + " cannot be read: not a regular file");
    }

    int Change()
    {
        std::uint32_t status = 0;
        {
            const QuietOutput quiet;
            status = mp4_repair_file_ex(m_options.file.c_str(), m_options.deleteLog ? 1 : 0);
        }
        // A damaged log answers with a status too; what came before the damage is saved then.
        if (status != MP4_OK && m_log.damage.empty())
            throw Failure(kExitWrite, "the repair of " + m_options.file + " failed: " +
                                          StatusText(status) + Remains());
        if (Sum(m_plan.kept) != 0)
            RestoreLargeSizeMark(m_options.file, m_log);
        const FileReport result = ReadFile(m_options.file);
        m_json["action"] = "repaired";
        m_json["saved"] = Describe(result);
        if (m_plan.refusal.empty()) {
            for (std::size_t i = 0; i < kTracks; ++i)
                if (!result.index || result.tracks[i].samples != m_plan.kept[i])
                    throw Failure(kExitWrite, "the repair of " + m_options.file +
                                                  " did not save what the log names" + Remains());
        }
        std::error_code error;
        const bool deleted = !fs::exists(fs::symlink_status(PathOf(LogPath()), error));
        m_json["log_deleted"] = deleted;
        if (!m_options.json) {
            fmt::print("Repaired: {} bytes, {:.1f} s, {}.\n", result.size, result.Seconds(),
                       Samples(Reachable(result)));
            if (m_options.deleteLog && !deleted)
                fmt::print("The log {} was not deleted: {}.\n", LogPath(),
                           m_log.damage.empty() ? "the system does not allow it" : "it is damaged");
        }
        return m_log.damage.empty() ? kExitOk : kExitPartly;
    }

    std::string Remains() const
    {
        return m_options.backup ? "; the file as it was is " + m_options.file + ".bak" : "";
    }

    const RepairOptions& m_options;
    FileReport m_file;
    LogReport m_log;
    Plan m_plan;
    Json m_json;
};

}  // namespace

int Repair(const RepairOptions& options)
{
    Run run(options);
    try {
        const int code = run.Go();
        run.Finish(code);
        return code;
    } catch (const Failure& failure) {
        run.Fail(failure);
        throw;
    }
}
