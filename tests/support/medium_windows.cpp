#include "support/imports_windows.h"
#include "support/medium.h"

#include <windows.h>

#include <array>
#include <cerrno>
#include <filesystem>

namespace kvtest {

namespace {

Medium* g_medium = nullptr;
void* g_flush = nullptr;  // the system's

BOOL WINAPI Note(HANDLE file)
{
    std::array<wchar_t, MAX_PATH> path{};
    GetFinalPathNameByHandleW(file, path.data(), static_cast<DWORD>(path.size()), 0);
    const std::string name = std::filesystem::path(path.data()).filename().string();
    g_medium->syncs.push_back({name, BoxFile::Read(path.data()).All()});
    const bool refused = g_medium->refusedFile.empty() || g_medium->refusedFile == name;
    if (g_medium->error == 0 || !refused)
        return TRUE;
    const int error = g_medium->error;
    SetLastError(error == ENOSPC ? ERROR_DISK_FULL
                 : error == EIO  ? ERROR_GEN_FAILURE
                                 : ERROR_INVALID_FUNCTION);  // of what has no medium
    return FALSE;
}

}  // namespace

Medium::Medium()
{
    g_medium = this;
    g_flush = ReplaceImport(nullptr, "FlushFileBuffers", reinterpret_cast<void*>(&Note));
}

Medium::~Medium()
{
    ReplaceImport(nullptr, "FlushFileBuffers", g_flush);
    g_medium = nullptr;
}

}  // namespace kvtest
