// Captions and time code where something fails, under checkpoints, and in the info file.
#include "support/external_sink.h"
#include "support/file_size_limit.h"
#include "support/kept_log.h"
#include "support/recording.h"
#include "support/samples.h"
#include "support/throwing_writes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

using namespace kvtest;
using testing::ElementsAre;
using Numbers = std::vector<std::uint32_t>;

namespace {

const Bytes kFrame608 = Hex("61 02 00  00 94 20  01 94 2C");  // two atoms, 20 bytes
const Bytes kFrame708 = Hex("61 01 04  96 69 04 4F");         // header and data, 12 bytes

const std::string kCaptions = "moov/trak.clcp/mdia/minf/stbl/";

const std::pair<int, std::uint32_t> kStatuses[] = {
    {EPERM, 11}, {ENOENT, 12}, {EACCES, 13}, {EBUSY, 14}, {EMFILE, 15},
    {ENOSPC, 16}, {EROFS, 17}, {EIO, 1},    {1000, 0}};

std::uint32_t SetCaptions(mp4_handle file, std::uint32_t codec)
{
    const mp4_subtitle_track_info info{codec, 1000};
    return mp4_set_subtitle_track(file, &info);
}

std::uint32_t Caption(mp4_handle file, const Bytes& frame, std::uint64_t time = 0)
{
    return mp4_write_subtitle_frame(file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                    time);
}

std::uint32_t SetTimeCode(mp4_handle file)
{
    const mp4_time_code_track_info info{30000, 1001, 30, 1};
    return mp4_set_time_code_track(file, &info);
}

// A file of the caller's own output, closed in any case; what it prints and logs is kept away.
class SinkFile {
public:
    explicit SinkFile(const wchar_t* name = L"clip.mp4")
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(mp4_create_file_adv(name, 0, 0, 0, MP4_IO_EXTERNAL, sink.Table(), &file), 0u);
    }
    ~SinkFile()
    {
        if (file)
            Close();
        testing::internal::GetCapturedStdout();
    }
    SinkFile(const SinkFile&) = delete;
    SinkFile& operator=(const SinkFile&) = delete;
    std::uint32_t Close()
    {
        const mp4_handle closing = file;
        file = nullptr;
        return mp4_close_file(closing);
    }

    LogCapture log;
    ExternalSink sink;
    mp4_handle file = nullptr;
};

}  // namespace

// ---- Failing writes --------------------------------------------------------------------------

// Each entry is one write, each CEA-708 sample two.
TEST(ACaptionWriteThatFails, GivesItsStatusAndEntersNoSample)
{
    for (const bool cea608 : {true, false}) {
        for (const std::size_t write : {1u, 2u}) {
            SinkFile out;
            SetCaptions(out.file, cea608 ? 1 : 2);
            const std::uint32_t before = mp4_get_moov_size(out.file);
            const std::size_t size = out.sink.Data().size();
            out.sink.FailWrite(write, ENOSPC);
            EXPECT_EQ(Caption(out.file, cea608 ? kFrame608 : kFrame708), 16u);
            EXPECT_EQ(mp4_get_moov_size(out.file), before);  // a track of no samples takes nothing
            // What an earlier write brought stays.
            EXPECT_EQ(out.sink.Data().size() - size, write == 1 ? 0u : cea608 ? 10u : 8u);
            EXPECT_EQ(Caption(out.file, kFrame608), 16u);
            EXPECT_EQ(out.Close(), 16u);
        }
    }
}

TEST(ACaptionWriteThatFails, HasTheStatusOfItsErrno)
{
    for (const auto& [error, status] : kStatuses) {
        SinkFile out;
        SetCaptions(out.file, MP4_SUBTITLE_CEA608);
        out.sink.FailWrite(1, error);
        EXPECT_EQ(Caption(out.file, kFrame608), status);
    }
}

