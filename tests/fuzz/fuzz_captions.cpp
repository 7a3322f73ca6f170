// Packed caption frames of both kinds.
#include "fuzz.h"

#include <fuzzer/FuzzedDataProvider.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Silence();
    FuzzedDataProvider input(data, size);
    const auto flags = input.ConsumeIntegral<std::uint8_t>();
    fuzz::Sink sink;
    const mp4_handle file = fuzz::OpenRecording(sink, flags & 1, flags & 2);
    const mp4_subtitle_track_info info{
        flags & 4 ? std::uint32_t{MP4_SUBTITLE_CEA608} : std::uint32_t{MP4_SUBTITLE_CEA708}, 1000};
    FUZZ_CHECK(mp4_set_subtitle_track(file, &info) == MP4_OK);
    for (std::uint64_t time = 0; input.remaining_bytes() > 0; time += 33) {
        const auto length = input.ConsumeIntegral<std::uint8_t>();
        const auto frame = input.ConsumeBytes<std::uint8_t>(length);
        const std::size_t before = sink.Data().size();
        FUZZ_CHECK(mp4_write_subtitle_frame(file, frame.data(),
                                            static_cast<std::uint32_t>(frame.size()),
                                            time) == MP4_OK);
        // An entry of three bytes becomes an atom of ten, or one atom holds the whole frame.
        FUZZ_CHECK(sink.Data().size() - before <= 8 + frame.size() * 10 / 3);
        if (frame.empty() || frame[0] != 0x61)
            FUZZ_CHECK(sink.Data().size() == before);
    }
    FUZZ_CHECK(mp4_close_file(file) == MP4_OK);
    fuzz::CheckOuterBoxes(sink.Data());
    return 0;
}
