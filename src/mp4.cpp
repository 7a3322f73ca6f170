// The mp4_ exports: handles, the process-wide lock, the set-up of the logger, the conversion of
// multibyte paths. No muxing here, and no exception ends here: what a method lets out reaches the
// caller, with the lock released and the handle still valid.
#include "kv_mp4.h"

#include "Mp4Muxer.h"
#include "Mp4Repair.h"
#include "log.h"
#include "platform.h"

#include <memory>
#include <mutex>
#include <set>

#define UNIT "src/mp4"

namespace {

constexpr char kVersion[] = "1.0.1.17543";
constexpr std::uint32_t kBlockSize = 4096;
constexpr std::uint32_t kBlockCount = 32;

// One lock for the process: all open files take turns. Recursive, so that an export that holds it
// from its first line can go through the call frame.
std::recursive_mutex g_apiLock;
std::set<mp4_handle> g_openHandles;  // under g_apiLock
bool g_loggerReady = false;          // under g_apiLock

using ApiLock = std::lock_guard<std::recursive_mutex>;

// The export that a log line names: as a default argument, the function that makes the call. The
// name lives as long as the library, for loggers that write later.
spdlog::source_loc Here(const char* name = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    return {UNIT, line, name};
}

// The call frame: the handle is looked up and the call runs under one hold of the lock, so that no
// close on another thread can free the object in between.
template <typename Call>
auto WithFile(mp4_handle handle, Call call, const spdlog::source_loc& where = Here())
    -> decltype(call(std::declval<CMp4Muxer&>()))
{
    if (!handle) {
        kv_log::Line(where, spdlog::level::err, "null handle");
        return MP4_ERR_INVALID_HANDLE;
    }
    const ApiLock hold(g_apiLock);
    if (!g_openHandles.contains(handle)) {
        kv_log::Line(where, spdlog::level::err, "invalid handle {}", handle);
        return MP4_ERR_INVALID_HANDLE;
    }
    return call(*static_cast<CMp4Muxer*>(handle));
}

// A record that must not be null, tested behind the handle.
template <typename Record, typename Call>
std::uint32_t WithRecord(mp4_handle handle, Record* record, Call call,
                         const spdlog::source_loc& where = Here())
{
    return WithFile(
        handle,
        [&](CMp4Muxer& file) -> std::uint32_t {
            return record ? call(file) : std::uint32_t{MP4_ERR_INVALID_PARAM};
        },
        where);
}

// Under g_apiLock, as is Create.
void SetUpLogger(const spdlog::source_loc& where = Here())
{
    if (g_loggerReady)
        return;
    // To the logger that spdlog began with.
    kv_log::Line(where, spdlog::level::info, "lumivane mp4 library {}", kVersion);
    kv_log::Replace(std::make_shared<spdlog::logger>("msvc_logger", platform::MakeLogSink()));
    platform::SetUtf8Locale();
    g_loggerReady = true;
}

std::uint32_t Create(const wchar_t* path, std::uint8_t flags, std::uint32_t block_size,
                     std::uint32_t block_count, std::uint32_t io_mode, ExternalIoFuncs* pFunc,
                     mp4_handle* handle_out)
{
    auto file = std::make_unique<CMp4Muxer>();
    // First, as it takes memory: behind a create that went well nothing may fail.
    const auto place = g_openHandles.insert(file.get()).first;
    std::uint32_t status = MP4_OK;
    try {
        status = file->Create(path, block_size, block_count, flags, io_mode, pFunc);
    } catch (...) {
        // No memory, or a caller's output that throws: as after any other failure no log stays that
        // a repair would lay upon an older file of this name, and the caller's output is closed.
        g_openHandles.erase(place);
        file->Close();
        throw;
    }
    if (status != MP4_OK) {
        g_openHandles.erase(place);
        return status;
    }
    *handle_out = file.release();
    return MP4_OK;
}

}  // namespace

// ---- Create and close ----------------------------------------------------------------------

