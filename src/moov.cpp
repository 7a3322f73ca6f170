#include "moov.h"

#include "aac_config.h"
#include "log.h"

#include <algorithm>
#include <cstring>

#define UNIT "src/moov"

namespace {

constexpr std::uint32_t kMovieTimescale = 1000;
constexpr std::uint32_t kDefaultTimescale = 1000;
constexpr std::uint32_t kStagingSlack = 1024;  // bytes that GetSize may leave out

// A track's duration in milliseconds; video and audio never have a timescale of 0.
std::uint64_t DurationMs(CMp4TrakAtom& track)
{
    return track.GetDuration() * 1000 / track.GetTimescale();
}

}  // namespace

void CMp4MvhdAtom::Write()
{
    const std::uint8_t version = m_version ? 1 : 0;
    Leaf("mvhd", [&](CFieldWriter& f) {
        f.VersionFlags(version, 0);
        f.Wide(version, 0);  // creation time
        f.Wide(version, 0);  // modification time
        f.U32(kMovieTimescale);
        f.Wide(version, m_duration);
        f.Fixed16(1);  // rate
        f.Fixed8(1);   // volume
        f.Zeros(10);   // reserved
        f.Matrix(1, 0, 0, 1, 0, 0);
        f.Zeros(24);            // pre-defined
        f.U32(m_maxTrackId + 1);  // next track id
    });
}

CMp4MoovAtom::CMp4MoovAtom(IBaseIO* io, bool staged, IBaseIO* finalSink)
    : CMp4Atom(io), m_mvhd(io), m_trakVideo(io), m_trakAudio(io), m_trackTC(io),
      m_trakSubtitle(io), m_staged(staged), m_finalSink(finalSink), m_udta(io)
{
    m_trackTC.m_tkhd.m_notEnabled = 1;
}

// ---- Track set-up --------------------------------------------------------------------------

void CMp4MoovAtom::TakeId(CMp4TrakAtom& track)
{
    ++m_trackCount;
    track.SetTrackId(m_trackCount);
    m_mvhd.m_maxTrackId = m_trackCount;
}

void CMp4MoovAtom::SetVideoTrack(const mp4_video_track_info& info)
{
    TakeId(m_trakVideo);
    m_trakVideo.m_info = info;
    if (m_trakVideo.m_info.timescale == 0)
        m_trakVideo.m_info.timescale = kDefaultTimescale;
    m_trakVideo.m_tkhd.m_width = info.width;
    m_trakVideo.m_tkhd.m_height = info.height;
    CMp4VideoStblAtom& stbl = m_trakVideo.m_mdia.m_minf.m_stbl;
    stbl.m_stsd.m_width = info.width;
    stbl.m_stsd.m_height = info.height;
    m_trakVideo.m_mdia.m_mdhd.m_timescale = m_trakVideo.m_info.timescale;
    m_trakVideo.m_lastDuration = static_cast<std::uint32_t>(info.sample_duration);
    stbl.m_stts.m_defaultDelta = static_cast<std::uint32_t>(info.sample_duration);
    switch (info.codec) {
    case MP4_VIDEO_H264:
        std::memcpy(stbl.m_stsd.m_fourcc, "avc1", 4);
        stbl.m_stsd.m_avcc.SetCodecData(info);
        break;
    case MP4_VIDEO_HEVC:
        std::memcpy(stbl.m_stsd.m_fourcc, "hev1", 4);
        stbl.m_stsd.m_hvcc.SetCodecData(info);
        break;
    case MP4_VIDEO_PRORES: stbl.m_stsd.SetProRes(&info.prores_format); break;
    default: break;
    }
}

