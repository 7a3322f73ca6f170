// The frame paths at their edges: odd frames, writes that fail, checkpoints for frames that are not
// stored, and an info file that ends on the way.
#include "support/external_sink.h"
#include "support/file_size_limit.h"
#include "support/recording.h"
#include "support/samples.h"
#include "support/throwing_writes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

using namespace kvtest;
using testing::ElementsAre;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kVideo = "moov/trak.vide/mdia/minf/stbl/";
const Bytes kTwoUnits = Hex("00 00 01 09 F0  00 00 01 65 11 22");  // a sample of 13 bytes
const Bytes kAdts = Hex("FF F1 4C 80 01 1F FC  AA BB CC");

}  // namespace

// ---- What a frame holds ----------------------------------------------------------------------

// One zero goes with the second start code, one stays; a start code at the very end is data.
TEST(AVideoFrame, LosesWhatIsAheadOfItsFirstStartCodeAndNoOtherByte)
{
    Recording rec;
    rec.SetH264();
    EXPECT_EQ(rec.Video(Hex("AA BB CC  00 00 01 65 11  00 00 00 00 01 41 22  00 00 01"), 0), 0u);
    EXPECT_EQ(rec.Video(Hex("00 00 00 01 41 33 00 00 00"), 40), 0u);
    EXPECT_THAT(Samples(rec.Close(), "trak.vide"),
                ElementsAre(Hex("00000003 65 11 00  00000005 41 22 00 00 01"),
                            Hex("00000005 41 33 00 00 00")));
}

TEST(ALengthPrefixedFrame, DoesNotParseUnlessItHoldsAStartCode)
{
    Recording rec;
    rec.SetH264();
    EXPECT_EQ(rec.Video(Hex("00000005 65 11 22 33 44"), 0), 8u);
    EXPECT_EQ(rec.Video(Hex("00000105 65 11 22 33 44"), 0), 0u);
    EXPECT_THAT(Samples(rec.Close(), "trak.vide"), ElementsAre(Hex("00000006 05 65 11 22 33 44")));
}

// Of IDR_W_RADL, TRAIL_R, IDR_N_LP, CRA and the three BLA only the IDR are sync samples.
TEST(AnHevcFrame, IsASyncSampleOnlyByAnIdr)
{
    Recording rec;
    rec.SetHevc();
    std::uint64_t time = 0;
    for (const int type : {19, 1, 20, 21, 16, 17, 18})
        EXPECT_EQ(rec.Video(Unit(static_cast<std::uint8_t>(type << 1)), time += 40), 0u);
    EXPECT_EQ(Words(rec.Close().Box(kVideo + "stss"), 12), (Numbers{2, 1, 3}));
}

TEST(AVideoFrame, IsASyncSampleByOneIdrAnywhere)
{
    Recording rec;
    rec.SetH264();
    rec.Video(Unit(0x41), 0);
    rec.Video(Unit(0x06) + Unit(0x41) + Unit(0x65) + Unit(0x41), 40);
    EXPECT_EQ(Words(rec.Close().Box(kVideo + "stss"), 12), (Numbers{1, 2}));
}

TEST(AProResFrame, NeedsNoStartCodeAndGetsNoLength)
{
    Recording rec("clip.mov");
    ASSERT_EQ(rec.SetProRes(MP4_PRORES_422), 0u);
    EXPECT_EQ(rec.Video(Hex("00 00 01 65"), 0), 0u);
    EXPECT_EQ(rec.Video(Hex("07"), 40), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.vide"), ElementsAre(Hex("00 00 01 65"), Hex("07")));
    EXPECT_EQ(Words(file.Box(kVideo + "stss"), 12), (Numbers{2, 1, 2}));
}

// The bytes go out from the caller's buffer; nothing is gathered or copied before.
TEST(AFrame, GoesOutInAsFewWritesAsItHasParts)
{
    ExternalSink sink;
    Recording rec(sink);
    rec.SetH264();
    rec.SetAac();
    sink.ForgetCalls();
    rec.Video(kTwoUnits, 0);
    EXPECT_THAT(sink.Calls(), ElementsAre("write 4", "write 2", "write 4", "write 3"));
    sink.ForgetCalls();
    rec.Video(Hex("00 00 01  00 00 01 65"), 40);  // a unit of no bytes has only its length
    EXPECT_THAT(sink.Calls(), ElementsAre("write 4", "write 4", "write 1"));
    sink.ForgetCalls();
    rec.Audio(kAdts, 0);
    EXPECT_THAT(sink.Calls(), ElementsAre("write 3"));
    rec.SetProRes(MP4_PRORES_422);
    sink.ForgetCalls();
    rec.Video(Bytes(50, 9), 80);
    EXPECT_THAT(sink.Calls(), ElementsAre("write 50"));
}

TEST(Times, GiveTheLow32BitsOfTheirDifference)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({0, 0x1'0000'0005, 0x3'0000'000A});
    EXPECT_EQ(Words(rec.Close().Box(kVideo + "stts"), 12), (Numbers{1, 3, 5}));
}

