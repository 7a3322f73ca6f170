// A sequence of calls as data: what is opened, what is called, how it ends. Made from a seed, run
// on the library and on the model, and cut down when the two differ.
#ifndef TESTS_MODEL_SEQUENCE_H
#define TESTS_MODEL_SEQUENCE_H

#include "model/image.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace model {

enum class Create : uint8_t { Wide, Multibyte, Adv, AdvMultibyte, Front, FrontWide };

enum class Call : uint8_t {
    SetVideo,
    SetAudio,
    SetSubtitle,
    SetTimeCode,
    SetMetadata,
    SetMetadataEx,
    WriteVideo,
    WriteAudio,
    WriteSubtitle,
    WriteTimeCode,
    Duration,
    MoovSize,
    VideoBitrate,
    AudioBitrate,
    GetSafe,
    SetSafe,
    FlushInterval,
    Close,
};

enum class Handle : uint8_t { Good, Null, Unknown };

// What the caller's sink does wrong. It takes `limit` bytes, the last write as far as they go, and
// then fails: once, or at each write that has bytes.
struct Fault {
    enum class Way : uint8_t { Answer, IoException, OtherException };
    uint8_t openAnswer = 1;  // 0 refuses
    uint64_t limit = UINT64_MAX;
    Way way = Way::Answer;
    int32_t answer = 0;
    bool again = false;
    int error = 0;  // errno at the failure, or what the exception carries
    bool tellsMinusOne = false;
    uint64_t tellsMore = 0;  // than the position
    bool ignoresSeeks = false;
};

struct Opening {
    Create create = Create::Adv;
    std::string path;  // below the folder of the run; see Paths in run.h
    uint8_t flags = 0;
    uint32_t blockSize = 4096;
    uint32_t blockCount = 32;
    uint32_t ioMode = 0;
    bool table = true;  // external mode: a table is given
    bool nullPath = false;
    bool nullOut = false;
    bool stale = false;  // both files exist already
    uint64_t start = 0;  // the position of the caller's sink when it opens
    Fault fault;
};

// A parameter set as the caller gives it: the size need not belong to the bytes.
struct ParameterSet {
    std::optional<Bytes> bytes;
    int16_t size = 0;
};

struct Step {
    Call call = Call::Close;
    bool front = false;  // through the kv_mp4_* function of the same purpose
    Handle handle = Handle::Good;
    int error = 0;      // errno before the call
    bool null = false;  // the record, the data or the place for the result is null
    uint32_t codec = 0;
    uint32_t timescale = 0;
    uint64_t time = 0;    // timestamp, or a record's duration
    uint16_t width = 0;   // or sample rate
    uint16_t height = 0;  // or channels
    uint32_t number = 0;  // object type, ProRes format, frames per second, time code, interval
    uint32_t flags = 0;   // time code
    ParameterSet sps, pps, vps;
    Bytes data;  // a frame, or a metadata value with its end mark
    std::optional<std::string> key;
    std::optional<std::string> keyNamespace;
    uint32_t size = 0;  // metadata
    uint32_t type = 0;
    std::array<uint32_t, 4> safe{};
};

// What becomes of the two files as they were before the close, and the repair that follows.
struct Repair {
    bool front = false;
    bool multibyte = false;
    uint8_t option = 0;
    int error = 0;
    bool nullPath = false;
    bool noMedia = false;
    bool noLog = false;
    std::optional<Bytes> madeUpLog;                      // instead of the recording's
    uint64_t logCut = UINT64_MAX;                        // modulo the log's length + 1
    std::vector<std::pair<uint64_t, uint8_t>> logFlips;  // position modulo the length, bits
    Bytes logTail;                                       // appended
    uint64_t mediaCut = UINT64_MAX;                      // modulo the file's length + 1
    uint32_t fit = 0;  // the file ends so many bytes behind the index that the repair will write
    uint64_t mediaTail = 0;  // bytes of 0xA5 appended
    uint32_t runs = 1;
};

struct Sequence {
    uint64_t seed = 0;
    Opening opening;
    std::vector<Step> steps;
    std::optional<Repair> repair;
};

// As text, one call a line.
std::string Describe(const Opening& opening);
std::string Describe(const Step& step);
std::string Describe(const Repair& repair);
std::string Describe(const Sequence& sequence);

}  // namespace model

#endif
