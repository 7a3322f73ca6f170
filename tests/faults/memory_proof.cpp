// Records and repairs again and again, each time with another request for memory that is refused,
// until none is left. The library's objects are linked in, so that every request of theirs comes by
// here: operator new as a whole, malloc, calloc and realloc, and the streams of the files.
//
//   memory_proof [--some]
//
// With --some each seventh is refused, where programs are slow.
#include "faults/expectations.h"
#include "faults/memory_requests.h"
#include "recovery/judge.h"
#include "support/descriptors.h"
#include "support/recording.h"
#include "support/repair.h"
#include "support/samples.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <new>
#include <string_view>
#include <tuple>

namespace {

// A caller's own output that asks for no memory while it runs, and notes what it took since the call
// of the library, or the last flush in it, began.
struct Store {
    kvtest::Bytes bytes;
    std::size_t position = 0;
    std::size_t taken = 0;
    std::size_t flushes = 0;
    std::size_t opens = 0;
    std::size_t closes = 0;
};
Store g_store;

bool g_inside = false;         // the library is at work
std::size_t g_asked[5];        // requests of each kind
std::size_t g_left = 0;        // requests until one is refused; 0 never
bool g_forEver = false;
std::size_t g_refused = 0;
std::size_t g_refusedStep = 0;  // of the first
kvtest::Request g_refusedKind;
std::size_t g_taken = 0;        // by the store, when it came
std::size_t g_flushes = 0;

constexpr std::size_t kStoreSize = 1 << 20;

ExternalIoFuncs StoreTable()
{
    ExternalIoFuncs table{};
    table.open = [](void** context, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        *context = &g_store;
        ++g_store.opens;
        return 1;
    };
    table.close = [](void*) { ++g_store.closes; };
    table.tell = [](void*) { return static_cast<std::int64_t>(g_store.position); };
    table.seek = [](void*, std::int64_t offset, std::int32_t origin) {
        const std::size_t from = origin == 0   ? 0
                                 : origin == 1 ? g_store.position
                                               : g_store.bytes.size();
        g_store.position = from + static_cast<std::size_t>(offset);
    };
    table.flush = [](void*) {
        ++g_store.flushes;
        g_store.taken = 0;
    };
    table.read = [](void*, void*, std::uint32_t) -> std::int32_t { return 0; };
    table.write = [](void*, const void* data, std::uint32_t size) -> std::int32_t {
        const std::size_t end = g_store.position + size;
        if (end > g_store.bytes.capacity())
            return 0;
        if (end > g_store.bytes.size())
            g_store.bytes.resize(end);
        std::copy_n(static_cast<const std::uint8_t*>(data), size, &g_store.bytes[g_store.position]);
        g_store.position = end;
        g_store.taken += size;
        return 1;
    };
    return table;
}

}  // namespace

bool kvtest::RefusesRequest(Request request)
{
    if (!g_inside)
        return false;
    ++g_asked[static_cast<int>(request)];
    if (g_left == 0 || --g_left != 0)
        return false;
    if (g_forEver)
        g_left = 1;
    if (g_refused++ == 0) {
        g_refusedStep = Scenario::Now();
        g_refusedKind = request;
        g_taken = g_store.taken;
        g_flushes = g_store.flushes;
    }
    errno = ENOMEM;
    return true;
}

// All of the program's, as the standard has it.
void* operator new(std::size_t size)
{
    void* const data = kvtest::RefusesRequest(kvtest::Request::New)
                           ? nullptr
                           : kvtest::Allocate(size ? size : 1);
    if (!data)
        throw std::bad_alloc();
    return data;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return kvtest::RefusesRequest(kvtest::Request::New) ? nullptr
                                                        : kvtest::Allocate(size ? size : 1);
}
void operator delete(void* data) noexcept
{
    std::free(data);
}
void operator delete(void* data, std::size_t) noexcept
{
    std::free(data);
}
void operator delete(void* data, const std::nothrow_t&) noexcept
{
    std::free(data);
}

