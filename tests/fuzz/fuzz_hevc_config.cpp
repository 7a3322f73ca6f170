// HEVC parameter sets: the walks alone, and the whole way into `hvcC`.
#include "fuzz.h"
#include "hevc_config.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <memory>

namespace {

// A copy of its exact size, so that a byte read behind it is seen.
std::unique_ptr<std::uint8_t[]> Copy(const fuzz::Bytes& bytes)
{
    auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

// The units of an `hvcC`, whose arrays must end where it ends.
std::vector<fuzz::Bytes> UnitsOf(std::span<const std::uint8_t> box)
{
    std::vector<fuzz::Bytes> units;
    std::size_t at = 0;
    const auto number = [&](std::size_t bytes) {
        FUZZ_CHECK(at + bytes <= box.size());
        std::size_t value = 0;
        for (const std::size_t end = at + bytes; at < end; ++at)
            value = value << 8 | box[at];
        return value;
    };
    FUZZ_CHECK(number(1) == 1);  // the version
    at = 22;
    for (std::size_t arrays = number(1); arrays > 0; --arrays) {
        number(1);
        for (std::size_t count = number(2); count > 0; --count) {
            const std::size_t length = number(2);
            FUZZ_CHECK(at + length <= box.size());
            units.emplace_back(box.begin() + static_cast<std::ptrdiff_t>(at),
                               box.begin() + static_cast<std::ptrdiff_t>(at + length));
            at += length;
        }
    }
    FUZZ_CHECK(at == box.size());
    return units;
}

// The only track has its `hvcC`; no sets at all, no track.
std::optional<std::vector<fuzz::Bytes>> WrittenUnits(const fuzz::Bytes& file)
{
    auto inside = fuzz::Inside(fuzz::Inside(file, "moov").value(), "trak");
    if (!inside)
        return std::nullopt;
    for (const char* code : {"mdia", "minf", "stbl"})
        inside = fuzz::Inside(inside.value(), code);
    inside = fuzz::Inside(fuzz::Inside(inside.value(), "stsd", 8).value(), "hev1", 78);
    return UnitsOf(fuzz::Inside(inside.value(), "hvcC").value());
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
    bool walked = true;
    for (int i = 0; i < 3; ++i) {
        const auto length = input.ConsumeIntegral<std::uint8_t>();
        sets.push_back(i < 2 ? input.ConsumeBytes<std::uint8_t>(length)
                             : input.ConsumeRemainingBytes<std::uint8_t>());
        copies.push_back(Copy(sets.back()));
        walked &= ParseHevcNal(&config, copies.back().get(),
                               static_cast<std::int32_t>(sets.back().size()));
    }
    FinishConfig(&config);
    FUZZ_CHECK(config.min_spatial_segmentation_idc <= 4096);
    std::size_t filed = 0;
    for (const HvccNalArray& array : config.arrays)
        filed += array.nalUnits.size();
    FUZZ_CHECK(filed <= sets.size());

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
    // Sets whose walk failed have no `hvcC`, and the close says so.
    const std::uint32_t status = mp4_close_file(file);
    FUZZ_CHECK(status == MP4_OK || status == MP4_ERR_FAILED);
    FUZZ_CHECK(!byRecord || (status == MP4_OK) == walked);
    if (status != MP4_OK)
        return 0;
    fuzz::CheckOuterBoxes(sink.Data());
    const auto units = WrittenUnits(sink.Data());
    FUZZ_CHECK(units || !byRecord);
    FUZZ_CHECK(!byRecord || units->size() == filed);
    for (const fuzz::Bytes& unit : byRecord ? *units : std::vector<fuzz::Bytes>{})
        FUZZ_CHECK(std::find(sets.begin(), sets.end(), unit) != sets.end());
    return 0;
}
