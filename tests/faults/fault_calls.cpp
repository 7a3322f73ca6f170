// Every system call that a recording makes for its two files fails, one after the other.
#include "faults/fault_proofs.h"

#include "faults/expectations.h"
#include "faults/system_calls.h"
#include "recovery/judge.h"
#include "support/descriptors.h"
#include "support/recording.h"

#include <algorithm>
#include <set>

namespace kvtest {

namespace {

// A way to fail.
struct Way {
    const char* name;
    bool forEver;
    bool half;
};
constexpr Way kWays[] = {{"once", false, false}, {"for ever", true, false},
                         {"for ever, half taken", true, true}};

class Calls {
public:
    Calls(const FaultPlan& plan, std::size_t turn, FaultReport& report, const FaultChoice& choice)
        : m_scenario(plan), m_turn(turn), m_report(report), m_choice(choice),
          m_path(WatchedFolder() / plan.file), m_log(m_path.string() + ".info")
    {
    }

    bool RunWhole()
    {
        m_events = Run({});
        m_checkpoints = m_scenario.Checkpoints();
        m_whole = Content(m_path);
        std::string wrong = CompareResults(m_scenario);
        if (wrong.empty() && std::filesystem::exists(m_log))
            wrong = "the log stayed";
        m_report.Add("nothing", m_scenario.Plan().name, wrong);
        const FaultPlan& plan = m_scenario.Plan();
        for (const SysCall call : {SysCall::Open, SysCall::Write, SysCall::Seek, SysCall::Close})
            RequireSome(call, SysFile::Media);
        if (plan.IsSafe() || plan.HasLog())
            RequireSome(SysCall::Sync, SysFile::Media);
        if (plan.HasLog())
            for (const SysCall call : {SysCall::Open, SysCall::Write, SysCall::Sync, SysCall::Close,
                                       SysCall::Unlink})
                RequireSome(call, SysFile::Log);
        return wrong.empty();
    }

    void Fail(SysCall call, SysFile file)
    {
        for (const Way& way : kWays) {
            if (way.half && call != SysCall::Write)
                continue;
            const std::size_t calls = CallsOf(call, file);
            const std::size_t first = m_choice.First(m_turn++, calls);
            std::size_t struck = 0;
            for (std::size_t n = first;
                 FailNth({call, file, n, 0, way.forEver, way.half}, way.name); n += m_choice.stride)
                ++struck;
            m_report.Require(NameOf(call, file) + " " + way.name, m_scenario.Plan().name, struck,
                             m_choice.Strikes(first, calls));
        }
    }

    // The steps that told of a log that failed.
    const std::set<std::string>& Told() const { return m_told; }

    // No error at all, but a write that takes half of its bytes: the rest goes with the next.
    void ShortWrites(SysFile file)
    {
        const std::size_t writes = CallsOf(SysCall::Write, file);
        for (std::size_t n = m_choice.First(m_turn++, writes); n <= writes; n += m_choice.stride) {
            const SysFault fault{SysCall::Write, file, n, 0, false, false};
            Run(fault);
            m_report.Add("write, half taken", Where(fault), Unharmed(false));
        }
    }

private:
    // How many the run without a fault made.
    std::size_t CallsOf(SysCall call, SysFile file) const
    {
        return CountCalls(m_events, call, file);
    }

    void RequireSome(SysCall call, SysFile file)
    {
        m_report.Require(NameOf(call, file), m_scenario.Plan().name, CallsOf(call, file), 1);
    }

    std::vector<SysEvent> Run(const SysFault& fault)
    {
        std::filesystem::remove(m_path);
        std::filesystem::remove(m_log);
        SystemCalls::Watch(fault);
        m_scenario.Run(m_path, nullptr, SystemCalls::Around);
        return SystemCalls::Stop();
    }

    std::string Where(const SysFault& fault) const
    {
        return std::string(m_scenario.Plan().name) + ", " +
               NameOf(fault.call, fault.file) + " " + std::to_string(fault.n) + ", errno " +
               std::to_string(fault.error) +
               (fault.forEver ? " for ever" : " once");
    }

