// The movie as the model keeps it: plain lists of samples, from which every box is worked out anew
// at each write.
#ifndef TESTS_MODEL_TREE_H
#define TESTS_MODEL_TREE_H

#include "model/bin.h"
#include "model/codec.h"
#include "model/target.h"

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace model {

enum class Kind { Video, Audio, TimeCode, Caption };

struct VideoRecord {
    uint32_t timescale = 0;
    uint64_t duration = 0;
    uint32_t codec = 0;
    uint16_t width = 0, height = 0;
    ParameterSet sps, pps, vps;
    uint32_t proRes = 0;
};

struct AudioRecord {
    uint32_t timescale = 0;
    uint64_t duration = 0;
    uint32_t codec = 0;
    uint16_t rate = 0, channels = 0;
    uint8_t objectType = 0;
};

struct TimeCodeRecord {
    uint32_t timescale = 0;
    uint64_t frameDuration = 0;
    uint8_t framesPerSecond = 0;
    uint32_t flags = 0;
};

struct Track {
    Kind kind = Kind::Video;
    uint32_t id = 0;
    uint32_t timescale = 1000;
    uint64_t first = 0, last = 0;
    uint32_t lastDuration = 0, lastDelta = 0;
    uint32_t loneDelta = 1;  // stts of a single sample
    bool longForm = false, co64 = false;
    uint32_t mdhdTimescale = 1000;

    std::vector<uint64_t> times;  // decoding
    std::vector<uint32_t> sizes;
    std::vector<uint64_t> offsets;  // of chunks
    std::vector<uint32_t> chunks;   // samples in each
    std::vector<uint32_t> syncs;
    uint64_t dataSize = 0;
    size_t sttsHigh = 0;  // bytes that stts held at its last write

    uint64_t Duration();  // latches the duration of the last sample
    void Add(uint64_t offset, uint32_t size, uint64_t time, bool newChunk);
    std::vector<std::pair<uint32_t, uint32_t>> Runs() const;  // of stts, the open one last
    bool SizesAreEqual() const;
    uint32_t TablesSize() const;  // stts, stsz, stsc, stco or co64
    bool IsWritten() const { return id != 0 && !times.empty(); }
};

struct Metadata {
    struct Value {
        Bytes bytes;
        uint32_t type = 0, index = 0;
    };
    std::vector<std::optional<std::string>> items;  // by the table of names
    std::vector<std::pair<std::string, std::string>> keys;
    std::vector<Value> values;
    bool hasKeys = false;
    bool leftOver = false;  // ilst was stopped half-way

    Metadata();
    // `value` as the caller gave it, without the end mark of a text.
    bool Set(const std::optional<std::string>& key, const std::optional<Bytes>& value,
             uint32_t type, const std::optional<std::string>& keyNamespace);
    uint32_t Size() const;
    void Write(Target& io, Journal& journal);

private:
    Bytes List(Journal& journal) const;
};

class Tree {
public:
    Tree(Journal& journal, Target& io);

    void SetVideo(const VideoRecord& record);
    void SetAudio(const AudioRecord& record);
    void SetCaption(uint32_t codec, uint32_t timescale);
    void SetTimeCode(const TimeCodeRecord& record);
    // A sample behind the last one; `sync` counts for video only.
    void AddSample(Track& track, uint64_t offset, uint32_t size, uint64_t presentation,
                   uint64_t decoding, bool sync = false);
    void SetLongForm();
    void SetLarge();
    void SetQuickTime(bool quickTime);

    void Write(StagingTarget* staging);
    void WriteAt(uint64_t position);
    uint32_t Size() const;
    uint64_t DurationMs();
    static double Bitrate(Track& track);

    Track m_video, m_audio, m_timeCode, m_caption;
    Metadata m_metadata;

private:
    void NewId(Track& track);
    void Header();
    void WriteTrack(Track& track);
    void FollowVideo();
    void CompareSize(uint64_t start);
    Bytes Tkhd(const Track& track, uint64_t duration) const;
    Bytes Elst(const Track& track, uint64_t duration) const;
    void WriteMedia(Track& track);
    void WriteMediaHeader(Kind kind);
    void WriteDescription(Track& track);
    void WriteVideoEntry();
    void WriteAudioEntry();
    void WriteTables(Track& track);
    uint32_t TrackSize(const Track& track) const;
    uint32_t DescriptionSize(const Track& track) const;
    Bytes Esds() const;
    void Nest(std::string_view code, const std::function<void()>& children);

    Journal& m_journal;
    Target& m_io;
    uint32_t m_ids = 0;
    uint32_t m_lastId = 0;
    bool m_longForm = false;
    bool m_quickTime = false;
    std::vector<uint32_t> m_references;

    uint32_t m_width = 0, m_height = 0;
    std::string m_videoCode = std::string(4, '\0');
    bool m_isProRes = false;
    std::string m_proResCode, m_compressor;
    AvcConfig m_avc;
    HevcConfig m_hevc;
    std::string m_audioCode = std::string(4, '\0');
    uint32_t m_audioRate = 0, m_esId = 0;
    Bytes m_audioConfig;
    std::string m_captionCode = std::string(4, '\0');
    TimeCodeRecord m_tmcd{30000, 1001, 0, 0};
};

// Puts the size of a box right that ends here.
void Finish(Target& io, uint64_t start);
// Opens a box, writes what is in it and puts its size right.
void Nest(Target& io, const Bytes& head, const std::function<void()>& children);

}  // namespace model

#endif
