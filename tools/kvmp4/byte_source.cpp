#include "byte_source.h"

#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace {

constexpr std::size_t kWindow = 0x10000;

}  // namespace

std::string FileSource::Open(const std::string& path)
{
    // Paths are UTF-8 whatever the system.
    const std::filesystem::path name(std::u8string(path.begin(), path.end()));
    std::error_code error;
    const auto status = std::filesystem::status(name, error);
    if (error || !std::filesystem::exists(status))
        return error ? error.message() : "no such file";
    if (std::filesystem::is_directory(status))
        return "it is a folder";
    if (!std::filesystem::is_regular_file(status))
        return "it is no regular file";
    m_path = path;
    errno = 0;
    m_file.open(name, std::ios::binary);
    if (!m_file)
        return errno != 0 ? std::generic_category().message(errno) : "it cannot be opened";
    m_size = std::filesystem::file_size(name, error);
    return error ? error.message() : "";
}

std::size_t FileSource::Fill(std::uint64_t at, std::uint8_t* to, std::size_t count)
{
    m_file.clear();
    m_file.seekg(static_cast<std::streamoff>(at));
    errno = 0;
    m_file.read(reinterpret_cast<char*>(to), static_cast<std::streamsize>(count));
    if (m_file.bad())
        throw Failure(kExitInput, "cannot read " + m_path + ": " +
                                      std::generic_category().message(errno != 0 ? errno : EIO));
    return static_cast<std::size_t>(std::max<std::streamsize>(m_file.gcount(), 0));
}

std::size_t FileSource::Read(std::uint64_t at, void* to, std::size_t count)
{
    if (at >= m_size)
        return 0;
    count = static_cast<std::size_t>(std::min<std::uint64_t>(count, m_size - at));
    std::uint8_t* const out = static_cast<std::uint8_t*>(to);
    if (count >= kWindow)
        return Fill(at, out, count);
    if (at < m_windowAt || at + count > m_windowAt + m_window.size()) {
        m_window.resize(kWindow);
        m_windowAt = at;
        m_window.resize(Fill(at, m_window.data(), kWindow));
    }
    const std::size_t from = static_cast<std::size_t>(at - m_windowAt);
    count = std::min(count, m_window.size() - from);
    if (count > 0)
        std::memcpy(out, m_window.data() + from, count);
    return count;
}

std::size_t MemorySource::Read(std::uint64_t at, void* to, std::size_t count)
{
    if (at >= m_bytes.size())
        return 0;
    const std::size_t from = static_cast<std::size_t>(at);
    count = std::min(count, m_bytes.size() - from);
    if (count > 0)
        std::memcpy(to, m_bytes.data() + from, count);
    return count;
}

bool FieldReader::Has(std::uint64_t bytes)
{
    m_sound = m_sound && Left() >= bytes && m_at + bytes <= m_source.Size();
    return m_sound;
}

std::uint64_t FieldReader::Number(unsigned bytes)
{
    std::array<std::uint8_t, 8> raw{};
    if (!Has(bytes) || m_source.Read(m_at, raw.data(), bytes) != bytes) {
        m_sound = false;
        return 0;
    }
    m_at += bytes;
    std::uint64_t value = 0;
    for (unsigned i = 0; i < bytes; ++i)
        value = value << 8 | raw[i];
    return value;
}

std::vector<std::uint8_t> FieldReader::Bytes(std::uint64_t bytes)
{
    if (!Has(bytes))
        return {};
    std::vector<std::uint8_t> raw(static_cast<std::size_t>(bytes));
    if (m_source.Read(m_at, raw.data(), raw.size()) != raw.size()) {
        m_sound = false;
        return {};
    }
    m_at += bytes;
    return raw;
}

std::string FieldReader::Text(std::uint64_t bytes)
{
    const auto raw = Bytes(bytes);
    return {raw.begin(), raw.end()};
}

void FieldReader::Skip(std::uint64_t bytes)
{
    if (Has(bytes))
        m_at += bytes;
}

std::uint8_t FieldReader::Descriptor(std::uint32_t& length)
{
    const std::uint8_t tag = U8();
    length = 0;
    for (int i = 0; i < 4; ++i) {
        const std::uint8_t byte = U8();
        length = length << 7 | (byte & 127u);
        if (byte < 128)
            break;
    }
    return tag;
}

BitFields::BitFields(const std::vector<std::uint8_t>& unit)
{
    m_bytes.reserve(unit.size());
    std::size_t zeros = 0;
    for (const std::uint8_t byte : unit) {
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        m_bytes.push_back(byte);
    }
}

std::uint32_t BitFields::Bits(unsigned count)
{
    std::uint32_t value = 0;
    for (; count > 0; --count, ++m_bit) {
        if (m_bit / 8 >= m_bytes.size()) {
            m_sound = false;
            return 0;
        }
        value = value << 1 | (m_bytes[m_bit / 8] >> (7 - m_bit % 8) & 1u);
    }
    return value;
}

void BitFields::Skip(unsigned count)
{
    m_bit += count;
    m_sound = m_sound && m_bit <= m_bytes.size() * 8;
}

std::uint32_t BitFields::Ue()
{
    unsigned zeros = 0;
    while (m_sound && !Flag())
        if (++zeros > 31) {
            m_sound = false;
            return 0;
        }
    return m_sound ? (1u << zeros) - 1 + Bits(zeros) : 0;
}

std::int32_t BitFields::Se()
{
    const std::uint32_t code = Ue();
    const std::int32_t half = static_cast<std::int32_t>(code / 2);
    return code % 2 ? half + 1 : -half;
}
