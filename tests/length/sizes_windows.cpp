#include "length/sizes.h"

#include <malloc.h>

namespace kvtest {

std::size_t SizeOf(void* data)
{
    return data ? _msize(data) : 0;
}

}  // namespace kvtest
