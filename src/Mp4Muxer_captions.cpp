// Packed caption frames become `c608` and `c708` samples, and time codes `tmcd` samples. Nothing
// looks inside the caption or time-code data.
#include "Mp4Muxer.h"

#include "log.h"

#include <cstring>

#define UNIT "src/Mp4Muxer"

namespace {

constexpr std::uint8_t kFrameMark = 0x61;
constexpr std::uint32_t kFrameHeaderSize = 3;  // mark, kind, a byte by kind
constexpr std::uint32_t kEntrySize = 3;        // field selector and a byte pair
constexpr std::uint32_t kAtomSize = 10;        // size, type and a byte pair
constexpr std::uint32_t kTimeCodeSize = 4;

}  // namespace

std::uint32_t CMp4Muxer::WriteSubtitleFrame(const SubtitleFrame& frame)
{
    if (const auto refused = Refusal())
        return *refused;
    const CMAutoLock hold(m_lock);
    CheckSafeWrite(frame.size);  // Kept: the size of the input, and its result is not looked at
    if (m_subtitleCodec != MP4_SUBTITLE_CEA608 && m_subtitleCodec != MP4_SUBTITLE_CEA708) {
        LOG_ERROR("unknown subtitle codec type {}", m_subtitleCodec);
        return MP4_ERR_INVALID_SUBTITLE_CODEC;
    }
    std::uint32_t size = 0;
    const auto failed = Guarded([&] {
        // Kept: a malformed frame enters an empty sample at its time; the results say no more.
        if (m_subtitleCodec == MP4_SUBTITLE_CEA608)
            WriteCC608(frame.data, frame.size, size);
        else
            WriteCC708(frame.data, frame.size, size);
    });
    if (failed)
        return *failed;
    NeedingMemory([&] { m_moov->AddSubtitleSample(m_dataPos, size, frame.timestamp); });
    m_dataPos += size;
    return m_infoWriter.IsOpen() ? WriteInfoSubtitleFrame(size, frame.timestamp)
                                 : std::uint32_t{MP4_OK};
}

bool CMp4Muxer::WriteCC608(const std::uint8_t* data, std::uint32_t size,
                           std::uint32_t& sampleSize)
{
    sampleSize = 0;
    if (!data || size < 6 || data[0] != kFrameMark || data[1] != 2) {
        LOG_ERROR("subtitle 608 frame format error");
        return false;
    }
    // By field selector; only the last two bytes change.
    std::uint8_t atoms[2][kAtomSize] = {{0, 0, 0, kAtomSize, 'c', 'd', 'a', 't', 0, 0},
                                        {0, 0, 0, kAtomSize, 'c', 'd', 't', '2', 0, 0}};
    CFieldWriter file(*m_pFile);
    const std::uint32_t entries = (size - kFrameHeaderSize) / kEntrySize;
    for (std::uint32_t i = 0; i < entries; ++i) {
        const std::uint8_t* const entry = data + kFrameHeaderSize + i * kEntrySize;
        const std::uint32_t selector = entry[0] & 3;
        if (selector > 1)
            continue;  // no such field
        std::memcpy(atoms[selector] + 8, entry + 1, 2);
        file.Bytes(atoms[selector], kAtomSize);
        sampleSize += kAtomSize;
    }
    return true;
}

bool CMp4Muxer::WriteCC708(const std::uint8_t* data, std::uint32_t size,
                           std::uint32_t& sampleSize)
{
    if (!data || size < kFrameHeaderSize || data[0] != kFrameMark || data[1] != 1 ||
        data[2] > size - kFrameHeaderSize) {
        LOG_ERROR("subtitle 708 frame format error");
        return false;
    }
    const std::uint32_t length = data[2];
    const std::uint8_t header[8] = {0,   0,   static_cast<std::uint8_t>((length + 8) >> 8),
                                    static_cast<std::uint8_t>(length + 8),
                                    'c', 'c', 'd', 'p'};
    CFieldWriter file(*m_pFile);
    file.Bytes(header, sizeof header);
    file.Bytes(data + kFrameHeaderSize, length);
    sampleSize = length + 8;
    return true;
}

std::uint32_t CMp4Muxer::WriteTimeCode(std::uint32_t value)
{
    const CMAutoLock hold(m_lock);
    // Kept: no test but this one, and no checkpoint; a failed writer skips the write and enters the
    // sample. Callers stamp a time code at any moment and expect no more of it.
    if (!m_moov) {
        LOG_ERROR("file not open!");
        return MP4_ERR_NOT_OPEN;
    }
    if (const auto failed = Guarded([&] { WriteBE32(m_pFile.get(), value); }))
        return *failed;
    CMp4TCTrakAtom& track = m_moov->m_trackTC;
    NeedingMemory([&] {
        track.m_mdia.m_minf.m_stbl.AddSample(m_dataPos, m_moov->m_lastTrackId != track.m_trackId);
    });
    ++track.m_sampleCount;
    m_moov->m_lastTrackId = track.m_trackId;
    m_dataPos += kTimeCodeSize;
    return m_infoWriter.IsOpen() ? WriteInfoTimeCode(value) : std::uint32_t{MP4_OK};
}
