// Track set-up and metadata. Called under the process-wide lock; none takes the object's.
#include "Mp4Muxer.h"

#include "log.h"

#define UNIT "src/Mp4Muxer"

std::uint32_t CMp4Muxer::SetVideoTrack(const mp4_video_track_info* info)
{
    if (const auto refused = Refusal())
        return *refused;
    std::uint32_t status = MP4_OK;
    SettingUp([&] { status = TakeVideoTrack(*info); },
              [this] {
                  m_nalParser.reset();
                  m_videoInfo = mp4_video_track_info{};
              });
    return status;
}

std::uint32_t CMp4Muxer::TakeVideoTrack(const mp4_video_track_info& info)
{
    m_nalParser.reset();
    switch (info.codec) {
    case MP4_VIDEO_H264: m_nalParser = std::make_unique<CH264Nal>(); break;
    case MP4_VIDEO_HEVC: m_nalParser = std::make_unique<CHevcNal>(); break;
    case MP4_VIDEO_PRORES: break;
    default:
        // Kept: m_videoInfo stays, so that ProRes frames are stored on and others answer 9.
        LOG_ERROR("invalid codec type {}", info.codec);
        return MP4_ERR_INVALID_VIDEO_CODEC;
    }
    m_videoInfo = mp4_video_track_info{};
    m_videoInfo.codec = info.codec;
    m_videoInfo.sample_duration = info.sample_duration;
    m_videoInfo.timescale = info.timescale;
    m_videoInfo.width = info.width;
    m_videoInfo.height = info.height;

    // Kept: completeness goes by the sizes alone, never by the pointers.
    const bool pair = info.sps_size != 0 && info.pps_size != 0;
    m_videoReady = info.codec == MP4_VIDEO_PRORES ||
                   (pair && (info.codec == MP4_VIDEO_H264 || info.vps_size != 0));
    if (m_videoReady)
        return AnnounceVideoTrack(info);
    LOG_INFO("no codec data in video track info, try to find it in stream");
    return MP4_OK;
}

// Gives the track its id and its description, and logs it.
std::uint32_t CMp4Muxer::AnnounceVideoTrack(const mp4_video_track_info& info)
{
    m_moov->SetVideoTrack(info);
    return m_infoWriter.IsOpen() ? WriteInfoVideoTrack(info) : std::uint32_t{MP4_OK};
}

std::uint32_t CMp4Muxer::SetAudioTrack(const mp4_audio_track_info* info)
{
    if (const auto refused = Refusal())
        return *refused;
    m_audioReady = true;  // Kept: also when the record is refused below
    if (info->codec == MP4_AUDIO_AAC_RAW && (info->channels == 0 || info->sample_rate == 0)) {
        LOG_ERROR("invalid audio channel({}) or sample rate({})", info->channels,
                  info->sample_rate);
        return MP4_ERR_INVALID_PARAM;
    }
    if (info->codec == MP4_AUDIO_AAC_ADTS) {
        LOG_INFO("audio codec is adts, wait audio stream to get meta data");
        m_audioReady = false;
    }
    m_audioInfo = *info;
    return m_audioReady ? AnnounceAudioTrack() : std::uint32_t{MP4_OK};
}

std::uint32_t CMp4Muxer::AnnounceAudioTrack()
{
    m_moov->SetAudioTrack(m_audioInfo);
    return m_infoWriter.IsOpen() ? WriteInfoAudioTrack(m_audioInfo) : std::uint32_t{MP4_OK};
}

std::uint32_t CMp4Muxer::SetSubtitleTrack(const mp4_subtitle_track_info* info)
{
    if (const auto refused = Refusal())
        return *refused;
    m_subtitleCodec = info->codec;
    m_moov->SetSubtitleTrack(*info);
    return m_infoWriter.IsOpen() ? WriteInfoSubtitleTrack(*info) : std::uint32_t{MP4_OK};
}

std::uint32_t CMp4Muxer::SetTimeCodeTrack(const mp4_time_code_track_info* info)
{
    // Kept: no test of the writer's state; a failed writer still takes the track.
    if (!m_moov) {
        LOG_ERROR("file not open!");
        return MP4_ERR_NOT_OPEN;
    }
    m_moov->SetTimeCodeTrack(*info);
    return m_infoWriter.IsOpen() ? WriteInfoTimeCodeTrack(*info) : std::uint32_t{MP4_OK};
}

std::uint32_t CMp4Muxer::SetMetadata(const char* key, const void* value, std::uint32_t size,
                                     std::uint32_t type, const char* key_namespace)
{
    if (const auto refused = Refusal())
        return *refused;
    if (!m_moov->m_udta.m_meta.SetMetadata(key, value, size, type, key_namespace))
        return MP4_ERR_INVALID_PARAM;
    return m_infoWriter.IsOpen() ? WriteInfoMetadata(key, value, size, type, key_namespace)
                                 : std::uint32_t{MP4_OK};
}
