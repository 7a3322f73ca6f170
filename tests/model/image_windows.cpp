#include "model/image.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <windows.h>

namespace model {

namespace {

class File {
public:
    File(const std::string& path, DWORD access, DWORD disposition)
        : m_handle(CreateFileW(
              std::filesystem::path(std::u8string(path.begin(), path.end())).c_str(), access,
              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, disposition,
              FILE_ATTRIBUTE_NORMAL, nullptr))
    {
    }
    ~File()
    {
        if (IsOpen()) {
            CloseHandle(m_handle);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    bool IsOpen() const { return m_handle != INVALID_HANDLE_VALUE; }
    void GoTo(uint64_t position)
    {
        LARGE_INTEGER to{};
        to.QuadPart = static_cast<LONGLONG>(position);
        Expect(SetFilePointerEx(m_handle, to, nullptr, FILE_BEGIN));
    }
    uint64_t Size()
    {
        LARGE_INTEGER size{};
        Expect(GetFileSizeEx(m_handle, &size));
        return static_cast<uint64_t>(size.QuadPart);
    }
    size_t Read(Bytes& block)
    {
        DWORD got = 0;
        Expect(ReadFile(m_handle, block.data(), static_cast<DWORD>(block.size()), &got, nullptr));
        return got;
    }
    void Write(uint64_t at, const uint8_t* data, uint64_t size)
    {
        DWORD put = 0;
        GoTo(at);
        Expect(WriteFile(m_handle, data, static_cast<DWORD>(size), &put, nullptr));
    }
    void End(uint64_t size)
    {
        GoTo(size);
        Expect(SetEndOfFile(m_handle));
    }

private:
    static void Expect(BOOL done)
    {
        if (done == FALSE) {
            throw std::runtime_error("a file cannot be read or written");
        }
    }

    HANDLE m_handle;
};

}  // namespace

std::optional<Image> Image::Load(const std::string& path)
{
    File file(path, GENERIC_READ, OPEN_EXISTING);
    if (!file.IsOpen()) {
        return std::nullopt;
    }
    Image image;
    const uint64_t size = file.Size();
    Bytes block(1024 * 1024);
    for (uint64_t at = 0; at < size;) {
        const size_t got = file.Read(block);
        const auto end = block.begin() + static_cast<ptrdiff_t>(got);
        // Holes read as zeros.
        if (at < kHead || std::any_of(block.begin(), end, [](uint8_t byte) { return byte != 0; })) {
            image.Write(at, block.data(), got);
        }
        at += got;
    }
    image.m_size = size;
    return image;
}

void Image::Save(const std::string& path) const
{
    File file(path, GENERIC_WRITE, CREATE_ALWAYS);
    file.End(m_size);
    file.Write(0, m_head.data(), m_head.size());
    for (const auto& [at, page] : m_pages) {
        file.Write(at, page.data(), std::min(kPage, m_size - at));
    }
}

}  // namespace model
