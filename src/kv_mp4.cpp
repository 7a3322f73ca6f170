// The simplified front end: fixed open flags, small records of its own, and otherwise the mp4_
// functions under second names. It adds no state.
#include "kv_mp4.h"

namespace {

constexpr uint8_t kFlags = MP4_OPEN_LARGE_FILE | MP4_OPEN_INFO_FILE;

// Codec numbers of the records here; video counts from 1, unlike mp4_video_track_info.
constexpr uint32_t kH264 = 1;
constexpr uint32_t kHevc = 2;

}  // namespace

mp4_handle kv_mp4_open(const char* path)
{
    mp4_handle handle = nullptr;
    mp4_create_file_ex(path, kFlags, &handle);  // a failure only shows as null
    return handle;
}

mp4_handle kv_mp4_open_ex(const wchar_t* path)
{
    mp4_handle handle = nullptr;
    mp4_create_file(path, kFlags, &handle);
    return handle;
}

// The conversions run before the handle is tested.

uint32_t kv_mp4_set_video(mp4_handle handle, const kv_mp4_video_info* info)
{
    if (!info)
        return MP4_ERR_INVALID_PARAM;
    mp4_video_track_info full{};
    switch (info->codec) {
    case kHevc:
        full.codec = MP4_VIDEO_HEVC;
        full.vps = info->vps;
        full.vps_size = info->vps_size;
        break;
    case kH264: full.codec = MP4_VIDEO_H264; break;
    default: return MP4_ERR_UNSUPPORTED;
    }
    full.sps = info->sps;
    full.sps_size = info->sps_size;
    full.pps = info->pps;
    full.pps_size = info->pps_size;
    full.timescale = info->timescale;
    full.width = info->width;
    full.height = info->height;
    return mp4_set_video_track(handle, &full);
}

uint32_t kv_mp4_set_audio(mp4_handle handle, const kv_mp4_audio_info* info)
{
    if (!info)
        return MP4_ERR_INVALID_PARAM;
    mp4_audio_track_info full{};
    full.codec = info->codec;
    full.timescale = info->timescale;
    switch (info->codec) {
    case MP4_AUDIO_AAC_RAW:
        full.sample_rate = info->sample_rate;
        full.channels = info->channels;
        full.object_type = info->object_type;
        break;
    case MP4_AUDIO_AAC_ADTS: break;  // the rest comes from the stream
    default: return MP4_ERR_UNSUPPORTED;
    }
    return mp4_set_audio_track(handle, &full);
}

uint32_t kv_mp4_set_subtitle(mp4_handle handle, const kv_mp4_subtitle_info* info)
{
    if (!info)
        return MP4_ERR_INVALID_PARAM;
    if (info->codec != MP4_SUBTITLE_CEA608 && info->codec != MP4_SUBTITLE_CEA708)
        return MP4_ERR_UNSUPPORTED;
    const mp4_subtitle_track_info full{info->codec, info->timescale};
    return mp4_set_subtitle_track(handle, &full);
}

uint32_t kv_mp4_write_video(mp4_handle handle, const uint8_t* data, uint32_t size,
                            uint64_t timestamp)
{
    return mp4_write_video_frame(handle, data, size, timestamp);
}

uint32_t kv_mp4_write_audio(mp4_handle handle, const uint8_t* data, uint32_t size,
                            uint64_t timestamp)
{
    return mp4_write_audio_frame(handle, data, size, timestamp);
}

uint32_t kv_mp4_write_subtitle(mp4_handle handle, const uint8_t* data, uint32_t size,
                               uint64_t timestamp)
{
    return mp4_write_subtitle_frame(handle, data, size, timestamp);
}

uint32_t kv_mp4_close(mp4_handle handle)
{
    return mp4_close_file(handle);
}

uint32_t kv_mp4_repair(const char* path, uint8_t option)
{
    return mp4_repair_file_ex(path, option);
}

uint32_t kv_mp4_repair_ex(const wchar_t* path, uint8_t option)
{
    return mp4_repair_file(path, option);
}
