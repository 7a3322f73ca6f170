// HEVC parameter sets with every branch of their syntax taken by chance.
#include "model/streams.h"

#include <algorithm>

namespace model {

namespace {

class Bits {
public:
    explicit Bits(Random& random) : m_random(random) {}

    void Put(uint64_t value, uint32_t count)
    {
        for (uint32_t i = count; i-- > 0;) {
            if (m_used % 8 == 0) {
                m_bytes.push_back(0);
            }
            const uint32_t bit = static_cast<uint32_t>(value >> i) & 1;
            m_bytes.back() = static_cast<uint8_t>(m_bytes.back() | bit << (7 - m_used % 8));
            ++m_used;
        }
    }
    void Any(uint32_t count)
    {
        for (; count > 32; count -= 32) {
            Put(m_random.Next(), 32);
        }
        Put(m_random.Next(), count);
    }
    void Ue(uint64_t value)
    {
        uint32_t width = 0;
        while ((value + 1) >> (width + 1) != 0) {
            ++width;
        }
        Put(0, width);
        Put(value + 1, width + 1);
    }
    void AnyUe(uint32_t count, uint32_t bits = 6)
    {
        for (uint32_t i = 0; i < count; ++i) {
            if (m_random.Below(600) == 0) {  // wider than any field
                const uint32_t zeros = 30 + m_random.Below(38);
                Put(0, zeros);
                Put(1, 1);
                Any(zeros);
            } else {
                Ue(m_random.Spread(bits));
            }
        }
    }
    bool Flag(uint32_t percent = 50)
    {
        const bool flag = m_random.Chance(percent);
        Put(flag ? 1 : 0, 1);
        return flag;
    }
    // With its header, an end bit and emulation prevention.
    Bytes Unit(uint32_t type)
    {
        Put(1, 1);
        Bytes unit = {static_cast<uint8_t>(type << 1), 1};
        uint32_t zeros = 0;
        for (const uint8_t byte : m_bytes) {
            if (zeros >= 2 && byte <= 3) {
                unit.push_back(3);
                zeros = 0;
            }
            unit.push_back(byte);
            zeros = byte == 0 ? zeros + 1 : 0;
        }
        return unit;
    }

private:
    Random& m_random;
    Bytes m_bytes;
    uint32_t m_used = 0;
};

void ProfileTierLevel(Random& random, Bits& out, uint32_t subLayers)
{
    out.Put(random.Chance(90) ? 0 : random.Below(4), 2);
    out.Flag(20);
    out.Put(random.Chance(80) ? 1 : random.Below(32), 5);
    out.Any(32);
    out.Put(random.Chance(50) ? 0x900000000000 : random.Next(), 48);
    out.Put(random.Pick({30u, 93u, 120u, 123u, 153u, 186u}), 8);
    uint32_t rest = 0;
    for (uint32_t i = 0; i < subLayers; ++i) {
        rest += out.Flag() ? 88u : 0u;
        rest += out.Flag() ? 8u : 0u;
    }
    out.Put(0, subLayers != 0 ? 2 * (8 - subLayers) : 0);
    out.Any(rest);
}

uint32_t SubLayers(Random& random)
{
    return random.Chance(60) ? 0 : random.Below(8);
}

void ScalingLists(Random& random, Bits& out)
{
    for (uint32_t sizeId = 0; sizeId < 4; ++sizeId) {
        for (uint32_t matrix = 0; matrix < (sizeId == 3 ? 2u : 6u); ++matrix) {
            if (!out.Flag(20)) {
                out.Ue(random.Below(3));
                continue;
            }
            out.AnyUe(sizeId > 1 ? 1 : 0);
            out.AnyUe(std::min(64u, 1u << (4 + 2 * sizeId)), 4);
        }
    }
}

void ShortTermSets(Random& random, Bits& out)
{
    const uint32_t count = random.Chance(90) ? random.Below(6) : random.Below(70);
    out.Ue(count);
    uint32_t before = 0;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t pictures = 0;
        if (i != 0 && out.Flag(40)) {
            out.Any(1);
            out.AnyUe(1);
            for (uint32_t j = 0; j <= before; ++j) {
                pictures += out.Flag() || out.Flag() ? 1u : 0u;
            }
        } else {
            const uint32_t negative = random.Below(4);
            const uint32_t positive = random.Below(3);
            out.Ue(negative);
            out.Ue(positive);
            pictures = negative + positive;
            for (uint32_t j = 0; j < pictures; ++j) {
                out.AnyUe(1);
                out.Any(1);
            }
        }
        before = pictures;
    }
}

void Hrd(Random& random, Bits& out, uint32_t subLayers)
{
    const bool nal = out.Flag();
    const bool vcl = out.Flag();
    bool subPicture = false;
    if (nal || vcl) {
        subPicture = out.Flag();
        out.Any((subPicture ? 19u : 0u) + 8 + (subPicture ? 4u : 0u) + 15);
    }
    for (uint32_t i = 0; i <= subLayers; ++i) {
        // With the general flag set the walk takes the next bit for the low-delay flag.
        uint32_t count = 0;
        if (!out.Flag() && out.Flag()) {
            out.AnyUe(1);
            count = random.Below(random.Chance(95) ? 4 : 40);
            out.Ue(count);
        } else if (!out.Flag()) {
            count = random.Below(4);
            out.Ue(count);
        }
        for (uint32_t j = 0; j < ((nal ? 1u : 0u) + (vcl ? 1u : 0u)) * (count + 1); ++j) {
            out.AnyUe(subPicture ? 4 : 2, 20);
            out.Any(1);
        }
    }
}

void Vui(Random& random, Bits& out, uint32_t subLayers)
{
    if (out.Flag()) {
        const bool extended = random.Chance(50);
        out.Put(extended ? 255 : random.Below(17), 8);
        out.Any(extended ? 32 : 0);
    }
    out.Any(out.Flag() ? 1 : 0);
    if (out.Flag()) {
        out.Any(4);
        out.Any(out.Flag() ? 24 : 0);
    }
    out.AnyUe(out.Flag() ? 2 : 0);
    out.Any(3);
    out.AnyUe(out.Flag() ? 4 : 0);
    if (out.Flag()) {
        out.Any(64);
        out.AnyUe(out.Flag() ? 1 : 0);
        if (out.Flag()) {
            Hrd(random, out, subLayers);
        }
    }
    if (out.Flag(70)) {
        out.Any(3);
        out.Ue(random.Pick({0u, 1u, 4u, 4095u, 4096u, 4097u, 4098u, 70000u}));
        out.AnyUe(4);
    }
}

}  // namespace

