// The proofs of the program fault_proof, each with its own counts. True when all was well.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <vector>

namespace kvtest {

struct FaultChoice {
    bool all = false;         // each call fails with each error, and not with one of them
    std::size_t stride = 1;   // each so many calls fail

    // The first of so many calls that fails; another in each turn, so that none is always left out.
    std::size_t First(std::size_t turn, std::size_t calls) const
    {
        return 1 + turn % std::max<std::size_t>(1, std::min(stride, calls));
    }
    // How many fail from there on.
    std::size_t Strikes(std::size_t first, std::size_t calls) const
    {
        return calls < first ? 0 : (calls - first) / stride + 1;
    }
};

bool ProveCallbacks(const FaultChoice& choice);    // a callback table
bool ProveSystemCalls(const FaultChoice& choice);  // local files
bool ProveRepairs(const FaultChoice& choice);      // their repair
bool ProveFullDisks(const FaultChoice&);           // a small disk that is really full

// Whether this system allows it; says why not.
bool CanFailSystemCalls();
bool CanFillDisks();

struct FaultProof {
    std::string_view name;
    bool (*can)();
    bool (*prove)(const FaultChoice& choice);
};

// Those that there are on this kind of system.
const std::vector<FaultProof>& FaultProofs();

// Where system calls fail.
class Folder;
Folder& WatchedFolder();

}  // namespace kvtest
