// Stands between the library and the medium: notes each wait for it, with what the file held by
// then, and can refuse. Nothing reaches the real medium meanwhile; tests are faster for it.
#pragma once

#include "support/boxes.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kvtest {

struct Sync {
    std::string file;  // the name without its folder
    Bytes held;        // what the system had of it
};

class Medium {
public:
    Medium();
    ~Medium();
    Medium(const Medium&) = delete;
    Medium& operator=(const Medium&) = delete;

    // False in a build whose flushes do not wait.
    static bool IsWaitedFor() { return KV_MP4_DURABLE != 0; }

    // Whether the library asks the system early; Windows knows no such question.
#if defined(_WIN32)
    static constexpr bool kTakesHints = false;
#else
    static constexpr bool kTakesHints = KV_MP4_WRITE_BEHIND != 0;
#endif

    std::vector<Sync> syncs;
    std::size_t hints = 0;     // how often the system was asked to begin
    int error = 0;             // errno of a medium that refuses; 0 takes all
    std::string refusedFile;   // the one that it refuses; empty for all

    // The names of the files, in the order of the waits.
    std::vector<std::string> Order() const
    {
        std::vector<std::string> names;
        for (const Sync& sync : syncs)
            names.push_back(sync.file);
        return names;
    }
};

}  // namespace kvtest
