// Records and repairs again and again, each time with another request for memory that is refused,
// until none is left. The library's objects are linked in, so that every request of theirs comes by
// here: operator new as a whole, malloc, calloc and realloc, and the streams of the files.
//
//   memory_proof [--some]
//
// With --some each seventh is refused, where programs are slow.
#include "faults/expectations.h"
#include "faults/memory_requests.h"
#include "support/descriptors.h"
#include "support/recording.h"
#include "support/repair.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

namespace {

bool g_inside = false;         // the library is at work
std::size_t g_left = 0;        // requests until one is refused; 0 never
bool g_forEver = false;
std::size_t g_refused = 0;
std::size_t g_refusedStep = 0;  // of the first

}  // namespace

bool kvtest::RefusesRequest()
{
    if (!g_inside || g_left == 0 || --g_left != 0)
        return false;
    if (g_forEver)
        g_left = 1;
    if (g_refused++ == 0)
        g_refusedStep = Scenario::Now();
    errno = ENOMEM;
    return true;
}

// All of the program's, as the standard has it.
void* operator new(std::size_t size)
{
    void* const data = kvtest::RefusesRequest() ? nullptr : kvtest::Allocate(size ? size : 1);
    if (!data)
        throw std::bad_alloc();
    return data;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return kvtest::RefusesRequest() ? nullptr : kvtest::Allocate(size ? size : 1);
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
}

bool IsOutOfMemory(const StepResult& result)
{
    return result == StepResult{StepResult::kThrewCode, ENOMEM} ||
           result.kind == StepResult::kThrewMemory ||
           result == StepResult{StepResult::kStatus, MP4_ERR_FAILED};
}

class Memory {
public:
    Memory(const FaultPlan& plan, FaultReport& report, std::size_t stride)
        : m_scenario(plan), m_report(report), m_stride(stride), m_path(m_folder / plan.file),
          m_log(m_path.string() + ".info")
    {
    }

    bool RunWhole()
    {
        Watch(0, false);
        Run();
        m_whole = Content(m_path);
        const std::string wrong = CompareResults(m_scenario);
        m_report.Add("nothing", m_scenario.Plan().name, wrong);
        return wrong.empty();
    }

    void Refuse()
    {
        for (const bool forEver : {false, true}) {
            for (std::size_t n = 1;; n += m_stride) {
                const int descriptor = NextDescriptor();
                Watch(n, forEver);
                Run();
                g_left = 0;
                if (g_refused == 0)
                    break;
                std::string wrong = Judge();
                if (wrong.empty() && NextDescriptor() != descriptor)
                    wrong = "a file was left open";
                m_report.Add(forEver ? "recording, for ever" : "recording, once",
                             Where(n, forEver), wrong);
            }
        }
    }

    // The pair that a kill ahead of the close leaves.
    void RefuseRepairs()
    {
        Watch(0, false);
        Run();
        if (m_packets.empty())
            return;
        Repair();
        const Bytes repaired = Content(m_path);
        for (const bool forEver : {false, true}) {
            for (std::size_t n = 1;; n += m_stride) {
                const int descriptor = NextDescriptor();
                Watch(n, forEver);
                const StepResult result = Repair();
                g_left = 0;
                if (g_refused == 0)
                    break;
                std::string wrong = JudgeRepair(result, repaired);
                if (wrong.empty() && NextDescriptor() != descriptor)
                    wrong = "a file was left open";
                m_report.Add(forEver ? "repair, for ever" : "repair, once", Where(n, forEver), wrong);
            }
        }
    }

private:
    std::string Where(std::size_t n, bool forEver) const
    {
        return std::string(m_scenario.Plan().name) + ", request " + std::to_string(n) +
               (forEver ? " for ever" : " once") +
               (g_refusedStep < m_scenario.Steps().size()
                    ? std::string(", in the ") + m_scenario.Steps()[g_refusedStep].name
                    : ", in the repair");
    }

    void Run()
    {
        std::filesystem::remove(m_path);
        std::filesystem::remove(m_log);
        m_atFailure.clear();
        m_scenario.Run(m_path, nullptr, [this](bool inside) {
            g_inside = false;
            // As an application that stops here would leave it.
            if (!inside && g_refused != 0 && m_atFailure.empty())
                m_atFailure = Content(m_path);
            if (inside && g_refused == 0 && g_left == 0 &&
                m_scenario.Steps()[Scenario::Now()].answer == Answer::Close) {
                m_media = Content(m_path);
                m_packets = Content(m_log);
            }
            g_inside = inside;
        });
    }

    std::string Judge()
    {
        const auto& steps = m_scenario.Steps();
        const auto& results = m_scenario.Results();
        // Nothing that the caller cannot take, and all as ever up to the refusal. A video track that
        // was refused is none, or one without its parameter sets.
        const bool noTrack = steps[g_refusedStep].name == std::string("video track");
        bool told = false;
        for (std::size_t n = 0; n < steps.size(); ++n) {
            const bool usual = results[n] == StepResult{StepResult::kStatus, steps[n].expected};
            if (n < g_refusedStep && !usual)
                return "ahead of it, " + results[n].Text();
            const bool ofNoTrack =
                noTrack && n > g_refusedStep &&
                (results[n] == StepResult{StepResult::kStatus, MP4_ERR_NO_VIDEO_TRACK} ||
                 results[n].kind == StepResult::kThrewInteger);
            if (!usual && results[n].kind != StepResult::kNotRun && !IsOutOfMemory(results[n]) &&
                !ofNoTrack)
                return std::string(steps[n].name) + ": " + results[n].Text();
            told |= !usual;
        }
        if (!told)
            return Content(m_path) == m_whole ? "" : "nobody told, and the file is another";
        if (results[0] != StepResult{StepResult::kStatus, 0} || g_refusedStep + 1 >= steps.size())
            return {};
        return JudgeAtFailure();
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

    std::string JudgeRepair(const StepResult& result, const Bytes& repaired)
    {
        if (result == StepResult{StepResult::kStatus, 0})
            return Content(m_path).size() >= repaired.size() ? "" : "not repaired";
        if (result != StepResult{StepResult::kStatus, MP4_ERR_FAILED})
            return "the repair " + result.Text();
        if (!std::filesystem::exists(m_log))
            return "the log is gone";
        return Content(m_path).size() >= m_media.size() ? "" : "the file was cut";
    }

    Scenario m_scenario;
    FaultReport& m_report;
    std::size_t m_stride;
    Folder m_folder;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    Bytes m_whole;
    Bytes m_atFailure;
    Bytes m_media;
    Bytes m_packets;
};

bool ProveMemory(std::size_t stride)
{
    FaultReport report;
    for (const FaultPlan& plan : FaultPlans()) {
        Memory proof(plan, report, stride);
        if (!proof.RunWhole())
            break;
        proof.Refuse();
        if (plan.HasLog())
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
