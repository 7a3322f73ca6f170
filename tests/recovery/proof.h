// The states that a kill can leave, and the proof that each of them is what it should be.
#pragma once

#include "recovery/take.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kvtest {

// A cut with what is in force there.
struct KillState {
    Cut cut;
    const Checkpoint* inForce;
};

// All cuts of a recording from its first checkpoint on to its close: behind each write, and inside
// every one that is no payload at each byte; behind any other call the file is the same. Left out
// are the three inside the four bytes of each switch, which a system must write as one.
std::vector<KillState> KillStates(const Take& take);

// A media file and a log as a kill leaves them: the log holds no call whose media is not complete.
struct WreckState {
    Cut media;
    std::size_t log;  // bytes
    bool behind;      // unless it does: then bytes of the media were lost with the process
};

// What became of such a pair.
struct RepairVerdict {
    std::string wrong;     // empty when all is as it must be
    bool emptied = false;  // the log has nothing to rebuild
    // A checkpoint took the mark of the 64-bit size, and no repair gives it back.
    bool unmarked = false;
};

// Repairs a pair twice, in a folder that it may fill. All is well when the file holds every sample
// of the log but the last, and is empty exactly where there is nothing to rebuild. A file without
// its mark is judged with it.
RepairVerdict JudgeRepair(const Take& take, const WreckState& state, const Bytes& media,
                          const std::string& folder);

}  // namespace kvtest
