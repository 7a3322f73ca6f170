#include "log.h"

#include <cstdarg>
#include <cstdio>

void PrintLine(const char* format, ...)
{
    const CErrnoKeeper keep;
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}
