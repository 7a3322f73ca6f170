// The streams of the benchmarks and the ways to record them: this library, FFmpeg's own MP4
// muxer and a bare fwrite of each frame. All three get the same frames in the same order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

struct Stream {
    const char* name;
    std::uint32_t frameBytesLow;   // a video frame's size is drawn between these two, in bytes
    std::uint32_t frameBytesHigh;
    std::uint32_t framesPerSecond;
    std::uint16_t width;
    std::uint16_t height;
    std::uint32_t units;  // NAL units of a frame: AUD, SEI, then slices
};

inline constexpr Stream kHd{"1080p60, 1 to 4 KB a frame", 1024, 4096, 60, 1920, 1080, 4};
inline constexpr Stream kUhd{"2160p60, 300 KB a frame", 300000, 300000, 60, 3840, 2160, 4};
inline constexpr Stream kTiny{"tiny frames, 16 to 48 bytes", 16, 48, 60, 1920, 1080, 3};

// A set of frames made once, in Annex B form and without emulated start codes; used in turn.
class Frames {
public:
    explicit Frames(const Stream& stream);
    const std::vector<std::uint8_t>& Video(std::size_t n) const { return m_video[n % m_video.size()]; }
    const std::vector<std::uint8_t>& Audio(std::size_t n) const { return m_audio[n % m_audio.size()]; }
    bool IsKey(std::size_t n) const { return n % m_video.size() == 0; }

private:
    std::vector<std::vector<std::uint8_t>> m_video;
    std::vector<std::vector<std::uint8_t>> m_audio;
};

// One open recording. Timestamps: video in 1/90000 s, audio in 1/48000 s.
class Recorder {
public:
    virtual ~Recorder() = default;
    virtual void Video(const std::vector<std::uint8_t>& frame, bool key, std::int64_t time) = 0;
    virtual void Audio(const std::vector<std::uint8_t>& frame, std::int64_t time) = 0;
    virtual void Close() = 0;
};

// The library plain, in safe mode, with the info file and with both; the others.
enum class Way { kLibrary, kSafe, kInfo, kBoth, kLavf, kFwrite };
Way WayFromName(const std::string& name);

std::unique_ptr<Recorder> Open(Way way, const Stream& stream, const std::string& path);

// `frames` video frames with the audio that belongs between them; without the close.
void Feed(Recorder& recorder, const Stream& stream, const Frames& frames, std::size_t count);

// A path on tmpfs for the output.
std::string OutputPath();

}  // namespace bench
