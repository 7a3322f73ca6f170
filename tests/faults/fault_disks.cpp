// Recordings on a disk that is really full: a tmpfs of so many pages, more in each run.
#include "faults/fault_proofs.h"

#include "faults/expectations.h"
#include "recovery/log_packets.h"
#include "support/kept_log.h"
#include "support/recording.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvtest {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kRoom = 1000;  // pages that nothing here fills

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

// The disk of one run.
class Mounted {
public:
    explicit Mounted(std::size_t pages)
    {
        if (!SizeDisk(pages, 0))
            throw std::runtime_error(std::string("no tmpfs: ") + std::strerror(errno));
    }
    ~Mounted() { umount((Disk() / "").c_str()); }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;
    void Enlarge()
    {
        if (!SizeDisk(kRoom, MS_REMOUNT))
            throw std::runtime_error(std::string("no more room: ") + std::strerror(errno));
    }
};

class Disks {
public:
    Disks(const FaultPlan& plan, FaultReport& report)
        : m_scenario(plan), m_report(report), m_path(Disk() / plan.file),
          m_log(m_path.string() + ".info")
    {
    }

    bool RunWhole()
    {
        Mounted disk(kRoom);
        std::optional<KeptLog> log;
        m_scenario.Run(m_path, nullptr, [&](bool inside) {
            if (!inside && !log && m_scenario.Plan().HasLog())
                log.emplace(m_log);
        });
        m_whole = Content(m_path);
        std::string wrong = CompareResults(m_scenario);
        if (wrong.empty() && log) {
            m_packets = LogPackets(log->Read());
            m_packetSteps = PacketSteps(m_scenario);
            if (m_packets.size() != m_packetSteps.size())
                wrong = "the log has " + std::to_string(m_packets.size()) + " packets, not " +
                        std::to_string(m_packetSteps.size());
        }
        m_report.Add("nothing", m_scenario.Plan().name, wrong);
        return wrong.empty();
    }

    void Fill()
    {
        std::size_t full = 0;
        for (std::size_t pages = 1; FillOne(pages); ++pages)
            ++full;
        // Whatever the log and the moov in force take, a disk that has less than the file is full.
        m_report.Require("full", m_scenario.Plan().name, full, (m_whole.size() - 1) / kPage);
    }

private:
    // False once all of the recording fits.
    bool FillOne(std::size_t pages)
    {
        Mounted disk(pages);
        std::uintmax_t logSize = 0;
        m_grew.clear();
        m_scenario.Run(m_path, nullptr, [&](bool inside) {
            std::error_code none;
            const std::uintmax_t size = std::filesystem::file_size(m_log, none);
            if (!inside && !none && size > std::exchange(logSize, size))
                m_grew.push_back(Scenario::Now());
        });
        const bool fits = m_scenario.Results().back() == StepResult{StepResult::kStatus, 0};
        m_report.Add(fits ? "fits" : "full",
                     m_scenario.Plan().name + (", " + std::to_string(pages) + " pages"),
                     fits ? JudgeWhole() : JudgeFull(disk));
        return !fits || CompareResults(m_scenario) != "";
    }

    // A log that is full first tells once, in the call whose packet did not fit the stream: then the
    // next call that looks at the output is as ever.
    std::optional<std::size_t> LogTold() const
    {
        const auto& steps = m_scenario.Steps();
        const auto& results = m_scenario.Results();
        std::size_t told = 1;
        while (told < steps.size() && results[told] != kFull)
            ++told;
        std::size_t next = told + 1;
        while (next < steps.size() && steps[next].answer == Answer::Ignores)
            ++next;
        if (!m_scenario.Plan().HasLog() || next >= steps.size() ||
            results[next] != StepResult{StepResult::kStatus, steps[next].expected})
            return std::nullopt;
        return told;
    }

    // The log may have ended, the recording not.
    std::string JudgeWhole()
    {
        const Failure none{m_scenario.Steps().size(), {}, std::nullopt, LogTold()};
        if (const std::string wrong = CompareResults(m_scenario, none); !wrong.empty())
            return wrong;
        if (std::filesystem::exists(m_log))
            return "the log stayed";
        return Content(m_path) == m_whole ? "" : "the file is another";
    }

