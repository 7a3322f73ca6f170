// Judges a finished recording: prints what is wrong with it, one complaint a line, and exits with 1
// if there is any. The options are those that it was recorded with; their forms must be there.
//
//   check_file [--version1] [--large-file] [--fast-header] FILE
#include "support/check.h"

#include <cstdio>
#include <set>

using namespace kvtest;

namespace {

void Print(const std::string& complaint)
{
    std::printf("%s\n", complaint.c_str());
}

// The forms of the file against what was asked for.
int CheckForms(const BoxFile& file, bool version1, bool largeFile)
{
    int wrong = 0;
    const auto expect = [&wrong](bool holds, const std::string& complaint) {
        if (!holds) {
            Print(complaint);
            ++wrong;
        }
    };
    const auto isVersion1 = [&file](const BoxNode* box) {
        return file.All()[box->span.begin + 8] == 1;
    };
    expect((file.Node("mdat")->header == 16) == largeFile, "mdat has the other form");
    expect(isVersion1(file.Node("moov/mvhd")) == version1, "mvhd has the other version");
    for (const BoxNode& track : file.Node("moov")->children) {
        if (track.type != "trak")
            continue;
        for (const char* path : {"tkhd", "edts/elst", "mdia/mdhd"})
            expect(isVersion1(track.At(path)) == version1,
                   std::string(path) + " has the other version");
        expect((track.At("mdia/minf/stbl/co64") != nullptr) == largeFile,
               "the chunk table has the other form");
    }
    return wrong;
}

}  // namespace

int main(int count, char** arguments)
{
    std::set<std::string> options(arguments + 1, arguments + count - (count > 1));
    const bool version1 = options.erase("--version1") != 0;
    const bool largeFile = options.erase("--large-file") != 0;
    options.erase("--fast-header");  // changes no byte
    if (count < 2 || !options.empty()) {
        std::fprintf(stderr, "usage: check_file [--version1] [--large-file] [--fast-header] FILE\n");
        return 2;
    }
    const BoxFile file = BoxFile::Read(arguments[count - 1]);
    const auto complaints = CheckFile(file.All(), true);
    for (const std::string& complaint : complaints)
        Print(complaint);
    // An unsound file has no forms to look at.
    return !complaints.empty() || CheckForms(file, version1, largeFile) != 0;
}
