// Codec configuration: avcC, hvcC and the AudioSpecificConfig, and the split of a frame.
#ifndef TESTS_MODEL_CODEC_H
#define TESTS_MODEL_CODEC_H

#include "model/sequence.h"
#include "model/target.h"

#include <map>
#include <string>

namespace model {

// A NAL unit inside a frame.
struct Unit {
    size_t start = 0;
    size_t size = 0;
};
std::vector<Unit> SplitFrame(const Bytes& frame);

// Two bytes.
Bytes AudioConfig(uint8_t objectType, uint16_t rate, uint8_t channels);
uint16_t AdtsRate(uint32_t index);

// H.264: two parameter sets, copied, and the box from them.
class AvcConfig {
public:
    // Copies the sets. Throws OtherFailure where their memory cannot be had.
    void Set(const ParameterSet& sps, const ParameterSet& pps);
    void Write(Target& io, Journal& journal);
    uint32_t Size() const { return m_size; }

private:
    Bytes m_sps, m_pps;
    Bytes m_left;  // of writes that stopped in the middle
    uint32_t m_size = 0;
};

// HEVC: what the walks through three parameter sets leave behind.
class HevcConfig {
public:
    void Set(const ParameterSet& vps, const ParameterSet& sps, const ParameterSet& pps,
             Journal& journal);
    void Write(Target& io, Journal& journal);
    uint32_t Size() const { return m_size; }

private:
    class Reader;
    struct Values {
        uint8_t profileSpace = 0, tier = 0, profile = 0, level = 0;
        uint32_t compatibility = 0xFFFFFFFF;
        uint64_t constraints = 0xFFFFFFFFFFFF;
        uint16_t segmentation = 4097;
        uint8_t parallelism = 0, chroma = 0, lumaDepth = 0, chromaDepth = 0;
        uint8_t layers = 0, nested = 0;
    };
    struct Array {
        uint8_t type = 0;
        std::vector<Bytes> units;
    };

    bool Take(const Bytes& unit);
    void File(uint8_t type, const Bytes& unit);
    void Vps(Reader& in);
    void Sps(Reader& in);
    void Pps(Reader& in);
    void ProfileTierLevel(Reader& in, uint32_t subLayers);
    void Vui(Reader& in, uint32_t subLayers);

    Values m_values;
    std::vector<Array> m_arrays;
    bool m_any = false;
    bool m_good[3] = {};  // VPS, SPS, PPS
    uint32_t m_size = 0;
};

}  // namespace model

#endif
