// Pictures that come without decoding times, as of matroskademux and RTP: those are the presentation
// times in rising order. Nothing is held until a time falls; from then on as many pictures are as
// the stream reorders. The first picture that is shown later than its turn comes before any time
// has fallen: near the beginning it follows in the step of the caps.
#pragma once

#include <gst/gst.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>

namespace kvmp4sink {

class Undated {
public:
    struct FreeBuffer {
        void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
    };
    struct Picture {
        std::unique_ptr<GstBuffer, FreeBuffer> buffer;
        std::int64_t time = 0;  // of decoding, once it has been taken out
    };

    // `shown` is in nanoseconds, as is `step`, 0 if unknown.
    void Push(GstBuffer* buffer, std::int64_t shown, std::int64_t step);
    // The next picture, if enough others are known; any one that is left with `all`.
    std::optional<Picture> Pop(bool all);
    bool Reorders() const { return m_depth != 0; }

private:
    static constexpr std::size_t kMost = 16;  // pictures that H.264 and HEVC reorder

    std::deque<Picture> m_held;
    std::multiset<std::int64_t> m_times;  // seen, and not given away yet
    std::deque<std::int64_t> m_recent;    // the last times in their order of coming
    std::size_t m_depth = 0;              // pictures that come before an earlier one
    std::size_t m_ahead = 0;              // 1 if a time was given away before it was seen
    bool m_guessed = false;               // that has been done, or must not be
    std::size_t m_seen = 0;
    std::int64_t m_step = 0;
    std::int64_t m_last = 0;
};

}  // namespace kvmp4sink