// ---- Frames that find no track ---------------------------------------------------------------

TEST(ABadCodec, TakesTheParserAwayFromH264)
{
    Recording rec;
    rec.SetH264();
    rec.FramesAt({0});
    mp4_video_track_info info{};
    info.codec = 3;
    EXPECT_EQ(mp4_set_video_track(rec.Handle(), &info), 5u);
    EXPECT_EQ(rec.Video(Unit(0x65), 40), 9u);
    EXPECT_EQ(rec.Video(Bytes(20, 7), 40), 8u);
    rec.SetH264();
    EXPECT_EQ(rec.Video(Unit(0x65), 80), 0u);
}

TEST(AFileWithoutAnOutput, AnswersEveryFrameWith19)
{
    LogCapture log;
    mp4_handle file = nullptr;
    ASSERT_EQ(mp4_create_file_adv(L"clip.mp4", 0, 0, 0, 3, nullptr, &file), 0u);
    EXPECT_EQ(mp4_write_video_frame(file, kTwoUnits.data(), 11, 0), 19u);
    EXPECT_EQ(mp4_write_video_frame(file, nullptr, 0, 0), 19u);
    EXPECT_EQ(mp4_write_audio_frame(file, kAdts.data(), 10, 0), 19u);
    EXPECT_EQ(mp4_write_audio_frame(file, nullptr, 0, 0), 19u);
    EXPECT_EQ(log.Count("error file not open!"), 4u);
    EXPECT_EQ(mp4_close_file(file), 0u);
}

// ---- Writes that fail ------------------------------------------------------------------------

namespace {

const std::pair<int, std::uint32_t> kStatuses[] = {
    {EPERM, 11}, {ENOENT, 12}, {EACCES, 13}, {EBUSY, 14}, {EMFILE, 15},
    {ENOSPC, 16}, {EROFS, 17}, {EIO, 1},    {1000, 0}};

}  // namespace

// Two units are four writes.
TEST(AVideoWriteThatFails, GivesItsStatusAndEntersNoSample)
{
    for (std::size_t write = 1; write <= 4; ++write) {
        const StdoutCapture out;
        ExternalSink sink;
        Recording rec(sink);
        rec.SetH264();
        const std::uint32_t before = mp4_get_moov_size(rec.Handle());
        sink.FailWrite(write, ENOSPC);
        EXPECT_EQ(rec.Video(kTwoUnits, 0), 16u);
        EXPECT_EQ(mp4_get_moov_size(rec.Handle()), before);
        EXPECT_EQ(rec.Log().Count("error exception when write file"), 0u);
        EXPECT_EQ(rec.Video({}, 40), 16u);  // all later calls answer alike
        EXPECT_EQ(rec.Audio({}, 40), 16u);
        EXPECT_EQ(rec.CloseStatus(), 16u);
    }
}

TEST(AWriteThatFails, HasTheStatusOfItsErrno)
{
    for (const auto& [error, status] : kStatuses) {
        for (const bool video : {true, false}) {
            const StdoutCapture out;
            ExternalSink sink;
            Recording rec(sink);
            rec.SetH264();
            rec.SetAac();
            sink.FailWrite(1, error);
            EXPECT_EQ(video ? rec.Video(kTwoUnits, 0) : rec.Audio(kAdts, 0), status);
        }
    }
}

