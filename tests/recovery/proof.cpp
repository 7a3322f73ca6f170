#include "recovery/proof.h"

#include "recovery/judge.h"
#include "recovery/log_packets.h"
#include "support/samples.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace kvtest {

std::vector<KillState> KillStates(const Take& take)
{
    std::vector<KillState> states;
    const auto& calls = take.trace.Calls();
    std::size_t next = 0;  // checkpoint
    for (std::size_t n = 0; n < calls.size() && calls[n].step < take.closeStep; ++n) {
        const bool isSwitch =
            next < take.checkpoints.size() && take.checkpoints[next].switchCall == n;
        if (isSwitch)
            ++next;
        const TraceCall& call = calls[n];
        if (next == 0 || call.kind != TraceCall::kWrite)
            continue;
        const Checkpoint* const inForce = &take.checkpoints[next - 1];
        for (std::uint32_t bytes = isSwitch || call.payload ? call.size : 1; bytes <= call.size;
             ++bytes)
            states.push_back({{n, bytes}, inForce});
    }
    return states;
}

namespace {

void Put(const std::string& path, const std::uint8_t* bytes, std::size_t size)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
}

// What a repair must make of a log that is cut.
struct Expected {
    bool emptied = true;
    Counts counts;
    std::uint64_t mediaBytes = 0;  // of all samples but time codes

    Expected(const Take& take, const WreckState& state, std::size_t mediaSize)
    {
        constexpr std::size_t kMdatHeader = 8;
        // The last byte of a log is never delivered.
        const std::size_t delivered = state.log == 0 ? 0 : state.log - 1;
        const bool noHeader = delivered < kLogHeader || mediaSize < take.mdat + kMdatHeader;
        std::size_t sample = 0;
        for (const LogPacket& packet : take.packets) {
            if (!noHeader && packet.IsTrack() && packet.begin < delivered)
                emptied = false;  // one byte of its set-up is enough
            if (packet.IsSample() && packet.end <= delivered) {
                const Sample& kept = take.samples[sample++];
                ++counts.of[kept.track];
                mediaBytes += kept.track == kTimeCode ? 0 : kept.size;
            }
        }
    }
};

// The two runs; what they leave, or what is wrong with them.
std::string RepairTwice(const std::string& path, std::uint8_t option, Bytes& repaired)
{
    if (const std::uint32_t status = mp4_repair_file_ex(path.c_str(), option); status != MP4_OK)
        return "the repair gives " + std::to_string(status);
    repaired = BoxFile::Read(path).All();
    if (std::filesystem::exists(path + ".info") == (option != 0))
        return "the log is not where it should be";
    // A second run: without its log it refuses, and with it makes the same file again.
    const std::uint32_t again = mp4_repair_file_ex(path.c_str(), 0);
    if (again != (option ? std::uint32_t{MP4_ERR_NOT_FOUND} : std::uint32_t{MP4_OK}))
        return "the second repair gives " + std::to_string(again);
    return BoxFile::Read(path).All() == repaired ? "" : "the second repair changes the file";
}

std::string JudgeRepaired(const Take& take, const WreckState& state, const Expected& expected,
                          const Bytes& repaired)
{
    const BoxFile file(repaired);
    const bool large = (take.plan.flags & MP4_OPEN_LARGE_FILE) != 0;
    if (file.Find("mdat").Size() != expected.mediaBytes + (large ? 16 : 8))
        return "mdat has not the size of the samples that the log tells";
    if (!state.behind)
        return JudgeFile(take, expected.counts, repaired, expected.counts.of[kTimeCode] != 0);
    for (const Track track : kAllTracks)
        if (Samples(file, kTrackNames[track]).size() != expected.counts.of[track])
            return std::string(kTrackNames[track]) + " has not the samples of the log";
    return {};
}

}  // namespace

RepairVerdict JudgeRepair(const Take& take, const WreckState& state, const Bytes& media,
                          const std::string& folder)
{
    const std::string path = folder + "/" + take.plan.FileName();
    Put(path, media.data(), media.size());
    Put(path + ".info", take.log.data(), state.log);
    const Expected expected(take, state, media.size());

    RepairVerdict verdict;
    verdict.emptied = expected.emptied;
    Bytes repaired;
    verdict.wrong = RepairTwice(path, static_cast<std::uint8_t>(state.media.bytes % 2), repaired);
    if (!verdict.wrong.empty())
        return verdict;
    if (repaired.empty() != expected.emptied) {
        verdict.wrong = expected.emptied ? "the file is not empty" : "the file is empty";
        return verdict;
    }
    if (expected.emptied)
        return verdict;
    const auto mark = static_cast<std::size_t>(take.mdat);
    const Bytes marked = {0, 0, 0, 1};
    verdict.unmarked = take.plan.IsSafe() && (take.plan.flags & MP4_OPEN_LARGE_FILE) != 0 &&
                       !std::equal(marked.begin(), marked.end(), &repaired[mark]);
    if (verdict.unmarked)
        std::copy(marked.begin(), marked.end(), &repaired[mark]);
    verdict.wrong = JudgeRepaired(take, state, expected, repaired);
    return verdict;
}

}  // namespace kvtest