TEST(ACaptionWriteThatThrowsAnythingElse, Gives1AndEntersNoSample)
{
    for (const std::uint32_t codec : {1u, 2u}) {
        SinkFile out;
        SetCaptions(out.file, codec);
        const std::uint32_t before = mp4_get_moov_size(out.file);
        {
            const ThrowingWrites throwing(out.sink, 0);
            EXPECT_EQ(Caption(out.file, codec == 1 ? kFrame608 : kFrame708), 1u);
        }
        EXPECT_EQ(mp4_get_moov_size(out.file), before);
        // The writer did not fail: the next frame takes the place of the lost one.
        EXPECT_EQ(Caption(out.file, codec == 1 ? kFrame608 : kFrame708, 40), 0u);
        EXPECT_EQ(out.Close(), 0u);
        EXPECT_EQ(Samples(out.sink.File(), "trak.clcp").size(), 1u);
    }
}

TEST(ATimeCodeWriteThatFails, GivesItsStatusAndEntersNoSample)
{
    SinkFile out;
    SetTimeCode(out.file);
    const std::uint32_t before = mp4_get_moov_size(out.file);
    out.sink.FailWrite(1, ENOSPC);
    EXPECT_EQ(mp4_write_time_code(out.file, 1), 16u);
    EXPECT_EQ(mp4_get_moov_size(out.file), before);
    EXPECT_EQ(out.Close(), 16u);
}

TEST(ATimeCodeWriteThatThrowsAnythingElse, Gives1AndEntersNoSample)
{
    SinkFile out;
    SetTimeCode(out.file);
    const std::uint32_t before = mp4_get_moov_size(out.file);
    {
        const ThrowingWrites throwing(out.sink, 0);
        EXPECT_EQ(mp4_write_time_code(out.file, 1), 1u);
    }
    EXPECT_EQ(mp4_get_moov_size(out.file), before);
    EXPECT_EQ(mp4_write_time_code(out.file, 2), 0u);
    EXPECT_EQ(out.Close(), 0u);
    EXPECT_THAT(Samples(out.sink.File(), "trak.tmcd"), ElementsAre(Hex("00000002")));
}

// What the earlier write of the lost sample brought stays, and the next sample is entered there.
TEST(ACaptionWriteThatThrowsAnythingElse, LeavesTheBytesOfItsEarlierWrites)
{
    for (const bool cea608 : {true, false}) {
        SinkFile out;
        SetCaptions(out.file, cea608 ? 1 : 2);
        const Bytes& frame = cea608 ? kFrame608 : kFrame708;
        {
            const ThrowingWrites throwing(out.sink, 1);
            EXPECT_EQ(Caption(out.file, frame), 1u);
        }
        EXPECT_EQ(Caption(out.file, frame, 40), 0u);
        EXPECT_EQ(out.Close(), 0u);
        const BoxFile file = out.sink.File();
        EXPECT_EQ(Words(file.Box(kCaptions + "stco"), 12), (Numbers{1, 44}));
        EXPECT_EQ(Words(file.Box(kCaptions + "stsz"), 12), (Numbers{cea608 ? 20u : 12u, 1}));
        EXPECT_EQ(file.Box("mdat").size(), cea608 ? 8u + 10 + 20 : 8u + 8 + 12);
    }
}

TEST(ATimeCodeWriteThatFails, HasTheStatusOfItsErrno)
{
    for (const auto& [error, status] : kStatuses) {
        SinkFile out;
        SetTimeCode(out.file);
        const std::uint32_t before = mp4_get_moov_size(out.file);
        out.sink.FailWrite(1, error);
        EXPECT_EQ(mp4_write_time_code(out.file, 1), status);
        EXPECT_EQ(mp4_get_moov_size(out.file), before);
    }
}

// Unlike those of video and audio.
TEST(ASideWriteThatFails, LogsNothing)
{
    for (const bool captions : {true, false}) {
        for (const bool foreign : {true, false}) {
            SinkFile out;
            SetCaptions(out.file, MP4_SUBTITLE_CEA608);
            SetTimeCode(out.file);
            const std::size_t lines = out.log.Lines().size();
            out.sink.FailWrite(1, ENOSPC);
            const ThrowingWrites throwing(out.sink, foreign ? 0 : 1);
            EXPECT_EQ(captions ? Caption(out.file, kFrame608) : mp4_write_time_code(out.file, 1),
                      foreign ? 1u : 16u);
            EXPECT_EQ(out.log.Lines().size(), lines);
        }
    }
}

