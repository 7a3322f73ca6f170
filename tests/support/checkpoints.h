// Recordings in safe mode, for tests of where their checkpoints come.
#pragma once

#include "support/recording.h"
#include "support/sparse_sink.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kvtest {

// The positions of the checkpoints so far, as the log tells them.
std::vector<std::uint64_t> Checkpoints(const LogCapture& log);

void SetSafeParam(mp4_handle file, const mp4_safe_param& params);

// A ProRes track and frames of any size in an output that keeps only what is small.
class SparseFile {
public:
    explicit SparseFile(std::uint8_t flags = MP4_OPEN_SAFE_MODE);
    ~SparseFile();
    SparseFile(const SparseFile&) = delete;
    SparseFile& operator=(const SparseFile&) = delete;

    // A frame that announces a size; only those below 4096 bytes have their bytes, which are 1.
    std::uint32_t Frame(std::uint32_t size);
    // Frames up to a position, without a checkpoint on the way: an unknown strategy makes none.
    void GoTo(std::uint64_t position);
    // The next checkpoint of a frame of one byte here; 0 when there is none.
    std::uint64_t CheckpointAt(std::uint64_t position, const mp4_safe_param& params);
    std::uint32_t Close();

    LogCapture log;
    SparseSink sink;
    mp4_handle file = nullptr;

private:
    std::uint64_t m_time = 0;
};

}  // namespace kvtest
