// The walks through HEVC parameter sets, bit by bit.
#include "model/codec.h"

#include <algorithm>

namespace model {

namespace {

struct Stop {};  // a walk ends here

}  // namespace

class HevcConfig::Reader {
public:
    explicit Reader(const Bytes& unit)
    {
        // Without the emulation prevention bytes; the two header bytes take no part.
        for (size_t i = 0; i < unit.size(); ++i) {
            const bool escaped = i >= 2 && i + 2 < unit.size() && unit[i] == 0 &&
                                 unit[i + 1] == 0 && unit[i + 2] == 3;
            m_bytes.push_back(unit[i]);
            if (escaped) {
                m_bytes.push_back(0);
                i += 2;
            }
        }
        m_end = m_bytes.size() * 8;
        m_bytes.push_back(0);  // the bit behind the end reads as 0
    }

    uint32_t Flag()
    {
        Check();
        return Bit();
    }
    uint64_t Bits(uint32_t count)
    {
        uint64_t value = 0;
        if (m_at + count > m_end) {
            throw Stop{};
        }
        for (uint32_t i = 0; i < count; ++i) {
            value = value << 1 | Bit();
        }
        return value;
    }
    void Skip(uint64_t count)
    {
        m_at += count;
        Check();
    }
    uint64_t Ue()
    {
        Check();
        uint32_t zeros = 0;
        while (Bit() == 0) {
            ++zeros;
            Check();
        }
        if (zeros > 63) {
            throw Stop{};
        }
        const uint32_t base = (uint32_t{1} << (zeros % 32)) - 1;
        return base + Bits(zeros);
    }
    void Ues(uint32_t count)
    {
        for (uint32_t i = 0; i < count; ++i) {
            Ue();
        }
    }
    void Se() { Ue(); }
    uint64_t Left() const { return m_end - m_at; }

private:
    void Check() const
    {
        if (m_at > m_end) {
            throw Stop{};
        }
    }
    uint32_t Bit()
    {
        const uint32_t bit = (m_bytes[m_at / 8] >> (7 - m_at % 8)) & 1;
        ++m_at;
        return bit;
    }

