#include "model/image.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace model {

namespace {

[[noreturn]] void Throw(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

std::optional<Image> Image::Load(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return std::nullopt;
    }
    struct stat status {};
    if (fstat(file, &status) != 0) {
        Throw(path);
    }
    if (!S_ISREG(status.st_mode)) {
        close(file);
        return std::nullopt;
    }
    Image image;
    std::vector<uint8_t> block(64 * 1024);
    off_t at = 0;
    while (at < status.st_size) {
        at = at < static_cast<off_t>(kHead) ? at : lseek(file, at, SEEK_DATA);
        if (at < 0) {
            break;  // nothing but a hole up to the end
        }
        const ssize_t got = pread(file, block.data(), block.size(), at);
        if (got <= 0) {
            Throw(path);
        }
        image.Write(static_cast<uint64_t>(at), block.data(), static_cast<size_t>(got));
        at += got;
    }
    close(file);
    image.m_size = static_cast<uint64_t>(status.st_size);
    return image;
}

void Image::Save(const std::string& path) const
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0 || ftruncate(file, static_cast<off_t>(m_size)) != 0) {
        Throw(path);
    }
    const auto put = [&](uint64_t at, const uint8_t* data, uint64_t size) {
        if (size != 0 && pwrite(file, data, size, static_cast<off_t>(at)) < 0) {
            Throw(path);
        }
    };
    put(0, m_head.data(), m_head.size());
    for (const auto& [at, page] : m_pages) {
        put(at, page.data(), std::min(kPage, m_size - at));
    }
    close(file);
}

}  // namespace model
