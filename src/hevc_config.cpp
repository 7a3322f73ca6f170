#include "hevc_config.h"

#include <algorithm>
#include <memory>

namespace {

// NAL unit types of the parameter sets.
constexpr std::uint8_t kVps = 32;
constexpr std::uint8_t kSps = 33;
constexpr std::uint8_t kPps = 34;

void SkipUE(CBitReader& reader, std::uint64_t count)
{
    for (std::uint64_t i = 0; i < count; ++i)
        reader.ReadUE();
}

// The unit without emulation prevention bytes; its length. Kept: the header is never part of a
// match, and a 03 as the last byte goes like any other.
std::uint64_t CopyRbsp(const std::uint8_t* nal, std::uint32_t size, std::uint8_t* rbsp)
{
    rbsp[0] = nal[0];
    rbsp[1] = nal[1];
    std::uint32_t r = 2;
    std::uint32_t w = 2;
    while (r + 2 < size) {
        if (nal[r] == 0 && nal[r + 1] == 0 && nal[r + 2] == 3) {
            rbsp[w] = 0;
            rbsp[w + 1] = 0;
            r += 3;
            w += 2;
        } else {
            rbsp[w++] = nal[r++];
        }
    }
    while (r < size)
        rbsp[w++] = nal[r++];
    return w;
}

}  // namespace

bool ParseHevcNal(HEVCDecoderConfigurationRecord* config, const std::uint8_t* nal,
                  std::int32_t size)
{
    if (size < 2)
        return false;
    const auto length = static_cast<std::uint32_t>(size);
    const auto rbsp = std::make_unique<std::uint8_t[]>(length);
    CBitReader reader(rbsp.get(), CopyRbsp(nal, length, rbsp.get()));
    try {
        reader.SkipBits(1);  // forbidden_zero_bit
        const auto type = static_cast<std::uint8_t>(reader.ReadBits(6));
        if (type > 40)
            throw 36;
        reader.SkipBits(9);  // nuh_layer_id, nuh_temporal_id_plus1
        // Kept: filed before the walk, so that a unit whose walk fails stays counted; by its own
        // type, whatever slot it came in; and never as complete, as sets may be in the samples too.
        AddNalUnit(config, nal, size, type, 0);
        switch (type) {
        case kVps: ParseVps(config, reader); break;
        case kSps: ParseSps(config, reader); break;
        case kPps: ParsePps(config, reader); break;
        default: break;
        }
    } catch (int) {  // not a want of memory, which is no fault of the set
        return false;
    }
    return true;
}

void AddNalUnit(HEVCDecoderConfigurationRecord* config, const std::uint8_t* nal, std::int32_t size,
                std::uint8_t type, std::uint8_t completeness)
{
    auto& arrays = config->arrays;
    auto array = std::find_if(arrays.begin(), arrays.end(), [type](const HvccNalArray& entry) {
        return entry.NAL_unit_type == type;
    });
    if (array == arrays.end()) {
        const bool parameterSet = type == kVps || type == kSps || type == kPps;
        arrays.push_back({parameterSet ? completeness : std::uint8_t{0}, type, {}});
        array = arrays.end() - 1;
    }
    array->nalUnits.push_back({static_cast<std::uint16_t>(size), nal});
}

void ParseVps(HEVCDecoderConfigurationRecord* config, CBitReader& reader)
{
    reader.SkipBits(12);  // vps_video_parameter_set_id to vps_max_layers_minus1
    const auto maxSubLayersMinus1 = static_cast<std::uint32_t>(reader.ReadBits(3));
    config->numTemporalLayers = std::max(config->numTemporalLayers,
                                         static_cast<std::uint8_t>(maxSubLayersMinus1 + 1));
    reader.SkipBits(17);  // vps_temporal_id_nesting_flag, vps_reserved_0xffff_16bits
    ParseProfileTierLevel(config, reader, maxSubLayersMinus1);
}

