// What the runtime knows of the memory that it gave out.
#pragma once

#include <cstddef>

namespace kvtest {

// Of a block; 0 for null.
std::size_t SizeOf(void* data);

}  // namespace kvtest
