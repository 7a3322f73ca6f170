// A local file behind the library's callbacks, for recordings that are never to wait for the
// medium. Nothing is held back: every byte goes to the system with the call that brings it, so that
// a killed process loses none of them.
#pragma once

#include <kv_mp4.h>

#include <string>

namespace kvmp4sink {

class Output {
public:
    explicit Output(std::string path) : m_path(std::move(path)) {}
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Creates a recording on this output; the status is that of the library. The output must
    // outlive the recording.
    std::uint32_t Create(const wchar_t* widePath, std::uint8_t flags, mp4_handle* handle);
    // What made the open fail, as errno; 0 if it did not.
    int OpenError() const { return m_openError; }
    // The same of the close, where some file systems tell of what they took before.
    int CloseError() const { return m_closeError; }
    // Whether a write has failed; the library then takes no more.
    bool HasFailed() const { return m_hasFailed; }

private:
    static Output& Of(void* context);
    static std::uint8_t Open(void** context, const wchar_t* path, std::uint32_t blockSize,
                             std::uint32_t blockCount);
    static void Close(void* context);
    static std::int64_t Tell(void* context);
    static void Seek(void* context, std::int64_t offset, std::int32_t origin);
    static void Flush(void* context);
    static std::int32_t Read(void* context, void* buffer, std::uint32_t size);
    static std::int32_t Write(void* context, const void* buffer, std::uint32_t size);

    const std::string m_path;
    int m_file = -1;
    int m_openError = 0;
    int m_closeError = 0;
    bool m_hasFailed = false;
};

}  // namespace kvmp4sink