void ParseProfileTierLevel(HEVCDecoderConfigurationRecord* config, CBitReader& reader,
                           std::uint32_t maxSubLayersMinus1)
{
    const auto space = static_cast<std::uint8_t>(reader.ReadBits(2));
    const auto tier = static_cast<std::uint8_t>(reader.ReadBit());
    const auto profile = static_cast<std::uint8_t>(reader.ReadBits(5));
    const auto compatibility = static_cast<std::uint32_t>(reader.ReadBits(32));
    const std::uint64_t constraints = reader.ReadBits(48);
    const auto level = static_cast<std::uint8_t>(reader.ReadBits(8));

    config->general_profile_space = space;
    // A level of a higher tier counts even if its number is lower.
    config->general_level_idc = config->general_tier_flag < tier
                                    ? level
                                    : std::max(config->general_level_idc, level);
    config->general_tier_flag = std::max(config->general_tier_flag, tier);
    config->general_profile_idc = std::max(config->general_profile_idc, profile);
    config->general_profile_compatibility_flags &= compatibility;
    config->general_constraint_indicator_flags &= constraints;

    bool profilePresent[8] = {};
    bool levelPresent[8] = {};
    for (std::uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        profilePresent[i] = reader.ReadBit() != 0;
        levelPresent[i] = reader.ReadBit() != 0;
    }
    if (maxSubLayersMinus1 > 0) {
        for (std::uint32_t i = maxSubLayersMinus1; i < 8; ++i)
            reader.SkipBits(2);  // reserved_zero_2bits
    }
    for (std::uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        if (profilePresent[i])
            reader.SkipBits(88);
        if (levelPresent[i])
            reader.SkipBits(8);
    }
}

void ParseSps(HEVCDecoderConfigurationRecord* config, CBitReader& reader)
{
    reader.SkipBits(4);  // sps_video_parameter_set_id
    const auto maxSubLayersMinus1 = static_cast<std::uint32_t>(reader.ReadBits(3));
    config->numTemporalLayers = std::max(config->numTemporalLayers,
                                         static_cast<std::uint8_t>(maxSubLayersMinus1 + 1));
    config->temporalIdNested = static_cast<std::uint8_t>(reader.ReadBit());
    ParseProfileTierLevel(config, reader, maxSubLayersMinus1);
    reader.ReadUE();  // sps_seq_parameter_set_id
    const std::uint64_t chroma = reader.ReadUE();
    config->chromaFormat = static_cast<std::uint8_t>(chroma);
    if (chroma == 3)
        reader.SkipBits(1);  // separate_colour_plane_flag
    SkipUE(reader, 2);       // pic_width_in_luma_samples, pic_height_in_luma_samples
    if (reader.ReadBit())    // conformance_window_flag
        SkipUE(reader, 4);
    config->bitDepthLumaMinus8 = static_cast<std::uint8_t>(reader.ReadUE());
    config->bitDepthChromaMinus8 = static_cast<std::uint8_t>(reader.ReadUE());
    const std::uint64_t log2MaxPocLsbMinus4 = reader.ReadUE();
    const bool eachSubLayer = reader.ReadBit() != 0;  // sps_sub_layer_ordering_info_present_flag
    SkipUE(reader, 3 * (eachSubLayer ? maxSubLayersMinus1 + 1 : 1));
    SkipUE(reader, 6);     // log2_min_luma_coding_block_size_minus3 to the last hierarchy depth
    if (reader.ReadBit())  // scaling_list_enabled_flag
        if (reader.ReadBit())  // sps_scaling_list_data_present_flag
            SkipScalingListData(reader);
    reader.SkipBits(2);      // amp_enabled_flag, sample_adaptive_offset_enabled_flag
    if (reader.ReadBit()) {  // pcm_enabled_flag
        reader.SkipBits(4);
        reader.SkipBits(4);
        SkipUE(reader, 2);
        reader.SkipBits(1);
    }
    const auto shortTermSets = static_cast<std::uint32_t>(reader.ReadUE());
    if (shortTermSets > kMaxShortTermSets)
        throw 283;
    std::uint32_t numDeltaPocs[kMaxShortTermSets] = {};
    for (std::uint32_t i = 0; i < shortTermSets; ++i)
        ParseShortTermRefPicSet(reader, i, shortTermSets, numDeltaPocs);
    if (reader.ReadBit()) {  // long_term_ref_pics_present_flag
        const auto longTermPics = static_cast<std::uint32_t>(reader.ReadUE());
        if (longTermPics > 31)
            throw 293;
        for (std::uint32_t i = 0; i < longTermPics; ++i) {
            // lt_ref_pic_poc_lsb_sps; the sum in 64 bits, compared after it.
            reader.SkipBits(std::min<std::uint64_t>(log2MaxPocLsbMinus4 + 4, 16));
            reader.SkipBits(1);  // used_by_curr_pic_lt_sps_flag
        }
    }
    reader.SkipBits(2);    // sps_temporal_mvp_enabled_flag, strong_intra_smoothing_enabled_flag
    if (reader.ReadBit())  // vui_parameters_present_flag
        ParseVui(config, reader, maxSubLayersMinus1);
}

