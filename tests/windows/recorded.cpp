// Records made-up streams with every flag, kind of file and codec into a folder, and prints a line
// for each: its name, every status, and a hash of the bytes of the media file, of the log beside it
// before the close, and of what a repair makes of the two. The same program prints the same lines on
// every system.
//
//   recorded FOLDER         all recordings; leaves no file
//   recorded FOLDER NAME    one of them; leaves it, and as "dead..." what a kill would have left
#include <kv_mp4.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

// Numbers that look like chance and are the same everywhere.
class Numbers {
public:
    explicit Numbers(std::uint64_t seed) : m_state(seed * 2 + 1) {}
    std::uint32_t Below(std::uint32_t limit)
    {
        m_state = m_state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<std::uint32_t>(m_state >> 33) % limit;
    }

private:
    std::uint64_t m_state;
};

std::uint64_t Hash(const Bytes& bytes)
{
    std::uint64_t hash = 14695981039346656037u;  // FNV-1a
    for (const std::uint8_t byte : bytes)
        hash = (hash ^ byte) * 1099511628211u;
    return hash;
}

Bytes Read(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Real parameter sets.
const Bytes kSps = {0x67, 0x64, 0x00, 0x0A, 0xAC, 0xD9, 0x42, 0x8D, 0xF9, 0xE1, 0x00, 0x00,
                    0x03, 0x00, 0x01, 0x00, 0x00, 0x03, 0x00, 0x32, 0x8F, 0x12, 0x25, 0x96};
const Bytes kPps = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};
const Bytes kHevcVps = {0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                        0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1E, 0x92, 0x80, 0x90};
const Bytes kHevcSps = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                        0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1E, 0xA0, 0x14, 0x20, 0x79,
                        0x65, 0x92, 0xA4, 0x93, 0x2B, 0xC0, 0x5A, 0x02, 0x00, 0x00, 0x03,
                        0x00, 0x02, 0x00, 0x00, 0x03, 0x00, 0x32, 0x10};
const Bytes kHevcPps = {0x44, 0x01, 0xC1, 0x72, 0xB4, 0x62, 0x40};

void Add(Bytes& frame, const Bytes& unit)
{
    frame.insert(frame.end(), {0, 0, 0, 1});
    frame.insert(frame.end(), unit.begin(), unit.end());
}

Bytes Noise(Numbers& numbers, std::uint32_t size)
{
    Bytes bytes(size);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(1 + numbers.Below(255));  // no start code by chance
    return bytes;
}

struct Plan {
    std::uint8_t flags = 0;
    bool mov = false;
    std::uint32_t video = MP4_VIDEO_H264;
    std::uint32_t audio = 0;  // 0 for none
    bool announced = true;    // parameter sets come with the track, not in the stream

    std::string Name() const
    {
        return "f" + std::to_string(flags) + "v" + std::to_string(video) + "a" +
               std::to_string(audio) + (announced ? "" : "s") + (mov ? ".mov" : ".mp4");
    }
};

// One recording; what its calls answered, as a number.
class Recorder {
public:
    Recorder(const Plan& plan, const fs::path& path, std::uint64_t seed)
        : m_plan(plan), m_path(path), m_numbers(seed)
    {
    }

    std::uint64_t Run()
    {
        Note(mp4_create_file_adv(m_path.wstring().c_str(), m_plan.flags, 4096, 32, MP4_IO_FILE,
                                 nullptr, &m_file));
        const mp4_safe_param params{2, 3000, 20000, 40000};
        Note(mp4_set_safe_param(m_file, &params));
        Note(mp4_repair_set_flush_interval(m_file, 10 + m_numbers.Below(20)));
        SetTracks();
        for (std::uint32_t n = 0; n < 60; ++n)
            AddFrames(n);
        // What a recorder that dies here leaves.
        std::fflush(nullptr);
        fs::copy_file(m_path, Dead(), fs::copy_options::overwrite_existing);
        if (m_plan.flags & MP4_OPEN_INFO_FILE)
            fs::copy_file(Info(m_path), Info(Dead()), fs::copy_options::overwrite_existing);
        Note(static_cast<std::uint32_t>(mp4_get_duration_ms(m_file)));
        Note(mp4_get_moov_size(m_file));
        Note(mp4_close_file(m_file));
        return m_answers;
    }

    static fs::path Info(fs::path path) { return path += ".info"; }
    fs::path Dead() const { return m_path.parent_path() / ("dead" + m_path.filename().string()); }
    std::uint32_t Repair() const { return mp4_repair_file(Dead().wstring().c_str(), 0); }

private:
    void Note(std::uint32_t answer) { m_answers = m_answers * 1000003 + answer; }

    void SetTracks()
    {
        mp4_video_track_info video{};
        video.timescale = 90000;
        video.codec = m_plan.video;
        video.width = 160;
        video.height = m_plan.video == MP4_VIDEO_H264 ? 84 : 120;  // as the SPS has it
        const bool hevc = m_plan.video == MP4_VIDEO_HEVC;
        if (m_plan.video == MP4_VIDEO_PRORES) {
            video.prores_format = m_numbers.Below(6);
        } else if (m_plan.announced) {
            Set(video.sps, video.sps_size, hevc ? kHevcSps : kSps);
            Set(video.pps, video.pps_size, hevc ? kHevcPps : kPps);
            if (hevc)
                Set(video.vps, video.vps_size, kHevcVps);
        }
        Note(mp4_set_video_track(m_file, &video));
        if (m_plan.audio != 0) {
            const mp4_audio_track_info audio{48000, 1024, m_plan.audio, 48000, 2, 2};
            Note(mp4_set_audio_track(m_file, &audio));
        }
        const mp4_subtitle_track_info captions{
            m_plan.mov ? MP4_SUBTITLE_CEA708 : MP4_SUBTITLE_CEA608, 1000};
        Note(mp4_set_subtitle_track(m_file, &captions));
        const mp4_time_code_track_info timeCode{30000, 1001, 30, 1};
        Note(mp4_set_time_code_track(m_file, &timeCode));
        Note(mp4_set_metadata(m_file, "title", "Stra\xC3\x9F" "e"));
        Note(mp4_set_metadata(m_file, "com.example.scene", "7"));
        Note(mp4_set_metadata(m_file, "no such item", "x"));
    }

