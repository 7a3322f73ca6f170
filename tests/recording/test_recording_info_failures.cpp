// The info file when something fails: in create, in a packet, at a flush, and in close.
#include "support/file_size_limit.h"
#include "support/kept_log.h"
#include "support/recording.h"
#include "support/samples.h"
#include "support/throwing_writes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

using namespace kvtest;
using testing::ElementsAre;
namespace fs = std::filesystem;

namespace {

std::uint32_t Create(const fs::path& path, mp4_handle& file)
{
    return mp4_create_file_adv_ex(path.string().c_str(), MP4_OPEN_INFO_FILE, 0, 0, MP4_IO_FILE,
                                  nullptr, &file);
}

}  // namespace

// ---- In create ---------------------------------------------------------------------------------

TEST(AnInfoFileThatCannotBeOpened, FailsTheCreateBeforeTheOutput)
{
    Folder folder;
    LogCapture log;
    mp4_handle file = nullptr;
    EXPECT_EQ(Create(folder / "none" / "clip.mp4", file), 12u);
    EXPECT_TRUE(log.Has("error open file failed, error:No such file or directory"));
    EXPECT_EQ(log.Sources()[2], "src/BaseIO CFileWriter::Init");

    fs::create_directory(folder / "clip.mp4.info");
    EXPECT_EQ(Create(folder / "clip.mp4", file), kFolderStatus);
    EXPECT_TRUE(log.Has(std::string("error open file failed, error:") + kFolderError));
    EXPECT_FALSE(fs::exists(folder / "clip.mp4"));
    EXPECT_TRUE(fs::exists(folder / "clip.mp4.info"));
    EXPECT_FALSE(log.Has("error init CFileWriter writer failed"));
}

TEST(AnInfoFileThatCannotBeOpened, LetsTheWholeCloseRun)
{
    Folder folder;
    const LogCapture log;
    mp4_handle file = nullptr;
    EXPECT_EQ(Create(folder / "none" / "clip.mp4", file), 12u);
    EXPECT_THAT(log.Lines().back(), testing::StartsWith("info Muxer - Close - uninit takes "));
}

TEST(AnOutputThatCannotBeOpened, TakesTheInfoFileAlong)
{
    Folder folder;
    LogCapture log;
    fs::create_directory(folder / "clip.mp4");
    mp4_handle file = nullptr;
    EXPECT_EQ(Create(folder / "clip.mp4", file), kFolderStatus);
    EXPECT_TRUE(log.Has("error init CFileWriter writer failed"));
    EXPECT_FALSE(fs::exists(folder / "clip.mp4.info"));
}

// The stream takes the five bytes; it is their flush that the full device refuses.
class AHeaderThatCannotBeFlushed : public testing::Test {
protected:
    void SetUp() override
    {
#if !defined(_WIN32)
        if (!fs::exists("/dev/full"))
            GTEST_SKIP() << "this system has no /dev/full";
        fs::create_symlink("/dev/full", folder / "clip.mp4.info");
#endif
    }

    Folder folder;
    const LogCapture log;
    const StdoutCapture quiet;
#if defined(_WIN32)
    const FileSizeLimit full{0, L"clip.mp4.info"};
#endif
};

TEST_F(AHeaderThatCannotBeFlushed, FailsTheCreateBehindTheOutput)
{
    mp4_handle file = nullptr;
    EXPECT_EQ(Create(folder / "clip.mp4", file), 16u);
    EXPECT_FALSE(fs::is_symlink(folder / "clip.mp4.info"));
    EXPECT_THAT(BoxFile::Read(folder / "clip.mp4").Children(""),
                ElementsAre("ftyp", "free", "mdat", "moov"));
}

