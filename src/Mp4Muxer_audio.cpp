// One AAC frame becomes one sample; an ADTS header goes. Timing is the caller's alone.
#include "Mp4Muxer.h"

#include "aac_config.h"
#include "log.h"

#define UNIT "src/Mp4Muxer"

std::uint32_t CMp4Muxer::WriteAudioFrame(const AudioFrame& frame)
{
    if (const auto refused = Refusal())
        return *refused;
    if (!frame.data || frame.size == 0) {
        LOG_WARN("write audio frame with empty data");
        return MP4_OK;
    }
    const CMAutoLock hold(m_lock);
    // Kept: its result is not looked at; it goes by the size with the header.
    CheckSafeWrite(frame.size);

    // Kept: tested on every frame of every codec; raw frames are told by their bytes alone.
    const bool adts = IsAdtsFrame(frame.data, frame.size);
    // Kept: only the first header is read; a stream that changes keeps its first description.
    if (!m_audioReady && m_audioInfo.codec == MP4_AUDIO_AAC_ADTS) {
        if (!adts) {
            LOG_ERROR("invalid ADTS stream, please check it.");
            return MP4_ERR_INVALID_ADTS;
        }
        const AdtsStream stream = ReadAdtsHeader(frame.data);
        m_audioInfo.sample_rate = stream.sample_rate;
        m_audioInfo.object_type = stream.object_type;
        m_audioInfo.channels = stream.channels;
        LOG_INFO("ADTS stream, get and set audio track");
        // Kept: after a failing log the next frame announces the track again, with another id.
        if (const std::uint32_t status = AnnounceAudioTrack(); status != MP4_OK)
            return status;
        m_audioReady = true;
    }
    const std::uint32_t skip = adts ? kAdtsHeaderSize : 0;
    const std::uint8_t* const data = frame.data + skip;
    const std::uint32_t size = frame.size - skip;

    const auto failed =
        Guarded([&] { CFieldWriter(*m_pFile).Bytes(data, size); },
                [size] { LOG_ERROR("write buffer exception, buffer size {}", size); });
    if (failed)
        return *failed;
    NeedingMemory([&] { m_moov->AddAudioSample(m_dataPos, size, frame.timestamp); });
    m_dataPos += size;
    WriteBehind();
    return m_infoWriter.IsOpen() ? WriteInfoAudioFrame(size, frame.timestamp)
                                 : std::uint32_t{MP4_OK};
}
