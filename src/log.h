// The library's two voices: log lines through spdlog's default logger, and the plain lines that the
// lowest layers print on standard output. Both leave errno as they found it, so that a line between
// a failure and the use of its errno changes nothing. No set-up of the logger here; that is the
// exports' business.
#pragma once

#include "platform.h"

#include <spdlog/spdlog.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

namespace kv_log {

// The "Class::Method" of a compiler's full signature, as a constant string.
template <std::size_t N>
struct FunctionName {
    std::array<char, N> text{};
    consteval explicit FunctionName(const char (&signature)[N])
    {
        std::string_view name(signature, N - 1);
        name = name.substr(0, name.find('('));
        const std::size_t blank = name.rfind(' ');
        if (blank != std::string_view::npos)
            name.remove_prefix(blank + 1);
        while (!name.empty() && (name.front() == '*' || name.front() == '&'))
            name.remove_prefix(1);
        for (std::size_t i = 0; i < name.size(); ++i)
            text[i] = name[i];
    }
};

// spdlog's default logger, held for one line: another thread may replace it meanwhile. Null only
// after the application has shut spdlog down.
std::shared_ptr<spdlog::logger> Logger();
void Replace(std::shared_ptr<spdlog::logger> logger);

template <typename... Args>
void Line(const spdlog::source_loc& where, spdlog::level::level_enum level,
          spdlog::format_string_t<Args...> format, Args&&... args)
{
    const CErrnoKeeper keep;
    if (const auto logger = Logger())
        logger->log(where, level, format, std::forward<Args>(args)...);
}

}  // namespace kv_log

// UNIT names the source unit in log lines, e.g. "src/Mp4Muxer"; each source that logs defines it.
#define KV_LOG(level, ...)                                                                     \
    do {                                                                                       \
        static constexpr kv_log::FunctionName kv_function(__PRETTY_FUNCTION__);                \
        kv_log::Line(spdlog::source_loc{UNIT, __LINE__, kv_function.text.data()}, level,       \
                     __VA_ARGS__);                                                             \
    } while (false)
#define LOG_INFO(...) KV_LOG(spdlog::level::info, __VA_ARGS__)
#define LOG_WARN(...) KV_LOG(spdlog::level::warn, __VA_ARGS__)
#define LOG_ERROR(...) KV_LOG(spdlog::level::err, __VA_ARGS__)

// A plain line on standard output, with printf's semantics.
[[gnu::format(printf, 1, 2)]] void PrintLine(const char* format, ...);
