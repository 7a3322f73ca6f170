// The ways out of a repair: the status of each, what becomes of both files, and what is said.
#include "support/matches.h"
#include "support/repair.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <tuple>

#include <malloc.h>
#if !defined(_WIN32)
#include <sys/resource.h>
#endif

#include <unistd.h>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kStsz = "moov/trak.vide/mdia/minf/stbl/stsz";
const std::string kNothing = "error no enough info to repair mp4, repair failed";
const std::string kDeleted = "info delete repair file";
const std::string kEnd = "\\[line [0-9]+\\] Read EOF !\n";

InfoLog TwoFrames()
{
    return InfoLog().ProRes().Video(0, 10).Video(40, 20);
}

// What the repair itself complained of; the boxes that it writes have their own lines.
std::vector<std::string> Complaints(LogCapture& log)
{
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < log.Lines().size(); ++i)
        if (log.Sources()[i].rfind("src/Mp4Repair ", 0) == 0 && log.Lines()[i] != kDeleted)
            lines.push_back(log.Lines()[i]);
    return lines;
}

// A path of `length` characters inside a folder, its last part "clip.mp4"; its folders are made.
std::filesystem::path LongPath(const std::filesystem::path& folder, std::size_t length)
{
    std::string path = folder.string();
    const std::string name = "/clip.mp4";
    while (path.size() + name.size() < length) {
        const std::size_t rest = length - path.size() - name.size() - 1;
        const std::size_t part = std::min<std::size_t>(rest, 200);
        path += "/" + std::string(rest - part == 1 ? part - 1 : part, 'a');
    }
    std::filesystem::create_directories(path);
    return path + name;
}

std::filesystem::path InfoOf(const std::filesystem::path& path)
{
    std::filesystem::path info = path;
    return info += ".info";
}

}  // namespace

// ---- Paths and files that do not open ------------------------------------------------------

TEST(APathOf1018Characters, IsTheLongestThatIsRepaired)
{
    const Folder folder;
    const LogCapture log;
    for (const std::size_t length : {1018u, 1019u}) {
        const std::filesystem::path path = LongPath(folder / std::to_string(length), length);
        ASSERT_EQ(path.string().size(), length);
        WriteBytes(path, DeadFile(30));
        WriteBytes(InfoOf(path), TwoFrames().All());
        StdoutCapture quiet;
        EXPECT_EQ(mp4_repair_file_ex(path.string().c_str(), 1), length == 1018 ? 0u : 4u);
        const bool untouched = BoxFile::Read(path).All() == DeadFile(30);
        EXPECT_EQ(untouched, length == 1019);
        EXPECT_EQ(std::filesystem::exists(InfoOf(path)), length == 1019);
        EXPECT_EQ(quiet.Take().empty(), length == 1019);
    }
}

TEST(TheLengthOfAPath, IsCountedInCharactersAndNotInBytes)
{
    const Folder folder;
    const LogCapture log;
    const std::filesystem::path parent = LongPath(folder / "x", 900).parent_path();
    std::string name;
    while (name.size() < 200)
        name += "\xC3\xA9";  // e with acute: 100 of them, 200 bytes
    name += ".mp4";
    const std::filesystem::path path = parent / std::u8string(name.begin(), name.end());
    ASSERT_GT(Utf8(path).size(), 1018u);
    WriteBytes(path, DeadFile(30));
    WriteBytes(InfoOf(path), TwoFrames().All());
    StdoutCapture quiet;
    EXPECT_EQ(mp4_repair_file_ex(Utf8(path).c_str(), 0), 0u);
    EXPECT_TRUE(BoxFile::Read(path).Has("moov"));
}

TEST(APathBeyondTheBuffer, IsRefusedAsTooLong)
{
    for (const std::size_t length : {1023u, 1024u, 1025u, 5000u})
        EXPECT_EQ(mp4_repair_file_ex(std::string(length, 'a').c_str(), 1), 4u);
    EXPECT_EQ(mp4_repair_file(std::wstring(1019, L'a').c_str(), 1), 4u);
}

TEST(ANullPath, IsRefused)
{
    EXPECT_EQ(mp4_repair_file(nullptr, 0), 4u);
    EXPECT_EQ(mp4_repair_file_ex(nullptr, 0), 4u);
    EXPECT_EQ(kv_mp4_repair(nullptr, 0), 4u);
    EXPECT_EQ(kv_mp4_repair_ex(nullptr, 0), 4u);
}

