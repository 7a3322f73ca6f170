// The one interface behind which files, memory buffers and the caller's callbacks look alike, its
// writers and its readers. Failures set a state word, save errno, print a line and throw
// kv_mp4_exception. No object here has a lock, and Read and Write do not look at the state: every
// caller tests it first, so that a writer that failed once silently takes no more bytes.
#pragma once

#include "kv_mp4.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <list>

// Values of IBaseIO::m_state.
inline constexpr std::int32_t kStateOpen = -1;
inline constexpr std::int32_t kStateClosed = 0;
inline constexpr std::int32_t kStateFailed = 1;

// Origins of a Seek.
inline constexpr std::int32_t kSeekStart = 0;
inline constexpr std::int32_t kSeekCurrent = 1;
inline constexpr std::int32_t kSeekEnd = 2;

// The code of the exception that ends a read at the end of the data.
inline constexpr std::int32_t kEndOfData = 1000;

// The status for an errno-like value: the rows 11 to 17, 0 for kEndOfData, 1 for all others.
std::uint32_t ErrorFromErrno(std::int32_t error);

// The kv_mp4_exception of an image in memory that could not grow. Apart from the others, since it
// leaves the writers of the file as they are, wherever their positions stand.
class CNoMemory final : public kv_mp4_exception {
public:
    using kv_mp4_exception::kv_mp4_exception;
};

class IBaseIO {
public:
    virtual ~IBaseIO() = default;
    virtual bool Close() = 0;  // always true
    virtual std::int64_t Tell() = 0;
    virtual void Seek(std::int64_t offset, std::int32_t origin) = 0;
    virtual void Flush() = 0;
    virtual bool IsLocal() = 0;
    virtual void Read(void* buffer, std::uint32_t size) = 0;
    virtual void Write(const void* buffer, std::uint32_t size) = 0;

    bool IsOpen() const { return m_state == kStateOpen; }

    std::int32_t m_state = kStateClosed;
    std::int32_t m_errno = 0;  // errno at the failure that set m_state to kStateFailed

protected:
    // Set the state to failed, save the error, print the message, throw. `error` is errno, read by
    // the caller straight after the failing call; the line is the caller's. Not
    // std::source_location, which not every compiler has that can build this.
    [[noreturn]] void FailSeek(std::int32_t error, int line = __builtin_LINE());
    [[noreturn]] void FailWrite(std::int32_t error, int line = __builtin_LINE());
    [[noreturn]] void FailMemory(std::int32_t error, int line = __builtin_LINE());  // as FailWrite
    [[noreturn]] void FailRead(std::int32_t error, int line = __builtin_LINE());
    [[noreturn]] void FailEndOfData(std::int32_t error, int line = __builtin_LINE());

private:
    void TellWrite(std::int32_t error, int line);
};

class IFileIO : public IBaseIO {
public:
    virtual std::uint32_t Init(const wchar_t* path, std::uint32_t block_size,
                               std::uint32_t block_count) = 0;
    // From here on a Flush also waits until the data is on the medium. A caller's own output does
    // as it likes.
    virtual void SetDurable() {}
    // Has the system begin with what it holds, so that the next such Flush finds little left.
    virtual void BeginEarly() {}
};

// All operations but Init on one owned buffered stream.
class IFileIOBase : public IFileIO {
public:
    IFileIOBase() = default;
    ~IFileIOBase() override;
    IFileIOBase(const IFileIOBase&) = delete;
    IFileIOBase& operator=(const IFileIOBase&) = delete;

    bool Close() override;
    std::int64_t Tell() override;
    void Seek(std::int64_t offset, std::int32_t origin) override;
    void Flush() override;
    void SetDurable() override { m_durable = true; }
    void BeginEarly() override;
    bool IsLocal() override { return true; }
    void Read(void* buffer, std::uint32_t size) override;   // zero bytes are a failure
    void Write(const void* buffer, std::uint32_t size) override;  // zero bytes are a failure

protected:
    // Opens the stream; 0, or the status of errno, which is left as it was at the failure.
    std::uint32_t Open(const wchar_t* path, const char* mode);

