// An output of any size that keeps only what is small: positions beyond 4 GiB cost nothing. Writes
// of more than 4096 bytes only move the position, and their bytes are never looked at, so that a
// test may announce a frame far larger than its buffer.
#pragma once

#include "support/boxes.h"

#include <kv_mp4.h>

#include <map>

namespace kvtest {

class SparseSink {
public:
    SparseSink();
    SparseSink(const SparseSink&) = delete;
    SparseSink& operator=(const SparseSink&) = delete;

    // As that of ExternalSink: `open` takes the sink whose table was asked for last.
    ExternalIoFuncs* Table();

    std::uint64_t Position() const { return m_position; }
    // What was written there last; zeros where nothing small was.
    Bytes Read(std::uint64_t at, std::size_t size) const;
    std::uint32_t U32(std::uint64_t at) const;
    // The box at a position, as a file of its own.
    BoxFile BoxAt(std::uint64_t at) const { return BoxFile(Read(at, U32(at))); }

private:
    static SparseSink& Of(void* context) { return *static_cast<SparseSink*>(context); }

    ExternalIoFuncs m_table{};
    std::map<std::uint64_t, std::uint8_t> m_bytes;
    std::uint64_t m_position = 0;
};

}  // namespace kvtest
