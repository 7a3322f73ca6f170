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
    if (in == 0 || --in != 0)
        return false;
    if (forEver)
        in = 1;
    errno = error;
    return true;
}

ExternalSink::ExternalSink()
{
    m_table.open = [](void** context, const wchar_t* path, std::uint32_t size,
                      std::uint32_t count) -> std::uint8_t {
        ExternalSink& sink = *g_next;
        sink.m_calls.push_back("open " + std::filesystem::path(path).string() + " " +
                               std::to_string(size) + " " + std::to_string(count));
        if (sink.m_openFault.Strikes()) {
            sink.m_calls.back() += " failed";
            return 0;
        }
        *context = &sink;
        return 1;
    };
    m_table.close = [](void* context) { Of(context).m_calls.push_back("close"); };
    m_table.tell = [](void* context) {
        Of(context).m_calls.push_back("tell");
        return static_cast<std::int64_t>(Of(context).m_position);
    };
    m_table.seek = [](void* context, std::int64_t offset, std::int32_t origin) {
        ExternalSink& sink = Of(context);
        sink.m_calls.push_back("seek " + std::to_string(offset) + " " + std::to_string(origin));
        const std::size_t from = origin == 0   ? 0
                                 : origin == 1 ? sink.m_position
                                               : sink.m_bytes.size();
        sink.m_position = from + static_cast<std::size_t>(offset);
    };
    m_table.flush = [](void* context) { Of(context).m_calls.push_back("flush"); };
    m_table.read = [](void* context, void* buffer, std::uint32_t size) -> std::int32_t {
        ExternalSink& sink = Of(context);
        sink.m_calls.push_back("read " + std::to_string(size));
        if (sink.m_position + size > sink.m_bytes.size()) {
            sink.m_calls.back() += " failed";
            return 0;
        }
        std::copy_n(sink.m_bytes.begin() + static_cast<std::ptrdiff_t>(sink.m_position), size,
                    static_cast<std::uint8_t*>(buffer));
        sink.m_position += size;
        return 1;
    };
    m_table.write = [](void* context, const void* buffer, std::uint32_t size) -> std::int32_t {
        ExternalSink& sink = Of(context);
        sink.m_calls.push_back("write " + std::to_string(size));
        if (sink.m_writeFault.Strikes()) {
            sink.m_calls.back() += " failed";
            return 0;
        }
        sink.m_bytes.resize(std::max(sink.m_bytes.size(), sink.m_position + size));
        std::copy_n(static_cast<const std::uint8_t*>(buffer), size,
                    sink.m_bytes.begin() + static_cast<std::ptrdiff_t>(sink.m_position));
        sink.m_position += size;
        return 1;
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

void ExternalSink::FailWrite(std::size_t n, int error, bool forEver)
{
    m_writeFault = {n, error, forEver};
}

void ExternalSink::FailOpen(std::size_t n, int error, bool forEver)
{
    m_openFault = {n, error, forEver};
}

std::size_t ExternalSink::Count(const std::string& name) const
{
    return static_cast<std::size_t>(
        std::count_if(m_calls.begin(), m_calls.end(), [&](const std::string& call) {
            return call.substr(0, call.find(' ')) == name;
        }));
}

}  // namespace kvtest
