#include "platform.h"

#include <chrono>
#include <clocale>
#include <cstring>
#include <iterator>
#include <memory>

#include <spdlog/sinks/msvc_sink.h>
#include <windows.h>
#include <io.h>

namespace {

// The bytes of the UTF-8 character that begins with `lead`; 1 also for a byte that begins none.
int Utf8Length(unsigned char lead)
{
    return lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
}

}  // namespace

namespace platform {

// ---- The lock ------------------------------------------------------------------------------

static_assert(sizeof(CRITICAL_SECTION) == CriticalSection::kSize);
static_assert(alignof(CRITICAL_SECTION) == alignof(CriticalSection));

namespace {

CRITICAL_SECTION* Of(unsigned char* section)
{
    return static_cast<CRITICAL_SECTION*>(static_cast<void*>(section));
}

}  // namespace

CriticalSection::CriticalSection()
{
    ::InitializeCriticalSection(Of(m_section));
}

CriticalSection::~CriticalSection()
{
    ::DeleteCriticalSection(Of(m_section));
}

void CriticalSection::lock()
{
    ::EnterCriticalSection(Of(m_section));
}

void CriticalSection::unlock()
{
    ::LeaveCriticalSection(Of(m_section));
}

// ---- Files ---------------------------------------------------------------------------------

std::FILE* OpenFile(const wchar_t* path, const char* mode)
{
    wchar_t wide[8] = {};
    for (std::size_t i = 0; mode[i] != '\0' && i + 1 < std::size(wide); ++i)
        wide[i] = static_cast<wchar_t>(mode[i]);  // ASCII
    return ::_wfopen(path, wide);
}

bool RemoveFile(const wchar_t* path)
{
    return ::_wremove(path) == 0;
}

bool TruncateFile(const wchar_t* path, std::uint64_t length)
{
    // No sharing: a file that someone else has open is not cut under them.
    const HANDLE file = ::CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    LARGE_INTEGER end{};
    end.QuadPart = static_cast<LONGLONG>(length);
    const bool cut = ::SetFilePointerEx(file, end, nullptr, FILE_BEGIN) && ::SetEndOfFile(file);
    ::CloseHandle(file);
    return cut;
}

int Seek(std::FILE* stream, std::int64_t offset, int origin)
{
    // The runtime's seek brings what it holds to the system and does not tell when that fails.
    return std::fflush(stream) == 0 ? ::_fseeki64(stream, offset, origin) : -1;
}

std::int64_t Tell(std::FILE* stream)
{
    return ::_ftelli64(stream);
}

std::size_t ReadItem(std::FILE* stream, void* data, std::size_t size)
{
    return std::fread(data, size, 1, stream);
}

std::size_t WriteItem(std::FILE* stream, const void* data, std::size_t size)
{
    return std::fwrite(data, size, 1, stream);
}

std::size_t ReadBytes(std::FILE* stream, void* data, std::size_t size)
{
    return std::fread(data, 1, size, stream);
}

bool SyncData([[maybe_unused]] std::FILE* stream)
{
#if KV_MP4_DURABLE
    // Not _commit: it tells of every failure as it tells of a pipe or a console, which have no medium.
    const auto file = reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(stream)));
    if (!::FlushFileBuffers(file)) {
        const DWORD error = ::GetLastError();
        errno = error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL ? ENOSPC : EIO;
        return error == ERROR_INVALID_HANDLE || error == ERROR_INVALID_FUNCTION;
    }
#endif
    return true;
}

void BeginWriteBack(std::FILE*)
{
    // Windows has no such hint.
}

// ---- Clock, locale, log --------------------------------------------------------------------

std::int64_t ClockMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void SetUtf8Locale()
{
    const CErrnoKeeper keep;
    // The old runtime does not have it and stays as it is; WidenPath does not ask the locale.
    const char* const now = std::setlocale(LC_ALL, nullptr);
    if (!now || std::strcmp(now, "en_US.utf8") != 0)
        std::setlocale(LC_ALL, "en_US.utf8");
}

std::size_t WidenPath(wchar_t* wide, const char* path, std::size_t limit)
{
    // Character by character, as mbstowcs does it: what stands before a bad one is converted, and
    // a pair of surrogates that does not fit is left out whole.
    std::size_t length = 0;
    while (*path != '\0') {
        const int bytes = Utf8Length(static_cast<unsigned char>(*path));
        wchar_t units[2];
        const std::size_t whole = ::strnlen(path, static_cast<std::size_t>(bytes));
        const int count = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path,
                                                static_cast<int>(whole), units, 2);
        if (count <= 0) {
            errno = EILSEQ;
            return SIZE_MAX;
        }
        if (wide && length + static_cast<std::size_t>(count) > limit)
            return length;
        for (int i = 0; wide && i < count; ++i)
            wide[length + static_cast<std::size_t>(i)] = units[i];
        length += static_cast<std::size_t>(count);
        path += whole;
    }
    if (wide && length < limit)
        wide[length] = L'\0';
    return length;
}

spdlog::sink_ptr MakeLogSink()
{
    return std::make_shared<spdlog::sinks::msvc_sink_mt>();
}

}  // namespace platform
