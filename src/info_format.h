// The info file, path + ".info": a log of every track set-up and every sample, from which a repair
// rebuilds `moov`. A 5-byte header (the open flags as u8, the position of the `mdat` header as
// u32), then packets back to back, each a tag byte and its fields, big-endian. Shared by writer and
// reader.
#pragma once

#include <cstdint>

enum class InfoTag : std::uint8_t {
    Metadata = 1,
    VideoTrack = 2,
    AudioTrack = 3,
    VideoFrame = 4,
    AudioFrame = 5,
    SubtitleTrack = 6,
    SubtitleFrame = 7,
    TimeCodeTrack = 8,
    TimeCode = 9,
};

inline constexpr wchar_t kInfoSuffix[] = L".info";

// A path field holds this many wide characters, terminator included.
inline constexpr std::uint32_t kPathSize = 1024;