void SkipScalingListData(CBitReader& reader)
{
    for (std::uint32_t sizeId = 0; sizeId < 4; ++sizeId) {
        const std::uint32_t matrices = sizeId == 3 ? 2 : 6;
        for (std::uint32_t matrix = 0; matrix < matrices; ++matrix) {
            if (!reader.ReadBit()) {
                reader.ReadUE();
                continue;
            }
            const std::uint32_t count = std::min(64u, 1u << (4 + 2 * sizeId));
            if (sizeId > 1)
                reader.ReadSE();
            for (std::uint32_t i = 0; i < count; ++i)
                reader.ReadSE();
        }
    }
}

void ParseShortTermRefPicSet(CBitReader& reader, std::uint32_t index, std::uint32_t count,
                             std::uint32_t (&numDeltaPocs)[kMaxShortTermSets])
{
    if (index != 0 && reader.ReadBit()) {  // inter_ref_pic_set_prediction_flag
        if (index >= count)
            throw 501;
        reader.SkipBits(1);  // delta_rps_sign
        reader.ReadUE();     // abs_delta_rps_minus1
        numDeltaPocs[index] = 0;
        for (std::uint64_t j = 0; j <= numDeltaPocs[index - 1]; ++j) {
            if (reader.ReadBit() || reader.ReadBit())
                ++numDeltaPocs[index];
        }
        return;
    }
    const auto negative = static_cast<std::uint32_t>(reader.ReadUE());
    const auto positive = static_cast<std::uint32_t>(reader.ReadUE());
    // Stops a corrupt count before the loops run.
    if ((std::uint64_t{negative} + positive) * 2 > reader.BitsLeft())
        throw 543;
    numDeltaPocs[index] = negative + positive;
    for (std::uint64_t i = 0; i < std::uint64_t{negative} + positive; ++i) {
        reader.ReadUE();
        reader.SkipBits(1);
    }
}

void ParseVui(HEVCDecoderConfigurationRecord* config, CBitReader& reader,
              std::uint32_t maxSubLayersMinus1)
{
    if (reader.ReadBit())                // aspect_ratio_info_present_flag
        if (reader.ReadBits(8) == 255)   // aspect_ratio_idc
            reader.SkipBits(32);
    if (reader.ReadBit())  // overscan_info_present_flag
        reader.SkipBits(1);
    if (reader.ReadBit()) {  // video_signal_type_present_flag
        reader.SkipBits(4);
        if (reader.ReadBit())  // colour_description_present_flag
            reader.SkipBits(24);
    }
    if (reader.ReadBit())  // chroma_loc_info_present_flag
        SkipUE(reader, 2);
    reader.SkipBits(3);    // neutral chroma, field_seq_flag, frame_field_info_present_flag
    if (reader.ReadBit())  // default_display_window_flag
        SkipUE(reader, 4);
    if (reader.ReadBit()) {  // vui_timing_info_present_flag
        reader.SkipBits(32);
        reader.SkipBits(32);
        if (reader.ReadBit())  // vui_poc_proportional_to_timing_flag
            reader.ReadUE();
        if (reader.ReadBit())  // vui_hrd_parameters_present_flag
            ParseHrd(reader, true, maxSubLayersMinus1);
    }
    if (reader.ReadBit()) {  // bitstream_restriction_flag
        reader.SkipBits(3);
        const auto segmentation = static_cast<std::uint32_t>(reader.ReadUE());
        config->min_spatial_segmentation_idc = static_cast<std::uint16_t>(
            std::min<std::uint32_t>(config->min_spatial_segmentation_idc, segmentation));
        SkipUE(reader, 4);
    }
}

