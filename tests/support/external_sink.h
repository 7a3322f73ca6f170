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

    enum Callback { kOpen, kClose, kTell, kSeek, kFlush, kRead, kWrite };
    // The n-th call from now on fails with an errno, 1 being the next; later ones too if `forEver`.
    // A tell that fails says -1, a seek that fails stays, a flush or close that fails does nothing.
    void Fail(Callback callback, std::size_t n, int error, bool forEver = true);
    void FailWrite(std::size_t n, int error, bool forEver = true) { Fail(kWrite, n, error, forEver); }
    void FailOpen(std::size_t n, int error, bool forEver = true) { Fail(kOpen, n, error, forEver); }
    // A write that fails takes half of its bytes.
    void TakeHalfOfFailedWrites() { m_takeHalf = true; }
    // How many calls a fault struck, and how many of that callback there were in all.
    std::size_t Struck(Callback callback) const { return m_faults[callback].struck; }
    std::size_t Called(Callback callback) const { return m_faults[callback].called; }
    // For runs by the thousand: Calls() stays empty.
    void NoteNoCalls() { m_note = false; }

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
        std::size_t struck = 0;
        std::size_t called = 0;
        bool Strikes();
    };
    static ExternalSink& Of(void* context) { return *static_cast<ExternalSink*>(context); }
    // Notes a call; true when it must fail.
    template <typename Text>
    bool Begins(Callback callback, Text text)
    {
        const bool fails = m_faults[callback].Strikes();
        if (m_note)
            m_calls.push_back(text() + (fails ? " failed" : ""));
        return fails;
    }
    void FailNoted();

    ExternalIoFuncs m_table{};
    Bytes m_bytes;
    std::size_t m_position = 0;
    std::vector<std::string> m_calls;
    bool m_note = true;
    bool m_takeHalf = false;
    Fault m_faults[kWrite + 1];
};

}  // namespace kvtest