    std::string JudgeFull(Mounted& disk)
    {
        const auto& steps = m_scenario.Steps();
        const auto& results = m_scenario.Results();
        const bool hasLog = m_scenario.Plan().HasLog();
        if (results[0] == kFull)  // a close that fails as well leaves the log
            return CompareResults(m_scenario, {0, {kFull}, 0});

        // The first call that tells of the output.
        const auto logTold = LogTold();
        std::size_t failed = 0;
        while (failed < steps.size() &&
               (failed == logTold ||
                results[failed] == StepResult{StepResult::kStatus, steps[failed].expected}))
            ++failed;
        const auto& checkpoints = m_scenario.Checkpoints();
        const bool picture = steps[failed].name == std::string("video frame");
        const bool threw = results[failed] == StepResult{StepResult::kThrewCode, ENOSPC};
        Failure failure{failed, {kFull}, MP4_ERR_DISK_FULL, logTold};
        if (picture && m_scenario.Plan().proRes)  // its own bytes, or those of a flush ahead
            failure.atStep.push_back({StepResult::kThrewCode, ENOSPC});
        else if (checkpoints[failed] != 0)
            failure.atStep.push_back({StepResult::kThrewCode, ENOSPC});
        if (const std::string wrong = CompareResults(m_scenario, failure); !wrong.empty())
            return wrong;
        if (std::filesystem::exists(m_log) != hasLog)
            return "the log stayed, or is gone";

        const Bytes media = Content(m_path);
        if (steps[failed].answer != Answer::Close) {  // it writes over the moov in force
            // What threw was the checkpoint, ahead of its switch or behind it, or a bare picture.
            const unsigned own = checkpoints[failed] != 0;
            std::string wrong = JudgeLastCheckpoint(m_scenario, checkpoints, failed, own, media);
            if (!wrong.empty() && own != 0 && threw)
                wrong = JudgeLastCheckpoint(m_scenario, checkpoints, failed, 0, media);
            if (!wrong.empty())
                return wrong;
        }
        if (!hasLog)
            return {};
        // With room again, all that the log has can be had.
        disk.Enlarge();
        return JudgeKeptLog(m_scenario, m_path, Flushed(failed), PacketsKept(logTold));
    }

    // The last step whose flush of the log came behind one of the media that did not fail.
    std::size_t Flushed(std::size_t failed) const
    {
        std::size_t flushed = 0;
        for (const std::size_t step : m_grew)
            if (m_scenario.Steps()[step].name == std::string("video frame") && step + 1 < failed)
                flushed = step;
        return flushed;
    }

    // How many packets the log delivers: those that end ahead of its last byte.
    std::size_t PacketsKept(std::optional<std::size_t> logTold) const
    {
        const auto size = std::filesystem::file_size(m_log);
        std::size_t end = kLogHeader;
        std::size_t kept = 0;
        std::size_t at = 0;
        for (const std::size_t step : PacketSteps(m_scenario)) {
            if (logTold && step > *logTold)
                break;
            while (m_packetSteps[at] != step)
                ++at;
            const LogPacket& packet = m_packets[at++];
            end += packet.end - packet.begin;
            if (end >= size)
                break;
            ++kept;
        }
        return kept;
    }

    static constexpr StepResult kFull{StepResult::kStatus, MP4_ERR_DISK_FULL};

    Scenario m_scenario;
    FaultReport& m_report;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    Bytes m_whole;                           // the run without a fault:
    std::vector<LogPacket> m_packets;        //   its log,
    std::vector<std::size_t> m_packetSteps;  //   and the step of each packet
    std::vector<std::size_t> m_grew;         // the steps in which the log became longer
};

// As root, or as nobody in particular in a space of one's own.
bool OwnMounts()
{
    return unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
}

// What the mount table has for a blank and the like.
std::string Unescaped(const std::string& text)
{
    std::string plain;
    for (std::size_t n = 0; n < text.size(); ++n)
        if (text[n] == '\\' && n + 3 < text.size()) {
            plain += static_cast<char>(std::stoi(text.substr(n + 1, 3), nullptr, 8));
            n += 3;
        } else {
            plain += text[n];
        }
    return plain;
}

// Nothing mounted from here on shows elsewhere. Where "/" is no mount, as below a chroot, those that
// can be seen are told one by one; what lies below one that cannot is no less a place for a disk.
void KeepMountsPrivate()
{
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0)
        return;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string word;
        for (int n = 0; n < 5; ++n)
            words >> word;
        mount(nullptr, Unescaped(word).c_str(), nullptr, MS_PRIVATE, nullptr);
    }
}

}  // namespace

bool CanFillDisks()
{
    bool can = OwnMounts();
    if (can) {
        KeepMountsPrivate();
        can = SizeDisk(8, 0) && umount((Disk() / "").c_str()) == 0;
    }
    if (!can)
        std::fprintf(stderr, "fault_proof: skipped, needs the right to mount\n");
    return can;
}

bool ProveFullDisks(const FaultChoice&)
{
    FaultReport report;
    for (const FaultPlan& plan : FaultPlans()) {
        Disks proof(plan, report);
        if (!proof.RunWhole())
            break;
        proof.Fill();
    }
    return report.Print("full disks");
}

}  // namespace kvtest
