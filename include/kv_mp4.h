/*
 * kv_mp4.h - the public interface of libkv_mp4
 *
 * The library records live H.264, HEVC or ProRes video, AAC audio, CEA-608/708 captions and one
 * time code into an MP4 or QuickTime MOV file. It encodes nothing, starts no thread and reads no
 * clock for its files: the caller hands in one compressed frame at a time with its timestamp, and
 * every call runs to its end on the caller's thread.
 *
 * This header is plain C11 and C++, with natural alignment and C linkage.
 *
 * File kind
 *   A path that contains the text "mov" anywhere, folder names included, makes a QuickTime file;
 *   every other path makes an MP4 file. The comparison is case-sensitive.
 *
 * Paths
 *   "Wide" paths are NUL-terminated strings of the system's wchar_t. On Linux they are turned into
 *   UTF-8 for the system, whatever the locale. "Multibyte" paths are NUL-terminated strings in the
 *   encoding of the locale "en_US.utf8" ("C.UTF-8" where that one is not installed).
 *
 * Time
 *   A timestamp is a count of ticks of its track's timescale, where timescale is ticks per second.
 *   Durations in the file are the differences of successive timestamps, cut to 32 bits. Nothing
 *   tests that timestamps rise.
 *
 * Statuses
 *   Functions return an MP4_* status, 0 for success, unless their comment says otherwise. After an
 *   I/O failure every later call on that file returns the status of that failure.
 *
 * Ownership
 *   Records, strings and frames are borrowed for the call and copied as far as they are needed
 *   later. The one thing that must outlive its call is the ExternalIoFuncs table.
 *
 * Threads
 *   Any thread may call any function. One lock for the process is held around every call on a
 *   handle, so that all open files take turns; a slow disk under one file delays the others.
 *
 * Exceptions
 *   In the few places where a write outside a guarded stretch fails, a kv_mp4_exception leaves the
 *   function (see the frame functions). A caller in C must be built so that exceptions can pass,
 *   or treat this as fatal. All locks are released and the handle stays valid.
 */
#ifndef KV_MP4_H
#define KV_MP4_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(KV_MP4_BUILDING)
#define KV_MP4_API __declspec(dllexport)
#elif defined(KV_MP4_STATIC)
#define KV_MP4_API
#else
#define KV_MP4_API __declspec(dllimport)
#endif
#define KV_MP4_TYPE
#else
#define KV_MP4_API __attribute__((visibility("default")))
#define KV_MP4_TYPE __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
/* What a failing read or write throws inside the library, and the one type that may leave it.
 * `code` is the value of errno at the failure, or 1000 for the end of a log in a repair. */
class KV_MP4_TYPE kv_mp4_exception {
public:
    explicit kv_mp4_exception(int32_t error) : code(error) {}
    int32_t code;
};