TEST(AMissingMediaFile, IsLoggedByTheWriterAndLeavesTheInfoFile)
{
    Wreck wreck(DeadFile(30), TwoFrames());
    std::filesystem::remove(wreck.Path());
    EXPECT_EQ(wreck.Repair(1), 12u);
    EXPECT_THAT(wreck.Log().Lines(),
                ElementsAre("error open file failed, error:No such file or directory"));
    EXPECT_THAT(wreck.Log().Sources(), ElementsAre("src/BaseIO CAppendFileWriter::Init"));
    EXPECT_EQ(wreck.Info(), TwoFrames().All());
    EXPECT_FALSE(std::filesystem::exists(wreck.Path()));
}

TEST(AFolderAsMediaFile, IsTheSystemsOtherErrors)
{
    Wreck wreck(DeadFile(30), TwoFrames());
    std::filesystem::remove(wreck.Path());
    std::filesystem::create_directory(wreck.Path());
    EXPECT_EQ(wreck.Repair(1), kFolderStatus);
    EXPECT_EQ(wreck.Info(), TwoFrames().All());
}

TEST(AMissingInfoFile, LeavesTheMediaFileAndSaysNothing)
{
    Wreck wreck(DeadFile(30), TwoFrames());
    std::filesystem::remove(wreck.InfoPath());
    EXPECT_EQ(wreck.Repair(1), 12u);
    EXPECT_EQ(wreck.Media().All(), DeadFile(30));
    EXPECT_THAT(wreck.Log().Lines(), IsEmpty());
    EXPECT_EQ(wreck.Printed(), "");
    EXPECT_FALSE(wreck.HasInfo());
}

#if !defined(_WIN32)  // where making a link takes a privilege

TEST(AnInfoFileThatDoesNotOpen, DecidesTheStatus)
{
    Wreck wreck(DeadFile(30), TwoFrames());
    std::filesystem::remove(wreck.InfoPath());
    std::filesystem::create_symlink(wreck.InfoPath(), wreck.InfoPath());
    EXPECT_EQ(wreck.Repair(1), 1u);  // ELOOP
    EXPECT_EQ(wreck.Media().All(), DeadFile(30));
    EXPECT_TRUE(std::filesystem::is_symlink(wreck.InfoPath()));
}

#endif

TEST(AFinishedRecording, IsLeftAlone)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    rec.SetH264();
    rec.FramesAt({0, 40});
    const Bytes finished = rec.Close().All();
    EXPECT_EQ(mp4_repair_file_ex(rec.Path().string().c_str(), 1), 12u);
    EXPECT_EQ(BoxFile::Read(rec.Path()).All(), finished);
}

// ---- Logs that leave nothing ---------------------------------------------------------------

namespace {

class Option : public testing::TestWithParam<std::uint8_t> {
protected:
    // Expects an empty media file, and the info file as the option says.
    void ExpectEmptied(Wreck& wreck)
    {
        EXPECT_EQ(wreck.Repair(GetParam()), 0u);
        EXPECT_EQ(wreck.Media().All().size(), 0u);
        EXPECT_EQ(wreck.HasInfo(), GetParam() == 0);
        EXPECT_EQ(wreck.Log().Count(kDeleted), GetParam() == 0 ? 0u : 1u);
    }
};

INSTANTIATE_TEST_SUITE_P(Any, Option, testing::Values(0, 1, 255));

}  // namespace

TEST_P(Option, ALogOf5BytesOrFewerEmptiesTheMediaFile)
{
    for (std::size_t size = 0; size <= 5; ++size) {
        Wreck wreck(DeadFile(30), Slice(TwoFrames().All(), 0, size));
        ExpectEmptied(wreck);
        EXPECT_THAT(Complaints(wreck.Log()), IsEmpty());
        EXPECT_THAT(wreck.Printed(), Matches(kEnd));
    }
}

TEST_P(Option, AMediaFileThatEndsBeforeItsDataIsEmptied)
{
    for (const std::size_t size : {0u, 36u, 43u}) {
        Wreck wreck(Slice(DeadFile(0), 0, size), TwoFrames());
        ExpectEmptied(wreck);
        EXPECT_THAT(Complaints(wreck.Log()), IsEmpty());
        EXPECT_EQ(wreck.Printed(), "");  // the log was not read to its end
    }
}

