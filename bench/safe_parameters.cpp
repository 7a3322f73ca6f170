// What a choice of safe parameters loses in a kill and costs, by bit rate: ten minutes of video and
// sound, or 4 GB, by a clock of their own, cut behind many frames. At each cut the file is opened
// by libavformat as it lies, and again after a repair of a copy, and the pictures that it names are
// counted.
//
//   safe_parameters FOLDER [CUTS]
//
// The media bytes are holes in the file, which readers of the index do not mind: 200 Mb/s fit into
// a small disk. The repair never reads them either, so that its copy has the size and the head of
// the file and the log alone.
#include <kv_mp4.h>

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr int kPictures = 30;     // a second
constexpr int kLongest = 600;     // seconds,
constexpr double kMost = 4e9;     // or so many bytes: the safe mode's limit
constexpr int kGroup = 60;        // pictures from one key frame to the next,
constexpr int kKeyWeight = 4;     // which is so many times as large as the others
constexpr int kSoundBytes = 341;  // 128 kb/s
constexpr int kHead = 64;         // what of the media file is copied for a repair

std::vector<std::uint8_t> g_frame;  // the bytes of every frame

// A file on disk whose media are holes, and a count of what it was asked for.
struct Sink {
    std::string path;
    int file = -1;
    std::int64_t position = 0;
    std::int64_t end = 0;
    std::int64_t bytes = 0;
    long writes = 0;
    long flushes = 0;
};
Sink g_sink;

std::uint8_t Open(void** context, const wchar_t*, std::uint32_t, std::uint32_t)
{
    g_sink.file = open(g_sink.path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    *context = &g_sink;
    return g_sink.file >= 0;
}

void Close(void*)
{
    close(g_sink.file);
}

std::int64_t Tell(void*)
{
    return g_sink.position;
}

void Seek(void*, std::int64_t offset, std::int32_t origin)
{
    g_sink.position = offset + (origin == 1 ? g_sink.position : origin == 2 ? g_sink.end : 0);
}

void Flush(void*)
{
    ++g_sink.flushes;
}

std::int32_t Write(void*, const void* data, std::uint32_t size)
{
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    const bool media = bytes >= g_frame.data() && bytes < g_frame.data() + g_frame.size();
    ++g_sink.writes;
    g_sink.bytes += size;
    if (!media && pwrite(g_sink.file, data, size, g_sink.position) != static_cast<ssize_t>(size))
        return 0;
    g_sink.position += size;
    if (g_sink.position > g_sink.end) {
        g_sink.end = g_sink.position;
        if (media && ftruncate(g_sink.file, g_sink.end) != 0)
            return 0;
    }
    return 1;
}

// The pictures that the index of a file names; -1 without an index.
std::int64_t PicturesOf(const std::string& path)
{
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) != 0)
        return -1;
    std::int64_t count = -1;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        if (input->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            count = input->streams[i]->nb_frames;
    }
    avformat_close_input(&input);
    return count;
}