TEST(ASideWriteThatFails, LocksNoOtherThreadOut)
{
    for (const bool captions : {true, false}) {
        SinkFile out;
        SetCaptions(out.file, MP4_SUBTITLE_CEA608);
        SetTimeCode(out.file);
        const auto write = [&] {
            return captions ? Caption(out.file, kFrame608) : mp4_write_time_code(out.file, 1);
        };
        {
            const ThrowingWrites throwing(out.sink, 0);
            EXPECT_EQ(write(), 1u);
        }
        std::uint32_t later = 99;
        std::thread([&] { later = write(); }).join();
        EXPECT_EQ(later, 0u);
    }
}

// Unlike every other frame: nothing tests the writer, and the write is skipped.
TEST(ATimeCodeOnAFailedWriter, Gives0AndEntersTheSample)
{
    SinkFile out;
    SetTimeCode(out.file);
    SetCaptions(out.file, MP4_SUBTITLE_CEA608);
    out.sink.FailWrite(1, ENOSPC);
    EXPECT_EQ(Caption(out.file, kFrame608), 16u);
    const std::uint32_t before = mp4_get_moov_size(out.file);
    const std::size_t writes = out.sink.Count("write");
    EXPECT_EQ(mp4_write_time_code(out.file, 1), 0u);
    EXPECT_EQ(out.sink.Count("write"), writes);
    // The track of one sample: 540 bytes, less the run that "stts" does not count before a write.
    EXPECT_EQ(mp4_get_moov_size(out.file), before + 532);
    EXPECT_EQ(mp4_set_time_code_track(out.file, nullptr), 4u);
    EXPECT_EQ(SetTimeCode(out.file), 0u);  // nor does the set-up test it
    EXPECT_EQ(SetCaptions(out.file, MP4_SUBTITLE_CEA608), 16u);
}

// ---- Checkpoints -----------------------------------------------------------------------------

namespace {

// A safe-mode file whose first checkpoint comes behind so many bytes of data.
void CheckpointAfter(Recording& rec, std::uint32_t bytes)
{
    const mp4_safe_param params{0, 44 + bytes, 0, 0};  // fixed distances
    EXPECT_EQ(mp4_set_safe_param(rec.Handle(), &params), 0u);
}

std::size_t Checkpoints(Recording& rec)
{
    std::size_t count = 0;
    for (const std::string& line : rec.Log().Lines())
        count += line.starts_with("info update moov header to ");
    return count;
}

}  // namespace

// The room that is looked at is twice the frame of 6 bytes, though a sample of 10 comes out.
TEST(ACheckpointBeforeACaption, GoesByTheSizeOfTheInputFrame)
{
    for (const bool room : {true, false}) {
        Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
        SetCaptions(rec.Handle(), MP4_SUBTITLE_CEA608);
        CheckpointAfter(rec, room ? 12 : 11);
        EXPECT_EQ(Caption(rec.Handle(), Hex("61 02 00  00 94 20")), 0u);
        EXPECT_EQ(Checkpoints(rec), room ? 0u : 1u);
    }
}

TEST(ACheckpointBeforeACaption, ComesAlsoForAFrameThatIsRefusedOrMalformed)
{
    Recording refused("clip.mp4", MP4_OPEN_SAFE_MODE);
    CheckpointAfter(refused, 5);
    EXPECT_EQ(Caption(refused.Handle(), Bytes(3, 0)), 6u);
    EXPECT_EQ(Checkpoints(refused), 1u);

    Recording malformed("clip.mp4", MP4_OPEN_SAFE_MODE);
    SetCaptions(malformed.Handle(), MP4_SUBTITLE_CEA608);
    CheckpointAfter(malformed, 5);
    EXPECT_EQ(Caption(malformed.Handle(), Bytes(3, 0)), 0u);
    EXPECT_EQ(Checkpoints(malformed), 1u);
}

