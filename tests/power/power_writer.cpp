// Records numbered pictures with safe mode and info file until somebody ends it, and says on
// standard output after each checkpoint how many pictures the index on the medium holds by then.
//
//   power_writer FILE BYTES-A-PICTURE PICTURES-A-SECOND
#include <kv_mp4.h>

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace {

// Learns of checkpoints from the library's log, as an application would.
class CheckpointWatch final : public spdlog::sinks::base_sink<std::mutex> {
public:
    int count = 0;

protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        constexpr std::string_view begin = "update moov header to ";
        count += std::string_view(message.payload.data(), message.payload.size()).starts_with(begin);
    }
    void flush_() override {}
};

int Fail(const char* what, std::uint32_t status)
{
    std::fprintf(stderr, "power_writer: %s: status %u\n", what, status);
    return 1;
}

// A picture that tells its number in every word.
void Number(std::vector<std::uint8_t>& picture, std::uint32_t n)
{
    for (std::size_t i = 0; i < picture.size(); ++i)
        picture[i] = static_cast<std::uint8_t>(n >> (24 - 8 * (i % 4)));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return Fail("usage: power_writer FILE BYTES-A-PICTURE PICTURES-A-SECOND", 0);
    const auto watch = std::make_shared<CheckpointWatch>();
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("power", watch));

    mp4_handle file = nullptr;
    const std::uint8_t flags = MP4_OPEN_SAFE_MODE | MP4_OPEN_INFO_FILE;
    std::uint32_t status =
        mp4_create_file_adv_ex(argv[1], flags, 0, 0, MP4_IO_FILE, nullptr, &file);
    if (status != MP4_OK)
        return Fail("create", status);
    const auto rate = static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10));
    mp4_video_track_info track{};
    track.codec = MP4_VIDEO_PRORES;
    track.prores_format = MP4_PRORES_422;
    track.width = 1920;
    track.height = 1080;
    track.timescale = rate;
    status = mp4_set_video_track(file, &track);
    const mp4_safe_param params{0, 1 << 20, 1 << 20, 0};  // a checkpoint to each mebibyte
    if (status == MP4_OK)
        status = mp4_set_safe_param(file, &params);
    if (status != MP4_OK)
        return Fail("set-up", status);
    mp4_repair_set_flush_interval(file, 10);

    std::vector<std::uint8_t> picture(std::strtoul(argv[2], nullptr, 10));
    auto due = std::chrono::steady_clock::now();
    for (std::uint32_t n = 0;; ++n) {
        Number(picture, n);
        const int before = watch->count;
        status = mp4_write_video_frame(file, picture.data(),
                                       static_cast<std::uint32_t>(picture.size()), n);
        if (status != MP4_OK)
            return Fail("frame", status);
        if (watch->count != before) {
            std::printf("%u\n", n);  // the picture itself is not in it
            std::fflush(stdout);
        }
        due += std::chrono::microseconds(1000000 / rate);
        std::this_thread::sleep_until(due);
    }
}
