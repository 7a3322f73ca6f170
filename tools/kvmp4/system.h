// What kvmp4 does in another way on each system.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

// The arguments of the program, without its name, in UTF-8.
std::vector<std::string> Arguments(int argc, char** argv);

// Texts are UTF-8 whatever the system, names of files among them.
inline std::filesystem::path PathOf(const std::string& text)
{
    return std::u8string(text.begin(), text.end());
}

// Whether the library logs through a copy of spdlog of its own, to standard output until it has a
// logger; elsewhere the program's default logger is the library's too.
#if defined(_WIN32)
inline constexpr bool kLibraryLogsAlone = true;
#else
inline constexpr bool kLibraryLogsAlone = false;
#endif

// Has `handler` called each time the user or the system wants the program to end: Ctrl-C, a terminal
// that is closed and the like. It may run at any moment, on any thread.
void OnInterrupt(void (*handler)(int));

// Who else has a file open for writing, as the begin of a sentence; empty if nobody is to be seen.
std::string Writer(const std::string& path);

// Whether this process may read a file, and write it.
std::error_code MayOpen(const std::string& path, bool write);

// Copies a file to a new one, sharing the blocks where the file system can.
std::error_code CopyFile(const std::string& from, const std::string& to);

// While it lives, what the library prints to standard output goes nowhere: that belongs to results.
class QuietOutput {
public:
    QuietOutput();
    ~QuietOutput();
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    int m_output;
};
