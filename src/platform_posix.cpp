#include "platform.h"

#include <clocale>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <spdlog/sinks/stdout_sinks.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

// UTF-8 whatever the locale; false for values that are no Unicode scalar value.
bool NarrowPath(const wchar_t* path, std::string& narrow)
{
    for (; *path != L'\0'; ++path) {
        const auto c = static_cast<std::uint32_t>(*path);
        const auto put = [&narrow](std::uint32_t byte) {
            narrow.push_back(static_cast<char>(byte));
        };
        if (c < 0x80) {
            put(c);
        } else if (c < 0x800) {
            put(0xC0 | c >> 6);
            put(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            if (c >= 0xD800 && c < 0xE000)
                return false;
            put(0xE0 | c >> 12);
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        } else if (c < 0x110000) {
            put(0xF0 | c >> 18);
            put(0x80 | (c >> 12 & 0x3F));
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        } else {
            return false;
        }
    }
    return true;
}

// Calls `use` with the narrow path; `failed` with errno when there is none: EILSEQ, or ENOMEM.
template <typename Result, typename Use>
Result WithNarrowPath(const wchar_t* path, Result failed, Use use)
{
    std::string narrow;
    try {
        if (!NarrowPath(path, narrow)) {
            errno = EILSEQ;
            return failed;
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return failed;
    }
    return use(narrow.c_str());
}

}  // namespace

namespace platform {

std::FILE* OpenFile(const wchar_t* path, const char* mode)
{
    return WithNarrowPath<std::FILE*>(
        path, nullptr, [mode](const char* name) { return std::fopen(name, mode); });
}

bool RemoveFile(const wchar_t* path)
{
    return WithNarrowPath(path, false, [](const char* name) { return ::unlink(name) == 0; });
}

bool TruncateFile(const wchar_t* path, std::uint64_t length)
{
    return WithNarrowPath(path, false, [length](const char* name) {
        return ::truncate(name, static_cast<off_t>(length)) == 0;
    });
}

int Seek(std::FILE* stream, std::int64_t offset, int origin)
{
    return ::fseeko(stream, offset, origin);
}

std::int64_t Tell(std::FILE* stream)
{
    return ::ftello(stream);
}

std::size_t ReadItem(std::FILE* stream, void* data, std::size_t size)
{
    return ::fread_unlocked(data, size, 1, stream);
}

std::size_t WriteItem(std::FILE* stream, const void* data, std::size_t size)
{
#ifdef __GLIBC__
    // What fits into the stream's buffer goes there as putc_unlocked would put it, but not byte by
    // byte: lengths and log packets are short and many.
    if (size != 0 && size <= static_cast<std::size_t>(stream->_IO_write_end - stream->_IO_write_ptr)) {
        std::memcpy(stream->_IO_write_ptr, data, size);
        stream->_IO_write_ptr += size;
        return 1;
    }
#endif
    // Across the end of the buffer a few bytes are far cheaper one by one than through the general
    // call.
    if (size <= sizeof(std::uint64_t) && size != 0) {
        const auto* bytes = static_cast<const unsigned char*>(data);
        for (std::size_t i = 0; i < size; ++i) {
            if (putc_unlocked(bytes[i], stream) == EOF)
                return 0;
        }
        return 1;
    }
    return ::fwrite_unlocked(data, size, 1, stream);
}

std::size_t ReadBytes(std::FILE* stream, void* data, std::size_t size)
{
    return ::fread_unlocked(data, 1, size, stream);
}

bool SyncData([[maybe_unused]] std::FILE* stream)
{
#if KV_MP4_DURABLE
    if (::fdatasync(::fileno(stream)) != 0)
        return errno == EINVAL || errno == EROFS || errno == ENOTSUP;
#endif
    return true;
}

void BeginWriteBack([[maybe_unused]] std::FILE* stream)
{
#if KV_MP4_WRITE_BEHIND && defined(SYNC_FILE_RANGE_WRITE)
    const CErrnoKeeper keep;
    ::sync_file_range(::fileno(stream), 0, 0, SYNC_FILE_RANGE_WRITE);
#endif
}

std::int64_t ClockMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void SetUtf8Locale()
{
    const CErrnoKeeper keep;
    // A locale that is set already is left alone, and threads take turns: conversions on other
    // threads use it meanwhile.
    static std::mutex turn;
    const std::lock_guard<std::mutex> hold(turn);
    const auto is = [](const char* name) {
        const char* const now = std::setlocale(LC_ALL, nullptr);
        return now && std::strcmp(now, name) == 0;
    };
    if (is("en_US.utf8") || std::setlocale(LC_ALL, "en_US.utf8"))
        return;
    if (!is("C.UTF-8"))
        std::setlocale(LC_ALL, "C.UTF-8");
}

std::size_t WidenPath(wchar_t* wide, const char* path, std::size_t limit)
{
    return std::mbstowcs(wide, path, limit);
}

spdlog::sink_ptr MakeLogSink()
{
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

}  // namespace platform
