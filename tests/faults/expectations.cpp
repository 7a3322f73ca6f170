#include "faults/expectations.h"

#include "recovery/judge.h"
#include "support/folder.h"
#include "support/samples.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace kvtest {

// ---- Counting ------------------------------------------------------------------------------

void FaultReport::Add(const std::string& what, const std::string& where, const std::string& wrong)
{
    ++m_runs[what];
    if (!wrong.empty())
        Complain(where, what, wrong);
}

void FaultReport::Require(const std::string& what, const std::string& where, std::size_t struck,
                          std::size_t wanted)
{
    if (struck < wanted)
        Complain(where, what,
                 "struck " + std::to_string(struck) + " times, not " + std::to_string(wanted));
}

void FaultReport::Complain(const std::string& where, const std::string& what,
                           const std::string& wrong)
{
    if (++m_wrong <= 20)
        std::fprintf(stderr, "%s, %s: %s\n", where.c_str(), what.c_str(), wrong.c_str());
}

bool FaultReport::Print(const std::string& title) const
{
    std::size_t sum = 0;
    std::string kinds;
    for (const auto& [what, runs] : m_runs) {
        sum += runs;
        kinds += (kinds.empty() ? "" : ", ") + what + " " + std::to_string(runs);
    }
    std::fprintf(stderr, "%s: %zu runs (%s), %zu of them wrong\n", title.c_str(), sum,
                 kinds.c_str(), m_wrong);
    return m_wrong == 0;
}

// ---- Results -------------------------------------------------------------------------------

namespace {

StepResult Status(std::uint32_t value)
{
    return {StepResult::kStatus, value};
}

std::string Differs(const FaultStep& step, std::size_t n, const StepResult& is,
                    const StepResult& wanted)
{
    return "step " + std::to_string(n) + " (" + step.name + "): " + is.Text() + ", not " +
           wanted.Text();
}

}  // namespace

std::string CompareResults(const Scenario& scenario, const Failure& failure)
{
    const auto& steps = scenario.Steps();
    const auto& results = scenario.Results();
    for (std::size_t n = 0; n < steps.size(); ++n) {
        const FaultStep& step = steps[n];
        if (n == failure.logTold) {
            if (results[n] != Status(MP4_ERR_DISK_FULL))
                return Differs(step, n, results[n], Status(MP4_ERR_DISK_FULL));
            continue;
        }
        if (n == failure.step) {
            const auto& allowed = failure.atStep;
            if (std::find(allowed.begin(), allowed.end(), results[n]) == allowed.end())
                return Differs(step, n, results[n], allowed.front());
            continue;
        }
        StepResult wanted = Status(step.expected);
        if (n > failure.step && steps[failure.step].answer == Answer::Create)
            wanted = failure.later ? StepResult{} : wanted;
        else if (n > failure.step && step.answer != Answer::Ignores && failure.later)
            wanted = Status(*failure.later);
        if (results[n] != wanted)
            return Differs(step, n, results[n], wanted);
    }
    return {};
}

std::string CompareResults(const Scenario& scenario)
{
    return CompareResults(scenario, {scenario.Steps().size(), {}, std::nullopt});
}

// ---- Files ---------------------------------------------------------------------------------

std::size_t MdatOf(const FaultPlan& plan)
{
    return plan.file == std::string("clip.mov") ? 20 : 36;
}

std::string JudgeLastCheckpoint(const Scenario& scenario,
                                const std::vector<std::uint64_t>& checkpoints, std::size_t step,
                                unsigned within, const Bytes& media)
{
    std::size_t last = 0;  // the step that completed one last
    for (std::size_t n = 0; n < step; ++n)
        if (checkpoints[n] != 0)
            last = n;
    if (within != 0)
        last = step;
    if (last == 0)
        return {};
    const Checkpoint checkpoint{0, checkpoints[last], scenario.SamplesBefore(last)};
    const std::string wrong = JudgeCheckpoint(scenario.Samples(), checkpoint, media);
    return wrong.empty() ? wrong : "the last checkpoint: " + wrong;
}

