// The packets of the log, one function each. All fields are read before anything reaches the tree,
// so that a packet that the crash cut short changes nothing; only the seen flags are set before.
#include "Mp4Repair.h"

#include "log.h"

#include <cerrno>

#define UNIT "src/Mp4Repair"

namespace {

constexpr std::uint32_t kTimeCodeSize = 4;  // bytes

// Ends the log at a packet that makes no sense. `error` is errno, read before anything is printed;
// no system call has failed here, so it says little.
[[noreturn]] void FailPacket(std::int32_t error, int line = __builtin_LINE())
{
    PrintLine("[line %d] Read EOF !\n", line);
    throw kv_mp4_exception(error);
}

}  // namespace

// ---- Fields and blobs ----------------------------------------------------------------------

RefBuffer* CMp4Repair::ReadBlob(std::uint32_t size)
{
    // A length that the rest of the log cannot hold is the end of the data, before memory of that
    // size is asked for. What passes is smaller than the reader's block.
    m_reader.Require(size);
    // One byte more, so that a text without its end mark ends with its blob.
    // Its place in the list first: a buffer that finds none would be lost to the pool.
    std::list<RefBuffer*> place(1);
    RefBuffer* const buffer = place.front() = m_pool.GetBuffer(size + 1);
    m_packetBuffers.splice(m_packetBuffers.end(), place);
    m_reader.Read(buffer->data, size);
    buffer->data[size] = 0;
    return buffer;
}

const std::uint8_t* CMp4Repair::SizedBlob(std::uint32_t& size)
{
    size = Field<std::uint32_t>();
    return size != 0 ? ReadBlob(size)->data : nullptr;
}

const std::uint8_t* CMp4Repair::ParameterSet(std::int16_t& size)
{
    std::uint32_t length = 0;
    const std::uint8_t* const data = SizedBlob(length);
    size = static_cast<std::int16_t>(length);  // the record's width
    return data;
}

std::uint64_t CMp4Repair::Place(std::uint32_t size)
{
    const std::uint64_t offset = m_nextOffset;
    m_nextOffset += size;
    return offset;
}

// ---- Packets -------------------------------------------------------------------------------

void CMp4Repair::ReadNextPacket()
{
    const auto tag = Field<std::uint8_t>();
    switch (InfoTag{tag}) {
    case InfoTag::Metadata: ReadMetadata(); break;
    case InfoTag::VideoTrack: ReadVideoTrack(); break;
    case InfoTag::AudioTrack: ReadAudioTrack(); break;
    case InfoTag::VideoFrame: ReadVideoFrame(); break;
    case InfoTag::AudioFrame: ReadAudioFrame(); break;
    case InfoTag::SubtitleTrack: ReadSubtitleTrack(); break;
    case InfoTag::SubtitleFrame: ReadSubtitleFrame(); break;
    case InfoTag::TimeCodeTrack: ReadTimeCodeTrack(); break;
    case InfoTag::TimeCode: ReadTimeCode(); break;
    default: {
        const std::int32_t error = errno;
        LOG_ERROR("unknown packet type {}", std::uint32_t{tag});
        FailPacket(error);
    }
    }
    if (!m_packetBuffers.empty())  // as for every frame
        ReleaseBuffers(m_packetBuffers);
}

void CMp4Repair::ReadMetadata()
{
    const auto type = Field<std::uint8_t>();
    std::uint32_t keyLength = 0;
    std::uint32_t valueLength = 0;
    std::uint32_t keyNamespaceLength = 0;
    const std::uint8_t* const key = SizedBlob(keyLength);
    const std::uint8_t* const value = SizedBlob(valueLength);
    const std::uint8_t* const key_namespace = SizedBlob(keyNamespaceLength);
    const auto text = [](const std::uint8_t* blob) { return reinterpret_cast<const char*>(blob); };
    // What the store refuses was refused before the crash as well.
    m_moov->m_udta.m_meta.SetMetadata(text(key), value, valueLength, type, text(key_namespace));
}

