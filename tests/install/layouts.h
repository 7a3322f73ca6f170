/* The layout of every public record with natural alignment and 64-bit pointers, which programs
 * have compiled in: asserted for C and for C++ while the tests are compiled. */
#ifndef KV_MP4_TESTS_LAYOUTS_H
#define KV_MP4_TESTS_LAYOUTS_H

#include <kv_mp4.h>

#include <assert.h>
#include <stddef.h>

#define SIZE(record, bytes) static_assert(sizeof(record) == (bytes), #record)
#define FIELD(record, field, offset, bytes)                                                \
    static_assert(offsetof(record, field) == (offset), #record "." #field " lies elsewhere"); \
    static_assert(sizeof(((record *)0)->field) == (bytes), #record "." #field " has another size")

static_assert(sizeof(void *) == 8, "these are the layouts of 64-bit systems");
static_assert(sizeof(mp4_handle) == 8, "mp4_handle");

FIELD(ExternalIoFuncs, open, 0, 8);
FIELD(ExternalIoFuncs, close, 8, 8);
FIELD(ExternalIoFuncs, tell, 16, 8);
FIELD(ExternalIoFuncs, seek, 24, 8);
FIELD(ExternalIoFuncs, flush, 32, 8);
FIELD(ExternalIoFuncs, read, 40, 8);
FIELD(ExternalIoFuncs, write, 48, 8);
SIZE(ExternalIoFuncs, 56);

/* 4 bytes of padding before sample_duration, 6 behind each int16_t. */
FIELD(mp4_video_track_info, timescale, 0, 4);
FIELD(mp4_video_track_info, sample_duration, 8, 8);
FIELD(mp4_video_track_info, codec, 16, 4);
FIELD(mp4_video_track_info, width, 20, 2);
FIELD(mp4_video_track_info, height, 22, 2);
FIELD(mp4_video_track_info, sps, 24, 8);
FIELD(mp4_video_track_info, prores_format, 24, 4);
FIELD(mp4_video_track_info, sps_size, 32, 2);
FIELD(mp4_video_track_info, pps, 40, 8);
FIELD(mp4_video_track_info, pps_size, 48, 2);
FIELD(mp4_video_track_info, vps, 56, 8);
FIELD(mp4_video_track_info, vps_size, 64, 2);
SIZE(mp4_video_track_info, 72);

FIELD(mp4_audio_track_info, timescale, 0, 4);
FIELD(mp4_audio_track_info, sample_duration, 8, 8);
FIELD(mp4_audio_track_info, codec, 16, 4);
FIELD(mp4_audio_track_info, sample_rate, 20, 2);
FIELD(mp4_audio_track_info, channels, 22, 2);
FIELD(mp4_audio_track_info, object_type, 24, 1);
SIZE(mp4_audio_track_info, 32);

FIELD(mp4_subtitle_track_info, codec, 0, 4);
FIELD(mp4_subtitle_track_info, timescale, 4, 4);
SIZE(mp4_subtitle_track_info, 8);

FIELD(mp4_time_code_track_info, timescale, 0, 4);
FIELD(mp4_time_code_track_info, frame_duration, 8, 8);
FIELD(mp4_time_code_track_info, frames_per_second, 16, 1);
FIELD(mp4_time_code_track_info, flags, 20, 4);
SIZE(mp4_time_code_track_info, 24);

FIELD(mp4_safe_param, strategy, 0, 4);
FIELD(mp4_safe_param, min_interval, 4, 4);
FIELD(mp4_safe_param, max_interval, 8, 4);
FIELD(mp4_safe_param, threshold, 12, 4);
SIZE(mp4_safe_param, 16);

FIELD(kv_mp4_video_info, codec, 0, 4);
FIELD(kv_mp4_video_info, timescale, 4, 4);
FIELD(kv_mp4_video_info, width, 8, 2);
FIELD(kv_mp4_video_info, height, 10, 2);
FIELD(kv_mp4_video_info, sps, 16, 8);
FIELD(kv_mp4_video_info, sps_size, 24, 2);
FIELD(kv_mp4_video_info, pps, 32, 8);
FIELD(kv_mp4_video_info, pps_size, 40, 2);
FIELD(kv_mp4_video_info, vps, 48, 8);
FIELD(kv_mp4_video_info, vps_size, 56, 2);
SIZE(kv_mp4_video_info, 64);

FIELD(kv_mp4_audio_info, codec, 0, 4);
FIELD(kv_mp4_audio_info, timescale, 4, 4);
FIELD(kv_mp4_audio_info, sample_rate, 8, 2);
FIELD(kv_mp4_audio_info, channels, 10, 2);
FIELD(kv_mp4_audio_info, object_type, 12, 1);
SIZE(kv_mp4_audio_info, 16);

FIELD(kv_mp4_subtitle_info, codec, 0, 4);
FIELD(kv_mp4_subtitle_info, timescale, 4, 4);
SIZE(kv_mp4_subtitle_info, 8);

#undef SIZE
#undef FIELD

#endif /* KV_MP4_TESTS_LAYOUTS_H */
