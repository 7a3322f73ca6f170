#include "model/streams.h"

#include <algorithm>

namespace model {

namespace {

void Append(Bytes& to, const Bytes& more)
{
    to.insert(to.end(), more.begin(), more.end());
}

// A few bits or the end of a set are lost.
void Damage(Random& random, Bytes& bytes)
{
    if (bytes.empty()) {
        return;
    }
    if (random.Chance(50)) {
        bytes.resize(random.Below(bytes.size() + 1));
        return;
    }
    for (uint32_t i = 0; i <= random.Below(4); ++i) {
        const uint32_t at = random.Below(bytes.size());
        bytes[at] = static_cast<uint8_t>(bytes[at] ^ 1u << random.Below(8));
    }
}

Bytes AvcSet(Random& random, bool isSps)
{
    Bytes set = random.Some(random.Chance(90) ? 4 + random.Below(20) : random.Below(6));
    if (!set.empty()) {
        // Any nal_ref_idc, and now and then the forbidden bit.
        const uint32_t head =
            random.Chance(70) ? 0x60 : random.Below(random.Chance(80) ? 4 : 8) << 5;
        set[0] = static_cast<uint8_t>(head | (isSps ? 7 : 8));
    }
    return set;
}

Bytes HevcSet(Random& random, uint32_t type)
{
    Bytes set = type == 32 ? HevcVps(random) : type == 33 ? HevcSps(random) : HevcPps(random);
    if (random.Chance(6)) {
        set[0] = static_cast<uint8_t>(random.Pick({39u, 40u, 41u, 32u, 33u, 34u}) << 1);
    }
    if (random.Chance(10)) {  // the high bit of the layer, and the forbidden one
        set[0] = static_cast<uint8_t>(set[0] | random.Pick({0x01, 0x80, 0x81}));
    }
    if (random.Chance(8)) {
        Damage(random, set);
    }
    return set;
}

ParameterSet Given(Random& random, Bytes bytes)
{
    ParameterSet set;
    set.size = static_cast<int16_t>(bytes.size());
    set.bytes = std::move(bytes);
    if (random.Chance(4)) {
        set.size = static_cast<int16_t>(
            random.Chance(80) ? 0 : -1 - static_cast<int>(random.Below(32768)));
    }
    if (random.Chance(3)) {
        set.bytes.reset();
    }
    return set;
}

// Of tens of kilobytes, with zeros and ones strewn in.
Bytes LongUnit(Random& random, uint32_t codec, uint32_t type)
{
    Bytes unit = random.Some(random.Pick({16384u, 32760u, 65530u, 65536u}) + random.Below(1000));
    for (uint8_t& byte : unit) {
        byte = byte < 40 ? byte % 3 : byte;
    }
    for (uint32_t i = random.Below(20); i > 0; --i) {
        const size_t at = random.Below(unit.size() - 80);
        const size_t near = random.Chance(50) ? at : at / 64 * 64 + random.Below(8);
        const Bytes code = {0, 0, 0, 1};
        std::copy(code.begin() + random.Below(3), code.end(),
                  unit.begin() + static_cast<ptrdiff_t>(near));
    }
    unit[0] = static_cast<uint8_t>(codec == 0 ? (unit[0] & 0xE0) | type : type << 1);
    return unit;
}

Bytes Unit(Random& random, uint32_t codec, uint32_t type)
{
    const bool isSet = codec == 0 ? type == 7 || type == 8 : type >= 32 && type <= 34;
    if (isSet && random.Below(300) == 0) {
        return LongUnit(random, codec, type);
    }
    if (codec == 0 && (type == 7 || type == 8)) {
        return AvcSet(random, type == 7);
    }
    if (codec == 1 && type >= 32 && type <= 34) {
        return HevcSet(random, type);
    }
    if (random.Below(400) == 0) {
        return LongUnit(random, codec, type);
    }
    Bytes unit = random.Some(1 + random.Spread32(random.Chance(95) ? 7 : 12));
    const uint32_t around = random.Chance(90) ? 0u : unit[0] & 0x81u;
    unit[0] = static_cast<uint8_t>(codec == 0 ? (unit[0] & 0xE0) | type : type << 1 | around);
    if (random.Chance(5)) {
        unit.clear();
    }
    if (random.Chance(10)) {
        unit.insert(unit.end(), random.Below(4), uint8_t{0});
    }
    return unit;
}

}  // namespace

void GiveParameterSets(Random& random, uint32_t codec, Step& step)
{
    if (random.Chance(25)) {
        return;  // to be found in the stream
    }
    if (codec == 0) {
        step.sps = Given(random, AvcSet(random, true));
        step.pps = Given(random, AvcSet(random, false));
        if (random.Chance(20)) {  // not its own
            step.vps = Given(random, HevcSet(random, 32));
        }
    } else {
        step.vps = Given(random, HevcSet(random, 32));
        step.sps = Given(random, HevcSet(random, 33));
        step.pps = Given(random, HevcSet(random, 34));
    }
}

Bytes VideoFrame(Random& random, uint32_t codec)
{
    Bytes frame;
    if (codec > 1 || random.Chance(3)) {
        return random.Some(1 + random.Spread32(random.Below(500) == 0 ? 20 : 10));
    }
    if (random.Chance(5)) {  // little but start codes and what looks like them
        for (uint32_t i = random.Below(24); i > 0; --i) {
            frame.push_back(random.Pick<uint8_t>({0, 0, 0, 1, 1, 3, 0x65, 0x26}));
        }
        return frame;
    }
    if (random.Chance(5)) {
        frame = random.Some(random.Below(5));
    }
    std::vector<uint32_t> types;
    if (random.Chance(25)) {
        types = codec == 0 ? std::vector<uint32_t>{7, 8} : std::vector<uint32_t>{32, 33, 34};
        types.resize(types.size() - (random.Chance(10) ? 1 : 0));
        if (random.Chance(20)) {
            std::reverse(types.begin(), types.end());
        }
    }
    for (uint32_t i = 0; i <= random.Below(4); ++i) {
        types.push_back(codec == 0 ? random.Pick({1u, 1u, 5u, 6u, 9u, 7u, 8u})
                                   : random.Pick({1u, 1u, 19u, 20u, 21u, 35u, 39u, 33u, 63u}));
    }
    for (const uint32_t type : types) {
        frame.insert(frame.end(), random.Chance(50) ? 2 : 3 + random.Below(2), uint8_t{0});
        frame.push_back(1);
        Append(frame, Unit(random, codec, type));
    }
    return frame;
}

Bytes AudioFrame(Random& random, bool adts)
{
    Bytes frame = random.Some(1 + random.Spread32(random.Chance(95) ? 8 : 12));
    if (random.Chance(adts ? 92 : 3)) {
        frame[0] = 0xFF;
        frame.resize(std::max<size_t>(frame.size(), random.Chance(95) ? 8 : 2));
        frame[1] = static_cast<uint8_t>(0xF0 | (random.Chance(80) ? 1 : frame[1]));
    }
    return frame;
}

Bytes CaptionFrame(Random& random, uint32_t codec)
{
    if (random.Chance(4)) {
        return random.Some(random.Below(10));
    }
    const bool is608 = codec == (random.Chance(93) ? 1u : 2u);
    Bytes frame = {0x61, static_cast<uint8_t>(is608 ? 2 : 1), random.Byte()};
    if (is608) {
        for (uint32_t i = random.Below(21); i > 0; --i) {
            Append(frame, {static_cast<uint8_t>(random.Chance(92) ? 0xFC | random.Below(2)
                                                                  : random.Byte()),
                           random.Byte(), random.Byte()});
        }
        Append(frame, random.Some(random.Chance(80) ? 0 : random.Below(3)));
        return frame;
    }
    const uint32_t length = random.Spread32(8);
    frame[2] = static_cast<uint8_t>(length);
    Append(frame, random.Some(random.Chance(90) ? length : random.Below(40)));
    if (random.Chance(5)) {
        frame.resize(random.Below(4));
    }
    return frame;
}

}  // namespace model
