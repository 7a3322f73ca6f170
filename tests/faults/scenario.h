// One recording with everything in it, as a list of calls that a proof runs again and again with
// another fault in each run, and all that is known of it: its samples, its checkpoints, its bytes.
#pragma once

#include "recovery/take.h"
#include "support/descriptors.h"

#include <kv_mp4.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kvtest {

struct FaultPlan {
    const char* name;
    const char* file;  // its name decides the kind
    std::uint8_t flags;
    bool proRes;  // else H.264
    // HEVC, and parameter sets and audio format that come in the streams, with CEA-708 captions.
    bool hevc = false;
    bool inStream = false;
    std::uint32_t pictures = 31;
    std::uint32_t flushInterval = 10;  // pictures
    // Bytes of a value that stands in the log ahead of the tracks; 0 for none.
    std::uint32_t lead = 0;

    bool IsSafe() const { return (flags & MP4_OPEN_SAFE_MODE) != 0; }
    bool HasLog() const { return (flags & MP4_OPEN_INFO_FILE) != 0; }
};

const std::vector<FaultPlan>& FaultPlans();

// What a failed output makes of a call.
enum class Answer {
    Create,   // the status of the failure, and no handle
    Refuses,  // its status from then on
    Ignores,  // nothing: the call does not look at the output
    Close,    // its status
};

struct FaultStep {
    const char* name;
    Answer answer;
    std::uint32_t expected;  // of a run without a fault
    std::function<std::uint32_t(mp4_handle)> call;
    unsigned packets = 0;  // in the log
    unsigned writes = 0;   // a frame's own, to the output
};

// How a call ended.
struct StepResult {
    enum Kind { kNotRun, kStatus, kThrewCode, kThrewMemory, kThrewInteger, kThrewOther } kind = kNotRun;
    std::int64_t value = 0;  // the status, the code of the library's exception, or the integer

    friend bool operator==(const StepResult&, const StepResult&) = default;
    std::string Text() const;
};

class Scenario {
public:
    explicit Scenario(const FaultPlan& plan);
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    const FaultPlan& Plan() const { return m_plan; }
    const std::vector<FaultStep>& Steps() const { return m_steps; }
    // The samples by track, each with the step that brings it.
    const Take& Samples() const { return m_take; }

    // Runs all steps, to a local file when there is no table. A create that fails ends it. `around` is
    // called with true before each call of the library and false after it.
    using Around = std::function<void(bool)>;
    void Run(const std::filesystem::path& path, ExternalIoFuncs* table, const Around& around = {});
    // A caller that makes a call once more that did not end as expected; the results are those of
    // the last.
    void RunAgain(const std::filesystem::path& path, ExternalIoFuncs* table, const Around& around);

    // The step that runs now, for whoever counts calls.
    static std::size_t Now();
    // The results of the last run, and where the checkpoint stands that each step began; 0 for none.
    const std::vector<StepResult>& Results() const { return m_results; }
    const std::vector<std::uint64_t>& Checkpoints() const { return m_checkpoints; }
    // The samples that a checkpoint made by a step holds.
    Counts SamplesBefore(std::size_t step) const;

private:
    void RunSteps(const std::filesystem::path& path, ExternalIoFuncs* table, const Around& around,
                  bool again);
    void Add(const char* name, Answer answer, std::function<std::uint32_t(mp4_handle)> call,
             std::uint32_t expected = 0);
    // Of the step that was added last.
    void Brings(unsigned packets, unsigned writes = 0);
    void AddMetadata(const char* name, std::uint32_t size);
    void AddTracks();
    void AddFrames();
    void AddVideo(std::uint32_t n);
    void AddAudio(std::uint32_t n);
    void AddCaption(std::uint32_t n);
    void AddTimeCode(std::uint32_t n);
    void Keep(Track track, const Bytes& sample);

    FaultPlan m_plan;
    std::vector<FaultStep> m_steps;
    Take m_take;
    std::vector<StepResult> m_results;
    std::vector<std::uint64_t> m_checkpoints;
};

// Keeps the library quiet while it lives, without asking for memory.
class Quiet {
public:
    Quiet();
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    NoOutput m_output;
    std::shared_ptr<void> m_before;
};

}  // namespace kvtest