    // With each error, or with another for each n.
    bool FailNth(SysFault fault, const char* way)
    {
        bool struck = false;
        for (std::size_t i = 0; i < (m_choice.all ? std::size(kFaultErrors) : 1); ++i) {
            const FaultError& error = kFaultErrors[(fault.n + i) % std::size(kFaultErrors)];
            fault.error = error.error;
            struck = FailOne(fault, error, way);
        }
        return struck;
    }

    bool FailOne(const SysFault& fault, const FaultError& error, const char* way)
    {
        const int descriptor = NextDescriptor();
        const auto events = Run(fault);
        const auto struck = std::find_if(events.begin(), events.end(),
                                         [](const SysEvent& event) { return event.failed; });
        if (struck == events.end())
            return false;
        // Among the calls of the whole run, which has no rest of a half write.
        const auto place = static_cast<std::size_t>(struck - events.begin()) -
                           (fault.half && fault.n > 1 ? 1 : 0);
        // A file that is read-only, or no file at all, has no medium to wait for.
        const bool noMedium = fault.call == SysCall::Sync && fault.error == EROFS;
        std::string wrong = noMedium ? Unharmed(false)
                            : fault.file == SysFile::Log
                                ? JudgeLogFault(fault, error, struck->step)
                                : JudgeMediaFault(fault, error, place, events);
        if (wrong.empty() && !noMedium && fault.file == SysFile::Media &&
            (fault.call == SysCall::Write || fault.call == SysCall::Sync))
            wrong = JudgeTaken(events, static_cast<std::size_t>(struck - events.begin()) + 1);
        if (wrong.empty() && NextDescriptor() != descriptor)
            wrong = "a file was left open";
        m_report.Add(NameOf(fault.call, fault.file) + " " + way, Where(fault), wrong);
        return true;
    }

    // All answers and the media file as without a fault; the log gone, unless its removal failed.
    std::string Unharmed(bool logStays)
    {
        if (const std::string wrong = CompareResults(m_scenario); !wrong.empty())
            return wrong;
        if (Content(m_path) != m_whole)
            return "the file is another";
        return std::filesystem::exists(m_log) == logStays ? "" : "the log stayed, or is gone";
    }

    // A picture at the interval; it waits for the medium.
    bool FlushesLog(std::size_t step) const
    {
        return m_scenario.Steps()[step].name == std::string("video frame") &&
               std::any_of(m_events.begin(), m_events.end(), [step](const SysEvent& event) {
                   return event.step == step && event.file == SysFile::Log &&
                          event.call == SysCall::Sync;
               });
    }

    std::string JudgeLogFault(const SysFault& fault, const FaultError& error, std::size_t step)
    {
        const StepResult status{StepResult::kStatus, error.status};
        if (step == 0) {
            // No log, no recording. The media file is there by the time of the first flush.
            if (const std::string wrong = CompareResults(m_scenario, {0, {status}, 0});
                !wrong.empty())
                return wrong;
            if (std::filesystem::exists(m_log))
                return "the log stayed";
            if (std::filesystem::exists(m_path) == (fault.call == SysCall::Open))
                return "the media file stayed, or is gone";
            return {};
        }
        // Told once by the call whose packet did not fit the stream any more, by none that flushed.
        const bool told = m_scenario.Steps()[step].answer != Answer::Close && !FlushesLog(step) &&
                          fault.call == SysCall::Write;
        if (!told)
            return Unharmed(fault.call == SysCall::Unlink);
        m_told.insert(m_scenario.Steps()[step].name);
        if (const std::string wrong = CompareResults(m_scenario, {step, {status}, std::nullopt});
            !wrong.empty())
            return wrong;
        if (Content(m_path) != m_whole)
            return "the file is another";
        return std::filesystem::exists(m_log) ? "the log stayed" : "";
    }

    // The runtime drops what a stream held when its write failed: not even the close writes.
    static std::string JudgeTaken(const std::vector<SysEvent>& events, std::size_t from)
    {
        for (std::size_t n = from; n < events.size(); ++n)
            if (events[n].file == SysFile::Media && events[n].call == SysCall::Write &&
                events[n].moved != 0)
                return std::to_string(events[n].moved) + " bytes followed, in step " +
                       std::to_string(events[n].step);
        return {};
    }