void ParseHrd(CBitReader& reader, bool commonInfPresent, std::uint32_t maxSubLayersMinus1)
{
    bool nal = false;
    bool vcl = false;
    bool subPic = false;
    if (commonInfPresent) {
        nal = reader.ReadBit() != 0;
        vcl = reader.ReadBit() != 0;
        if (nal || vcl) {
            subPic = reader.ReadBit() != 0;
            if (subPic)
                reader.SkipBits(19);
            reader.SkipBits(8);
            if (subPic)
                reader.SkipBits(4);
            reader.SkipBits(15);
        }
    }
    const auto skipSubLayerHrd = [&](std::uint32_t cpbCount) {
        for (std::uint32_t i = 0; i <= cpbCount; ++i) {
            SkipUE(reader, subPic ? 4 : 2);
            reader.SkipBits(1);
        }
    };
    for (std::uint32_t i = 0; i <= maxSubLayersMinus1; ++i) {
        std::uint32_t cpbCount = 0;
        const bool fixedGeneral = reader.ReadBit() != 0;
        bool readCount = true;
        if (!fixedGeneral && reader.ReadBit()) {  // fixed_pic_rate_within_cvs_flag
            reader.ReadUE();                      // elemental_duration_in_tc_minus1
        } else {
            // Kept: low_delay_hrd_flag is read here also when the general flag was 1, where H.265
            // has an elemental duration; the configuration of such streams depends on this walk.
            readCount = !reader.ReadBit();
        }
        if (readCount) {
            cpbCount = static_cast<std::uint32_t>(reader.ReadUE());
            if (cpbCount > 31)
                throw 703;
        }
        if (nal)
            skipSubLayerHrd(cpbCount);
        if (vcl)
            skipSubLayerHrd(cpbCount);
    }
}

void ParsePps(HEVCDecoderConfigurationRecord* config, CBitReader& reader)
{
    SkipUE(reader, 2);   // pps_pic_parameter_set_id, pps_seq_parameter_set_id
    reader.SkipBits(7);  // dependent slices to cabac init
    SkipUE(reader, 2);   // num_ref_idx_l0/l1_default_active_minus1
    reader.ReadSE();     // init_qp_minus26
    reader.SkipBits(2);  // constrained_intra_pred_flag, transform_skip_enabled_flag
    if (reader.ReadBit())  // cu_qp_delta_enabled_flag
        reader.ReadUE();
    reader.ReadSE();     // pps_cb_qp_offset
    reader.ReadSE();     // pps_cr_qp_offset
    reader.SkipBits(4);  // chroma offsets present, weighted prediction, transquant bypass
    const bool tiles = reader.ReadBit() != 0;
    const bool wavefront = reader.ReadBit() != 0;
    if (tiles && wavefront)
        config->parallelismType = 0;  // mixed
    else if (wavefront)
        config->parallelismType = 3;
    else
        config->parallelismType = tiles ? 2 : 1;  // tiles or slices
}

void FinishConfig(HEVCDecoderConfigurationRecord* config)
{
    if (config->min_spatial_segmentation_idc > 4096)
        config->min_spatial_segmentation_idc = 0;
    // The type only has meaning together with a restriction.
    if (config->min_spatial_segmentation_idc == 0)
        config->parallelismType = 0;
}
