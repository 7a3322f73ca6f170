/* The public header alone, as C11: layouts that callers compile into their programs. */
#include <kv_mp4.h>

#include <assert.h>
#include <stdio.h>

static_assert(offsetof(mp4_video_track_info, timescale) == 0, "timescale");
static_assert(offsetof(mp4_video_track_info, sample_duration) == 8, "sample_duration");
static_assert(offsetof(mp4_video_track_info, codec) == 16, "codec");
static_assert(offsetof(mp4_video_track_info, width) == 20, "width");
static_assert(offsetof(mp4_video_track_info, height) == 22, "height");
static_assert(offsetof(mp4_video_track_info, sps) == 24, "sps");
static_assert(offsetof(mp4_video_track_info, prores_format) == 24, "prores_format");
static_assert(sizeof(mp4_video_track_info) == 72, "mp4_video_track_info");
static_assert(sizeof(mp4_audio_track_info) == 32, "mp4_audio_track_info");
static_assert(sizeof(mp4_subtitle_track_info) == 8, "mp4_subtitle_track_info");
static_assert(sizeof(mp4_time_code_track_info) == 24, "mp4_time_code_track_info");
static_assert(sizeof(mp4_safe_param) == 16, "mp4_safe_param");
static_assert(sizeof(ExternalIoFuncs) == 7 * sizeof(void *), "ExternalIoFuncs");

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
