// Every system call that a repair makes fails, one after the other; then comes a repair that
// nothing disturbs.
#include "faults/fault_proofs.h"

#include "faults/expectations.h"
#include "faults/system_calls.h"
#include "recovery/log_packets.h"
#include "support/descriptors.h"
#include "support/kept_log.h"
#include "support/recording.h"
#include "support/repair.h"
#include "support/samples.h"

#include <algorithm>
#include <cstdio>
#include <optional>

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

std::string Status(std::uint32_t is, std::uint32_t wanted)
{
    return is == wanted ? ""
                        : "status " + std::to_string(is) + ", not " + std::to_string(wanted);
}

// How much of a log the runtime handed over: what it read behind its last seek, up to a failure.
std::size_t Delivered(const std::vector<SysEvent>& events)
{
    std::size_t bytes = 0;
    bool failed = false;
    for (const SysEvent& event : events) {
        if (event.file != SysFile::Log)
            continue;
        if (event.call == SysCall::Seek) {
            bytes = 0;
            failed = false;
        }
        failed |= event.call == SysCall::Read && event.failed;
        bytes += failed ? 0 : event.moved;
    }
    return bytes;
}

// The places of two files that are alike, from one place up to another.
bool SameBytes(const Bytes& is, const Bytes& wanted, std::size_t begin, std::size_t end)
{
    return end <= is.size() && end <= wanted.size() &&
           (begin >= end || std::equal(is.begin() + static_cast<std::ptrdiff_t>(begin),
                                       is.begin() + static_cast<std::ptrdiff_t>(end),
                                       wanted.begin() + static_cast<std::ptrdiff_t>(begin)));
}

// The first so many bytes, with zeros where there are fewer.
Bytes Resized(Bytes bytes, std::size_t size)
{
    bytes.resize(size);
    return bytes;
}

class Repairs {
public:
    Repairs(const FaultPlan& plan, std::size_t turn, FaultReport& report,
            const FaultChoice& choice)
        : m_scenario(plan), m_plan(plan), m_turn(turn), m_report(report), m_choice(choice),
          m_path(WatchedFolder() / plan.file), m_log(m_path.string() + ".info"),
          m_mdat(MdatOf(plan))
    {
        // What a kill ahead of the close leaves.
        std::optional<KeptLog> log;
        SystemCalls::Watch({});
        m_scenario.Run(m_path, nullptr, [&](bool inside) {
            SystemCalls::Around(inside);
            if (!inside && !log)
                log.emplace(m_log);
            if (!inside || m_scenario.Steps()[Scenario::Now()].answer != Answer::Close)
                return;
            m_media = Content(m_path);
            m_packets = Content(m_log);
        });
        for (const SysEvent& event : SystemCalls::Stop())
            if (event.file == SysFile::Log && event.call == SysCall::Sync &&
                m_scenario.Steps()[event.step].answer != Answer::Close)
                m_flushed = event.step;
        m_allPackets = LogPackets(log->Read());
        std::filesystem::remove(m_log.string() + ".kept");
    }

    bool RunWhole()
    {
        const std::uint32_t status = Repair({});
        m_repaired = Content(m_path);
        // All packets that the log had by then, but the one with its last byte.
        const auto kept = std::count_if(
            m_allPackets.begin(), m_allPackets.end(),
            [this](const LogPacket& packet) { return packet.end < m_packets.size(); });
        std::string wrong = Status(status, 0);
        if (wrong.empty() && m_plan.flushInterval < m_plan.pictures && m_flushed == 0)
            wrong = "the log was never flushed";
        if (wrong.empty())
            wrong = JudgeRepaired(m_scenario, m_repaired, m_flushed,
                                  static_cast<std::size_t>(kept));
        if (wrong.empty() && std::filesystem::exists(m_log))
            wrong = "the log stayed";
        m_report.Add("nothing", m_plan.name, wrong);
        for (const SysCall call : {SysCall::Open, SysCall::Write, SysCall::Seek, SysCall::Sync,
                                   SysCall::Close, SysCall::Truncate})
            m_report.Require(NameOf(call, SysFile::Media), m_plan.name,
                             CallsOf(call, SysFile::Media), 1);
        for (const SysCall call : {SysCall::Open, SysCall::Read, SysCall::Seek, SysCall::Close,
                                   SysCall::Unlink})
            m_report.Require(NameOf(call, SysFile::Log), m_plan.name,
                             CallsOf(call, SysFile::Log), 1);
        return wrong.empty();
    }

