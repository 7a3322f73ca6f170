// What a repair makes of a media file and its log: sizes, places, kinds, and the last packet.
#include "support/matches.h"
#include "support/repair.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <thread>

#if defined(_WIN32)
#include <windows.h>
#include <process.h>
#else
#include <sys/mman.h>
#include <sys/wait.h>

#include <fcntl.h>
#include <unistd.h>
#endif

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kStbl = "moov/trak.vide/mdia/minf/stbl/";

// Three frames of 10, 20 and 30 bytes.
InfoLog ThreeFrames(std::uint8_t flags = MP4_OPEN_INFO_FILE)
{
    return InfoLog(flags).ProRes().Video(0, 10).Video(40, 20).Video(80, 30);
}

// Where the media file ends after a repair of `log`.
std::size_t EndAfter(const InfoLog& log)
{
    Wreck wreck(DeadFile(0), log);
    EXPECT_EQ(wreck.Repair(), 0u);
    return wreck.Media().All().size();
}

Bytes DeadFileOfSize(std::size_t size)
{
    return DeadFile(size - 44);
}

#if defined(_WIN32)

constexpr int F_SEAL_SHRINK = 1;

// A file that cannot be cut, because somebody else has it open.
class SealedFile {
public:
    SealedFile(const Bytes& bytes, int) : m_bytes(bytes) {}
    ~SealedFile() { std::fclose(m_file); }
    SealedFile(const SealedFile&) = delete;
    SealedFile& operator=(const SealedFile&) = delete;

    void Replace(const Wreck& wreck)
    {
        WriteBytes(wreck.Path(), m_bytes);
        m_file = _wfopen(wreck.Path().c_str(), L"rb");
    }

private:
    const Bytes m_bytes;
    std::FILE* m_file = nullptr;
};

#else

