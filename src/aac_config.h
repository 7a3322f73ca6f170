// What the library knows of AAC: the sync word and three fields of an ADTS header, and the two-byte
// AudioSpecificConfig of ISO/IEC 14496-3. It reads no frame length and checks no CRC.
#pragma once

#include <cstdint>

// Bytes that are taken off an ADTS frame. Kept: whether it carries a CRC or not, and whatever its
// own length says; the two bytes of a CRC so begin the sample.
inline constexpr std::uint32_t kAdtsHeaderSize = 7;

// What an ADTS header tells of its stream.
struct AdtsStream {
    std::uint16_t sample_rate;  // cut to 16 bits, so that 96000 becomes 30464
    std::uint16_t channels;     // the channel configuration, as a number
    std::uint8_t object_type;   // the profile plus 1
};

// A frame counts as ADTS from 8 bytes on, by its 12-bit sync word alone.
bool IsAdtsFrame(const std::uint8_t* data, std::uint32_t size);

// Reads the header of a frame that counts as ADTS, without any further test. Kept: a reserved rate
// and no channels give zeros, which only a record of raw AAC is refused for.
AdtsStream ReadAdtsHeader(const std::uint8_t* data);

// The rate of a sampling_frequency_index in Hz; 0 above index 12.
std::int32_t GetAdtsSampleRate(std::uint32_t index);

// The AudioSpecificConfig in its shortest form, two bytes at `config`.
void MakeAudioSpecificConfig(std::uint8_t objectType, std::uint16_t sampleRate,
                             std::uint8_t channels, std::uint8_t* config);
