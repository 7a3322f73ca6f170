#include "system.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <csignal>
#include <cstdio>

// A macro of the system's has the name of ours.
#undef CopyFile

namespace {

std::error_code LastError()
{
    return {static_cast<int>(GetLastError()), std::system_category()};
}

void (*g_interrupt)(int) = nullptr;

// Opens a file that exists; `share` is what others may do with it meanwhile.
HANDLE Open(const std::string& path, DWORD access, DWORD share)
{
    return CreateFileW(PathOf(path).c_str(), access, share, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

std::vector<std::string> Arguments(int, char**)
{
    // main has them in the code page of the system, which has no form for most names.
    std::vector<std::string> arguments;
    int count = 0;
    wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; wide && i < count; ++i) {
        const std::u8string text = std::filesystem::path(wide[i]).u8string();
        arguments.emplace_back(text.begin(), text.end());
    }
    LocalFree(wide);
    SetConsoleOutputCP(CP_UTF8);
    return arguments;
}

void OnInterrupt(void (*handler)(int))
{
    g_interrupt = handler;
    SetConsoleCtrlHandler(
        [](DWORD event) -> BOOL {
            g_interrupt(SIGINT);
            // Of a closed window or a system that goes down, the process ends with this call.
            if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
                Sleep(INFINITE);
            return TRUE;
        },
        TRUE);
}

std::string Writer(const std::string& path)
{
    const HANDLE file = Open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE);
    if (file == INVALID_HANDLE_VALUE)
        return GetLastError() == ERROR_SHARING_VIOLATION ? "another process" : "";
    CloseHandle(file);
    return "";
}

std::error_code MayOpen(const std::string& path, bool write)
{
    const HANDLE file = Open(path, GENERIC_READ | (write ? GENERIC_WRITE : 0),
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    if (file == INVALID_HANDLE_VALUE)
        return LastError();
    CloseHandle(file);
    return {};
}

std::error_code CopyFile(const std::string& from, const std::string& to)
{
    if (CopyFileW(PathOf(from).c_str(), PathOf(to).c_str(), TRUE))
        return {};
    return LastError();
}

QuietOutput::QuietOutput()
{
    std::fflush(stdout);
    m_output = _dup(1);
    const int nowhere = _open("NUL", _O_WRONLY);
    if (m_output >= 0 && nowhere >= 0)
        _dup2(nowhere, 1);
    if (nowhere >= 0)
        _close(nowhere);
}

QuietOutput::~QuietOutput()
{
    std::fflush(stdout);
    if (m_output < 0)
        return;
    _dup2(m_output, 1);
    _close(m_output);
}
