// The packets of the info file. Each goes out after the tree was changed and after the media bytes
// were handed over. A failure ends the log, never the recording.
#include "Mp4Muxer.h"

#include "big_endian.h"
#include "log.h"

#include <cstring>

namespace {

constexpr std::uint32_t kSmallestFlushInterval = 10;  // video frames
constexpr std::uint32_t kIntervalChanged = 4;         // Kept: the reverse of all other results
constexpr std::uint32_t kIntervalRefused = 0;

void Tag(CFieldWriter& f, InfoTag tag)
{
    f.U8(static_cast<std::uint8_t>(tag));
}

// A length with the bytes behind it; the length widens with its sign.
void ParameterSet(CFieldWriter& f, const std::uint8_t* data, std::int16_t size)
{
    f.U32(static_cast<std::uint32_t>(std::int32_t{size}));
    // Kept: a record may give a size without an address; its packet has the length and no bytes.
    if (data && size > 0)
        f.Bytes(data, static_cast<std::size_t>(size));
}

// The packet of a sample, which is short and written for every one: composed here, so that it costs
// one write and not one a field.
class CSamplePacket {
public:
    explicit CSamplePacket(InfoTag tag) { U8(static_cast<std::uint8_t>(tag)); }

    void U8(std::uint8_t value) { m_bytes[m_size++] = value; }
    void U32(std::uint32_t value) { BigEndian<4>(value); }
    void U64(std::uint64_t value) { BigEndian<8>(value); }

    void WriteTo(IBaseIO& target) const { CFieldWriter(target).Bytes(m_bytes, m_size); }

private:
    template <std::size_t Width>
    void BigEndian(std::uint64_t value)
    {
        StoreBE<Width>(m_bytes + m_size, value);
        m_size += Width;
    }

    std::uint8_t m_bytes[1 + 8 + 8 + 1 + 4];  // a video frame's, the longest
    std::size_t m_size = 0;
};

}  // namespace

template <typename Fields>
std::uint32_t CMp4Muxer::WriteInfo(Fields fields)
{
    const auto failed = Guarded([&] {
        CFieldWriter f(m_infoWriter);
        fields(f);
    });
    if (!failed)
        return MP4_OK;
    m_infoWriter.Close();
    return *failed;
}

std::uint32_t CMp4Muxer::WriteInfoHeader(std::uint8_t flags)
{
    return WriteInfo([flags](CFieldWriter& f) { f.U8(flags); });
}

std::uint32_t CMp4Muxer::WriteInfoMdatPosition(std::uint32_t position)
{
    const std::uint32_t status = WriteInfo([position](CFieldWriter& f) { f.U32(position); });
    return status == MP4_OK ? FlushInfo() : status;
}

std::uint32_t CMp4Muxer::FlushInfo()
{
    try {
        m_infoWriter.Flush();
    } catch (const kv_mp4_exception& error) {
        m_infoWriter.Close();
        return ErrorFromErrno(error.code);
    } catch (...) {
        return MP4_ERR_FAILED;  // Kept: the log stays open
    }
    return MP4_OK;
}

std::uint32_t CMp4Muxer::WriteInfoVideoTrack(const mp4_video_track_info& info)
{
    return WriteInfo([&info](CFieldWriter& f) {
        Tag(f, InfoTag::VideoTrack);
        f.U32(info.timescale);
        f.U64(info.sample_duration);
        f.U8(info.codec);
        f.U16(info.width);
        f.U16(info.height);
        if (info.codec == MP4_VIDEO_PRORES) {
            f.U8(info.prores_format);
            return;
        }
        if (info.codec == MP4_VIDEO_HEVC)
            ParameterSet(f, info.vps, info.vps_size);
        ParameterSet(f, info.sps, info.sps_size);
        ParameterSet(f, info.pps, info.pps_size);
    });
}

std::uint32_t CMp4Muxer::WriteInfoAudioTrack(const mp4_audio_track_info& info)
{
    return WriteInfo([&info](CFieldWriter& f) {
        Tag(f, InfoTag::AudioTrack);
        f.U32(info.timescale);
        f.U64(info.sample_duration);
        f.U8(info.codec);
        f.U16(info.sample_rate);
        f.U16(info.channels);
        f.U8(info.object_type);
    });
}

