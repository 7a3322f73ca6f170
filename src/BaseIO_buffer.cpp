#include "BaseIO.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

CBufferIO::~CBufferIO()
{
    CBufferIO::Close();
}

bool CBufferIO::Close()
{
    m_state = kStateClosed;
    Release();
    return true;
}

void CBufferIO::Release()
{
    std::free(m_data);
    m_data = nullptr;
    m_capacity = 0;
    m_size = 0;
    m_pos = 0;
}

void CBufferIO::Seek(std::int64_t offset, std::int32_t origin)
{
    const auto size = static_cast<std::int64_t>(m_size);
    switch (origin) {
    case kSeekStart:
        if (offset < 0 || offset > size)
            FailSeek(errno);
        m_pos = static_cast<std::uint32_t>(offset);
        break;
    case kSeekCurrent: {
        // Unsigned, so that an offset near the limits of its type wraps instead of overflowing.
        const auto target = static_cast<std::int64_t>(m_pos + static_cast<std::uint64_t>(offset));
        if (target < 0 || target > size)
            FailSeek(errno);
        m_pos = static_cast<std::uint64_t>(target);
        break;
    }
    case kSeekEnd:
        if (offset > 0 || offset < -size)
            FailSeek(errno);
        m_pos = static_cast<std::uint64_t>(size + offset);
        break;
    default:
        break;
    }
}

void CBufferIO::Flush()
{
    if (!m_sink)
        return;
    // The sink takes no empty writes. A failed Reserve keeps the size and drops the store.
    if (m_sink->IsOpen() && m_data && static_cast<std::uint32_t>(m_size) != 0)
        m_sink->Write(m_data, static_cast<std::uint32_t>(m_size));
    m_pos = 0;
    m_size = 0;
}

void CBufferIO::Read(void* buffer, std::uint32_t size)
{
    if (m_pos + size > m_size || (size != 0 && !m_data))
        FailRead(errno);
    if (size != 0)
        std::memcpy(buffer, m_data + m_pos, size);
    m_pos += size;
}

void CBufferIO::Reserve(std::uint32_t count)
{
    const std::uint64_t need = count + (m_pos & 0xFFFFFFFF);
    if (m_capacity >= need)
        return;
    const std::uint64_t grown = (2 * need + 1023) / 1024 * 1024;
    // Sizes are 32-bit: growth beyond that is a failed allocation.
    const bool fits = grown <= UINT32_MAX;
    void* store = fits ? std::realloc(m_data, grown) : nullptr;
    if (!store) {
        const std::int32_t error = fits ? errno : ENOMEM;
        std::free(m_data);
        m_data = nullptr;
        m_capacity = 0;
        m_pos = 0;
        FailMemory(error);
    }
    m_data = static_cast<std::uint8_t*>(store);
    m_capacity = grown;
}

void CBufferIO::AttachSink(IBaseIO* sink)
{
    Release();
    m_sink = sink;
    m_state = kStateOpen;
}

void CBufferIO::AttachSink(IBaseIO* sink, std::uint64_t capacity)
{
    AttachSink(sink);
    m_data = static_cast<std::uint8_t*>(std::malloc(capacity));
    // A failed allocation is left to the first write, which tries again through Reserve.
    m_capacity = m_data ? capacity : 0;
}
