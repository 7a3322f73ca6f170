#include "recovery/encoded.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>

// libx265 leaks a little at each use, which is none of the library's under LeakSanitizer.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libx265\n";
}

namespace kvtest {

namespace {

constexpr int kPictures = 200;
constexpr int kProResPictures = 90;  // which are larger
constexpr int kAudioFrames = 370;    // about as long as 200 pictures

struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Context = std::unique_ptr<AVCodecContext, FreeContext>;
using Frame = std::unique_ptr<AVFrame, FreeFrame>;
using Packet = std::unique_ptr<AVPacket, FreePacket>;

void Check(int result, const char* what)
{
    if (result < 0)
        throw std::runtime_error(std::string("encoder: ") + what);
}

Context Open(const char* name, const auto& setUp)
{
    av_log_set_level(AV_LOG_QUIET);
    const AVCodec* codec = avcodec_find_encoder_by_name(name);
    if (!codec)
        throw std::runtime_error(std::string("encoder: no ") + name);
    Context context(avcodec_alloc_context3(codec));
    context->thread_count = 1;
    setUp(*context);
    Check(avcodec_open2(context.get(), codec, nullptr), name);
    return context;
}

// Sends a frame, or the end for null, and takes what comes out.
void Encode(AVCodecContext& context, const AVFrame* frame, std::vector<Bytes>& out)
{
    Check(avcodec_send_frame(&context, frame), "send");
    const Packet packet(av_packet_alloc());
    while (avcodec_receive_packet(&context, packet.get()) >= 0) {
        out.emplace_back(packet->data, packet->data + packet->size);
        av_packet_unref(packet.get());
    }
}

// Bars that move, with a little noise, so that no two frames have the same size.
template <typename Sample>
void Draw(const AVFrame& frame, int plane, int width, int height, int number, int scale)
{
    std::uint32_t noise = static_cast<std::uint32_t>(number) * 7919 + 1;
    for (int y = 0; y < height; ++y) {
        auto* row = reinterpret_cast<Sample*>(frame.data[plane] + y * frame.linesize[plane]);
        for (int x = 0; x < width; ++x) {
            noise = noise * 1664525 + 1013904223;
            const int bars = ((x + number) / 12 * 37 + y) % 160;
            row[x] = static_cast<Sample>((48 + bars + static_cast<int>(noise >> 29)) * scale);
        }
    }
}

std::vector<Bytes> MakeVideo(Codec codec)
{
    const bool proRes = codec == Codec::ProRes;
    const char* name = proRes ? "prores_ks" : codec == Codec::H264 ? "libx264" : "libx265";
    const Context context = Open(name, [&](AVCodecContext& c) {
        c.width = kPictureWidth;
        c.height = kPictureHeight;
        c.time_base = {1, 25};
        c.pix_fmt = proRes ? AV_PIX_FMT_YUV422P10 : AV_PIX_FMT_YUV420P;
        c.gop_size = 12;
        c.max_b_frames = 0;
        if (codec == Codec::H264)
            Check(av_opt_set(c.priv_data, "preset", "ultrafast", 0), "preset");
        if (codec == Codec::Hevc) {
            Check(av_opt_set(c.priv_data, "preset", "ultrafast", 0), "preset");
            Check(av_opt_set(c.priv_data, "x265-params", "log-level=none:bframes=0:pools=none", 0),
                  "x265-params");
        }
        if (!proRes)
            Check(av_opt_set(c.priv_data, "crf", "38", 0), "crf");
    });
    std::vector<Bytes> out;
    const Frame frame(av_frame_alloc());
    frame->format = context->pix_fmt;
    frame->width = kPictureWidth;
    frame->height = kPictureHeight;
    Check(av_frame_get_buffer(frame.get(), 0), "buffer");
    for (int n = 0; n < (proRes ? kProResPictures : kPictures); ++n) {
        Check(av_frame_make_writable(frame.get()), "writable");
        for (int plane = 0; plane < 3; ++plane) {
            const int width = plane == 0 ? kPictureWidth : kPictureWidth / 2;
            const int height = plane == 0 || proRes ? kPictureHeight : kPictureHeight / 2;
            if (proRes)
                Draw<std::uint16_t>(*frame, plane, width, height, n, 4);
            else
                Draw<std::uint8_t>(*frame, plane, width, height, n, 1);
        }
        frame->pts = n;
        Encode(*context, frame.get(), out);
    }
    Encode(*context, nullptr, out);
    return out;
}

std::vector<Bytes> MakeAudio()
{
    const Context context = Open("aac", [](AVCodecContext& c) {
        c.sample_rate = kAudioRate;
        c.sample_fmt = AV_SAMPLE_FMT_FLTP;
        av_channel_layout_default(&c.ch_layout, 2);
        c.bit_rate = 32000;
    });
    std::vector<Bytes> out;
    const Frame frame(av_frame_alloc());
    frame->format = context->sample_fmt;
    frame->nb_samples = kAudioFrame;
    Check(av_channel_layout_copy(&frame->ch_layout, &context->ch_layout), "layout");
    Check(av_frame_get_buffer(frame.get(), 0), "buffer");
    for (int n = 0; n < kAudioFrames; ++n) {
        Check(av_frame_make_writable(frame.get()), "writable");
        for (int channel = 0; channel < 2; ++channel) {
            auto* samples = reinterpret_cast<float*>(frame->data[channel]);
            for (int i = 0; i < kAudioFrame; ++i) {
                const double time = double{1} * (n * kAudioFrame + i) / kAudioRate;
                const double pitch = 330 + 110 * channel + 40 * std::sin(time * 5);
                samples[i] = static_cast<float>(0.3 * std::sin(6.2831853 * pitch * time));
            }
        }
        frame->pts = std::int64_t{n} * kAudioFrame;
        Encode(*context, frame.get(), out);
    }
    Encode(*context, nullptr, out);
    return out;
}

}  // namespace

const std::vector<Bytes>& EncodedVideo(Codec codec)
{
    static const std::vector<Bytes> streams[] = {MakeVideo(Codec::H264), MakeVideo(Codec::Hevc),
                                                 MakeVideo(Codec::ProRes)};
    return streams[static_cast<int>(codec)];
}

const std::vector<Bytes>& EncodedAudio()
{
    static const std::vector<Bytes> frames = MakeAudio();
    return frames;
}

}  // namespace kvtest
