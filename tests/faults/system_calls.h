// Stands below the runtime's streams: every system call that they make for the files of one folder
// comes by here and can be made to fail. A seccomp filter sends them, by the place in the runtime
// that they are made from, so that the calls of a sanitizer and of the tests' own are not concerned;
// on Windows the tables of what the runtime and the program import do.
#pragma once

#include "faults/expectations.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace kvtest {

enum class SysCall { Open, Read, Write, Seek, Sync, Close, Truncate, Unlink };
constexpr SysCall kAllSysCalls[] = {SysCall::Open,  SysCall::Read,     SysCall::Write,
                                    SysCall::Seek,  SysCall::Sync,     SysCall::Close,
                                    SysCall::Truncate, SysCall::Unlink};
inline const char* NameOf(SysCall call)
{
    constexpr const char* names[] = {"open", "read",  "write",    "seek",
                                     "sync", "close", "truncate", "unlink"};
    return names[static_cast<int>(call)];
}

// Files whose names end in ".info" are logs, all others media.
enum class SysFile { Media, Log };

struct SysFault {
    SysCall call = SysCall::Open;
    SysFile file = SysFile::Media;
    std::size_t n = 0;  // the call that fails, from 1; 0 for none
    int error = 0;      // 0: nothing fails, but a read or write moves half of its bytes
    bool forEver = false;
    bool half = false;  // the call ahead of the first that fails moves half of its bytes
};

struct SysEvent {
    SysCall call;
    SysFile file;
    std::size_t step;  // of the scenario
    bool failed;
    std::size_t moved = 0;  // bytes, by a read or a write
};

inline std::string NameOf(SysCall call, SysFile file)
{
    return std::string(file == SysFile::Log ? "log " : "media ") + NameOf(call);
}

inline std::size_t CountCalls(const std::vector<SysEvent>& events, SysCall call, SysFile file)
{
    return static_cast<std::size_t>(
        std::count_if(events.begin(), events.end(), [=](const SysEvent& event) {
            return event.call == call && event.file == file;
        }));
}

class SystemCalls {
public:
    // Once for a process. False where the system does not allow it.
    static bool Install(const std::string& folder);
    // From here on calls are noted, and one fails.
    static void Watch(const SysFault& fault);
    // No longer; what was noted.
    static const std::vector<SysEvent>& Stop();
    // What a call can fail with, and the status that the library has for it.
    static std::span<const FaultError> ErrorsOf(SysCall call);
    // Whether the runtime goes on when half of a write was taken; elsewhere that has failed.
    static bool WritesTheRest();
    // Whether a stream forgets what its reads delivered when the next one for the same call fails.
    static bool ForgetsReads();
    // Whether a stream that cannot tell its position says why.
    static bool TellsWhy();
    // For Scenario::Run: lets calls by while the library is not at work.
    static void Around(bool inside);
};

}  // namespace kvtest