namespace kvtest {

namespace {

void Watch(std::size_t n, bool forEver)
{
    g_left = n;
    g_forEver = forEver;
    g_refused = g_refusedStep = 0;
    std::fill(std::begin(g_asked), std::end(g_asked), 0);
}

bool IsOutOfMemory(const StepResult& result)
{
    return result == StepResult{StepResult::kThrewCode, ENOMEM} ||
           result.kind == StepResult::kThrewMemory ||
           result == StepResult{StepResult::kStatus, MP4_ERR_FAILED};
}

// What a log names and a player finds.
bool BringsSample(const FaultStep& step)
{
    return std::string_view(step.name).ends_with("frame") ||
           std::string_view(step.name) == "time code";
}

class Memory {
public:
    Memory(const FaultPlan& plan, bool callbacks, FaultReport& report, std::size_t stride)
        : m_scenario(plan), m_callbacks(callbacks), m_report(report), m_stride(stride),
          m_path(m_folder / plan.file), m_log(m_path.string() + ".info"), m_table(StoreTable())
    {
        g_store.bytes.reserve(kStoreSize);
    }

    bool RunWhole()
    {
        Watch(0, false);
        Run();  // what is asked for once in a process
        Watch(0, false);
        Run();
        m_whole = Media();
        std::copy(std::begin(g_asked), std::end(g_asked), m_asked);
        std::string wrong = CompareResults(m_scenario);
        const bool opens = !m_callbacks || m_scenario.Plan().HasLog();
        if (wrong.empty() && (m_asked[int(Request::New)] == 0 || m_asked[int(Request::Realloc)] == 0 ||
                              (opens && m_asked[int(Request::Open)] == 0)))
            wrong = "nobody asked for objects, tables or files";
        if (wrong.empty() && m_scenario.Plan().HasLog() && !m_callbacks &&
            (m_packets.empty() || m_media.empty()))
            wrong = "no log ahead of the close";
        m_report.Add("nothing", Title(), wrong);
        return wrong.empty();
    }

    void Refuse()
    {
        for (const auto& [name, forEver, again] :
             {std::tuple{", for ever", true, false}, {", once", false, false},
              {", once, and again", false, true}}) {
            const std::string what = (m_callbacks ? "callbacks" : "recording") + std::string(name);
            std::size_t struck[5] = {};
            for (std::size_t n = 1;; n += m_stride) {
                const int descriptor = NextDescriptor();
                Watch(n, forEver);
                Run(again);
                g_left = 0;
                if (g_refused == 0)
                    break;
                ++struck[static_cast<int>(g_refusedKind)];
                const std::string where = Where(n);
                std::string wrong;
                try {
                    wrong = again ? JudgeAgain() : Judge();
                } catch (const std::exception& error) {
                    wrong = "a file that cannot be read: " + std::string(error.what());
                }
                if (wrong.empty() && NextDescriptor() != descriptor)
                    wrong = "a file was left open";
                m_report.Add(what, where, wrong);
            }
            RequireAll(what, struck);
        }
    }

    // The pair that a kill ahead of the close leaves.
    void RefuseRepairs()
    {
        Watch(0, false);
        const StepResult whole = Repair();
        std::copy(std::begin(g_asked), std::end(g_asked), m_asked);
        const Bytes repaired = Content(m_path);
        std::string notRepaired = whole == StepResult{StepResult::kStatus, 0} ? "" : whole.Text();
        if (std::filesystem::exists(m_log) || !BoxFile(repaired).Has("moov/trak.vide"))
            notRepaired += "not repaired";
        m_report.Add("nothing", Title() + ", repair", notRepaired);
        for (const bool forEver : {false, true}) {
            const std::string what = forEver ? "repair, for ever" : "repair, once";
            std::size_t struck[5] = {};
            for (std::size_t n = 1;; n += m_stride) {
                const int descriptor = NextDescriptor();
                Watch(n, forEver);
                const StepResult result = Repair();
                g_left = 0;
                if (g_refused == 0)
                    break;
                ++struck[static_cast<int>(g_refusedKind)];
                std::string wrong = JudgeRepair(result, repaired);
                if (wrong.empty() && NextDescriptor() != descriptor)
                    wrong = "a file was left open";
                m_report.Add(what, Where(n), wrong);
            }
            RequireAll(what, struck);
        }
    }

private:
    std::string Title() const
    {
        return std::string(m_scenario.Plan().name) + (m_callbacks ? ", callbacks" : "");
    }

    std::string Where(std::size_t n) const
    {
        return Title() + ", request " + std::to_string(n) +
               (g_refusedStep < m_scenario.Steps().size()
                    ? ", in step " + std::to_string(g_refusedStep) + ", " +
                          m_scenario.Steps()[g_refusedStep].name
                    : ", in the repair");
    }