// As with video and audio: nothing on the way catches it, and the locks are free again.
TEST(ACheckpointBeforeACaption, ThatFailsLeavesAsAnException)
{
    const StdoutCapture quiet;
    ExternalSink sink;
    Recording rec(sink, "clip.mp4", MP4_OPEN_SAFE_MODE);
    SetCaptions(rec.Handle(), MP4_SUBTITLE_CEA608);
    CheckpointAfter(rec, 5);
    sink.FailWrite(1, ENOSPC);
    std::int32_t code = 0;
    try {
        Caption(rec.Handle(), kFrame608);
    } catch (const kv_mp4_exception& error) {
        code = error.code;
    }
    EXPECT_EQ(code, 28);  // ENOSPC
    std::uint32_t later = 0;
    std::thread([&] { later = Caption(rec.Handle(), kFrame608, 40); }).join();
    EXPECT_EQ(later, 16u);
    EXPECT_EQ(rec.CloseStatus(), 16u);
}

TEST(ATimeCode, NeverMakesACheckpoint)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    SetTimeCode(rec.Handle());
    CheckpointAfter(rec, 0);
    for (std::uint32_t n = 0; n < 20; ++n)
        EXPECT_EQ(mp4_write_time_code(rec.Handle(), n), 0u);
    EXPECT_EQ(Checkpoints(rec), 0u);
}

// The difference that the first checkpoint finds stays that of the last sample.
TEST(TheDurationOfCaptions, LatchesAtTheFirstCheckpoint)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    SetCaptions(rec.Handle(), MP4_SUBTITLE_CEA608);
    CheckpointAfter(rec, 2000);
    EXPECT_EQ(Caption(rec.Handle(), kFrame608, 0), 0u);
    EXPECT_EQ(Caption(rec.Handle(), kFrame608, 40), 0u);
    EXPECT_EQ(Caption(rec.Handle(), Bytes(1500, 0), 140), 0u);  // malformed, and checkpointed
    EXPECT_EQ(Checkpoints(rec), 1u);
    EXPECT_EQ(Words(rec.Close().Box("moov/trak.clcp/mdia/mdhd"), 20)[1], 180u);  // 140 + 40
}

TEST(TheTimeCodeTrack, FollowsTheCaptionsInSafeModeAndPrecedesThemOtherwise)
{
    for (const bool safe : {false, true}) {
        Recording rec("clip.mp4", safe ? MP4_OPEN_SAFE_MODE : 0);
        SetTimeCode(rec.Handle());
        SetCaptions(rec.Handle(), MP4_SUBTITLE_CEA608);
        EXPECT_EQ(mp4_write_time_code(rec.Handle(), 0), 0u);
        EXPECT_EQ(Caption(rec.Handle(), kFrame608), 0u);
        const BoxFile file = rec.Close();
        EXPECT_EQ(file.Find("moov/trak.tmcd").begin > file.Find("moov/trak.clcp").begin, safe);
    }
}

// ---- The info file ---------------------------------------------------------------------------

namespace {

// The log so far: ten video frames flush it at the smallest interval. Its video packets are cut off.
Bytes InfoSoFar(Recording& rec)
{
    testing::internal::CaptureStdout();
    mp4_repair_set_flush_interval(rec.Handle(), 10);
    testing::internal::GetCapturedStdout();
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_PRORES;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 0u);
    for (std::uint64_t time = 0; time < 10; ++time)
        EXPECT_EQ(rec.Video(Bytes(1, 1), time), 0u);
    Bytes log = BoxFile::Read(rec.InfoPath()).All();
    log.resize(log.size() - 19 - 10 * 22);
    return log;
}

}  // namespace

