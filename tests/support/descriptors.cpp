#include "support/descriptors.h"

#include <cstdio>

#include <unistd.h>

namespace kvtest {

int NextDescriptor()
{
    const int descriptor = OpenNothing();
    close(descriptor);
    return descriptor;
}

NoOutput::NoOutput()
{
    std::fflush(stdout);
    m_stdout = dup(STDOUT_FILENO);
    const int nothing = OpenNothing();
    dup2(nothing, STDOUT_FILENO);
    close(nothing);
}

NoOutput::~NoOutput()
{
    std::fflush(stdout);
    dup2(m_stdout, STDOUT_FILENO);
    close(m_stdout);
}

}  // namespace kvtest