    // The stream moves when a box is ended, at a checkpoint, and to know its position, where nobody
    // looks at a failure: -1 is then the position that the library goes by. So it shows later than
    // it happened, or not at all; a file that nobody complained of must be sound.
    std::string JudgeSeekFault(const FaultError& error, std::size_t step,
                               const std::vector<SysEvent>& events)
    {
        const auto& steps = m_scenario.Steps();
        const auto& results = m_scenario.Results();
        std::size_t first = step;
        while (first < steps.size() &&
               results[first] == StepResult{StepResult::kStatus, steps[first].expected})
            ++first;
        if (first == steps.size())
            return JudgeFile(m_scenario.Samples(), m_scenario.SamplesBefore(first), Content(m_path));
        // Its own error, or that of the next seek, which goes to -1. Checkpoints and bare pictures
        // throw; where a checkpoint was over, and in a bare picture behind a flush, the status tells.
        const bool throws =
            m_scenario.Checkpoints()[first] != 0 ||
            (m_scenario.Plan().proRes && steps[first].name == std::string("video frame"));
        Failure failure{first, {}, {}};
        for (const auto& [code, status] : {std::pair{error.error, error.status},
                                           std::pair{EINVAL, std::uint32_t{MP4_ERR_FAILED}}}) {
            const StepResult told{StepResult::kStatus, status};
            const StepResult threw{StepResult::kThrewCode, code};
            failure.atStep.push_back(told);
            if (throws)
                failure.atStep.push_back(threw);
            if (!failure.later && (results[first] == told || (throws && results[first] == threw)))
                failure.later = status;
        }
        if (const std::string wrong = CompareResults(m_scenario, failure); !wrong.empty())
            return wrong;
        const auto behind =
            std::find_if(events.begin(), events.end(),
                         [first](const SysEvent& event) { return event.step > first; });
        if (const std::string wrong =
                JudgeTaken(events, static_cast<std::size_t>(behind - events.begin()));
            !wrong.empty())
            return wrong;
        if (first + 1 < steps.size()) {
            // The switch may have been over when it failed.
            const Bytes media = Content(m_path);
            const auto& checkpoints = m_scenario.Checkpoints();
            const std::string wrong = JudgeLastCheckpoint(m_scenario, checkpoints, first, 0, media);
            if (!wrong.empty() && (checkpoints[first] == 0 ||
                                   !JudgeLastCheckpoint(m_scenario, checkpoints, first, 1, media)
                                        .empty()))
                return wrong;
        }
        if (!m_scenario.Plan().HasLog())
            return {};
        std::size_t flushed = 0;
        for (const SysEvent& event : events)
            if (event.file == SysFile::Log && event.call == SysCall::Sync && event.step < first)
                flushed = event.step;
        return std::filesystem::exists(m_log) ? JudgeKeptLog(m_scenario, m_path, flushed)
                                              : "the log is gone";
    }

