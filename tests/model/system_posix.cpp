#include "model/system.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace model {

const int kFolderError = EISDIR;

std::string TemporaryFolder()
{
    const char* temporary = std::getenv("TMPDIR");
    return temporary != nullptr            ? temporary
           : access("/dev/shm", W_OK) == 0 ? "/dev/shm"
                                           : "/tmp";
}

uint64_t ProcessNumber()
{
    return static_cast<uint64_t>(getpid());
}

bool IsFile(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

void Remove(const std::string& path)
{
    unlink(path.c_str());
}

void PutFullFile(const std::string& path)
{
    if (symlink("/dev/full", path.c_str()) != 0) {
        throw std::runtime_error("no link to a full disk");
    }
}

HeldFile::~HeldFile()
{
    if (Holds()) {
        close(m_file);
    }
}

void HeldFile::Hold(const std::string& path)
{
    m_file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

bool HeldFile::Holds() const
{
    return m_file >= 0;
}

uint64_t HeldFile::Size() const
{
    struct stat status {};
    return Holds() && fstat(m_file, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

Bytes HeldFile::Read() const
{
    Bytes bytes(Size());
    if (pread(m_file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("the info file cannot be read");
    }
    return bytes;
}

std::FILE* KeepOutput()
{
    return fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "w");
}

Output::Output() : m_file(memfd_create("stdout", MFD_CLOEXEC))
{
    std::fflush(stdout);
    dup2(m_file, STDOUT_FILENO);
}

std::string Output::Take()
{
    std::fflush(stdout);
    const off_t size = lseek(m_file, 0, SEEK_CUR);
    std::string text(static_cast<size_t>(size), '\0');
    if (size != 0) {
        if (pread(m_file, text.data(), text.size(), 0) != size ||
            lseek(m_file, 0, SEEK_SET) != 0) {
            throw std::runtime_error("standard output cannot be read");
        }
    }
    return text;
}

Counts RunJobs(uint64_t jobs, const std::function<Counts(uint64_t job, uint64_t jobs)>& run)
{
    if (jobs == 1) {
        return run(0, 1);
    }
    int counts[2];
    if (pipe(counts) != 0) {
        throw std::runtime_error("no pipe for the jobs");
    }
    for (uint64_t job = 0; job < jobs; ++job) {
        const pid_t child = fork();
        if (child == 0) {
            const Counts count = run(job, jobs);
            _exit(write(counts[1], &count, sizeof count) == sizeof count ? 0 : 1);
        }
        if (child < 0) {
            std::perror("fork");
        }
    }
    close(counts[1]);
    Counts sum{};
    for (Counts count; read(counts[0], &count, sizeof count) == sizeof count;) {
        std::transform(sum.begin(), sum.end(), count.begin(), sum.begin(), std::plus<>());
    }
    close(counts[0]);
    while (wait(nullptr) > 0) {
    }
    return sum;
}

}  // namespace model
