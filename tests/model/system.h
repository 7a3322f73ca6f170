// What the program needs of the system beyond the standard's library.
#ifndef TESTS_MODEL_SYSTEM_H
#define TESTS_MODEL_SYSTEM_H

#include "model/image.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace model {

// Paths are UTF-8.
std::string TemporaryFolder();
uint64_t ProcessNumber();
bool IsFile(const std::string& path);
void Remove(const std::string& path);
// A file that opens, and whose every byte the system refuses, for want of room.
void PutFullFile(const std::string& path);
// What the system says of a folder that is opened as a file.
extern const int kFolderError;

// A file that stays within reach when its name goes.
class HeldFile {
public:
    HeldFile() = default;
    ~HeldFile();
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;
    void Hold(const std::string& path);
    bool Holds() const;
    uint64_t Size() const;
    Bytes Read() const;

private:
    int m_file = -1;
    std::string m_name;
};

// A stream to standard output as it is now.
std::FILE* KeepOutput();

// Stands in for standard output.
class Output {
public:
    Output();
    // What was printed since the last call.
    std::string Take();

private:
    int m_file;
};

// Calls `run` for each of so many jobs, in processes of their own, or for one in this process. The
// sums of what they count; a process that could not begin, or came to no good end, counts nothing.
using Counts = std::array<uint64_t, 16>;
Counts RunJobs(uint64_t jobs, const std::function<Counts(uint64_t job, uint64_t jobs)>& run);

}  // namespace model

#endif
