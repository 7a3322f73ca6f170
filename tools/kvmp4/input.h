// An input of the recorder: anything that FFmpeg's libraries can open. A thread of its own opens it
// and reads it, so that two inputs may be FIFOs that are opened in either order.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
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
    std::string video = "auto";  // "auto", "none" or a stream's index
    std::string audio = "auto";
    AVRational fps{0, 1};  // for streams without times; 0: the stream's own
};

// A stream that will be recorded, in terms of the library.
struct TrackInfo {
    bool isVideo = false;
    std::uint32_t timescale = 0;  // ticks per second
    std::uint32_t codec = 0;      // MP4_VIDEO_* or MP4_AUDIO_*
    std::uint32_t sampleDuration = 0;  // ticks of a frame, 0 if unknown
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    std::uint32_t proResFormat = 0;
    std::vector<std::uint8_t> sps, pps, vps;
    std::uint16_t sampleRate = 0;
    std::uint16_t channels = 0;
    std::uint8_t objectType = 0;
    std::string name;  // for messages
};

struct Frame {
    bool isVideo = false;
    std::int64_t time = 0;  // ticks of the track's timescale
    double seconds = 0;
    std::vector<std::uint8_t> data;
};

class Input {
public:
    explicit Input(InputOptions options);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // Waits until the input is open; throws what kept it from opening. Tracks are known then.
    void WaitUntilOpen();
    const std::vector<TrackInfo>& Tracks() const { return m_tracks; }
    bool HasReordering() const { return m_reordered; }

    // What stands at the head of the queue.
    enum class Head { kFrame, kWaiting, kFull, kEnd };
    Head Look(double* seconds);
    Frame Take();
    // Sleeps until a frame came or the input ended, a moment at most.
    void WaitForMore();
    // The sentence of a failure in mid-stream, if there was one.
    std::string Trouble();
    bool Ended();

private:
    struct Stream;

    void Run();
    void Open();
    void Choose();
    void AddVideo(int index);
    void AddAudio(int index);
    void Read();
    void Deliver(Stream& stream, AVPacket* packet);

    const InputOptions m_options;
    AVFormatContext* m_context = nullptr;
    std::vector<std::unique_ptr<Stream>> m_streams;
    std::vector<TrackInfo> m_tracks;
    std::atomic<bool> m_reordered{false};
    std::optional<double> m_origin;  // the first time of all streams, seconds

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
