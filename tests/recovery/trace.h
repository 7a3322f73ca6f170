// An output that keeps every call it gets, and the file that any part of these calls would leave.
#pragma once

#include "support/boxes.h"

#include <kv_mp4.h>

#include <cstdint>
#include <vector>

namespace kvtest {

struct TraceCall {
    enum Kind { kOpen, kClose, kTell, kSeek, kFlush, kWrite };
    Kind kind;
    std::uint32_t step;      // which call of the recorder's was running
    bool payload;            // a write straight from the frame that the recorder was handed
    std::uint64_t position;  // of a write
    std::size_t data;        // of a write: where its bytes begin in the trace
    std::uint32_t size;      // of a write
};

class Trace {
public:
    Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    // For one recording, which must be over before the next trace gives its table away.
    ExternalIoFuncs* Table();
    // From here on a step of the recorder's runs; its frame, if it is handed one.
    void Begin(std::uint32_t step, const Bytes* frame = nullptr);

    const std::vector<TraceCall>& Calls() const { return m_calls; }
    const std::uint8_t* Data(const TraceCall& call) const { return m_data.data() + call.data; }

private:
    static Trace& Of(void* context) { return *static_cast<Trace*>(context); }
    void Note(TraceCall::Kind kind);

    ExternalIoFuncs m_table{};
    std::vector<TraceCall> m_calls;
    Bytes m_data;  // of all writes, one behind the other
    std::uint64_t m_position = 0;
    std::uint64_t m_size = 0;
    std::uint32_t m_step = 0;
    const Bytes* m_frame = nullptr;
};

// A point in a trace: `bytes` of the call are done, all calls before it are complete.
struct Cut {
    std::size_t call = 0;
    std::uint32_t bytes = 0;
    friend auto operator<=>(const Cut&, const Cut&) = default;
};

// The file as it grows, for cuts in rising order.
class Replay {
public:
    explicit Replay(const Trace& trace) : m_trace(trace) {}
    const Bytes& FileAt(const Cut& cut);

private:
    void Apply(const TraceCall& call, std::uint32_t from, std::uint32_t to);

    const Trace& m_trace;
    Bytes m_file;
    Cut m_done;
};

}  // namespace kvtest
