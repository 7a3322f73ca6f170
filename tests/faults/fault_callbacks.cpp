// Every call of a caller's own output fails, one after the other.
#include "faults/fault_proofs.h"

#include "faults/expectations.h"
#include "support/descriptors.h"
#include "support/external_sink.h"
#include "support/recording.h"
#include "support/repair.h"

#include <span>
#include <string_view>

namespace kvtest {

namespace {

// The run without a fault.
struct Whole {
    std::vector<std::size_t> writesAfter;  // by step
    std::vector<std::uint64_t> checkpoints;
    std::size_t called[ExternalSink::kWrite + 1] = {};
    Bytes bytes;
    std::vector<std::string> calls;
    std::vector<std::size_t> callsAfter;  // by step
};

class Callbacks {
public:
    Callbacks(const FaultPlan& plan, std::size_t turn, FaultReport& report,
              const FaultChoice& choice)
        : m_scenario(plan), m_turn(turn), m_report(report), m_choice(choice),
          m_path(m_folder / plan.file), m_log(m_path.string() + ".info")
    {
    }

    bool RunWhole()
    {
        ExternalSink sink;
        m_scenario.Run(m_path, sink.Table(), [&](bool inside) {
            if (inside)
                return;
            m_whole.writesAfter.push_back(sink.Called(ExternalSink::kWrite));
            m_whole.callsAfter.push_back(sink.Calls().size());
        });
        m_whole.checkpoints = m_scenario.Checkpoints();
        m_whole.bytes = sink.Data();
        m_whole.calls = sink.Calls();
        const std::string wrong = CompareResults(m_scenario);
        m_report.Add("nothing", m_scenario.Plan().name, wrong);
        using Sink = ExternalSink;
        for (const auto callback :
             {Sink::kOpen, Sink::kWrite, Sink::kSeek, Sink::kTell, Sink::kFlush, Sink::kClose}) {
            m_whole.called[callback] = sink.Called(callback);
            const bool some = callback != Sink::kFlush || m_scenario.Plan().IsSafe();
            m_report.Require("callback " + std::to_string(callback), m_scenario.Plan().name,
                             sink.Called(callback), some);
        }
        return wrong.empty();
    }

    // Writes: each fails once, for ever, and with half of its bytes taken, with the errors in turn or
    // with all of them.
    void FailWrites()
    {
        const std::size_t first = First(ExternalSink::kWrite);
        for (std::size_t n = first;; n += m_choice.stride)
            for (std::size_t i = 0; i < (m_choice.all ? std::size(kFaultErrors) : 1); ++i)
                if (!FailWrite(n, i))
                    return RequireAll(ExternalSink::kWrite, "write", first,
                                      (n - first) / m_choice.stride);
    }

    // Calls whose results the library does not look at: no answer shows it, and nothing breaks.
    void FailUnseen(ExternalSink::Callback callback, const char* name)
    {
        for (const bool forEver : {false, true}) {
            std::size_t struck = 0;
            const std::size_t first = First(callback);
            for (std::size_t n = first;; n += m_choice.stride) {
                const int descriptor = NextDescriptor();
                ExternalSink sink;
                sink.Fail(callback, n, EIO, forEver);
                std::vector<std::size_t> callsAfter;
                m_scenario.Run(m_path, sink.Table(), [&](bool inside) {
                    if (!inside)
                        callsAfter.push_back(sink.Calls().size());
                });
                if (sink.Struck(callback) == 0)
                    break;
                ++struck;
                std::string wrong = JudgeUnseen(callback, sink, callsAfter) + LeftOver(false);
                if (wrong.empty() && NextDescriptor() != descriptor)
                    wrong = "a file was left open";
                m_report.Add(name, Where(n, EIO, forEver), wrong);
            }
            RequireAll(callback, name, first, struck);
        }
    }

    void FailOpen()
    {
        for (const FaultError& error : kFaultErrors) {
            ExternalSink sink;
            sink.FailOpen(1, error.error);
            m_scenario.Run(m_path, sink.Table());
            // Whatever the output says, its own value stands for it.
            const Failure failure{0, {{StepResult::kStatus, MP4_ERR_INVALID_PARAM}}, 0};
            m_report.Add("open", Where(1, error.error, true),
                         CompareResults(m_scenario, failure) + LeftOver(false));
        }
    }

private:
    std::size_t First(ExternalSink::Callback callback)
    {
        return m_choice.First(m_turn++, m_whole.called[callback]);
    }

    void RequireAll(ExternalSink::Callback callback, const char* name, std::size_t first,
                    std::size_t struck)
    {
        m_report.Require(name, m_scenario.Plan().name, struck,
                         m_choice.Strikes(first, m_whole.called[callback]));
    }

    std::string JudgeUnseen(ExternalSink::Callback callback, const ExternalSink& sink,
                            const std::vector<std::size_t>& callsAfter)
    {
        if (const std::string wrong = CompareResults(m_scenario); !wrong.empty())
            return wrong;
        if (sink.Called(ExternalSink::kOpen) != 1 || sink.Called(ExternalSink::kClose) != 1)
            return "not opened and closed once";
        const bool harmless = callback == ExternalSink::kFlush || callback == ExternalSink::kClose;
        if (harmless && sink.Data() != m_whole.bytes)
            return "the file is another";
        for (std::size_t step = 0; step < callsAfter.size(); ++step) {
            const auto calls = [step](const auto& all, const auto& after) {
                return std::span(all).subspan(step == 0 ? 0 : after[step - 1],
                                              after[step] - (step == 0 ? 0 : after[step - 1]));
            };
            const std::string wrong = JudgeCalls(step, calls(sink.Calls(), callsAfter),
                                                 calls(m_whole.calls, m_whole.callsAfter), harmless);
            if (!wrong.empty())
                return "step " + std::to_string(step) + ": " + wrong;
        }
        return {};
    }

