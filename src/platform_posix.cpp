#include "platform.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include <spdlog/sinks/stdout_sinks.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

// On the stack: a close whose recording is whole must find its log when memory has run out, too.
using NarrowPath = char[PATH_MAX];

// UTF-8 whatever the locale; false, with errno, for what is no Unicode scalar value and for what no
// call of the system would take.
bool Narrow(const wchar_t* path, NarrowPath& narrow)
{
    std::size_t size = 0;
    for (; *path != L'\0'; ++path) {
        const auto c = static_cast<std::uint32_t>(*path);
        if (c >= 0x110000 || (c >= 0xD800 && c < 0xE000)) {
            errno = EILSEQ;
            return false;
        }
        const unsigned more = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;  // bytes
        if (size + more + 1 >= sizeof(NarrowPath)) {
            errno = ENAMETOOLONG;
            return false;
        }
        constexpr std::uint32_t kFirst[] = {0, 0xC0, 0xE0, 0xF0};
        narrow[size++] = static_cast<char>(kFirst[more] | c >> 6 * more);
        for (unsigned left = more; left-- > 0;)
            narrow[size++] = static_cast<char>(0x80 | (c >> 6 * left & 0x3F));
    }
    narrow[size] = '\0';
    return true;
}

}  // namespace

namespace platform {

std::FILE* OpenFile(const wchar_t* path, const char* mode)
{
    NarrowPath name;
    return Narrow(path, name) ? std::fopen(name, mode) : nullptr;
}

bool RemoveFile(const wchar_t* path)
{
    NarrowPath name;
    return Narrow(path, name) && ::unlink(name) == 0;
}

bool TruncateFile(const wchar_t* path, std::uint64_t length)
{
    NarrowPath name;
    return Narrow(path, name) && ::truncate(name, static_cast<off_t>(length)) == 0;
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
