// What stands in where FFmpeg's libraries are not: made-up streams with real parameter sets, and no
// second judge.
#include "recovery/encoded.h"
#include "recovery/judge.h"
#include "support/recording.h"

namespace kvtest {

namespace {

constexpr int kPictures = 200;
constexpr int kProResPictures = 90;  // which are larger
constexpr int kAudioFrames = 370;    // about as long as 200 pictures
constexpr int kKeyDistance = 25;     // pictures

// Bytes that look like a coded picture's and hold no start code; each picture has others.
Bytes Coded(int picture, std::size_t size)
{
    Bytes bytes(size);
    std::uint32_t state = static_cast<std::uint32_t>(picture) * 2654435761u + 1;
    for (std::uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(1 + state % 255u);
    }
    return bytes;
}

void Add(Bytes& frame, const Bytes& unit)
{
    frame.insert(frame.end(), {0, 0, 0, 1});
    frame.insert(frame.end(), unit.begin(), unit.end());
}

Bytes MakePicture(Codec codec, int picture)
{
    const bool key = picture % kKeyDistance == 0;
    const auto size = static_cast<std::size_t>((key ? 900 : 60) + picture * 37 % 200);
    Bytes frame;
    Bytes slice = Coded(picture, size);
    if (codec == Codec::Hevc) {
        if (key)
            for (const Bytes* set : {&HevcVps(), &HevcSps(), &HevcPps()})
                Add(frame, *set);
        slice[0] = key ? 0x26 : 0x02;  // IDR_W_RADL, TRAIL_R
        slice[1] = 0x01;
    } else {
        if (key)
            for (const Bytes* set : {&Sps(), &Pps()})
                Add(frame, *set);
        slice[0] = key ? 0x65 : 0x41;
    }
    Add(frame, slice);
    return frame;
}

std::vector<Bytes> MakeVideo(Codec codec)
{
    std::vector<Bytes> pictures;
    for (int n = 0; n < (codec == Codec::ProRes ? kProResPictures : kPictures); ++n)
        pictures.push_back(codec == Codec::ProRes
                               ? Coded(n, static_cast<std::size_t>(2000 + n * 61 % 700))
                               : MakePicture(codec, n));
    return pictures;
}

}  // namespace

const std::vector<Bytes>& EncodedVideo(Codec codec)
{
    static const std::vector<Bytes> streams[] = {MakeVideo(Codec::H264), MakeVideo(Codec::Hevc),
                                                 MakeVideo(Codec::ProRes)};
    return streams[static_cast<int>(codec)];
}

const std::vector<Bytes>& EncodedAudio()
{
    static const std::vector<Bytes> frames = [] {
        std::vector<Bytes> all;
        for (int n = 0; n < kAudioFrames; ++n)
            all.push_back(Coded(n, static_cast<std::size_t>(100 + n * 29 % 150)));
        return all;
    }();
    return frames;
}

std::string JudgeByLibavformat(const Take&, const Counts&, const Bytes&, std::uint64_t)
{
    return {};
}

}  // namespace kvtest
