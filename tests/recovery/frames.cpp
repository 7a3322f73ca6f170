#include "recovery/encoded.h"

#include <utility>

namespace kvtest {

const std::vector<Bytes>& EncodedAdts()
{
    static const std::vector<Bytes> frames = [] {
        std::vector<Bytes> all;
        for (const Bytes& frame : EncodedAudio()) {
            const std::size_t size = frame.size() + 7;
            Bytes adts{0xFF, 0xF1, 0x4C, 0x80, 0, 0, 0xFC};  // LC, 48000, stereo
            adts[3] = static_cast<std::uint8_t>(0x80 | size >> 11);
            adts[4] = static_cast<std::uint8_t>(size >> 3);
            adts[5] = static_cast<std::uint8_t>(size << 5 | 0x1F);
            adts.insert(adts.end(), frame.begin(), frame.end());
            all.push_back(adts);
        }
        return all;
    }();
    return frames;
}

std::vector<Bytes> SplitUnits(const Bytes& frame)
{
    std::vector<std::pair<std::size_t, std::size_t>> codes;  // first byte of the code, of the unit
    for (std::size_t i = 0; i + 3 < frame.size(); ++i)
        if (frame[i] == 0 && frame[i + 1] == 0 && frame[i + 2] == 1)
            codes.emplace_back(i > 0 && frame[i - 1] == 0 ? i - 1 : i, i + 3);
    std::vector<Bytes> units;
    for (std::size_t n = 0; n < codes.size(); ++n) {
        const std::size_t end = n + 1 < codes.size() ? codes[n + 1].first : frame.size();
        units.emplace_back(frame.begin() + static_cast<std::ptrdiff_t>(codes[n].second),
                           frame.begin() + static_cast<std::ptrdiff_t>(end));
    }
    return units;
}

Bytes WithLengths(const Bytes& frame)
{
    Bytes sample;
    for (const Bytes& unit : SplitUnits(frame)) {
        for (const int shift : {24, 16, 8, 0})
            sample.push_back(static_cast<std::uint8_t>(unit.size() >> shift));
        sample.insert(sample.end(), unit.begin(), unit.end());
    }
    return sample;
}

}  // namespace kvtest