// The writer did not fail. What was written stays in mdat, and the next sample is entered where the
// lost one began.
TEST(AVideoWriteThatThrowsAnythingElse, Gives1AndEntersNoSample)
{
    for (int good = 0; good < 4; ++good) {
        ExternalSink sink;
        Recording rec(sink);
        rec.SetH264();
        {
            const ThrowingWrites throwing(sink, good);
            EXPECT_EQ(rec.Video(kTwoUnits, 0), 1u);
        }
        EXPECT_EQ(rec.Log().Count("error exception when write file"), 1u);
        EXPECT_EQ(rec.Video(Unit(0x65), 40), 0u);
        const BoxFile file = rec.Close();
        EXPECT_EQ(Words(file.Box(kVideo + "stco"), 12), (Numbers{1, 44}));
        EXPECT_EQ(Words(file.Box(kVideo + "stsz"), 12), (Numbers{14, 1}));
        const std::size_t written[] = {0, 4, 6, 10};
        EXPECT_EQ(file.Box("mdat").size(), 8 + written[good] + 14);
    }
}

// The write of a picture stands outside the guarded stretch, and the writer did not fail.
TEST(AProResWriteThatThrowsAnythingElse, LeavesTheCallAsItIs)
{
    ExternalSink sink;
    Recording rec(sink);
    ASSERT_EQ(rec.SetProRes(MP4_PRORES_422), 0u);
    {
        const ThrowingWrites throwing(sink, 0);
        EXPECT_THROW(rec.Video(Bytes(50, 9), 0), std::runtime_error);
    }
    EXPECT_EQ(rec.Log().Count("error exception when write file"), 0u);
    EXPECT_EQ(rec.Video(Bytes(40, 9), 40), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kVideo + "stsz"), 12), (Numbers{40, 1}));
    EXPECT_EQ(Words(file.Box(kVideo + "stco"), 12), (Numbers{1, 44}));
}

TEST(AWriteThatThrowsAnythingElse, LocksNoOtherThreadOut)
{
    for (const bool video : {true, false}) {
        ExternalSink sink;
        Recording rec(sink);
        rec.SetH264();
        rec.SetAac();
        {
            const ThrowingWrites throwing(sink, 0);
            EXPECT_EQ(video ? rec.Video(kTwoUnits, 0) : rec.Audio(kAdts, 0), 1u);
        }
        std::uint32_t later = 99;
        std::thread([&] {
            later = video ? rec.Video(Unit(0x65), 40) : rec.Audio(kAdts, 40);
        }).join();
        EXPECT_EQ(later, 0u);
    }
}

TEST(AnAudioWriteThatFails, GivesItsStatusAndEntersNoSample)
{
    const StdoutCapture out;
    ExternalSink sink;
    Recording rec(sink);
    rec.SetAac();
    const std::uint32_t before = mp4_get_moov_size(rec.Handle());
    sink.FailWrite(1, ENOSPC);
    EXPECT_EQ(rec.Audio(kAdts, 0), 16u);
    EXPECT_EQ(mp4_get_moov_size(rec.Handle()), before);
    EXPECT_EQ(rec.Log().Count("error write buffer exception, buffer size 3"), 0u);
    EXPECT_EQ(rec.Audio({}, 21), 16u);
    EXPECT_EQ(rec.CloseStatus(), 16u);
}

TEST(AnAudioWriteThatThrowsAnythingElse, Gives1AndTellsTheSizeWithoutTheHeader)
{
    ExternalSink sink;
    Recording rec(sink);
    rec.SetAac();
    {
        const ThrowingWrites throwing(sink, 0);
        EXPECT_EQ(rec.Audio(kAdts, 0), 1u);
    }
    EXPECT_EQ(rec.Log().Count("error write buffer exception, buffer size 3"), 1u);
    EXPECT_EQ(rec.Audio(Hex("01 02 03 04"), 21), 0u);
    EXPECT_THAT(Samples(rec.Close(), "trak.soun"), ElementsAre(Hex("01 02 03 04")));
}