    std::string JudgeMediaFault(const SysFault& fault, const FaultError& error, std::size_t place,
                                const std::vector<SysEvent>& events)
    {
        if (fault.call == SysCall::Close)
            return Unharmed(false);
        const std::size_t step = m_events[place].step;
        if (fault.call == SysCall::Seek && step != 0)
            return JudgeSeekFault(error, step, events);
        const StepResult status{StepResult::kStatus, error.status};
        const auto& steps = m_scenario.Steps();
        if (steps[step].answer == Answer::Create) {
            Failure failure{0, {status}, 0};
            if (fault.call == SysCall::Seek)  // or it failed unseen, and the next one by it
                failure.atStep.push_back({StepResult::kStatus, MP4_ERR_FAILED});
            const std::string wrong = CompareResults(m_scenario, failure);
            // Where the close fails as well, nobody removes it.
            const bool mayStay = fault.call == SysCall::Seek && fault.forEver;
            return !wrong.empty()                                ? wrong
                   : std::filesystem::exists(m_log) && !mayStay ? "the log stayed"
                                                                : "";
        }

        // Where in the step: its checkpoint waits twice, its flush of the log writes and waits last.
        std::size_t waits = 0;
        std::size_t lastWrite = 0;
        for (std::size_t n = 0; n < m_events.size(); ++n) {
            const SysEvent& event = m_events[n];
            if (event.step != step || event.file != SysFile::Media)
                continue;
            waits += n < place && event.call == SysCall::Sync;
            lastWrite = event.call == SysCall::Write ? n : lastWrite;
        }
        const bool inCheckpoint = m_checkpoints[step] != 0 && waits < 2;
        const bool inFlush = FlushesLog(step) && !inCheckpoint && place >= lastWrite;
        const bool inClose = steps[step].answer == Answer::Close;

        Failure failure{step, {}, error.status};
        const bool bare = steps[step].name == std::string("video frame") && m_scenario.Plan().proRes;
        if (inFlush)
            failure.atStep = {{StepResult::kStatus, 0}};  // the next call tells
        else if (inCheckpoint || bare)
            failure.atStep = {{StepResult::kThrewCode, error.error}};
        else
            failure.atStep = {status};
        if (const std::string wrong = CompareResults(m_scenario, failure); !wrong.empty())
            return wrong;
        if (!inClose) {  // the close writes over the moov in force
            // The second wait comes behind the switch.
            const bool switched = !inCheckpoint || (fault.call == SysCall::Sync && waits == 1);
            const std::string wrong =
                JudgeLastCheckpoint(m_scenario, m_checkpoints, step,
                                    m_checkpoints[step] != 0 && switched, Content(m_path));
            if (!wrong.empty())
                return wrong;
        }
        if (!m_scenario.Plan().HasLog())
            return {};
        if (!std::filesystem::exists(m_log))
            return "the log is gone";
        // What the last complete flush of the log named, the medium had before.
        std::size_t flushed = 0;
        for (std::size_t n = 0; n < place; ++n)
            if (m_events[n].file == SysFile::Log && m_events[n].call == SysCall::Sync &&
                m_events[n].step != 0)
                flushed = m_events[n].step;
        return JudgeKeptLog(m_scenario, m_path, flushed);
    }

    Scenario m_scenario;
    std::size_t m_turn;
    FaultReport& m_report;
    FaultChoice m_choice;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    std::vector<SysEvent> m_events;
    std::vector<std::uint64_t> m_checkpoints;
    Bytes m_whole;
    std::set<std::string> m_told;
};

// A log whose stream is full in the midst of a packet, of each kind: nothing flushes it, and a value
// ahead of the tracks is longer in each run.
void FailPackets(FaultReport& report, const FaultChoice& choice)
{
    std::set<std::string> told;
    std::size_t turn = 0;
    for (std::uint32_t lead = 3860; lead < 4060; lead += 4) {
        Calls proof({.name = "full stream", .file = "clip.mp4", .flags = MP4_OPEN_INFO_FILE,
                     .proRes = false, .pictures = 2, .flushInterval = 900, .lead = lead},
                    turn++, report, choice);
        if (!proof.RunWhole())
            return;
        proof.Fail(SysCall::Write, SysFile::Log);
        told.insert(proof.Told().begin(), proof.Told().end());
    }
    for (const char* name : {"video track", "audio track", "caption track", "time code track",
                             "title", "time code", "video frame", "audio frame", "caption frame"})
        report.Require("told of the log", name, told.count(name), 1);
}

}  // namespace

bool ProveSystemCalls(const FaultChoice& choice)
{
    FaultReport report;
    std::size_t turn = 0;
    for (const FaultPlan& plan : FaultPlans()) {
        Calls proof(plan, turn++, report, choice);
        if (!proof.RunWhole())
            break;
        for (const SysFile file : {SysFile::Media, SysFile::Log}) {
            for (const SysCall call : kAllSysCalls)
                proof.Fail(call, file);
            proof.ShortWrites(file);
        }
    }
    FailPackets(report, choice);
    return report.Print("system calls");
}

}  // namespace kvtest
