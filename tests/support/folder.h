// A folder for the files of a test.
#pragma once

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

namespace kvtest {

// A new folder that goes with its object. Its name is a number: chance does not write "mov". Whoever
// has files open in it goes first; Windows removes no open file.
class Folder {
public:
    Folder()
    {
        std::random_device chance;
        do
            m_path = std::filesystem::temp_directory_path() / ("kvtest." + std::to_string(chance()));
        while (!std::filesystem::create_directory(m_path));
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    // Names are UTF-8, as every text here.
    std::filesystem::path operator/(const std::string& name) const
    {
        return m_path / std::u8string(name.begin(), name.end());
    }
    bool IsEmpty() const { return std::filesystem::is_empty(m_path); }

private:
    std::filesystem::path m_path;
};

// The status of a folder that is opened as a file, and the text of its error.
#if defined(_WIN32)
inline constexpr std::uint32_t kFolderStatus = 13;  // EACCES
inline constexpr const char* kFolderError = "Permission denied";
#else
inline constexpr std::uint32_t kFolderStatus = 1;  // EISDIR has no row
inline constexpr const char* kFolderError = "Is a directory";
#endif

// A path as the library takes it.
inline std::string Utf8(const std::filesystem::path& path)
{
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

}  // namespace kvtest
