// Logs that no recording has written: any packets in any order.
#include "model/bin.h"
#include "model/streams.h"

namespace model {

namespace {

void Blob(Random& random, Bin& out, const Bytes& bytes)
{
    out.U32(random.Chance(98) ? bytes.size() : random.Spread(32)).Raw(bytes);
}

void Metadata(Random& random, Bin& out)
{
    static constexpr const char* kKeys[] = {"title", "comment", "desc", "com.acme",
                                            "com.",  "x",       ""};
    const auto text = [&](const char* string) {
        Bin b;
        b.Text(string);
        return (random.Chance(90) ? b.U8(0) : b).bytes;
    };
    out.U8(1).U8(random.Pick({0u, 1u, 1u, 21u, 2u, 255u}));
    Blob(random, out, text(kKeys[random.Below(std::size(kKeys))]));
    Bytes value = random.Some(random.Below(100) == 0 ? 5000 : random.Spread32(5));
    if (random.Chance(70)) {
        value.push_back(0);
    }
    Blob(random, out, value);
    if (random.Chance(60)) {
        out.U32(0);
    } else {
        Blob(random, out, text(random.Pick({"mdta", "ab", "abcdef", ""})));
    }
}

void VideoTrack(Random& random, Bin& out)
{
    const uint32_t codec = random.Chance(95) ? random.Below(3) : random.Byte();
    out.U8(2).U32(random.Chance(80) ? 1000 : random.Spread(32)).U64(random.Spread(64)).U8(codec);
    out.U16(random.Spread(16)).U16(random.Spread(16));
    if (codec == 2) {
        out.U8(random.Chance(90) ? random.Below(6) : random.Byte());
        return;
    }
    Step sets;
    GiveParameterSets(random, codec == 0 ? 0 : 1, sets);
    const auto put = [&](const ParameterSet& set) {
        Blob(random, out, set.bytes.value_or(Bytes()));
    };
    if (codec != 0) {
        put(sets.vps);
    }
    put(sets.sps);
    put(sets.pps);
}

uint64_t SampleSize(Random& random)
{
    return random.Chance(97) ? random.Below(400) : random.Spread(32);
}

}  // namespace

Bytes MadeUpLog(Random& random)
{
    Bin out;
    out.U8(random.Byte()).U32(random.Chance(90) ? random.Pick({20u, 36u}) : random.Spread32(32));
    uint64_t time = random.Chance(90) ? 0 : random.Spread(64);
    const bool together = random.Chance(80);  // set-ups first, and once
    if (together) {
        VideoTrack(random, out);
        out.U8(3).U32(48000).U64(0).U8(random.Below(4)).U16(48000).U16(2).U8(2);
    }
    for (uint32_t i = random.Spread32(7); i > 0; --i) {
        time += random.Spread(6);
        switch (random.Below(together ? 12 : 16)) {
        case 0: Metadata(random, out); break;
        case 1: out.U8(6).U32(random.Spread(20)).U8(random.Below(4)); break;
        case 2:
            out.U8(8)
                .U32(random.Spread(16))
                .U64(random.Spread(40))
                .U8(random.Byte())
                .U32(random.Spread(32));
            break;
        case 3: out.U8(9).U32(random.Spread(32)); break;
        case 4: out.U8(7).U64(time).U32(SampleSize(random)); break;
        case 5:
        case 6:
        case 7: out.U8(5).U64(time).U32(SampleSize(random)); break;
        case 12: VideoTrack(random, out); break;
        case 13: out.U8(3).Raw(random.Some(18)); break;
        case 14:
            if (random.Chance(10)) {
                out.U8(random.Byte());
            }
            break;
        default:
            out.U8(4).U64(time + (random.Chance(10) ? random.Spread(8) : 0)).U64(time);
            out.U8(random.Chance(20) ? random.Byte() : 0).U32(SampleSize(random));
        }
    }
    return out.bytes;
}

}  // namespace model
