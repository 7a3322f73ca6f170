// HEVC parameter sets: the walks alone, and the whole way into `hvcC`, whose bytes must be those of
// the tests' model. That has walks of its own.
#include "fuzz.h"
#include "hevc_config.h"
#include "model/codec.h"
#include "model/target.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>
#include <memory>

namespace {

// A copy of its exact size, so that a byte read behind it is seen.
std::unique_ptr<std::uint8_t[]> Copy(const fuzz::Bytes& bytes)
{
    auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

using Sets = std::array<model::ParameterSet, 3>;  // VPS, SPS, PPS

// What a box writes.
class Written : public model::Target {
public:
    explicit Written(model::Journal& journal) : Target(journal) { m_state = model::State::Open; }
    std::uint64_t Tell() override { return bytes.size(); }
    void Seek(std::uint64_t) override {}

    fuzz::Bytes bytes;

private:
    void Take(const std::uint8_t* data, std::size_t size, bool) override
    {
        bytes.insert(bytes.end(), data, data + size);
    }
};

// The `hvcC` of these sets; nothing where a walk fails or a set is missing.
std::optional<fuzz::Bytes> ExpectedBox(const Sets& sets)
{
    model::Observed seen;
    model::Journal journal{&seen};
    Written box(journal);
    try {
        model::HevcConfig config;
        config.Set(sets[0], sets[1], sets[2], journal);
        config.Write(box, journal);
    } catch (const model::OtherFailure&) {
        return std::nullopt;
    }
    return box.bytes;
}

// The last of each kind up to where all three are there; nothing where they never are.
std::optional<Sets> FoundIn(const fuzz::Bytes& frame)
{
    Sets sets;
    for (const model::Unit& unit : model::SplitFrame(frame)) {
        const int kind = (frame[unit.start] >> 1 & 63) - 32;
        if (kind < 0 || kind > 2)
            continue;
        const auto begin = frame.begin() + static_cast<std::ptrdiff_t>(unit.start);
        sets[static_cast<std::size_t>(kind)] = {
            fuzz::Bytes(begin, begin + static_cast<std::ptrdiff_t>(unit.size)),
            static_cast<std::int16_t>(unit.size)};
        if (sets[0].bytes && sets[1].bytes && sets[2].bytes)
            return sets;
    }
    return std::nullopt;
}

// The `hvcC` of the only track; nothing without a track.
std::optional<fuzz::Bytes> BoxOf(const fuzz::Bytes& file)
{
    auto inside = fuzz::Inside(fuzz::Inside(file, "moov").value(), "trak");
    if (!inside)
        return std::nullopt;
    for (const char* code : {"mdia", "minf", "stbl"})
        inside = fuzz::Inside(inside.value(), code);
    inside = fuzz::Inside(fuzz::Inside(inside.value(), "stsd", 8).value(), "hev1", 78);
    const auto box = fuzz::Inside(inside.value(), "hvcC").value();
    return fuzz::Bytes(box.data() - 8, box.data() + box.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Silence();
    FuzzedDataProvider input(data, size);
    const std::uint8_t flags = input.ConsumeIntegral<std::uint8_t>();
    std::vector<fuzz::Bytes> sets;
    std::vector<std::unique_ptr<std::uint8_t[]>> copies;
    HEVCDecoderConfigurationRecord config;
    for (int i = 0; i < 3; ++i) {
        const auto length = input.ConsumeIntegral<std::uint8_t>();
        sets.push_back(i < 2 ? input.ConsumeBytes<std::uint8_t>(length)
                             : input.ConsumeRemainingBytes<std::uint8_t>());
        copies.push_back(Copy(sets.back()));
        ParseHevcNal(&config, copies.back().get(), static_cast<std::int32_t>(sets.back().size()));
    }
    FinishConfig(&config);
    FUZZ_CHECK(config.min_spatial_segmentation_idc <= 4096);

    // By the record, or found in the stream.
    fuzz::Sink sink;
    const mp4_handle file = fuzz::OpenRecording(sink, flags & 1, false);
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_HEVC;
    if (flags & 2) {
        const auto length = [&sets](std::size_t i) {
            return static_cast<std::int16_t>(std::min<std::size_t>(sets[i].size(), 0x7FFF));
        };
        info.vps = copies[0].get();
        info.vps_size = length(0);
        info.sps = copies[1].get();
        info.sps_size = length(1);
        info.pps = copies[2].get();
        info.pps_size = length(2);
    }
    FUZZ_CHECK(mp4_set_video_track(file, &info) == MP4_OK);
    const bool byRecord = info.vps_size != 0 && info.sps_size != 0 && info.pps_size != 0;
    fuzz::Bytes frame;
    for (const fuzz::Bytes& set : sets) {
        frame.insert(frame.end(), {0, 0, 0, 1});
        frame.insert(frame.end(), set.begin(), set.end());
    }
    for (std::uint64_t time = 0; time < 2; ++time)
        mp4_write_video_frame(file, frame.data(), static_cast<std::uint32_t>(frame.size()), time);
    std::optional<Sets> used;
    if (byRecord)
        used = {{{sets[0], info.vps_size}, {sets[1], info.sps_size}, {sets[2], info.pps_size}}};
    else
        used = FoundIn(frame);
    const std::optional<fuzz::Bytes> expected = used ? ExpectedBox(*used) : std::nullopt;
    // Sets whose walk failed have no `hvcC`, and the close says so.
    const std::uint32_t status = mp4_close_file(file);
    FUZZ_CHECK(status == (used && !expected ? MP4_ERR_FAILED : MP4_OK));
    if (status != MP4_OK)
        return 0;
    fuzz::CheckOuterBoxes(sink.Data());
    FUZZ_CHECK(BoxOf(sink.Data()) == expected);
    return 0;
}
