#include "support/descriptors.h"

#include <fcntl.h>

namespace kvtest {

int OpenNothing()
{
    return open("NUL", O_RDWR | O_NOINHERIT);
}

}  // namespace kvtest
