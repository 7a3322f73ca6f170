#include "model/image.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
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

// Where two ranges that count as zeros behind their ends differ.
std::optional<size_t> Differ(const uint8_t* a, size_t aSize, const uint8_t* b, size_t bSize)
{
    const size_t common = std::min(aSize, bSize);
    if (common != 0 && std::memcmp(a, b, common) != 0) {
        return static_cast<size_t>(std::mismatch(a, a + common, b).first - a);
    }
    const uint8_t* rest = aSize > bSize ? a : b;
    for (size_t i = common; i < std::max(aSize, bSize); ++i) {
        if (rest[i] != 0) {
            return i;
        }
    }
    return std::nullopt;
}

}  // namespace

void Image::Write(uint64_t position, const uint8_t* data, size_t size)
{
    if (size == 0) {
        return;
    }
    m_size = std::max(m_size, position + size);
    if (position < kHead) {
        const size_t here = static_cast<size_t>(std::min<uint64_t>(size, kHead - position));
        if (m_head.size() < position + here) {
            m_head.resize(position + here);
        }
        std::memcpy(m_head.data() + position, data, here);
        position += here;
        data += here;
        size -= here;
    }
    WriteBehindHead(position, data, size);
}

void Image::WriteBehindHead(uint64_t position, const uint8_t* data, size_t size)
{
    while (size != 0) {
        const uint64_t at = position % kPage;
        const size_t here = static_cast<size_t>(std::min<uint64_t>(size, kPage - at));
        const auto [page, isNew] = m_pages.try_emplace(position - at);
        if (isNew) {
            page->second.fill(0);
        }
        std::memcpy(page->second.data() + at, data, here);
        position += here;
        data += here;
        size -= here;
    }
}

void Image::Resize(uint64_t size)
{
    m_size = size;
    if (m_head.size() > size) {
        m_head.resize(size);
    }
    m_pages.erase(m_pages.lower_bound(size), m_pages.end());
    if (!m_pages.empty() && m_pages.rbegin()->first + kPage > size) {
        Page& last = m_pages.rbegin()->second;
        std::fill(last.begin() + static_cast<ptrdiff_t>(size - m_pages.rbegin()->first), last.end(),
                  uint8_t{0});
    }
}

Bytes Image::Read(uint64_t position, size_t size) const
{
    Bytes out(size);
    for (size_t i = 0; i < size; ++i) {
        const uint64_t at = position + i;
        if (at < m_head.size()) {
            out[i] = m_head[at];
        } else if (const auto page = m_pages.find(at - at % kPage); page != m_pages.end()) {
            out[i] = page->second[at % kPage];
        }
    }
    return out;
}

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

std::optional<uint64_t> Image::FirstDifference(const Image& a, const Image& b)
{
    if (const auto at =
            Differ(a.m_head.data(), a.m_head.size(), b.m_head.data(), b.m_head.size())) {
        return *at;
    }
    static constexpr Page kZeros{};
    const auto find = [](const Image& image, uint64_t at) -> const Page& {
        const auto page = image.m_pages.find(at);
        return page == image.m_pages.end() ? kZeros : page->second;
    };
    std::optional<uint64_t> first;
    const auto compare = [&](uint64_t at) {
        if (const auto differ = Differ(find(a, at).data(), kPage, find(b, at).data(), kPage)) {
            first = std::min(first.value_or(at + *differ), at + *differ);
        }
    };
    for (const auto& page : a.m_pages) {
        compare(page.first);
    }
    for (const auto& page : b.m_pages) {
        compare(page.first);
    }
    if (!first && a.m_size != b.m_size) {
        first = std::min(a.m_size, b.m_size);
    }
    return first;
}

}  // namespace model
