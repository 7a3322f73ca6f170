#include "failure.h"

#include <kv_mp4.h>

const char* StatusText(std::uint32_t status)
{
    switch (status) {
    case MP4_ERR_PERMISSION: return "operation not permitted";
    case MP4_ERR_NOT_FOUND: return "no such file or folder";
    case MP4_ERR_ACCESS: return "permission denied";
    case MP4_ERR_BUSY: return "it is in use";
    case MP4_ERR_TOO_MANY_FILES: return "too many open files";
    case MP4_ERR_DISK_FULL: return "no space left on the disk";
    case MP4_ERR_READ_ONLY: return "the file system is read-only";
    case MP4_ERR_INVALID_PARAM: return "a value is not valid";
    default: return "the system reports an error";
    }
}
