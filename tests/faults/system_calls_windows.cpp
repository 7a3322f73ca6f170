#include "faults/system_calls.h"

#include "support/imports_windows.h"

#include <windows.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <string_view>

namespace kvtest {

namespace {

std::wstring g_folder;
bool g_inside = false;
SysFault g_fault;
std::size_t g_left = 0;  // calls until the fault strikes; 0 never
std::vector<SysEvent> g_events;
std::map<HANDLE, SysFile> g_files;  // the folder's that are open

// The program's own imports, which are replaced.
decltype(&CreateFileW) g_createFile = nullptr;
decltype(&FlushFileBuffers) g_flushFileBuffers = nullptr;
decltype(&SetEndOfFile) g_setEndOfFile = nullptr;

// The file of a path in the folder; null for any other, and while the library is not at work.
const SysFile* FileOf(const wchar_t* path)
{
    static constexpr SysFile kMedia = SysFile::Media;
    static constexpr SysFile kLog = SysFile::Log;
    const std::wstring_view name(path);
    if (!g_inside || !name.starts_with(g_folder))
        return nullptr;
    return name.ends_with(L".info") ? &kLog : &kMedia;
}

const SysFile* FileOf(HANDLE handle)
{
    const auto found = g_files.find(handle);
    return g_inside && found != g_files.end() ? &found->second : nullptr;
}

enum class Way { Whole, Half, Fails };

// Notes a call, and says how it goes.
Way Note(SysCall call, const SysFile* file)
{
    if (!file)
        return Way::Whole;
    Way way = Way::Whole;
    if (g_left != 0 && call == g_fault.call && *file == g_fault.file && --g_left == 0) {
        way = g_fault.error != 0 ? Way::Fails : Way::Half;
        if (g_fault.forEver)
            g_left = 1;
    }
    g_events.push_back({call, *file, Scenario::Now(), way == Way::Fails});
    return way;
}

// As the runtime, or the library, understands it.
void SetError()
{
    SetLastError(g_fault.error == ENOSPC   ? ERROR_DISK_FULL
                 : g_fault.error == EACCES ? ERROR_ACCESS_DENIED
                 : g_fault.error == EIO    ? ERROR_GEN_FAILURE
                 : g_fault.error == EROFS  ? ERROR_INVALID_FUNCTION  // of what has no medium
                                           : ERROR_INVALID_PARAMETER);
}

// ---- The runtime's

HANDLE WINAPI Create(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                     DWORD disposition, DWORD attributes, HANDLE model)
{
    const SysFile* const file = FileOf(path);
    if (Note(SysCall::Open, file) == Way::Fails) {
        SetError();
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle =
        g_createFile(path, access, share, security, disposition, attributes, model);
    if (file && handle != INVALID_HANDLE_VALUE)
        g_files[handle] = *file;
    return handle;
}

BOOL WINAPI Read(HANDLE handle, void* data, DWORD size, DWORD* moved, OVERLAPPED* overlapped)
{
    const Way way = Note(SysCall::Read, FileOf(handle));
    if (way == Way::Fails) {
        *moved = 0;
        SetError();
        return FALSE;
    }
    const BOOL read =
        ReadFile(handle, data, way == Way::Half ? (size + 1) / 2 : size, moved, overlapped);
    if (read && FileOf(handle))
        g_events.back().moved = *moved;
    return read;
}

BOOL WINAPI Write(HANDLE handle, const void* data, DWORD size, DWORD* moved,
                  OVERLAPPED* overlapped)
{
    if (Note(SysCall::Write, FileOf(handle)) == Way::Fails) {
        *moved = 0;
        SetError();
        return FALSE;
    }
    const BOOL written = WriteFile(handle, data, size, moved, overlapped);
    if (written && FileOf(handle))
        g_events.back().moved = *moved;
    return written;
}

DWORD WINAPI Seek(HANDLE handle, LONG low, LONG* high, DWORD origin)
{
    if (Note(SysCall::Seek, FileOf(handle)) == Way::Fails) {
        SetError();
        return INVALID_SET_FILE_POINTER;
    }
    return SetFilePointer(handle, low, high, origin);
}

BOOL WINAPI Close(HANDLE handle)
{
    const Way way = Note(SysCall::Close, FileOf(handle));
    g_files.erase(handle);
    const BOOL closed = CloseHandle(handle);  // also by a close that fails
    if (way != Way::Fails)
        return closed;
    SetError();
    return FALSE;
}

BOOL WINAPI Delete(const wchar_t* path)
{
    if (Note(SysCall::Unlink, FileOf(path)) != Way::Fails)
        return DeleteFileW(path);
    SetError();
    return FALSE;
}

// ---- The library's own

BOOL WINAPI Flush(HANDLE handle)
{
    if (Note(SysCall::Sync, FileOf(handle)) != Way::Fails)
        return g_flushFileBuffers(handle);
    SetError();
    return FALSE;
}

// The cut opens the file, then ends it: two calls that can fail.
HANDLE WINAPI CreateToCut(const wchar_t* path, DWORD access, DWORD share,
                          SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD attributes,
                          HANDLE model)
{
    if (Note(SysCall::Truncate, FileOf(path)) != Way::Fails)
        return g_createFile(path, access, share, security, disposition, attributes, model);
    SetError();
    return INVALID_HANDLE_VALUE;
}

BOOL WINAPI SetEnd(HANDLE handle)
{
    static constexpr SysFile kMedia = SysFile::Media;
    if (Note(SysCall::Truncate, g_inside ? &kMedia : nullptr) != Way::Fails)
        return g_setEndOfFile(handle);
    SetError();
    return FALSE;
}

template <typename Function>
Function* Replace(const char* module, const char* name, Function* function)
{
    return reinterpret_cast<Function*>(
        ReplaceImport(module, name, reinterpret_cast<void*>(function)));
}

}  // namespace

bool SystemCalls::Install(const std::string& folder)
{
    g_folder = std::filesystem::path(folder).wstring();
    g_createFile = Replace(nullptr, "CreateFileW", &CreateToCut);
    g_setEndOfFile = Replace(nullptr, "SetEndOfFile", &SetEnd);
    g_flushFileBuffers = Replace(nullptr, "FlushFileBuffers", &Flush);
    Replace("msvcrt.dll", "CreateFileW", &Create);
    Replace("msvcrt.dll", "ReadFile", &Read);
    Replace("msvcrt.dll", "WriteFile", &Write);
    Replace("msvcrt.dll", "SetFilePointer", &Seek);
    Replace("msvcrt.dll", "CloseHandle", &Close);
    Replace("msvcrt.dll", "DeleteFileW", &Delete);
    return true;
}

void SystemCalls::Watch(const SysFault& fault)
{
    g_fault = fault;
    g_left = fault.n;
    g_events.clear();
    g_files.clear();
}

const std::vector<SysEvent>& SystemCalls::Stop()
{
    g_left = 0;
    return g_events;
}

std::span<const FaultError> SystemCalls::ErrorsOf(SysCall call)
{
    // What the runtime knows how to tell, of which EINVAL stands for all it has no number for; the
    // library, which waits for the medium itself, knows a full disk from all else.
    static constexpr FaultError kOpen[] = {{ENOSPC, 16, "ENOSPC"}, {EACCES, 13, "EACCES"},
                                           {EINVAL, 1, "EINVAL"}};
    static constexpr FaultError kSync[] = {{ENOSPC, 16, "ENOSPC"}, {EIO, 1, "EIO"},
                                           {EROFS, 17, "EROFS"}};
    static constexpr FaultError kOther[] = {{ENOSPC, 16, "ENOSPC"}, {EINVAL, 1, "EINVAL"}};
    switch (call) {
    case SysCall::Open: return kOpen;
    case SysCall::Sync: return kSync;
    default: return kOther;
    }
}

bool SystemCalls::TellsWhy()
{
    return false;
}

bool SystemCalls::ForgetsReads()
{
    return true;
}

bool SystemCalls::WritesTheRest()
{
    return false;
}

void SystemCalls::Around(bool inside)
{
    g_inside = inside;
}

}  // namespace kvtest