void CMp4Repair::ReadVideoTrack()
{
    if (m_videoSeen)
        FailPacket(errno);
    m_videoSeen = 1;
    mp4_video_track_info info{};
    info.timescale = Field<std::uint32_t>();
    info.sample_duration = Field<std::uint64_t>();
    info.codec = Field<std::uint8_t>();
    info.width = Field<std::uint16_t>();
    info.height = Field<std::uint16_t>();
    switch (info.codec) {
    case MP4_VIDEO_HEVC: info.vps = ParameterSet(info.vps_size); [[fallthrough]];
    case MP4_VIDEO_H264:
        info.sps = ParameterSet(info.sps_size);
        info.pps = ParameterSet(info.pps_size);
        break;
    case MP4_VIDEO_PRORES: info.prores_format = Field<std::uint8_t>(); break;
    default: FailPacket(errno);
    }
    m_moov->SetVideoTrack(info);
}

void CMp4Repair::ReadAudioTrack()
{
    if (m_audioSeen)
        FailPacket(errno);
    m_audioSeen = 1;
    mp4_audio_track_info info{};
    info.timescale = Field<std::uint32_t>();
    info.sample_duration = Field<std::uint64_t>();
    info.codec = Field<std::uint8_t>();
    info.sample_rate = Field<std::uint16_t>();
    info.channels = Field<std::uint16_t>();
    info.object_type = Field<std::uint8_t>();
    m_moov->SetAudioTrack(info);
}

void CMp4Repair::ReadVideoFrame()
{
    const auto pts = Field<std::uint64_t>();
    const auto dts = Field<std::uint64_t>();
    const bool keyFrame = Field<std::uint8_t>() != 0;
    const auto size = Field<std::uint32_t>();
    CMp4VideoTrakAtom& track = m_moov->m_trakVideo;
    track.AddSample(Place(size), size, pts, dts, keyFrame,
                    m_moov->m_lastTrackId != track.m_trackId);
    m_moov->m_lastTrackId = track.m_trackId;
    m_mediaBytes += size;
}

void CMp4Repair::ReadAudioFrame()
{
    const auto timestamp = Field<std::uint64_t>();
    const auto size = Field<std::uint32_t>();
    m_moov->AddAudioSample(Place(size), size, timestamp);
    m_mediaBytes += size;
}

void CMp4Repair::ReadSubtitleTrack()
{
    mp4_subtitle_track_info info{};
    info.timescale = Field<std::uint32_t>();  // not in the order of the record
    info.codec = Field<std::uint8_t>();
    m_moov->SetSubtitleTrack(info);
}

void CMp4Repair::ReadSubtitleFrame()
{
    const auto timestamp = Field<std::uint64_t>();
    const auto size = Field<std::uint32_t>();
    m_moov->AddSubtitleSample(Place(size), size, timestamp);
    m_mediaBytes += size;
}

void CMp4Repair::ReadTimeCodeTrack()
{
    mp4_time_code_track_info info{};
    info.timescale = Field<std::uint32_t>();
    info.frame_duration = Field<std::uint64_t>();
    info.frames_per_second = Field<std::uint8_t>();
    info.flags = Field<std::uint32_t>();
    m_moov->SetTimeCodeTrack(info);
}

void CMp4Repair::ReadTimeCode()
{
    Field<std::uint32_t>();  // the frame number stays in `mdat`
    CMp4TCTrakAtom& track = m_moov->m_trackTC;
    track.m_mdia.m_minf.m_stbl.AddSample(Place(kTimeCodeSize),
                                         m_moov->m_lastTrackId != track.m_trackId);
    ++track.m_sampleCount;
    m_moov->m_lastTrackId = track.m_trackId;
    // Kept: m_mediaBytes is not touched; `mdat` of a repaired file is short by its time codes.
}
