#include "model/image.h"

#include <algorithm>
#include <cstring>

namespace model {

namespace {

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
