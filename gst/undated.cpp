#include "undated.h"

#include <algorithm>
#include <utility>

namespace kvmp4sink {

void Undated::Push(GstBuffer* buffer, std::int64_t shown, std::int64_t step)
{
    const auto later = static_cast<std::size_t>(
        std::count_if(m_recent.begin(), m_recent.end(), [&](auto time) { return time > shown; }));
    m_depth = std::max(m_depth, later);
    m_recent.push_back(shown);
    if (m_recent.size() > kMost)
        m_recent.pop_front();
    m_times.insert(shown);
    m_held.push_back({std::unique_ptr<GstBuffer, FreeBuffer>(gst_buffer_ref(buffer)), shown});
    m_guessed = m_guessed || (m_seen != 0 && step != m_step);  // the jump may be the old step
    m_step = step;
    ++m_seen;
}

std::optional<Undated::Picture> Undated::Pop(bool all)
{
    if (m_held.empty() || (!all && m_held.size() <= m_depth))
        return std::nullopt;
    Picture picture = std::move(m_held.front());
    m_held.pop_front();
    const std::int64_t jump = picture.time - m_last;
    if (!m_guessed && m_depth == 0 && m_seen > 1 && m_seen <= kMost && jump > m_step + m_step / 2 &&
        jump <= static_cast<std::int64_t>(kMost) * m_step) {
        m_guessed = true;  // the next time falls, or the stream had a pause
        m_ahead = 1;
        picture.time = m_last + m_step;
    } else {
        if (std::exchange(m_ahead, 0) != 0)
            m_times.erase(m_times.begin());
        picture.time = *m_times.begin();
        m_times.erase(m_times.begin());
    }
    m_last = picture.time;
    return picture;
}

}  // namespace kvmp4sink
