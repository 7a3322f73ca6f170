/* Records ten pictures into the file it is given and counts what the library says of them. */
#include <kv_mp4.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    mp4_handle file = NULL;
    uint32_t failures = mp4_create_file_ex(argv[1], 0, &file) != MP4_OK;
    if (failures)
        return 1;

    mp4_video_track_info video;
    memset(&video, 0, sizeof video);
    video.timescale = 25;
    video.sample_duration = 1;
    video.codec = MP4_VIDEO_PRORES;
    video.width = 64;
    video.height = 36;
    video.prores_format = MP4_PRORES_422;
    failures += mp4_set_video_track(file, &video) != MP4_OK;

    const uint8_t picture[16] = {0, 0, 0, 16, 'i', 'c', 'p', 'f'};
    for (uint64_t time = 0; time < 10; time++)
        failures += mp4_write_video_frame(file, picture, sizeof picture, time) != MP4_OK;
    /* Ten pictures of 1/25 s each. */
    failures += mp4_get_duration_ms(file) != 400;
    failures += mp4_close_file(file) != MP4_OK;
    failures += mp4_close_file(file) != MP4_ERR_INVALID_HANDLE;
    printf("%u failures\n", (unsigned)failures);
    return failures != 0;
}
