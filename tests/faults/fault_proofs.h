// The proofs of the program fault_proof, each with its own counts. True when all was well.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace kvtest {

struct FaultChoice {
    bool all = false;         // each call fails with each error, and not with one of them
    std::size_t stride = 1;   // each so many calls fail
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