    void Fail(SysCall call, SysFile file)
    {
        FailAll({call, file, 0, 0, false, false}, 0);
        FailAll({call, file, 0, 0, true, false}, 0);
        // A log that ends anywhere, and not only where a block of the runtime does.
        if (call == SysCall::Read && file == SysFile::Log)
            FailAll({call, file, 0, 0, true, true}, 1);
    }

    // A read or write that moves half of its bytes is no failure.
    void Halve(SysCall call, SysFile file)
    {
        const std::size_t calls = CallsOf(call, file);
        for (std::size_t n = m_choice.First(m_turn++, calls); n <= calls; n += m_choice.stride) {
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

    // The calls behind the first so many.
    void FailAll(SysFault fault, std::size_t ahead)
    {
        const std::size_t calls = CallsOf(fault.call, fault.file) - ahead;
        const std::size_t first = m_choice.First(m_turn++, calls);
        std::size_t struck = 0;
        for (fault.n = ahead + first; FailNth(fault); fault.n += m_choice.stride)
            ++struck;
        m_report.Require(NameOf(fault.call, fault.file) + WayOf(fault), m_plan.name, struck,
                         m_choice.Strikes(first, calls));
    }

    static const char* WayOf(const SysFault& fault)
    {
        return fault.half ? " for ever, half moved" : fault.forEver ? " for ever" : " once";
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
        m_delivered = Delivered(events);
        return status;
    }

    std::string Where(const SysFault& fault) const
    {
        return std::string(m_plan.name) + ", " + NameOf(fault.call, fault.file) + " " +
               std::to_string(fault.n) + ", errno " + std::to_string(fault.error) + WayOf(fault);
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
        m_report.Add(NameOf(fault.call, fault.file) + WayOf(fault), Where(fault), wrong);
        return true;
    }

    std::string Judge(const SysFault& fault, const FaultError& error, std::uint32_t status)
    {
        const bool log = std::filesystem::exists(m_log);
        const Bytes media = Content(m_path);
        switch (fault.call) {
        case SysCall::Open:  // of the cut as well, where it opens the file
            if (media != m_media || !log)
                return "the files were touched";
            return Status(status, error.status);
        case SysCall::Close:
            return status == 0 && media == m_repaired && !log ? "" : "not repaired";
        case SysCall::Truncate:
            if (status != 0 || log)
                return "status " + std::to_string(status) + (log ? ", and the log stayed" : "");
            return JudgeUncut(media, m_repaired.size(), m_repaired);
        case SysCall::Unlink:
            return status == 0 && media == m_repaired && log ? "" : "not repaired, or no log";
        default: break;
        }
        if (fault.call == SysCall::Sync && fault.error == EROFS)
            return status == 0 && media == m_repaired ? "" : "not repaired";
        if (fault.file == SysFile::Log)
            return JudgeLog(fault.call, error, status, log, media);
        // The stream seeks to know its position, where nobody looks, and reads ahead where it may.
        const bool mayPass = fault.call == SysCall::Read;
        if (status == 0 && media == m_repaired)
            return mayPass || fault.call == SysCall::Seek ? "" : "the failure is lost";
        // What is left can be repaired, whatever was written so far.
        if (status == 0 || !log)
            return "status " + std::to_string(status) + (log ? "" : ", and the log is gone");
        if (fault.call != SysCall::Seek && status != error.status)
            return Status(status, error.status);
        if (media.size() < m_media.size())
            return "the file was cut";
        return JudgeAgain({});
    }

    // A file that a repair wrote to up to `end`, as `written` has it, and did not cut: one box
    // covers the old bytes behind, where there is room for its header.
    std::string JudgeUncut(const Bytes& media, std::size_t end, const Bytes& written) const
    {
        const std::size_t old = m_media.size();
        if (media.size() != std::max(old, end) || !SameBytes(media, written, 0, end))
            return "the file is another";
        const bool covered = end + 8 <= old;
        const BoxFile file(media);
        if (covered && (file.U32(end) != old - end || file.Code(end + 4) != "free"))
            return "no box covers the old bytes";
        return SameBytes(media, m_media, covered ? end + 8 : end, old)
                   ? ""
                   : "bytes behind the index were touched";
    }

    // A repair that nothing disturbs makes the same file, but where the index lay that the one
    // ahead of it wrote over the samples, and the header of the box behind that index.
    std::string JudgeAgain(const Span& index)
    {
        const std::uint32_t again = mp4_repair_file_ex(Utf8(m_path).c_str(), 1);
        if (again != 0)
            return "the second repair has status " + std::to_string(again);
        if (std::filesystem::exists(m_log))
            return "the second repair keeps the log";
        const Bytes media = Content(m_path);
        const std::size_t size = m_repaired.size();
        return media.size() == size &&
                       SameBytes(media, m_repaired, 0,
                                 index.Found() ? std::min(index.begin, size) : size) &&
                       (!index.Found() || SameBytes(media, m_repaired, index.end + 8, size))
                   ? ""
                   : "the second repair makes another file";
    }

    // How much of the log a read delivered is not looked at: zeros stand for the rest. They are no
    // packet, so that the log ends there with the error. A failure behind its last byte is its end.
    std::string JudgeLog(SysCall call, const FaultError& error, std::uint32_t status, bool log,
                         const Bytes& media)
    {
        const bool seeks = call == SysCall::Seek;
        if (status == 0) {
            if (log)
                return "the log stayed";
            return m_delivered >= m_packets.size() && media == m_repaired ? "" : "not repaired";
        }
        const bool why = !seeks || SystemCalls::TellsWhy() || status != MP4_ERR_FAILED;
        if (why && status != error.status)
            return Status(status, error.status);
        if (!log)
            return "the log is gone";
        if (!seeks && m_delivered >= m_packets.size())
            return "the log was there, and the status is not 0";
        const auto setUp = std::find_if(m_allPackets.begin(), m_allPackets.end(),
                                        [](const LogPacket& packet) { return packet.IsTrack(); });
        if (m_delivered <= setUp->begin)
            return media == m_media ? JudgeAgain({}) : "the media file was touched";
        Span index;
        if (const std::string wrong = JudgeCutLog(media, index); !wrong.empty())
            return wrong;
        return JudgeAgain(index);
    }

    // The media file of a log of which so much was delivered: its index has the packets that begin
    // ahead of the cut, the last with zeros for the fields behind it.
    std::string JudgeCutLog(const Bytes& media, Span& index) const
    {
        const BoxFile log(Resized(Resized(m_packets, m_delivered), m_allPackets.back().end));
        const BoxFile file(media);
        const bool large = (m_plan.flags & MP4_OPEN_LARGE_FILE) != 0;
        const std::size_t data = m_mdat + (large ? 16 : 8);
        std::vector<Bytes> wanted[kTracks];
        std::size_t sample = data;
        std::size_t end = data;
        for (const LogPacket& packet : m_allPackets) {
            if (packet.begin >= m_delivered)
                break;
            if (!packet.IsSample())
                continue;
            const Track track = packet.tag == 4   ? kVideo
                                : packet.tag == 5 ? kAudio
                                : packet.tag == 7 ? kCaptions
                                                  : kTimeCode;
            const std::size_t size = track == kTimeCode ? 4 : log.U32(packet.end - 4);
            if (sample + size > media.size())
                return "the file ends inside a sample";
            const auto begin = media.begin() + static_cast<std::ptrdiff_t>(sample);
            wanted[track].emplace_back(begin, begin + static_cast<std::ptrdiff_t>(size));
            sample += size;
            end += track == kTimeCode ? 0 : size;
        }

        index = file.Find("moov");
        if (!index.Found() || index.begin != end)
            return "the index is not behind the samples";
        Bytes written = Resized(m_media, end);
        for (std::size_t n = 0; n < (large ? 8u : 4u); ++n)
            written[m_mdat + (large ? 15 : 3) - n] =
                static_cast<std::uint8_t>(n < 4 ? (end - m_mdat) >> 8 * n : 0);
        const Bytes moov = file.Box("moov");
        written.insert(written.end(), moov.begin(), moov.end());
        for (const Track track : kAllTracks)
            if (Samples(file, kTrackNames[track]) != wanted[track])
                return std::string(kTrackNames[track]) + " has not the samples of the log";
        return JudgeUncut(media, index.end, written);
    }

    Scenario m_scenario;
    FaultPlan m_plan;
    std::size_t m_turn;
    FaultReport& m_report;
    FaultChoice m_choice;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    std::size_t m_mdat;
    Bytes m_media;
    Bytes m_packets;
    std::vector<LogPacket> m_allPackets;  // also those that the log got only by the close
    std::size_t m_flushed = 0;            // the step that flushed the log last
    Bytes m_repaired;
    std::vector<SysEvent> m_events;
    bool m_struck = false;
    std::size_t m_delivered = 0;  // of the log, in the last repair
};

// A log beyond the block of 24 MiB that its reader pulls in at once: where a read behind it fails, what
// was delivered by then is repaired, and nothing is cut.
class LongLog {
public:
    explicit LongLog(FaultReport& report)
        : m_report(report), m_path(WatchedFolder() / "long.mp4"),
          m_log(m_path.string() + ".info"), m_media(DeadFile(kSamples))
    {
        InfoLog log;
        log.Aac();
        m_frames = log.All().size();
        for (std::uint64_t n = 0; n < kSamples; ++n)
            log.Audio(n, 1);
        m_size = log.All().size();
        WriteBytes(m_log, log.All());
    }
    ~LongLog()
    {
        std::filesystem::remove(m_path);
        std::filesystem::remove(m_log);
    }
    LongLog(const LongLog&) = delete;
    LongLog& operator=(const LongLog&) = delete;

    void Fail()
    {
        RunOne({}, {});
        for (const bool forEver : {false, true})
            for (std::size_t n = 1; RunOne({SysCall::Read, SysFile::Log, n, 0, forEver, false},
                                           SystemCalls::ErrorsOf(SysCall::Read)[n % 2]);
                 ++n) {
            }
        m_report.Require("long log", "behind the first block", m_behind, 1);
    }

private:
    static constexpr std::size_t kSamples = 2000000;
    static constexpr std::size_t kPacket = 13;  // bytes
    static constexpr std::size_t kBlock = 24 * 1024 * 1024;

    // False when nothing failed.
    bool RunOne(SysFault fault, const FaultError& error)
    {
        WriteBytes(m_path, m_media);
        fault.error = error.error;
        SystemCalls::Watch(fault);
        errno = 0;
        SystemCalls::Around(true);
        const std::uint32_t status = mp4_repair_file_ex(Utf8(m_path).c_str(), 0);
        SystemCalls::Around(false);
        const auto& events = SystemCalls::Stop();
        const bool struck = std::any_of(events.begin(), events.end(),
                                        [](const SysEvent& event) { return event.failed; });
        if (struck || fault.n == 0)
            m_report.Add("log beyond 24 MiB", "read " + std::to_string(fault.n),
                         Judge(Delivered(events), error, status));
        return struck;
    }

    std::string Judge(std::size_t delivered, const FaultError& error, std::uint32_t status)
    {
        if (delivered < kBlock) {  // zeros from the first byte on
            if (delivered != 0)
                return "a part of the block was delivered";
            if (status != error.status)
                return Status(status, error.status);
            return Content(m_path) == m_media ? "" : "the media file was touched";
        }
        const bool whole = delivered >= m_size;
        m_behind += !whole;
        if (whole && status == error.status && SystemCalls::ForgetsReads())
            return Content(m_path).size() < m_media.size() ? "the file was cut" : "";
        if (status != (whole ? 0 : error.status))
            return Status(status, whole ? 0 : error.status);
        // All packets but the one with the last byte.
        const std::size_t kept = (delivered - 1 - m_frames) / kPacket;
        const BoxFile file = BoxFile::Read(m_path);
        const std::size_t data = 44;
        const Span index = file.Find("moov");
        if (!index.Found() || index.begin != data + kept)
            return "no index behind " + std::to_string(kept) + " samples";
        const std::size_t size = file.All().size();
        if (whole ? index.end != size
                  : size < m_media.size() ||
                        !SameBytes(file.All(), m_media, index.end + 8, m_media.size()))
            return whole ? "not cut" : "bytes behind the index were touched";
        if (file.U32(36) != 8 + kept || !SameBytes(file.All(), m_media, 0, 36) ||
            !SameBytes(file.All(), m_media, 40, data + kept))
            return "the data is not as it was";
        const std::vector<std::uint32_t> wanted{1, static_cast<std::uint32_t>(kept)};
        const auto sizes = Words(file.Box("moov/trak.soun/mdia/minf/stbl/stsz"), 12);
        return sizes == wanted ? "" : "not the samples of the log";
    }

    FaultReport& m_report;
    std::filesystem::path m_path;
    std::filesystem::path m_log;
    Bytes m_media;
    std::size_t m_frames = 0;  // where their packets begin in the log
    std::size_t m_size = 0;    // of the log
    std::size_t m_behind = 0;  // runs that failed behind the first block
};

}  // namespace

bool ProveRepairs(const FaultChoice& choice)
{
    FaultReport report;
    std::size_t turn = 0;
    for (const FaultPlan& plan : FaultPlans()) {
        if (!plan.HasLog())
            continue;
        Repairs proof(plan, turn++, report, choice);
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
    LongLog(report).Fail();
    return report.Print("repairs");
}

}  // namespace kvtest
