// `kvmp4 inspect`: shows what an MP4 or MOV file, whoever wrote it, is made of, or what a log says.
#pragma once

#include "byte_source.h"

#include <string>

struct InspectOptions {
    std::string file;
    std::string map;       // of the picture; .html for a page
    bool all = false;      // tables and texts uncut
    bool packets = false;  // of a log, one by one
    bool json = false;
    bool overwrite = false;
};

// Prints what there is and returns the exit code.
int Inspect(const InspectOptions& options);

// All that inspect would print and draw of a file; what it is worth is not looked at.
std::string InspectText(ByteSource& source, const std::string& name, bool json);
