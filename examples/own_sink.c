/* Records into memory, through a table of callbacks; the finished file is then stored at once.
 *
 *   own_sink camera.h264 take1.mp4 */
#include "annex_b.h"

#include <kv_mp4.h>

#include <errno.h>
#include <string.h>

typedef struct memory {
    uint8_t *data;
    size_t size; /* of the file */
    size_t room; /* allocated */
    size_t position;
} memory;
static memory g_memory;

static uint8_t open_memory(void **context, const wchar_t *path, uint32_t block_size,
                           uint32_t block_count)
{
    (void)path, (void)block_size, (void)block_count;
    *context = &g_memory;
    return 1;
}

/* For the flush, as nothing waits, and for the close: what was written stays. */
static void keep_memory(void *context)
{
    (void)context;
}

static int64_t tell_memory(void *context)
{
    return (int64_t)((memory *)context)->position;
}

static void seek_memory(void *context, int64_t offset, int32_t origin)
{
    memory *m = context;
    const int64_t from[] = {0, (int64_t)m->position, (int64_t)m->size};
    m->position = (size_t)(from[origin] + offset);
}

/* All or nothing; the status of the failed call comes from errno. */
static int32_t write_memory(void *context, const void *buffer, uint32_t size)
{
    memory *m = context;
    const size_t end = m->position + size;
    if (end > m->room) {
        const size_t room = end + m->room / 2;
        uint8_t *data = realloc(m->data, room);
        if (data == NULL) {
            errno = ENOSPC;
            return 0;
        }
        memset(data + m->room, 0, room - m->room);
        m->data = data;
        m->room = room;
    }
    memcpy(m->data + m->position, buffer, size);
    m->position = end;
    if (end > m->size)
        m->size = end;
    return 1;
}

int main(int argc, char **argv)
{
    /* Kept until the close; reading is never asked of a recording's sink. */
    ExternalIoFuncs sink = {open_memory, keep_memory, tell_memory, seek_memory,
                            keep_memory, NULL,        write_memory};
    mp4_video_track_info video = {.timescale = 25, .sample_duration = 1,
                                  .codec = MP4_VIDEO_H264, .width = 320, .height = 240};
    stream camera;
    mp4_handle file;
    if (argc != 3 || !read_stream(argv[1], &camera))
        return 2;
    uint32_t status = mp4_create_file_adv(L"memory.mp4", MP4_OPEN_FAST_HEADER, 0, 0,
                                          MP4_IO_EXTERNAL, &sink, &file);
    if (status != MP4_OK)
        return 1;

    status = mp4_set_video_track(file, &video);
    const uint8_t *picture;
    uint32_t size;
    for (uint64_t time = 0; status == MP4_OK && (size = next_picture(&camera, &picture)); time++)
        status = mp4_write_video_frame(file, picture, size, time);
    const uint32_t closed = mp4_close_file(file);
    FILE *output = fopen(argv[2], "wb");
    const int stored = output != NULL &&
                       fwrite(g_memory.data, g_memory.size, 1, output) == 1 &&
                       fclose(output) == 0;
    free(g_memory.data);
    free(camera.data);
    return status != MP4_OK || closed != MP4_OK || !stored;
}
