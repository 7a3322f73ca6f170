// Runs made-up sequences of calls on the library and on the model, and compares all that a caller
// can see. The first sequence that differs is cut down to a short one, printed, and ends the run.
//
//   model_proof [--sequences N] [--seed S] [--first K] [--jobs J] [--show] [--plant WHAT]
//
// --first K begins with the K-th sequence; --show prints the sequences; --plant makes the model lie
// about one thing (status, line, print, sink, media, info or repair), to see that lies are found.
#include "model/generate.h"
#include "model/random.h"
#include "model/run.h"
#include "model/system.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <iterator>
#include <string>
#include <vector>

namespace {

using namespace model;

struct Options {
    uint64_t sequences = 2000;
    uint64_t seed = 1;
    uint64_t first = 0;
    uint64_t jobs = 1;
    bool show = false;
    std::string plant;
};

// Of the sequence `number`, and of the one that runs beside it.
uint64_t SeedOf(const Options& options, uint64_t number)
{
    return (options.seed << 32) + number;
}
uint64_t OtherSeedOf(const Options& options, uint64_t number)
{
    return SeedOf(options, number) + (uint64_t{1} << 31);
}

// No number comes twice in the first thousand draws of the first hundred and one seeds, and of
// those beside them: sequences that share their numbers would be the same ones again.
bool SeedsShareNothing(const Options& options)
{
    std::vector<uint64_t> draws;
    for (uint64_t i = 0; i <= 100; ++i) {
        for (const auto& seed : {SeedOf, OtherSeedOf}) {
            Random random(seed(options, options.first + i));
            std::generate_n(std::back_inserter(draws), 1000, [&] { return random.Next(); });
        }
    }
    std::sort(draws.begin(), draws.end());
    return std::adjacent_find(draws.begin(), draws.end()) == draws.end();
}

class Prover {
public:
    Prover(const Options& options, std::FILE* report)
        : m_options(options), m_report(report), m_folder(TemporaryFolder(), "a"),
          m_otherFolder(TemporaryFolder(), "b")
    {
    }

    // The sequences `begin`, `begin` + `jobs` ... How many there are ahead of one that differs.
    uint64_t Run(uint64_t begin)
    {
        uint64_t same = 0;
        for (uint64_t i = begin; i < m_options.first + m_options.sequences; i += m_options.jobs) {
            const Sequence sequence = Generate(SeedOf(m_options, i));
            if (m_options.show) {
                fmt::print(m_report, "sequence {}\n{}", i, Describe(sequence));
            }
            if (!Difference(sequence).empty()) {
                Report(i, sequence);
                return same;
            }
            if (i % 8 == 0 && !Together(i, sequence)) {
                return same;
            }
            ++same;
        }
        return same;
    }

private:
    std::string Difference(const Sequence& sequence)
    {
        Prediction prediction = Predict(sequence, m_folder);
        Lie(prediction.result);
        const Result shown = m_library.Run(sequence, prediction, m_folder);
        return Compare(prediction.result, shown, sequence);
    }

    // With another recording open at the same time.
    bool Together(uint64_t number, const Sequence& sequence)
    {
        const std::array<Sequence, 2> both = {
            sequence, Generate(OtherSeedOf(m_options, number))};
        const std::array<const Folder*, 2> folders = {&m_folder, &m_otherFolder};
        const std::array<Prediction, 2> predictions = {Predict(both[0], m_folder),
                                                       Predict(both[1], m_otherFolder)};
        const auto shown = m_library.RunTogether(both, predictions, folders);
        for (size_t i = 0; i < 2; ++i) {
            Result expected;
            expected.recording = predictions[i].result.recording;
            const std::string text = Compare(expected, shown[i], both[i]);
            if (!text.empty()) {
                fmt::print(m_report, "sequence {} of seed {} beside another: {}{}and\n{}", number,
                           m_options.seed, text, Describe(both[i]), Describe(both[1 - i]));
                std::fflush(m_report);
                return false;
            }
        }
        return true;
    }