    // Of m_position: the stream must be asked. So far below 0 that no bytes moved lead out of it.
    static constexpr std::int64_t kUnknown = std::numeric_limits<std::int64_t>::min();

    std::FILE* m_stream = nullptr;  // owned
    // The stream's position, counted here: a frame path asks for it before every frame, and the
    // stream answers at the price of a lock, and in update mode of a system call.
    std::int64_t m_position = kUnknown;
    bool m_durable = false;
};

// Creates a new file, or truncates an old one.
class CFileWriter final : public IFileIOBase {
public:
    // Both integers are ignored: they are meant for the callback table.
    std::uint32_t Init(const wchar_t* path, std::uint32_t block_size,
                       std::uint32_t block_count) override;
};

// Opens an existing file for update, at position 0. In spite of the name nothing is appended.
class CAppendFileWriter final : public IFileIOBase {
public:
    std::uint32_t Init(const wchar_t* path, std::uint32_t block_size,
                       std::uint32_t block_count) override;
};

// Forwards every operation to the caller's callback table.
class ExternalWriter final : public IFileIO {
public:
    explicit ExternalWriter(ExternalIoFuncs* funcs) : m_funcs(funcs) {}
    // Kept: does not call `close`; an output that was never closed stays the caller's to end.
    ~ExternalWriter() override = default;
    ExternalWriter(const ExternalWriter&) = delete;
    ExternalWriter& operator=(const ExternalWriter&) = delete;

    bool Close() override;
    std::int64_t Tell() override;
    // Kept: these two cannot fail; a caller's table reports through its next write alone.
    void Seek(std::int64_t offset, std::int32_t origin) override;
    void Flush() override;
    bool IsLocal() override { return false; }
    void Read(void* buffer, std::uint32_t size) override;
    void Write(const void* buffer, std::uint32_t size) override;
    std::uint32_t Init(const wchar_t* path, std::uint32_t block_size,
                       std::uint32_t block_count) override;

private:
    ExternalIoFuncs* m_funcs;   // not owned; null after Close
    void* m_context = nullptr;  // what `open` stored
};

// A growable memory image. Positions never pass m_size; sizes and growth are 32-bit.
class CBufferIO final : public IBaseIO {
public:
    CBufferIO() = default;
    ~CBufferIO() override;
    CBufferIO(const CBufferIO&) = delete;
    CBufferIO& operator=(const CBufferIO&) = delete;

    bool Close() override;  // m_sink stays
    std::int64_t Tell() override { return static_cast<std::int64_t>(m_pos); }
    void Seek(std::int64_t offset, std::int32_t origin) override;
    // Sends all bytes to the sink as one write if that is open, then empties the buffer in any
    // case; the store stays. Without a sink nothing happens.
    void Flush() override;
    bool IsLocal() override { return true; }
    void Read(void* buffer, std::uint32_t size) override;
    void Write(const void* buffer, std::uint32_t size) override
    {
        if (std::uint64_t{size} + (m_pos & 0xFFFFFFFF) > m_capacity)
            Reserve(size);
        if (size != 0)
            std::memcpy(m_data + m_pos, buffer, size);
        m_pos += size;
        if (m_pos > m_size)
            m_size = m_pos;
    }
    // Makes room for `count` bytes at the position.
    virtual void Reserve(std::uint32_t count);

    // Empties the buffer, frees its store, sets the sink and opens it.
    void AttachSink(IBaseIO* sink);
    // The same, with a store of `capacity` bytes at once.
    void AttachSink(IBaseIO* sink, std::uint64_t capacity);

    const std::uint8_t* Data() const { return m_data; }
    std::uint64_t Size() const { return m_size; }
    std::uint64_t Capacity() const { return m_capacity; }
    IBaseIO* Sink() const { return m_sink; }

private:
    void Release();

    std::uint8_t* m_data = nullptr;  // owned
    std::uint64_t m_capacity = 0;    // bytes allocated
    std::uint64_t m_size = 0;        // high-water mark: bytes that count as written
    std::uint64_t m_pos = 0;         // read and write position
    IBaseIO* m_sink = nullptr;       // where Flush sends the bytes; not owned
};

