/* Records video that survives the end of the process at any moment.
 *
 *   safe_recording camera.h264 take1.mp4 [FRAMES]
 *
 * With FRAMES it dies behind so many pictures, as in a crash: the file then plays up to its last
 * checkpoint, and the example `repair` brings back what lies behind that. */
#include "annex_b.h"

#include <kv_mp4.h>

#include <string.h>

static uint32_t make_safe(mp4_handle file)
{
    /* A checkpoint each 64 KiB. What is lost without a repair is so much at most; keep the distance
     * above the size of the index and of a few pictures. */
    mp4_safe_param safe;
    memset(&safe, 0, sizeof safe);
    safe.strategy = 0;
    safe.min_interval = 64 * 1024;
    safe.max_interval = 64 * 1024;
    safe.threshold = 64 * 1024;
    const uint32_t status = mp4_set_safe_param(file, &safe);

    /* The log reaches the medium every 10 pictures. This one function answers 4 for success. */
    if (status == MP4_OK && mp4_repair_set_flush_interval(file, 10) != 4)
        return MP4_ERR_FAILED;
    return status;
}

int main(int argc, char **argv)
{
    stream camera;
    if (argc < 3 || !read_stream(argv[1], &camera)) {
        fputs("usage: safe_recording VIDEO OUTPUT [FRAMES]\n", stderr);
        return 2;
    }
    const long last = argc > 3 ? strtol(argv[3], NULL, 10) : -1;

    mp4_handle file;
    uint32_t status =
        mp4_create_file_ex(argv[2], MP4_OPEN_SAFE_MODE | MP4_OPEN_INFO_FILE, &file);
    if (status != MP4_OK) {
        fprintf(stderr, "safe_recording: status %u\n", (unsigned)status);
        return 1;
    }
    mp4_video_track_info video;
    memset(&video, 0, sizeof video);
    video.timescale = 25;
    video.sample_duration = 1;
    video.codec = MP4_VIDEO_H264;
    video.width = 320;
    video.height = 240;
    status = make_safe(file);
    if (status == MP4_OK)
        status = mp4_set_video_track(file, &video);

    /* A checkpoint that cannot be written throws; in a program in C that ends it, and the file is
     * what the checkpoint before it made of it. */
    const uint8_t *picture;
    uint32_t size;
    for (long time = 0; status == MP4_OK && (size = next_picture(&camera, &picture)) > 0; time++) {
        if (time == last)
            _Exit(3);
        status = mp4_write_video_frame(file, picture, size, (uint64_t)time);
    }
    /* A proper end takes the log away. */
    const uint32_t closed = mp4_close_file(file);
    free(camera.data);
    if (status == MP4_OK)
        status = closed;
    if (status != MP4_OK)
        fprintf(stderr, "safe_recording: status %u\n", (unsigned)status);
    return status != MP4_OK;
}