// A file that refuses some changes, by the kernel's seals; opened by path like any other.
class SealedFile {
public:
    SealedFile(const Bytes& bytes, int seals) : m_file(memfd_create("media", MFD_ALLOW_SEALING))
    {
        EXPECT_EQ(write(m_file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_EQ(fcntl(m_file, F_ADD_SEALS, seals), 0);
    }
    ~SealedFile() { close(m_file); }
    SealedFile(const SealedFile&) = delete;
    SealedFile& operator=(const SealedFile&) = delete;

    // Puts itself in the place of a wreck's media file.
    void Replace(const Wreck& wreck) const
    {
        std::filesystem::remove(wreck.Path());
        std::filesystem::create_symlink("/proc/self/fd/" + std::to_string(m_file), wreck.Path());
    }

private:
    const int m_file;
};

#endif

}  // namespace

TEST(RepairedVideo, HoldsAllSamplesButTheLast)
{
    Wreck wreck(DeadFile(60), ThreeFrames());
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_EQ(file.Box(kStbl + "stsz"),
              Hex("0000001C 'stsz' 00000000 00000000 00000002 0000000A 00000014"));
    EXPECT_EQ(file.Box(kStbl + "stts"), Hex("00000018 'stts' 00000000 00000001 00000002 00000028"));
    EXPECT_EQ(file.Box(kStbl + "stsc"),
              Hex("0000001C 'stsc' 00000000 00000001 00000001 00000002 00000001"));
    EXPECT_EQ(file.Box(kStbl + "stco"), Hex("00000014 'stco' 00000000 00000001 0000002C"));
    EXPECT_EQ(file.Box(kStbl + "stss"), Hex("00000018 'stss' 00000000 00000002 00000001 00000002"));
    EXPECT_THAT(file.Children(""), ElementsAre("ftyp", "free", "mdat", "moov"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

TEST(RepairedMdat, EndsWhereTheLostSampleBegan)
{
    Wreck wreck(DeadFile(60), ThreeFrames());
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_EQ(file.U32(36), 8u + 30);
    EXPECT_EQ(file.Find("moov").begin, 44u + 30);
    EXPECT_EQ(Slice(file.All(), 0, 36), Slice(DeadFile(60), 0, 36));
    EXPECT_EQ(Slice(file.All(), 40, 74), Slice(DeadFile(60), 40, 74));
}

TEST(AByteBehindTheLastPacket, KeepsThatPacket)
{
    Wreck wreck(DeadFile(60), ThreeFrames().Closed());
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(Words(wreck.Media().Box(kStbl + "stsz"), 16),
              (std::vector<std::uint32_t>{3, 10, 20, 30}));
    EXPECT_EQ(wreck.Media().U32(36), 8u + 60);
}

TEST(ALargeFile, GetsThe64BitSizeAndItsOffsetsBehindTheLongHeader)
{
    Wreck wreck(DeadFile(60, true), ThreeFrames(MP4_OPEN_INFO_FILE | MP4_OPEN_LARGE_FILE));
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_EQ(file.U32(36), 1u);
    EXPECT_EQ(file.U64(44), 16u + 30);
    EXPECT_EQ(file.Find("moov").begin, 52u + 30);
    EXPECT_EQ(file.Box(kStbl + "co64"), Hex("00000018 'co64' 00000000 00000001 00000000 00000034"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

TEST(ALargeFile, LeavesTheCaptionsTheirStco)
{
    InfoLog log(MP4_OPEN_INFO_FILE | MP4_OPEN_LARGE_FILE);
    log.ProRes().Aac().Captions().TimeCodeTrack();
    log.Video(0, 10).Audio(0, 10).Caption(0, 10).TimeCode(0).Closed();
    Wreck wreck(DeadFile(34, true), log);
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    for (const char* handler : {"vide", "soun", "tmcd"})
        EXPECT_TRUE(file.Has("moov/trak." + std::string(handler) + "/mdia/minf/stbl/co64"));
    EXPECT_EQ(file.Box("moov/trak.clcp/mdia/minf/stbl/stco"),
              Hex("00000014 'stco' 00000000 00000001 00000048"));
}

TEST(Version1, WidensTheHeadersAgain)
{
    for (const bool wide : {false, true}) {
        Wreck wreck(DeadFile(60), ThreeFrames(wide ? MP4_OPEN_INFO_FILE | MP4_OPEN_VERSION1
                                                   : MP4_OPEN_INFO_FILE));
        EXPECT_EQ(wreck.Repair(), 0u);
        EXPECT_EQ(wreck.Media().Box("moov/mvhd").size(), wide ? 120u : 108u);
        EXPECT_EQ(wreck.Media().Box("moov/trak/tkhd").size(), wide ? 104u : 92u);
        EXPECT_EQ(wreck.Media().Box("moov/trak/mdia/mdhd").size(), wide ? 44u : 32u);
    }
}

// The recorder's other flags have done their work.
TEST(TheFlagsOfTheLog, CountWithTheirLowestTwoBits)
{
    for (const bool large : {false, true}) {
        for (const std::uint8_t low : Bytes{0, 1}) {
            const auto flags = static_cast<std::uint8_t>(low + (large ? 2 : 0));
            const auto all = static_cast<std::uint8_t>(0xFC | flags);
            Wreck plain(DeadFile(60, large), ThreeFrames(flags));
            Wreck other(DeadFile(60, large), ThreeFrames(all));
            EXPECT_EQ(plain.Repair(), 0u);
            EXPECT_EQ(other.Repair(), 0u);
            EXPECT_EQ(other.Media().All(), plain.Media().All());
        }
    }
}

// ---- The end of the file -------------------------------------------------------------------

TEST(AMoovShorterThanTheTail, EndsTheFileAndNoFreeBoxStays)
{
    const std::size_t end = EndAfter(ThreeFrames());
    Wreck wreck(DeadFileOfSize(end + 5000), ThreeFrames());
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(wreck.Media().All().size(), end);
    EXPECT_THAT(wreck.Media().Children(""), ElementsAre("ftyp", "free", "mdat", "moov"));
}

TEST(AMoovLongerThanTheTail, LetsTheFileGrow)
{
    Wreck wreck(DeadFile(60), ThreeFrames());
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_GT(file.All().size(), 44u + 60);
    EXPECT_EQ(file.Find("moov").end, file.All().size());
}

TEST(ALogThatKnowsMoreThanTheFile, PutsMoovBehindTheOldEnd)
{
    Wreck wreck(DeadFile(5), ThreeFrames());
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_EQ(file.Find("moov").begin, 44u + 30);
    EXPECT_EQ(Slice(file.All(), 44, 74), Hex("01 02 03 04 05") + Bytes(25, 0));
}

TEST(ATailOf1To7Bytes, IsCutWithoutAFreeHeader)
{
    const std::size_t end = EndAfter(ThreeFrames());
    for (std::size_t tail = 1; tail < 8; ++tail) {
        Wreck wreck(DeadFileOfSize(end + tail), ThreeFrames());
        EXPECT_EQ(wreck.Repair(), 0u);
        EXPECT_EQ(wreck.Media().All().size(), end);
    }
}

TEST(ACutThatFails, LeavesAFreeBoxOverTheTailAndStatus0)
{
    const std::size_t end = EndAfter(ThreeFrames());
    for (const std::size_t tail : {7u, 8u, 300u}) {
        const Bytes media = DeadFileOfSize(end + tail);
        Wreck wreck({}, ThreeFrames());
        SealedFile sealed(media, F_SEAL_SHRINK);
        sealed.Replace(wreck);
        EXPECT_EQ(wreck.Repair(1), 0u);
        EXPECT_FALSE(wreck.HasInfo());
        const Bytes all = BoxFile::Read(wreck.Path()).All();
        ASSERT_EQ(all.size(), end + tail);
        Bytes expected = Slice(media, end, end + tail);
        if (tail >= 8) {
            const Bytes header = Hex(tail == 8 ? "00000008 'free'" : "0000012C 'free'");
            std::copy(header.begin(), header.end(), expected.begin());
        }
        EXPECT_EQ(Slice(all, end, end + tail), expected);
    }
}

#if !defined(_WIN32)  // where no file refuses to grow or to be written once it is open

TEST(AnIoFailureInsideTheMediaFile, DecidesTheStatusAndKeepsTheInfoFile)
{
    const Bytes media = DeadFile(60);
    for (const int seal : {F_SEAL_WRITE, F_SEAL_GROW}) {
        const SealedFile sealed(media, seal);
        Wreck wreck({}, ThreeFrames());
        sealed.Replace(wreck);
        EXPECT_EQ(wreck.Repair(1), 11u);  // EPERM
        EXPECT_TRUE(wreck.HasInfo());
        EXPECT_EQ(wreck.Media().All().size(), media.size());
        EXPECT_EQ(wreck.Media().U32(36), seal == F_SEAL_GROW ? 8u + 30 : 8u);
    }
}

#endif

// ---- Time code, kinds ----------------------------------------------------------------------

TEST(TimeCodes, MakeMoovBegin4BytesEarlierEach)
{
    InfoLog log;
    log.ProRes().TimeCodeTrack().TimeCode(7).Video(0, 10).TimeCode(8).Video(40, 10).Closed();
    Wreck wreck(DeadFile(28), log);
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_EQ(file.U32(36), 8u + 20);
    EXPECT_EQ(file.Find("moov").begin, 44u + 28 - 8);
    EXPECT_EQ(Words(file.Box(kStbl + "stco"), 12), (std::vector<std::uint32_t>{2, 48, 62}));
    EXPECT_EQ(Words(file.Box("moov/trak.tmcd/mdia/minf/stbl/stco"), 12),
              (std::vector<std::uint32_t>{2, 44, 58}));
    EXPECT_EQ(Words(file.Box("moov/trak.tmcd/mdia/minf/stbl/stsz"), 12),
              (std::vector<std::uint32_t>{4, 2}));
    EXPECT_EQ(file.Box("moov/trak.vide/tref"), Hex("00000014 'tref' 0000000C 'tmcd' 00000002"));
}

TEST(MovAnywhereInThePath, MakesTheRepairedIndexAQuickTimeOne)
{
    for (const std::string name : {"clip.mp4", "removed.mp4", "MOV.mp4", "movies/clip.mp4"}) {
        const bool quickTime = name == "removed.mp4" || name == "movies/clip.mp4";
        InfoLog log;
        log.ProRes().Aac().TimeCodeTrack().TimeCode(0).Video(0, 10).Audio(0, 10).Closed();
        Wreck wreck(DeadFile(24), log, name);
        EXPECT_EQ(wreck.Repair(), 0u);
        const BoxFile file = wreck.Media();
        const Bytes audio = file.Box("moov/trak.soun/mdia/minf/stbl/stsd");
        EXPECT_EQ(audio[33], quickTime ? 1 : 0);  // version of the sample entry
        EXPECT_EQ(file.Has("moov/trak.tmcd/mdia/minf/gmhd"), quickTime);
        EXPECT_EQ(file.Has("moov/trak.tmcd/mdia/minf/nmhd"), !quickTime);
    }
}

TEST(Interleaving, BreaksChunksWhereTheRecordingDid)
{
    InfoLog log;
    log.ProRes().Aac().Video(0, 10).Video(40, 10).Audio(0, 5).Audio(21, 5).Video(80, 10).Closed();
    Wreck wreck(DeadFile(40), log);
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_EQ(Words(file.Box(kStbl + "stco"), 12), (std::vector<std::uint32_t>{2, 44, 74}));
    EXPECT_EQ(Words(file.Box("moov/trak.soun/mdia/minf/stbl/stco"), 12),
              (std::vector<std::uint32_t>{1, 64}));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}

// Its bytes are in mdat and its size in stsz; no chunk holds it.
TEST(AFrameAheadOfItsSetUp, KeepsItsPlaceAndItsSize)
{
    Wreck wreck(DeadFile(30), InfoLog().Video(0, 10).ProRes().Video(40, 20).Closed());
    EXPECT_EQ(wreck.Repair(), 0u);
    const BoxFile file = wreck.Media();
    EXPECT_EQ(file.U32(36), 8u + 10 + 20);
    EXPECT_EQ(Words(file.Box(kStbl + "stsz"), 16), (std::vector<std::uint32_t>{2, 10, 20}));
    EXPECT_EQ(Words(file.Box(kStbl + "stco"), 12), (std::vector<std::uint32_t>{1, 44 + 10}));
    EXPECT_EQ(Words(file.Box(kStbl + "stsc"), 12), (std::vector<std::uint32_t>{1, 1, 1, 1}));
}

TEST(TheKeyFlag, IsSetForAnyByteButZero)
{
    InfoLog log;
    log.ProRes().Video(0, 10, true).Video(40, 10, false);
    log.Raw(Hex("04 0000000000000050 0000000000000050 FF 0000000A")).Closed();
    Wreck wreck(DeadFile(30), log);
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(Words(wreck.Media().Box(kStbl + "stss"), 12), (std::vector<std::uint32_t>{2, 1, 3}));
}

TEST(PresentationAndDecodingTime, AreReadApart)
{
    InfoLog log;
    log.ProRes();
    log.Raw(Hex("04 0000000000000064 0000000000000000 01 0000000A"));
    log.Raw(Hex("04 00000000000000C8 0000000000000019 01 0000000A")).Closed();
    Wreck wreck(DeadFile(20), log);
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(Words(wreck.Media().Box(kStbl + "stts"), 12), (std::vector<std::uint32_t>{1, 2, 25}));
    // 200 - 100 and one more difference of the presentation times.
    EXPECT_EQ(Words(wreck.Media().Box("moov/mvhd"), 24)[0], 200u);
}

// ---- The calls -----------------------------------------------------------------------------

TEST(TheFourCalls, RepairAlike)
{
    Wreck model(DeadFile(60), ThreeFrames(), "cl\xC3\xA9.mp4");
    EXPECT_EQ(model.Repair(1), 0u);
    for (int call = 0; call < 4; ++call) {
        Wreck wreck(DeadFile(60), ThreeFrames(), "cl\xC3\xA9.mp4");
        const std::string path = Utf8(wreck.Path());
        const std::string folder = wreck.Path().parent_path().string();
        const std::wstring wide = std::wstring(folder.begin(), folder.end()) + L"/cl\x00E9.mp4";
        const StdoutCapture quiet;
        EXPECT_EQ(call == 0   ? mp4_repair_file(wide.c_str(), 1)
                  : call == 1 ? mp4_repair_file_ex(path.c_str(), 1)
                  : call == 2 ? kv_mp4_repair(path.c_str(), 1)
                              : kv_mp4_repair_ex(wide.c_str(), 1),
                  0u);
        EXPECT_EQ(wreck.Media().All(), model.Media().All());
        EXPECT_FALSE(wreck.HasInfo());
    }
}

TEST(AnyOptionBut0, DeletesTheInfoFileAndSaysSo)
{
    for (const std::uint8_t option : Bytes{0, 1, 2, 255}) {
        Wreck wreck(DeadFile(60), ThreeFrames());
        EXPECT_EQ(wreck.Repair(option), 0u);
        EXPECT_EQ(wreck.HasInfo(), option == 0);
        const auto& lines = wreck.Log().Lines();
        EXPECT_EQ(lines.back() == "info delete repair file", option != 0);
        EXPECT_EQ(wreck.Log().Sources().back() == "src/Mp4Repair CMp4Repair::Repair", option != 0);
    }
}

TEST(ARepair, PrintsTheEndOfTheLogAndNothingElse)
{
    Wreck wreck(DeadFile(60), ThreeFrames());
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_THAT(wreck.Printed(), Matches("\\[line [0-9]+\\] Read EOF !\n"));
}

TEST(ASecondRun, WithTheInfoFileChangesNothing)
{
    Wreck wreck(DeadFile(3000), ThreeFrames());
    EXPECT_EQ(wreck.Repair(), 0u);
    const Bytes once = wreck.Media().All();
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(wreck.Media().All(), once);
    EXPECT_EQ(wreck.Info(), ThreeFrames().All());
}

TEST(ASecondRun, WithoutTheInfoFileLeavesTheMediaAlone)
{
    Wreck wreck(DeadFile(3000), ThreeFrames());
    EXPECT_EQ(wreck.Repair(1), 0u);
    const Bytes once = wreck.Media().All();
    EXPECT_EQ(wreck.Repair(1), 12u);
    EXPECT_EQ(wreck.Media().All(), once);
}

TEST(Repairs, OfDifferentFilesRunAtOnce)
{
    const LogCapture log;
    Wreck model(DeadFile(60), ThreeFrames());
    EXPECT_EQ(model.Repair(1), 0u);
    std::vector<std::unique_ptr<Wreck>> wrecks;
    for (int i = 0; i < 8; ++i)
        wrecks.push_back(std::make_unique<Wreck>(DeadFile(60), ThreeFrames()));
    const StdoutCapture quiet;
    std::vector<std::thread> threads;
    for (const auto& wreck : wrecks)
        threads.emplace_back([path = wreck->Path()] {
            EXPECT_EQ(mp4_repair_file(path.wstring().c_str(), 1), 0u);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const auto& wreck : wrecks)
        EXPECT_EQ(wreck->Media().All(), model.Media().All());
}

// ---- A real end ----------------------------------------------------------------------------

namespace {

// Records 25 frames of 5000 bytes, with a flush of the log every 10, and dies.
void RecordAndDie(const std::filesystem::path& path)
{
    mp4_handle file = nullptr;
    mp4_create_file_adv_ex(path.string().c_str(), MP4_OPEN_INFO_FILE, 4096, 32, MP4_IO_FILE,
                           nullptr, &file);
    mp4_repair_set_flush_interval(file, 10);
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_PRORES;
    info.width = 160;
    info.height = 120;
    mp4_set_video_track(file, &info);
    for (std::uint8_t i = 0; i < 25; ++i) {
        const Bytes frame(5000, i);
        mp4_write_video_frame(file, frame.data(), 5000, 40u * i);
    }
#if defined(_WIN32)
    TerminateProcess(GetCurrentProcess(), 9);
#else
    raise(SIGKILL);
#endif
}

// Whether a process of its own recorded that and died.
bool AProcessRecordsAndDies(const std::filesystem::path& path)
{
#if defined(_WIN32)
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    _wputenv_s(L"KVTEST_RECORD_TO", path.c_str());
    // Or it would leave its only test to another shard.
    _wputenv_s(L"GTEST_TOTAL_SHARDS", L"");
    _wputenv_s(L"GTEST_SHARD_INDEX", L"");
    return _wspawnl(_P_WAIT, self, L"recorder", L"--gtest_also_run_disabled_tests",
                    L"--gtest_filter=DISABLED_AKilledRecorder.*", nullptr) == 9;
#else
    const pid_t child = fork();
    if (child == 0)
        RecordAndDie(path);
    int end = 0;
    return waitpid(child, &end, 0) == child && WIFSIGNALED(end);
#endif
}

}  // namespace

#if defined(_WIN32)

// What the process of the next test runs.
TEST(DISABLED_AKilledRecorder, Records)
{
    RecordAndDie(_wgetenv(L"KVTEST_RECORD_TO"));
}

#endif

TEST(AKilledRecorder, LosesWhatCameAfterTheLastFlushAndOneFrameMore)
{
    const Folder folder;
    const LogCapture log;
    const StdoutCapture quiet;
    const std::filesystem::path path = folder / "clip.mp4";
    ASSERT_TRUE(AProcessRecordsAndDies(path));
    EXPECT_EQ(mp4_repair_file_ex(path.string().c_str(), 1), 0u);
    const std::vector<Bytes> samples = Samples(BoxFile::Read(path), "trak.vide");
    ASSERT_EQ(samples.size(), 19u);
    for (std::uint8_t i = 0; i < 19; ++i)
        EXPECT_EQ(samples[i], Bytes(5000, i));
    EXPECT_THAT(BoxFile::Read(path).Complaints(), IsEmpty());
}