    // Every request of the whole run was refused, of each kind as many as there are.
    void RequireAll(const std::string& what, const std::size_t (&struck)[5])
    {
        constexpr const char* names[] = {"new", "malloc", "calloc", "realloc", "fopen"};
        std::size_t asked = 0;
        std::size_t sum = 0;
        for (int kind = 0; kind < 5; ++kind) {
            asked += m_asked[kind];
            sum += struck[kind];
            if (m_stride == 1)
                m_report.Require(what, Title() + ", " + names[kind], struck[kind], m_asked[kind]);
        }
        m_report.Require(what, Title(), sum, std::max<std::size_t>(1, asked / m_stride));
    }

    Bytes Media() const { return m_callbacks ? g_store.bytes : Content(m_path); }

    void Run(bool again = false)
    {
        std::filesystem::remove(m_path);
        std::filesystem::remove(m_log);
        g_store.bytes.clear();
        g_store.position = g_store.opens = g_store.closes = 0;
        m_atFailure.clear();
        const auto around = [this](bool inside) {
            g_inside = false;
            g_store.taken = g_store.flushes = 0;
            // As an application that stops here would leave it.
            if (!inside && g_refused != 0 && m_atFailure.empty())
                m_atFailure = Media();
            if (inside && g_refused == 0 && g_left == 0 &&
                m_scenario.Steps()[Scenario::Now()].answer == Answer::Close) {
                m_media = Media();
                m_packets = Content(m_log);
            }
            g_inside = inside;
        };
        ExternalIoFuncs* const table = m_callbacks ? &m_table : nullptr;
        if (again)
            m_scenario.RunAgain(m_path, table, around);
        else
            m_scenario.Run(m_path, table, around);
    }

    bool Usual(std::size_t n) const
    {
        return m_scenario.Results()[n] ==
               StepResult{StepResult::kStatus, m_scenario.Steps()[n].expected};
    }

    // The step that failed the output: all that look at it answer 1 behind it. None where they do not.
    std::size_t Failed() const
    {
        const auto& steps = m_scenario.Steps();
        const StepResult refused{StepResult::kStatus, MP4_ERR_FAILED};
        std::size_t failed = steps.size();
        for (std::size_t n = steps.size(); n-- > g_refusedStep;) {
            if (BringsSample(steps[n]) && !Usual(n))
                failed = n;
            if (steps[n].answer != Answer::Ignores && m_scenario.Results()[n] != refused)
                break;
        }
        return failed;
    }

    std::string Judge()
    {
        const auto& steps = m_scenario.Steps();
        const auto& results = m_scenario.Results();
        if (m_callbacks && g_store.opens != g_store.closes)
            return "opened " + std::to_string(g_store.opens) + " times, closed " +
                   std::to_string(g_store.closes);
        if (!Usual(0)) {
            if (!IsOutOfMemory(results[0]))
                return "the create: " + results[0].Text();
            return std::filesystem::exists(m_log) ? "no recording, and the log stayed" : "";
        }
        // Nothing that the caller cannot take, and all as ever up to the refusal. A video track that
        // was refused is none, and takes no picture.
        const bool noTrack = steps[g_refusedStep].name == std::string("video track");
        const StepResult ahead{StepResult::kStatus, m_scenario.Plan().proRes
                                                        ? MP4_ERR_PARSE_VIDEO
                                                        : MP4_ERR_NO_VIDEO_TRACK};
        const std::size_t failed = Failed();
        bool told = false;
        for (std::size_t n = 0; n < steps.size(); ++n) {
            told |= !Usual(n);
            if (Usual(n))
                continue;
            const bool ofNoTrack = noTrack && n > g_refusedStep && results[n] == ahead &&
                                   steps[n].name == std::string("video frame");
            const bool may = n >= g_refusedStep && IsOutOfMemory(results[n]) &&
                             (g_forEver || n == g_refusedStep || n > failed);
            if (!may && !ofNoTrack)
                return Told(n);
        }
        if (!told)
            return Media() == m_whole ? "" : "nobody told, and the file is another";
        if (g_refusedStep + 1 < steps.size())
            if (const std::string wrong = JudgeAtFailure(); !wrong.empty())
                return wrong;
        if (const std::string wrong = JudgeWhetherFailed(failed); !wrong.empty())
            return wrong;
        return JudgeEnd(failed);
    }

