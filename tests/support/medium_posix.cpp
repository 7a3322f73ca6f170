#include "support/medium.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

kvtest::Medium* g_medium = nullptr;

int Note(int fd)
{
    const std::filesystem::path link = "/proc/self/fd/" + std::to_string(fd);
    const std::string name = std::filesystem::read_symlink(link).filename();
    g_medium->syncs.push_back({name, kvtest::BoxFile::Read(link).All()});
    const bool refused = g_medium->refusedFile.empty() || g_medium->refusedFile == name;
    if (g_medium->error == 0 || !refused)
        return 0;
    errno = g_medium->error;
    return -1;
}

}  // namespace

// In place of the system's, for this program and the libraries that it loads.
extern "C" int fdatasync(int fd)
{
    return g_medium ? Note(fd) : static_cast<int>(::syscall(SYS_fdatasync, fd));
}

extern "C" int sync_file_range(int fd, off64_t offset, off64_t size, unsigned int flags)
{
    if (!g_medium)
        return static_cast<int>(::syscall(SYS_sync_file_range, fd, offset, size, flags));
    ++g_medium->hints;
    return 0;
}

namespace kvtest {

Medium::Medium()
{
    g_medium = this;
}

Medium::~Medium()
{
    g_medium = nullptr;
}

}  // namespace kvtest
