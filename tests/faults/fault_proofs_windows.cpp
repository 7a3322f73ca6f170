#include "faults/fault_proofs.h"

namespace kvtest {

// What a failing call leaves in a recording depends on the runtime's streams, and only those of
// Linux are known; no disk can be made for a test.
const std::vector<FaultProof>& FaultProofs()
{
    static const std::vector<FaultProof> proofs{
        {"callbacks", [] { return true; }, ProveCallbacks},
        {"repairs", CanFailSystemCalls, ProveRepairs},
    };
    return proofs;
}

}  // namespace kvtest
