#include "fuzz.h"

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include <unistd.h>

namespace fuzz {

namespace {

// Larger than any honest output of a fuzzed recording: growth beyond it is a fault of its own.
constexpr std::size_t kLargest = std::size_t{1} << 30;

Sink* g_sink = nullptr;  // the one whose table is in use

std::uint32_t Word(std::span<const std::uint8_t> file, std::size_t at)
{
    return std::uint32_t{file[at]} << 24 | std::uint32_t{file[at + 1]} << 16 |
           std::uint32_t{file[at + 2]} << 8 | file[at + 3];
}

// `read` gives so many bytes of the file, 16 at the most.
template <typename Read>
void CheckBoxes(std::uint64_t end, Read read)
{
    for (std::uint64_t at = 0; at < end;) {
        FUZZ_CHECK(end - at >= 8);
        std::uint64_t size = Word(read(at, 8), 0);
        if (size == 1) {
            FUZZ_CHECK(end - at >= 16);
            const auto wide = read(at, 16);
            size = std::uint64_t{Word(wide, 8)} << 32 | Word(wide, 12);
        }
        FUZZ_CHECK(size >= 8);
        FUZZ_CHECK(size <= end - at);
        at += size;
    }
}

struct OwnFolder {
    OwnFolder()
    {
        const std::filesystem::path base =
            std::filesystem::is_directory("/dev/shm") ? "/dev/shm"
                                                      : std::filesystem::temp_directory_path();
        path = base / ("kv_mp4_fuzz." + std::to_string(::getpid()));
        std::filesystem::create_directory(path);
    }
    ~OwnFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::filesystem::path path;
};

}  // namespace

void Silence()
{
    static const bool done = [] {
        // The first plain create of a process replaces the logger.
        mp4_handle file = nullptr;
        FUZZ_CHECK(mp4_create_file_ex((Folder() / "first.mp4").c_str(), 0, &file) == MP4_OK);
        FUZZ_CHECK(mp4_close_file(file) == MP4_OK);
        std::filesystem::remove(Folder() / "first.mp4");
        spdlog::set_default_logger(std::make_shared<spdlog::logger>(
            "none", std::make_shared<spdlog::sinks::null_sink_st>()));
        return std::freopen("/dev/null", "w", stdout) != nullptr;
    }();
    FUZZ_CHECK(done);
}

const std::filesystem::path& Folder()
{
    static const OwnFolder own;
    return own.path;
}

Sink::Sink()
{
    g_sink = this;
    m_table.open = [](void** context, const wchar_t*, std::uint32_t, std::uint32_t) {
        *context = g_sink;
        return std::uint8_t{1};
    };
    m_table.close = [](void*) {};
    m_table.tell = [](void* context) {
        return static_cast<std::int64_t>(static_cast<Sink*>(context)->m_position);
    };
    m_table.seek = [](void* context, std::int64_t offset, std::int32_t origin) {
        auto& sink = *static_cast<Sink*>(context);
        std::int64_t from = 0;
        if (origin == 1)
            from = static_cast<std::int64_t>(sink.m_position);
        else if (origin == 2)
            from = static_cast<std::int64_t>(sink.m_bytes.size());
        if (from + offset >= 0)
            sink.m_position = static_cast<std::size_t>(from + offset);
    };
    m_table.flush = [](void*) {};
    m_table.read = [](void* context, void* buffer, std::uint32_t size) {
        auto& sink = *static_cast<Sink*>(context);
        if (sink.m_position + size > sink.m_bytes.size())
            return 0;
        std::memcpy(buffer, sink.m_bytes.data() + sink.m_position, size);
        sink.m_position += size;
        return 1;
    };
    m_table.write = [](void* context, const void* buffer, std::uint32_t size) {
        auto& sink = *static_cast<Sink*>(context);
        if (++sink.m_writes >= sink.m_failFrom && sink.m_failFrom != 0)
            return 0;
        const std::size_t end = sink.m_position + size;
        FUZZ_CHECK(end < kLargest);
        if (end > sink.m_bytes.size())
            sink.m_bytes.resize(end);
        if (size != 0)
            std::memcpy(sink.m_bytes.data() + sink.m_position, buffer, size);
        sink.m_position = end;
        return 1;
    };
}

mp4_handle OpenRecording(Sink& sink, bool mov, bool large)
{
    mp4_handle file = nullptr;
    const std::uint8_t flags = large ? MP4_OPEN_LARGE_FILE : 0;
    FUZZ_CHECK(mp4_create_file_adv_ex(mov ? "a.mov" : "a.mp4", flags, 0, 0, MP4_IO_EXTERNAL,
                                      sink.Table(), &file) == MP4_OK);
    return file;
}

void CheckOuterBoxes(const Bytes& file)
{
    CheckBoxes(file.size(), [&file](std::size_t at, std::size_t size) {
        return std::span<const std::uint8_t>(file).subspan(at, size);
    });
}

// Most of a file in safe mode is a hole: only the heads of its boxes are read.
void CheckOuterBoxes(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    Bytes head(16);
    CheckBoxes(std::filesystem::file_size(path), [&](std::size_t at, std::size_t size) {
        file.seekg(static_cast<std::streamoff>(at));
        file.read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(size));
        FUZZ_CHECK(file.good());
        return std::span<const std::uint8_t>(head).first(size);
    });
}

std::optional<std::span<const std::uint8_t>> Inside(std::span<const std::uint8_t> boxes,
                                                    std::string_view code, std::size_t fields)
{
    while (boxes.size() >= 8) {
        const std::size_t size = Word(boxes, 0);
        FUZZ_CHECK(size >= 8 && size <= boxes.size());
        if (std::memcmp(boxes.data() + 4, code.data(), 4) == 0) {
            FUZZ_CHECK(size >= 8 + fields);
            return boxes.subspan(8 + fields, size - 8 - fields);
        }
        boxes = boxes.subspan(size);
    }
    return std::nullopt;
}

}  // namespace fuzz
