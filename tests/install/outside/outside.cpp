// A sink whose disk fills up: the exception is caught by its type across the library's border.
#include <kv_mp4.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

namespace {

bool g_full = false;
std::int64_t g_position = 0;

std::uint8_t Open(void**, const wchar_t*, std::uint32_t, std::uint32_t)
{
    return 1;
}

void Close(void*) {}

std::int64_t Tell(void*)
{
    return g_position;
}

void Seek(void*, std::int64_t offset, std::int32_t)
{
    g_position = offset;
}

void Flush(void*) {}

std::int32_t Write(void*, const void*, std::uint32_t size)
{
    if (g_full) {
        errno = ENOSPC;
        return 0;
    }
    g_position += size;
    return 1;
}

}  // namespace

int main()
{
    ExternalIoFuncs sink = {Open, Close, Tell, Seek, Flush, nullptr, Write};
    mp4_handle file = nullptr;
    if (mp4_create_file_adv(L"sink.mov", 0, 0, 0, MP4_IO_EXTERNAL, &sink, &file) != MP4_OK)
        return 1;
    mp4_video_track_info video = {};
    video.codec = MP4_VIDEO_PRORES;
    video.prores_format = MP4_PRORES_4444;
    const std::uint8_t picture[8] = {};
    if (mp4_set_video_track(file, &video) != MP4_OK ||
        mp4_write_video_frame(file, picture, sizeof picture, 0) != MP4_OK)
        return 1;

    g_full = true;
    try {
        mp4_write_video_frame(file, picture, sizeof picture, 40);
        std::puts("no exception");
        return 1;
    } catch (const kv_mp4_exception& failure) {
        if (failure.code != ENOSPC)
            return 1;
    }
    // The handle stays valid, and the close tells the failure again.
    if (mp4_close_file(file) != MP4_ERR_DISK_FULL)
        return 1;
    std::puts("the exception was caught");
    return 0;
}
