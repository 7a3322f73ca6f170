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
    mp4_set_video_track(file, &info);
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
    if (status == MP4_OK)
        fuzz::CheckOuterBoxes(sink.Data());
    return 0;
}
