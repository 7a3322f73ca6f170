#include "faults/fault_proofs.h"

namespace kvtest {

const std::vector<FaultProof>& FaultProofs()
{
    static const std::vector<FaultProof> proofs{
        {"callbacks", [] { return true; }, ProveCallbacks},
        {"calls", CanFailSystemCalls, ProveSystemCalls},
        {"repairs", CanFailSystemCalls, ProveRepairs},
        {"disks", CanFillDisks, ProveFullDisks},
    };
    return proofs;
}

}  // namespace kvtest
