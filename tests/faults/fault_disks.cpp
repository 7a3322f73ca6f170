// Recordings on a disk that is really full: a tmpfs of so many pages, more in each run.
#include "faults/fault_proofs.h"

#include "faults/expectations.h"
#include "support/recording.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvtest {

namespace {

constexpr std::size_t kPage = 4096;

Folder& Disk()
{
    static Folder folder;
    return folder;
}

bool SizeDisk(std::size_t pages, unsigned long flags)
{
    const std::string size = "size=" + std::to_string(pages * kPage);
    return mount("disk", (Disk() / "").c_str(), "tmpfs", flags, size.c_str()) == 0;
}

class Disks {
public:
    Disks(const FaultPlan& plan, FaultReport& report)
        : m_scenario(plan), m_report(report), m_path(Disk() / plan.file),
          m_log(m_path.string() + ".info")
    {
    }

    // False once all of the recording fits.
    bool Fill(std::size_t pages)
    {
        SizeDisk(pages, 0);
        m_scenario.Run(m_path, nullptr);
        const StepResult close = m_scenario.Results().back();
        const bool fits = close == StepResult{StepResult::kStatus, 0};
        m_report.Add(fits ? "fits" : "full",
                     m_scenario.Plan().name + (", " + std::to_string(pages) + " pages"),
                     fits ? JudgeWhole() : JudgeFull());
        umount((Disk() / "").c_str());
        return !fits || CompareResults(m_scenario) != "";
    }

private:
    // The log may have ended, the recording not.
    std::string JudgeWhole()
    {
        if (std::filesystem::exists(m_log))
            return "the log stayed";
        const auto complaints = BoxFile::Read(m_path).Complaints();
        return complaints.empty() ? "" : complaints.front();
    }

    std::string JudgeFull()
    {
        const auto& steps = m_scenario.Steps();
        const auto& results = m_scenario.Results();
        const bool hasLog = m_scenario.Plan().HasLog();
        const StepResult full{StepResult::kStatus, MP4_ERR_DISK_FULL};
        if (results[0] == full)
            return {};  // a close that fails as well leaves the log
        // The first that a call tells of; a log that is full first tells once.
        std::size_t first = steps.size();
        for (std::size_t n = steps.size(); n-- > 0;)
            if (steps[n].answer == Answer::Refuses && results[n] == full)
                first = n;
            else if (steps[n].answer == Answer::Refuses)
                break;
        for (std::size_t n = first; n < steps.size(); ++n)
            if (steps[n].answer != Answer::Ignores && results[n] != full)
                return std::string(steps[n].name) + ": " + results[n].Text();
        if (results.back() != full)
            return "the close: " + results.back().Text();
        if (std::filesystem::exists(m_log) != hasLog)
            return "the log stayed, or is gone";

        // The step that failed may be the one ahead, which threw.
        const auto& checkpoints = m_scenario.Checkpoints();
        std::size_t failed = first;
        while (failed > 0 && results[failed - 1].kind == StepResult::kThrewCode)
            --failed;
        if (first < steps.size()) {
            const std::string wrong =
                JudgeLastCheckpoint(m_scenario, checkpoints, failed, 0, Content(m_path));
            if (!wrong.empty() &&
                !JudgeLastCheckpoint(m_scenario, checkpoints, failed, checkpoints[failed],
                                     Content(m_path))
                     .empty())
                return wrong;
        }
        if (!hasLog)
            return {};
        // With room again, what the log has can be had.
        SizeDisk(1000, MS_REMOUNT);
        const std::uint32_t status = mp4_repair_file_ex(m_path.c_str(), 1);
        if (status != 0)
            return "the repair has status " + std::to_string(status);
        const BoxFile file = BoxFile::Read(m_path);
        return file.Damage().empty() ? "" : "repaired: " + file.Damage().front();
    }

    Scenario m_scenario;
    FaultReport& m_report;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
};

// As root, or as nobody in particular in a space of one's own.
bool OwnMounts()
{
    return unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
}

}  // namespace

bool CanFillDisks()
{
    const bool can = OwnMounts() && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     SizeDisk(8, 0) && umount((Disk() / "").c_str()) == 0;
    if (!can)
        std::fprintf(stderr, "fault_proof: skipped, needs the right to mount\n");
    return can;
}

bool ProveFullDisks(const FaultChoice&)
{
    FaultReport report;
    for (const FaultPlan& plan : FaultPlans()) {
        Disks proof(plan, report);
        for (std::size_t pages = 1; proof.Fill(pages); ++pages) {
        }
    }
    return report.Print("full disks");
}

}  // namespace kvtest