    void Lie(Result& result) const
    {
        const std::string& what = m_options.plant;
        Observed& seen = result.recording;
        const uint8_t wrong = 0xEE;
        if (what == "status" && seen.outcomes.size() > 3) {
            ++seen.outcomes[3].value;
        } else if (what == "line" && seen.lines.size() > 4) {
            seen.lines[4].level ^= 1;
        } else if (what == "print" && !seen.printed.empty()) {
            seen.printed += "!";
        } else if (what == "sink" && seen.sinkCalls.size() > 4) {
            ++seen.sinkCalls[4].argument;
        } else if (what == "media" && seen.media && seen.media->Size() > 60) {
            seen.media->Write(60, &wrong, 1);
        } else if (what == "info" && seen.info && seen.info->size() > 9) {
            (*seen.info)[9] ^= 1;
        } else if (what == "repair" && result.repair && result.repair->media &&
                   result.repair->media->Size() > 60) {
            result.repair->media->Write(60, &wrong, 1);
        }
    }

    // Leaves away whatever can be left away with a difference remaining.
    Sequence Shrink(Sequence sequence)
    {
        const auto tryOne = [&](auto change) {
            Sequence shorter = sequence;
            change(shorter);
            if (Difference(shorter).empty()) {
                return false;
            }
            sequence = shorter;
            return true;
        };
        tryOne([](Sequence& s) { s.repair.reset(); });
        for (bool again = true; again;) {
            again = false;
            for (size_t i = sequence.steps.size(); i-- > 0;) {
                if (sequence.steps[i].call == Call::Close) {
                    continue;
                }
                again = tryOne([&](Sequence& s) {
                            s.steps.erase(s.steps.begin() + static_cast<ptrdiff_t>(i));
                        }) ||
                        again;
            }
        }
        for (uint32_t bit = 1; bit < 0x100; bit <<= 1) {
            if ((sequence.opening.flags & bit) != 0) {
                tryOne([&](Sequence& s) {
                    s.opening.flags = static_cast<uint8_t>(s.opening.flags & ~bit);
                });
            }
        }
        tryOne([](Sequence& s) { s.opening.fault = Fault(); });
        if (sequence.repair) {
            tryOne([](Sequence& s) { s.repair->logFlips.clear(); });
            tryOne([](Sequence& s) { s.repair->logCut = UINT64_MAX; });
            tryOne([](Sequence& s) { s.repair->mediaCut = UINT64_MAX; });
            tryOne([](Sequence& s) { s.repair->mediaTail = 0; });
            tryOne([](Sequence& s) { s.repair->logTail.clear(); });
            tryOne([](Sequence& s) { s.repair->runs = 1; });
        }
        return sequence;
    }

    void Report(uint64_t number, const Sequence& sequence)
    {
        const Sequence shortest = Shrink(sequence);
        fmt::print(m_report, "sequence {} of seed {} differs: {}cut down to\n{}{}\n", number,
                   m_options.seed, Difference(sequence), Describe(shortest), Difference(shortest));
        std::fflush(m_report);
    }

    const Options& m_options;
    std::FILE* m_report;
    Folder m_folder;
    Folder m_otherFolder;
    Library m_library;
};

bool Parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        uint64_t* number = name == "--sequences" ? &options.sequences
                           : name == "--seed"    ? &options.seed
                           : name == "--first"   ? &options.first
                           : name == "--jobs"    ? &options.jobs
                                                 : nullptr;
        if (name == "--show") {
            options.show = true;
        } else if (name == "--plant" && i + 1 < argc) {
            options.plant = argv[++i];
        } else if (number != nullptr && i + 1 < argc) {
            *number = std::strtoull(argv[++i], nullptr, 10);
        } else {
            return false;
        }
    }
    return options.jobs != 0 && options.sequences != 0;
}

uint64_t RunAll(Options options, std::FILE* report)
{
    return RunJobs(options.jobs, [&](uint64_t job, uint64_t jobs) {
        options.jobs = jobs;
        const uint64_t same = Prover(options, report).Run(options.first + job);
        std::fflush(report);
        return same;
    });
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!Parse(argc, argv, options)) {
        fmt::print(stderr, "usage: model_proof [--sequences N] [--seed S] [--first K] [--jobs J] "
                           "[--show] [--plant WHAT]\n");
        return 2;
    }
    std::FILE* report = KeepOutput();
    if (!SeedsShareNothing(options)) {
        fmt::print(report, "the random numbers of neighbouring sequences are the same ones\n");
        return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    const uint64_t same = RunAll(options, report);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    fmt::print(report, "{} of {} sequences of seed {} from {} on, {:.0f} s, {:.0f} a second: {}\n",
               same, options.sequences, options.seed, options.first, took.count(),
               static_cast<double>(same) / took.count(),
               same == options.sequences ? "no difference" : "NOT all are the same");
    std::fclose(report);
    return same == options.sequences ? 0 : 1;
}
