/**
 * @file kv_mp4.h
 * @brief The public interface of libkv_mp4.
 *
 * The library records live H.264, HEVC or ProRes video, AAC audio, CEA-608/708 captions and one
 * time code into an MP4 or QuickTime MOV file. It encodes nothing, starts no thread and reads no
 * clock for its files: the caller hands in one compressed frame at a time with its timestamp, and
 * every call runs to its end on the caller's thread.
 *
 * This header is plain C11 and C++, with natural alignment and C linkage.
 *
 * @par File kind
 *   A path that contains the text "mov" anywhere, folder names included, makes a QuickTime file;
 *   every other path makes an MP4 file. The comparison is case-sensitive.
 *
 * @par Paths
 *   "Wide" paths are NUL-terminated strings of the system's wchar_t. On Linux they are turned into
 *   UTF-8 for the system, whatever the locale. "Multibyte" paths are NUL-terminated strings in the
 *   encoding of the locale "en_US.utf8" ("C.UTF-8" where that one is not installed); on Windows
 *   they are UTF-8 whatever the locale.
 *
 * @par Time
 *   A timestamp is a count of ticks of its track's timescale, where timescale is ticks per second.
 *   Durations in the file are the differences of successive timestamps, cut to 32 bits. Nothing
 *   tests that timestamps rise.
 *
 * @par Statuses
 *   Functions return an MP4_* status, 0 for success, unless their comment says otherwise. A handle
 *   that is null, or of no open file, gives MP4_ERR_INVALID_HANDLE in every function that takes
 *   one. After an I/O failure the later calls on that file return the status of that failure, up to
 *   the close; mp4_set_time_code_track(), mp4_write_time_code(), the queries and the settings do
 *   not look at it. What each function adds to that stands with it.
 *
 * @par Ownership
 *   Records, strings and frames are borrowed for the call and copied as far as they are needed
 *   later. The one thing that must outlive its call is the ExternalIoFuncs table. Nothing that the
 *   library returns has to be freed; a handle is ended by mp4_close_file().
 *
 * @par Threads
 *   Any thread may call any function. One lock for the process is held around every call on a
 *   handle, so that all open files take turns; a slow disk under one file delays the others. The
 *   repairs hold no lock.
 *
 * @par Exceptions
 *   In the few places where a write outside a guarded stretch fails, a kv_mp4_exception leaves the
 *   function (see the frame functions). A caller in C must be built so that exceptions can pass,
 *   or treat this as fatal. All locks are released and the handle stays valid.
 *   When memory runs out, std::bad_alloc, or that exception with the code ENOMEM, leaves a create, a
 *   set-up or a frame function, which can then be called again. But a checkpoint that was begun, and
 *   a frame whose bytes lie in the file already, make the output count as failed: later calls and
 *   the close return MP4_ERR_FAILED, and the last checkpoint and the info file stay. Without either
 *   the close writes the index as far as it goes. An int leaves a frame function whose checkpoint
 *   must describe a video that was announced with unusable parameter sets.
 */
#ifndef KV_MP4_H
#define KV_MP4_H

#include <stddef.h>
#include <stdint.h>

/** @cond */
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
/** @endcond */

#ifdef __cplusplus
/** What a failing read or write throws inside the library, and may leave it. */
class KV_MP4_TYPE kv_mp4_exception {
public:
    /** Carries an error out of the library.
     * @param error what `code` is to be */
    explicit kv_mp4_exception(int32_t error) : code(error) {}
    int32_t code; /**< errno at the failure, or 1000 for the end of a log in a repair */
};