    // The calls of a step are those of the run without a fault, but for the places that seeks go to.
    // A wrong position moves checkpoints as well: of a step with one more or less, the frame's own.
    std::string JudgeCalls(std::size_t step, std::span<const std::string> is,
                           std::span<const std::string> wanted, bool harmless) const
    {
        const bool began = m_scenario.Checkpoints()[step] != 0;
        if (began != (m_whole.checkpoints[step] != 0)) {
            const std::size_t own = m_scenario.Steps()[step].writes;
            if (harmless || is.size() < own)
                return "no call of its own";
            is = is.last(own);
            wanted = wanted.last(own);
        }
        if (is.size() != wanted.size())
            return std::to_string(is.size()) + " calls, not " + std::to_string(wanted.size());
        for (std::size_t n = 0; n < is.size(); ++n) {
            std::string_view call = is[n];
            if (call.ends_with(" failed"))
                call.remove_suffix(7);
            const bool seeks = call.starts_with("seek ") && wanted[n].starts_with("seek ");
            if (call != wanted[n] && (harmless || !seeks))
                return std::string(call) + ", not " + wanted[n];
        }
        return {};
    }

    std::string Where(std::size_t n, int error, bool forEver) const
    {
        return std::string(m_scenario.Plan().name) + ", call " + std::to_string(n) + ", errno " +
               std::to_string(error) + (forEver ? " for ever" : " once");
    }

    // A log that should not be there, or is missing; removes it.
    std::string LeftOver(bool kept)
    {
        const bool there = std::filesystem::remove(m_log);
        return there == kept ? "" : there ? "; the log stayed" : "; the log is gone";
    }

    bool FailWrite(std::size_t n, std::size_t turn)
    {
        for (std::size_t way = 0; way < 3; ++way) {
            const FaultError& error = kFaultErrors[(n + way + turn) % std::size(kFaultErrors)];
            ExternalSink sink;
            sink.NoteNoCalls();
            sink.FailWrite(n, error.error, way != 0);
            if (way == 2)
                sink.TakeHalfOfFailedWrites();
            const int descriptor = NextDescriptor();
            m_scenario.Run(m_path, sink.Table());
            if (sink.Struck(ExternalSink::kWrite) == 0)
                return false;
            std::string wrong = Judge(n, error, sink);
            if (wrong.empty() && NextDescriptor() != descriptor)
                wrong = "a file was left open";
            m_report.Add(way == 2 ? "write, half taken" : way ? "write, for ever" : "write, once",
                         Where(n, error.error, way != 0), wrong);
        }
        return true;
    }

    std::string Judge(std::size_t n, const FaultError& error, const ExternalSink& sink)
    {
        const auto& steps = m_scenario.Steps();
        std::size_t step = 0;
        while (m_whole.writesAfter[step] < n)
            ++step;
        // A frame's own writes come last.
        const bool video = steps[step].name == std::string("video frame");
        const bool proRes = m_scenario.Plan().proRes;
        const std::size_t own = steps[step].writes;
        const bool inCheckpoint =
            m_whole.checkpoints[step] != 0 && n + own <= m_whole.writesAfter[step];
        const bool unguarded = inCheckpoint || (video && proRes);
        const bool inClose = steps[step].answer == Answer::Close;

        Failure failure{step, {}, error.status};
        if (unguarded)
            failure.atStep = {{StepResult::kThrewCode, error.error}};
        else
            failure.atStep = {{StepResult::kStatus, error.status}};
        std::string wrong = CompareResults(m_scenario, failure);
        if (wrong.empty() && sink.Called(ExternalSink::kWrite) != n)
            wrong = "writes followed the one that failed";
        if (wrong.empty() && !inClose)  // the close writes over the moov in force
            wrong = JudgeLastCheckpoint(m_scenario, m_whole.checkpoints, step,
                                        m_whole.checkpoints[step] != 0 && !inCheckpoint,
                                        sink.Data());
        const bool kept = inClose && m_scenario.Plan().HasLog();
        if (wrong.empty() && kept) {
            WriteBytes(m_path, sink.Data());
            wrong = JudgeKeptLog(m_scenario, m_path, steps.size());
            std::filesystem::remove(m_path);
        }
        return wrong + LeftOver(kept);
    }

    Scenario m_scenario;
    std::size_t m_turn;
    FaultReport& m_report;
    FaultChoice m_choice;
    Folder m_folder;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    Whole m_whole;
};

}  // namespace

bool ProveCallbacks(const FaultChoice& choice)
{
    FaultReport report;
    std::size_t turn = 0;
    for (const FaultPlan& plan : FaultPlans()) {
        Callbacks proof(plan, turn++, report, choice);
        if (!proof.RunWhole())
            break;
        proof.FailWrites();
        proof.FailUnseen(ExternalSink::kTell, "tell");
        proof.FailUnseen(ExternalSink::kSeek, "seek");
        proof.FailUnseen(ExternalSink::kFlush, "flush");
        proof.FailUnseen(ExternalSink::kClose, "close");
        proof.FailOpen();
    }
    return report.Print("callbacks");
}

}  // namespace kvtest
