// Many threads on many files and on one, and repairs beside them. What each thread gets to see is
// tested here; that no two of them touch the same memory at once, the thread sanitizer sees in the
// same tests (scripts/test --sanitize thread).
#include "support/boxes.h"
#include "support/recording.h"
#include "support/repair.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <spdlog/spdlog.h>

#include <array>
#include <atomic>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

using namespace kvtest;
using testing::AnyOf;
using testing::Each;
using testing::IsEmpty;

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kThreads = 8;
constexpr std::uint32_t kDistance = 16384;  // bytes from checkpoint to checkpoint
constexpr std::uint8_t kProtected = MP4_OPEN_SAFE_MODE | MP4_OPEN_INFO_FILE;

// A plain create of this process has replaced the logger, which only the first does.
bool g_loggerReplaced = false;

// Runs a body on so many threads, all let go at the same moment.
void Together(std::size_t count, const std::function<void(std::size_t)>& body)
{
    std::atomic<std::size_t> ready = 0;
    std::vector<std::thread> threads;
    for (std::size_t n = 0; n < count; ++n) {
        threads.emplace_back([&, n] {
            ++ready;
            while (ready < count)
                std::this_thread::yield();
            body(n);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// What a recording's n-th frame of each track holds. Each keeps as much as it has clear of the
// moov: room for time codes, which make no checkpoint.
Bytes Picture(std::uint64_t n, std::size_t atLeast = 100)
{
    return Unit(0x65, atLeast + n % 50);
}

Bytes Sound(std::uint64_t n)
{
    return Bytes(40, static_cast<std::uint8_t>(n % 200));  // never the sync word of ADTS
}

Bytes Pair(std::uint64_t n)
{
    return {0x94, static_cast<std::uint8_t>(n)};
}

// The statuses of all that is set up ahead of a file's frames; it may come again.
std::array<std::uint32_t, 5> SetUp(mp4_handle file)
{
    const mp4_safe_param params{0, kDistance, 0, 0};
    mp4_video_track_info video{};
    video.codec = MP4_VIDEO_H264;
    video.width = 160;
    video.height = 120;
    video.sps = Sps().data();
    video.sps_size = static_cast<std::int16_t>(Sps().size());
    video.pps = Pps().data();
    video.pps_size = static_cast<std::int16_t>(Pps().size());
    const mp4_audio_track_info audio{1000, 40, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    const mp4_subtitle_track_info captions{MP4_SUBTITLE_CEA608, 1000};
    const mp4_time_code_track_info timeCode{25, 1, 25, 0};
    return {mp4_set_safe_param(file, &params), mp4_set_video_track(file, &video),
            mp4_set_audio_track(file, &audio), mp4_set_subtitle_track(file, &captions),
            mp4_set_time_code_track(file, &timeCode)};
}

// A file in the making, with checkpoints all the time.
mp4_handle Open(const fs::path& path, std::uint8_t flags = kProtected)
{
    mp4_handle file = nullptr;
    EXPECT_EQ(mp4_create_file_adv_ex(path.string().c_str(), flags, 0, 0, MP4_IO_FILE, nullptr, &file),
              0u);
    EXPECT_THAT(SetUp(file), Each(0u));
    return file;
}

std::uint32_t Video(mp4_handle file, std::uint64_t n, std::size_t atLeast = 100)
{
    const Bytes frame = Picture(n, atLeast);
    return mp4_write_video_frame(file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                 40 * n);
}

std::uint32_t Audio(mp4_handle file, std::uint64_t n)
{
    const Bytes frame = Sound(n);
    return mp4_write_audio_frame(file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                 40 * n);
}

std::uint32_t Caption(mp4_handle file, std::uint64_t n)
{
    Bytes frame = Hex("61 02 01 00") + Pair(n);
    for (int i = 0; i < 16; ++i)
        frame = frame + Hex("02 00 00");  // of no field: not in the sample
    return mp4_write_subtitle_frame(file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                    40 * n);
}

// All that a running recording may be asked and told beside its frames.
void Ask(mp4_handle file)
{
    double rate = 0;
    mp4_safe_param params{};
    mp4_get_duration_ms(file);
    mp4_get_moov_size(file);
    mp4_get_video_bitrate(file, &rate);
    mp4_get_audio_bitrate(file, &rate);
    if (mp4_get_safe_param(file, &params) == MP4_OK)
        mp4_set_safe_param(file, &params);
    mp4_repair_set_flush_interval(file, 10);
    mp4_set_metadata(file, "title", "Together");
}

// One recording from beginning to end, the same each time.
void RecordAll(const fs::path& path)
{
    const mp4_handle file = Open(path);
    for (std::uint64_t n = 0; n < 100; ++n) {
        EXPECT_EQ(Video(file, n), 0u);
        EXPECT_EQ(Audio(file, n), 0u);
        if (n % 10 == 0) {
            EXPECT_EQ(Caption(file, n), 0u);
            Ask(file);
        }
    }
    EXPECT_EQ(mp4_close_file(file), 0u);
}

// A picture as its sample holds it: a length in place of the start code.
Bytes Stored(const Bytes& picture)
{
    const std::size_t size = picture.size() - 3;
    return Bytes{0, 0, static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)} +
           Bytes(picture.begin() + 3, picture.end());
}

struct Threads : testing::Test {
    fs::path Path(std::size_t n) const { return m_folder / (std::to_string(n) + ".mp4"); }

    Folder m_folder;
    LogCapture m_log;
};

// Threads that do anything to a few handles that they share: open, set up, write, ask, close, close
// what is closed, and repair beside it.
class Crowd {
public:
    explicit Crowd(const fs::path& folder) : m_folder(folder)
    {
        m_repaired = Repaired(m_folder / "alone.mp4", 0);
    }

    void Play(std::size_t thread, unsigned seed)
    {
        std::mt19937 random(seed);
        const fs::path own = m_folder / std::to_string(seed);
        fs::create_directory(own);
        for (std::uint32_t n = 0; n < 250; ++n) {
            std::atomic<mp4_handle>& place = m_open[random() % m_open.size()];
            const mp4_handle file = place.load();
            switch (const auto what = random() % 16) {
            case 0: AskAndSet(file, n); break;
            case 1: Close(place.exchange(nullptr), n); break;
            case 2: Close(m_closed.load(), n); break;
            case 3:
                if (thread % 2) {  // the others leave the time to frames
                    EXPECT_EQ(Repaired(own / "dead.mp4", n), m_repaired);
                }
                break;
            case 4:
            case 5:
                if (!file)
                    Begin(place, (n % 2 ? own : m_folder) /
                                     (std::to_string(seed) + "-" + std::to_string(n)),
                          static_cast<std::uint32_t>(random()));
                break;
            default: Frame(file, what, n);
            }
        }
    }

    // When all threads are done: each file is whole, and has each frame that was taken.
    void Judge()
    {
        for (auto& place : m_open)
            Close(place.exchange(nullptr), 0);
        EXPECT_EQ(m_opened, m_closedWell);  // each as often as it was handed out
        for (const auto& [handle, times] : m_opened)
            EXPECT_EQ(mp4_close_file(handle), 2u);
        std::array<std::size_t, kTracks> found{};
        for (const fs::path& path : m_local) {
            Judge(BoxFile::Read(path), found);
            EXPECT_FALSE(fs::exists(path.string() + ".info"));
        }
        for (const ExternalSink& sink : m_sinks) {
            Judge(sink.File(), found);
            EXPECT_EQ(sink.Called(ExternalSink::kClose), 1u);
        }
        for (std::size_t track = 0; track < kTracks; ++track) {
            EXPECT_NE(found[track], 0u) << kTrack[track];
            EXPECT_LE(found[track], m_taken[track]) << kTrack[track];
            EXPECT_TRUE(found[track] == m_taken[track] || !NeedsSetUp(track)) << kTrack[track];
        }
        EXPECT_FALSE(m_local.empty());
        EXPECT_FALSE(m_sinks.empty());
    }

private:
    static constexpr std::size_t kTracks = 4;
    static constexpr const char* kTrack[] = {"trak.vide", "trak.soun", "trak.clcp", "trak.tmcd"};
    // A few of these and a file is at its next checkpoint. All others of a round together stay
    // below the first, so that none is passed before the distance is set.
    static constexpr std::size_t kPicture = 4000;

    // Sound and time codes are taken ahead of their track's set-up, and stand in no chunk then.
    static bool NeedsSetUp(std::size_t track) { return track % 2 == 0; }

    static Bytes Repaired(const fs::path& path, std::uint32_t n)
    {
        WriteBytes(path, DeadFile(150));
        WriteBytes(path.string() + ".info",
                   InfoLog().ProRes().Video(0, 100).Video(40, 50).Closed().All());
        EXPECT_EQ(n % 2 ? mp4_repair_file(path.wstring().c_str(), 1)
                        : kv_mp4_repair(path.string().c_str(), 1), 0u);
        return BoxFile::Read(path).All();
    }

    // Creates a file in one of all ways, and gives it to all.
    void Begin(std::atomic<mp4_handle>& place, fs::path path, std::uint32_t how)
    {
        path += how & 8 ? ".mov" : ".mp4";
        const std::string name = path.string();
        const std::wstring wide = path.wstring();
        constexpr std::uint8_t kFlags[] = {kProtected, MP4_OPEN_FAST_HEADER, MP4_OPEN_SAFE_MODE,
                                           MP4_OPEN_LARGE_FILE | MP4_OPEN_VERSION1};
        const std::uint8_t flags = kFlags[how / 16 % 4];
        mp4_handle file = nullptr;
        std::uint32_t status = MP4_OK;
        ExternalSink* sink = nullptr;
        switch (how % 8) {
        case 0: status = mp4_create_file(wide.c_str(), flags, &file); break;
        case 1: status = mp4_create_file_ex(name.c_str(), flags, &file); break;
        case 2: file = kv_mp4_open(name.c_str()); break;
        case 3: file = kv_mp4_open_ex(wide.c_str()); break;
        case 4:
            status = mp4_create_file_adv(wide.c_str(), flags, 0, 0, MP4_IO_FILE, nullptr, &file);
            break;
        case 5:
            status = mp4_create_file_adv_ex(name.c_str(), flags, 0, 0, MP4_IO_FILE, nullptr, &file);
            break;
        default:
            const std::lock_guard<std::mutex> hold(m_lock);  // a sink is asked for by its create
            sink = &m_sinks.emplace_back();
            sink->NoteNoCalls();
            status = mp4_create_file_adv(wide.c_str(), flags, 0, 0, MP4_IO_EXTERNAL, sink->Table(),
                                         &file);
        }
        ASSERT_EQ(status, 0u);
        ASSERT_NE(file, nullptr);
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            ++m_opened[file];
            if (!sink)
                m_local.push_back(path);
        }
        // The address may be one that another thread is still about to close.
        EXPECT_THAT(SetUp(file), Each(AnyOf(0u, 2u)));
        if (mp4_handle none = nullptr; !place.compare_exchange_strong(none, file))
            Close(file, 0);
    }

    void Close(mp4_handle file, std::uint32_t n)
    {
        m_closed = file;
        for (std::uint32_t times = 1 + n % 2; times > 0; --times) {
            const std::uint32_t status = n % 4 < 2 ? mp4_close_file(file) : kv_mp4_close(file);
            EXPECT_THAT(status, AnyOf(0u, 2u));
            if (status == MP4_OK) {
                const std::lock_guard<std::mutex> hold(m_lock);
                ++m_closedWell[file];
            }
        }
    }

    static void AskAndSet(mp4_handle file, std::uint32_t n)
    {
        Ask(file);
        if (n % 4 == 0) {
            EXPECT_THAT(SetUp(file), Each(AnyOf(0u, 2u)));
        }
    }

    void Frame(mp4_handle file, std::size_t what, std::uint32_t n)
    {
        const std::size_t track = what % kTracks;
        std::uint32_t status = MP4_OK;
        switch (track) {
        case 0: status = Video(file, n, kPicture); break;
        case 1: status = Audio(file, n); break;
        case 2: status = Caption(file, n); break;
        default: status = mp4_write_time_code(file, n % 256);
        }
        if (status == MP4_OK)
            ++m_taken[track];
        else  // closed, or opened again by another thread and not yet set up
            EXPECT_THAT(status, AnyOf(2u, MP4_ERR_NO_VIDEO_TRACK, MP4_ERR_INVALID_SUBTITLE_CODEC));
    }

    static bool IsOurs(std::size_t track, const Bytes& sample)
    {
        switch (track) {
        case 0:
            for (std::uint64_t n = 0; n < 50; ++n) {
                if (sample == Stored(Picture(n, kPicture)))
                    return true;
            }
            return false;
        case 1: return !sample.empty() && sample == Sound(sample[0]);
        case 2: return sample.size() == 10 && sample == Hex("0000000A 'cdat'") + Pair(sample[9]);
        default: return sample.size() == 4 && sample == Bytes{0, 0, 0, sample[3]};
        }
    }

    static void Judge(const BoxFile& file, std::array<std::size_t, kTracks>& found)
    {
        EXPECT_THAT(file.Damage(), IsEmpty());
        EXPECT_TRUE(file.Has("moov"));
        for (std::size_t track = 0; track < kTracks; ++track) {
            const std::string stsz = std::string("moov/") + kTrack[track] + "/mdia/minf/stbl/stsz";
            if (!file.Has(stsz))
                continue;
            const std::size_t count = file.U32(file.Find(stsz).begin + 16);
            const std::vector<Bytes> samples = Samples(file, kTrack[track]);
            EXPECT_TRUE(samples.size() == count || !NeedsSetUp(track)) << kTrack[track];
            for (const Bytes& sample : samples)
                EXPECT_TRUE(IsOurs(track, sample)) << kTrack[track];
            found[track] += samples.size();
        }
    }

    const fs::path m_folder;
    Bytes m_repaired;
    std::array<std::atomic<mp4_handle>, 3> m_open{};
    std::atomic<mp4_handle> m_closed = nullptr;  // the last, or on its way
    std::array<std::atomic<std::size_t>, kTracks> m_taken{};
    std::mutex m_lock;  // for what follows
    std::map<mp4_handle, int> m_opened;
    std::map<mp4_handle, int> m_closedWell;
    std::vector<fs::path> m_local;
    std::deque<ExternalSink> m_sinks;
};

}  // namespace

// The first plain create of a process replaces the default logger, while others may be logging.
TEST_F(Threads, ThatComeFirstFindALoggerAllTheTime)
{
    if (std::exchange(g_loggerReplaced, true))
        GTEST_SKIP() << "not the first of this process";
    ASSERT_NE(spdlog::default_logger()->name(), "msvc_logger");
    testing::internal::CaptureStderr();  // where the library's own logger writes
    Together(kThreads, [this](std::size_t thread) {
        for (int n = 0; n < 50; ++n) {
            if (thread % 2) {
                EXPECT_EQ(mp4_repair_file_ex((m_folder / "none.mp4").string().c_str(), 0), 12u);
                EXPECT_EQ(mp4_write_time_code(nullptr, 0), 2u);
                continue;
            }
            mp4_handle file = nullptr;
            EXPECT_EQ(mp4_create_file_ex(Path(thread).string().c_str(), 0, &file), 0u);
            EXPECT_EQ(mp4_close_file(file), 0u);
        }
    });
    EXPECT_EQ(spdlog::default_logger()->name(), "msvc_logger");
    // Each repair's line went to the one logger or the other, whole.
    const std::string own = testing::internal::GetCapturedStderr();
    const std::string line = "open file failed, error:No such file or directory";
    std::size_t lines = m_log.Count("error " + line);
    for (std::size_t at = 0; (at = own.find(line + "\n", at)) != std::string::npos; at += line.size())
        ++lines;
#if defined(_WIN32)  // whose own logger writes to the debugger
    EXPECT_LE(lines, kThreads / 2 * 50);
#else
    EXPECT_EQ(lines, kThreads / 2 * 50);
#endif
}

TEST_F(Threads, WithAFileEachMakeTheFilesThatOneWouldMake)
{
    RecordAll(m_folder / "alone.mp4");
    const Bytes alone = BoxFile::Read(m_folder / "alone.mp4").All();
    Together(kThreads, [this](std::size_t n) { RecordAll(Path(n)); });
    for (std::size_t n = 0; n < kThreads; ++n)
        EXPECT_EQ(BoxFile::Read(Path(n)).All(), alone) << n;
}

TEST_F(Threads, WithOneFileEachAddTheirTrack)
{
    const mp4_handle file = Open(Path(0));
    constexpr std::uint64_t frames = 200;
    Together(4, [file](std::size_t thread) {
        for (std::uint64_t n = 0; n < frames; ++n) {
            switch (thread) {
            case 0: EXPECT_EQ(Video(file, n), 0u); break;
            case 1:
                EXPECT_EQ(Audio(file, n), 0u);
                // Makes no checkpoint by itself: alone it would run into the moov.
                EXPECT_EQ(mp4_write_time_code(file, static_cast<std::uint32_t>(n)), 0u);
                break;
            case 2: EXPECT_EQ(Caption(file, n), 0u); break;
            default: Ask(file);
            }
        }
    });
    EXPECT_EQ(mp4_close_file(file), 0u);
    const BoxFile made = BoxFile::Read(Path(0));
    // Each sample holds what its thread handed in, wherever the others' lie.
    std::vector<Bytes> pictures, sounds, captions, timeCodes;
    for (std::uint64_t n = 0; n < frames; ++n) {
        const auto low = static_cast<std::uint8_t>(n);
        pictures.push_back(Stored(Picture(n)));
        sounds.push_back(Sound(n));
        captions.push_back(Hex("0000000A 'cdat'") + Pair(n));
        timeCodes.push_back({0, 0, 0, low});
    }
    EXPECT_EQ(Samples(made, "trak.vide"), pictures);
    EXPECT_EQ(Samples(made, "trak.soun"), sounds);
    EXPECT_EQ(Samples(made, "trak.clcp"), captions);
    EXPECT_EQ(Samples(made, "trak.tmcd"), timeCodes);
}

TEST_F(Threads, ThatCloseOneFileTogetherCloseItOnce)
{
    for (int round = 0; round < 20; ++round) {
        const mp4_handle file = Open(Path(0));
        std::atomic<int> closed = 0;
        Together(kThreads, [&](std::size_t thread) {
            for (std::uint64_t n = 0; n < 20; ++n) {
                const std::uint32_t status = thread % 2 ? Video(file, n) : Audio(file, n);
                EXPECT_TRUE(status == MP4_OK || status == MP4_ERR_INVALID_HANDLE) << status;
                Ask(file);
            }
            const std::uint32_t status = mp4_close_file(file);
            EXPECT_TRUE(status == MP4_OK || status == MP4_ERR_INVALID_HANDLE) << status;
            closed += status == MP4_OK;
        });
        EXPECT_EQ(closed, 1);
        EXPECT_EQ(Video(file, 0), 2u);
        EXPECT_TRUE(BoxFile::Read(Path(0)).Has("moov"));
        EXPECT_THAT(BoxFile::Read(Path(0)).Damage(), IsEmpty());
    }
}

TEST_F(Threads, ThatOpenAndCloseAreRefusedWhereOneWouldBe)
{
    Together(kThreads, [this](std::size_t thread) {
        for (int n = 0; n < 20; ++n) {
            mp4_handle file = nullptr;
            const fs::path none = m_folder / "none" / "clip.mp4";
            EXPECT_EQ(mp4_create_file_adv_ex(none.string().c_str(), kProtected, 0, 0, MP4_IO_FILE,
                                             nullptr, &file), 12u);
            EXPECT_EQ(mp4_create_file_adv_ex(Path(thread).string().c_str(), 0, 0, 0, MP4_IO_DIRECT,
                                             nullptr, &file), 10u);
            EXPECT_EQ(mp4_close_file(nullptr), 2u);
            EXPECT_EQ(mp4_create_file_adv_ex(Path(thread).string().c_str(), 0, 0, 0, MP4_IO_FILE,
                                             nullptr, &file), 0u);
            EXPECT_EQ(mp4_close_file(file), 0u);
        }
    });
}

TEST_F(Threads, ThatRepairMakeTheFilesThatOneWouldMake)
{
    const InfoLog log = InfoLog().ProRes().Video(0, 100).Video(40, 50).Closed();
    const Bytes media = DeadFile(150);
    const auto repair = [&](const fs::path& path) {
        WriteBytes(path, media);
        WriteBytes(path.string() + ".info", log.All());
        EXPECT_EQ(mp4_repair_file_ex(path.string().c_str(), 1), 0u);
    };
    repair(m_folder / "alone.mp4");
    const Bytes alone = BoxFile::Read(m_folder / "alone.mp4").All();
    // Half of the threads record meanwhile.
    Together(kThreads, [&](std::size_t n) {
        if (n % 2)
            RecordAll(Path(n));
        else
            for (int round = 0; round < 20; ++round)
                repair(Path(n));
    });
    for (std::size_t n = 0; n < kThreads; n += 2)
        EXPECT_EQ(BoxFile::Read(Path(n)).All(), alone) << n;
}

// Nothing keeps two repairs or a repair and a recording from the same file; what it is afterwards is
// their callers' affair, but each of them comes to its end.
TEST_F(Threads, OnTheFilesOfAnOpenRecordingComeToTheirEnd)
{
    const mp4_handle file = Open(Path(0));
    std::atomic<std::uint64_t> recorded = 0;
    Together(4, [&](std::size_t thread) {
        for (std::uint64_t n = 0; n < 50; ++n) {
            if (thread == 0)
                recorded += Video(file, n) == MP4_OK;
            else
                mp4_repair_file_ex(Path(0).string().c_str(), 0);
        }
    });
    EXPECT_EQ(recorded, 50u);
    EXPECT_EQ(mp4_close_file(file), 0u);
    EXPECT_FALSE(fs::exists(Path(0).string() + ".info"));
}

TEST_F(Threads, ThatDoEverythingAtOnceLeaveWholeFiles)
{
    if (!std::exchange(g_loggerReplaced, true)) {
        // Its logger would write all lines to standard error.
        mp4_handle file = nullptr;
        ASSERT_EQ(mp4_create_file_ex(Path(0).string().c_str(), 0, &file), 0u);
        ASSERT_EQ(mp4_close_file(file), 0u);
    }
    const LogCapture log;
    for (unsigned round = 0; round < 5; ++round) {
        Crowd crowd(Path(0).parent_path());
        Together(kThreads, [&](std::size_t thread) {
            crowd.Play(thread, round * 100 + static_cast<unsigned>(thread));
        });
        crowd.Judge();
    }
}
