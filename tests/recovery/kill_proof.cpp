// Kills recordings where a kill can hit them and judges what is left: as it lies, and repaired.
//
//   kill_proof [--states N] [--pairs N] [--seed N]
//
// The states are drawn without return from all there are; equal seeds draw equal ones.
#include "recovery/judge.h"
#include "recovery/proof.h"
#include "support/descriptors.h"
#include "support/recording.h"

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

using namespace kvtest;

namespace {

constexpr int kMostFailures = 10;  // that are told before the proof gives up

struct Options {
    std::uint64_t states = 20000;
    std::uint64_t pairs = 4000;
    std::uint64_t seed = 1;
};

class Proof {
public:
    explicit Proof(const Options& options) : m_options(options), m_random(options.seed) {}

    bool Run()
    {
        {
            const NoOutput quiet;
            for (const TakePlan& plan : AllPlans())
                m_takes.push_back(Record(plan));
        }
        const bool sound = Kills();
        return Pairs() && sound;
    }

private:
    void Fail(const Take& take, const Cut& cut, const std::string& what)
    {
        const std::uint32_t step =
            cut.call < take.trace.Calls().size() ? take.trace.Calls()[cut.call].step : 0;
        const std::lock_guard hold(m_failing);
        std::fprintf(stderr, "FAILED: %s, call %zu (step %u) after %u bytes: %s\n",
                     take.plan.Name().c_str(), cut.call, step, cut.bytes, what.c_str());
        if (++m_failures == kMostFailures)
            std::fprintf(stderr, "giving up\n");
    }

    // Calls `judge` for each recording, on all processors.
    template <typename Judge>
    void ForEachTake(Judge judge)
    {
        std::atomic<std::size_t> next = 0;
        std::vector<std::thread> threads;
        for (unsigned n = 0; n < std::max(1u, std::thread::hardware_concurrency()); ++n)
            threads.emplace_back([&] {
                for (std::size_t take; (take = next++) < m_takes.size();)
                    judge(take);
            });
        for (std::thread& thread : threads)
            thread.join();
    }

    // ---- As it lies

    bool Kills()
    {
        std::uint64_t all = 0;
        std::size_t recordings = 0;
        std::size_t checkpoints = 0;
        for (const auto& take : m_takes) {
            all += KillStates(*take).size();
            recordings += !take->checkpoints.empty();
            checkpoints += take->checkpoints.size();
        }
        const std::uint64_t drawn = std::min(m_options.states, all);
        std::uint64_t left = all;
        std::uint64_t wanted = drawn;
        std::vector<std::vector<KillState>> states(m_takes.size());
        for (std::size_t n = 0; n < m_takes.size(); ++n)
            for (const KillState& state : KillStates(*m_takes[n]))
                if (m_random() % left-- < wanted) {
                    states[n].push_back(state);
                    --wanted;
                }
        std::atomic<std::uint64_t> judged = 0;
        ForEachTake([&](std::size_t n) {
            Replay replay(m_takes[n]->trace);
            for (const KillState& state : states[n]) {
                if (m_failures >= kMostFailures)
                    return;
                const std::string wrong =
                    JudgeCheckpoint(*m_takes[n], *state.inForce, replay.FileAt(state.cut));
                if (!wrong.empty())
                    Fail(*m_takes[n], state.cut, wrong);
                ++judged;
            }
        });
        const bool sound = m_failures == 0 && judged == drawn && drawn > 0;
        std::printf("%llu of %llu killed states, of %zu recordings with %zu checkpoints: %s\n",
                    static_cast<unsigned long long>(judged), static_cast<unsigned long long>(all),
                    recordings, checkpoints,
                    sound ? "each opens, is sound and holds the samples of its checkpoint"
                          : "NOT all are sound");
        return sound;
    }

    // ---- Repaired

