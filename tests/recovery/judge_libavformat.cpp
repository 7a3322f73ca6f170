#include "recovery/judge.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstring>
#include <memory>

namespace kvtest {

namespace {

// A file in memory for libavformat.
struct Memory {
    const Bytes& bytes;
    std::int64_t position = 0;

    static int Read(void* opaque, std::uint8_t* buffer, int size)
    {
        auto& memory = *static_cast<Memory*>(opaque);
        const auto left = static_cast<std::int64_t>(memory.bytes.size()) - memory.position;
        const auto count = std::min<std::int64_t>(size, left);
        if (count <= 0)
            return AVERROR_EOF;
        std::memcpy(buffer, memory.bytes.data() + memory.position, static_cast<std::size_t>(count));
        memory.position += count;
        return static_cast<int>(count);
    }
    static std::int64_t Seek(void* opaque, std::int64_t offset, int whence)
    {
        auto& memory = *static_cast<Memory*>(opaque);
        const auto size = static_cast<std::int64_t>(memory.bytes.size());
        if (whence == AVSEEK_SIZE)
            return size;
        if (whence != SEEK_CUR)
            memory.position = whence == SEEK_END ? size : 0;
        memory.position += offset;
        return memory.position;
    }
};

struct FreeIo {
    void operator()(AVIOContext* io) const
    {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
struct CloseInput {
    void operator()(AVFormatContext* input) const { avformat_close_input(&input); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

Track TrackOf(const AVStream& stream)
{
    switch (stream.codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO: return kVideo;
    case AVMEDIA_TYPE_AUDIO: return kAudio;
    default: return stream.codecpar->codec_tag == MKTAG('t', 'm', 'c', 'd') ? kTimeCode : kCaptions;
    }
}

}  // namespace

std::string JudgeByLibavformat(const Take& take, const Counts& counts, const Bytes& file,
                               std::uint64_t mediaEnd)
{
    constexpr int kBuffer = 32768;
    Memory memory{file};
    const std::unique_ptr<AVIOContext, FreeIo> io(
        avio_alloc_context(static_cast<unsigned char*>(av_malloc(kBuffer)), kBuffer, 0, &memory,
                           Memory::Read, nullptr, Memory::Seek));
    AVFormatContext* opened = avformat_alloc_context();
    opened->pb = io.get();
    if (avformat_open_input(&opened, nullptr, nullptr, nullptr) < 0)
        return "libavformat does not open it";
    const std::unique_ptr<AVFormatContext, CloseInput> input(opened);

    // By its index: each sample of every track, where it says it is.
    Counts found;
    for (unsigned n = 0; n < input->nb_streams; ++n) {
        AVStream& stream = *input->streams[n];
        const Track track = TrackOf(stream);
        const auto& wanted = take.tracks[track];
        const int entries = avformat_index_get_entries_count(&stream);
        for (int i = 0; i < entries; ++i) {
            const AVIndexEntry& entry = *avformat_index_get_entry(&stream, i);
            const std::size_t at = found.of[track]++;
            const auto begin = static_cast<std::uint64_t>(entry.pos);
            const auto size = static_cast<std::uint32_t>(entry.size);
            if (at >= counts.of[track] || size != wanted[at].size)
                return Where(track, at) + " is not expected by libavformat's index";
            if (begin + size <= mediaEnd && Hash(file.data() + begin, size) != wanted[at].hash)
                return Where(track, at) + " is not intact by libavformat's index";
        }
    }
    for (const Track track : kAllTracks)
        if (found.of[track] != counts.of[track])
            return "libavformat: " + WrongCount(track, found.of[track], counts.of[track]);

    // By its packets: what a player gets to decode.
    std::size_t got[] = {0, 0};
    const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        const Track track = TrackOf(*input->streams[packet->stream_index]);
        if (track == kVideo || track == kAudio) {
            const std::size_t at = got[track]++;
            const auto size = static_cast<std::size_t>(packet->size);
            const auto end = static_cast<std::uint64_t>(packet->pos) + size;
            if (at >= counts.of[track] ||
                (end <= mediaEnd && Hash(packet->data, size) != take.tracks[track][at].hash))
                return Where(track, at) + " is not intact in libavformat's packets";
        }
        av_packet_unref(packet.get());
    }
    for (const Track track : {kVideo, kAudio})
        if (got[track] != counts.of[track])
            return "libavformat's packets: " + WrongCount(track, got[track], counts.of[track]);
    return {};
}

}  // namespace kvtest
