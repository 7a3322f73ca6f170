// An input of the recorder: anything that FFmpeg's libraries can open. A thread of its own opens it
// and reads it, so that two inputs may be FIFOs that are opened in either order.
#pragma once

#include "captions.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

// Set by Ctrl-C; ends reading.
extern std::atomic<bool> g_stop;

struct InputOptions {
    std::string url;
    std::string format;         // empty: probed
    std::size_t number = 0;      // of this input among all
    std::string video = "auto";  // "auto", "none", a stream's index, or that and the input's: "1:0"
    std::string audio = "auto";
    std::string captions = "auto";  // as well as "video": those in the pictures alone
    std::uint32_t captionCodec = 0;  // MP4_SUBTITLE_*, 0: that of the source
    AVRational fps{0, 1};  // for streams without times; 0: the stream's own
};

enum class Kind { kVideo, kAudio, kCaptions };

// A stream that will be recorded, in terms of the library.
struct TrackInfo {
    Kind kind = Kind::kAudio;
    std::uint32_t timescale = 0;  // ticks per second
    std::uint32_t codec = 0;      // MP4_VIDEO_*, MP4_AUDIO_* or MP4_SUBTITLE_*
    std::uint32_t sampleDuration = 0;  // ticks of a frame, 0 if unknown
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    AVRational rate{0, 1};  // frames per second of the video
    std::uint32_t proResFormat = 0;
    std::vector<std::uint8_t> sps, pps, vps;
    std::uint16_t sampleRate = 0;
    std::uint16_t channels = 0;
    std::uint8_t objectType = 0;
    std::string name;  // for messages
};

struct Frame {
    Kind kind = Kind::kAudio;
    std::int64_t time = 0;  // ticks of the track's timescale
    double seconds = 0;
    std::vector<std::uint8_t> data;
};

// Where an input's captions come from.
enum class CaptionSource {
    kNone,
    kPictures,  // may ride in the video; nobody knows before they come
    kTrack,     // a track of the file
    kFile,      // a caption file: its times are time codes, counted from 0 o'clock
};

class Input {
public:
    explicit Input(InputOptions options);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // Whether the input is open, after a moment of waiting for it; throws what kept it from opening.
    // Tracks are known then.
    bool WaitForOpen();
    const std::vector<TrackInfo>& Tracks() const { return m_tracks; }
    // How long a frame of a track lasts.
    double FrameSeconds(Kind kind) const;
    bool HasReordering() const { return m_reordered; }
    // Whether the clock of the input jumped, so that its times were carried on.
    bool HasJumped() const { return m_jumped; }
    const std::string& Url() const { return m_options.url; }
    CaptionSource Captions() const { return m_captionSource; }
    // The track of the caption frames; it is not among Tracks, as there may never be any.
    const TrackInfo& CaptionTrack() const { return m_captionTrack; }
    // A caption frame that says nothing.
    const Bytes& CaptionPadding() const { return m_captionPadding; }
    // The time code that the input carries, empty if none, and the rate it counts at.
    const std::string& TimeCode() const { return m_timeCode; }
    AVRational TimeCodeRate() const { return m_timeCodeRate; }
    std::uint64_t BrokenCaptions() const { return m_brokenCaptions; }
    // Packets that are no frames of their codec.
    std::uint64_t BrokenPackets() const { return m_brokenPackets; }

    // What stands at the head of the queue.
    enum class Head { kFrame, kWaiting, kFull, kEnd };
    Head Look(double* seconds);
    Frame Take();
    // Sleeps until a frame came or the input ended, a moment at most.
    void WaitForMore();
    // The sentence of a failure in mid-stream, if there was one.
    std::string Trouble();
    // Has the reader end where it can.
    void Leave();
    // Whether it did, after a few moments of waiting for it: no one can end a read of an idle pipe.
    bool WaitForEnd();

private:
    struct Stream;

    void Run();
    void Open();
    void Choose();
    void AddVideo(int index);
    void AddAudio(int index);
    void ChooseCaptions(bool captionFile);
    void FindTimeCode(int video);
    void Read();
    void Deliver(Stream& stream, AVPacket* packet);
    void DateBack(Stream& stream, AVPacket* packet) const;
    // The time of a frame whose clock may have jumped, carried on.
    std::int64_t CarryOn(Stream& stream, std::int64_t time, bool undated);
    void DeliverPicturesCaptions(Stream& stream, const AVPacket* packet, std::int64_t time,
                                 std::int64_t stamp);
    void DeliverCaptionPacket(Stream& stream, const AVPacket* packet);
    void DeliverCaptionFile(Stream& stream, const AVPacket* packet);
    // Captions whose pictures are shown by `time`, in the order of the pictures.
    void ReleaseCaptions(Stream& stream, std::int64_t time);
    void DeliverCaptions(std::int64_t time, std::int64_t span, const std::vector<Bytes>& frames);
    void Queue(Frame frame);

    const InputOptions m_options;
    AVFormatContext* m_context = nullptr;
    std::vector<std::unique_ptr<Stream>> m_streams;
    std::vector<TrackInfo> m_tracks;
    std::atomic<bool> m_reordered{false};
    std::atomic<bool> m_jumped{false};
    std::atomic<std::uint64_t> m_brokenPackets{0};
    std::vector<double> m_jumps;  // what is added to all times after each jump of the clock, seconds
    std::optional<double> m_origin;  // the first time of video and audio, seconds

    CaptionSource m_captionSource = CaptionSource::kNone;
    TrackInfo m_captionTrack;
    Bytes m_captionPadding;
    std::optional<CaptionPacker> m_packer;
    std::optional<std::int64_t> m_lastCaption;  // ticks
    std::atomic<std::uint64_t> m_brokenCaptions{0};
    std::string m_timeCode;
    AVRational m_timeCodeRate{0, 1};

    std::mutex m_mutex;  // guards what follows
    std::condition_variable m_changed;
    bool m_open = false;
    bool m_ended = false;
    std::exception_ptr m_failure;
    std::string m_trouble;
    std::deque<Frame> m_queue;
    std::size_t m_queuedBytes = 0;
    std::atomic<bool> m_leave{false};
    std::thread m_thread;
};
