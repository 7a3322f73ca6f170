// How long a live recorder's longest frame call takes while checkpoints wait for the medium.
//
//   longest_call FILE MEGABITS-A-SECOND SECONDS
#include <kv_mp4.h>

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: longest_call FILE MEGABITS-A-SECOND SECONDS\n");
        return 2;
    }
    using Clock = std::chrono::steady_clock;
    constexpr int kRate = 60;
    const auto size = static_cast<std::uint32_t>(std::atof(argv[2]) * 1e6 / 8 / kRate);
    const int count = std::atoi(argv[3]) * kRate;
    spdlog::set_default_logger(
        std::make_shared<spdlog::logger>("none", std::make_shared<spdlog::sinks::null_sink_mt>()));

    mp4_handle file = nullptr;
    mp4_video_track_info track{};
    track.codec = MP4_VIDEO_PRORES;
    track.prores_format = MP4_PRORES_422;
    track.width = 1920;
    track.height = 1080;
    track.timescale = kRate;
    if (mp4_create_file_adv_ex(argv[1], MP4_OPEN_SAFE_MODE | MP4_OPEN_INFO_FILE, 0, 0, MP4_IO_FILE,
                               nullptr, &file) != MP4_OK ||
        mp4_set_video_track(file, &track) != MP4_OK) {
        std::fprintf(stderr, "longest_call: cannot record to %s\n", argv[1]);
        return 1;
    }
    std::vector<std::uint8_t> frame(size);
    std::ranges::generate(frame, std::mt19937(1));
    std::vector<double> calls;  // milliseconds
    auto due = Clock::now();
    for (int n = 0; n < count; ++n) {
        const auto before = Clock::now();
        const std::uint32_t status =
            mp4_write_video_frame(file, frame.data(), size, static_cast<std::uint64_t>(n));
        calls.push_back(std::chrono::duration<double, std::milli>(Clock::now() - before).count());
        if (status != MP4_OK)
            return 1;
        due += std::chrono::microseconds(1000000 / kRate);
        std::this_thread::sleep_until(due);
    }
    const auto before = Clock::now();
    mp4_close_file(file);
    const double close = std::chrono::duration<double, std::milli>(Clock::now() - before).count();
    std::ranges::sort(calls);
    std::printf("median %.2f ms, 99.9 %% below %.1f ms, longest %.1f ms, close %.1f ms\n",
                calls[calls.size() / 2], calls[calls.size() * 999 / 1000], calls.back(), close);
    return 0;
}
