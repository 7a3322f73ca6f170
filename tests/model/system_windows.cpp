#include "model/system.h"

#include "support/file_size_limit.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace model {

namespace fs = std::filesystem;

namespace {

fs::path PathOf(const std::string& text)
{
    return std::u8string(text.begin(), text.end());
}

}  // namespace

const int kFolderError = EACCES;

std::string TemporaryFolder()
{
    const std::u8string path = fs::temp_directory_path().generic_u8string();
    return {path.begin(), path.end() - (path.ends_with(u8'/') ? 1 : 0)};
}

uint64_t ProcessNumber()
{
    return static_cast<uint64_t>(getpid());
}

bool IsFile(const std::string& path)
{
    std::error_code ignored;
    return fs::is_regular_file(PathOf(path), ignored);
}

void Remove(const std::string& path)
{
    _wunlink(PathOf(path).c_str());  // never a folder
}

void PutFullFile(const std::string& path)
{
    static const std::wstring s_name = PathOf(path).filename().wstring();
    static const kvtest::FileSizeLimit s_limit(0, s_name.c_str());
    if (s_name != PathOf(path).filename()) {
        throw std::runtime_error("full files have one name");
    }
}

// Windows removes no open file; a second name holds it.
HeldFile::~HeldFile()
{
    if (Holds()) {
        Remove(m_name);
    }
}

void HeldFile::Hold(const std::string& path)
{
    m_name = path + ".held";
    Remove(m_name);
    fs::create_hard_link(PathOf(path), PathOf(m_name));
}

bool HeldFile::Holds() const
{
    return !m_name.empty();
}

uint64_t HeldFile::Size() const
{
    return Holds() ? fs::file_size(PathOf(m_name)) : 0;
}

Bytes HeldFile::Read() const
{
    const auto image = Image::Load(m_name);
    if (!image) {
        throw std::runtime_error("the info file cannot be read");
    }
    return image->Read(0, static_cast<size_t>(image->Size()));
}

std::FILE* KeepOutput()
{
    return fdopen(dup(STDOUT_FILENO), "w");
}

Output::Output()
{
    const fs::path path = PathOf(TemporaryFolder() + "/kvmo" + std::to_string(ProcessNumber()));
    m_file = _wopen(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_BINARY | O_TEMPORARY,
                    S_IREAD | S_IWRITE);
    std::fflush(stdout);
    dup2(m_file, STDOUT_FILENO);
}

std::string Output::Take()
{
    std::fflush(stdout);
    const long size = lseek(m_file, 0, SEEK_CUR);
    std::string text(static_cast<size_t>(size), '\0');
    if (size != 0) {
        if (lseek(m_file, 0, SEEK_SET) != 0 ||
            read(m_file, text.data(), static_cast<unsigned>(size)) != size ||
            lseek(m_file, 0, SEEK_SET) != 0) {
            throw std::runtime_error("standard output cannot be read");
        }
    }
    return text;
}

Counts RunJobs(uint64_t, const std::function<Counts(uint64_t job, uint64_t jobs)>& run)
{
    return run(0, 1);
}

}  // namespace model
