// Every system call that a repair makes fails, one after the other; then comes a repair that nothing
// disturbs.
#include "faults/fault_proofs.h"

#include "faults/expectations.h"
#include "faults/system_calls.h"
#include "support/descriptors.h"
#include "support/recording.h"
#include "support/repair.h"

#include <algorithm>
#include <cstdio>

namespace kvtest {

Folder& WatchedFolder()
{
    static Folder folder;
    return folder;
}

bool CanFailSystemCalls()
{
    const bool can = SystemCalls::Install((WatchedFolder() / "").string());
    if (!can)
        std::fprintf(stderr, "fault_proof: skipped, needs seccomp filters on x86-64\n");
    return can;
}

namespace {

class Repairs {
public:
    Repairs(const FaultPlan& plan, FaultReport& report, const FaultChoice& choice)
        : m_plan(plan), m_report(report), m_choice(choice), m_path(WatchedFolder() / plan.file),
          m_log(m_path.string() + ".info")
    {
        // What a kill ahead of the close leaves.
        Scenario scenario(plan);
        scenario.Run(m_path, nullptr, [&](bool inside) {
            if (!inside || scenario.Steps()[Scenario::Now()].answer != Answer::Close)
                return;
            m_media = Content(m_path);
            m_packets = Content(m_log);
        });
    }

    bool RunWhole()
    {
        const std::uint32_t status = Repair({});
        m_repaired = Content(m_path);
        const BoxFile file(m_repaired);
        std::string wrong = status != 0 ? "status " + std::to_string(status) : "";
        if (!file.Has("moov/trak.vide") || std::filesystem::exists(m_log))
            wrong = "not repaired";
        m_report.Add("nothing", m_plan.name, wrong);
        for (const SysCall call : {SysCall::Open, SysCall::Write, SysCall::Seek, SysCall::Sync,
                                   SysCall::Close})
            m_report.Require(NameOf(call, SysFile::Media), m_plan.name,
                             CallsOf(call, SysFile::Media), 1);
        for (const SysCall call : {SysCall::Open, SysCall::Read, SysCall::Close, SysCall::Unlink})
            m_report.Require(NameOf(call, SysFile::Log), m_plan.name,
                             CallsOf(call, SysFile::Log), 1);
        return wrong.empty();
    }

    void Fail(SysCall call, SysFile file)
    {
        for (const bool forEver : {false, true}) {
            std::size_t struck = 0;
            for (std::size_t n = 1; FailNth({call, file, n, 0, forEver, false}); n += m_choice.stride)
                ++struck;
            m_report.Require(NameOf(call, file) + (forEver ? " for ever" : " once"), m_plan.name,
                             struck,
                             (CallsOf(call, file) + m_choice.stride - 1) / m_choice.stride);
        }
    }

    // A read or write that moves half of its bytes is no failure.
    void Halve(SysCall call, SysFile file)
    {
        const std::size_t calls = CallsOf(call, file);
        for (std::size_t n = 1; n <= calls; n += m_choice.stride) {
            const SysFault fault{call, file, n, 0, false, false};
            const std::uint32_t status = Repair(fault);
            m_report.Add(std::string(NameOf(call)) + ", half moved", Where(fault),
                         status == 0 && Content(m_path) == m_repaired ? "" : "not repaired");
        }
    }

private:
    // How many the repair without a fault made.
    std::size_t CallsOf(SysCall call, SysFile file) const
    {
        return CountCalls(m_events, call, file);
    }

    std::uint32_t Repair(const SysFault& fault)
    {
        WriteBytes(m_path, m_media);
        WriteBytes(m_log, m_packets);
        const std::string path = Utf8(m_path);
        SystemCalls::Watch(fault);
        errno = 0;
        SystemCalls::Around(true);
        const std::uint32_t status = mp4_repair_file_ex(path.c_str(), 1);
        SystemCalls::Around(false);
        const auto& events = SystemCalls::Stop();
        if (fault.n == 0)
            m_events = events;
        m_struck = std::any_of(events.begin(), events.end(),
                               [](const SysEvent& event) { return event.failed; });
        return status;
    }

    std::string Where(const SysFault& fault) const
    {
        return std::string(m_plan.name) + ", " + NameOf(fault.call, fault.file) + " " +
               std::to_string(fault.n) + ", errno " + std::to_string(fault.error) +
               (fault.forEver ? " for ever" : " once");
    }

    // With each error, or with another for each n.
    bool FailNth(SysFault fault)
    {
        bool struck = false;
        const auto errors = SystemCalls::ErrorsOf(fault.call);
        for (std::size_t i = 0; i < (m_choice.all ? errors.size() : 1); ++i) {
            const FaultError& error = errors[(fault.n + i) % errors.size()];
            fault.error = error.error;
            struck = FailOne(fault, error);
        }
        return struck;
    }

