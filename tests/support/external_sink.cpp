#include "support/external_sink.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace kvtest {

namespace {

ExternalSink* g_next = nullptr;  // the sink that the next open gets

}  // namespace

bool ExternalSink::Fault::Strikes()
{
    ++called;
    if (in == 0 || --in != 0)
        return false;
    if (forEver)
        in = 1;
    ++struck;
    errno = error;
    return true;
}

ExternalSink::ExternalSink()
{
    m_table.open = [](void** context, const wchar_t* path, std::uint32_t size,
                      std::uint32_t count) -> std::uint8_t {
        ExternalSink& sink = *g_next;
        if (sink.Begins(kOpen, [&] {
                return "open " + std::filesystem::path(path).string() + " " +
                       std::to_string(size) + " " + std::to_string(count);
            }))
            return 0;
        *context = &sink;
        return 1;
    };
    m_table.close = [](void* context) {
        Of(context).Begins(kClose, [] { return std::string("close"); });
    };
    m_table.tell = [](void* context) {
        ExternalSink& sink = Of(context);
        const bool fails = sink.Begins(kTell, [] { return std::string("tell"); });
        return fails ? -1 : static_cast<std::int64_t>(sink.m_position);
    };
    m_table.seek = [](void* context, std::int64_t offset, std::int32_t origin) {
        ExternalSink& sink = Of(context);
        const auto from = static_cast<std::int64_t>(origin == 0   ? 0
                                                    : origin == 1 ? sink.m_position
                                                                  : sink.m_bytes.size());
        const bool fails = sink.Begins(kSeek, [&] {
            return "seek " + std::to_string(offset) + " " + std::to_string(origin);
        });
        if (!fails && from + offset >= 0)
            sink.m_position = static_cast<std::size_t>(from + offset);
    };
    m_table.flush = [](void* context) {
        Of(context).Begins(kFlush, [] { return std::string("flush"); });
    };
    m_table.read = [](void* context, void* buffer, std::uint32_t size) -> std::int32_t {
        ExternalSink& sink = Of(context);
        if (sink.Begins(kRead, [&] { return "read " + std::to_string(size); }))
            return 0;
        if (sink.m_position + size > sink.m_bytes.size()) {
            sink.FailNoted();
            return 0;
        }
        std::copy_n(sink.m_bytes.begin() + static_cast<std::ptrdiff_t>(sink.m_position), size,
                    static_cast<std::uint8_t*>(buffer));
        sink.m_position += size;
        return 1;
    };
    m_table.write = [](void* context, const void* buffer, std::uint32_t size) -> std::int32_t {
        ExternalSink& sink = Of(context);
        const bool fails = sink.Begins(kWrite, [&] { return "write " + std::to_string(size); });
        if (fails)
            size = sink.m_takeHalf ? size / 2 : 0;
        sink.m_bytes.resize(std::max(sink.m_bytes.size(), sink.m_position + size));
        std::copy_n(static_cast<const std::uint8_t*>(buffer), size,
                    sink.m_bytes.begin() + static_cast<std::ptrdiff_t>(sink.m_position));
        sink.m_position += size;
        return fails ? 0 : 1;
    };
}

ExternalSink::~ExternalSink()
{
    if (g_next == this)
        g_next = nullptr;
}

ExternalIoFuncs* ExternalSink::Table()
{
    g_next = this;
    return &m_table;
}

void ExternalSink::Fail(Callback callback, std::size_t n, int error, bool forEver)
{
    m_faults[callback] = {n, error, forEver};
}

void ExternalSink::FailNoted()
{
    if (m_note)
        m_calls.back() += " failed";
}

std::size_t ExternalSink::Count(const std::string& name) const
{
    return static_cast<std::size_t>(
        std::count_if(m_calls.begin(), m_calls.end(), [&](const std::string& call) {
            return call.substr(0, call.find(' ')) == name;
        }));
}

}  // namespace kvtest
