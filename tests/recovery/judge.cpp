#include "recovery/judge.h"

#include "support/check.h"
#include "support/samples.h"

#include <cstring>

namespace kvtest {

std::string Where(Track track, std::size_t n)
{
    return std::string(kTrackNames[track]) + " sample " + std::to_string(n + 1);
}

std::string WrongCount(Track track, std::size_t is, std::size_t wanted)
{
    return std::string(kTrackNames[track]) + " has " + std::to_string(is) + " samples and not " +
           std::to_string(wanted);
}

namespace {

// The end of the first box of a type at the top of a file; 0 when the walk does not get there.
std::size_t EndOf(const Bytes& file, const char* type)
{
    for (std::size_t at = 0; at + 8 <= file.size();) {
        std::uint64_t size =
            std::uint64_t{file[at]} << 24 | file[at + 1] << 16 | file[at + 2] << 8 | file[at + 3];
        if (size == 1 && at + 16 <= file.size()) {
            size = 0;
            for (std::size_t i = 8; i < 16; ++i)
                size = size << 8 | file[at + i];
        }
        if (size < 8 || size > file.size() - at)
            return 0;
        if (std::memcmp(file.data() + at + 4, type, 4) == 0)
            return at + static_cast<std::size_t>(size);
        at += static_cast<std::size_t>(size);
    }
    return 0;
}

// The walk and the tables: all of the judgement but libavformat's.
std::string JudgeStrictly(const Take& take, const Counts& counts, const Bytes& bytes,
                          bool overwritten)
{
    for (const std::string& complaint : CheckFile(bytes))
        if (!overwritten || !complaint.ends_with("is outside mdat"))
            return complaint;
    const BoxFile file(bytes);
    for (const Track track : kAllTracks) {
        const auto& wanted = take.tracks[track];
        const auto samples = Samples(file, kTrackNames[track]);
        if (samples.size() != counts.of[track])
            return WrongCount(track, samples.size(), counts.of[track]);
        for (std::size_t n = 0; n < samples.size(); ++n) {
            if (samples[n].size() != wanted[n].size)
                return Where(track, n) + " has another size";
            if (!overwritten && Hash(samples[n].data(), samples[n].size()) != wanted[n].hash)
                return Where(track, n) + " is not intact";
        }
    }
    return {};
}

}  // namespace

std::string JudgeFile(const Take& take, const Counts& counts, const Bytes& file, bool overwritten)
{
    if (const std::string wrong = JudgeStrictly(take, counts, file, overwritten); !wrong.empty())
        return wrong;
    return JudgeByLibavformat(take, counts, file, overwritten ? EndOf(file, "mdat") : file.size());
}

std::string JudgeCheckpoint(const Take& take, const Checkpoint& checkpoint, const Bytes& file)
{
    const std::size_t end = EndOf(file, "moov");
    if (end == 0)
        return "no moov in reach";
    if (EndOf(file, "mdat") != checkpoint.position)
        return "mdat does not end at the moov in force";
    // What lies behind the moov in force belongs to no reader: the strict walk ends with it.
    const Bytes inForce(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(end));
    if (const std::string wrong = JudgeStrictly(take, checkpoint.samples, inForce, false);
        !wrong.empty())
        return wrong;
    return JudgeByLibavformat(take, checkpoint.samples, file, file.size());
}

}  // namespace kvtest
