#include "model/codec.h"

#include "model/bin.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace model {

std::vector<Unit> SplitFrame(const Bytes& frame)
{
    std::vector<Unit> units;
    const size_t size = frame.size();
    if (size <= 3) {
        return units;
    }
    size_t start = 0;  // of the open unit
    bool isOpen = false;
    for (size_t i = 0; i + 4 <= size; ++i) {
        if (frame[i] != 0 || frame[i + 1] != 0 || frame[i + 2] != 1) {
            continue;
        }
        if (isOpen) {
            const size_t end = i > 0 && frame[i - 1] == 0 ? i - 1 : i;
            units.push_back({start, end - start});
        }
        isOpen = true;
        start = i + 3;
    }
    if (isOpen) {
        units.push_back({start, size - start});
    }
    return units;
}

namespace {

constexpr std::array<uint32_t, 13> kRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                             22050, 16000, 12000, 11025, 8000,  7350};

// A copy of the caller's bytes; a negative size cannot be had.
Bytes Copy(const ParameterSet& set)
{
    if (set.size < 0) {
        throw OtherFailure{};
    }
    return Bytes(set.bytes->begin(), set.bytes->begin() + set.size);
}

}  // namespace

uint16_t AdtsRate(uint32_t index)
{
    return static_cast<uint16_t>(index < kRates.size() ? kRates[index] : 0);
}

Bytes AudioConfig(uint8_t objectType, uint16_t rate, uint8_t channels)
{
    uint32_t index = 4;
    for (uint32_t i = 0; i < 12; ++i) {
        if (kRates[i] == rate) {
            index = i;
        }
    }
    return Bin().U8((objectType << 3) | (index >> 1)).U8(((index << 4) | channels) << 3).bytes;
}

void AvcConfig::Set(const ParameterSet& sps, const ParameterSet& pps)
{
    m_sps.clear();
    m_pps.clear();
    if (sps.bytes) {
        m_sps = Copy(sps);
    }
    if (pps.bytes) {
        m_pps = Copy(pps);
    }
    m_size = static_cast<uint32_t>(19 + m_sps.size() + m_pps.size());
}

void AvcConfig::Write(Target& io, Journal& journal)
{
    Bin box;
    if (m_sps.size() < 4 || m_pps.empty()) {
        // Size, type and version stay where they are and stand ahead of the next box.
        m_left = Bin().Raw(m_left).U32(8).Text("avcC").U8(1).bytes;
        journal.Print(fmt::format("LibMp4 : Error - Invalid sps({}) or pps({}) size !\n",
                                  m_sps.size(), m_pps.size()));
        throw OtherFailure{};
    }
    box.Raw(m_left).U32(19 + m_sps.size() + m_pps.size()).Text("avcC").U8(1);
    box.U8(m_sps[1]).U8(m_sps[2]).U8(m_sps[3]).U8(0xFF).U8(0xE1);
    box.U16(m_sps.size()).Raw(m_sps).U8(1).U16(m_pps.size()).Raw(m_pps);
    io.PutWhole(box.bytes);
    m_left.clear();
}

void HevcConfig::Set(const ParameterSet& vps, const ParameterSet& sps, const ParameterSet& pps,
                     Journal& journal)
{
    m_values = Values();
    m_arrays.clear();
    m_any = true;
    const ParameterSet* sets[3] = {&vps, &sps, &pps};
    static constexpr const char* kNames[3] = {"vps", "sps", "pps"};
    std::fill(std::begin(m_good), std::end(m_good), false);
    for (size_t i = 0; i < 3; ++i) {
        if (!sets[i]->bytes) {
            continue;
        }
        m_good[i] = Take(Copy(*sets[i]));
        if (!m_good[i]) {
            journal.Print(fmt::format("LibMp4 : Error - Parse hevc {} fail !\n", kNames[i]));
        }
    }
    size_t size = 31;
    for (const Array& array : m_arrays) {
        size += 3;
        for (const Bytes& unit : array.units) {
            size += 2 + unit.size();
        }
    }
    m_size = static_cast<uint32_t>(size);
}

void HevcConfig::Write(Target& io, Journal& journal)
{
    if (!m_any || !m_good[0] || !m_good[1] || !m_good[2]) {
        journal.Print("LibMp4 : Error - NULL hevc head !\n");
        throw OtherFailure{};
    }
    if (m_values.segmentation > 4096) {
        m_values.segmentation = 0;
    }
    if (m_values.segmentation == 0) {
        m_values.parallelism = 0;
    }
    const Values& v = m_values;
    Bin body;
    body.U8(1).U8((v.profileSpace << 6) | (v.tier << 5) | v.profile).U32(v.compatibility);
    body.U32(v.constraints >> 16).U16(v.constraints).U8(v.level);
    body.U16(0xF000u | v.segmentation).U8(0xFC | v.parallelism).U8(0xFC | v.chroma);
    body.U8(0xF8 | v.lumaDepth).U8(0xF8 | v.chromaDepth).U16(0);
    body.U8((v.layers << 3) | (v.nested << 2) | 3).U8(m_arrays.size());
    for (const Array& array : m_arrays) {
        body.U8(array.type).U16(array.units.size());
        for (const Bytes& unit : array.units) {
            body.U16(unit.size()).Raw(unit);
        }
    }
    io.PutWhole(Bin().U32(body.bytes.size() + 8).Text("hvcC").Raw(body.bytes).bytes);
}

}  // namespace model
