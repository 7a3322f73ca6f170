// One recording: hands frames with running times to the library as frames with ticks, announces
// tracks when they begin and keeps count. Knows buffers and caps, but neither pads nor elements;
// the frames of all tracks come in order of their times, from one thread.
#pragma once

#include "formats.h"
#include "output.h"

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace kvmp4sink {

// What the properties say when a recording begins.
struct Settings {
    std::string location;
    bool safeMode = false;
    bool infoFile = false;
    bool largeFile = false;
    bool durable = true;
    mp4_safe_param safe{1, 0xA00000, 0x6400000, 0x40000000};
    unsigned infoFlush = 900;  // video frames
};

struct Checkpoint {
    std::uint64_t position = 0;  // of the index in force, bytes
    GstClockTime duration = 0;
    std::uint64_t bytes = 0;
};

class Recorder {
public:
    Recorder() = default;
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // All throw a Failure for what ends the recording.

    void Open(const Settings& settings);
    bool IsOpen() const { return m_file != nullptr; }
    void SetSafeParameters(const mp4_safe_param& parameters);
    void SetTags(const GstTagList* tags);
    // Before the first frame of a kind, and again with another frame rate and the like.
    void SetCaps(Kind kind, const GstCaps* caps);

    enum class Result {
        kRecorded,
        kNothing,  // an empty frame
        kWaiting,  // the video has not brought all its parameter sets yet
        kBroken,   // the library could not read it
    };
    // `time` is a running time in nanoseconds, of decoding where that is another one.
    Result Write(Kind kind, GstBuffer* buffer, std::int64_t time);
    // How long a frame lasts by the caps, in nanoseconds; 0 if they do not tell.
    std::int64_t StepOf(Kind kind) const;
    // Whether pictures may come in another order than they are shown.
    bool MayReorder(Kind kind) const;
    // Times may begin anew: what follows goes behind what is recorded.
    void Flush() { m_flushed = true; }
    // What has gone wrong without ending the recording, once: its log.
    std::optional<Failure> NewTrouble() { return std::exchange(m_trouble, std::nullopt); }
    // What a crash from now on would leave, if that has changed; only in safe mode.
    std::optional<Checkpoint> NewCheckpoint();
    void Close();

    // Any thread may ask these; they keep their last value when the recording ends.
    GstClockTime Duration() const { return m_duration; }
    std::uint64_t Bytes() const { return m_bytes; }

private:
    struct Track {
        std::optional<Format> format;
        bool announced = false;
        bool begun = false;  // a frame is in the file
        unsigned sets = 0;   // parameter sets that the stream has brought
        std::uint32_t timescale = 0;
        std::int64_t last = 0;  // ticks, of the last frame
        std::int64_t gap = 0;   // ticks between the last two
        std::uint32_t step = 0;  // ticks of the track that a frame lasts now, 0 if unknown
    };

    Track& Of(Kind kind) { return m_tracks[static_cast<std::size_t>(kind)]; }
    const Track& Of(Kind kind) const { return m_tracks[static_cast<std::size_t>(kind)]; }
    void Announce(Kind kind, Track& track);
    void WriteTimeCode(GstBuffer* buffer);
    Result WriteBytes(Kind kind, const std::uint8_t* data, std::size_t size, std::int64_t ticks);
    std::int64_t TicksOf(Kind kind, const Track& track, std::int64_t time) const;
    void FinishCaptions();
    void StopAtTheLimit(std::size_t size);
    std::uint32_t CloseFile();
    void Check(std::uint32_t status, const char* doing);
    // A call of the library, which may also end by what it throws.
    template <typename Call>
    std::uint32_t Try(const char* doing, Call call);
    bool IsOfTheLog(std::uint32_t status);

    Settings m_settings;
    mp4_handle m_file = nullptr;
    std::unique_ptr<Output> m_output;  // only when not durable
    int m_reader = -1;                 // the file again, to see what a reader would
    std::int64_t m_data = -1;          // where `mdat` begins; -1 while unknown
    std::uint64_t m_index = 0;         // where the checkpoint in force stands
    Checkpoint m_before;               // what was recorded before the last frame

    std::array<Track, kKinds> m_tracks;
    std::optional<std::int64_t> m_origin;  // the running time that is 0 in the file
    std::int64_t m_end = 0;                // of the last frame, ns from the origin
    bool m_flushed = false;
    bool m_failed = false;
    std::optional<Failure> m_trouble;
    std::map<std::string, std::string> m_metadata;  // as the file has it

    std::atomic<GstClockTime> m_duration{0};
    std::atomic<std::uint64_t> m_bytes{0};
};

}  // namespace kvmp4sink
