// `avcC` (ISO/IEC 14496-15).
#include "stsd.h"

#include "log.h"

#include <cstring>
#include <new>

std::unique_ptr<std::uint8_t[]> CopyNalUnit(const std::uint8_t* nal, std::int16_t size)
{
    if (size < 0)
        throw std::bad_array_new_length();
    const auto bytes = static_cast<std::size_t>(size);
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[bytes]);
    std::memcpy(copy.get(), nal, bytes);
    return copy;
}

void CMp4AvccAtom::SetCodecData(const mp4_video_track_info& info)
{
    m_sps.reset();
    m_pps.reset();
    m_spsSize = 0;
    m_ppsSize = 0;
    // Kept: here the address tells whether there is a set, in the set-up of the track the length.
    if (info.sps) {
        m_sps = CopyNalUnit(info.sps, info.sps_size);
        m_spsSize = info.sps_size;
    }
    if (info.pps) {
        m_pps = CopyNalUnit(info.pps, info.pps_size);
        m_ppsSize = info.pps_size;
    }
    m_size = static_cast<std::uint32_t>(m_ppsSize + m_spsSize + 19);
}

void CMp4AvccAtom::Write()
{
    const std::int64_t start = m_buffer.Tell();
    CFieldWriter f(m_buffer);
    f.U32(8);
    f.Code("avcC");
    f.U8(1);  // configurationVersion
    // Kept: on failure these nine bytes stay in the buffer, and nothing reaches the sink.
    if (m_spsSize < 4 || m_ppsSize == 0) {
        PrintLine("LibMp4 : Error - Invalid sps(%d) or pps(%d) size !\n", m_spsSize, m_ppsSize);
        throw 49;
    }
    f.U8(m_sps[1]);  // AVCProfileIndication
    f.U8(m_sps[2]);  // profile_compatibility
    f.U8(m_sps[3]);  // AVCLevelIndication
    f.U8(0xFF);      // lengthSizeMinusOne 3
    f.U8(0xE1);      // numOfSequenceParameterSets 1
    f.U16(static_cast<std::uint16_t>(m_spsSize));
    f.Bytes(m_sps.get(), static_cast<std::size_t>(m_spsSize));
    f.U8(1);  // numOfPictureParameterSets
    f.U16(static_cast<std::uint16_t>(m_ppsSize));
    f.Bytes(m_pps.get(), static_cast<std::size_t>(m_ppsSize));
    // Kept: no extension for the High profiles, as nothing of the SPS is parsed.
    FinishBufferedBox(start);
    m_buffer.Flush();
}
