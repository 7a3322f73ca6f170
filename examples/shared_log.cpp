// An application whose own spdlog logger takes the library's lines as well.
//
//   shared_log camera.h264 take1.mp4 application.log
//
// The library logs through spdlog's default logger, and mp4_create_file installs one of its own at
// its first call. The functions with a choice of output leave the default logger alone.
#include <kv_mp4.h>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace {

// An access unit delimiter, with which each picture of the stream begins.
const std::string kDelimiter("\0\0\0\1\x09", 5);

std::uint32_t Record(mp4_handle file, const std::string& camera)
{
    mp4_video_track_info video{};
    video.timescale = 25;
    video.sample_duration = 1;
    video.codec = MP4_VIDEO_H264;
    video.width = 320;
    video.height = 240;
    std::uint32_t status = mp4_set_video_track(file, &video);
    std::size_t end = 0;
    for (std::uint64_t time = 0; status == MP4_OK && end < camera.size(); ++time) {
        const std::size_t begin = end;
        end = std::min(camera.find(kDelimiter, begin + 1), camera.size());
        status = mp4_write_video_frame(file,
                                       reinterpret_cast<const std::uint8_t*>(camera.data() + begin),
                                       static_cast<std::uint32_t>(end - begin), time);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    std::ifstream input(argv[1], std::ios::binary);
    const std::string camera{std::istreambuf_iterator<char>(input), {}};
    try {
        // One sink for both: the application logs by a name of its own, the library as the default.
        const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(argv[3], true);
        sink->set_pattern("%l [%n] %s %v");
        spdlog::logger application("studio", sink);
        spdlog::set_default_logger(std::make_shared<spdlog::logger>("recorder", sink));
        spdlog::default_logger()->flush_on(spdlog::level::warn);

        application.info("recording {}", argv[2]);
        mp4_handle file = nullptr;
        std::uint32_t status =
            mp4_create_file_adv_ex(argv[2], 0, 0, 0, MP4_IO_FILE, nullptr, &file);
        if (status == MP4_OK) {
            status = Record(file, camera);
            const std::uint32_t closed = mp4_close_file(file);
            status = status != MP4_OK ? status : closed;
        }
        application.info("done, status {}", status);
        return status != MP4_OK;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "shared_log: %s\n", failure.what());
    } catch (const kv_mp4_exception& failure) {
        std::fprintf(stderr, "shared_log: write failed, error %d\n", failure.code);
    }
    return 1;
}
