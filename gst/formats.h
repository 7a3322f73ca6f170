// What caps, tags and time codes of GStreamer are in terms of the library. Pure translation:
// nothing here knows an element or a file.
#pragma once

#include <kv_mp4.h>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvmp4sink {

// What ends a recording: the code of a GError, and a sentence for the user.
struct Failure {
    GQuark domain;
    int code;
    std::string text;
};

enum class Kind { kVideo, kAudio, kCaption };
inline constexpr std::size_t kKinds = 3;
// The names of pads and pad templates.
const char* NameOf(Kind kind);
std::optional<Kind> KindOf(std::string_view name);
// What a pad of this kind takes. Static storage.
GstStaticCaps* CapsOf(Kind kind);

// Of a byte stream's units, those that a decoder must have first.
constexpr unsigned kSps = 1, kPps = 2, kVps = 4;

// A stream, as caps describe it.
struct Format {
    // Two descriptions of one track are the same when this is: neither a frame rate nor anything
    // else that may vary is in it.
    struct Fixed {
        std::uint32_t codec = 0;    // MP4_VIDEO_*, MP4_AUDIO_* or MP4_SUBTITLE_*
        std::uint32_t variant = 0;  // MP4_PRORES_*; of captions, 1 for bare pairs of field 1
        std::uint16_t width = 0, height = 0;
        std::uint16_t rate = 0, channels = 0;
        std::uint8_t objectType = 0;
        bool operator==(const Fixed&) const = default;
    };
    Fixed fixed;
    std::uint32_t timescale = 0;  // ticks per second
    std::uint32_t step = 0;       // ticks of a frame, 0 if unknown
};

// Throws a Failure that says what does not fit.
Format ReadCaps(Kind kind, const GstCaps* caps);

// Which of kSps, kPps and kVps stand in a frame.
unsigned ParameterSetsIn(const Format::Fixed& video, const std::uint8_t* data, std::size_t size);
// All that a stream needs; 0 for ProRes.
unsigned ParameterSetsOf(const Format::Fixed& video);

// The library's frame for a caption buffer. Empty when there is nothing in it, or
// more than 255 bytes of a packet or pairs.
std::vector<std::uint8_t> PackCaption(const Format::Fixed& caption, const std::uint8_t* data,
                                      std::size_t size);
// A caption frame that says nothing.
std::vector<std::uint8_t> CaptionPadding(const Format::Fixed& caption);

// An ADTS frame whose header has a checksum, without it: the library takes every header for one of
// 7 bytes. Empty for all others.
std::vector<std::uint8_t> WithoutChecksum(const std::uint8_t* data, std::size_t size);

// Keys and values for mp4_set_metadata.
std::vector<std::pair<std::string, std::string>> Metadata(const GstTagList* tags);

struct TimeCode {
    mp4_time_code_track_info track;
    std::uint32_t frame;
};
// Nothing for a code that names no frame.
std::optional<TimeCode> ReadTimeCode(const GstVideoTimeCode& code);

// The sentence for a status of the library.
Failure FailureOf(std::uint32_t status, const std::string& doing);
// The sentence for an errno.
Failure FailureOfErrno(int error, const std::string& doing);

}  // namespace kvmp4sink
