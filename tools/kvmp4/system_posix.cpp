#include "system.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

std::vector<std::string> Arguments(int argc, char** argv)
{
    return {argv + 1, argv + argc};
}

void OnInterrupt(void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // nohup has a program outlive its terminal.
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN)
        sigaction(SIGHUP, &action, nullptr);
}

std::string Writer(const std::string& path)
{
    struct stat wanted {};
    if (stat(path.c_str(), &wanted) != 0)
        return "";
    std::error_code error;
    const fs::directory_iterator end;
    // Processes come and go meanwhile: an error ends their part of the list only.
    for (fs::directory_iterator process("/proc", error); process != end;
         process.increment(error)) {
        const std::string name = process->path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::error_code gone;
        for (fs::directory_iterator descriptor(process->path() / "fd", gone);
             !gone && descriptor != end; descriptor.increment(gone)) {
            struct stat opened {};
            if (stat(descriptor->path().c_str(), &opened) != 0 ||
                opened.st_dev != wanted.st_dev || opened.st_ino != wanted.st_ino)
                continue;
            std::ifstream info(process->path() / "fdinfo" / descriptor->path().filename());
            std::string word;
            while (info >> word && word != "flags:") {
            }
            unsigned flags = 0;
            info >> std::oct >> flags;
            if ((flags & O_ACCMODE) != O_RDONLY)
                return "process " + name;
        }
    }
    return "";
}

std::error_code MayOpen(const std::string& path, bool write)
{
    if (access(path.c_str(), R_OK | (write ? W_OK : 0)) == 0)
        return {};
    return {errno, std::generic_category()};
}

std::error_code CopyFile(const std::string& from, const std::string& to)
{
    const int source = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int target = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const int error = source < 0 || target < 0 ? errno : 0;
    const bool shared = error == 0 && ioctl(target, FICLONE, source) == 0;
    if (source >= 0)
        close(source);
    if (target >= 0)
        close(target);
    std::error_code failure(error, std::generic_category());
    if (error == 0) {
        if (!shared)
            fs::copy_file(from, to, fs::copy_options::overwrite_existing, failure);
        if (!failure)
            fs::permissions(to, fs::status(from).permissions(), failure);
        if (failure)
            unlink(to.c_str());
    }
    return failure;
}

QuietOutput::QuietOutput()
{
    std::fflush(stdout);
    m_output = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (m_output >= 0 && nowhere >= 0)
        dup2(nowhere, STDOUT_FILENO);
    if (nowhere >= 0)
        close(nowhere);
}

QuietOutput::~QuietOutput()
{
    std::fflush(stdout);
    if (m_output < 0)
        return;
    dup2(m_output, STDOUT_FILENO);
    close(m_output);
}