// The same after a repair of what a kill would leave.
std::int64_t PicturesOfRepaired(const std::string& folder)
{
    const std::string copy = folder + "/cut.mp4";
    std::vector<char> head(kHead);
    if (pread(g_sink.file, head.data(), kHead, 0) != kHead)
        return -1;
    const int file = open(copy.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    const bool made =
        pwrite(file, head.data(), kHead, 0) == kHead && ftruncate(file, g_sink.end) == 0;
    close(file);
    std::filesystem::copy_file(g_sink.path + ".info", copy + ".info",
                               std::filesystem::copy_options::overwrite_existing);
    return made && mp4_repair_file_ex(copy.c_str(), 0) == MP4_OK ? PicturesOf(copy) : -1;
}

struct Choice {
    const char* name;
    double seconds;               // of data between checkpoints: 0 the defaults, -1 no safe mode
    std::uint32_t least;          // bytes that the distance is not to fall below
    std::uint32_t flushInterval;  // pictures; 0 no info file
};

constexpr std::uint32_t kMiB = 1 << 20;
constexpr Choice kChoices[] = {
    {"neither", -1, 0, 0},
    {"safe mode, defaults", 0, 0, 0},
    {"safe mode, 10 s", 10, 2 * kMiB, 0},
    {"safe mode, 2 s", 2, 2 * kMiB, 0},
    {"safe mode, 2 s without a least", 2, 0, 0},
    {"info file, default: every 900", -1, 0, 900},
    {"info file, every 30", -1, 0, 30},
    {"info file, every 10", -1, 0, 10},
    {"safe mode, 2 s; info file, every 30", 2, 2 * kMiB, 30},
};

struct Result {
    double first = -1;                   // second at which the file first had an index
    std::vector<double> lies, repaired;  // seconds lost at the cuts behind it, and at all cuts
    int unreadable = 0;                  // cuts behind it at which there was none
    std::int64_t bytes = 0;
    long writes = 0, flushes = 0;
};

int Seconds(double megabits)
{
    return std::min(kLongest, static_cast<int>(kMost / (megabits * 1e6 / 8)));
}

Result Record(const std::string& folder, double megabits, const Choice& choice,
              const std::set<int>& cuts)
{
    Result result;
    g_sink = {};
    g_sink.path = folder + "/take.mp4";
    ExternalIoFuncs table = {Open, Close, Tell, Seek, Flush, nullptr, Write};
    const bool safe = choice.seconds >= 0;
    std::uint8_t flags = MP4_OPEN_LARGE_FILE;
    if (safe)
        flags = MP4_OPEN_SAFE_MODE;
    if (choice.flushInterval != 0)
        flags |= MP4_OPEN_INFO_FILE;
    const double perSecond = megabits * 1e6 / 8;
    mp4_handle file = nullptr;
    mp4_video_track_info video{};
    video.timescale = kPictures;
    video.codec = MP4_VIDEO_H264;
    video.width = 1920;
    video.height = 1080;
    const std::uint8_t sps[] = {0x67, 0x42, 0xC0, 0x28, 0xDA, 0x01, 0xE0, 0x08, 0x9F, 0x95};
    const std::uint8_t pps[] = {0x68, 0xCE, 0x3C, 0x80};
    video.sps = sps;
    video.sps_size = sizeof sps;
    video.pps = pps;
    video.pps_size = sizeof pps;
    mp4_audio_track_info audio{48000, 1024, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    bool good = mp4_create_file_adv_ex(g_sink.path.c_str(), flags, 0, 0, MP4_IO_EXTERNAL, &table,
                                       &file) == MP4_OK &&
                mp4_set_video_track(file, &video) == MP4_OK &&
                mp4_set_audio_track(file, &audio) == MP4_OK;
    if (choice.seconds > 0) {
        const auto distance =
            std::max(choice.least, static_cast<std::uint32_t>(choice.seconds * perSecond));
        const mp4_safe_param fixed{0, distance, distance, distance};
        good = good && mp4_set_safe_param(file, &fixed) == MP4_OK;
    }
    if (choice.flushInterval != 0)
        good = good && mp4_repair_set_flush_interval(file, choice.flushInterval) == 4;

    const double unit = (perSecond / kPictures - kSoundBytes * 48000.0 / 1024 / kPictures) *
                        kGroup / (kGroup + kKeyWeight - 1);
    std::uint64_t sounds = 0;
    for (int n = 0; good && n < Seconds(megabits) * kPictures; ++n) {
        const bool key = n % kGroup == 0;
        g_frame[4] = key ? 0x65 : 0x41;
        const auto size = static_cast<std::uint32_t>(unit * (key ? kKeyWeight : 1));
        good = mp4_write_video_frame(file, g_frame.data(), size, static_cast<std::uint64_t>(n)) ==
               MP4_OK;
        for (; good && sounds * 1024 * kPictures < static_cast<std::uint64_t>(n + 1) * 48000;
             ++sounds)
            good = mp4_write_audio_frame(file, g_frame.data() + 8, kSoundBytes, sounds * 1024) ==
                   MP4_OK;
        const double now = (n + 1.0) / kPictures;
        const bool cut = cuts.contains(n);
        if (safe && (cut || (result.first < 0 && n % 10 == 0))) {
            const std::int64_t named = PicturesOf(g_sink.path);
            if (named >= 0 && result.first < 0)
                result.first = now;
            if (cut && named >= 0)
                result.lies.push_back(now - static_cast<double>(named) / kPictures);
            else if (cut && result.first >= 0)
                ++result.unreadable;
        }
        if (cut && choice.flushInterval != 0) {
            const auto named = std::max<std::int64_t>(PicturesOfRepaired(folder), 0);
            result.repaired.push_back(now - static_cast<double>(named) / kPictures);
        }
    }
    result.bytes = g_sink.bytes;
    result.writes = g_sink.writes;
    result.flushes = g_sink.flushes;
    if (choice.flushInterval != 0) {
        result.bytes +=
            static_cast<std::int64_t>(std::filesystem::file_size(g_sink.path + ".info"));
        result.flushes += Seconds(megabits) * kPictures / static_cast<int>(choice.flushInterval);
    }
    if (!good || mp4_close_file(file) != MP4_OK) {
        std::fprintf(stderr, "safe_parameters: a call failed\n");
        std::exit(1);
    }
    return result;
}

// "median / most", in seconds.
std::string Loss(std::vector<double> seconds)
{
    if (seconds.empty())
        return "all";
    std::ranges::sort(seconds);
    char text[64];
    std::snprintf(text, sizeof text, "%.1f / %.1f", seconds[seconds.size() / 2], seconds.back());
    return text;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: safe_parameters FOLDER [CUTS]\n");
        return 2;
    }
    av_log_set_level(AV_LOG_QUIET);
    spdlog::set_default_logger(
        std::make_shared<spdlog::logger>("none", std::make_shared<spdlog::sinks::null_sink_mt>()));
    const int count = argc > 2 ? std::atoi(argv[2]) : 200;
    // Without a byte 1 or two zeros behind the start code: one unit, whatever its size.
    g_frame.assign(8 * kMiB, 0xAA);
    std::copy_n("\0\0\0\1", 4, g_frame.begin());

    for (const double megabits : {2.0, 8.0, 25.0, 50.0, 100.0, 200.0}) {
        // The same cuts for every choice.
        std::mt19937 random(1);
        std::set<int> cuts;
        while (static_cast<int>(cuts.size()) < count)
            cuts.insert(
                std::uniform_int_distribution(0, Seconds(megabits) * kPictures - 1)(random));
        Result plain;
        for (const Choice& choice : kChoices) {
            if (choice.seconds > 0 && choice.least == 0 &&
                choice.seconds * megabits * 1e6 / 8 > kMiB)
                continue;  // about the same as with one
            const Result result = Record(argv[1], megabits, choice, cuts);
            if (choice.seconds < 0 && choice.flushInterval == 0)
                plain = result;
            const double minutes = Seconds(megabits) / 60.0;
            std::printf(
                "| %.0f | %s | %s | %s%s | %s | %.2f | %.0f | %.1f |\n", megabits, choice.name,
                result.first < 0 ? "never" : std::to_string(std::lround(result.first)).c_str(),
                Loss(result.lies).c_str(),
                result.unreadable ? (" (" + std::to_string(result.unreadable) + ")").c_str() : "",
                choice.flushInterval ? Loss(result.repaired).c_str() : "-",
                100.0 * static_cast<double>(result.bytes - plain.bytes) /
                    static_cast<double>(plain.bytes),
                static_cast<double>(result.writes - plain.writes) / minutes,
                static_cast<double>(result.flushes - plain.flushes) / minutes);
            std::fflush(stdout);
        }
    }
    return 0;
}
