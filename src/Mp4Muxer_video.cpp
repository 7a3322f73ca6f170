// One access unit or ProRes picture becomes one sample, in the order of arrival.
#include "Mp4Muxer.h"

#include "log.h"

#define UNIT "src/Mp4Muxer"

std::uint32_t CMp4Muxer::WriteVideoFrame(const VideoFrame& frame)
{
    if (const auto refused = Refusal())
        return *refused;
    if (!frame.data || frame.size == 0) {
        LOG_WARN("write video frame with empty data");
        return MP4_OK;
    }
    const bool proRes = m_videoInfo.codec == MP4_VIDEO_PRORES;
    CVideoFrameParser parser;
    if (!proRes && !parser.Parse(frame.data, frame.size)) {
        LOG_ERROR("Parse video frame fail !");
        return MP4_ERR_PARSE_VIDEO;
    }
    if (!proRes && !m_nalParser) {
        LOG_ERROR("invalid video track!");
        return MP4_ERR_NO_VIDEO_TRACK;
    }
    const CMAutoLock hold(m_lock);
    // Kept: its result is not looked at, and a frame that is dropped below counts as well.
    CheckSafeWrite(frame.size);
    // Kept: a dropped frame is a success, so that a caller can feed an encoder's output from its
    // first frame on. Once ready, the stream is never looked at again.
    if (!m_videoReady && !GetVideoCodecData(parser)) {
        LOG_WARN("no codec data, drop frame");
        return MP4_OK;
    }
    std::uint32_t size = 0;
    bool key = frame.key != 0;
    if (proRes) {
        // Kept: not guarded; callers catch what a failing write raises here.
        CFieldWriter(*m_pFile).Bytes(frame.data, frame.size);
        size = frame.size;
        key = true;
    } else {
        // Kept: m_dataPos does not move on a failure, although units may have reached the file;
        // only a write that raised something foreign leaves the file in use.
        const auto failed = Guarded([&] { WriteNalUnits(parser, size, key); },
                                    [] { LOG_ERROR("exception when write file"); });
        if (failed)
            return *failed;
    }
    CMp4VideoTrakAtom& track = m_moov->m_trakVideo;
    NeedingMemory([&] {
        track.AddSample(m_dataPos, size, frame.pts, frame.dts, key,
                        m_moov->m_lastTrackId != track.m_trackId);
    });
    m_moov->m_lastTrackId = track.m_trackId;
    m_dataPos += size;
    WriteBehind();
    return m_infoWriter.IsOpen() ? WriteInfoVideoFrame(size, frame.pts, frame.dts, key)
                                 : std::uint32_t{MP4_OK};
}

// Annex B to the length-prefixed form: every unit goes in, none is filtered.
void CMp4Muxer::WriteNalUnits(const CVideoFrameParser& parser, std::uint32_t& size, bool& key)
{
    CFieldWriter file(*m_pFile);
    for (const _VIDEO_SLICE& unit : parser) {
        file.U32(unit.size);
        file.Bytes(unit.data, unit.size);
        size += 4 + unit.size;
        key |= m_nalParser->IsKeyFrame(unit.data, unit.size);
    }
}

// Looks for the parameter sets that the track was opened without. True once the set is complete and
// the track is set; what was found so far stays for the next frame.
bool CMp4Muxer::GetVideoCodecData(const CVideoFrameParser& parser)
{
    const bool hevc = m_videoInfo.codec == MP4_VIDEO_HEVC;
    if (parser.empty())
        return false;
    if (!hevc && m_videoInfo.codec != MP4_VIDEO_H264) {
        LOG_ERROR("unknown codec type {}", m_videoInfo.codec);
        return false;
    }
    // Copies, so that sets may arrive in frames whose buffers are gone by the time of the last one.
    const auto keep = [](const _VIDEO_SLICE& unit, std::vector<std::uint8_t>& copy,
                         const std::uint8_t*& data, std::int16_t& size) {
        data = nullptr;  // should memory lack for the copy
        copy.assign(unit.data, unit.data + unit.size);
        data = copy.data();
        size = static_cast<std::int16_t>(unit.size);  // Kept: the low 16 bits
    };
    for (const _VIDEO_SLICE& unit : parser) {
        const std::uint32_t type = hevc ? unit.data[0] >> 1 & 63 : unit.data[0] & 31;
        if (type == (hevc ? 33u : 7u))
            keep(unit, m_foundSps, m_videoInfo.sps, m_videoInfo.sps_size);
        else if (type == (hevc ? 34u : 8u))
            keep(unit, m_foundPps, m_videoInfo.pps, m_videoInfo.pps_size);
        else if (hevc && type == 32)
            keep(unit, m_foundVps, m_videoInfo.vps, m_videoInfo.vps_size);
        if (m_videoInfo.sps && m_videoInfo.pps && (!hevc || m_videoInfo.vps)) {
            m_videoReady = true;
            LOG_INFO("found video codec data in stream, set video track info");
            // Kept: a failing log does not drop the frame.
            SettingUp([this] { AnnounceVideoTrack(m_videoInfo); }, [this] { m_videoReady = false; });
            return true;
        }
    }
    return false;
}