    Bytes m_bytes;
    uint64_t m_end = 0;
    uint64_t m_at = 0;
};

void HevcConfig::File(uint8_t type, const Bytes& unit)
{
    auto array = std::find_if(m_arrays.begin(), m_arrays.end(),
                              [&](const Array& a) { return a.type == type; });
    if (array == m_arrays.end()) {
        m_arrays.push_back({type, {}});
        array = m_arrays.end() - 1;
    }
    array->units.push_back(unit);
}

bool HevcConfig::Take(const Bytes& unit)
{
    if (unit.size() < 2) {
        return false;
    }
    Reader in(unit);
    try {
        in.Skip(1);
        const uint8_t type = static_cast<uint8_t>(in.Bits(6));
        if (type > 40) {
            return false;
        }
        in.Skip(9);
        File(type, unit);
        if (type == 32) {
            Vps(in);
        } else if (type == 33) {
            Sps(in);
        } else if (type == 34) {
            Pps(in);
        }
        return true;
    } catch (Stop) {
        return false;
    }
}

void HevcConfig::Vps(Reader& in)
{
    in.Skip(12);
    const uint32_t subLayers = static_cast<uint32_t>(in.Bits(3));
    m_values.layers = std::max(m_values.layers, static_cast<uint8_t>(subLayers + 1));
    in.Skip(17);
    ProfileTierLevel(in, subLayers);
}

void HevcConfig::ProfileTierLevel(Reader& in, uint32_t subLayers)
{
    Values& v = m_values;
    const uint8_t space = static_cast<uint8_t>(in.Bits(2));
    const uint8_t tier = static_cast<uint8_t>(in.Flag());
    const uint8_t profile = static_cast<uint8_t>(in.Bits(5));
    const uint32_t compatibility = static_cast<uint32_t>(in.Bits(32));
    const uint64_t constraints = in.Bits(48);
    const uint8_t level = static_cast<uint8_t>(in.Bits(8));
    v.profileSpace = space;
    v.level = v.tier < tier ? level : std::max(v.level, level);
    v.tier = std::max(v.tier, tier);
    v.profile = std::max(v.profile, profile);
    v.compatibility &= compatibility;
    v.constraints &= constraints;

    uint32_t toSkip = 0;
    for (uint32_t i = 0; i < subLayers; ++i) {
        toSkip += in.Flag() ? 88u : 0u;
        toSkip += in.Flag() ? 8u : 0u;
    }
    if (subLayers != 0) {
        in.Skip(2 * (8 - subLayers));
    }
    in.Skip(toSkip);
}

namespace {

template <class Reader>
void ScalingLists(Reader& in)
{
    for (uint32_t sizeId = 0; sizeId < 4; ++sizeId) {
        for (uint32_t matrix = 0; matrix < (sizeId == 3 ? 2u : 6u); ++matrix) {
            if (in.Flag() == 0) {
                in.Ue();
                continue;
            }
            if (sizeId > 1) {
                in.Se();
            }
            in.Ues(std::min(64u, 1u << (4 + 2 * sizeId)));
        }
    }
}

// The pictures of one short-term set, after those of the set before it.
template <class Reader>
uint32_t ShortTermSet(Reader& in, uint32_t index, uint32_t before)
{
    if (index != 0 && in.Flag() != 0) {
        in.Skip(1);
        in.Ue();
        uint32_t pictures = 0;
        for (uint64_t j = 0; j <= before; ++j) {
            if (in.Flag() != 0 || in.Flag() != 0) {
                ++pictures;
            }
        }
        return pictures;
    }
    const uint32_t negative = static_cast<uint32_t>(in.Ue());
    const uint32_t positive = static_cast<uint32_t>(in.Ue());
    const uint64_t both = uint64_t{negative} + positive;
    if (2 * both > in.Left()) {
        throw Stop{};
    }
    for (uint64_t i = 0; i < both; ++i) {
        in.Ue();
        in.Skip(1);
    }
    return static_cast<uint32_t>(both);
}

template <class Reader>
void Hrd(Reader& in, uint32_t subLayers)
{
    const bool nal = in.Flag() != 0;
    const bool vcl = in.Flag() != 0;
    bool subPicture = false;
    if (nal || vcl) {
        subPicture = in.Flag() != 0;
        in.Skip(subPicture ? 19 : 0);
        in.Skip(8);
        in.Skip(subPicture ? 4 : 0);
        in.Skip(15);
    }
    for (uint32_t layer = 0; layer <= subLayers; ++layer) {
        uint32_t count = 0;
        bool counted = false;
        if (in.Flag() == 0 && in.Flag() != 0) {
            in.Ue();
            counted = true;
        } else {
            counted = in.Flag() == 0;
        }
        if (counted) {
            count = static_cast<uint32_t>(in.Ue());
            if (count > 31) {
                throw Stop{};
            }
        }
        for (uint32_t kind = 0; kind < (nal ? 1u : 0u) + (vcl ? 1u : 0u); ++kind) {
            for (uint32_t i = 0; i <= count; ++i) {
                in.Ues(subPicture ? 4 : 2);
                in.Skip(1);
            }
        }
    }
}

}  // namespace

void HevcConfig::Vui(Reader& in, uint32_t subLayers)
{
    if (in.Flag() && in.Bits(8) == 255) {
        in.Skip(32);
    }
    if (in.Flag()) {
        in.Skip(1);
    }
    if (in.Flag()) {
        in.Skip(4);
        if (in.Flag()) {
            in.Skip(24);
        }
    }
    if (in.Flag()) {
        in.Ues(2);
    }
    in.Skip(3);
    if (in.Flag()) {
        in.Ues(4);
    }
    if (in.Flag()) {
        in.Skip(32);
        in.Skip(32);
        if (in.Flag()) {
            in.Ue();
        }
        if (in.Flag()) {
            Hrd(in, subLayers);
        }
    }
    if (in.Flag()) {
        in.Skip(3);
        const uint32_t segmentation = static_cast<uint32_t>(in.Ue());
        m_values.segmentation =
            static_cast<uint16_t>(std::min<uint32_t>(m_values.segmentation, segmentation));
        in.Ues(4);
    }
}

void HevcConfig::Sps(Reader& in)
{
    Values& v = m_values;
    in.Skip(4);
    const uint32_t subLayers = static_cast<uint32_t>(in.Bits(3));
    v.layers = std::max(v.layers, static_cast<uint8_t>(subLayers + 1));
    v.nested = static_cast<uint8_t>(in.Flag());
    ProfileTierLevel(in, subLayers);
    in.Ue();
    const uint64_t chroma = in.Ue();
    v.chroma = static_cast<uint8_t>(chroma);
    if (chroma == 3) {
        in.Skip(1);
    }
    in.Ues(2);
    if (in.Flag()) {
        in.Ues(4);
    }
    v.lumaDepth = static_cast<uint8_t>(in.Ue());
    v.chromaDepth = static_cast<uint8_t>(in.Ue());
    const uint64_t pocBits = in.Ue() + 4;
    in.Ues(3 * (in.Flag() ? subLayers + 1 : 1));
    in.Ues(6);
    if (in.Flag() && in.Flag()) {
        ScalingLists(in);
    }
    in.Skip(2);
    if (in.Flag()) {
        in.Skip(8);
        in.Ues(2);
        in.Skip(1);
    }
    const uint32_t sets = static_cast<uint32_t>(in.Ue());
    if (sets > 64) {
        throw Stop{};
    }
    for (uint32_t i = 0, before = 0; i < sets; ++i) {
        before = ShortTermSet(in, i, before);
    }
    if (in.Flag()) {
        const uint32_t pictures = static_cast<uint32_t>(in.Ue());
        if (pictures > 31) {
            throw Stop{};
        }
        for (uint32_t i = 0; i < pictures; ++i) {
            in.Skip(std::min<uint64_t>(pocBits, 16) + 1);
        }
    }
    in.Skip(2);
    if (in.Flag()) {
        Vui(in, subLayers);
    }
}

void HevcConfig::Pps(Reader& in)
{
    in.Ues(2);
    in.Skip(7);
    in.Ues(2);
    in.Se();
    in.Skip(2);
    if (in.Flag()) {
        in.Ue();
    }
    in.Se();
    in.Se();
    in.Skip(4);
    const bool tiles = in.Flag() != 0;
    const bool wavefront = in.Flag() != 0;
    m_values.parallelism = static_cast<uint8_t>(tiles ? (wavefront ? 0 : 2) : (wavefront ? 3 : 1));
}

}  // namespace model