    // A caller that makes the refused call once more has the whole recording, unless the output
    // failed: byte by byte, but for the id that a track takes and the key that stays of what was
    // half done. A close is not made twice.
    std::string JudgeAgain()
    {
        const auto& steps = m_scenario.Steps();
        const std::size_t failed = Failed();
        const bool closes = steps[g_refusedStep].answer == Answer::Close;
        for (std::size_t n = 0; n < std::min(failed, steps.size() - closes); ++n)
            if (!Usual(n))
                return Told(n);
        if (!BringsSample(steps[g_refusedStep]) && !closes && failed < steps.size())
            return "the output failed";
        const std::string_view name = steps[g_refusedStep].name;
        const bool entersTwice =
            name.ends_with("track") || name == "metadata" || DescribesInStream(g_refusedStep);
        if (failed == steps.size() && !closes && !entersTwice && Media() != m_whole)
            return "called again, and the file is another";
        return JudgeEnd(failed);
    }

    // A frame that its track is announced with.
    bool DescribesInStream(std::size_t n) const
    {
        return m_scenario.Plan().inStream && BringsSample(m_scenario.Steps()[n]) &&
               m_scenario.Steps()[n].packets == 2;
    }

    std::string Told(std::size_t n) const
    {
        return "step " + std::to_string(n) + ", " + m_scenario.Steps()[n].name + ": " +
               m_scenario.Results()[n].Text();
    }

    // The output has failed when bytes of a sample are in it that nothing names, and in a checkpoint.
    std::string JudgeWhetherFailed(std::size_t failed) const
    {
        if (!m_callbacks || g_forEver || Usual(g_refusedStep) ||
            !BringsSample(m_scenario.Steps()[g_refusedStep]))
            return {};
        const bool inCheckpoint = m_scenario.Checkpoints()[g_refusedStep] != 0 && g_flushes < 2;
        const bool fails = inCheckpoint || g_taken != 0;
        return fails == (failed == g_refusedStep) ? ""
               : fails ? "the recording went on behind bytes that nothing names"
                       : "the recording did not go on, though nothing was written";
    }

    // The moov in force stands as it did.
    std::string JudgeAtFailure()
    {
        const auto& checkpoints = m_scenario.Checkpoints();
        const std::string wrong =
            JudgeLastCheckpoint(m_scenario, checkpoints, g_refusedStep, 0, m_atFailure);
        if (!wrong.empty() && checkpoints[g_refusedStep] != 0)
            return JudgeLastCheckpoint(m_scenario, checkpoints, g_refusedStep, 1, m_atFailure);
        return wrong;
    }

    // Every sample that a call answered 0 for is in the file, or can be had from the log.
    std::string JudgeEnd(std::size_t failed)
    {
        const auto& steps = m_scenario.Steps();
        // Where all requests are refused, the last call ahead of the close may have failed by itself.
        const bool over = failed + (g_forEver ? 2 : 1) < steps.size();
        if (Usual(steps.size() - 1)) {
            if (std::filesystem::exists(m_log))
                return "closed, and the log stayed";
            const BoxFile file(Media());
            if (!file.Damage().empty())
                return "closed: " + file.Damage().front();
            for (const Track track : kAllTracks)
                if (const std::string wrong = JudgeTrack(file, track); !wrong.empty())
                    return wrong;
            return {};
        }
        if (over)  // the close has touched nothing
            if (const std::string wrong = JudgeLastCheckpoint(m_scenario, m_scenario.Checkpoints(),
                                                              failed, 0, Media());
                !wrong.empty() &&
                (m_scenario.Checkpoints()[failed] == 0 ||
                 !JudgeLastCheckpoint(m_scenario, m_scenario.Checkpoints(), failed, 1, Media())
                      .empty()))
                return "after the close, " + wrong;
        if (!m_scenario.Plan().HasLog())
            return g_forEver || m_scenario.Plan().IsSafe() || failed >= steps.size() - 1
                       ? ""
                       : JudgeOtherTracks(failed);
        if (!std::filesystem::exists(m_log))
            return "not closed, and the log is gone";
        if (m_callbacks)
            WriteBytes(m_path, g_store.bytes);
        return JudgeKeptLog(m_scenario, m_path, failed);
    }

    // Without a log and a checkpoint the close writes an index, in which only the track that lacked
    // memory may be damaged. Time codes that follow are entered, and their bytes not written.
    std::string JudgeOtherTracks(std::size_t failed) const
    {
        const BoxFile file(Media());
        for (const Track track : kAllTracks) {
            const auto& wanted = m_scenario.Samples().tracks[track];
            if (std::any_of(wanted.begin(), wanted.end(), [](const Sample& sample) {
                    return sample.step == g_refusedStep;
                }))
                continue;
            if (const std::string wrong = JudgeTrack(file, track, failed); !wrong.empty())
                return wrong;
        }
        return {};
    }