TEST_P(Option, ALogWithoutATrackEmptiesTheMediaFileAndSaysSo)
{
    InfoLog captions;
    captions.Captions().TimeCodeTrack().Caption(0, 10).TimeCode(0).Closed();
    for (const InfoLog& log : {captions, InfoLog().Closed()}) {
        Wreck wreck(DeadFile(30), log);
        ExpectEmptied(wreck);
        EXPECT_THAT(Complaints(wreck.Log()), ElementsAre(kNothing));
        EXPECT_THAT(wreck.Printed(), Matches(kEnd));
    }
}

TEST(AMediaFile, NeedsTheFirst8BytesOfTheHeaderOfMdat)
{
    Wreck plain(DeadFile(0), TwoFrames());
    EXPECT_EQ(plain.Repair(), 0u);
    EXPECT_EQ(plain.Media().Find("moov").begin, 44u + 10);
    // Also of a header of 16.
    Wreck large(DeadFile(0), InfoLog(MP4_OPEN_LARGE_FILE).ProRes().Video(0, 10).Closed());
    EXPECT_EQ(large.Repair(), 0u);
    EXPECT_EQ(large.Media().U64(44), 16u + 10);
    EXPECT_EQ(large.Media().U32(52 + 10 + 4), 0x6D6F6F76u);  // "moov"
}

// A sum of 64 bits: it does not wrap to a place inside the file.
TEST(AMediaFile, EndsBeforeAnMdatAtTheEndOf32Bits)
{
    Wreck wreck(DeadFile(30), InfoLog(16, 0xFFFFFFFC).ProRes().Video(0, 10).Closed());
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(wreck.Media().All().size(), 0u);
}

TEST(AnEmptiedFile, StaysEmptyInASecondRun)
{
    Wreck wreck(DeadFile(30), InfoLog().Closed());
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(wreck.Media().All().size(), 0u);
    EXPECT_EQ(wreck.Log().Count(kNothing), 1u);  // the second run ends at the size of the file
    EXPECT_EQ(wreck.Repair(1), 0u);
    EXPECT_FALSE(wreck.HasInfo());
    EXPECT_EQ(wreck.Repair(1), 12u);
    EXPECT_EQ(wreck.Media().All().size(), 0u);
}

// ---- Set-up packets that the crash cut -----------------------------------------------------

namespace {

// A moov without a track, whose header names `next` as the next id, behind an empty mdat.
void ExpectNoTracks(const BoxFile& file, std::uint32_t next)
{
    EXPECT_THAT(file.Children(""), ElementsAre("ftyp", "free", "mdat", "moov"));
    EXPECT_THAT(file.Children("moov"), ElementsAre("mvhd", "udta"));
    EXPECT_EQ(file.U32(36), 8u);
    EXPECT_EQ(file.Find("moov").begin, 44u);
    EXPECT_EQ(file.Find("moov").end, file.All().size());
    EXPECT_EQ(Words(file.Box("moov/mvhd"), 104), (Numbers{next}));
}

}  // namespace

TEST(AnOnlySetUpPacket, CountsAsSoonAsItsTagIsDelivered)
{
    for (const InfoLog& log : {InfoLog().ProRes(), InfoLog().Aac()}) {
        const std::size_t whole = log.All().size();
        for (std::size_t size = 6; size <= whole; ++size) {
            Wreck wreck(DeadFile(30), Slice(log.All(), 0, size));
            EXPECT_EQ(wreck.Repair(), 0u);
            if (size == 6) {
                EXPECT_EQ(wreck.Media().All().size(), 0u);
                EXPECT_THAT(Complaints(wreck.Log()), ElementsAre(kNothing));
            } else {
                ExpectNoTracks(wreck.Media(), 2);  // without a track the header keeps its 1
                EXPECT_THAT(Complaints(wreck.Log()), IsEmpty());
            }
        }
    }
}

TEST(SetUpsWithoutAFrame, LeaveAnEmptyMdatAndCutTheSamples)
{
    Wreck lost(DeadFile(3000), InfoLog().ProRes().Aac());
    EXPECT_EQ(lost.Repair(1), 0u);
    ExpectNoTracks(lost.Media(), 2);  // the second only counts as seen
    EXPECT_FALSE(lost.HasInfo());
    Wreck kept(DeadFile(3000), InfoLog().ProRes().Aac().Closed());
    EXPECT_EQ(kept.Repair(1), 0u);
    ExpectNoTracks(kept.Media(), 3);
}

// ---- Damaged logs --------------------------------------------------------------------------