uint32_t mp4_create_file(const wchar_t* path, uint8_t flags, mp4_handle* handle_out)
{
    if (!path || !handle_out)
        return MP4_ERR_INVALID_PARAM;
    const ApiLock hold(g_apiLock);
    SetUpLogger();  // Kept: here alone; callers of the other forms keep the logger they have
    return Create(path, flags, kBlockSize, kBlockCount, MP4_IO_FILE, nullptr, handle_out);
}

uint32_t mp4_create_file_ex(const char* path, uint8_t flags, mp4_handle* handle_out)
{
    if (!path || !handle_out)
        return MP4_ERR_INVALID_PARAM;
    platform::SetUtf8Locale();
    wchar_t wide[kPathSize] = {};
    const std::size_t length = platform::WidenPath(nullptr, path, kPathSize);
    if (length == SIZE_MAX) {
        LOG_ERROR("wcstombs failed");  // Kept: names the opposite function; log readers know it
        return MP4_ERR_FAILED;
    }
    if (length >= kPathSize - 1) {
        LOG_ERROR("file path reach the max path size 1024");
        return MP4_ERR_FAILED;
    }
    platform::WidenPath(wide, path, kPathSize);
    return mp4_create_file(wide, flags, handle_out);
}

uint32_t mp4_create_file_adv(const wchar_t* path, uint8_t flags, uint32_t block_size,
                             uint32_t block_count, uint32_t io_mode, ExternalIoFuncs* pFunc,
                             mp4_handle* handle_out)
{
    if (!path || !handle_out)
        return MP4_ERR_INVALID_PARAM;
    const ApiLock hold(g_apiLock);
    platform::SetUtf8Locale();
    return Create(path, flags, block_size, block_count, io_mode, pFunc, handle_out);
}

uint32_t mp4_create_file_adv_ex(const char* path, uint8_t flags, uint32_t block_size,
                                uint32_t block_count, uint32_t io_mode, ExternalIoFuncs* pFunc,
                                mp4_handle* handle_out)
{
    if (!path || !handle_out)
        return MP4_ERR_INVALID_PARAM;
    platform::SetUtf8Locale();
    // Kept: the conversion is not tested. The one character more ends a path that fills the limit.
    wchar_t wide[kPathSize + 1] = {};
    platform::WidenPath(wide, path, kPathSize);
    return mp4_create_file_adv(wide, flags, block_size, block_count, io_mode, pFunc, handle_out);
}

uint32_t mp4_close_file(mp4_handle handle)
{
    return WithFile(handle, [handle](CMp4Muxer& file) {
        const std::uint32_t status = file.Close();
        // By its place in the set: the address is not to be used behind the delete.
        const auto entry = g_openHandles.find(handle);
        delete &file;
        g_openHandles.erase(entry);
        return status;
    });
}

// ---- Tracks and metadata -------------------------------------------------------------------

// Kept: mp4_set_video_track and the metadata calls take the lock ahead of the test for a null
// handle, so that the line of that test, too, waits for a call on another thread.

uint32_t mp4_set_video_track(mp4_handle handle, const mp4_video_track_info* info)
{
    const ApiLock hold(g_apiLock);
    return WithRecord(handle, info, [=](CMp4Muxer& file) { return file.SetVideoTrack(info); });
}

uint32_t mp4_set_audio_track(mp4_handle handle, const mp4_audio_track_info* info)
{
    return WithRecord(handle, info, [=](CMp4Muxer& file) { return file.SetAudioTrack(info); });
}

uint32_t mp4_set_subtitle_track(mp4_handle handle, const mp4_subtitle_track_info* info)
{
    return WithRecord(handle, info, [=](CMp4Muxer& file) { return file.SetSubtitleTrack(info); });
}

uint32_t mp4_set_time_code_track(mp4_handle handle, const mp4_time_code_track_info* info)
{
    return WithRecord(handle, info, [=](CMp4Muxer& file) { return file.SetTimeCodeTrack(info); });
}

uint32_t mp4_set_metadata(mp4_handle handle, const char* key, const char* value)
{
    const ApiLock hold(g_apiLock);
    return WithFile(handle, [=](CMp4Muxer& file) {
        return file.SetMetadata(key, value, 0, MP4_METADATA_TEXT, nullptr);
    });
}

