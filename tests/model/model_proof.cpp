// Runs made-up sequences of calls on the library and on the model, and compares all that a caller
// can see. The first sequence that differs is cut down to a short one, printed, and ends the run.
//
//   model_proof [--sequences N] [--seed S] [--first K] [--jobs J] [--show] [--plant WHAT]
//
// --first K begins with the K-th sequence; --show prints the sequences; --plant makes the model lie
// about one of the things of kLies, to see that the lie is found. Counts of what the sequences did
// are printed, and none may be 0 in a run of some length: what is not tried proves nothing.
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
#include <optional>
#include <string>
#include <string_view>
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

enum Counted : size_t {
    Same,
    Pairs,
    Checkpoints,
    CheckpointsOnDisk,
    LogFlushes,
    RefusedOpens,
    FailedWrites,
    ThrowingSinks,
    WrongPlaces,
    IoExceptions,
    OtherExceptions,
    BadCloses,
    SecondCloses,
    GoodRepairs,
    FailedRepairs,
    CountedThings
};
constexpr const char* kCounted[] = {"sequences",
                                    "run beside another",
                                    "checkpoints",
                                    "checkpoints on the disk",
                                    "flushes of the log by its rule",
                                    "refused opens",
                                    "sinks that answered a write wrongly",
                                    "sinks that threw",
                                    "sinks with a wrong tell or seek",
                                    "exceptions of the library",
                                    "other exceptions",
                                    "closes of a bad handle",
                                    "second closes",
                                    "repairs",
                                    "failing repairs"};
static_assert(std::size(kCounted) == CountedThings && CountedThings <= Counts().size());
constexpr uint64_t kEnoughToCount = 300;

// What a sequence did.
void Count(const Sequence& sequence, const Prediction& prediction, Counts& counts)
{
    const auto count = [&](Counted what, bool did) { counts[what] += did ? 1u : 0u; };
    const Observed& seen = prediction.result.recording;
    const Fault& fault = sequence.opening.fault;
    for (const LogLine& line : seen.lines) {
        count(Checkpoints, line.text.starts_with("update moov header to "));
    }
    counts[CheckpointsOnDisk] += seen.checkpoints.size();
    const bool toSink = !seen.sinkCalls.empty();
    count(RefusedOpens, toSink && fault.openAnswer == 0);
    count(WrongPlaces,
          toSink && (fault.tellsMinusOne || fault.tellsMore != 0 || fault.ignoresSeeks));
    const bool throws = fault.way != Fault::Way::Answer;
    count(throws ? ThrowingSinks : FailedWrites, seen.sinkFailures != 0);
    bool closed = false;
    for (size_t i = 0; i < seen.outcomes.size(); ++i) {
        const Outcome& outcome = seen.outcomes[i];
        count(IoExceptions, outcome.kind == Outcome::Kind::IoException);
        count(OtherExceptions, outcome.kind == Outcome::Kind::OtherException);
        if (i == 0) {
            continue;  // the create call
        }
        count(LogFlushes, outcome.infoSize != 0);
        const Step& step = sequence.steps[i - 1];
        const bool isGood = step.handle == Handle::Good;
        count(BadCloses, step.call == Call::Close && !isGood);
        count(SecondCloses, step.call == Call::Close && isGood && closed);
        closed = closed || (step.call == Call::Close && isGood);
    }
    if (prediction.result.repair && prediction.planted.media && prediction.planted.log) {
        for (const Outcome& outcome : prediction.result.repair->outcomes) {
            count(outcome.value == 0 ? GoodRepairs : FailedRepairs, true);
        }
    }
}

// One lie for each comparison. Each changes what the model says, where there is something to say.
void Wrong(std::optional<Image>& image, uint64_t at)
{
    const uint8_t byte = 0xEE;
    if (image && image->Size() > at) {
        image->Write(at, &byte, 1);
    }
}
void Wrong(Bytes& bytes, size_t at)
{
    if (bytes.size() > at) {
        bytes[at] ^= 1;
    }
}
void Wrong(std::optional<Bytes>& bytes, size_t at)
{
    if (bytes) {
        Wrong(*bytes, at);
    }
}
void WrongLine(Observed& seen, size_t at)
{
    if (seen.lines.size() > at) {
        seen.lines[at].level ^= 1;
    }
}
// The first outcome of which `is` holds.
void WrongOutcome(Observed& seen, bool (*is)(const Outcome&), void (*change)(Outcome&))
{
    const auto found = std::find_if(seen.outcomes.begin(), seen.outcomes.end(), is);
    if (found != seen.outcomes.end()) {
        change(*found);
    }
}

