// `kvmp4 repair`: looks at both files of a killed recording, says what a repair would save and lose,
// and has the library do it unless that would leave less than there is.
#pragma once

#include <string>

struct RepairOptions {
    std::string file;
    bool dryRun = false;
    bool backup = false;
    bool force = false;
    bool deleteLog = false;
    bool json = false;
    bool verbose = false;
};

// The exit code; throws a Failure for what has no report of its own.
int Repair(const RepairOptions& options);