uint32_t mp4_set_metadata_ex(mp4_handle handle, const char* key, const void* value, uint32_t size,
                             uint32_t type, const char* key_namespace)
{
    const ApiLock hold(g_apiLock);
    return WithFile(handle, [=](CMp4Muxer& file) {
        return file.SetMetadata(key, value, size, type, key_namespace);
    });
}

// ---- Frames --------------------------------------------------------------------------------

uint32_t mp4_write_video_frame(mp4_handle handle, const uint8_t* data, uint32_t size,
                               uint64_t timestamp)
{
    return WithFile(handle, [=](CMp4Muxer& file) {
        return file.WriteVideoFrame({size, data, timestamp, timestamp, 0});
    });
}

uint32_t mp4_write_audio_frame(mp4_handle handle, const uint8_t* data, uint32_t size,
                               uint64_t timestamp)
{
    return WithFile(handle, [=](CMp4Muxer& file) {
        return file.WriteAudioFrame({size, data, timestamp});
    });
}

uint32_t mp4_write_subtitle_frame(mp4_handle handle, const uint8_t* data, uint32_t size,
                                  uint64_t timestamp)
{
    return WithFile(handle, [=](CMp4Muxer& file) {
        return file.WriteSubtitleFrame({size, data, timestamp});
    });
}

uint32_t mp4_write_time_code(mp4_handle handle, uint32_t time_code)
{
    return WithFile(handle, [=](CMp4Muxer& file) { return file.WriteTimeCode(time_code); });
}

// ---- Queries and settings ------------------------------------------------------------------

// Kept: the first two return their value, and a bad handle gives 2 there, which no caller can tell
// from a value.

uint64_t mp4_get_duration_ms(mp4_handle handle)
{
    return WithFile(handle, [](CMp4Muxer& file) { return file.GetDurationMS(); });
}

uint32_t mp4_get_moov_size(mp4_handle handle)
{
    return WithFile(handle, [](CMp4Muxer& file) { return file.GetMoovSize(); });
}

uint32_t mp4_get_video_bitrate(mp4_handle handle, double* bitrate)
{
    return WithRecord(handle, bitrate, [=](CMp4Muxer& file) -> std::uint32_t {
        *bitrate = file.GetVideoBitrate();
        return MP4_OK;
    });
}

uint32_t mp4_get_audio_bitrate(mp4_handle handle, double* bitrate)
{
    return WithRecord(handle, bitrate, [=](CMp4Muxer& file) -> std::uint32_t {
        *bitrate = file.GetAudioBitrate();
        return MP4_OK;
    });
}

uint32_t mp4_get_safe_param(mp4_handle handle, mp4_safe_param* params)
{
    return WithRecord(handle, params, [=](CMp4Muxer& file) { return file.GetSafeParam(params); });
}

uint32_t mp4_set_safe_param(mp4_handle handle, const mp4_safe_param* params)
{
    // The method tests and reports a null record itself.
    return WithFile(handle, [=](CMp4Muxer& file) { return file.SetSafeParam(params); });
}

uint32_t mp4_repair_set_flush_interval(mp4_handle handle, uint32_t interval)
{
    return WithFile(handle,
                    [=](CMp4Muxer& file) { return file.SetInfoFlushInterval(interval); });
}

// ---- Repair --------------------------------------------------------------------------------

// Both without a handle and outside g_apiLock: several repairs may run at once.

uint32_t mp4_repair_file(const wchar_t* path, uint8_t option)
{
    if (!path)
        return MP4_ERR_INVALID_PARAM;
    platform::SetUtf8Locale();
    return CMp4Repair().Repair(path, option);
}

uint32_t mp4_repair_file_ex(const char* path, uint8_t option)
{
    if (!path)
        return MP4_ERR_INVALID_PARAM;
    platform::SetUtf8Locale();
    // Kept: the conversion is not tested, as in mp4_create_file_adv_ex.
    wchar_t wide[kPathSize + 1] = {};
    platform::WidenPath(wide, path, kPathSize);
    return mp4_repair_file(wide, option);
}
