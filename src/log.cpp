#include "log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace kv_log {

namespace {

// spdlog itself has no lock here: lines are written on threads that hold none of the library's.
std::mutex g_loggerLock;
// The replaced one, to the end of the process: spdlog gives its bare address to whoever logs.
std::shared_ptr<spdlog::logger> g_before;  // under g_loggerLock

}  // namespace

std::shared_ptr<spdlog::logger> Logger()
{
    const std::lock_guard<std::mutex> hold(g_loggerLock);
    return spdlog::default_logger();
}

void Replace(std::shared_ptr<spdlog::logger> logger)
{
    const std::lock_guard<std::mutex> hold(g_loggerLock);
    g_before = spdlog::default_logger();
    spdlog::set_default_logger(std::move(logger));
}

}  // namespace kv_log

void PrintLine(const char* format, ...)
{
    const CErrnoKeeper keep;
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}