// The flush of the log fails, and in the close that follows the output does.
TEST_F(AHeaderThatCannotBeFlushed, StaysWhenTheOutputFailsToo)
{
    ExternalSink sink;
    ExternalIoFuncs* const table = sink.Table();
    sink.FailWrite(8 + 2 + 2 + 1, EACCES);  // behind "ftyp", "free" and "mdat"
    mp4_handle file = nullptr;
    EXPECT_EQ(mp4_create_file_adv_ex(Utf8(folder / "clip.mp4").c_str(), MP4_OPEN_INFO_FILE, 0, 0,
                                     MP4_IO_EXTERNAL, table, &file),
              16u);  // that of the log
    EXPECT_EQ(sink.Struck(ExternalSink::kWrite), 1u);
    EXPECT_EQ(sink.File().U32(36), 8u);  // mdat was not ended
    EXPECT_TRUE(fs::exists(fs::symlink_status(folder / "clip.mp4.info")));
}

// ---- In a packet -------------------------------------------------------------------------------

namespace {

// A caller's output with its log beside it; no byte of the log gets beyond the limit.
class Limited {
public:
    Limited() : rec(sink, (m_folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE), log(Info()) {}
    fs::path Info() const { return m_folder / "clip.mp4.info"; }

    // Calls until one fails under the limit; its status.
    std::uint32_t UntilItFails(const std::function<std::uint32_t()>& call)
    {
        const FileSizeLimit limit(100);
        for (; calls < 100000; ++calls)
            if (const std::uint32_t status = call())
                return status;
        return 0;
    }

private:
    Folder m_folder;
    StdoutCapture m_quiet;

public:
    ExternalSink sink;
    Recording rec;
    KeptLog log;
    std::size_t calls = 0;  // that went well
};

}  // namespace

// The call that met the failure tells it once; then there is no log.
TEST(AnInfoPacketThatFails, IsToldByEachKindOfCallOnce)
{
    using Call = std::function<std::uint32_t(Recording&)>;
    const std::pair<const char*, Call> kinds[] = {
        {"video track", [](Recording& rec) { return rec.SetH264(); }},
        {"HEVC track", [](Recording& rec) { return rec.SetHevc(); }},
        {"ProRes track", [](Recording& rec) { return rec.SetProRes(2); }},
        {"audio track", [](Recording& rec) { return rec.SetAac(); }},
        {"metadata", [](Recording& rec) {
             return mp4_set_metadata(rec.Handle(), "title", "A");
         }},
        {"captions", [](Recording& rec) {
             const mp4_subtitle_track_info info{MP4_SUBTITLE_CEA608, 0};
             return mp4_set_subtitle_track(rec.Handle(), &info);
         }},
        {"time code", [](Recording& rec) {
             const mp4_time_code_track_info info{30, 1, 30, 0};
             return mp4_set_time_code_track(rec.Handle(), &info);
         }},
        {"audio frame", [](Recording& rec) { return rec.Audio(Bytes(2, 1), 0); }},
        {"video frame", [](Recording& rec) {
             return rec.Video(Unit(0x65), 0);
         }}};
    for (const auto& [name, call] : kinds) {
        SCOPED_TRACE(name);
        Limited out;
        out.rec.SetH264();
        out.rec.SetAac();
        EXPECT_EQ(out.UntilItFails([&] { return call(out.rec); }), FileSizeLimit::kStatus);
        EXPECT_EQ(call(out.rec), 0u);
        EXPECT_EQ(out.rec.CloseStatus(), 0u);
        EXPECT_FALSE(fs::exists(out.Info()));
        EXPECT_LE(out.log.Size(), 100u);
    }
}

TEST(AnInfoPacketThatFails, LosesNoFrame)
{
    for (const bool video : {true, false}) {
        Limited out;
        out.rec.SetH264();
        out.rec.SetAac();
        const auto frame = [&] {
            return video ? out.rec.Video(Unit(0x65), out.calls) : out.rec.Audio(Bytes(2, 1), 0);
        };
        EXPECT_EQ(out.UntilItFails(frame), FileSizeLimit::kStatus);
        EXPECT_EQ(frame(), 0u);
        const BoxFile file = out.rec.Close();
        // The one that failed, and the one behind it.
        EXPECT_EQ(Samples(file, video ? "trak.vide" : "trak.soun").size(), out.calls + 2);
    }
}

// What their packets were to tell has happened: as many ids, and as many keys, as calls.
TEST(AnInfoPacketThatFails, LeavesTheCaptionsSet)
{
    Limited out;
    const mp4_subtitle_track_info info{MP4_SUBTITLE_CEA608, 0};
    const auto set = [&] { return mp4_set_subtitle_track(out.rec.Handle(), &info); };
    EXPECT_EQ(out.UntilItFails(set), FileSizeLimit::kStatus);
    const Bytes frame = Hex("61 02 00  00 94 20");
    EXPECT_EQ(mp4_write_subtitle_frame(out.rec.Handle(), frame.data(), 6, 0), 0u);
    EXPECT_EQ(Words(out.rec.Close().Box("moov/trak.clcp/tkhd"), 20).at(0), out.calls + 1);
}

TEST(AnInfoPacketThatFails, LeavesTheTimeCodeSet)
{
    Limited out;
    const mp4_time_code_track_info info{30, 1, 30, 0};
    const auto set = [&] { return mp4_set_time_code_track(out.rec.Handle(), &info); };
    EXPECT_EQ(out.UntilItFails(set), FileSizeLimit::kStatus);
    EXPECT_EQ(mp4_write_time_code(out.rec.Handle(), 7), 0u);
    EXPECT_EQ(Words(out.rec.Close().Box("moov/trak.tmcd/tkhd"), 20).at(0), out.calls + 1);
}

TEST(AnInfoPacketThatFails, LeavesTheMetadataSet)
{
    Limited out;
    const auto set = [&] { return mp4_set_metadata(out.rec.Handle(), "com.x", "A"); };
    EXPECT_EQ(out.UntilItFails(set), FileSizeLimit::kStatus);
    EXPECT_EQ(Words(out.rec.Close().Box("moov/udta/meta/keys"), 12).at(0), out.calls + 1);
}

// The sets found in the stream: their packet fails, and neither the frame nor its result knows.
TEST(AnInfoPacketThatFails, DoesNotDropTheFrameThatBroughtTheTrack)
{
    Limited out;
    mp4_video_track_info info{};
    EXPECT_EQ(mp4_set_video_track(out.rec.Handle(), &info), 0u);
    const Bytes start = Hex("000001");
    Bytes pps = Pps();
    pps.resize(20000, 0xFF);  // more than the stream's buffer takes
    {
        const FileSizeLimit limit(100);
        EXPECT_EQ(out.rec.Video(start + Sps() + start + pps + Unit(0x65), 0), 0u);
    }
    EXPECT_EQ(out.rec.Video(Unit(0x65), 40), 0u);
    EXPECT_EQ(Samples(out.rec.Close(), "trak.vide").size(), 2u);
    EXPECT_LE(out.log.Size(), 100u);
}

// Even the writes of an empty value, which writes nothing: errno stays what it was.
TEST(AnInfoPacketThatFails, MayHaveAnEmptyValue)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    const KeptLog log(rec.InfoPath());
    const StdoutCapture quiet;
    errno = 0;
    EXPECT_EQ(mp4_set_metadata_ex(rec.Handle(), "com.a", "", 0, MP4_METADATA_INTEGER, nullptr), 1u);
    EXPECT_EQ(rec.SetAac(), 0u);  // not logged any more
    EXPECT_EQ(log.Read(), Hex("10 00000024  01 15 00000006 'com.a' 00 00000000"));
}

