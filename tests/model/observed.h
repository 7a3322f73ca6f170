// What a caller can see of a sequence of calls. The model predicts it, the library shows it.
#ifndef TESTS_MODEL_OBSERVED_H
#define TESTS_MODEL_OBSERVED_H

#include "model/image.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace model {

// How one call ended.
struct Outcome {
    enum class Kind { Returned, IoException, OtherException };
    Kind kind = Kind::Returned;
    uint64_t value = 0;     // what it returned, or the exception's code
    uint64_t result = 0;    // bits of what came back through a pointer
    size_t lines = 0;       // log lines so far
    uint64_t infoSize = 0;  // bytes of the info file that must be on the disk; 0: not known
};

struct LogLine {
    int level = 0;  // as spdlog counts
    std::string unit;
    std::string text;
    bool operator==(const LogLine&) const = default;
};

// A call of the caller's sink. Adjacent writes are one, as how a box divides its fields is its own,
// and so are adjacent tells, which say the same.
struct SinkCall {
    enum class Kind : uint8_t { Open, Write, Read, Tell, Seek, Flush, Close };
    Kind kind = Kind::Open;
    uint64_t argument =
        0;                // Seek: the position; Tell: the answer; Open: 1 for what the caller gave
    uint64_t stream = 0;  // bytes handed over before this call
    bool operator==(const SinkCall&) const = default;
};
void Note(std::vector<SinkCall>& calls, SinkCall call);

// The file on the disk behind a checkpoint. What the call itself wrote may still be on its way.
struct Checkpoint {
    size_t call = 0;
    Image image;
    uint64_t begin = 0, end = 0;  // of the call's own data
};

struct SinkWrite {
    uint64_t stream = 0;  // where it starts, counted in bytes handed over
    uint64_t size = 0;
};

struct Observed {
    std::vector<Outcome> outcomes;
    std::vector<LogLine> lines;
    std::string printed;
    std::vector<Checkpoint> checkpoints;  // local files
    std::optional<Image> media;           // the file, or what the caller's sink holds
    std::optional<Bytes> info;  // the info file as it was written, also when it is deleted
    bool infoIsLeft = false;    // it stands on the disk at the end
    std::vector<SinkCall> sinkCalls;
    Bytes sinkStream;                   // all bytes handed to the caller's sink, in order
    std::vector<SinkWrite> sinkWrites;  // library: every write; model: those that must be one write
    uint64_t sinkFailures = 0;          // writes that the sink did not take whole
};

}  // namespace model

#endif