void CMp4MoovAtom::SetAudioTrack(const mp4_audio_track_info& info)
{
    TakeId(m_trakAudio);
    m_trakAudio.m_info = info;
    if (m_trakAudio.m_info.timescale == 0)
        m_trakAudio.m_info.timescale = kDefaultTimescale;
    m_trakAudio.m_mdia.m_mdhd.m_timescale = m_trakAudio.m_info.timescale;
    CMp4AudioStblAtom& stbl = m_trakAudio.m_mdia.m_minf.m_stbl;
    CMp4AudioStsdAtom& stsd = stbl.m_stsd;
    stsd.m_sampleRate = info.sample_rate;
    stsd.m_wave.m_trackId = m_trakAudio.m_trackId;
    stsd.m_wave.m_esds.m_esId = m_trakAudio.m_trackId;
    stsd.m_esds.m_esId = m_trakAudio.m_trackId;
    m_trakAudio.m_lastDuration = static_cast<std::uint32_t>(info.sample_duration);
    stbl.m_stts.m_defaultDelta = static_cast<std::uint32_t>(info.sample_duration);
    if (info.codec != MP4_AUDIO_AAC_RAW && info.codec != MP4_AUDIO_AAC_ADTS)
        return;  // Kept: any other codec leaves the entry without a type
    std::memcpy(stsd.m_fourcc, "mp4a", 4);
    constexpr std::uint32_t kConfigSize = 2;
    std::uint8_t config[kConfigSize];
    MakeAudioSpecificConfig(info.object_type, info.sample_rate,
                            static_cast<std::uint8_t>(info.channels), config);
    for (CMp4EsdsAtom* esds : {&stsd.m_wave.m_esds, &stsd.m_esds}) {
        esds->m_config = std::make_unique<std::uint8_t[]>(kConfigSize);
        std::memcpy(esds->m_config.get(), config, kConfigSize);
        esds->m_configSize = kConfigSize;
    }
}

void CMp4MoovAtom::SetSubtitleTrack(const mp4_subtitle_track_info& info)
{
    TakeId(m_trakSubtitle);
    m_trakSubtitle.m_codec = info.codec;
    m_trakSubtitle.m_timescale = info.timescale != 0 ? info.timescale : kDefaultTimescale;
    m_trakSubtitle.m_mdia.m_mdhd.m_timescale = m_trakSubtitle.m_timescale;
    CMp4SubtitleStblAtom& stbl = m_trakSubtitle.m_mdia.m_minf.m_stbl;
    stbl.m_stts.m_defaultDelta = 0;
    stbl.m_stsd.SetCodec(info.codec);
}

void CMp4MoovAtom::SetTimeCodeTrack(const mp4_time_code_track_info& info)
{
    TakeId(m_trackTC);
    m_trackTC.m_info = info;
    m_trackTC.m_mdia.m_mdhd.m_timescale = info.timescale;
    CMp4TMCDStsdAutom& stsd = m_trackTC.m_mdia.m_minf.m_stbl.m_stsd;
    stsd.m_timescale = info.timescale;
    stsd.m_frameDuration = static_cast<std::uint32_t>(info.frame_duration);
    stsd.m_flags = info.flags;
    stsd.m_frames = info.frames_per_second;
    m_trakVideo.AddTrackReference(m_trackTC.m_trackId);
}

// ---- Samples -------------------------------------------------------------------------------

template <typename Track>
void CMp4MoovAtom::AddSample(Track& track, std::uint64_t offset, std::uint32_t size,
                             std::uint64_t time)
{
    // Kept: a track without an id matches the initial 0, so that a sample ahead of the set-up opens
    // no chunk; tables of such files are read so.
    const bool newChunk = m_lastTrackId != track.m_trackId;
    track.AdvanceTime(time);
    ++track.m_sampleCount;
    track.m_mdia.m_minf.m_stbl.AddSample(offset, static_cast<std::int32_t>(size), time, time,
                                         newChunk);
    if (track.m_sampleCount == 1)
        track.m_firstTime = time;
    m_lastTrackId = track.m_trackId;
}

void CMp4MoovAtom::AddAudioSample(std::uint64_t offset, std::uint32_t size, std::uint64_t time)
{
    AddSample(m_trakAudio, offset, size, time);
}

void CMp4MoovAtom::AddSubtitleSample(std::uint64_t offset, std::uint32_t size, std::uint64_t time)
{
    AddSample(m_trakSubtitle, offset, size, time);
}

// ---- Durations -----------------------------------------------------------------------------

