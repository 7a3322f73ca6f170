// The requests for memory that a program makes: of its objects by malloc, calloc and realloc, and of
// the runtime for the streams of files. Whoever includes this says which are refused.
#pragma once

#include <cstddef>

namespace kvtest {

// From here on each request asks.
void WatchRequests();

enum class Request { New, Malloc, Calloc, Realloc, Open };

// Asked for each; sets errno when it is true.
bool RefusesRequest(Request request);

// Memory that nobody refuses.
void* Allocate(std::size_t size);

}  // namespace kvtest
