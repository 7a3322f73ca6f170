/* Repairs a recording whose process died.
 *
 *   repair take1.mp4
 *
 * Give the path that was recorded to; the log lies beside it, take1.mp4.info. */
#include <kv_mp4.h>

#include <stdio.h>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: repair FILE\n", stderr);
        return 2;
    }
    /* 0 keeps the log, so that a second repair has the same result. */
    const uint32_t status = mp4_repair_file_ex(argv[1], 0);
    switch (status) {
    case MP4_OK:
        puts("repaired");
        return 0;
    case MP4_ERR_NOT_FOUND:
        fputs("repair: there is no such file, or no log: it was closed properly\n", stderr);
        return 1;
    default:
        fprintf(stderr, "repair: status %u\n", (unsigned)status);
        return 1;
    }
}
