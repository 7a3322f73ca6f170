// `hvcC` (ISO/IEC 14496-15).
#include "stsd.h"

#include "log.h"

void CMp4HvccAtom::SetCodecData(const mp4_video_track_info& info)
{
    m_config.reset();
    m_vps.reset();
    m_sps.reset();
    m_pps.reset();
    m_vpsSize = 0;
    m_spsSize = 0;
    m_ppsSize = 0;
    m_config = std::make_unique<HEVCDecoderConfigurationRecord>();

    // Kept: a set whose walk fails keeps its copy and its array entry; only the length goes to 0,
    // and the first write of the box refuses.
    const auto take = [this](const std::uint8_t* data, std::int16_t size,
                             std::unique_ptr<std::uint8_t[]>& copy, std::int16_t& copySize,
                             const char* name) {
        if (!data)
            return;
        copy = CopyNalUnit(data, size);
        copySize = size;
        if (!ParseHevcNal(m_config.get(), copy.get(), size)) {
            PrintLine("LibMp4 : Error - Parse hevc %s fail !\n", name);
            copySize = 0;
        }
    };
    // The order gives the order of the arrays in the box.
    take(info.vps, info.vps_size, m_vps, m_vpsSize, "vps");
    take(info.sps, info.sps_size, m_sps, m_spsSize, "sps");
    take(info.pps, info.pps_size, m_pps, m_ppsSize, "pps");

    m_size = 31;
    for (const HvccNalArray& array : m_config->arrays) {
        m_size += 3;
        for (const HvccNalUnit& unit : array.nalUnits)
            m_size += 2u + unit.nalUnitLength;
    }
}

void CMp4HvccAtom::Write()
{
    if (m_vpsSize == 0 || m_spsSize == 0 || m_ppsSize == 0 || !m_config) {
        PrintLine("LibMp4 : Error - NULL hevc head !\n");
        throw 71;
    }
    FinishConfig(m_config.get());
    const HEVCDecoderConfigurationRecord& c = *m_config;
    Leaf("hvcC", [&c](CFieldWriter& f) {
        f.U8(c.configurationVersion);
        f.U8(static_cast<std::uint32_t>(c.general_profile_space << 6 | c.general_tier_flag << 5 |
                                        c.general_profile_idc));
        f.U32(c.general_profile_compatibility_flags);
        f.U32(static_cast<std::uint32_t>(c.general_constraint_indicator_flags >> 16));
        f.U16(static_cast<std::uint16_t>(c.general_constraint_indicator_flags));
        f.U8(c.general_level_idc);
        f.U16(0xF000u | c.min_spatial_segmentation_idc);
        f.U8(0xFCu | c.parallelismType);
        f.U8(0xFCu | c.chromaFormat);
        f.U8(0xF8u | c.bitDepthLumaMinus8);
        f.U8(0xF8u | c.bitDepthChromaMinus8);
        f.U16(c.avgFrameRate);
        // Kept: joined without masks, so that 8 temporal layers run over into constantFrameRate.
        f.U8(static_cast<std::uint32_t>(c.constantFrameRate << 6 | c.numTemporalLayers << 3 |
                                        c.temporalIdNested << 2 | c.lengthSizeMinusOne));
        f.U8(static_cast<std::uint32_t>(c.arrays.size()));
        for (const HvccNalArray& array : c.arrays) {
            f.U8(static_cast<std::uint32_t>(array.array_completeness << 7 | array.NAL_unit_type));
            f.U16(static_cast<std::uint32_t>(array.nalUnits.size()));
            for (const HvccNalUnit& unit : array.nalUnits) {
                f.U16(unit.nalUnitLength);
                f.Bytes(unit.nalUnit, unit.nalUnitLength);
            }
        }
    });
}
