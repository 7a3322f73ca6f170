// The program imports them from the runtime; so do the compiler's libraries, which are part of it.
#include "faults/memory_requests.h"

#include "support/imports_windows.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kvtest {

namespace {

void* (*g_malloc)(std::size_t) = nullptr;
void* (*g_calloc)(std::size_t, std::size_t) = nullptr;
void* (*g_realloc)(void*, std::size_t) = nullptr;
std::FILE* (*g_wfopen)(const wchar_t*, const wchar_t*) = nullptr;

bool g_refusesNext = false;  // whoever asks

void* AskedMalloc(std::size_t size)
{
    const bool refused =
        std::exchange(g_refusesNext, false) || RefusesRequest(Request::Malloc);
    return refused ? nullptr : g_malloc(size);
}
void* AskedCalloc(std::size_t count, std::size_t size)
{
    return RefusesRequest(Request::Calloc) ? nullptr : g_calloc(count, size);
}
void* AskedRealloc(void* data, std::size_t size)
{
    return RefusesRequest(Request::Realloc) ? nullptr : g_realloc(data, size);
}
std::FILE* AskedOpen(const wchar_t* path, const wchar_t* mode)
{
    return RefusesRequest(Request::Open) ? nullptr : g_wfopen(path, mode);
}

template <typename Function>
void Replace(const char* name, Function*& was, Function* function)
{
    was = reinterpret_cast<Function*>(
        ReplaceImport(nullptr, name, reinterpret_cast<void*>(function)));
}

}  // namespace

void WatchRequests()
{
    Replace("malloc", g_malloc, &AskedMalloc);
    Replace("calloc", g_calloc, &AskedCalloc);
    Replace("realloc", g_realloc, &AskedRealloc);
    Replace("_wfopen", g_wfopen, &AskedOpen);

    // Without memory exceptions come from a reserve, whose lock asks for memory when it is first
    // taken; a refusal there would be thrown by the same reserve, without an end.
    g_refusesNext = true;
    try {
        throw 0;
    } catch (int) {
    }
}

void* Allocate(std::size_t size)
{
    return g_malloc ? g_malloc(size) : std::malloc(size);  // also ahead of main
}

}  // namespace kvtest
