// What the proofs of faults have in common: the run without a fault, what a failure makes of each
// call, what the two files must still hold, and the counting of all that.
#pragma once

#include "faults/scenario.h"
#include "support/boxes.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kvtest {

// What the proofs make calls fail with, and the status that stands for each.
struct FaultError {
    int error;
    std::uint32_t status;
    const char* name;
};
inline constexpr FaultError kFaultErrors[] = {{ENOSPC, 16, "ENOSPC"},
                                              {EIO, 1, "EIO"},
                                              {EFBIG, 1, "EFBIG"},
                                              {EROFS, 17, "EROFS"},
                                              {EACCES, 13, "EACCES"}};

// Counts runs by what failed in them, and keeps the complaints.
class FaultReport {
public:
    // One run; `wrong` is empty when all was as it must be.
    void Add(const std::string& what, const std::string& where, const std::string& wrong);
    // A kind of fault that must have struck so often at least: a trap that catches nothing proves
    // nothing.
    void Require(const std::string& what, const std::string& where, std::size_t struck,
                 std::size_t wanted);
    // Prints the counts; whether all was well.
    bool Print(const std::string& title) const;

private:
    void Complain(const std::string& where, const std::string& what, const std::string& wrong);

    std::map<std::string, std::size_t> m_runs;
    std::size_t m_wrong = 0;
};

// A failure in one step, and what it is to the calls behind it.
struct Failure {
    std::size_t step = 0;
    std::vector<StepResult> atStep;         // what the step may answer
    std::optional<std::uint32_t> later;     // what refusing calls and the close answer then
    std::optional<std::size_t> logTold = {};  // a step ahead that told of the end of the log
};

// Empty when the results of the last run are those of a run with this failure.
std::string CompareResults(const Scenario& scenario, const Failure& failure);
// The same of a run without any.
std::string CompareResults(const Scenario& scenario);

// Whether the media file, whatever became of it, has the last checkpoint in force that was complete
// ahead of a step, where the log line put it, with all its samples: `within` counts those that the
// step itself completed.
std::string JudgeLastCheckpoint(const Scenario& scenario,
                                const std::vector<std::uint64_t>& checkpoints, std::size_t step,
                                unsigned within, const Bytes& media);

// Where the header of mdat stands.
std::size_t MdatOf(const FaultPlan& plan);

// The step of each packet of the log, in its order: those that answered 0 in the last run.
std::vector<std::size_t> PacketSteps(const Scenario& scenario);

// Repairs the pair and looks for the samples that its log must name: those of all packets but the
// last, or of the first so many where the log is not whole. The samples of the steps ahead of
// `flushed` must be intact as well.
std::string JudgeKeptLog(const Scenario& scenario, const std::filesystem::path& media,
                         std::size_t flushed, std::optional<std::size_t> packets = {});
// The same of a file that is repaired already, by the first so many packets of its log.
std::string JudgeRepaired(const Scenario& scenario, const Bytes& media, std::size_t flushed,
                          std::size_t packets);

// All of a file; nothing for none.
Bytes Content(const std::filesystem::path& path);

}  // namespace kvtest
