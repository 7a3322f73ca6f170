// Walks HEVC parameter sets (ITU-T H.265) as far as an HEVCDecoderConfigurationRecord (ISO/IEC
// 14496-15) needs them, and merges what they hold. Sizes of pictures are read past, never kept.
// Failures inside a walk are raised as plain integers and end in ParseHevcNal.
#pragma once

#include "bit_reader.h"

#include <cstdint>
#include <vector>

struct HvccNalUnit {
    std::uint16_t nalUnitLength;  // bytes
    const std::uint8_t* nalUnit;  // the unit as in the stream; not owned
};

// The units of one type.
struct HvccNalArray {
    std::uint8_t array_completeness;
    std::uint8_t NAL_unit_type;
    std::vector<HvccNalUnit> nalUnits;  // in order of arrival
};

// Initial values are those that make the merge work: all ones for AND, low for maximum.
struct HEVCDecoderConfigurationRecord {
    std::uint8_t configurationVersion = 1;
    std::uint8_t general_profile_space = 0;
    std::uint8_t general_tier_flag = 0;
    std::uint8_t general_profile_idc = 0;
    std::uint32_t general_profile_compatibility_flags = 0xFFFFFFFF;
    std::uint64_t general_constraint_indicator_flags = 0xFFFFFFFFFFFF;  // 48 bits
    std::uint8_t general_level_idc = 0;
    std::uint16_t min_spatial_segmentation_idc = 4097;  // one above the highest: no VUI gave one
    std::uint8_t parallelismType = 0;
    std::uint8_t chromaFormat = 0;
    std::uint8_t bitDepthLumaMinus8 = 0;
    std::uint8_t bitDepthChromaMinus8 = 0;
    std::uint16_t avgFrameRate = 0;      // never set
    std::uint8_t constantFrameRate = 0;  // never set
    std::uint8_t numTemporalLayers = 0;
    std::uint8_t temporalIdNested = 0;
    std::uint8_t lengthSizeMinusOne = 3;  // four-byte lengths
    std::vector<HvccNalArray> arrays;
};

// Counts of the short-term reference picture sets, by index.
inline constexpr std::uint32_t kMaxShortTermSets = 64;

// Classifies, files and walks one NAL unit, which must live as long as the record. False when it is
// too short or its walk failed; raises nothing.
bool ParseHevcNal(HEVCDecoderConfigurationRecord* config, const std::uint8_t* nal,
                  std::int32_t size);

// Files a unit in the array of its type.
void AddNalUnit(HEVCDecoderConfigurationRecord* config, const std::uint8_t* nal, std::int32_t size,
                std::uint8_t type, std::uint8_t completeness);

// The walks. The reader stands behind the syntax that the caller has read; all may raise.
void ParseVps(HEVCDecoderConfigurationRecord* config, CBitReader& reader);
void ParseSps(HEVCDecoderConfigurationRecord* config, CBitReader& reader);
void ParsePps(HEVCDecoderConfigurationRecord* config, CBitReader& reader);
void ParseProfileTierLevel(HEVCDecoderConfigurationRecord* config, CBitReader& reader,
                           std::uint32_t maxSubLayersMinus1);
void ParseVui(HEVCDecoderConfigurationRecord* config, CBitReader& reader,
              std::uint32_t maxSubLayersMinus1);
void ParseHrd(CBitReader& reader, bool commonInfPresent, std::uint32_t maxSubLayersMinus1);
void SkipScalingListData(CBitReader& reader);
void ParseShortTermRefPicSet(CBitReader& reader, std::uint32_t index, std::uint32_t count,
                             std::uint32_t (&numDeltaPocs)[kMaxShortTermSets]);

// Settles the last two fields before the record is written; safe to repeat.
void FinishConfig(HEVCDecoderConfigurationRecord* config);
