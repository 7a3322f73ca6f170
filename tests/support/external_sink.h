// A caller's own output: a callback table into memory that notes every call and fails on demand.
#pragma once

#include "support/boxes.h"

#include <kv_mp4.h>

#include <string>
#include <vector>

namespace kvtest {

class ExternalSink {
public:
    ExternalSink();
    ~ExternalSink();
    ExternalSink(const ExternalSink&) = delete;
    ExternalSink& operator=(const ExternalSink&) = delete;

    // The table, for one file at a time: `open` has no way to tell sinks apart, so that it takes
    // the one whose table was asked for last.
    ExternalIoFuncs* Table();

    // The n-th call from now on fails with an errno, 1 being the next; later ones too if `forEver`.
    void FailWrite(std::size_t n, int error, bool forEver = true);
    void FailOpen(std::size_t n, int error, bool forEver = true);

    const Bytes& Data() const { return m_bytes; }
    BoxFile File() const { return BoxFile(m_bytes); }
    // "open PATH SIZE COUNT", "tell", "seek OFFSET ORIGIN", "read SIZE", "write SIZE", "flush",
    // "close", in order; " failed" follows the calls that did.
    const std::vector<std::string>& Calls() const { return m_calls; }
    // How many calls have this name.
    std::size_t Count(const std::string& name) const;
    void ForgetCalls() { m_calls.clear(); }

private:
    struct Fault {
        std::size_t in = 0;  // calls until it strikes; 0 never
        int error = 0;
        bool forEver = false;
        bool Strikes();
    };
    static ExternalSink& Of(void* context) { return *static_cast<ExternalSink*>(context); }

    ExternalIoFuncs m_table{};
    Bytes m_bytes;
    std::size_t m_position = 0;
    std::vector<std::string> m_calls;
    Fault m_writeFault;
    Fault m_openFault;
};

}  // namespace kvtest