    bool Pairs()
    {
        std::vector<std::vector<WreckState>> states;
        for (std::size_t n = 0; n < m_takes.size(); ++n)
            states.push_back(Wrecks(*m_takes[n], m_options.pairs * (n + 1) / m_takes.size() -
                                                     m_options.pairs * n / m_takes.size()));
        const int failures = m_failures;
        std::atomic<std::uint64_t> judged = 0;
        std::atomic<std::uint64_t> emptied = 0;
        std::atomic<std::uint64_t> unmarked = 0;
        {
            const NoOutput quiet;
            ForEachTake([&](std::size_t n) {
                const Folder folder;
                Replay replay(m_takes[n]->trace);
                for (const WreckState& state : states[n]) {
                    if (m_failures >= kMostFailures)
                        return;
                    const RepairVerdict verdict = JudgeRepair(
                        *m_takes[n], state, replay.FileAt(state.media), (folder / "").string());
                    emptied += verdict.emptied;
                    unmarked += verdict.unmarked;
                    if (!verdict.wrong.empty())
                        Fail(*m_takes[n], state.media,
                             "with " + std::to_string(state.log) +
                                 " bytes of log: " + verdict.wrong);
                    ++judged;
                }
            });
        }
        const bool repaired =
            m_failures == failures && judged == m_options.pairs && m_options.pairs > 0;
        std::printf(
            "%llu pairs of cut media and cut log, of %zu recordings: %s (%llu emptied, %llu "
            "without the mark of a 64-bit size)\n",
            static_cast<unsigned long long>(judged), m_takes.size(),
            repaired ? "each is repaired to the samples of its log but the last"
                     : "NOT all are repaired as they must be",
            static_cast<unsigned long long>(emptied), static_cast<unsigned long long>(unmarked));
        return repaired;
    }

    std::vector<WreckState> Wrecks(const Take& take, std::uint64_t count)
    {
        const auto& calls = take.trace.Calls();
        std::vector<std::size_t> writes;
        for (std::size_t n = 0; n < calls.size(); ++n)
            if (calls[n].kind == TraceCall::kWrite)
                writes.push_back(n);
        std::vector<WreckState> states;
        while (states.size() < count) {
            // A call by its place, then any of its bytes; every tenth in create or the set-ups.
            const bool early = m_random() % 10 == 0;
            const std::size_t place = m_random() % (early ? 20 : writes.size());
            const std::size_t call = writes[place];
            const auto bytes = static_cast<std::uint32_t>(m_random() % (calls[call].size + 1));
            const bool done =
                bytes == calls[call].size &&
                (place + 1 == writes.size() || calls[writes[place + 1]].step != calls[call].step);
            WreckState state{{call, bytes}, 0, m_random() % 8 == 0};
            const std::size_t most = MostLog(take, calls[call].step, done);
            if (state.behind)
                state.log = most + m_random() % (take.log.size() - most + 1);
            else if (m_random() % 2 == 0)
                state.log = most - m_random() % (std::min<std::size_t>(most, 60) + 1);
            else
                state.log = m_random() % (most + 1);
            states.push_back(state);
        }
        std::sort(states.begin(), states.end(),
                  [](const WreckState& a, const WreckState& b) { return a.media < b.media; });
        return states;
    }

    // How far the log can be in a step; `done` tells that the step's media are complete.
    static std::size_t MostLog(const Take& take, std::uint32_t step, bool done)
    {
        if (step == 1 && !done)
            return 1;  // the flags go out before the media file exists
        return take.logEnds[done ? step : step - 1];
    }

    const Options m_options;
    std::mt19937_64 m_random;
    std::vector<std::unique_ptr<Take>> m_takes;
    std::atomic<int> m_failures = 0;
    std::mutex m_failing;
};

bool Read(int argc, char** argv, Options& options)
{
    for (int n = 1; n < argc; n += 2) {
        const std::string name = argv[n];
        std::uint64_t* const value = name == "--states"  ? &options.states
                                     : name == "--pairs" ? &options.pairs
                                     : name == "--seed"  ? &options.seed
                                                         : nullptr;
        char* end = nullptr;
        if (!value || n + 1 == argc)
            return false;
        *value = std::strtoull(argv[n + 1], &end, 10);
        if (*end != '\0')
            return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!Read(argc, argv, options)) {
        std::fprintf(stderr, "usage: kill_proof [--states N] [--pairs N] [--seed N]\n");
        return 2;
    }
    spdlog::set_default_logger(
        std::make_shared<spdlog::logger>("quiet", std::make_shared<spdlog::sinks::null_sink_mt>()));
    return Proof(options).Run() ? 0 : 1;
}
