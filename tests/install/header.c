/* The public header alone, as C11, with the layouts that callers compile into their programs. */
#include <kv_mp4.h>

#include "layouts.h"

#include <stdio.h>

int main(void)
{
    mp4_handle file = NULL;
    if (mp4_close_file(file) != MP4_ERR_INVALID_HANDLE) {
        fputs("a null handle was not refused\n", stderr);
        return 1;
    }
    puts("the header compiles as C and its layouts stand");
    return 0;
}