// The header was read before the write: no later frame is held to the test.
TEST(AnAdtsTrack, StaysSetWhenTheWriteOfItsFirstFrameFails)
{
    ExternalSink sink;
    Recording rec(sink);
    rec.SetAdts();
    {
        const ThrowingWrites throwing(sink, 0);
        EXPECT_EQ(rec.Audio(kAdts, 0), 1u);
    }
    EXPECT_EQ(rec.Audio(Hex("01 02"), 21), 0u);
    EXPECT_EQ(rec.Log().Count("info ADTS stream, get and set audio track"), 1u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.soun"), ElementsAre(Hex("01 02")));
    EXPECT_EQ(Words(file.Box("moov/trak.soun/tkhd"), 20).at(0), 1u);
}

// ---- Checkpoints -----------------------------------------------------------------------------

namespace {

// The first checkpoint comes behind so many bytes of data.
void CheckpointAfter(Recording& rec, std::uint32_t bytes)
{
    const mp4_safe_param params{0, 44 + bytes, 0, 0};  // fixed distances
    EXPECT_EQ(mp4_set_safe_param(rec.Handle(), &params), 0u);
}

bool Checkpointed(Recording& rec)
{
    for (const std::string& line : rec.Log().Lines())
        if (line.starts_with("info update moov header to "))
            return true;
    return false;
}

}  // namespace

// Twice the frame's size: an ADTS header counts, the lengths of units do not.
TEST(ACheckpoint, GoesByTheSizeOfTheFrameAsItComes)
{
    for (const bool room : {true, false}) {
        Recording video("clip.mp4", MP4_OPEN_SAFE_MODE);
        video.SetH264();
        CheckpointAfter(video, room ? 22 : 21);
        EXPECT_EQ(video.Video(kTwoUnits, 0), 0u);
        EXPECT_EQ(Checkpointed(video), !room);

        Recording audio("clip.mp4", MP4_OPEN_SAFE_MODE);
        audio.SetAdts();
        CheckpointAfter(audio, room ? 20 : 19);
        EXPECT_EQ(audio.Audio(kAdts, 0), 0u);
        EXPECT_EQ(Checkpointed(audio), !room);
    }
}

// A frame that failed left 10 bytes behind, 54 in all: twice 11 more do not fit into 70.
TEST(ACheckpoint, GoesByWhereTheFileStandsAndNotByTheSamples)
{
    ExternalSink sink;
    Recording rec(sink, "clip.mp4", MP4_OPEN_SAFE_MODE);
    rec.SetH264();
    CheckpointAfter(rec, 26);  // at 44 there is room for 22
    {
        const ThrowingWrites throwing(sink, 3);
        EXPECT_EQ(rec.Video(kTwoUnits, 0), 1u);
    }
    EXPECT_FALSE(Checkpointed(rec));
    EXPECT_EQ(sink.Data().size(), 54u);
    EXPECT_EQ(rec.Video(kTwoUnits, 40), 0u);
    EXPECT_EQ(rec.Log().Count("info update moov header to 124"), 1u);
}

TEST(ACheckpoint, ComesAlsoForAFrameThatIsThenDropped)
{
    Recording video("clip.mp4", MP4_OPEN_SAFE_MODE);
    const mp4_video_track_info info{};
    EXPECT_EQ(mp4_set_video_track(video.Handle(), &info), 0u);
    CheckpointAfter(video, 10);
    EXPECT_EQ(video.Video(kTwoUnits, 0), 0u);
    EXPECT_EQ(video.Log().Lines().back(), "warning no codec data, drop frame");
    EXPECT_TRUE(Checkpointed(video));

    Recording audio("clip.mp4", MP4_OPEN_SAFE_MODE);
    audio.SetAdts();
    CheckpointAfter(audio, 10);
    EXPECT_EQ(audio.Audio(Bytes(20, 1), 0), 7u);
    EXPECT_TRUE(Checkpointed(audio));
}

TEST(ACheckpoint, DoesNotComeForAFrameThatIsRefusedBeforeIt)
{
    Recording rec("clip.mp4", MP4_OPEN_SAFE_MODE);
    CheckpointAfter(rec, 10);
    EXPECT_EQ(rec.Video(Unit(0x65, 100), 0), 9u);
    EXPECT_EQ(rec.Video(Bytes(100, 7), 0), 8u);
    EXPECT_EQ(mp4_write_video_frame(rec.Handle(), nullptr, 100, 0), 0u);
    EXPECT_EQ(mp4_write_audio_frame(rec.Handle(), nullptr, 100, 0), 0u);
    EXPECT_FALSE(Checkpointed(rec));
    rec.SetH264();
    EXPECT_EQ(rec.Video(Unit(0x65, 100), 0), 0u);
    EXPECT_TRUE(Checkpointed(rec));
}

// It stands before the guarded stretch. The locks are free again for other threads.
TEST(ACheckpointThatFails, LeavesTheFrameAsAnException)
{
    for (const bool video : {true, false}) {
        const StdoutCapture out;
        ExternalSink sink;
        Recording rec(sink, "clip.mp4", MP4_OPEN_SAFE_MODE);
        rec.SetH264();
        rec.SetAac();
        CheckpointAfter(rec, 10);
        sink.FailWrite(1, ENOSPC);
        std::int32_t code = 0;
        try {
            video ? rec.Video(kTwoUnits, 0) : rec.Audio(kAdts, 0);
        } catch (const kv_mp4_exception& error) {
            code = error.code;
        }
        EXPECT_EQ(code, ENOSPC);
        std::uint32_t later = 0;
        std::thread([&] { later = rec.Video(kTwoUnits, 40); }).join();
        EXPECT_EQ(later, 16u);
        EXPECT_EQ(rec.CloseStatus(), 16u);
    }
}

// ---- The info file ---------------------------------------------------------------------------

namespace {

// A file in memory whose log is on disk and cannot grow: what leaves the stream's buffer fails.
class FileWithFullLog {
public:
    FileWithFullLog() : FileWithFullLog(Fitting()) {}
    Recording* operator->() { return &m_rec; }

    // Fills the buffer with packets of five bytes until no further one fits.
    void Fill()
    {
        for (std::uint32_t n = 0; n < m_fitting; ++n)
            EXPECT_EQ(mp4_write_time_code(m_rec.Handle(), n), 0u);
    }

private:
    explicit FileWithFullLog(std::uint32_t fitting) : m_fitting(fitting) {}

    // How many fit, found out once.
    static std::uint32_t Fitting()
    {
        static const std::uint32_t fitting = [] {
            FileWithFullLog file(0);
            std::uint32_t count = 0;
            while (count < 100000 && mp4_write_time_code(file->Handle(), count) == 0)
                ++count;
            return count;
        }();
        return fitting;
    }

    std::uint32_t m_fitting;
    StdoutCapture m_out;
    Folder m_folder;
    ExternalSink m_sink;
    Recording m_rec{m_sink, (m_folder / "clip.mp4").string(), MP4_OPEN_INFO_FILE};
    FileSizeLimit m_limit{100};
};

}  // namespace

// The sample is stored when its packet fails; the log ends, the recording goes on.
TEST(AFramesPacketThatFails, GivesItsStatusOnce)
{
    for (const bool video : {true, false}) {
        FileWithFullLog file;
        file->SetH264();
        file->SetAac();
        std::uint32_t calls = 0;
        const auto next = [&] {
            ++calls;
            return video ? file->Video(kTwoUnits, calls) : file->Audio(kAdts, calls);
        };
        std::uint32_t status = 0;
        while (status == 0 && calls < 800)  // fewer than make the log flush
            status = next();
        EXPECT_EQ(status, FileSizeLimit::kStatus);
        EXPECT_EQ(next(), 0u);
        EXPECT_EQ(Samples(file->Close(), video ? "trak.vide" : "trak.soun").size(), calls);
    }
}

// The frame goes, the next one describes the track again, and one id is lost.
TEST(AnAdtsTracksPacketThatFails, EndsTheCallAndIsTriedAgain)
{
    FileWithFullLog file;
    file->SetAdts();
    file.Fill();
    EXPECT_EQ(file->Audio(kAdts, 0), FileSizeLimit::kStatus);
    EXPECT_EQ(file->Audio(kAdts, 21), 0u);
    EXPECT_EQ(file->Log().Count("info ADTS stream, get and set audio track"), 2u);
    const BoxFile media = file->Close();
    EXPECT_EQ(Samples(media, "trak.soun").size(), 1u);
    EXPECT_EQ(Words(media.Box("moov/trak.soun/tkhd"), 20).at(0), 2u);
}

TEST(AFoundTracksPacketThatFails, DropsNoFrame)
{
    FileWithFullLog file;
    const mp4_video_track_info info{};
    EXPECT_EQ(mp4_set_video_track(file->Handle(), &info), 0u);
    file.Fill();
    const Bytes code = Hex("00 00 01");
    EXPECT_EQ(file->Video(code + Sps() + code + Pps() + Unit(0x65), 0), 0u);
    EXPECT_EQ(file->Video(Unit(0x65), 40), 0u);
    const BoxFile media = file->Close();
    EXPECT_EQ(Samples(media, "trak.vide").size(), 2u);
    EXPECT_EQ(Words(media.Box("moov/trak.vide/tkhd"), 20).at(0), 1u);
}

TEST(ASetTracksPacketThatFails, GivesItsStatusAndLeavesTheTrackSet)
{
    FileWithFullLog file;
    file.Fill();
    EXPECT_EQ(file->SetH264(), FileSizeLimit::kStatus);
    EXPECT_EQ(file->Video(kTwoUnits, 0), 0u);
    EXPECT_EQ(Samples(file->Close(), "trak.vide").size(), 1u);
}
