// What the fuzz targets share: silence, a folder in memory, and an output that keeps its bytes and
// refuses on demand.
#pragma once

#include <kv_mp4.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

// No log lines and nothing on standard output: they cost more than the calls.
void Silence();

// A path of this process on tmpfs; removed when it ends.
const std::filesystem::path& Folder();

// Ends the process, for the fuzzer to keep the input, when what must hold does not.
#define FUZZ_CHECK(condition)                                                             \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (false)

// An output in memory behind a callback table; one at a time.
class Sink {
public:
    Sink();
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    ExternalIoFuncs* Table() { return &m_table; }
    // From the n-th write on all fail; 0 never.
    void FailFrom(std::uint32_t n) { m_failFrom = n; }
    const Bytes& Data() const { return m_bytes; }
    bool Failed() const { return m_failFrom != 0 && m_writes >= m_failFrom; }

private:
    ExternalIoFuncs m_table{};
    Bytes m_bytes;
    std::size_t m_position = 0;
    std::uint32_t m_writes = 0;
    std::uint32_t m_failFrom = 0;
};

// A recording into the sink: a MOV or an MP4, with or without the large-file flag.
mp4_handle OpenRecording(Sink& sink, bool mov, bool large);

// The boxes of the outermost level end where the file ends. Not for files in safe mode that were
// never closed.
void CheckOuterBoxes(const Bytes& file);
void CheckOuterBoxes(const std::filesystem::path& path);

// What the first box of that code holds beyond so many bytes of its own; nothing where there is none.
std::optional<std::span<const std::uint8_t>> Inside(std::span<const std::uint8_t> boxes,
                                                    std::string_view code, std::size_t fields = 0);

}  // namespace fuzz