struct Falsehood {
    std::string_view what;
    void (*tell)(Observed& seen);
};
constexpr Falsehood kLies[] = {
    {"status",
     [](Observed& seen) {
         if (!seen.outcomes.empty()) {
             ++seen.outcomes.back().value;
         }
     }},
    {"kind",
     [](Observed& seen) {
         WrongOutcome(
             seen, [](const Outcome& o) { return o.kind == Outcome::Kind::IoException; },
             [](Outcome& o) { o.kind = Outcome::Kind::OtherException; });
     }},
    {"result",
     [](Observed& seen) {
         WrongOutcome(
             seen, [](const Outcome& o) { return o.result != 0; }, [](Outcome& o) { ++o.result; });
     }},
    {"flush",
     [](Observed& seen) {
         WrongOutcome(
             seen, [](const Outcome& o) { return o.infoSize != 0; },
             [](Outcome& o) { ++o.infoSize; });
     }},
    {"line", [](Observed& seen) { WrongLine(seen, 0); }},
    {"print",
     [](Observed& seen) {
         if (!seen.printed.empty()) {
             seen.printed += "!";
         }
     }},
    {"checkpoint",
     [](Observed& seen) {
         if (!seen.checkpoints.empty()) {
             const uint8_t byte = 0xEE;
             seen.checkpoints[0].image.Write(9, &byte, 1);
         }
     }},
    {"sink",
     [](Observed& seen) {
         if (seen.sinkCalls.size() > 4) {
             ++seen.sinkCalls[4].argument;
         }
     }},
    {"stream", [](Observed& seen) { Wrong(seen.sinkStream, 30); }},
    {"failure", [](Observed& seen) { seen.sinkFailures += seen.sinkFailures != 0 ? 1 : 0; }},
    {"write",
     [](Observed& seen) {
         if (!seen.sinkWrites.empty()) {
             ++seen.sinkWrites[0].size;
         }
     }},
    {"media", [](Observed& seen) { Wrong(seen.media, 60); }},
    {"nomedia", [](Observed& seen) { seen.media.reset(); }},
    {"info", [](Observed& seen) { Wrong(seen.info, 9); }},
    {"noinfo", [](Observed& seen) { seen.info.reset(); }},
    {"left", [](Observed& seen) { seen.infoIsLeft = !seen.infoIsLeft; }},
};

class Prover {
public:
    Prover(const Options& options, std::FILE* report)
        : m_options(options), m_report(report), m_folder(TemporaryFolder(), "a"),
          m_otherFolder(TemporaryFolder(), "b")
    {
    }

    // The sequences `begin`, `begin` + `jobs` ... up to one that differs, which is not counted.
    Counts Run(uint64_t begin)
    {
        for (uint64_t i = begin; i < m_options.first + m_options.sequences; i += m_options.jobs) {
            const Sequence sequence = Generate(SeedOf(m_options, i));
            if (m_options.show) {
                fmt::print(m_report, "sequence {}\n{}", i, Describe(sequence));
            }
            if (!Difference(sequence).empty()) {
                Report(i, sequence);
                return m_counts;
            }
            if (i % 8 == 0) {
                if (!Together(i, sequence)) {
                    return m_counts;
                }
                ++m_counts[Pairs];
            }
            ++m_counts[Same];
        }
        return m_counts;
    }

private:
    std::string Difference(const Sequence& sequence)
    {
        Prediction prediction = Predict(sequence, m_folder);
        Lie("", prediction.result.recording);
        if (prediction.result.repair) {
            Lie("repair_", *prediction.result.repair);
        }
        const Result shown = m_library.Run(sequence, prediction, m_folder);
        const std::string text = Compare(prediction.result, shown, sequence);
        if (text.empty()) {
            Count(sequence, prediction, m_counts);
        }
        return text;
    }

    // With another recording open at the same time.
    bool Together(uint64_t number, const Sequence& sequence)
    {
        const std::array<Sequence, 2> both = {sequence, Generate(OtherSeedOf(m_options, number))};
        const std::array<const Folder*, 2> folders = {&m_folder, &m_otherFolder};
        std::array<Prediction, 2> predictions = {Predict(both[0], m_folder),
                                                 Predict(both[1], m_otherFolder)};
        Lie("beside_", predictions[1].result.recording);
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

    // The lie of the options, if it is about this part: they say "repair_line" for its line.
    void Lie(std::string_view part, Observed& seen) const
    {
        for (const Falsehood& lie : kLies) {
            if (m_options.plant == std::string(part).append(lie.what)) {
                lie.tell(seen);
            }
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
                if (sequence.steps[i].call == Call::Close &&
                    sequence.steps[i].handle == Handle::Good) {
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
    Counts m_counts{};
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

Counts RunAll(Options options, std::FILE* report)
{
    return RunJobs(options.jobs, [&](uint64_t job, uint64_t jobs) {
        options.jobs = jobs;
        const Counts counts = Prover(options, report).Run(options.first + job);
        std::fflush(report);
        return counts;
    });
}

// Whether a run long enough did all that it says it does.
bool Report(const Counts& counts, uint64_t sequences, std::FILE* report)
{
    bool all = true;
    for (size_t i = Pairs; i < CountedThings; ++i) {
        fmt::print(report, "{:10} {}\n", counts[i], kCounted[i]);
        all = all && counts[i] != 0;
    }
    return all || sequences < kEnoughToCount;
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
    const Counts counts = RunAll(options, report);
    const uint64_t same = counts[Same];
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    fmt::print(report, "{} of {} sequences of seed {} from {} on, {:.0f} s, {:.0f} a second: {}\n",
               same, options.sequences, options.seed, options.first, took.count(),
               static_cast<double>(same) / took.count(),
               same == options.sequences ? "no difference" : "NOT all are the same");
    const bool isAll = Report(counts, same, report);
    if (!isAll) {
        fmt::print(report, "what is counted as 0 was NOT tried\n");
    }
    std::fclose(report);
    return same == options.sequences && isAll ? 0 : 1;
}
