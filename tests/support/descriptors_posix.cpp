#include "support/descriptors.h"

#include <fcntl.h>

namespace kvtest {

int OpenNothing()
{
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

}  // namespace kvtest