TEST(TheInfoFile, HoldsCaptionsWithTheSizesOfTheirSamples)
{
    for (const bool quickTime : {false, true}) {
        Recording rec(quickTime ? "clip.mov" : "clip.mp4", MP4_OPEN_INFO_FILE);
        SetCaptions(rec.Handle(), MP4_SUBTITLE_CEA608);
        EXPECT_EQ(Caption(rec.Handle(), kFrame608, 0x1'0000'0002), 0u);
        EXPECT_EQ(Caption(rec.Handle(), {}, 0x1'0000'002A), 0u);  // malformed
        SetCaptions(rec.Handle(), MP4_SUBTITLE_CEA708);
        EXPECT_EQ(Caption(rec.Handle(), kFrame708, 80), 0u);
        EXPECT_EQ(Caption(rec.Handle(), kFrame608, 120), 0u);  // malformed
        EXPECT_EQ(InfoSoFar(rec), Hex(quickTime ? "10 00000014" : "10 00000024") +
                                      Hex("06 000003E8 01"
                                          "07 0000000100000002 00000014"
                                          "07 000000010000002A 00000000"
                                          "06 000003E8 02"
                                          "07 0000000000000050 0000000C"
                                          "07 0000000000000078 00000000"));
        EXPECT_EQ(rec.CloseStatus(), 0u);
    }
}

TEST(TheInfoFile, HoldsNoFrameThatWasRefused)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    EXPECT_EQ(Caption(rec.Handle(), kFrame608), 6u);
    SetCaptions(rec.Handle(), 3);
    EXPECT_EQ(Caption(rec.Handle(), kFrame608), 6u);
    EXPECT_EQ(InfoSoFar(rec), Hex("10 00000024  06 000003E8 03"));
}

TEST(TheInfoFile, HoldsTimeCodesAlsoWithoutATrack)
{
    Recording rec("clip.mp4", MP4_OPEN_INFO_FILE);
    EXPECT_EQ(mp4_write_time_code(rec.Handle(), 0x01020304), 0u);
    SetTimeCode(rec.Handle());
    EXPECT_EQ(mp4_write_time_code(rec.Handle(), 5), 0u);
    EXPECT_EQ(InfoSoFar(rec), Hex("10 00000024  09 01020304"
                                  "08 00007530 00000000000003E9 1E 00000001  09 00000005"));
}

// The sample has no bytes in the file, and its packet goes out all the same.
TEST(TheInfoFile, HoldsATimeCodeThatAFailedWriterDidNotTake)
{
    const StdoutCapture quiet;
    Folder folder;
    ExternalSink sink;
    Recording rec(sink, (folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE);
    const KeptLog log(folder / "clip.mp4.info");
    SetCaptions(rec.Handle(), MP4_SUBTITLE_CEA608);
    SetTimeCode(rec.Handle());
    sink.FailWrite(1, ENOSPC);
    EXPECT_EQ(Caption(rec.Handle(), kFrame608), 16u);
    EXPECT_EQ(mp4_write_time_code(rec.Handle(), 5), 0u);
    EXPECT_EQ(rec.CloseStatus(), 16u);
    EXPECT_EQ(log.Read(), Hex("10 00000024  06 000003E8 01"
                              "08 00007530 00000000000003E9 1E 00000001  09 00000005"));
}

// The sample is in the file when its packet fails; the log ends, the recording goes on.
TEST(AnInfoPacketThatFails, GivesItsStatusOnce)
{
    for (const bool captions : {true, false}) {
        LogCapture log;
        Folder folder;
        ExternalSink sink;
        mp4_handle file = nullptr;
        const std::wstring path = (folder / "clip.mp4").wstring();
        ASSERT_EQ(mp4_create_file_adv(path.c_str(), MP4_OPEN_INFO_FILE, 0, 0, MP4_IO_EXTERNAL,
                                      sink.Table(), &file),
                  0u);
        SetCaptions(file, MP4_SUBTITLE_CEA608);
        SetTimeCode(file);
        testing::internal::CaptureStdout();
        std::uint32_t calls = 0;
        const auto next = [&] {
            ++calls;
            return captions ? Caption(file, kFrame608, calls) : mp4_write_time_code(file, calls);
        };
        std::uint32_t status = 0;
        {
            const FileSizeLimit limit(100);
            while (status == 0 && calls < 10000)
                status = next();
        }
        EXPECT_EQ(status, FileSizeLimit::kStatus);
        EXPECT_EQ(next(), 0u);
        EXPECT_EQ(mp4_close_file(file), 0u);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(Samples(sink.File(), captions ? "trak.clcp" : "trak.tmcd").size(), calls);
    }
}
