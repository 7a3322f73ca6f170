#include "output.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace kvmp4sink {

namespace {

// The open callback is told a path and nothing else; it runs inside the call that creates.
thread_local Output* t_creating = nullptr;

}  // namespace

Output::~Output()
{
    if (m_file >= 0)
        close(m_file);
}

std::uint32_t Output::Create(const wchar_t* widePath, std::uint8_t flags, mp4_handle* handle)
{
    // The library keeps the address of the table.
    static ExternalIoFuncs functions{Open, Close, Tell, Seek, Flush, Read, Write};
    struct Creating {
        explicit Creating(Output* output) { t_creating = output; }
        ~Creating() { t_creating = nullptr; }
    } const creating(this);
    return mp4_create_file_adv(widePath, flags, 4096, 32, MP4_IO_EXTERNAL, &functions, handle);
}

Output& Output::Of(void* context)
{
    return *static_cast<Output*>(context);
}

std::uint8_t Output::Open(void** context, const wchar_t*, std::uint32_t, std::uint32_t)
{
    Output& self = *t_creating;
    self.m_file = open(self.m_path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (self.m_file < 0)
        self.m_openError = errno;
    *context = &self;
    return self.m_file >= 0;
}

void Output::Close(void* context)
{
    Output& self = Of(context);
    if (close(std::exchange(self.m_file, -1)) != 0)
        self.m_closeError = errno;
}

std::int64_t Output::Tell(void* context)
{
    return lseek(Of(context).m_file, 0, SEEK_CUR);
}

void Output::Seek(void* context, std::int64_t offset, std::int32_t origin)
{
    lseek(Of(context).m_file, offset, origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END);
}

// Everything is with the system already.
void Output::Flush(void*) {}

std::int32_t Output::Read(void* context, void* buffer, std::uint32_t size)
{
    char* to = static_cast<char*>(buffer);
    while (size > 0) {
        const ssize_t count = read(Of(context).m_file, to, size);
        if (count == 0 || (count < 0 && errno != EINTR))
            return 0;
        if (count < 0)
            continue;
        to += count;
        size -= static_cast<std::uint32_t>(count);
    }
    return 1;
}

std::int32_t Output::Write(void* context, const void* buffer, std::uint32_t size)
{
    Output& self = Of(context);
    const char* from = static_cast<const char*>(buffer);
    while (size > 0) {
        const ssize_t count = write(self.m_file, from, size);
        if (count < 0 && errno != EINTR) {
            self.m_hasFailed = true;
            return 0;
        }
        if (count < 0)
            continue;
        from += count;
        size -= static_cast<std::uint32_t>(count);
    }
    return 1;
}

}  // namespace kvmp4sink