TEST(AFailedMediaWrite, GetsNoPacket)
{
    Folder folder;
    ExternalSink sink;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    const KeptLog log(folder / "clip.mp4.info");
    EXPECT_EQ(rec.SetAac(), 0u);
    sink.FailWrite(1, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_EQ(rec.Audio(Bytes(9, 1), 0), 16u);
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_EQ(log.Size(), 5u + 19);
}

// ---- At a flush --------------------------------------------------------------------------------

TEST(AnInfoFlushThatFails, IsToldByNoFrame)
{
    Limited out;
    mp4_repair_set_flush_interval(out.rec.Handle(), 10);
    out.rec.SetProRes(2);
    {
        const FileSizeLimit limit(100);
        for (std::uint64_t n = 0; n < 10; ++n)
            EXPECT_EQ(out.rec.Video(Bytes(1, 1), n), 0u);  // 244 bytes, at the tenth
    }
    for (std::uint64_t n = 10; n < 30; ++n)
        EXPECT_EQ(out.rec.Video(Bytes(1, 1), n), 0u);
    EXPECT_EQ(out.log.Size(), 100u);  // nothing more, though the limit is gone
    EXPECT_EQ(out.rec.CloseStatus(), 0u);
    EXPECT_EQ(out.log.Size(), 100u);
}

// ---- In close ----------------------------------------------------------------------------------

TEST(ACloseThatFails, LeavesTheWholeLog)
{
    Folder folder;
    ExternalSink sink;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    rec.SetProRes(2);
    for (std::uint64_t n = 0; n < 5; ++n)
        EXPECT_EQ(rec.Video(Bytes(1, 1), n), 0u);
    EXPECT_EQ(BoxFile::Read(folder / "clip.mp4.info").All().size(), 5u);
    sink.FailWrite(1, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_EQ(BoxFile::Read(folder / "clip.mp4.info").All().size(), 5u + 19 + 5 * 22);
}

namespace {

fs::path g_info;
std::uintmax_t g_sizeAtClose = 0;

}  // namespace

TEST(AClose, EndsTheLogBeforeItTouchesTheOutput)
{
    Folder folder;
    g_info = folder / "clip.mp4.info";
    ExternalSink sink;
    ExternalIoFuncs& table = *sink.Table();
    static const auto seek = table.seek;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    rec.SetProRes(2);
    EXPECT_EQ(rec.Video(Bytes(1, 1), 0), 0u);
    g_sizeAtClose = 0;
    table.seek = [](void* context, std::int64_t offset, std::int32_t origin) {
        if (g_sizeAtClose == 0)
            g_sizeAtClose = fs::file_size(g_info);
        seek(context, offset, origin);
    };
    EXPECT_EQ(rec.CloseStatus(), 0u);
    EXPECT_EQ(g_sizeAtClose, 5u + 19 + 22);
    EXPECT_FALSE(fs::exists(g_info));
}

// What is none of the library's own has no status but 1; the rest of the close runs.
TEST(ACloseThatThrowsAnythingElse, Gives1KeepsTheLogAndClosesTheOutputOnce)
{
    Folder folder;
    ExternalSink sink;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    const mp4_handle file = rec.Handle();
    const ThrowingWrites throwing(sink, 0);
    EXPECT_EQ(rec.CloseStatus(), 1u);
    EXPECT_EQ(BoxFile::Read(folder / "clip.mp4.info").All(), Hex("10 00000024"));
    EXPECT_EQ(sink.Count("close"), 1u);
    EXPECT_EQ(mp4_close_file(file), 2u);
    EXPECT_EQ(sink.Count("close"), 1u);
}

TEST(ACreateThatThrowsAnythingElse, Gives1AndRunsTheClose)
{
    Folder folder;
    const LogCapture log;
    ExternalSink sink;
    ExternalIoFuncs* const table = sink.Table();
    mp4_handle file = nullptr;
    const ThrowingWrites throwing(sink, 0);
    EXPECT_EQ(mp4_create_file_adv_ex(Utf8(folder / "clip.mp4").c_str(), MP4_OPEN_INFO_FILE, 0, 0,
                                     MP4_IO_EXTERNAL, table, &file),
              1u);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(sink.Count("close"), 1u);
    EXPECT_TRUE(folder.IsEmpty());  // the close that follows meets no exception
}

// An output that failed before throws nothing in the close, and so the log goes.
TEST(ACloseOfAFailedOutput, ThatThrowsNothingDeletesTheLog)
{
    Folder folder;
    ExternalSink sink;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    rec.SetH264();
    sink.FailWrite(1, ENOSPC);
    const StdoutCapture quiet;
    EXPECT_EQ(rec.Video(Unit(0x65), 0), 16u);
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_TRUE(folder.IsEmpty());
}
