#include "BaseIO.h"

#include "log.h"
#include "platform.h"

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <new>

// ---- CFastFileReader -----------------------------------------------------------------------

CFastFileReader::~CFastFileReader()
{
    std::free(m_block);
    CFastFileReader::Close();
}

bool CFastFileReader::Close()
{
    m_state = kStateClosed;
    if (m_stream) {
        std::fclose(m_stream);
        m_stream = nullptr;
    }
    return true;
}

void CFastFileReader::Seek(std::int64_t, std::int32_t)
{
    FailSeek(errno);
}

void CFastFileReader::Flush()
{
    FailWrite(errno);
}

void CFastFileReader::Write(const void*, std::uint32_t)
{
    FailWrite(errno);
}

std::uint32_t CFastFileReader::Init(const wchar_t* path, std::uint32_t, std::uint32_t)
{
    m_stream = platform::OpenFile(path, "rb");
    if (!m_stream)
        return ErrorFromErrno(errno);
    // A size that cannot be had is none: a repair would empty the media file beside an empty log.
    const bool atEnd = platform::Seek(m_stream, 0, SEEK_END) == 0;
    const std::int64_t size = atEnd ? platform::Tell(m_stream) : -1;
    if (size < 0 || platform::Seek(m_stream, 0, SEEK_SET) != 0) {
        const std::int32_t error = errno;
        Close();
        return ErrorFromErrno(error);
    }
    m_fileSize = static_cast<std::uint64_t>(size);
    if (m_fileSize <= m_blockSize)
        m_blockSize = static_cast<std::uint32_t>(m_fileSize);
    // Zeroed: the count of the read is not looked at, and a folder has a size and no bytes.
    m_block = static_cast<std::uint8_t*>(std::calloc(m_blockSize, 1));
    if (!m_block && m_blockSize != 0) {
        const std::int32_t error = errno;
        Close();
        return ErrorFromErrno(error);
    }
    platform::ReadBytes(m_stream, m_block, m_blockSize);
    m_blockStart = 0;
    m_blockEnd = m_blockSize != 0 ? m_blockSize - 1 : 0;
    m_state = kStateOpen;
    return MP4_OK;
}

void CFastFileReader::Slide(std::uint32_t size)
{
    if (m_blockEnd == m_fileSize)  // an empty file among them
        FailEndOfData(errno);
    const std::uint64_t kept = m_blockEnd - m_pos + 1;
    std::memmove(m_block, m_block + (m_pos - m_blockStart), kept);
    std::clearerr(m_stream);
    m_blockEnd += platform::ReadBytes(m_stream, m_block + kept, m_blockSize - kept);
    m_blockStart = m_pos;
    if (m_pos + size <= m_blockEnd)
        return;
    // A disk that fails is no end: a repair would cut what the rest of the log names, and delete it.
    if (m_blockEnd + 1 < m_fileSize && std::ferror(m_stream))
        FailRead(errno);
    FailEndOfData(errno);
}

// ---- CReadBufferPool -----------------------------------------------------------------------

CReadBufferPool::~CReadBufferPool()
{
    for (RefBuffer* buffer : m_free) {
        std::free(buffer->data);
        delete buffer;
        --m_total;
    }
    m_free.clear();
    if (m_total != 0)
        PrintLine("\n!!! Memory LEAK in CReadBufferPool !\n\n");
}

RefBuffer* CReadBufferPool::GetBuffer(std::uint32_t size)
{
    if (m_free.empty()) {
        m_free.push_back(nullptr);
        m_free.back() = new (std::nothrow) RefBuffer{0, this, nullptr, 0};
        if (!m_free.back()) {
            m_free.pop_back();
            throw 83;
        }
        ++m_total;
    }
    RefBuffer* const buffer = m_free.back();
    if (size > buffer->capacity) {
        void* data = std::realloc(buffer->data, size);
        if (!data) {
            // The buffer stays in the pool, empty, so that the pool still frees its record.
            std::free(buffer->data);
            buffer->data = nullptr;
            buffer->capacity = 0;
            throw 33;
        }
        buffer->data = static_cast<std::uint8_t*>(data);
        buffer->capacity = size;
    }
    m_lent.splice(m_lent.end(), m_free, std::prev(m_free.end()));
    ++buffer->refCount;
    return buffer;
}

void CReadBufferPool::ReturnBuffer(RefBuffer* buffer)
{
    if (m_lent.empty())
        m_lent.push_back(nullptr);  // one that was never lent
    m_free.splice(m_free.end(), m_lent, m_lent.begin());
    m_free.back() = buffer;
}

void ReleaseBuffers(std::list<RefBuffer*>& held)
{
    while (!held.empty()) {
        RefBuffer* buffer = held.back();
        held.pop_back();
        if (buffer->refCount == 0)
            continue;  // below zero stays at zero
        if (--buffer->refCount == 0)
            buffer->sink->ReturnBuffer(buffer);
    }
}