extern "C" {
#endif

/** Statuses. The numbers are fixed; 3 is not used. */
enum {
    MP4_OK = 0,                         /**< success; also for frames that are dropped or empty */
    MP4_ERR_FAILED = 1,                 /**< a path's conversion; all without a row of its own */
    MP4_ERR_INVALID_HANDLE = 2,         /**< null or unknown handle */
    MP4_ERR_INVALID_PARAM = 4,          /**< bad argument */
    MP4_ERR_INVALID_VIDEO_CODEC = 5,    /**< codec of the video record out of range */
    MP4_ERR_INVALID_SUBTITLE_CODEC = 6, /**< caption frame for a track whose codec is unknown */
    MP4_ERR_INVALID_ADTS = 7,           /**< first frame of an ADTS track is no ADTS frame */
    MP4_ERR_PARSE_VIDEO = 8,            /**< a video frame holds no NAL unit */
    MP4_ERR_NO_VIDEO_TRACK = 9,         /**< video frame before the video track was set */
    MP4_ERR_UNSUPPORTED = 10,           /**< MP4_IO_DIRECT; codec out of range in kv_mp4_* */
    MP4_ERR_PERMISSION = 11,            /**< EPERM */
    MP4_ERR_NOT_FOUND = 12,             /**< ENOENT */
    MP4_ERR_ACCESS = 13,                /**< EACCES */
    MP4_ERR_BUSY = 14,                  /**< EBUSY */
    MP4_ERR_TOO_MANY_FILES = 15,        /**< EMFILE */
    MP4_ERR_DISK_FULL = 16,             /**< ENOSPC */
    MP4_ERR_READ_ONLY = 17,             /**< EROFS */
    MP4_ERR_EXTERNAL_OPEN = 18,         /**< the open callback refused; create reports it as 4 */
    MP4_ERR_NOT_OPEN = 19               /**< the file has no output writer */
};

/** Open flags, an 8-bit set. Other bits have no meaning and are ignored. */
enum {
    MP4_OPEN_VERSION1 = 0x01,   /**< 64-bit times in the movie, video and audio headers */
    MP4_OPEN_LARGE_FILE = 0x02, /**< 64-bit mdat size and chunk offsets: needed beyond 4 GiB */
    MP4_OPEN_SAFE_MODE = 0x08,  /**< moov checkpoints inside the growing file */
    MP4_OPEN_INFO_FILE = 0x10,  /**< log every sample into path + ".info" for a later repair */
    MP4_OPEN_FAST_HEADER = 0x20 /**< stage the final moov in memory, write it with one write; not
                                     together with MP4_OPEN_SAFE_MODE */
};

/** I/O modes. */
enum {
    MP4_IO_FILE = 0,    /**< a local file */
    MP4_IO_DIRECT = 1,  /**< direct I/O: refused with MP4_ERR_UNSUPPORTED */
    MP4_IO_EXTERNAL = 2 /**< the caller's ExternalIoFuncs */
};

/** Values of mp4_video_track_info.codec. */
enum {
    MP4_VIDEO_H264 = 0, /**< H.264, Annex B */
    MP4_VIDEO_HEVC = 1, /**< HEVC, Annex B */
    MP4_VIDEO_PRORES = 2 /**< Apple ProRes pictures */
};

/** Values of mp4_video_track_info.prores_format. */
enum {
    MP4_PRORES_422_PROXY = 0, /**< 422 Proxy, `apco` */
    MP4_PRORES_422_LT = 1,    /**< 422 LT, `apcs` */
    MP4_PRORES_422 = 2,       /**< 422, `apcn` */
    MP4_PRORES_422_HQ = 3,    /**< 422 HQ, `apch` */
    MP4_PRORES_4444 = 4,      /**< 4444, `ap4h` */
    MP4_PRORES_4444_XQ = 5    /**< 4444 XQ, `ap4x` */
};

/** Values of mp4_audio_track_info.codec. */
enum {
    MP4_AUDIO_AAC_RAW = 1, /**< AAC, frames raw */
    MP4_AUDIO_AAC_ADTS = 2 /**< AAC, each frame behind an ADTS header */
};

/** Values of mp4_subtitle_track_info.codec. */
enum {
    MP4_SUBTITLE_CEA608 = 1, /**< CEA-608 */
    MP4_SUBTITLE_CEA708 = 2  /**< CEA-708 */
};

/** Metadata types: how mp4_set_metadata_ex() reads a value. Any other type is read as text and
 * reported at every write of the file's index. */
enum {
    MP4_METADATA_BINARY = 0,  /**< bytes */
    MP4_METADATA_TEXT = 1,    /**< UTF-8 text, NUL-terminated */
    MP4_METADATA_INTEGER = 21 /**< a signed 32-bit number in host order */
};

/** An open file. Valid from a successful create until mp4_close_file(); owned by the library. */
typedef void *mp4_handle;

/** The caller's output for MP4_IO_EXTERNAL.
 *
 * Only the pointer to the table is kept: it must stay valid until the file is closed. No member may
 * be null but `read`, which recording never calls. The callbacks run on the thread of the library
 * call that needs them, under the library's locks, and must not call the library. A write must take
 * all bytes or fail; a failed write should set errno, which decides the status of the call. Seeks
 * go back and forth over all that was written, and in safe mode beyond its end. Seeks and flushes
 * cannot fail. */
typedef struct ExternalIoFuncs {
    /** Opens the output; stores what the other callbacks get as `context`. Non-zero: success. When
     * it fails, `close` is not called. The sizes are those of mp4_create_file_adv(). */
    uint8_t (*open)(void **context, const wchar_t *path, uint32_t block_size,
                    uint32_t block_count);
    /** Closes it; called once. */
    void (*close)(void *context);
    /** The current position in bytes from the start. */
    int64_t (*tell)(void *context);
    /** Moves the position, in bytes; origin 0 start, 1 current, 2 end. */
    void (*seek)(void *context, int64_t offset, int32_t origin);
    /** Hands everything written so far on to the medium. */
    void (*flush)(void *context);
    /** Reads exactly `size` bytes; returns 1 on success. */
    int32_t (*read)(void *context, void *buffer, uint32_t size);
    /** Writes exactly `size` bytes; returns 1 on success. */
    int32_t (*write)(void *context, const void *buffer, uint32_t size);
} ExternalIoFuncs;

/** A video track.
 *
 * Parameter sets are single NAL units without start code; they are copied during the call. A set
 * that is missing (size 0) is taken from the stream: frames are then dropped, with status 0, until
 * one frame has delivered the last missing set. */
typedef struct mp4_video_track_info {
    uint32_t timescale;       /**< ticks per second; 0 means 1000 */
    uint64_t sample_duration; /**< duration in ticks of a lone sample; 0 if unknown; 32 bits used */
    uint32_t codec;           /**< MP4_VIDEO_* */
    uint16_t width;           /**< pixels */
    uint16_t height;          /**< pixels */
    union {
        const uint8_t *sps;     /**< H.264, HEVC: sequence parameter set, or null */
        uint32_t prores_format; /**< ProRes: MP4_PRORES_* */
    };                          /**< by codec */
    int16_t sps_size;   /**< bytes, 0 to 32767 */
    const uint8_t *pps; /**< picture parameter set, or null */
    int16_t pps_size;   /**< bytes, 0 to 32767 */
    const uint8_t *vps; /**< HEVC: video parameter set, or null */
    int16_t vps_size;   /**< bytes, 0 to 32767 */
} mp4_video_track_info;

/** An audio track. With MP4_AUDIO_AAC_ADTS the last three fields are taken from the first frame. */
typedef struct mp4_audio_track_info {
    uint32_t timescale;       /**< ticks per second; 0 means 1000 */
    uint64_t sample_duration; /**< duration in ticks of a lone sample; 0 if unknown; 32 bits used */
    uint32_t codec;           /**< MP4_AUDIO_*; others are not refused, nor described */
    uint16_t sample_rate;     /**< samples per second; cannot hold 88200 and 96000 */
    uint16_t channels;        /**< channel count */
    uint8_t object_type;      /**< MPEG-4 audio object type; 2 is AAC LC */
} mp4_audio_track_info;

/** A closed-caption track. */
typedef struct mp4_subtitle_track_info {
    uint32_t codec;     /**< MP4_SUBTITLE_* */
    uint32_t timescale; /**< ticks per second; 0 means 1000 */
} mp4_subtitle_track_info;

/** A time-code track. */
typedef struct mp4_time_code_track_info {
    uint32_t timescale;        /**< ticks per second, taken as it stands */
    uint64_t frame_duration;   /**< ticks per frame; the low 32 bits reach the file */
    uint8_t frames_per_second; /**< the tmcd entry's number of frames */
    uint32_t flags;            /**< the tmcd entry's flags word, e.g. 1 for drop frame */
} mp4_time_code_track_info;

/** Parameters of the safe mode, all in bytes but the first. The next checkpoint comes after
 * `min_interval` bytes (fixed); after a distance that grows from `min_interval` to `max_interval`
 * as the file grows to `threshold` (linear); after `min_interval` below the threshold and
 * `max_interval` from there (stepped). A distance is met but for a few bytes, and a checkpoint is
 * made up to two frames ahead of its place. */
typedef struct mp4_safe_param {
    uint32_t strategy;     /**< 0 fixed, 1 linear (default), 2 stepped */
    uint32_t min_interval; /**< first checkpoint, smallest distance; default 0xA00000, 10 MiB */
    uint32_t max_interval; /**< largest distance; default 0x6400000, 100 MiB */
    uint32_t threshold;    /**< position from which max_interval holds; default 0x40000000, 1 GiB */
} mp4_safe_param;

/** @name Opening and closing
 * @{ */

/** Creates a local file, truncating what was there.
 *
 * The same as mp4_create_file_adv() with block_size 4096, block_count 32, MP4_IO_FILE and no table.
 * The first call in a process sets up the library's logger: spdlog's default logger becomes
 * "msvc_logger" (the debugger on Windows, standard error elsewhere), and the process's locale
 * becomes "en_US.utf8".
 *
 * @param path wide path below 1024 characters; with MP4_OPEN_INFO_FILE at most 1018
 * @param flags MP4_OPEN_* added up
 * @param handle_out receives the handle, on success only
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null argument or a path too long for the info file;
 *   what the system answers to the open of either file: MP4_ERR_FAILED, MP4_ERR_PERMISSION,
 *   MP4_ERR_NOT_FOUND, MP4_ERR_ACCESS, MP4_ERR_BUSY, MP4_ERR_TOO_MANY_FILES, MP4_ERR_DISK_FULL,
 *   MP4_ERR_READ_ONLY */
KV_MP4_API uint32_t mp4_create_file(const wchar_t *path, uint8_t flags, mp4_handle *handle_out);

/** mp4_create_file() with a multibyte path.
 *
 * @param path multibyte path of at most 1022 characters
 * @param flags MP4_OPEN_* added up
 * @param handle_out receives the handle, on success only
 * @return as mp4_create_file(); MP4_ERR_FAILED also for a path that is longer or not valid in the
 *   locale */
KV_MP4_API uint32_t mp4_create_file_ex(const char *path, uint8_t flags, mp4_handle *handle_out);

/** Creates a file with a choice of output. Sets the locale but leaves the logger alone.
 *
 * @param path wide path, as for mp4_create_file(); decides the kind of the file for a table too
 * @param flags MP4_OPEN_* added up; the info file of MP4_OPEN_INFO_FILE is a local one in any case
 * @param block_size handed to the table's `open`, and means what caller and callback agree on
 * @param block_count the same
 * @param io_mode MP4_IO_*; above 2 it succeeds without any output, and later calls answer
 *   MP4_ERR_NOT_OPEN
 * @param pFunc the table for MP4_IO_EXTERNAL, which must outlive the file; else not used
 * @param handle_out receives the handle, on success only
 * @return as mp4_create_file(); MP4_ERR_UNSUPPORTED for MP4_IO_DIRECT; MP4_ERR_INVALID_PARAM
 *   without a table, or when its `open` refuses */
KV_MP4_API uint32_t mp4_create_file_adv(const wchar_t *path, uint8_t flags, uint32_t block_size,
                                        uint32_t block_count, uint32_t io_mode,
                                        ExternalIoFuncs *pFunc, mp4_handle *handle_out);

/** mp4_create_file_adv() with a multibyte path, whose conversion is not tested.
 *
 * @param path multibyte path; keep it valid in the locale and below 1024 characters
 * @param flags as there
 * @param block_size as there
 * @param block_count as there
 * @param io_mode as there
 * @param pFunc as there
 * @param handle_out receives the handle, on success only
 * @return as mp4_create_file_adv() */
KV_MP4_API uint32_t mp4_create_file_adv_ex(const char *path, uint8_t flags, uint32_t block_size,
                                           uint32_t block_count, uint32_t io_mode,
                                           ExternalIoFuncs *pFunc, mp4_handle *handle_out);

/** Finishes the file and ends the handle, whatever the result.
 *
 * Writes the index behind the data, which takes time in proportion to the number of samples, and
 * deletes the info file. It keeps that for mp4_repair_file() when the close fails, when a want of
 * memory had failed the output, and beside a local file also when a write failed before.
 *
 * @param handle an open file; afterwards no longer one
 * @return MP4_OK; else the status of the first failed write */
KV_MP4_API uint32_t mp4_close_file(mp4_handle handle);

/** @} */

/** @name Tracks
 * Each kind of track exists once. Announce a track before its first frame. Track ids follow the
 * order in which the descriptions become complete. A second call for a kind describes the track
 * anew and takes another id. A failure of the info file's write shows as its status; the track is
 * set all the same, and the recording goes on without its log.
 * @{ */

/** Announces the video.
 *
 * @param handle an open file
 * @param info the track; borrowed
 * @return MP4_OK, also where parameter sets are still to come; MP4_ERR_INVALID_VIDEO_CODEC;
 *   MP4_ERR_INVALID_PARAM for a null record; MP4_ERR_NOT_OPEN; an earlier write failure; a failing
 *   info file */
KV_MP4_API uint32_t mp4_set_video_track(mp4_handle handle, const mp4_video_track_info *info);

/** Announces the sound.
 *
 * @param handle an open file
 * @param info the track; borrowed
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null record, and for raw AAC with a zero sample_rate
 *   or channels; MP4_ERR_NOT_OPEN; an earlier write failure; a failing info file */
KV_MP4_API uint32_t mp4_set_audio_track(mp4_handle handle, const mp4_audio_track_info *info);

/** Announces closed captions. An unknown codec is reported by the frames, not here.
 *
 * @param handle an open file
 * @param info the track; borrowed
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null record; MP4_ERR_NOT_OPEN; an earlier write
 *   failure; a failing info file */
KV_MP4_API uint32_t mp4_set_subtitle_track(mp4_handle handle,
                                           const mp4_subtitle_track_info *info);

/** Announces the time code, and makes the video track refer to it.
 *
 * @param handle an open file
 * @param info the track; borrowed
 * @return MP4_OK, also after an earlier write failure; MP4_ERR_INVALID_PARAM for a null record;
 *   MP4_ERR_NOT_OPEN; a failing info file */
KV_MP4_API uint32_t mp4_set_time_code_track(mp4_handle handle,
                                            const mp4_time_code_track_info *info);

/** @} */

/** @name Metadata
 * @{ */

/** Sets a text item, at any time before the close.
 *
 * @param handle an open file
 * @param key one of title, artist, album_artist, composer, album, date, encoding_tool, comment,
 *   genre, copyright, grouping, lyrics, description, synopsis, show, episode_id, network (or the
 *   item's four code bytes), whose last value counts; or a text that begins with "com.", which is
 *   added as a key of its own at each call
 * @param value UTF-8 text, copied; null removes an item that is no "com." key
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for any other key, a null key, or a null "com." value,
 *   whose key stays in the file all the same; MP4_ERR_NOT_OPEN; an earlier write failure; a failing info file */
KV_MP4_API uint32_t mp4_set_metadata(mp4_handle handle, const char *key, const char *value);

/** mp4_set_metadata() with a type and a namespace for "com." keys.
 *
 * With MP4_OPEN_INFO_FILE `size` must be right for every type but MP4_METADATA_TEXT, for "com."
 * keys and others alike: so many bytes of `value` go into the info file, and 0 of them end it and
 * give MP4_ERR_FAILED.
 *
 * @param handle an open file
 * @param key as in mp4_set_metadata()
 * @param value with MP4_METADATA_BINARY and MP4_METADATA_INTEGER `size` bytes, copied; with any
 *   other type, and for keys without "com.", a NUL-terminated string
 * @param size bytes of `value`; the media file does not use it for strings
 * @param type MP4_METADATA_*
 * @param key_namespace a text of which four bytes count; null means "mdta"
 * @return as mp4_set_metadata() */
KV_MP4_API uint32_t mp4_set_metadata_ex(mp4_handle handle, const char *key, const void *value,
                                        uint32_t size, uint32_t type, const char *key_namespace);

/** @} */

/** @name Frames
 * Frames of all tracks go into the file in the order of their calls; keep them in the order of
 * their times, so that players need not seek. A frame call may wait for the medium: see
 * mp4_repair_set_flush_interval(). When a write fails the frame is not entered, and the file takes
 * no more. When only the info file's write fails the frame is stored all the same, its call alone
 * returns the failure, and the recording goes on without its log. In safe mode a kv_mp4_exception
 * leaves the call when the write of a checkpoint fails.
 * @{ */

/** Stores one picture: an access unit in Annex B form (start codes, any number of NAL units), or a
 * ProRes picture.
 *
 * An IDR unit makes it a sync sample, and so is every ProRes picture. The timestamp serves as
 * presentation and decoding time. An empty frame is dropped with status 0, and so is one that comes
 * before all parameter sets are known. A failing write of a ProRes picture leaves as a
 * kv_mp4_exception.
 *
 * @param handle an open file
 * @param data the picture; borrowed, never copied
 * @param size its bytes
 * @param timestamp ticks of the track
 * @return MP4_OK; MP4_ERR_PARSE_VIDEO; MP4_ERR_NO_VIDEO_TRACK; MP4_ERR_NOT_OPEN; this or an earlier
 *   write failure; a failing info file */
KV_MP4_API uint32_t mp4_write_video_frame(mp4_handle handle, const uint8_t *data, uint32_t size,
                                          uint64_t timestamp);

/** Stores one AAC frame, raw or in ADTS.
 *
 * An ADTS header of 7 bytes is removed, on a raw track too; it is known by its sync word in a frame
 * of 8 bytes or more. An empty frame is dropped with status 0.
 *
 * @param handle an open file
 * @param data the frame; borrowed, never copied
 * @param size its bytes
 * @param timestamp ticks of the track
 * @return MP4_OK; MP4_ERR_INVALID_ADTS, after which the next frame is tried; MP4_ERR_NOT_OPEN; this
 *   or an earlier write failure; a failing info file */
KV_MP4_API uint32_t mp4_write_audio_frame(mp4_handle handle, const uint8_t *data, uint32_t size,
                                          uint64_t timestamp);

/** Stores one packed caption frame.
 *
 * For CEA-608: the bytes 0x61, 2, one that is not read, and then entries of 3 bytes, a field
 * selector (0 or 1) and two caption bytes. For CEA-708: 0x61, 1, a length byte and that many bytes
 * of a caption distribution packet. A malformed frame becomes an empty sample, with status 0.
 *
 * @param handle an open file
 * @param data the frame; borrowed
 * @param size its bytes
 * @param timestamp ticks of the track
 * @return MP4_OK; MP4_ERR_INVALID_SUBTITLE_CODEC, also without a track; MP4_ERR_NOT_OPEN; this or
 *   an earlier write failure; a failing info file */
KV_MP4_API uint32_t mp4_write_subtitle_frame(mp4_handle handle, const uint8_t *data,
                                             uint32_t size, uint64_t timestamp);

/** Stores the time code of the recording's first picture. Call it once, at the start; it makes no
 * checkpoint.
 *
 * @param handle an open file
 * @param time_code number of the first frame, counted from midnight at the track's frame rate
 * @return MP4_OK, also without a track and after an earlier write failure; MP4_ERR_NOT_OPEN; this
 *   write's failure; a failing info file */
KV_MP4_API uint32_t mp4_write_time_code(mp4_handle handle, uint32_t time_code);

/** @} */

/** @name Queries and settings
 * @{ */

/** The duration so far, of video or sound, whichever is longer.
 *
 * @param handle an open file
 * @return milliseconds; 0 without an output or after a write failure; 2 for an invalid handle */
KV_MP4_API uint64_t mp4_get_duration_ms(mp4_handle handle);

/** The size that the file's index would take now, as an estimate.
 *
 * @param handle an open file
 * @return bytes; 0 without an output; 2 for an invalid handle */
KV_MP4_API uint32_t mp4_get_moov_size(mp4_handle handle);

/** The mean rate of the video so far.
 *
 * @param handle an open file
 * @param bitrate receives KiB, not bits, per second; 0.0 without a duration, -1.0 without an output
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null pointer */
KV_MP4_API uint32_t mp4_get_video_bitrate(mp4_handle handle, double *bitrate);

/** The mean rate of the sound so far.
 *
 * @param handle an open file
 * @param bitrate as in mp4_get_video_bitrate()
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null pointer */
KV_MP4_API uint32_t mp4_get_audio_bitrate(mp4_handle handle, double *bitrate);

/** The parameters of the safe mode that are in force.
 *
 * @param handle an open file
 * @param params receives them
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null record */
KV_MP4_API uint32_t mp4_get_safe_param(mp4_handle handle, mp4_safe_param *params);

/** Sets the parameters of the safe mode, at any time. They hold from the next checkpoint on, and no
 * value is tested: keep the distances above the size of the index and of two frames.
 *
 * @param handle an open file
 * @param params copied
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null record */
KV_MP4_API uint32_t mp4_set_safe_param(mp4_handle handle, const mp4_safe_param *params);

/** Sets how many video frames may pass between two flushes of the info file.
 *
 * In a local file the frame call that flushes waits until data and log are on the medium, as the
 * one that makes a checkpoint in safe mode does. Frames of other tracks neither count nor flush.
 *
 * @param handle an open file
 * @param interval video frames, 10 or more; 900 at first
 * @return the reverse of all others: 4 when it changed the interval and 0 when it refused; 2 for an
 *   invalid handle */
KV_MP4_API uint32_t mp4_repair_set_flush_interval(mp4_handle handle, uint32_t interval);

/** @} */

/** @name Repair
 * @{ */

/** Makes a playable file of a recording whose process died, from the media file and the info file
 * beside it, path + ".info"; only recordings with MP4_OPEN_INFO_FILE have one.
 *
 * The samples are neither read nor moved: the index is rebuilt from the log and written behind the
 * last sample that the log names, and the file is cut there. Call it with the path of the
 * recording: a "mov" in it decides the kind of the file here as well.
 *
 * The last packet of the log is always left out, whole or not, and so are the samples that had not
 * reached both files. With a time-code track the last 4 bytes of the data per time code are lost.
 *
 * A log that names no video and no audio track leaves nothing: the media file is cut to 0 bytes,
 * with status 0. So does a log of 5 bytes or fewer, or a media file that ends within the first 8 bytes
 * of `mdat`.
 * Look at both files first, or work on a copy, where that must not be.
 *
 * For a damaged log (MP4_ERR_FAILED, as a rule) the index of what came before the damage is
 * written, but the file is not cut and the info file stays; without a track before the damage the
 * file is untouched. For a failed write the info file stays too.
 *
 * Threads: no handle and no lock; repairs of different files may run at once. Nothing stops the
 * repair of a file that is still being recorded: that is the caller's to avoid. No exception leaves
 * this function.
 *
 * @param path wide path of the media file, at most 1018 characters
 * @param option 0 keeps the info file, so that the repair can be repeated with the same result; any
 *   other value deletes it after a run with status 0
 * @return MP4_OK; MP4_ERR_INVALID_PARAM for a null or too long path, with both files untouched;
 *   what the system answers to the open of either file, MP4_ERR_NOT_FOUND among them (no info file:
 *   the recording was closed properly, and the file is unchanged); a read's or a write's failure;
 *   MP4_ERR_FAILED for a damaged log */
KV_MP4_API uint32_t mp4_repair_file(const wchar_t *path, uint8_t option);

/** mp4_repair_file() with a multibyte path, whose conversion is not tested.
 *
 * @param path multibyte path; keep it valid in the locale and below 1019 characters
 * @param option as there
 * @return as mp4_repair_file() */
KV_MP4_API uint32_t mp4_repair_file_ex(const char *path, uint8_t option);

/** @} */

/** A video track of the simplified front end; note that `codec` counts from 1 here. */
typedef struct kv_mp4_video_info {
    uint32_t codec;     /**< 1 H.264, 2 HEVC */
    uint32_t timescale; /**< ticks per second; 0 means 1000 */
    uint16_t width;     /**< pixels */
    uint16_t height;    /**< pixels */
    const uint8_t *sps; /**< as in mp4_video_track_info */
    int16_t sps_size;   /**< bytes, 0 to 32767 */
    const uint8_t *pps; /**< picture parameter set, or null */
    int16_t pps_size;   /**< bytes, 0 to 32767 */
    const uint8_t *vps; /**< HEVC only: video parameter set, or null */
    int16_t vps_size;   /**< HEVC only: bytes, 0 to 32767 */
} kv_mp4_video_info;

/** An audio track of the simplified front end; with codec 2 only `timescale` is used beside it. */
typedef struct kv_mp4_audio_info {
    uint32_t codec;       /**< 1 AAC, raw frames; 2 ADTS */
    uint32_t timescale;   /**< ticks per second; 0 means 1000 */
    uint16_t sample_rate; /**< samples per second; cannot hold 88200 and 96000 */
    uint16_t channels;    /**< channel count */
    uint8_t object_type;  /**< MPEG-4 audio object type; 2 is AAC LC */
} kv_mp4_audio_info;

/** A closed-caption track of the simplified front end. */
typedef struct kv_mp4_subtitle_info {
    uint32_t codec;     /**< 1 CEA-608, 2 CEA-708 */
    uint32_t timescale; /**< ticks per second; 0 means 1000 */
} kv_mp4_subtitle_info;

/** @name Simplified front end
 * The same files with fixed open flags: MP4_OPEN_LARGE_FILE and MP4_OPEN_INFO_FILE. The handles are
 * those of the mp4_ functions, and so are ownership, threads and exceptions.
 * @{ */

/** mp4_create_file_ex() with these flags; the log tells why it failed.
 *
 * @param path multibyte path of at most 1018 characters
 * @return a handle, to be ended by kv_mp4_close(); null on failure */
KV_MP4_API mp4_handle kv_mp4_open(const char *path);

/** mp4_create_file() with these flags; the log tells why it failed.
 *
 * @param path wide path of at most 1018 characters
 * @return a handle, to be ended by kv_mp4_close(); null on failure */
KV_MP4_API mp4_handle kv_mp4_open_ex(const wchar_t *path);

/** mp4_set_video_track(), without ProRes and with an unknown sample_duration.
 *
 * @param handle an open file
 * @param info the track; borrowed
 * @return as there; before the handle is tested, MP4_ERR_INVALID_PARAM for a null record and
 *   MP4_ERR_UNSUPPORTED for a codec out of range */
KV_MP4_API uint32_t kv_mp4_set_video(mp4_handle handle, const kv_mp4_video_info *info);

/** mp4_set_audio_track(), with an unknown sample_duration.
 *
 * @param handle an open file
 * @param info the track; borrowed
 * @return as there; before the handle is tested, MP4_ERR_INVALID_PARAM for a null record and
 *   MP4_ERR_UNSUPPORTED for a codec out of range */
KV_MP4_API uint32_t kv_mp4_set_audio(mp4_handle handle, const kv_mp4_audio_info *info);

/** mp4_set_subtitle_track().
 *
 * @param handle an open file
 * @param info the track; borrowed
 * @return as there; before the handle is tested, MP4_ERR_INVALID_PARAM for a null record and
 *   MP4_ERR_UNSUPPORTED for a codec out of range */
KV_MP4_API uint32_t kv_mp4_set_subtitle(mp4_handle handle, const kv_mp4_subtitle_info *info);

/** mp4_write_video_frame() under a second name.
 *
 * @param handle an open file
 * @param data the picture; borrowed
 * @param size its bytes
 * @param timestamp ticks of the track
 * @return as there */
KV_MP4_API uint32_t kv_mp4_write_video(mp4_handle handle, const uint8_t *data, uint32_t size,
                                       uint64_t timestamp);

/** mp4_write_audio_frame() under a second name.
 *
 * @param handle an open file
 * @param data the frame; borrowed
 * @param size its bytes
 * @param timestamp ticks of the track
 * @return as there */
KV_MP4_API uint32_t kv_mp4_write_audio(mp4_handle handle, const uint8_t *data, uint32_t size,
                                       uint64_t timestamp);

/** mp4_write_subtitle_frame() under a second name.
 *
 * @param handle an open file
 * @param data the frame; borrowed
 * @param size its bytes
 * @param timestamp ticks of the track
 * @return as there */
KV_MP4_API uint32_t kv_mp4_write_subtitle(mp4_handle handle, const uint8_t *data, uint32_t size,
                                          uint64_t timestamp);

/** mp4_close_file() under a second name.
 *
 * @param handle an open file; afterwards no longer one
 * @return as there */
KV_MP4_API uint32_t kv_mp4_close(mp4_handle handle);

/** mp4_repair_file_ex() under a second name.
 *
 * @param path as there
 * @param option as there
 * @return as there */
KV_MP4_API uint32_t kv_mp4_repair(const char *path, uint8_t option);

/** mp4_repair_file() under a second name.
 *
 * @param path as there
 * @param option as there
 * @return as there */
KV_MP4_API uint32_t kv_mp4_repair_ex(const wchar_t *path, uint8_t option);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* KV_MP4_H */