    // All samples that a call ahead of `end` answered 0 for, and no others.
    std::string JudgeTrack(const BoxFile& file, Track track, std::size_t end = SIZE_MAX) const
    {
        const auto samples = kvtest::Samples(file, kTrackNames[track]);
        // Behind a picture with all parameter sets that was refused before they were kept, the others
        // wait for new ones.
        if (samples.empty() && track == kVideo && DescribesInStream(g_refusedStep) &&
            !Usual(g_refusedStep))
            return {};
        std::size_t count = 0;
        for (const Sample& sample : m_scenario.Samples().tracks[track]) {
            if (!Usual(sample.step))
                continue;
            const std::size_t n = count++;
            if (sample.step >= end)
                continue;
            if (n >= samples.size() || Hash(samples[n].data(), samples[n].size()) != sample.hash)
                return "closed: " + kvtest::Where(track, n) + " is not intact";
        }
        return samples.size() == count ? "" : WrongCount(track, samples.size(), count);
    }

    StepResult Repair()
    {
        WriteBytes(m_path, m_media);
        WriteBytes(m_log, m_packets);
        StepResult result{StepResult::kStatus, 0};
        const std::string path = Utf8(m_path);
        errno = 0;
        g_inside = true;
        try {
            result.value = mp4_repair_file_ex(path.c_str(), 1);
        } catch (const std::bad_alloc&) {
            result = {StepResult::kThrewMemory, 0};
        } catch (...) {
            result = {StepResult::kThrewOther, 0};
        }
        g_inside = false;
        return result;
    }

    // What could not be cut stays behind the file, covered by one box.
    std::string JudgeRepair(const StepResult& result, const Bytes& repaired)
    {
        const Bytes media = Content(m_path);
        if (result == StepResult{StepResult::kStatus, 0}) {
            if (media.size() < repaired.size() ||
                !std::equal(repaired.begin(), repaired.end(), media.begin()))
                return "not repaired";
            if (media.size() == repaired.size())
                return {};
            return media.size() == m_media.size() && BoxFile(media).Damage().empty()
                       ? ""
                       : "not as a cut that failed leaves it";
        }
        if (result != StepResult{StepResult::kStatus, MP4_ERR_FAILED})
            return "the repair " + result.Text();
        if (!std::filesystem::exists(m_log))
            return "the log is gone";
        if (media.size() < m_media.size())
            return "the file was cut";
        if (const std::uint32_t again = mp4_repair_file_ex(Utf8(m_path).c_str(), 1); again != 0)
            return "the second repair has status " + std::to_string(again);
        // The same file, but for the samples that the index of what was read so far lay on, and the
        // header of the box that covered what is behind it.
        Span index = BoxFile(media).Find("moov");
        if (index.Found())
            index.end += 8;
        const Bytes second = Content(m_path);
        if (second.size() != repaired.size())
            return "the second repair makes another file";
        for (std::size_t n = 0; n < second.size(); ++n)
            if (second[n] != repaired[n] && (n < index.begin || n >= index.end))
                return "the second repair makes another file, from " + std::to_string(n) + " on";
        return {};
    }

    Scenario m_scenario;
    bool m_callbacks;
    FaultReport& m_report;
    std::size_t m_stride;
    Folder m_folder;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    ExternalIoFuncs m_table;
    std::size_t m_asked[5] = {};  // of a run without a refusal
    Bytes m_whole;
    Bytes m_atFailure;
    Bytes m_media;
    Bytes m_packets;
};

bool ProveMemory(std::size_t stride)
{
    FaultReport report;
    for (const FaultPlan& plan : FaultPlans())
        for (const bool callbacks : {false, true}) {
            Memory proof(plan, callbacks, report, stride);
            if (!proof.RunWhole())
                continue;
            proof.Refuse();
            if (plan.HasLog() && !callbacks)
                proof.RefuseRepairs();
        }
    return report.Print("memory");
}

}  // namespace

}  // namespace kvtest

int main(int count, char** words)
{
    const bool some = count == 2 && words[1] == std::string_view("--some");
    if (count != 1 && !some) {
        std::fprintf(stderr, "usage: memory_proof [--some]\n");
        return 2;
    }
    kvtest::WatchRequests();
    const kvtest::Quiet quiet;
    return !kvtest::ProveMemory(some ? 7 : 1);
}