namespace {

struct Damage {
    const char* name;
    InfoLog log;                        // two frames, then the damage and a byte behind it
    std::vector<std::string> complaints;
};

std::vector<Damage> Damages()
{
    const Bytes sps(40000, 0x67);  // a length that is negative in 16 bits
    InfoLog longSps = InfoLog().Aac().Audio(0, 10).Audio(40, 20);
    const Bytes length = Hex("00009C40");
    longSps.VideoTrack(MP4_VIDEO_H264, length + sps + Hex("00000001 68"));
    const auto frames = [] { return InfoLog().ProRes().Aac().Video(0, 10).Audio(40, 20); };
    const auto audio = [] { return InfoLog().Aac().Audio(0, 10).Audio(40, 20); };
    return {
        {"tag 0", frames().Raw({0, 0}), {"error unknown packet type 0"}},
        {"tag 10", frames().Raw({10, 0}), {"error unknown packet type 10"}},
        {"tag 255", frames().Raw({255, 0}), {"error unknown packet type 255"}},
        {"a second video track", frames().Raw({2, 0}), {}},
        {"a second audio track", frames().Raw({3, 0}), {}},
        {"an unknown codec", audio().VideoTrack(3, {}).Closed(), {}},
        {"a set that cannot be allocated", longSps.Closed(), {}},
    };
}

const Bytes kTail(5000, 0xEE);

}  // namespace

TEST(ADamagedLog, IsRebuiltUpToTheDamageButNeitherCutNorDeleted)
{
    for (const Damage& damage : Damages()) {
        SCOPED_TRACE(damage.name);
        Wreck wreck(DeadFile(30) + kTail, damage.log);
        EXPECT_EQ(wreck.Repair(1), 1u);
        const BoxFile file = wreck.Media();
        EXPECT_EQ(file.U32(36), 8u + 30);
        ASSERT_THAT(file.Children(""), ElementsAre("ftyp", "free", "mdat", "moov", "free"));
        EXPECT_EQ(file.All().size(), 44u + 30 + 5000);
        EXPECT_EQ(file.Find("moov").begin, 44u + 30);
        const std::size_t rest = file.Find("moov").end + 8;
        EXPECT_EQ(Slice(file.All(), rest, file.All().size()),
                  Bytes(file.All().size() - rest, 0xEE));
        EXPECT_EQ(wreck.Info(), damage.log.All());
    }
}

TEST(ADamagedLog, KeepsEverySampleBeforeTheDamage)
{
    for (const Damage& damage : Damages()) {
        SCOPED_TRACE(damage.name);
        Wreck wreck(DeadFile(30), damage.log);
        EXPECT_EQ(wreck.Repair(), 1u);
        const BoxFile file = wreck.Media();
        EXPECT_THAT(file.Complaints(), IsEmpty());
        std::vector<Bytes> samples;
        for (const char* track : {"trak.vide", "trak.soun"})
            for (const Bytes& sample : Samples(file, track))
                samples.push_back(sample);
        EXPECT_THAT(samples, ElementsAre(Slice(DeadFile(30), 44, 54), Slice(DeadFile(30), 54, 74)));
    }
}

TEST(ADamagedLog, PrintsOneLineAndLogsOnlyUnknownTags)
{
    for (const Damage& damage : Damages()) {
        SCOPED_TRACE(damage.name);
        Wreck wreck(DeadFile(30), damage.log);
        EXPECT_EQ(wreck.Repair(1), 1u);
        EXPECT_EQ(Complaints(wreck.Log()), damage.complaints);
        EXPECT_FALSE(wreck.Log().Has(kDeleted));
        if (std::string(damage.name) == "a set that cannot be allocated")
            EXPECT_EQ(wreck.Printed(), "");
        else
            EXPECT_THAT(wreck.Printed(), Matches(kEnd));
    }
}

TEST(ADamagedPacket, CarriesWhateverErrnoHolds)
{
    for (const auto& [error, status] : {std::pair{0, 1u}, {ENOENT, 12u}, {EROFS, 17u}, {EIO, 1u}}) {
        for (const Damage& damage : Damages()) {
            SCOPED_TRACE(damage.name);
            const bool thrown = std::string(damage.name) != "a set that cannot be allocated";
            Wreck wreck(DeadFile(30), damage.log);
            EXPECT_EQ(wreck.Repair(0, error), thrown ? status : 1u);
        }
    }
}

