#include "trak.h"

#include "log.h"

#define UNIT "src/trak"

namespace {

constexpr std::uint32_t kDefaultTimescale = 1000;
constexpr std::uint32_t kTimeCodeReference = 10;

}  // namespace

// ---- Header, edit list, references ---------------------------------------------------------

void CMp4TkhdAtom::Write()
{
    const std::uint8_t version = m_version ? 1 : 0;
    Leaf("tkhd", [&](CFieldWriter& f) {
        f.VersionFlags(version, m_notEnabled ? 2 : 3);
        f.Wide(version, 0);  // creation time
        f.Wide(version, 0);  // modification time
        f.U32(m_trackId);
        f.U32(0);  // reserved
        f.Wide(version, m_duration);
        f.Zeros(8);  // reserved
        f.U16(0);    // layer
        f.U16(m_alternateGroup);
        f.U16(m_width != 0 ? 0 : 0x0100);  // volume
        f.U16(0);                          // reserved
        f.Matrix(1, 0, 0, 1, 0, 0);
        f.Fixed16(m_width);
        f.Fixed16(m_height);
    });
}

void CMp4ElstAtom::Write()
{
    const std::uint8_t version = m_version ? 1 : 0;
    Leaf("elst", [&](CFieldWriter& f) {
        f.VersionFlags(version, 0);
        f.U32(1);                     // entry count
        f.Wide(version, m_duration);  // segment duration
        f.Wide(version, 0);           // media time
        f.Fixed16(1);                 // media rate
    });
}

void CMp4EdtsAtom::Write()
{
    Container("edts", [this] { m_elst.Write(); });
}

void CMp4RefTrackTypeAtom::Write()
{
    Container(m_type == kTimeCodeReference ? "tmcd" : "\0\0\0\0", [this] {
        CFieldWriter f(*m_io);
        for (std::uint32_t i = 0; i < m_count; ++i)
            f.U32(m_trackIds[i]);
    });
}

void CMp4RefTrakAtom::Write()
{
    Container("tref", [this] {
        for (CMp4RefTrackTypeAtom& reference : m_references)
            reference.Write();
    });
}

std::uint32_t CMp4RefTrakAtom::GetSize() const
{
    std::uint32_t size = 8;
    for (const CMp4RefTrackTypeAtom& reference : m_references)
        size += reference.GetSize();
    return size;
}

void CMp4RefTrakAtom::AddTimeCode(std::uint32_t trackId)
{
    CMp4RefTrackTypeAtom& reference = m_references.emplace_back(m_io);
    reference.m_type = kTimeCodeReference;
    reference.m_trackIds[0] = trackId;
    reference.m_count = 1;
}

// ---- The common track ----------------------------------------------------------------------

void CMp4TrakAtom::Write()
{
    if (m_trackId == 0)
        return;
    const auto samples = static_cast<std::int32_t>(GetSampleCount());
    if (samples < 1) {
        // Kept: the wording is the same for all four kinds of track.
        LOG_ERROR("audio track samples {}", samples);
        return;
    }
    Container("trak", [this] {
        const std::uint64_t duration = GetDuration();
        const std::uint32_t timescale = GetTimescale();
        std::uint64_t movieDuration = duration;
        if (timescale == 0) {
            movieDuration = 0;  // Kept: a time-code record is taken with a timescale of 0, too
        } else if (timescale != m_movieTimescale) {
            const auto scaled = static_cast<std::int64_t>(m_movieTimescale * duration);
            movieDuration = static_cast<std::uint64_t>(scaled / std::int64_t{timescale});
        }
        m_tkhd.m_duration = movieDuration;
        m_edts.m_elst.m_duration = movieDuration;
        m_tkhd.Write();
        m_edts.Write();
        WriteReferences();
        WriteMedia();
    });
}

void CMp4TrakAtom::SetLongDuration()
{
    m_tkhd.m_version = 1;
    m_edts.m_elst.m_version = 1;
}

std::uint64_t CMp4TrakAtom::GetDuration()
{
    if (m_lastDuration == 0)
        m_lastDuration = m_lastDelta;
    return m_lastTime - m_firstTime + m_lastDuration;
}

// Kept: bytes, in units of 1024 per second, for all that it is named; displays divide by it.
double CMp4TrakAtom::GetBitrate()
{
    const std::uint64_t duration = GetDuration();
    if (duration == 0)
        return 0.0;
    const auto bits = static_cast<double>(std::uint64_t{GetTimescale()} * GetDataSize());
    return bits / static_cast<double>(static_cast<std::int64_t>(duration << 10));
}