std::vector<std::size_t> PacketSteps(const Scenario& scenario)
{
    std::vector<std::size_t> steps;
    for (std::size_t n = 1; n < scenario.Steps().size(); ++n) {
        const FaultStep& step = scenario.Steps()[n];
        if (scenario.Results()[n] == Status(0))
            steps.insert(steps.end(), step.packets, n);
    }
    return steps;
}

std::string JudgeRepaired(const Scenario& scenario, const Bytes& media, std::size_t flushed,
                          std::size_t packets)
{
    std::vector<std::size_t> named = PacketSteps(scenario);
    named.resize(std::min(named.size(), packets));
    // The samples of the log, in its order; a sample's packet is the last of its step.
    std::vector<std::pair<std::size_t, Track>> logged;
    Counts counts;
    for (const Track track : kAllTracks)
        for (const Sample& sample : scenario.Samples().tracks[track]) {
            const auto of = std::count(named.begin(), named.end(), std::size_t{sample.step});
            if (of != 0 && of == scenario.Steps()[sample.step].packets) {
                logged.emplace_back(sample.step, track);
                ++counts.of[track];
            }
        }
    std::sort(logged.begin(), logged.end());

    // For each time code the moov begins 4 bytes ahead of the end of the data: these samples lose.
    std::int64_t overwritten = 4 * static_cast<std::int64_t>(counts.of[kTimeCode]);
    for (auto i = logged.rbegin(); i != logged.rend() && overwritten > 0; ++i) {
        flushed = std::min(flushed, i->first);
        const auto& samples = scenario.Samples().tracks[i->second];
        overwritten -= std::find_if(samples.begin(), samples.end(), [i](const Sample& sample) {
                           return sample.step == i->first;
                       })->size;
    }

    const BoxFile file(media);
    if (!file.Damage().empty())
        return "repaired: " + file.Damage().front();
    for (const Track track : kAllTracks) {
        const auto& wanted = scenario.Samples().tracks[track];
        const auto samples = kvtest::Samples(file, kTrackNames[track]);
        if (samples.size() != counts.of[track])
            return "repaired: " + WrongCount(track, samples.size(), counts.of[track]);
        for (std::size_t n = 0; n < samples.size() && wanted[n].step < flushed; ++n)
            if (Hash(samples[n].data(), samples[n].size()) != wanted[n].hash)
                return "repaired: " + Where(track, n) + " is not intact";
    }
    return {};
}

std::string JudgeKeptLog(const Scenario& scenario, const std::filesystem::path& media,
                         std::size_t flushed, std::optional<std::size_t> packets)
{
    if (!packets) {  // the last one is lost; it may be that of a call that brings no sample
        const std::size_t named = PacketSteps(scenario).size();
        packets = named == 0 ? 0 : named - 1;
    }
    // Without the header of mdat there was no recording yet, and there is none afterwards.
    const bool begun = std::filesystem::file_size(media) >= MdatOf(scenario.Plan()) + 8;
    if (const std::uint32_t status = mp4_repair_file_ex(Utf8(media).c_str(), 0); status != 0)
        return "the repair has status " + std::to_string(status);
    if (!begun)
        return std::filesystem::is_empty(media) ? "" : "repaired: a file without data";
    // Nor is there any of tracks that nothing describes: in the stream, they have a packet more.
    const std::vector<std::size_t> logged = PacketSteps(scenario);
    if (std::filesystem::is_empty(media) &&
        std::none_of(logged.begin(), logged.end(), [&](std::size_t n) {
            const FaultStep& step = scenario.Steps()[n];
            const std::string_view name = step.name;
            return name == "video track" || name == "audio track" || step.packets == 2;
        }))
        return {};
    return JudgeRepaired(scenario, Content(media), flushed, *packets);
}

Bytes Content(const std::filesystem::path& path)
{
    return std::filesystem::exists(path) ? BoxFile::Read(path).All() : Bytes{};
}

}  // namespace kvtest
