// The linker sends them here (--wrap).
#include "faults/memory_requests.h"

#include <cstdio>

using kvtest::RefusesRequest;
using kvtest::Request;

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* data, std::size_t size);
std::FILE* __real_fopen(const char* path, const char* mode);

void* __wrap_malloc(std::size_t size)
{
    return RefusesRequest(Request::Malloc) ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(std::size_t count, std::size_t size)
{
    return RefusesRequest(Request::Calloc) ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* data, std::size_t size)
{
    return RefusesRequest(Request::Realloc) ? nullptr : __real_realloc(data, size);
}
std::FILE* __wrap_fopen(const char* path, const char* mode)
{
    return RefusesRequest(Request::Open) ? nullptr : __real_fopen(path, mode);
}
}

namespace kvtest {

void WatchRequests() {}

void* Allocate(std::size_t size)
{
    return __real_malloc(size);
}

}  // namespace kvtest
