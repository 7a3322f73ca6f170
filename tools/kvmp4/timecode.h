// The time code of a recording's first frame. The drop-frame arithmetic is FFmpeg's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

extern "C" {
#include <libavutil/rational.h>
}

struct TimeCode {
    AVRational rate{0, 1};   // frames per second
    std::uint8_t base = 0;   // frames that a second counts, e.g. 30 at 29.97
    bool dropFrame = false;
    std::uint32_t frame = 0;  // the number of the frame
};

// HH:MM:SS:FF, or HH:MM:SS;FF for drop frame, at so many frames a second. Without a value, `why`
// tells what is wrong with the text, as the second half of a sentence.
std::optional<TimeCode> ParseTimeCode(const std::string& text, AVRational rate, std::string& why);

// The number of a frame that a caption file names, counted at 29.97 frames a second. `milliseconds`
// is how FFmpeg's reader gives the name, taking a frame for 33 of them.
std::int64_t CaptionFileFrame(std::int64_t milliseconds, bool dropFrame);
