// Descriptors of the C runtime.
#pragma once

namespace kvtest {

// Of the system's file that takes everything and holds nothing.
int OpenNothing();

// The next one that the system would give: it rises when a file was left open.
int NextDescriptor();

// While it lives, what is printed on standard output goes nowhere. Asks for no memory.
class NoOutput {
public:
    NoOutput();
    ~NoOutput();
    NoOutput(const NoOutput&) = delete;
    NoOutput& operator=(const NoOutput&) = delete;

private:
    int m_stdout;
};

}  // namespace kvtest