std::uint64_t CMp4MoovAtom::GetDurationMS()
{
    const std::uint64_t audio = DurationMs(m_trakAudio);
    return std::max(DurationMs(m_trakVideo), audio);
}

void CMp4MoovAtom::SetLongDuration()
{
    m_mvhd.m_version = 1;
    m_trakVideo.SetLongDuration();
    m_trakAudio.SetLongDuration();
    // Kept: captions and time code stay at 32 bits; readers find version 0 there in every file.
}

void CMp4MoovAtom::UseCo64()
{
    // Kept: captions are left out and always write stco; their tables have no other form.
    m_trakVideo.m_mdia.m_minf.m_stbl.m_useCo64 = 1;
    m_trakAudio.m_mdia.m_minf.m_stbl.m_useCo64 = 1;
    m_trackTC.m_mdia.m_minf.m_stbl.m_useCo64 = 1;
}

// ---- Writing -------------------------------------------------------------------------------

void CMp4MoovAtom::WriteTrack(CMp4TrakAtom& track)
{
    track.m_movieTimescale = kMovieTimescale;
    track.Write();
}

void CMp4MoovAtom::WriteHeaderAndMainTracks()
{
    m_mvhd.m_duration = GetDurationMS();  // captions and time code do not count
    m_mvhd.Write();
    WriteTrack(m_trakVideo);
    WriteTrack(m_trakAudio);
}

void CMp4MoovAtom::WriteTimeCodeTrack()
{
    // The time code spans the video, whatever its own samples say.
    m_trackTC.m_lastTime = std::uint64_t{m_trackTC.GetTimescale()} * m_trakVideo.GetDuration() /
                           m_trakVideo.GetTimescale();
    m_trackTC.m_firstTime = 0;
    WriteTrack(m_trackTC);
}

void CMp4MoovAtom::CheckSize(std::uint32_t written) const
{
    if (written == GetSize())
        return;
    LOG_WARN("calc size({}) not equal to moov real size:{}", GetSize(), written);
    LOG_INFO("m_mvhd size:{}, m_trakVideo size:{}, m_trakAudio size:{}, m_trakSubtitle size:{}, "
             "m_trackTC size:{}, m_udta size:{}",
             m_mvhd.GetSize(), m_trakVideo.GetSize(), m_trakAudio.GetSize(),
             m_trakSubtitle.GetSize(), m_trackTC.GetSize(), m_udta.GetSize());
}

void CMp4MoovAtom::Write()
{
    std::int64_t start = m_io->Tell();
    if (m_staged) {
        static_cast<CBufferIO*>(m_io)->AttachSink(m_finalSink,
                                                  std::uint64_t{GetSize()} + kStagingSlack);
        start = 0;
    }
    Container("moov", [this] {
        WriteHeaderAndMainTracks();
        WriteTimeCodeTrack();
        WriteTrack(m_trakSubtitle);
        m_udta.Write();
    });
    LOG_INFO("moov update size finished");
    const std::int64_t end = m_io->Tell();
    CheckSize(static_cast<std::uint32_t>(end - start));
    if (m_staged) {
        m_io->Flush();
        LOG_INFO("moov flush finished, size:{}", end);
    }
}

void CMp4MoovAtom::Write(std::uint64_t position)
{
    const auto target = static_cast<std::int64_t>(position);
    const std::int64_t saved = m_io->Tell();
    if (saved != target)
        m_io->Seek(target, kSeekStart);
    CFieldWriter sink(*m_io);
    sink.U32(8);
    sink.Code("moov");
    WriteHeaderAndMainTracks();
    WriteTrack(m_trakSubtitle);  // Kept: ahead of the time code here, behind it at a close
    WriteTimeCodeTrack();
    m_udta.Write();
    FinishBox(target);
    CheckSize(static_cast<std::uint32_t>(m_io->Tell() - target));
    m_io->Seek(saved, kSeekStart);
}

std::uint32_t CMp4MoovAtom::GetSize() const
{
    return 8 + m_mvhd.GetSize() + m_trakVideo.GetSize() + m_trakAudio.GetSize() +
           m_trackTC.GetSize() + m_trakSubtitle.GetSize() + m_udta.GetSize();
}