Bytes HevcVps(Random& random)
{
    Bits out(random);
    out.Any(12);
    const uint32_t subLayers = SubLayers(random);
    out.Put(subLayers, 3);
    out.Any(1);
    out.Put(0xFFFF, 16);
    ProfileTierLevel(random, out, subLayers);
    return out.Unit(32);
}

Bytes HevcSps(Random& random)
{
    Bits out(random);
    out.Any(4);
    const uint32_t subLayers = SubLayers(random);
    out.Put(subLayers, 3);
    out.Flag();
    ProfileTierLevel(random, out, subLayers);
    out.Ue(random.Below(16));
    const uint32_t chroma = random.Chance(95) ? random.Below(4) : random.Pick({255u, 256u, 259u});
    out.Ue(chroma);
    out.Any(chroma == 3 ? 1 : 0);
    out.Ue(random.Below(4096));
    out.Ue(random.Below(4096));
    out.AnyUe(out.Flag() ? 4 : 0);
    out.Ue(random.Chance(95) ? random.Below(8) : 300);
    out.Ue(random.Below(8));
    const uint32_t pocBits = random.Chance(90) ? random.Below(13) : random.Spread32(31);
    out.Ue(pocBits);
    out.AnyUe(3 * (out.Flag() ? subLayers + 1 : 1));
    out.AnyUe(6);
    if (out.Flag(40) && out.Flag()) {
        ScalingLists(random, out);
    }
    out.Any(2);
    if (out.Flag(30)) {
        out.Any(8);
        out.AnyUe(2);
        out.Any(1);
    }
    ShortTermSets(random, out);
    if (out.Flag(30)) {
        const uint32_t count = random.Chance(90) ? random.Below(5) : random.Below(34);
        out.Ue(count);
        for (uint32_t i = 0; i < count; ++i) {
            out.Any(std::min<uint32_t>(pocBits + 4, 16) + 1);
        }
    }
    out.Any(2);
    if (out.Flag(70)) {
        Vui(random, out, subLayers);
    }
    return out.Unit(33);
}

Bytes HevcPps(Random& random)
{
    Bits out(random);
    out.AnyUe(2);
    out.Any(7);
    out.AnyUe(3);
    out.Any(2);
    out.AnyUe(out.Flag() ? 1 : 0);
    out.AnyUe(2);
    out.Any(4);
    out.Flag();
    out.Flag();
    return out.Unit(34);
}

}  // namespace model
