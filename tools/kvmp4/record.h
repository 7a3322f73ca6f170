// `kvmp4 record`: plays the part of a capture application.
#pragma once

#include "input.h"
#include "safety.h"

#include <string>
#include <utility>
#include <vector>

struct RecordOptions {
    std::vector<std::string> inputs;
    std::string output;
    std::string format;
    std::string video = "auto";
    std::string audio = "auto";
    std::string captions = "auto";
    std::string captionFormat;  // "608", "708" or empty: that of the source
    std::string timeCode = "auto";
    std::string fps;
    std::vector<std::string> metadata;  // key=value
    double duration = 0;                // seconds; 0: to the end
    bool largeFile = true;
    bool fastHeader = false;
    bool version1 = true;
    bool realtime = false;
    bool overwrite = false;
    bool verbose = false;
    SafetyOptions safety;
};

// Records to the end of the inputs; throws a Failure.
void Record(const RecordOptions& options);