TEST(ADamagedLogWithoutATrack, LeavesBothFilesAlone)
{
    const InfoLog log = InfoLog().Captions().Caption(0, 10).Raw({99, 0});
    Wreck wreck(DeadFile(30), log);
    EXPECT_EQ(wreck.Repair(1), 1u);
    EXPECT_EQ(wreck.Media().All(), DeadFile(30));
    EXPECT_EQ(wreck.Info(), log.All());
    EXPECT_THAT(Complaints(wreck.Log()), ElementsAre("error unknown packet type 99", kNothing));
    EXPECT_EQ(wreck.Log().Sources()[0], "src/Mp4Repair CMp4Repair::ReadNextPacket");
}

TEST(AnUnknownCodec, IsFoundOnlyBehindTheFixedFields)
{
    const Bytes log = InfoLog().VideoTrack(3, {}).All();
    Wreck cut(DeadFile(30), log);
    EXPECT_EQ(cut.Repair(), 0u);  // the end of the data, in the height
    ExpectNoTracks(cut.Media(), 2);
    Wreck whole(DeadFile(30), log + Bytes{0});
    EXPECT_EQ(whole.Repair(), 1u);
    ExpectNoTracks(whole.Media(), 2);
}

TEST(ATagThatIsTheLastByte, IsNeverSeen)
{
    Wreck wreck(DeadFile(30), TwoFrames().Raw({99}));
    EXPECT_EQ(wreck.Repair(1), 0u);
    EXPECT_THAT(Complaints(wreck.Log()), IsEmpty());
    EXPECT_EQ(Words(wreck.Media().Box(kStsz), 12), (Numbers{0, 2, 10, 20}));
}

// ---- moov cannot be written ----------------------------------------------------------------

TEST(AParameterSetThatMoovRefuses, IsStatus1WithMdatPatchedAndNothingCut)
{
    InfoLog log;
    log.VideoTrack(MP4_VIDEO_H264, Hex("00000003 67 64 00 00000004 68 EB E3 CB"));
    log.Video(0, 10).Closed();
    Wreck wreck(DeadFile(3000), log);
    EXPECT_EQ(wreck.Repair(1), 1u);
    EXPECT_THAT(wreck.Printed(), Matches(
        kEnd + "LibMp4 : Error - Invalid sps\\(3\\) or pps\\(4\\) size !\n"));
    EXPECT_EQ(wreck.Media().U32(36), 8u + 10);
    EXPECT_EQ(wreck.Media().All().size(), 44u + 3000);
    EXPECT_EQ(wreck.Info(), log.All());
}

TEST(AFailedMoov, DecidesTheStatusOverADamagedLog)
{
    InfoLog log;
    log.VideoTrack(MP4_VIDEO_HEVC, Hex("00000000 00000000 00000000")).Video(0, 10).Raw({99, 0});
    Wreck wreck(DeadFile(30), log);
    EXPECT_EQ(wreck.Repair(1, ENOENT), 1u);  // and not 12, which the tag would give
    EXPECT_THAT(wreck.Printed(), Matches(kEnd + "LibMp4 : Error - NULL hevc head !\n"));
    EXPECT_TRUE(wreck.HasInfo());
}

// ---- Memory --------------------------------------------------------------------------------

// Windows has no limit on the memory of a process that a test could lower.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(_WIN32)

namespace {

constexpr std::size_t kMiB = 1 << 20;

// In a process of its own: repairs a log with a blob of 20 MiB, with `room` bytes of memory more
// than in use, and exits with the status, or with 99 if the files are not as they should be then.
void RepairWithin(std::size_t room)
{
    mallopt(M_MMAP_THRESHOLD, kMiB);  // nothing that was given back stays at hand
    std::uint32_t status = 99;
    {
        InfoLog log = TwoFrames();
        log.Metadata(MP4_METADATA_TEXT, EndedText("no item"), Bytes(20 * kMiB, 'x')).Closed();
        Wreck wreck(DeadFile(30), log);
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        rlimit before{};
        getrlimit(RLIMIT_AS, &before);
        rlimit tight = before;
        tight.rlim_cur = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + room;
        setrlimit(RLIMIT_AS, &tight);
        const std::uint32_t result = wreck.Repair(1);
        setrlimit(RLIMIT_AS, &before);
        const bool rebuilt = Words(wreck.Media().Box(kStsz), 12) == Numbers{0, 2, 10, 20};
        if (rebuilt && wreck.HasInfo() == (result != 0))
            status = result;
    }
    std::exit(static_cast<int>(status));
}

}  // namespace

TEST(ABlobThatFindsNoMemory, IsStatus1WithAllBeforeItRebuilt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RepairWithin(60 * kMiB), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(RepairWithin(30 * kMiB), testing::ExitedWithCode(1), "");  // for the reader alone
}

#endif