std::uint32_t CMp4Muxer::WriteInfoSubtitleTrack(const mp4_subtitle_track_info& info)
{
    return WriteInfo([&info](CFieldWriter& f) {
        Tag(f, InfoTag::SubtitleTrack);
        // Kept: not in the order of the record; logs in the field are read so.
        f.U32(info.timescale != 0 ? info.timescale : 1000);
        f.U8(info.codec);
    });
}

std::uint32_t CMp4Muxer::WriteInfoTimeCodeTrack(const mp4_time_code_track_info& info)
{
    return WriteInfo([&info](CFieldWriter& f) {
        Tag(f, InfoTag::TimeCodeTrack);
        f.U32(info.timescale);
        f.U64(info.frame_duration);
        f.U8(info.frames_per_second);
        f.U32(info.flags);
    });
}

std::uint32_t CMp4Muxer::WriteInfoMetadata(const char* key, const void* value, std::uint32_t size,
                                           std::uint32_t type, const char* key_namespace)
{
    return WriteInfo([&](CFieldWriter& f) {
        // Texts are stored with their end mark.
        const auto text = [&f](const char* characters) {
            const auto length = static_cast<std::uint32_t>(std::strlen(characters) + 1);
            f.U32(length);
            f.Bytes(characters, length);
        };
        Tag(f, InfoTag::Metadata);
        f.U8(type);
        text(key);
        if (!value) {
            f.U32(0);  // the item was removed
        } else if (type == MP4_METADATA_TEXT) {
            text(static_cast<const char*>(value));
        } else {
            f.U32(size);
            // Kept: an empty value is not writable and so ends the log.
            if (m_infoWriter.IsOpen())
                m_infoWriter.Write(value, size);
        }
        if (key_namespace)
            text(key_namespace);
        else
            f.U32(0);
    });
}

std::uint32_t CMp4Muxer::WriteInfoVideoFrame(std::uint32_t size, std::uint64_t pts,
                                             std::uint64_t dts, bool key)
{
    const std::uint32_t status = WriteInfo([&](CFieldWriter& f) {
        CSamplePacket packet(InfoTag::VideoFrame);
        packet.U64(pts);
        packet.U64(dts);
        packet.U8(key);
        packet.U32(size);
        packet.WriteTo(f.Target());
    });
    if (status != MP4_OK || !m_infoWriter.IsOpen())
        return status;
    ++m_infoFrames;  // Kept: video alone; a log without video is flushed at its end
    if (m_infoFrames - m_infoFlushedFrames >= m_infoFlushInterval) {
        // The log must not outlive the data that it names. A writer that fails here refuses the
        // next frame.
        Guarded([this] { FlushLocal(); });
        FlushInfo();  // Kept: its result is dropped; a log that ends here ends without a word
        m_infoFlushedFrames = m_infoFrames;
    }
    return MP4_OK;
}

std::uint32_t CMp4Muxer::WriteInfoAudioFrame(std::uint32_t size, std::uint64_t timestamp)
{
    return WriteInfo([&](CFieldWriter& f) {
        CSamplePacket packet(InfoTag::AudioFrame);
        packet.U64(timestamp);
        packet.U32(size);
        packet.WriteTo(f.Target());
    });
}

std::uint32_t CMp4Muxer::WriteInfoSubtitleFrame(std::uint32_t size, std::uint64_t timestamp)
{
    return WriteInfo([&](CFieldWriter& f) {
        CSamplePacket packet(InfoTag::SubtitleFrame);
        packet.U64(timestamp);
        packet.U32(size);
        packet.WriteTo(f.Target());
    });
}

std::uint32_t CMp4Muxer::WriteInfoTimeCode(std::uint32_t value)
{
    return WriteInfo([value](CFieldWriter& f) {
        Tag(f, InfoTag::TimeCode);
        f.U32(value);
    });
}

std::uint32_t CMp4Muxer::SetInfoFlushInterval(std::uint32_t interval)
{
    if (interval < kSmallestFlushInterval) {
        PrintLine("ERROR:info file flush interval(%d) too small\n", static_cast<int>(interval));
        return kIntervalRefused;
    }
    PrintLine("change info file flush interval from %d to %d\n",
              static_cast<int>(m_infoFlushInterval), static_cast<int>(interval));
    m_infoFlushInterval = interval;
    return kIntervalChanged;
}
