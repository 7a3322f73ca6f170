#include "support/sparse_sink.h"

namespace kvtest {

namespace {

constexpr std::uint32_t kKept = 4096;  // bytes of the largest write that is kept
SparseSink* g_next = nullptr;          // the sink that the next open gets

}  // namespace

SparseSink::SparseSink()
{
    m_table.open = [](void** context, const wchar_t*, std::uint32_t,
                      std::uint32_t) -> std::uint8_t {
        *context = g_next;
        return 1;
    };
    m_table.close = [](void*) {};
    m_table.tell = [](void* context) {
        return static_cast<std::int64_t>(Of(context).m_position);
    };
    m_table.seek = [](void* context, std::int64_t offset, std::int32_t) {
        Of(context).m_position = static_cast<std::uint64_t>(offset);
    };
    m_table.flush = [](void*) {};
    m_table.write = [](void* context, const void* buffer, std::uint32_t size) -> std::int32_t {
        SparseSink& sink = Of(context);
        const auto* bytes = static_cast<const std::uint8_t*>(buffer);
        for (std::uint32_t i = 0; size <= kKept && i < size; ++i)
            sink.m_bytes[sink.m_position + i] = bytes[i];
        sink.m_position += size;
        return 1;
    };
}

ExternalIoFuncs* SparseSink::Table()
{
    g_next = this;
    return &m_table;
}

Bytes SparseSink::Read(std::uint64_t at, std::size_t size) const
{
    Bytes bytes(size);
    for (auto i = m_bytes.lower_bound(at); i != m_bytes.end() && i->first < at + size; ++i)
        bytes[static_cast<std::size_t>(i->first - at)] = i->second;
    return bytes;
}

std::uint32_t SparseSink::U32(std::uint64_t at) const
{
    return BoxFile(Read(at, 4)).U32(0);
}

}  // namespace kvtest
