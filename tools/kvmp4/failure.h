// What ends a run: one sentence for standard error and an exit code that tells the kinds apart.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

enum ExitCode {
    kExitOk = 0,
    kExitOther = 1,
    kExitUsage = 2,
    kExitInput = 3,   // the input cannot be opened or read
    kExitStream = 4,  // no usable stream, or a codec that cannot be recorded
    kExitOutput = 5,  // the output cannot be created
    kExitWrite = 6,   // a write failed: disk full and the like
    kExitNoLog = 7,   // a repair finds no log
    kExitLog = 8,     // the log cannot be read
    kExitNotALog = 9,  // it is something else
    kExitRefused = 10,  // a repair would leave less than there is
    kExitPartly = 11,   // repaired up to a damage in the log
    kExitErrors = 12,    // verify found errors
    kExitWarnings = 13,  // verify found nothing worse than warnings
    kExitNotAMovie = 14,  // neither an MP4 nor a MOV file
};

class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& sentence)
        : std::runtime_error(sentence), code(exitCode)
    {
    }
    ExitCode code;
};

// What a status of the library means, as the end of a sentence.
const char* StatusText(std::uint32_t status);