    bool FailOne(const SysFault& fault, const FaultError& error)
    {
        const int descriptor = NextDescriptor();
        const std::uint32_t status = Repair(fault);
        if (!m_struck)
            return false;
        std::string wrong = Judge(fault, error, status);
        if (wrong.empty() && NextDescriptor() != descriptor)
            wrong = "a file was left open";
        m_report.Add(NameOf(fault.call, fault.file) + (fault.forEver ? " for ever" : " once"),
                     Where(fault), wrong);
        return true;
    }

    std::string Judge(const SysFault& fault, const FaultError& error, std::uint32_t status)
    {
        const bool log = std::filesystem::exists(m_log);
        const Bytes media = Content(m_path);
        const auto is = [&](std::uint32_t wanted) {
            return status == wanted ? "" : "status " + std::to_string(status) + ", not " +
                                               std::to_string(wanted);
        };
        switch (fault.call) {
        case SysCall::Open:  // of the cut as well, where it opens the file
            if (media != m_media || !log)
                return "the files were touched";
            return is(error.status);
        case SysCall::Close:
            return status == 0 && media == m_repaired && !log ? "" : "not repaired";
        case SysCall::Truncate:
            if (status != 0 || log)
                return "status " + std::to_string(status) + (log ? ", and the log stayed" : "");
            // One box covers what should have been cut, where there was something.
            if (media == m_repaired && m_repaired.size() >= m_media.size())
                return {};
            if (media.size() != m_media.size() ||
                !BoxFile(media).Damage().empty() || BoxFile(media).Tree().children.back().type != "free")
                return "not as a cut that failed leaves it";
            return {};
        case SysCall::Unlink:
            return status == 0 && media == m_repaired && log ? "" : "not repaired, or no log";
        default: break;
        }
        if (fault.call == SysCall::Sync && fault.error == EROFS)
            return status == 0 && media == m_repaired ? "" : "not repaired";
        if (fault.file == SysFile::Log)
            return JudgeLog(fault.call, status, log, media);
        // The stream seeks to know its position, where nobody looks, and reads ahead where it may.
        const bool mayPass = fault.call == SysCall::Read;
        if (status == 0 && media == m_repaired)
            return mayPass || fault.call == SysCall::Seek ? "" : "the failure is lost";
        // A size that cannot be had is that of an empty file: nothing to keep.
        if (fault.call == SysCall::Seek && SystemCalls::AsksForPositions() && status == 0 &&
            media.empty())
            return {};
        // What is left can be repaired, whatever was written so far.
        if (status == 0 || !log)
            return "status " + std::to_string(status) + (log ? "" : ", and the log is gone");
        if (fault.call != SysCall::Seek && status != error.status)
            return is(error.status);
        if (media.size() < m_media.size())
            return "the file was cut";
        if (const std::uint32_t again = mp4_repair_file_ex(Utf8(m_path).c_str(), 1);
            again != 0)
            return "the second repair has status " + std::to_string(again);
        return Content(m_path) == m_repaired ? "" : "the second repair makes another file";
    }

    // How much of the log could be read is not looked at: zeros follow, which are no packet, so that
    // the log stays. A size that cannot be had is that of an empty log.
    std::string JudgeLog(SysCall call, std::uint32_t status, bool log, const Bytes& media) const
    {
        if (status != 0)
            return log ? "" : "the log is gone";
        const bool emptied = call == SysCall::Seek && media.empty();
        return media == m_repaired || emptied ? "" : "not repaired";
    }

    FaultPlan m_plan;
    FaultReport& m_report;
    FaultChoice m_choice;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    Bytes m_media;
    Bytes m_packets;
    Bytes m_repaired;
    std::vector<SysEvent> m_events;
    bool m_struck = false;
};

}  // namespace

bool ProveRepairs(const FaultChoice& choice)
{
    FaultReport report;
    for (const FaultPlan& plan : FaultPlans()) {
        if (!plan.HasLog())
            continue;
        Repairs proof(plan, report, choice);
        if (!proof.RunWhole())
            break;
        for (const SysFile file : {SysFile::Media, SysFile::Log}) {
            for (const SysCall call : kAllSysCalls)
                proof.Fail(call, file);
            proof.Halve(SysCall::Read, file);
            if (SystemCalls::WritesTheRest())
                proof.Halve(SysCall::Write, file);
        }
    }
    return report.Print("repairs");
}

}  // namespace kvtest
