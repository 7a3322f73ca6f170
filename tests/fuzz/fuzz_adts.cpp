// ADTS streams: which bytes become samples, kept beside.
#include "fuzz.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>

namespace {

bool LooksLikeAdts(const fuzz::Bytes& frame)
{
    return frame.size() >= 8 && frame[0] == 0xFF && (frame[1] & 0xF0) == 0xF0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Silence();
    FuzzedDataProvider input(data, size);
    const auto flags = input.ConsumeIntegral<std::uint8_t>();
    fuzz::Sink sink;
    const mp4_handle file = fuzz::OpenRecording(sink, flags & 1, flags & 2);
    const std::size_t head = sink.Data().size();
    mp4_audio_track_info info{};
    info.codec = MP4_AUDIO_AAC_ADTS;
    FUZZ_CHECK(mp4_set_audio_track(file, &info) == MP4_OK);
    bool ready = false;
    fuzz::Bytes payload;
    for (std::uint64_t time = 0; input.remaining_bytes() > 0; time += 1024) {
        const auto length = input.ConsumeIntegral<std::uint8_t>();
        const auto frame = input.ConsumeBytes<std::uint8_t>(length);
        const std::uint32_t status = mp4_write_audio_frame(
            file, frame.data(), static_cast<std::uint32_t>(frame.size()), time);
        if (frame.empty()) {
            FUZZ_CHECK(status == MP4_OK);
            continue;
        }
        const bool adts = LooksLikeAdts(frame);
        FUZZ_CHECK(status == (adts || ready ? MP4_OK : MP4_ERR_INVALID_ADTS));
        ready |= adts;
        if (ready)
            payload.insert(payload.end(), frame.begin() + (adts ? 7 : 0), frame.end());
        FUZZ_CHECK(sink.Data().size() == head + payload.size());
    }
    FUZZ_CHECK(mp4_close_file(file) == MP4_OK);
    fuzz::CheckOuterBoxes(sink.Data());
    FUZZ_CHECK(std::equal(payload.begin(), payload.end(),
                          sink.Data().begin() + static_cast<std::ptrdiff_t>(head)));
    return 0;
}