extern "C" {
#endif

/* Statuses. The numbers are fixed; 3 is not used. */
enum {
    MP4_OK = 0,                         /* success; also for frames that are dropped or empty */
    MP4_ERR_FAILED = 1,                 /* path conversion failed; any error without its own row */
    MP4_ERR_INVALID_HANDLE = 2,         /* null or unknown handle */
    MP4_ERR_INVALID_PARAM = 4,          /* bad argument */
    MP4_ERR_INVALID_VIDEO_CODEC = 5,    /* codec of the video record out of range */
    MP4_ERR_INVALID_SUBTITLE_CODEC = 6, /* caption frame for a track whose codec is unknown */
    MP4_ERR_INVALID_ADTS = 7,           /* first frame of an ADTS track is no ADTS frame */
    MP4_ERR_PARSE_VIDEO = 8,            /* a video frame holds no NAL unit */
    MP4_ERR_NO_VIDEO_TRACK = 9,         /* video frame before the video track was set */
    MP4_ERR_UNSUPPORTED = 10,           /* MP4_IO_DIRECT; codec out of range in kv_mp4_* */
    MP4_ERR_PERMISSION = 11,            /* EPERM */
    MP4_ERR_NOT_FOUND = 12,             /* ENOENT */
    MP4_ERR_ACCESS = 13,                /* EACCES */
    MP4_ERR_BUSY = 14,                  /* EBUSY */
    MP4_ERR_TOO_MANY_FILES = 15,        /* EMFILE */
    MP4_ERR_DISK_FULL = 16,             /* ENOSPC */
    MP4_ERR_READ_ONLY = 17,             /* EROFS */
    MP4_ERR_EXTERNAL_OPEN = 18,         /* the open callback refused; create reports it as 4 */
    MP4_ERR_NOT_OPEN = 19               /* the file has no output writer */
};

/* Open flags, an 8-bit set. Other bits have no meaning and are ignored. */
enum {
    MP4_OPEN_VERSION1 = 0x01,   /* 64-bit times in the movie, video and audio headers */
    MP4_OPEN_LARGE_FILE = 0x02, /* 64-bit mdat size and chunk offsets: needed beyond 4 GiB */
    MP4_OPEN_SAFE_MODE = 0x08,  /* moov checkpoints inside the growing file */
    MP4_OPEN_INFO_FILE = 0x10,  /* log every sample into path + ".info" for a later repair */
    MP4_OPEN_FAST_HEADER = 0x20 /* stage the final moov in memory, write it with one write; not
                                   together with MP4_OPEN_SAFE_MODE */
};

/* I/O modes. */
enum {
    MP4_IO_FILE = 0,    /* a local file */
    MP4_IO_DIRECT = 1,  /* direct I/O: refused with MP4_ERR_UNSUPPORTED */
    MP4_IO_EXTERNAL = 2 /* the caller's ExternalIoFuncs */
};

/* Values of mp4_video_track_info.codec. */
enum { MP4_VIDEO_H264 = 0, MP4_VIDEO_HEVC = 1, MP4_VIDEO_PRORES = 2 };

/* Values of mp4_video_track_info.prores_format. */
enum {
    MP4_PRORES_422_PROXY = 0,
    MP4_PRORES_422_LT = 1,
    MP4_PRORES_422 = 2,
    MP4_PRORES_422_HQ = 3,
    MP4_PRORES_4444 = 4,
    MP4_PRORES_4444_XQ = 5
};

/* Values of mp4_audio_track_info.codec. */
enum { MP4_AUDIO_AAC_RAW = 1, MP4_AUDIO_AAC_ADTS = 2 };

/* Values of mp4_subtitle_track_info.codec. */
enum { MP4_SUBTITLE_CEA608 = 1, MP4_SUBTITLE_CEA708 = 2 };

/* Metadata types: how mp4_set_metadata_ex reads a value. Any other type is read as text and
 * reported at every write of the file's index. */
enum { MP4_METADATA_BINARY = 0, MP4_METADATA_TEXT = 1, MP4_METADATA_INTEGER = 21 };

/* An open file. Valid from a successful create until mp4_close_file; owned by the library. */
typedef void *mp4_handle;

/* The caller's output for MP4_IO_EXTERNAL. Only the pointer to the table is kept: it must stay
 * valid until the file is closed. No member may be null but `read`, which recording never calls.
 * The callbacks run on the thread of the library call that needs them, under the library's locks,
 * and must not call the library. A write must take all bytes or fail; a failed write should set
 * errno, which decides the status of the call. Seeks go back and forth over all that was written,
 * and in safe mode beyond its end. */
typedef struct ExternalIoFuncs {
    /* Opens the output; stores what the other callbacks get as `context`. Non-zero: success. When
     * it fails, `close` is not called. */
    uint8_t (*open)(void **context, const wchar_t *path, uint32_t block_size,
                    uint32_t block_count);
    /* Closes it; called once. */
    void (*close)(void *context);
    /* The current position in bytes from the start. */
    int64_t (*tell)(void *context);
    /* Moves the position; origin 0 start, 1 current, 2 end. */
    void (*seek)(void *context, int64_t offset, int32_t origin);
    /* Hands everything written so far on to the medium. */
    void (*flush)(void *context);
    /* Reads exactly `size` bytes; returns 1 on success. */
    int32_t (*read)(void *context, void *buffer, uint32_t size);
    /* Writes exactly `size` bytes; returns 1 on success. */
    int32_t (*write)(void *context, const void *buffer, uint32_t size);
} ExternalIoFuncs;

/* A video track. Parameter sets are single NAL units without start code; they are copied during
 * the call. A set that is missing (size 0) is taken from the stream: frames are then dropped, with
 * status 0, until one frame has delivered the last missing set. */
typedef struct mp4_video_track_info {
    uint32_t timescale;       /* ticks per second; 0 means 1000 */
    uint64_t sample_duration; /* duration in ticks of a lone sample; 0 if unknown; 32 bits used */
    uint32_t codec;           /* MP4_VIDEO_* */
    uint16_t width;           /* pixels */
    uint16_t height;          /* pixels */
    union {
        const uint8_t *sps;     /* H.264, HEVC: sequence parameter set, or null */
        uint32_t prores_format; /* ProRes: MP4_PRORES_* */
    };
    int16_t sps_size;   /* bytes */
    const uint8_t *pps; /* picture parameter set, or null */
    int16_t pps_size;   /* bytes */
    const uint8_t *vps; /* HEVC: video parameter set, or null */
    int16_t vps_size;   /* bytes */
} mp4_video_track_info;

/* An audio track. With MP4_AUDIO_AAC_ADTS the last three fields are taken from the first frame. */
typedef struct mp4_audio_track_info {
    uint32_t timescale;       /* ticks per second; 0 means 1000 */
    uint64_t sample_duration; /* duration in ticks of a lone sample; 0 if unknown; 32 bits used */
    uint32_t codec;           /* MP4_AUDIO_* */
    uint16_t sample_rate;     /* samples per second; cannot hold 88200 and 96000 */
    uint16_t channels;        /* channel count */
    uint8_t object_type;      /* MPEG-4 audio object type; 2 is AAC LC */
} mp4_audio_track_info;

/* A closed-caption track. */
typedef struct mp4_subtitle_track_info {
    uint32_t codec;     /* MP4_SUBTITLE_* */
    uint32_t timescale; /* ticks per second; 0 means 1000 */
} mp4_subtitle_track_info;

/* A time-code track. */
typedef struct mp4_time_code_track_info {
    uint32_t timescale;        /* ticks per second, taken as it stands */
    uint64_t frame_duration;   /* ticks per frame; the low 32 bits reach the file */
    uint8_t frames_per_second; /* the tmcd entry's number of frames */
    uint32_t flags;            /* the tmcd entry's flags word, e.g. 1 for drop frame */
} mp4_time_code_track_info;

/* Parameters of the safe mode, all in bytes but the first. */
typedef struct mp4_safe_param {
    uint32_t strategy;     /* 0 fixed, 1 linear (default), 2 stepped */
    uint32_t min_interval; /* first checkpoint, smallest distance; default 0xA00000 */
    uint32_t max_interval; /* largest distance; default 0x6400000 */
    uint32_t threshold;    /* position from which max_interval holds; default 0x40000000 */
} mp4_safe_param;

/* ---- Opening and closing ------------------------------------------------------------------ */

/* Creates `path` (truncating what was there) and stores a handle through `handle_out`, which is
 * written only on success. The same as mp4_create_file_adv with block_size 4096, block_count 32,
 * MP4_IO_FILE and no table. The first call in a process sets up the library's logger: spdlog's
 * default logger becomes "msvc_logger" (the debugger on Windows, standard error elsewhere), and
 * the process's locale becomes "en_US.utf8". Path limits: below 1024 characters; with
 * MP4_OPEN_INFO_FILE at most 1018, else MP4_ERR_INVALID_PARAM.
 * Errors: INVALID_PARAM, and what the system answers to the open (FAILED, PERMISSION ...). */
KV_MP4_API uint32_t mp4_create_file(const wchar_t *path, uint8_t flags, mp4_handle *handle_out);

/* The same with a multibyte path of at most 1022 characters; MP4_ERR_FAILED if it is longer or
 * not valid in the locale. */
KV_MP4_API uint32_t mp4_create_file_ex(const char *path, uint8_t flags, mp4_handle *handle_out);

/* Creates a file with a choice of output. block_size and block_count go to the `open` callback
 * and mean what caller and callback agree on. Sets the locale but leaves the logger alone. With
 * an io_mode above 2 it succeeds without any output; later calls answer MP4_ERR_NOT_OPEN.
 * Errors: as mp4_create_file; UNSUPPORTED for MP4_IO_DIRECT; INVALID_PARAM without a table, or
 * when its `open` refuses. */
KV_MP4_API uint32_t mp4_create_file_adv(const wchar_t *path, uint8_t flags, uint32_t block_size,
                                        uint32_t block_count, uint32_t io_mode,
                                        ExternalIoFuncs *pFunc, mp4_handle *handle_out);

/* The same with a multibyte path. Its conversion is not tested: keep the path valid in the locale
 * and below 1024 characters. */
KV_MP4_API uint32_t mp4_create_file_adv_ex(const char *path, uint8_t flags, uint32_t block_size,
                                           uint32_t block_count, uint32_t io_mode,
                                           ExternalIoFuncs *pFunc, mp4_handle *handle_out);

/* Finishes the file and ends the handle, whatever the result. A file whose close failed keeps its
 * info file. Errors: the status of the first failed write. */
KV_MP4_API uint32_t mp4_close_file(mp4_handle handle);

/* ---- Tracks ------------------------------------------------------------------------------- */

/* Each kind of track exists once. Announce a track before its first frame. Track ids follow the
 * order in which the descriptions become complete. A second call for a kind describes the track
 * anew and takes another id. Errors of all four: NOT_OPEN, an earlier write failure, a failing
 * info file; INVALID_PARAM for a null record. */

/* Errors: INVALID_VIDEO_CODEC. */
KV_MP4_API uint32_t mp4_set_video_track(mp4_handle handle, const mp4_video_track_info *info);

/* Errors: INVALID_PARAM for raw AAC with a zero sample_rate or channels. */
KV_MP4_API uint32_t mp4_set_audio_track(mp4_handle handle, const mp4_audio_track_info *info);

/* An unknown codec is reported by the frames, not here. */
KV_MP4_API uint32_t mp4_set_subtitle_track(mp4_handle handle,
                                           const mp4_subtitle_track_info *info);

/* Makes the video track refer to the time code as well. */
KV_MP4_API uint32_t mp4_set_time_code_track(mp4_handle handle,
                                            const mp4_time_code_track_info *info);

/* ---- Metadata ----------------------------------------------------------------------------- */

/* Sets a text item at any time before the close. `key` is one of title, artist, album_artist,
 * composer, album, date, encoding_tool, comment, genre, copyright, grouping, lyrics, description,
 * synopsis, show, episode_id, network (or the item's four code bytes), whose last value counts and
 * whose null value removes the item; or it begins with "com." and is then added as a key of its
 * own at each call. Errors: INVALID_PARAM for any other key, or a null "com." value. */
KV_MP4_API uint32_t mp4_set_metadata(mp4_handle handle, const char *key, const char *value);

/* The same with a type for "com." keys: with MP4_METADATA_BINARY and MP4_METADATA_INTEGER (a
 * signed 32-bit value in host order) `value` is `size` bytes; with any other type it is a
 * NUL-terminated string and the media file does not use `size`. With MP4_OPEN_INFO_FILE `size`
 * must be right for every type but MP4_METADATA_TEXT, for "com." keys and others alike: so many
 * bytes of `value` go into the info file, and 0 of them end it and give MP4_ERR_FAILED.
 * `key_namespace` is a text of which four bytes count; null means "mdta". */
KV_MP4_API uint32_t mp4_set_metadata_ex(mp4_handle handle, const char *key, const void *value,
                                        uint32_t size, uint32_t type, const char *key_namespace);

/* ---- Frames ------------------------------------------------------------------------------- */

/* `data` is borrowed for the call; `size` is in bytes; `timestamp` in ticks of the track. The
 * errors of all: NOT_OPEN, an earlier write failure, this write's failure, a failing info file
 * (the frame is then stored all the same). In safe mode a kv_mp4_exception leaves the function
 * when the write of a checkpoint fails. */

/* One access unit in Annex B form (start codes, any number of NAL units), or one ProRes picture.
 * An IDR unit makes it a sync sample, and so is every ProRes picture. The timestamp serves as
 * presentation and decoding time. An empty frame is dropped with status 0. A failing write of a
 * ProRes picture leaves as a kv_mp4_exception.
 * Errors: PARSE_VIDEO, NO_VIDEO_TRACK. */
KV_MP4_API uint32_t mp4_write_video_frame(mp4_handle handle, const uint8_t *data, uint32_t size,
                                          uint64_t timestamp);

/* One AAC frame, raw or in ADTS; an ADTS header is removed. An empty frame is dropped with status
 * 0. Errors: INVALID_ADTS. */
KV_MP4_API uint32_t mp4_write_audio_frame(mp4_handle handle, const uint8_t *data, uint32_t size,
                                          uint64_t timestamp);

/* One packed caption frame: 0x61, then 2, one byte that is not read and 3-byte entries (field
 * selector 0 or 1, two caption bytes) for CEA-608; or 1, a length byte and that many bytes of a
 * caption distribution packet for CEA-708. A malformed frame becomes an empty sample, with status
 * 0. Errors: INVALID_SUBTITLE_CODEC. */
KV_MP4_API uint32_t mp4_write_subtitle_frame(mp4_handle handle, const uint8_t *data,
                                             uint32_t size, uint64_t timestamp);

/* One time-code sample: the frame number of the recording's first frame. Call it once, at the
 * start. */
KV_MP4_API uint32_t mp4_write_time_code(mp4_handle handle, uint32_t time_code);

/* ---- Queries and settings ----------------------------------------------------------------- */

/* The result is the duration so far in milliseconds, of video or audio, whichever is longer; 2 for
 * an invalid handle. */
KV_MP4_API uint64_t mp4_get_duration_ms(mp4_handle handle);

/* The result is the size in bytes that the file's index would take now, as an estimate; 0 if there
 * is none; 2 for an invalid handle. */
KV_MP4_API uint32_t mp4_get_moov_size(mp4_handle handle);

/* The track's mean rate in KiB per second; 0.0 without a duration, -1.0 without an output. */
KV_MP4_API uint32_t mp4_get_video_bitrate(mp4_handle handle, double *bitrate);
KV_MP4_API uint32_t mp4_get_audio_bitrate(mp4_handle handle, double *bitrate);

/* The parameters of the safe mode. They may be changed at any time and hold from the next
 * checkpoint on; no value is tested. Errors: INVALID_PARAM for a null record. */
KV_MP4_API uint32_t mp4_get_safe_param(mp4_handle handle, mp4_safe_param *params);
KV_MP4_API uint32_t mp4_set_safe_param(mp4_handle handle, const mp4_safe_param *params);

/* How many video frames may pass between two flushes of the info file: 10 or more, 900 at first.
 * In a local file the frame call that flushes waits until data and log are on the medium, as the
 * one that makes a checkpoint in safe mode does.
 * Returns 4 when it changed the interval and 0 when it refused, the reverse of all others. */
KV_MP4_API uint32_t mp4_repair_set_flush_interval(mp4_handle handle, uint32_t interval);

/* ---- Repair ------------------------------------------------------------------------------- */

/* Makes a playable file of a recording whose process died, from the media file `path` and the info
 * file beside it, path + ".info"; only recordings with MP4_OPEN_INFO_FILE have one. The samples are
 * neither read nor moved: the index is rebuilt from the log and written behind the last sample that
 * the log names, and the file is cut there. Call it with the path of the recording: a "mov" in it
 * decides the kind of the file here as well. A wide path is limited to 1018 characters.
 *
 * The last packet of the log is always left out, whole or not, and so are the samples that had not
 * reached both files. With a time-code track the last 4 bytes of the data per time code are lost.
 *
 * A log that names no video and no audio track leaves nothing: the media file is cut to 0 bytes,
 * with status 0. So does a log of 5 bytes or fewer, or a media file that ends before its data.
 * Look at both files first, or work on a copy, where that must not be.
 *
 * `option`: 0 keeps the info file, so that the repair can be repeated with the same result; any
 * other value deletes it after a run with status 0.
 *
 * Errors: INVALID_PARAM for a null or too long path, with both files untouched; what the system
 * answers to the open of either file, NOT_FOUND among them (no info file: the recording was closed
 * properly, and the file is unchanged). For a damaged log (FAILED, as a rule) the index of what
 * came before the damage is written, but the file is not cut and the info file stays; without a
 * track before the damage the file is untouched. For a failed write the info file stays too.
 *
 * Threads: no handle and no lock; repairs of different files may run at once. Nothing stops the
 * repair of a file that is still being recorded: that is the caller's to avoid. No exception leaves
 * these functions. */
KV_MP4_API uint32_t mp4_repair_file(const wchar_t *path, uint8_t option);

/* The same with a multibyte path. Its conversion is not tested: keep the path valid in the locale
 * and below 1019 characters. */
KV_MP4_API uint32_t mp4_repair_file_ex(const char *path, uint8_t option);

/* ---- Simplified front end ----------------------------------------------------------------- */

/* The same files with fixed open flags: MP4_OPEN_LARGE_FILE and MP4_OPEN_INFO_FILE. The handles
 * are those of the mp4_ functions. */

/* A video track; note that `codec` counts from 1 here. */
typedef struct kv_mp4_video_info {
    uint32_t codec;     /* 1 H.264, 2 HEVC */
    uint32_t timescale; /* ticks per second; 0 means 1000 */
    uint16_t width;     /* pixels */
    uint16_t height;    /* pixels */
    const uint8_t *sps; /* as in mp4_video_track_info */
    int16_t sps_size;
    const uint8_t *pps;
    int16_t pps_size;
    const uint8_t *vps; /* HEVC only */
    int16_t vps_size;   /* HEVC only */
} kv_mp4_video_info;

/* An audio track; with codec 2 only `timescale` is used beside it. */
typedef struct kv_mp4_audio_info {
    uint32_t codec;       /* 1 AAC, raw frames; 2 ADTS */
    uint32_t timescale;   /* ticks per second; 0 means 1000 */
    uint16_t sample_rate; /* samples per second */
    uint16_t channels;    /* channel count */
    uint8_t object_type;  /* MPEG-4 audio object type */
} kv_mp4_audio_info;

/* A closed-caption track. */
typedef struct kv_mp4_subtitle_info {
    uint32_t codec;     /* 1 CEA-608, 2 CEA-708 */
    uint32_t timescale; /* ticks per second; 0 means 1000 */
} kv_mp4_subtitle_info;

/* A new file, or null; the log tells why. The limits are those of mp4_create_file_ex and
 * mp4_create_file. */
KV_MP4_API mp4_handle kv_mp4_open(const char *path);
KV_MP4_API mp4_handle kv_mp4_open_ex(const wchar_t *path);

/* As the mp4_set_ functions. A codec out of range gives MP4_ERR_UNSUPPORTED, a null record
 * MP4_ERR_INVALID_PARAM; both are tested before the handle. */
KV_MP4_API uint32_t kv_mp4_set_video(mp4_handle handle, const kv_mp4_video_info *info);
KV_MP4_API uint32_t kv_mp4_set_audio(mp4_handle handle, const kv_mp4_audio_info *info);
KV_MP4_API uint32_t kv_mp4_set_subtitle(mp4_handle handle, const kv_mp4_subtitle_info *info);

/* The mp4_write_ functions and mp4_close_file under second names. */
KV_MP4_API uint32_t kv_mp4_write_video(mp4_handle handle, const uint8_t *data, uint32_t size,
                                       uint64_t timestamp);
KV_MP4_API uint32_t kv_mp4_write_audio(mp4_handle handle, const uint8_t *data, uint32_t size,
                                       uint64_t timestamp);
KV_MP4_API uint32_t kv_mp4_write_subtitle(mp4_handle handle, const uint8_t *data, uint32_t size,
                                          uint64_t timestamp);
KV_MP4_API uint32_t kv_mp4_close(mp4_handle handle);

/* mp4_repair_file_ex and mp4_repair_file under second names. */
KV_MP4_API uint32_t kv_mp4_repair(const char *path, uint8_t option);
KV_MP4_API uint32_t kv_mp4_repair_ex(const wchar_t *path, uint8_t option);

#ifdef __cplusplus
}
#endif

#endif /* KV_MP4_H */
