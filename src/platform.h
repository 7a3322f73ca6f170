// The one room that knows a system: opening and removing files by wide path, 64-bit positions,
// truncation, the clock, the locale, the logger's output. Everything here reports through return
// values and errno; nothing throws and nothing is logged.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#if !defined(_WIN32)
#include <mutex>
#endif

#include <spdlog/common.h>

// Keeps errno over its scope.
class CErrnoKeeper {
public:
    CErrnoKeeper() : m_saved(errno) {}
    ~CErrnoKeeper() { errno = m_saved; }
    CErrnoKeeper(const CErrnoKeeper&) = delete;
    CErrnoKeeper& operator=(const CErrnoKeeper&) = delete;

private:
    const int m_saved;
};

namespace platform {

// A lock that one thread may take again, in the form that std::lock_guard knows.
#if defined(_WIN32)
class CriticalSection {
public:
    static constexpr std::size_t kSize = 40;  // of a CRITICAL_SECTION, which stays out of headers

    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    void lock();
    void unlock();

private:
    alignas(void*) unsigned char m_section[kSize];
};
#else
using CriticalSection = std::recursive_mutex;
#endif

// Opens a buffered stream; `mode` as for fopen. Null with errno on failure, EILSEQ for a path that
// has no form in the system's encoding.
std::FILE* OpenFile(const wchar_t* path, const char* mode);

// Removes a file, never a folder. True on success; errno otherwise.
bool RemoveFile(const wchar_t* path);

// Cuts an existing file to `length` bytes. True on success.
bool TruncateFile(const wchar_t* path, std::uint64_t length);

// 64-bit positions of a stream. Seek gives 0 on success.
int Seek(std::FILE* stream, std::int64_t offset, int origin);
std::int64_t Tell(std::FILE* stream);

// One item of `size` bytes; the number of whole items moved, 0 or 1. The caller sees to it that no
// other thread uses the stream.
std::size_t ReadItem(std::FILE* stream, void* data, std::size_t size);
std::size_t WriteItem(std::FILE* stream, const void* data, std::size_t size);

// Up to `size` bytes; the number of bytes read.
std::size_t ReadBytes(std::FILE* stream, void* data, std::size_t size);

// Waits until all that the stream has handed to the system is on the medium. False with errno when
// the medium refused it; files that have no medium behind them are left alone.
bool SyncData(std::FILE* stream);

// Asks the system to begin with that and does not wait; a hint that may do nothing.
void BeginWriteBack(std::FILE* stream);

// Milliseconds of a steady clock.
std::int64_t ClockMs();

// Sets the process's locale, all categories, to "en_US.utf8", or "C.UTF-8" where the system does
// not have it; Windows' old runtime has neither and keeps its own. Leaves errno alone.
void SetUtf8Locale();

// Converts a multibyte path in the current locale, on Windows always UTF-8, into at most `limit`
// wide characters, ended by NUL if there is room; with a null `wide` only measures. The length
// without the NUL, or SIZE_MAX for bytes that are not valid.
std::size_t WidenPath(wchar_t* wide, const char* path, std::size_t limit);

// Where the library's own logger writes: the debugger's output on Windows, else standard error.
spdlog::sink_ptr MakeLogSink();

}  // namespace platform