    template <typename Pointer>
    static void Set(Pointer& pointer, std::int16_t& size, const Bytes& bytes)
    {
        pointer = bytes.data();
        size = static_cast<std::int16_t>(bytes.size());
    }

    void AddFrames(std::uint32_t n)
    {
        const bool hevc = m_plan.video == MP4_VIDEO_HEVC;
        const bool key = n % 12 == 0;
        Bytes frame;
        if (m_plan.video == MP4_VIDEO_PRORES) {
            frame = Noise(m_numbers, 200 + m_numbers.Below(3000));
        } else {
            if (key) {
                if (hevc)
                    Add(frame, kHevcVps);
                Add(frame, hevc ? kHevcSps : kSps);
                Add(frame, hevc ? kHevcPps : kPps);
            }
            Bytes unit = Noise(m_numbers, 20 + m_numbers.Below(3000));
            unit[0] = hevc ? (key ? 0x26 : 0x02) : (key ? 0x65 : 0x41);
            unit[1] = hevc ? 0x01 : unit[1];
            Add(frame, unit);
        }
        const std::uint64_t time = n * std::uint64_t{3003} + m_numbers.Below(3);
        Note(mp4_write_video_frame(m_file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                   time));
        if (m_plan.audio != 0)
            AddAudio(n);
        if (n % 7 == 0) {
            const Bytes caption = m_plan.mov ? Bytes{0x61, 1, 4, 0x96, 0x69, 0x04, 0x3F}
                                             : Bytes{0x61, 2, 0, 0, 0x94, 0x2C, 1, 0x80, 0x80};
            Note(mp4_write_subtitle_frame(m_file, caption.data(),
                                          static_cast<std::uint32_t>(caption.size()), n * 33));
        }
        if (n % 20 == 0)
            Note(mp4_write_time_code(m_file, n));
    }

    void AddAudio(std::uint32_t n)
    {
        Bytes sound = Noise(m_numbers, 10 + m_numbers.Below(400));
        if (m_plan.audio == MP4_AUDIO_AAC_ADTS) {
            const auto size = static_cast<std::uint32_t>(sound.size() + 7);
            const Bytes header = {0xFF, 0xF1, 0x4C, static_cast<std::uint8_t>(0x80 | size >> 11),
                                  static_cast<std::uint8_t>(size >> 3),
                                  static_cast<std::uint8_t>((size << 5 & 0xE0) | 0x1F), 0xFC};
            sound.insert(sound.begin(), header.begin(), header.end());
        }
        Note(mp4_write_audio_frame(m_file, sound.data(), static_cast<std::uint32_t>(sound.size()),
                                   n * std::uint64_t{1024}));
    }

    const Plan m_plan;
    const fs::path m_path;
    Numbers m_numbers;
    mp4_handle m_file = nullptr;
    std::uint64_t m_answers = 0;
};

void Print(const Plan& plan, const fs::path& folder, std::uint64_t seed)
{
    const fs::path path = folder / plan.Name();
    Recorder recorder(plan, path, seed);
    const std::uint64_t answers = recorder.Run();
    std::fprintf(stderr, "%s %016" PRIx64 " %016" PRIx64, plan.Name().c_str(), answers,
                 Hash(Read(path)));
    if (plan.flags & MP4_OPEN_INFO_FILE) {
        const Bytes log = Read(Recorder::Info(recorder.Dead()));
        const std::uint32_t status = recorder.Repair();
        std::fprintf(stderr, " %zu %016" PRIx64 " %u %016" PRIx64, log.size(), Hash(log), status,
                     Hash(Read(recorder.Dead())));
    }
    std::fprintf(stderr, "\n");
}

void RecordAndLeave(const Plan& plan, const fs::path& folder, std::uint64_t seed)
{
    Recorder(plan, folder / plan.Name(), seed).Run();
}

void RecordAndPrint(const Plan& plan, const fs::path& folder, std::uint64_t seed)
{
    Print(plan, folder, seed);
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        fs::remove(entry);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3)
        return 2;
    // Bits that have no meaning among the flags, too.
    constexpr std::uint8_t kFlags[] = {0x00, 0x01, 0x02, 0x08, 0x10, 0x20, 0x03, 0x0A, 0x12, 0x18,
                                       0x1A, 0x23, 0x33, 0x1B, 0x04, 0xC0, 0x30, 0x11};
    constexpr std::uint32_t kVideos[] = {MP4_VIDEO_H264, MP4_VIDEO_HEVC, MP4_VIDEO_PRORES};
    constexpr std::uint32_t kAudios[] = {0, MP4_AUDIO_AAC_RAW, MP4_AUDIO_AAC_ADTS};
    std::uint64_t seed = 0;
    for (const std::uint8_t flags : kFlags)
        for (const bool mov : {false, true})
            for (const std::uint32_t video : kVideos)
                for (const std::uint32_t audio : kAudios) {
                    ++seed;
                    const Plan plan{flags, mov, video, audio, seed % 2 == 0};
                    if (argc == 2)
                        RecordAndPrint(plan, argv[1], seed);
                    else if (plan.Name() == argv[2])
                        RecordAndLeave(plan, argv[1], seed);
                }
    return 0;
}
