/* Records video with closed captions (CEA-608) and a time code.
 *
 *   captions camera.h264 take1.mov "WORDS TO SHOW"
 *
 * The first picture has the time code 10:00:00:00 at 25 pictures a second; the words appear as soon
 * as they are loaded and go away with picture 76. */
#include "annex_b.h"

#include <kv_mp4.h>

#include <string.h>

enum { kFrameRate = 25, kErasedAt = 76 };

/* Commands of line 21: load a hidden caption, go to its last row, show it, take it away. */
static const uint8_t kLoad[2] = {0x14, 0x20};
static const uint8_t kLastRow[2] = {0x14, 0x70};
static const uint8_t kShow[2] = {0x14, 0x2F};
static const uint8_t kErase[2] = {0x14, 0x2C};

/* Seven bits and odd parity, as line 21 has them. */
static uint8_t with_parity(uint8_t byte)
{
    unsigned ones = 0;
    for (unsigned bit = 0; bit < 7; bit++)
        ones += byte >> bit & 1u;
    return (uint8_t)(byte | (ones % 2 ? 0 : 0x80));
}

/* The two bytes that go with a picture; 0 if none. Every command is sent twice. */
static int pair_of(size_t picture, const char *words, uint8_t pair[2])
{
    const size_t shown = 4 + (strlen(words) + 1) / 2;
    const uint8_t *command = NULL;
    if (picture < 2)
        command = kLoad;
    else if (picture < 4)
        command = kLastRow;
    else if (picture == shown || picture == shown + 1)
        command = kShow;
    else if (picture == kErasedAt || picture == kErasedAt + 1)
        command = kErase;
    else if (picture > shown)
        return 0;
    if (command == NULL)
        command = (const uint8_t *)words + 2 * (picture - 4); /* the last one may be the end mark */
    pair[0] = with_parity(command[0]);
    pair[1] = with_parity(command[1]);
    return 1;
}

static uint32_t set_tracks(mp4_handle file)
{
    const mp4_video_track_info video = {.timescale = kFrameRate, .sample_duration = 1,
                                        .codec = MP4_VIDEO_H264, .width = 320, .height = 240};
    const mp4_subtitle_track_info captions = {.codec = MP4_SUBTITLE_CEA608,
                                              .timescale = kFrameRate};
    const mp4_time_code_track_info time_code = {.timescale = kFrameRate, .frame_duration = 1,
                                                .frames_per_second = kFrameRate};
    uint32_t status = mp4_set_video_track(file, &video);
    if (status == MP4_OK)
        status = mp4_set_subtitle_track(file, &captions);
    if (status == MP4_OK)
        status = mp4_set_time_code_track(file, &time_code);
    /* Once, and as a count of frames since midnight. */
    return status != MP4_OK ? status : mp4_write_time_code(file, 10 * 3600 * kFrameRate);
}

int main(int argc, char **argv)
{
    stream camera;
    mp4_handle file;
    if (argc != 4 || !read_stream(argv[1], &camera))
        return 2;
    uint32_t status = mp4_create_file_ex(argv[2], 0, &file);
    if (status != MP4_OK)
        return 1;
    status = set_tracks(file);
    const uint8_t *picture;
    uint32_t size;
    for (size_t n = 0; status == MP4_OK && (size = next_picture(&camera, &picture)) > 0; n++) {
        status = mp4_write_video_frame(file, picture, size, n);
        /* A packed frame: mark, kind, a byte that nobody reads, then field 1 and its pair. */
        uint8_t frame[6] = {0x61, 2, 1, 0};
        if (status == MP4_OK && pair_of(n, argv[3], frame + 4))
            status = mp4_write_subtitle_frame(file, frame, sizeof frame, n);
    }
    const uint32_t closed = mp4_close_file(file);
    free(camera.data);
    return status != MP4_OK || closed != MP4_OK;
}
