// Splitting of Annex B frames, beside a splitting that looks at every byte.
#include "fuzz.h"
#include "video_parser.h"

namespace {

struct Unit {
    std::size_t start;
    std::size_t end;
};

std::vector<Unit> SplitSlowly(const fuzz::Bytes& frame)
{
    std::vector<Unit> units;
    bool open = false;
    for (std::size_t i = 0; i + 4 <= frame.size(); ++i) {
        if (frame[i] != 0 || frame[i + 1] != 0 || frame[i + 2] != 1)
            continue;
        if (open)
            units.back().end = i > 0 && frame[i - 1] == 0 ? i - 1 : i;
        units.push_back({i + 3, frame.size()});
        open = true;
    }
    return units;
}

void Compare(const fuzz::Bytes& frame)
{
    CVideoFrameParser parser;
    const bool found = parser.Parse(frame.data(), static_cast<std::uint32_t>(frame.size()));
    const std::vector<Unit> expected = SplitSlowly(frame);
    FUZZ_CHECK(found == !expected.empty());
    FUZZ_CHECK(parser.size() == expected.size());
    const CH264Nal h264;
    const CHevcNal hevc;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        FUZZ_CHECK(parser[i].data == frame.data() + expected[i].start);
        FUZZ_CHECK(parser[i].size ==
                   static_cast<std::uint32_t>(expected[i].end - expected[i].start));
        FUZZ_CHECK(h264.IsKeyFrame(parser[i].data, parser[i].size) == ((parser[i].data[0] & 31) == 5));
        FUZZ_CHECK(hevc.GetNalType(parser[i].data, parser[i].size) < 64);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Compare({data, data + size});
    if (size == 0)
        return 0;
    // Long frames take another way: the same bytes again and again, at all distances from blocks.
    fuzz::Bytes longFrame(data[0], data[0] & 64 ? std::uint8_t{0} : std::uint8_t{0x5A});
    while (longFrame.size() < (16u << 10) + 300)
        longFrame.insert(longFrame.end(), data, data + size);
    Compare(longFrame);
    return 0;
}
