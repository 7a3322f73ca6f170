// A file as bytes with holes: what a sink holds, and what lies on the disk. Files of a few
// gigabytes that are mostly holes cost no more than what was written into them.
#ifndef TESTS_MODEL_IMAGE_H
#define TESTS_MODEL_IMAGE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace model {

using Bytes = std::vector<uint8_t>;

class Image {
public:
    void Write(uint64_t position, const uint8_t* data, size_t size);
    void Resize(uint64_t size);
    uint64_t Size() const { return m_size; }
    Bytes Read(uint64_t position, size_t size) const;

    // From and to a file of the system; empty when there is none.
    static std::optional<Image> Load(const std::string& path);
    void Save(const std::string& path) const;

    // The first position at which the two differ, holes counting as zeros.
    static std::optional<uint64_t> FirstDifference(const Image& a, const Image& b);

private:
    static constexpr uint64_t kHead = 128 * 1024;
    static constexpr uint64_t kPage = 4096;
    using Page = std::array<uint8_t, kPage>;

    void WriteBehindHead(uint64_t position, const uint8_t* data, size_t size);

    uint64_t m_size = 0;
    Bytes m_head;                      // the first bytes, as far as they were written
    std::map<uint64_t, Page> m_pages;  // by position, from kHead on
};

}  // namespace model

#endif
