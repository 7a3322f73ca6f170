#include "BaseIO.h"

#include "big_endian.h"
#include "log.h"
#include "platform.h"

#include <cerrno>
#include <utility>

#define UNIT "src/BaseIO"

std::uint32_t ErrorFromErrno(std::int32_t error)
{
    switch (error) {
    case EPERM: return MP4_ERR_PERMISSION;
    case ENOENT: return MP4_ERR_NOT_FOUND;
    case EACCES: return MP4_ERR_ACCESS;
    case EBUSY: return MP4_ERR_BUSY;
    case EMFILE: return MP4_ERR_TOO_MANY_FILES;
    case ENOSPC: return MP4_ERR_DISK_FULL;
    case EROFS: return MP4_ERR_READ_ONLY;
    case kEndOfData: return MP4_OK;  // Kept: a failed create can so return 0
    default: return MP4_ERR_FAILED;
    }
}

void IBaseIO::FailSeek(std::int32_t error, int line)
{
    m_state = kStateFailed;
    m_errno = error;
    PrintLine("BaseIO : Error - [line %d] Seek error %s !\n\n", line, std::strerror(error));
    throw kv_mp4_exception(error);
}

void IBaseIO::FailWrite(std::int32_t error, int line)
{
    TellWrite(error, line);
    throw kv_mp4_exception(error);
}

void IBaseIO::FailMemory(std::int32_t error, int line)
{
    TellWrite(error, line);
    throw CNoMemory(error);
}

void IBaseIO::TellWrite(std::int32_t error, int line)
{
    m_state = kStateFailed;
    m_errno = error;
    PrintLine("BaseIO : Error - [line %d] Write error %s !\n\n", line, std::strerror(error));
}

void IBaseIO::FailRead(std::int32_t error, int line)
{
    m_state = kStateFailed;
    m_errno = error;
    PrintLine("[line %d] Read EOF !\n", line);
    throw kv_mp4_exception(error);
}

void IBaseIO::FailEndOfData(std::int32_t error, int line)
{
    m_state = kStateFailed;
    m_errno = error;
    PrintLine("[line %d] Read EOF !\n", line);
    // The code is this mark and not errno: it tells the end of a log from a real failure.
    throw kv_mp4_exception(kEndOfData);
}

// ---- IFileIOBase ---------------------------------------------------------------------------

IFileIOBase::~IFileIOBase()
{
    IFileIOBase::Close();
}

bool IFileIOBase::Close()
{
    m_state = kStateClosed;
    if (m_stream) {
        std::fclose(m_stream);
        m_stream = nullptr;
    }
    return true;
}

std::int64_t IFileIOBase::Tell()
{
    if (m_stream && m_position < 0)
        m_position = platform::Tell(m_stream);
    return m_stream ? m_position : 0;
}

void IFileIOBase::Seek(std::int64_t offset, std::int32_t origin)
{
    if (!m_stream)
        return;
    m_position = kUnknown;
    if (platform::Seek(m_stream, offset, origin) != 0)
        FailSeek(errno);
    if (origin == kSeekStart)
        m_position = offset;
}

void IFileIOBase::Flush()
{
    // Not opened: fflush(NULL) would flush every stream of the process.
    if (!m_stream)
        return;
    if (std::fflush(m_stream) != 0)
        FailWrite(errno);
    // What the system could not bring to the medium is as lost as what it did not take.
    if (m_durable && !platform::SyncData(m_stream))
        FailWrite(errno);
}

void IFileIOBase::BeginEarly()
{
    if (m_stream && m_durable)
        platform::BeginWriteBack(m_stream);
}

void IFileIOBase::Read(void* buffer, std::uint32_t size)
{
    if (platform::ReadItem(m_stream, buffer, size) != 1) {
        m_position = kUnknown;
        FailRead(errno);
    }
    m_position += size;
}

void IFileIOBase::Write(const void* buffer, std::uint32_t size)
{
    if (platform::WriteItem(m_stream, buffer, size) != 1) {
        m_position = kUnknown;
        FailWrite(errno);
    }
    m_position += size;
}

std::uint32_t IFileIOBase::Open(const wchar_t* path, const char* mode)
{
    Close();
    m_stream = platform::OpenFile(path, mode);
    if (!m_stream)
        return ErrorFromErrno(errno);
    m_position = 0;
    m_state = kStateOpen;
    return MP4_OK;
}

std::uint32_t CFileWriter::Init(const wchar_t* path, std::uint32_t, std::uint32_t)
{
    const std::uint32_t status = Open(path, "wb");
    if (!IsOpen())
        LOG_ERROR("open file failed, error:{}", std::strerror(errno));
    return status;
}

std::uint32_t CAppendFileWriter::Init(const wchar_t* path, std::uint32_t, std::uint32_t)
{
    const std::uint32_t status = Open(path, "rb+");
    if (!IsOpen())
        LOG_ERROR("open file failed, error:{}", std::strerror(errno));
    return status;
}

// ---- ExternalWriter ------------------------------------------------------------------------

bool ExternalWriter::Close()
{
    m_state = kStateClosed;
    // Forgotten first, so that one that throws is not called again.
    if (ExternalIoFuncs* const funcs = std::exchange(m_funcs, nullptr))
        funcs->close(std::exchange(m_context, nullptr));
    return true;
}

std::int64_t ExternalWriter::Tell()
{
    return m_funcs ? m_funcs->tell(m_context) : 0;
}

void ExternalWriter::Seek(std::int64_t offset, std::int32_t origin)
{
    if (m_funcs)
        m_funcs->seek(m_context, offset, origin);
}

void ExternalWriter::Flush()
{
    if (m_funcs)
        m_funcs->flush(m_context);
}

void ExternalWriter::Read(void* buffer, std::uint32_t size)
{
    if (m_funcs->read(m_context, buffer, size) != 1)
        FailRead(errno);
}

void ExternalWriter::Write(const void* buffer, std::uint32_t size)
{
    // Kept: a failed write prints the line of a read; log readers look for it.
    if (m_funcs->write(m_context, buffer, size) != 1)
        FailRead(errno);
}

std::uint32_t ExternalWriter::Init(const wchar_t* path, std::uint32_t block_size,
                                   std::uint32_t block_count)
{
    if (!m_funcs)
        return MP4_ERR_INVALID_PARAM;
    if (!m_funcs->open(&m_context, path, block_size, block_count))
        return MP4_ERR_EXTERNAL_OPEN;
    m_state = kStateOpen;
    return MP4_OK;
}

// ---- Big-endian numbers --------------------------------------------------------------------

namespace {

template <typename T>
void WriteBE(IBaseIO* io, T value)
{
    if (!io->IsOpen())
        return;
    std::uint8_t bytes[sizeof(T)];
    StoreBE<sizeof(T)>(bytes, value);
    io->Write(bytes, sizeof(T));
}

template <typename T>
T ReadBE(IBaseIO* io)
{
    if (!io->IsOpen())
        return 0;
    std::uint8_t bytes[sizeof(T)];
    io->Read(bytes, sizeof(T));
    return LoadBE<T>(bytes);
}

}  // namespace

void WriteBE32(IBaseIO* io, std::uint32_t value)
{
    WriteBE(io, value);
}

void WriteBE64(IBaseIO* io, std::uint64_t value)
{
    WriteBE(io, value);
}

std::uint32_t ReadBE32(IBaseIO* io)
{
    return ReadBE<std::uint32_t>(io);
}

std::uint64_t ReadBE64(IBaseIO* io)
{
    return ReadBE<std::uint64_t>(io);
}
