// While it lives, no file of the process may grow beyond a size; what goes further fails.
#pragma once

#include <cstdint>

#if !defined(_WIN32)
#include <csignal>

#include <sys/resource.h>
#endif

namespace kvtest {

class FileSizeLimit {
public:
    // The status of a call that failed by it: EFBIG has no row; Windows has no such limit, and
    // files there are as on a disk that is full.
#if defined(_WIN32)
    static constexpr std::uint32_t kStatus = 16;
#else
    static constexpr std::uint32_t kStatus = 1;
#endif

    explicit FileSizeLimit(std::uint64_t bytes);
#if defined(_WIN32)
    // For the file of this name, without its folder, alone.
    FileSizeLimit(std::uint64_t bytes, const wchar_t* name);
#endif
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
#if defined(_WIN32)
    void* m_before;
#else
    void (*m_handler)(int);
    rlimit m_before{};
#endif
};

}  // namespace kvtest