void CMp4TrakAtom::AdvanceTime(std::uint64_t time)
{
    m_lastDelta = static_cast<std::uint32_t>(time) - static_cast<std::uint32_t>(m_lastTime);
    m_lastTime = time;
}

void CMp4TrakAtom::SetTrackId(std::uint32_t trackId)
{
    m_trackId = trackId;
    m_tkhd.m_trackId = trackId;
}

std::uint32_t CMp4TrakAtom::SizeWith(std::uint32_t rest) const
{
    if (m_trackId == 0 || static_cast<std::int32_t>(GetSampleCount()) < 1)
        return 0;
    return 8 + m_tkhd.GetSize() + m_edts.GetSize() + rest;
}

// ---- Video ---------------------------------------------------------------------------------

CMp4VideoTrakAtom::CMp4VideoTrakAtom(IBaseIO* io) : CMp4TrakAtom(io), m_mdia(io), m_tref(io)
{
    m_info.timescale = kDefaultTimescale;
}

std::uint32_t CMp4VideoTrakAtom::GetSize() const
{
    return SizeWith((m_hasTref ? m_tref.GetSize() : 0) + m_mdia.GetSize());
}

void CMp4VideoTrakAtom::SetLongDuration()
{
    CMp4TrakAtom::SetLongDuration();
    m_mdia.m_mdhd.m_version = 1;
}

void CMp4VideoTrakAtom::WriteMedia()
{
    m_mdia.m_mdhd.m_duration = GetDuration();
    m_mdia.Write();
}

void CMp4VideoTrakAtom::WriteReferences()
{
    if (m_hasTref)
        m_tref.Write();
}

void CMp4VideoTrakAtom::AddSample(std::uint64_t offset, std::uint32_t size,
                                  std::uint64_t presentationTime, std::uint64_t decodingTime,
                                  bool keyFrame, bool newChunk)
{
    ++m_sampleCount;
    AdvanceTime(presentationTime);
    CMp4VideoStblAtom& stbl = m_mdia.m_minf.m_stbl;
    stbl.AddSample(offset, static_cast<std::int32_t>(size), presentationTime, decodingTime,
                   newChunk);
    if (keyFrame) {
        stbl.m_stss.AddSample(static_cast<std::uint32_t>(m_sampleCount));
        // Kept: a recording that does not start with a key frame counts its duration from 0.
        if (m_sampleCount == 1)
            m_firstTime = presentationTime;
    }
}

void CMp4VideoTrakAtom::AddTrackReference(std::uint32_t trackId)
{
    m_tref.AddTimeCode(trackId);
    m_hasTref = 1;
}

// ---- Audio, captions, time code ------------------------------------------------------------

CMp4AudioTrakAtom::CMp4AudioTrakAtom(IBaseIO* io) : CMp4TrakAtom(io), m_mdia(io)
{
    m_info.timescale = kDefaultTimescale;
    m_tkhd.m_alternateGroup = 1;
}

void CMp4AudioTrakAtom::SetLongDuration()
{
    CMp4TrakAtom::SetLongDuration();
    m_mdia.m_mdhd.m_version = 1;
}

void CMp4AudioTrakAtom::WriteMedia()
{
    m_mdia.m_mdhd.m_duration = GetDuration();
    m_mdia.Write();
}

void CMp4SubtitleTrakAtom::SetLongDuration()
{
    CMp4TrakAtom::SetLongDuration();
    m_mdia.m_mdhd.m_version = 1;
}

void CMp4SubtitleTrakAtom::WriteMedia()
{
    m_mdia.m_mdhd.m_duration = GetDuration();
    m_mdia.Write();
}

void CMp4TCTrakAtom::SetLongDuration()
{
    CMp4TrakAtom::SetLongDuration();
    m_mdia.m_mdhd.m_version = 1;
}

void CMp4TCTrakAtom::WriteMedia()
{
    const std::uint64_t duration = GetDuration();
    m_mdia.m_mdhd.m_duration = duration;
    // A lone sample so spans the whole video.
    m_mdia.m_minf.m_stbl.m_stts.m_defaultDelta = static_cast<std::uint32_t>(duration);
    m_mdia.Write();
}
