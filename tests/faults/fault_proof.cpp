// Records, closes and repairs again and again, each time with another call that fails, until none is
// left, and judges what is left of the files.
//
//   fault_proof callbacks|calls|repairs|disks [--all|--some]
//
// Windows has callbacks and repairs.
// With --all each call fails with each error, otherwise the errors take turns; with --some each
// seventh call fails, for builds that are slow.
// Ends with 77 where the system does not let calls fail.
#include "faults/fault_proofs.h"
#include "faults/scenario.h"

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

int main(int count, char** words)
{
    using namespace kvtest;
    const std::string_view what = count >= 2 ? words[1] : "";
    const std::string_view how = count == 3 ? words[2] : "";
    const FaultChoice choice{how == "--all", how == "--some" ? 7u : 1u};
    constexpr int kSkipped = 77;
    try {
        const Quiet quiet;
        for (const FaultProof& proof : FaultProofs())
            if (what == proof.name)
                return proof.can() ? !proof.prove(choice) : kSkipped;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fault_proof: %s\n", error.what());
        return 1;
    }
    std::string names;
    for (const FaultProof& proof : FaultProofs())
        names += (names.empty() ? "" : "|") + std::string(proof.name);
    std::fprintf(stderr, "usage: fault_proof %s [--all|--some]\n", names.c_str());
    return 2;
}
