#include "length/sizes.h"

#include <malloc.h>

namespace kvtest {

std::size_t SizeOf(void* data)
{
    return malloc_usable_size(data);
}

}  // namespace kvtest
