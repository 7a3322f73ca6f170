#include "recovery/trace.h"

#include <algorithm>
#include <functional>
#include <stdexcept>

namespace kvtest {

namespace {

Trace* g_next = nullptr;  // the trace that the next open gets

}  // namespace

Trace::Trace()
{
    m_table.open = [](void** context, const wchar_t*, std::uint32_t,
                      std::uint32_t) -> std::uint8_t {
        *context = g_next;
        g_next->Note(TraceCall::kOpen);
        return 1;
    };
    m_table.close = [](void* context) { Of(context).Note(TraceCall::kClose); };
    m_table.tell = [](void* context) {
        Of(context).Note(TraceCall::kTell);
        return static_cast<std::int64_t>(Of(context).m_position);
    };
    m_table.seek = [](void* context, std::int64_t offset, std::int32_t origin) {
        Trace& trace = Of(context);
        trace.Note(TraceCall::kSeek);
        const std::uint64_t from = origin == 0 ? 0 : origin == 1 ? trace.m_position : trace.m_size;
        trace.m_position = from + static_cast<std::uint64_t>(offset);
    };
    m_table.flush = [](void* context) { Of(context).Note(TraceCall::kFlush); };
    m_table.write = [](void* context, const void* buffer, std::uint32_t size) -> std::int32_t {
        Trace& trace = Of(context);
        const auto* bytes = static_cast<const std::uint8_t*>(buffer);
        trace.Note(TraceCall::kWrite);
        TraceCall& call = trace.m_calls.back();
        if (const Bytes* frame = trace.m_frame) {
            const std::less_equal<const std::uint8_t*> ordered;
            call.payload = ordered(frame->data(), bytes) &&
                           ordered(bytes + size, frame->data() + frame->size());
        }
        call.position = trace.m_position;
        call.data = trace.m_data.size();
        call.size = size;
        trace.m_data.insert(trace.m_data.end(), bytes, bytes + size);
        trace.m_position += size;
        trace.m_size = std::max(trace.m_size, trace.m_position);
        return 1;
    };
}

ExternalIoFuncs* Trace::Table()
{
    g_next = this;
    return &m_table;
}

void Trace::Begin(std::uint32_t step, const Bytes* frame)
{
    m_step = step;
    m_frame = frame;
}

void Trace::Note(TraceCall::Kind kind)
{
    m_calls.push_back({kind, m_step, false, 0, 0, 0});
}

const Bytes& Replay::FileAt(const Cut& cut)
{
    if (cut < m_done)
        throw std::logic_error("a cut behind the file");
    const auto& calls = m_trace.Calls();
    for (; m_done.call < cut.call; m_done = {m_done.call + 1, 0})
        Apply(calls[m_done.call], m_done.bytes, calls[m_done.call].size);
    if (cut.call < calls.size())
        Apply(calls[cut.call], m_done.bytes, cut.bytes);
    m_done = cut;
    return m_file;
}

void Replay::Apply(const TraceCall& call, std::uint32_t from, std::uint32_t to)
{
    if (call.kind != TraceCall::kWrite || from >= to)
        return;
    const auto begin = static_cast<std::size_t>(call.position);
    if (m_file.size() < begin + to)
        m_file.resize(begin + to);
    std::copy(m_trace.Data(call) + from, m_trace.Data(call) + to,
              m_file.begin() + static_cast<std::ptrdiff_t>(begin + from));
}

}  // namespace kvtest
