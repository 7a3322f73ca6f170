#include "workload.h"

#include <kv_mp4.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>

#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
}

namespace bench {

namespace {

constexpr std::uint8_t kSps[] = {0x67, 0x4D, 0x40, 0x1F, 0x96, 0x52, 0x80, 0x50, 0x05, 0xBA, 0x10};
constexpr std::uint8_t kPps[] = {0x68, 0xEE, 0x3C, 0x80};
constexpr std::uint8_t kConfig[] = {0x11, 0x90};  // AAC LC, 48 kHz, stereo
constexpr std::uint32_t kVideoScale = 90000;
constexpr std::uint32_t kAudioScale = 48000;
constexpr std::uint32_t kAudioFrame = 1024;

void Check(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(what);
}

class LibraryRecorder final : public Recorder {
public:
    LibraryRecorder(const Stream& stream, const std::string& path, std::uint8_t flags)
    {
        const std::uint32_t status = mp4_create_file_adv_ex(path.c_str(), flags, 4096, 32,
                                                            MP4_IO_FILE, nullptr, &m_file);
        Check(status == MP4_OK, "create");
        mp4_video_track_info video{};
        video.timescale = kVideoScale;
        video.codec = MP4_VIDEO_H264;
        video.width = stream.width;
        video.height = stream.height;
        video.sps = kSps;
        video.sps_size = sizeof kSps;
        video.pps = kPps;
        video.pps_size = sizeof kPps;
        Check(mp4_set_video_track(m_file, &video) == MP4_OK, "video track");
        mp4_audio_track_info audio{};
        audio.timescale = kAudioScale;
        audio.codec = MP4_AUDIO_AAC_RAW;
        audio.sample_rate = 48000;
        audio.channels = 2;
        audio.object_type = 2;
        Check(mp4_set_audio_track(m_file, &audio) == MP4_OK, "audio track");
    }
    void Video(const std::vector<std::uint8_t>& frame, bool, std::int64_t time) override
    {
        Check(mp4_write_video_frame(m_file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                    static_cast<std::uint64_t>(time)) == MP4_OK, "video frame");
    }
    void Audio(const std::vector<std::uint8_t>& frame, std::int64_t time) override
    {
        Check(mp4_write_audio_frame(m_file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                    static_cast<std::uint64_t>(time)) == MP4_OK, "audio frame");
    }
    void Close() override { Check(mp4_close_file(m_file) == MP4_OK, "close"); }

private:
    mp4_handle m_file = nullptr;
};

class LavfRecorder final : public Recorder {
public:
    LavfRecorder(const Stream& stream, const std::string& path) : m_packet(av_packet_alloc())
    {
        Check(avformat_alloc_output_context2(&m_context, nullptr, "mp4", path.c_str()) >= 0,
              "context");
        AVStream* video = avformat_new_stream(m_context, nullptr);
        video->time_base = {1, static_cast<int>(kVideoScale)};
        video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
        video->codecpar->codec_id = AV_CODEC_ID_H264;
        video->codecpar->width = stream.width;
        video->codecpar->height = stream.height;
        std::vector<std::uint8_t> sets;
        for (const auto& [data, size] : {std::pair<const std::uint8_t*, std::size_t>{kSps, sizeof kSps},
                                         {kPps, sizeof kPps}}) {
            sets.insert(sets.end(), {0, 0, 0, 1});
            sets.insert(sets.end(), data, data + size);
        }
        Extradata(video, sets.data(), sets.size());
        AVStream* audio = avformat_new_stream(m_context, nullptr);
        audio->time_base = {1, static_cast<int>(kAudioScale)};
        audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        audio->codecpar->codec_id = AV_CODEC_ID_AAC;
        audio->codecpar->sample_rate = 48000;
        audio->codecpar->frame_size = kAudioFrame;
        av_channel_layout_default(&audio->codecpar->ch_layout, 2);
        Extradata(audio, kConfig, sizeof kConfig);
        Check(avio_open(&m_context->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0, "open");
        Check(avformat_write_header(m_context, nullptr) >= 0, "header");
    }
    ~LavfRecorder() override
    {
        av_packet_free(&m_packet);
        avio_closep(&m_context->pb);
        avformat_free_context(m_context);
    }
    void Video(const std::vector<std::uint8_t>& frame, bool key, std::int64_t time) override
    {
        Put(0, frame, key, time, kVideoScale / 60);
    }
    void Audio(const std::vector<std::uint8_t>& frame, std::int64_t time) override
    {
        Put(1, frame, true, time, kAudioFrame);
    }
    void Close() override { Check(av_write_trailer(m_context) >= 0, "trailer"); }

private:
    static void Extradata(AVStream* stream, const std::uint8_t* data, std::size_t size)
    {
        stream->codecpar->extradata =
            static_cast<std::uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        std::copy_n(data, size, stream->codecpar->extradata);
        stream->codecpar->extradata_size = static_cast<int>(size);
    }
    void Put(int stream, const std::vector<std::uint8_t>& frame, bool key, std::int64_t time,
             std::int64_t duration)
    {
        // Borrowed, not copied: as cheap as the muxer allows.
        m_packet->data = const_cast<std::uint8_t*>(frame.data());
        m_packet->size = static_cast<int>(frame.size());
        m_packet->stream_index = stream;
        m_packet->pts = m_packet->dts = time;
        m_packet->duration = duration;
        m_packet->flags = key ? AV_PKT_FLAG_KEY : 0;
        Check(av_write_frame(m_context, m_packet) >= 0, "frame");
    }

    AVFormatContext* m_context = nullptr;
    AVPacket* m_packet;
};

class FwriteRecorder final : public Recorder {
public:
    explicit FwriteRecorder(const std::string& path) : m_file(std::fopen(path.c_str(), "wb"))
    {
        Check(m_file != nullptr, "open");
    }
    void Video(const std::vector<std::uint8_t>& frame, bool, std::int64_t) override { Put(frame); }
    void Audio(const std::vector<std::uint8_t>& frame, std::int64_t) override { Put(frame); }
    void Close() override { Check(std::fclose(m_file) == 0, "close"); }

private:
    void Put(const std::vector<std::uint8_t>& frame)
    {
        Check(std::fwrite(frame.data(), frame.size(), 1, m_file) == 1, "write");
    }
    std::FILE* m_file;
};

// Bytes from 1 to 255: no zero, so no start code can come about.
void Noise(std::vector<std::uint8_t>& out, std::size_t size, std::mt19937& random)
{
    for (std::size_t i = 0; i < size; ++i)
        out.push_back(static_cast<std::uint8_t>(1 + random() % 255));
}

}  // namespace

Frames::Frames(const Stream& stream)
{
    std::mt19937 random(20);
    const std::size_t count = stream.frameBytesHigh > 100000 ? 30 : 600;
    for (std::size_t n = 0; n < count; ++n) {
        const std::size_t size =
            stream.frameBytesLow + random() % (stream.frameBytesHigh - stream.frameBytesLow + 1);
        std::vector<std::uint8_t> frame{0, 0, 0, 1, 0x09, 0xF0};
        std::vector<std::uint8_t> sei{0, 0, 1, 0x06, 0x05, 0x04, 1, 2, 3, 4, 0x80};
        frame.insert(frame.end(), sei.begin(), sei.end());
        const std::size_t slices = stream.units - 2;
        const std::size_t rest = size > frame.size() + 8 * slices ? size - frame.size() : 8 * slices;
        for (std::size_t s = 0; s < slices; ++s) {
            frame.insert(frame.end(), {0, 0, 1, static_cast<std::uint8_t>(n == 0 ? 0x65 : 0x41)});
            Noise(frame, rest / slices - 4, random);
        }
        m_video.push_back(std::move(frame));
        std::vector<std::uint8_t> audio{0x21};  // never a sync word
        Noise(audio, stream.frameBytesHigh < 100 ? 20 : 340, random);
        m_audio.push_back(std::move(audio));
    }
}

Way WayFromName(const std::string& name)
{
    if (name == "library")
        return Way::kLibrary;
    if (name == "safe")
        return Way::kSafe;
    if (name == "info")
        return Way::kInfo;
    if (name == "both")
        return Way::kBoth;
    if (name == "lavf")
        return Way::kLavf;
    if (name == "fwrite")
        return Way::kFwrite;
    throw std::runtime_error("no such way: " + name);
}

std::unique_ptr<Recorder> Open(Way way, const Stream& stream, const std::string& path)
{
    switch (way) {
    case Way::kLibrary: return std::make_unique<LibraryRecorder>(stream, path, 0);
    case Way::kSafe: return std::make_unique<LibraryRecorder>(stream, path, MP4_OPEN_SAFE_MODE);
    case Way::kInfo: return std::make_unique<LibraryRecorder>(stream, path, MP4_OPEN_INFO_FILE);
    case Way::kBoth:
        return std::make_unique<LibraryRecorder>(stream, path,
                                                 MP4_OPEN_SAFE_MODE | MP4_OPEN_INFO_FILE);
    case Way::kLavf: return std::make_unique<LavfRecorder>(stream, path);
    case Way::kFwrite: break;
    }
    return std::make_unique<FwriteRecorder>(path);
}

void Feed(Recorder& recorder, const Stream& stream, const Frames& frames, std::size_t count)
{
    std::size_t audio = 0;
    for (std::size_t n = 0; n < count; ++n) {
        recorder.Video(frames.Video(n), frames.IsKey(n),
                       static_cast<std::int64_t>(n * kVideoScale / stream.framesPerSecond));
        // All audio that begins before the next picture.
        while (audio * kAudioFrame * stream.framesPerSecond < (n + 1) * kAudioScale) {
            recorder.Audio(frames.Audio(audio), static_cast<std::int64_t>(audio * kAudioFrame));
            ++audio;
        }
    }
}

std::string OutputPath()
{
    const bool shm = access("/dev/shm", W_OK) == 0;
    return (shm ? "/dev/shm/" : "/tmp/") + ("kv_mp4_bench." + std::to_string(getpid()) + ".mp4");
}

}  // namespace bench
