// One recording in one process, for tools that look at a whole process: callgrind for instructions,
// /usr/bin/time for memory. With "open" the process ends before the file is finished.
//
//   record_once library|safe|info|both|lavf|fwrite hd|uhd|tiny VIDEO_FRAMES [open]
#include "workload.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: record_once library|safe|info|both|lavf|fwrite "
                             "hd|uhd|tiny FRAMES [open]\n");
        return 2;
    }
    try {
        const std::string name = argv[2];
        const bench::Stream& stream =
            name == "hd" ? bench::kHd : name == "uhd" ? bench::kUhd : bench::kTiny;
        const std::string path = bench::OutputPath();
        const bench::Frames frames(stream);
        const auto recorder = bench::Open(bench::WayFromName(argv[1]), stream, path);
        bench::Feed(*recorder, stream, frames, std::strtoul(argv[3], nullptr, 10));
        if (argc < 5)
            recorder->Close();
        std::remove(path.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "record_once: %s\n", error.what());
        return 1;
    }
    return 0;
}
