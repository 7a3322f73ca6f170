#include "support/file_size_limit.h"

#include "support/imports_windows.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <filesystem>

namespace kvtest {

namespace {

std::int64_t g_limit = 0;
const wchar_t* g_name = nullptr;  // null for every file

bool IsLimited(HANDLE file)
{
    if (GetFileType(file) != FILE_TYPE_DISK)
        return false;
    if (!g_name)
        return true;
    std::array<wchar_t, 2048> path{};
    GetFinalPathNameByHandleW(file, path.data(), static_cast<DWORD>(path.size()), 0);
    return std::filesystem::path(path.data()).filename() == g_name;
}

BOOL WINAPI WriteWithin(HANDLE file, const void* data, DWORD size, DWORD* written,
                        OVERLAPPED* overlapped)
{
    LARGE_INTEGER at{};
    if (!IsLimited(file) || !SetFilePointerEx(file, {}, &at, FILE_CURRENT) ||
        at.QuadPart + std::int64_t{size} <= g_limit)
        return WriteFile(file, data, size, written, overlapped);
    const std::int64_t room = std::max<std::int64_t>(g_limit - at.QuadPart, 0);
    if (room > 0)
        WriteFile(file, data, static_cast<DWORD>(room), written, overlapped);
    SetLastError(ERROR_DISK_FULL);
    return FALSE;
}

}  // namespace

FileSizeLimit::FileSizeLimit(std::uint64_t bytes) : FileSizeLimit(bytes, nullptr) {}

FileSizeLimit::FileSizeLimit(std::uint64_t bytes, const wchar_t* name)
{
    g_name = name;
    g_limit = static_cast<std::int64_t>(bytes);
    m_before = ReplaceImport("msvcrt.dll", "WriteFile", reinterpret_cast<void*>(&WriteWithin));
}

FileSizeLimit::~FileSizeLimit()
{
    ReplaceImport("msvcrt.dll", "WriteFile", m_before);
}

}  // namespace kvtest