// Forward-only reader of the info file, through one very large block.
class CFastFileReader final : public IBaseIO {
public:
    CFastFileReader() = default;
    ~CFastFileReader() override;
    CFastFileReader(const CFastFileReader&) = delete;
    CFastFileReader& operator=(const CFastFileReader&) = delete;

    bool Close() override;  // the block stays until the destructor
    std::int64_t Tell() override { return static_cast<std::int64_t>(m_pos); }
    void Seek(std::int64_t offset, std::int32_t origin) override;  // always a failure
    void Flush() override;                                         // always a failure
    bool IsLocal() override { return true; }
    // Throws kEndOfData at the end. Here, so that a field costs a test and a copy.
    void Read(void* buffer, std::uint32_t size) override
    {
        // Kept: m_blockEnd, the last valid byte, is compared as if it were one past the end, so
        // that the last byte of a file is never delivered; repair counts on losing the last record.
        if (m_pos + size > m_blockEnd)
            Slide(size);
        if (size != 0)
            std::memcpy(buffer, m_block + (m_pos - m_blockStart), size);
        m_pos += size;
    }
    void Write(const void* buffer, std::uint32_t size) override;  // always a failure
    // Throws what a Read of `size` bytes would throw, and reads nothing.
    void Require(std::uint32_t size)
    {
        if (m_pos + size > m_blockEnd)
            Slide(size);
    }
    virtual std::uint32_t Init(const wchar_t* path, std::uint32_t block_size,
                               std::uint32_t block_count);

private:
    // Moves the block on to m_pos and fills it; throws when `size` bytes are still not there.
    void Slide(std::uint32_t size);

    std::uint64_t m_pos = 0;                // file position of the next byte to deliver
    std::uint64_t m_blockStart = 0;         // file position of the block's first byte
    std::uint64_t m_blockEnd = 0;           // file position of the block's last valid byte
    std::uint64_t m_fileSize = 0;           // bytes, at Init
    std::uint8_t* m_block = nullptr;        // owned
    std::uint32_t m_blockSize = 0x1800000;  // 24 MiB: about a million video packets
    std::FILE* m_stream = nullptr;          // owned
};

struct RefBuffer;

class IRefBufferSink {
public:
    virtual void ReturnBuffer(RefBuffer* buffer) = 0;

protected:
    ~IRefBufferSink() = default;
};

struct RefBuffer {
    std::uint32_t refCount;  // holders; 0 while it sits in the pool
    IRefBufferSink* sink;    // the pool it goes back to; not owned
    std::uint8_t* data;      // owned; null until first sized
    std::uint32_t capacity;  // bytes allocated; only grows
};

// Hands out buffers for the variable-length fields of the info file, so that replaying a long log
// does not allocate per packet.
class CReadBufferPool final : public IRefBufferSink {
public:
    CReadBufferPool() = default;
    ~CReadBufferPool();
    CReadBufferPool(const CReadBufferPool&) = delete;
    CReadBufferPool& operator=(const CReadBufferPool&) = delete;

    // A buffer of at least `size` bytes with one more holder. Throws 33 or 83 without memory.
    RefBuffer* GetBuffer(std::uint32_t size);
    void ReturnBuffer(RefBuffer* buffer) override;

private:
    std::list<RefBuffer*> m_free;  // idle buffers
    std::uint32_t m_total = 0;     // records that exist, idle or in use
    std::list<RefBuffer*> m_lent;  // as many places as buffers are out: a return needs no memory
};

// Drops a holder's buffers, from the back of its list to the front.
void ReleaseBuffers(std::list<RefBuffer*>& held);

// Big-endian numbers, guarded by the target's state. The readers give 0 when it is not open.
void WriteBE32(IBaseIO* io, std::uint32_t value);
void WriteBE64(IBaseIO* io, std::uint64_t value);
std::uint32_t ReadBE32(IBaseIO* io);
std::uint64_t ReadBE64(IBaseIO* io);
