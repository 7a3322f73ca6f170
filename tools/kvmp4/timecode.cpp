#include "timecode.h"

#include <algorithm>
#include <cstdio>

extern "C" {
#include <libavutil/timecode.h>
}

namespace {

struct Label {
    int hours = 0, minutes = 0, seconds = 0, frames = 0;
    char before = ':';  // stands before the frames
    bool operator==(const Label&) const = default;
};

std::optional<Label> ReadLabel(const std::string& text)
{
    Label label;
    int used = 0;
    if (text.find_first_not_of("0123456789:;.") != std::string::npos ||
        std::sscanf(text.c_str(), "%2d:%2d:%2d%c%3d%n", &label.hours, &label.minutes,
                    &label.seconds, &label.before, &label.frames, &used) != 5 ||
        static_cast<std::size_t>(used) != text.size())
        return std::nullopt;
    if (label.before == '.')
        label.before = ';';  // a second way to write drop frame
    return label;
}

}  // namespace

std::optional<TimeCode> ParseTimeCode(const std::string& text, AVRational rate, std::string& why)
{
    const auto wanted = ReadLabel(text);
    if (!wanted) {
        why = "is not of the form HH:MM:SS:FF";
        return std::nullopt;
    }
    const bool drop = wanted->before == ';';
    const double perSecond = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
    if (perSecond < 1 || perSecond > 255) {
        why = "needs a video of 1 to 255 frames a second";
        return std::nullopt;
    }
    AVTimecode code{};
    if (av_timecode_init_from_components(&code, rate, drop ? AV_TIMECODE_FLAG_DROPFRAME : 0,
                                         wanted->hours, wanted->minutes, wanted->seconds,
                                         wanted->frames, nullptr) < 0 ||
        (drop && rate.num % rate.den == 0)) {
        why = drop ? "drops frames, which only 29.97 and 59.94 frames a second do"
                   : "does not fit the frame rate";
        return std::nullopt;
    }
    // A label that does not come back names no frame: 61 seconds, a dropped frame and the like.
    char back[AV_TIMECODE_STR_SIZE] = {};
    av_timecode_make_string(&code, back, 0);
    if (wanted->hours > 23 || ReadLabel(back) != wanted) {
        why = "names no frame at this frame rate";
        return std::nullopt;
    }
    return TimeCode{rate, static_cast<std::uint8_t>(code.fps), drop,
                    static_cast<std::uint32_t>(code.start)};
}

std::int64_t CaptionFileFrame(std::int64_t milliseconds, bool dropFrame)
{
    constexpr std::int64_t kFrame = 33;
    const std::int64_t time = std::max<std::int64_t>(milliseconds, 0);
    const int seconds = static_cast<int>(time / 1000);
    const int frame = static_cast<int>((time % 1000 + kFrame / 2) / kFrame);
    AVTimecode code{};
    av_timecode_init_from_components(&code, {30000, 1001},
                                     dropFrame ? AV_TIMECODE_FLAG_DROPFRAME : 0, seconds / 3600,
                                     seconds / 60 % 60, seconds % 60, frame, nullptr);
    return code.start;
}
