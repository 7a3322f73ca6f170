// What happens when the system gives no memory, or takes no bytes of a file that it opened. The
// linker sends five calls of the library through this file (--wrap), where each can be made to fail:
// realloc, new, the new of a record that may be null, platform::WriteItem and platform::Tell.
#include "Mp4Muxer.h"
#include "Mp4Repair.h"
#include "boxes.h"
#include "support/folder.h"
#include "thrown.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <new>
#include <string>
#include <vector>

namespace {

// The call that fails, as the k-th from now on; 0 for none.
struct Fault {
    explicit Fault(int& counter, int in = 1) : m_counter(counter) { m_counter = in; }
    ~Fault() { m_counter = 0; }
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

private:
    int& m_counter;
};

int g_realloc = 0;
int g_newRecord = 0;
int g_newChunks = 0;
int g_writeItem = 0;
int g_tell = 0;
std::map<std::size_t, int>* g_reallocs = nullptr;  // how often for each size, where that is counted

bool Strikes(int& counter, int error)
{
    if (counter == 0 || --counter != 0)
        return false;
    errno = error;
    return true;
}

}  // namespace

// The names that the linker knows, which tell the types.
#if defined(_WIN32)
#define NEW(prefix) prefix##_Znwy
#define NEW_RECORD(prefix) prefix##_ZnwyRKSt9nothrow_t
#define WRITE_ITEM(prefix) prefix##_ZN8platform9WriteItemEP6_iobufPKvy
#define TELL(prefix) prefix##_ZN8platform4TellEP6_iobuf
#else
#define NEW(prefix) prefix##_Znwm
#define NEW_RECORD(prefix) prefix##_ZnwmRKSt9nothrow_t
#define WRITE_ITEM(prefix) prefix##_ZN8platform9WriteItemEP8_IO_FILEPKvm
#define TELL(prefix) prefix##_ZN8platform4TellEP8_IO_FILE
#endif

extern "C" {
void* __real_realloc(void* data, std::size_t size);
void* NEW(__real_)(std::size_t size);
void* NEW_RECORD(__real_)(std::size_t size, const std::nothrow_t& tag) noexcept;
std::size_t WRITE_ITEM(__real_)(std::FILE* stream, const void* data, std::size_t size);
std::int64_t TELL(__real_)(std::FILE* stream);

void* __wrap_realloc(void* data, std::size_t size)
{
    if (g_reallocs)
        ++(*g_reallocs)[size];
    return Strikes(g_realloc, ENOMEM) ? nullptr : __real_realloc(data, size);
}

// Of the size in which a table takes room for the lengths of its chunks.
void* NEW(__wrap_)(std::size_t size)
{
    if (size == 512 && Strikes(g_newChunks, ENOMEM))
        throw std::bad_alloc();
    return NEW(__real_)(size);
}

void* NEW_RECORD(__wrap_)(std::size_t size, const std::nothrow_t& tag) noexcept
{
    return Strikes(g_newRecord, ENOMEM) ? nullptr : NEW_RECORD(__real_)(size, tag);
}

std::size_t WRITE_ITEM(__wrap_)(std::FILE* stream, const void* data, std::size_t size)
{
    return Strikes(g_writeItem, ENOSPC) ? 0 : WRITE_ITEM(__real_)(stream, data, size);
}

std::int64_t TELL(__wrap_)(std::FILE* stream)
{
    return Strikes(g_tell, EROFS) ? -1 : TELL(__real_)(stream);
}
}

namespace {

using testing::EndsWith;
using testing::HasSubstr;

// A folder that goes with its test.
struct InFolder : testing::Test {
    std::wstring Path() const { return (m_folder / "clip.mp4").wstring(); }

    const kvtest::Folder m_folder;
    CLogLines m_log;
    CMp4Muxer m_muxer;
};

using AFailingDisk = InFolder;
using FailingMemory = InFolder;

const mp4_audio_track_info kAac{48000, 1024, MP4_AUDIO_AAC_RAW, 48000, 2, 2};

}  // namespace

// ---- The pool ------------------------------------------------------------------------------

TEST(PoolWithoutMemory, ForTheDataThrows33AndKeepsTheRecord)
{
    CReadBufferPool pool;
    {
        const Fault fault(g_realloc);
        EXPECT_EQ(CodeOf([&] { pool.GetBuffer(10); }), 33);
    }
    std::list<RefBuffer*> held{pool.GetBuffer(0)};
    EXPECT_EQ(held.front()->capacity, 0u);
    EXPECT_EQ(held.front()->data, nullptr);
    EXPECT_EQ(held.front()->refCount, 1u);
    ReleaseBuffers(held);
}

TEST(PoolWithoutMemory, ToGrowABufferThrows33AndForgetsItsCapacity)
{
    CReadBufferPool pool;
    std::list<RefBuffer*> held{pool.GetBuffer(10)};
    ReleaseBuffers(held);
    {
        const Fault fault(g_realloc);
        EXPECT_EQ(CodeOf([&] { pool.GetBuffer(11); }), 33);
    }
    held = {pool.GetBuffer(5)};
    EXPECT_EQ(held.front()->capacity, 5u);
    ReleaseBuffers(held);
}

TEST(PoolWithoutMemory, ForTheRecordThrows83AndLeavesNoLeak)
{
    std::string printed;
    EXPECT_EQ(CodeOf([] {
        CReadBufferPool pool;
        const Fault fault(g_newRecord);
        pool.GetBuffer(10);
    }, &printed), 83);
    EXPECT_EQ(printed, "");
}

TEST(PoolWithoutMemory, ForTheDataOfAnIdleBufferKeepsItForTheNext)
{
    CReadBufferPool pool;
    std::list<RefBuffer*> held{pool.GetBuffer(10)};
    RefBuffer* const first = held.front();
    ReleaseBuffers(held);
    {
        const Fault fault(g_realloc);
        EXPECT_EQ(CodeOf([&] { pool.GetBuffer(11); }), 33);
    }
    held = {pool.GetBuffer(3)};
    EXPECT_EQ(held.front(), first);
    ReleaseBuffers(held);
}

// ---- Buffers and tables --------------------------------------------------------------------

TEST(ABufferWithoutMemory, ReportsAWriteErrorAndDropsItsStore)
{
    CBufferIO buffer;
    buffer.AttachSink(nullptr);
    buffer.Write("abc", 3);
    std::string printed;
    const Fault fault(g_realloc);
    EXPECT_EQ(CodeOf([&] { buffer.Reserve(2000); }, &printed), ENOMEM);
    EXPECT_THAT(printed, testing::StartsWith("BaseIO : Error - [line "));
    EXPECT_THAT(printed, EndsWith("] Write error Cannot allocate memory !\n\n"));
    EXPECT_EQ(buffer.m_state, kStateFailed);
    EXPECT_EQ(buffer.m_errno, ENOMEM);
    EXPECT_EQ(buffer.Capacity(), 0u);
    EXPECT_EQ(buffer.Tell(), 0);
    EXPECT_EQ(buffer.Data(), nullptr);
    EXPECT_EQ(buffer.Size(), 3u);
}

// 256 sizes fill the first kibibyte.
TEST(ATableWithoutMemory, DropsWhatIsAppendedLater)
{
    On<CMp4StszAtom> on;
    for (int i = 0; i < 256; ++i)
        on.box.AddSample(i);
    EXPECT_EQ(on.Written().size(), 20u + 1024);
    {
        const Fault fault(g_realloc);
        EXPECT_EQ(CodeOf([&] { on.box.AddSample(256); }), ENOMEM);
    }
    // Memory would be there again, but the table takes nothing more.
    EXPECT_EQ(CodeOf([&] { on.box.AddSample(257); }), INT32_MIN);
    EXPECT_EQ(U32At(on.Written(), 16), 256u);
}

TEST(ATableWithoutMemory, LeavesTheOtherTablesOfItsTrackAlone)
{
    On<CMp4AudioStblAtom> on;
    const auto add = [&on](int i) { on.box.AddSample(36, i, 40, 40, i == 0); };
    for (int i = 0; i < 256; ++i)
        add(i);
    {
        const Fault fault(g_realloc);
        EXPECT_EQ(CodeOf([&] { add(256); }), ENOMEM);
    }
    EXPECT_EQ(CodeOf([&] { add(257); }), INT32_MIN);
    const std::string stsc = Find(on.Written(), "stbl/stsc");
    EXPECT_EQ(U32At(stsc, 20), 258u);  // counted ahead of the size that failed
}

// ---- A repair ------------------------------------------------------------------------------

namespace {

using namespace std::string_literals;
using Repair = InFolder;

// The requests for memory of a repair, by their size. The media file is the head of an MP4 file.
std::map<std::size_t, int> RequestsOf(const std::filesystem::path& media,
                                      const std::string& packets)
{
    std::ofstream(media, std::ios::binary) << std::string(44, '\0');
    std::ofstream(media.string() + ".info", std::ios::binary) << "\x10\0\0\0\x24"s << packets;
    std::map<std::size_t, int> requests;
    g_reallocs = &requests;
    testing::internal::CaptureStdout();
    EXPECT_EQ(CMp4Repair().Repair(media.wstring().c_str(), 0), 0u);
    // No line of a leak.
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex(".line .+. Read EOF !\n"));
    g_reallocs = nullptr;
    return requests;
}

}  // namespace

// A blob lives while its packet is applied; the next packet takes its memory. Each has a byte more,
// for an end mark.
TEST_F(Repair, TakesMemoryForTheBlobsOfOnePacketOnly)
{
    const std::string packet = "\1\1\0\0\0\6title\0"s + "\0\0\x30\x39"s + std::string(12345, 'x') +
                               "\0\0\0\0"s;
    std::string packets;
    for (int n = 0; n < 10; ++n)
        packets += packet;
    EXPECT_EQ(RequestsOf(m_folder / "clip.mp4", packets + packet + "\1"s)[12346], 1);
}

// A log or a media file whose size cannot be had is no empty one.
TEST_F(Repair, OfAFileThatHasNoSizeLeavesItAsItIs)
{
    const std::filesystem::path media = m_folder / "clip.mp4";
    std::ofstream(media, std::ios::binary) << std::string(44, 'x');
    std::ofstream(media.string() + ".info", std::ios::binary) << "\x10\0\0\0\x24\0"s;
    for (const int file : {1, 2}) {
        const Fault fault(g_tell, file);
        EXPECT_EQ(CMp4Repair().Repair(media.wstring().c_str(), 1), 17u);
        EXPECT_EQ(std::filesystem::file_size(media), 44u);
        EXPECT_TRUE(std::filesystem::exists(media.string() + ".info"));
    }
}

TEST_F(Repair, OfAnEmptyFileSucceeds)
{
    const std::filesystem::path media = m_folder / "clip.mp4";
    std::ofstream(media, std::ios::binary) << "";
    std::ofstream(media.string() + ".info", std::ios::binary) << "\x10\0\0\0\x24\0"s;
    EXPECT_EQ(CMp4Repair().Repair(media.wstring().c_str(), 0), 0u);
}

// The log ends in a packet: its first blobs are still held then, and are no leak.
TEST_F(Repair, GivesBackTheBlobsOfACutPacket)
{
    const std::string packet = "\1\1\0\0\0\6title\0"s + "\0\0\0\2"s;
    EXPECT_EQ(RequestsOf(m_folder / "clip.mp4", packet)[7], 1);
}

TEST_F(Repair, AsksForNoMemoryThatTheLogCannotFill)
{
    const std::string packet = "\1\1\x7F\xFF\xFF\xF0title"s;
    const auto requests = RequestsOf(m_folder / "clip.mp4", packet);
    EXPECT_TRUE(requests.empty() || requests.rbegin()->first < 100000);
}

// ---- The muxer -----------------------------------------------------------------------------

namespace {

std::string Content(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Frame `i` has 50 or 51 bytes, each `i`.
std::uint32_t WriteFrame(CMp4Muxer& muxer, std::uint32_t i)
{
    const std::vector<std::uint8_t> data(50 + i % 2, static_cast<std::uint8_t>(i));
    return muxer.WriteAudioFrame(
        {static_cast<std::uint32_t>(data.size()), data.data(), std::uint64_t{1024} * i});
}

// The 257th size finds its table full. Its bytes lie in the file where no entry names them.
void RecordWithoutMemory(CMp4Muxer& muxer)
{
    for (std::uint32_t i = 0; i < 256; ++i)
        ASSERT_EQ(WriteFrame(muxer, i), 0u);
    {
        const Fault fault(g_realloc);
        EXPECT_EQ(CodeOf([&] { WriteFrame(muxer, 256); }), ENOMEM);
    }
    EXPECT_EQ(WriteFrame(muxer, 257), 1u);
    EXPECT_EQ(muxer.Close(), 1u);
}

}  // namespace

TEST_F(FailingMemory, OfATableEndsTheRecordingAndKeepsTheLog)
{
    ASSERT_EQ(m_muxer.Create(Path().c_str(), 0, 0, MP4_OPEN_INFO_FILE, MP4_IO_FILE, nullptr), 0u);
    ASSERT_EQ(m_muxer.SetAudioTrack(&kAac), 0u);
    RecordWithoutMemory(m_muxer);

    // The log names 256 samples, of which a repair gives all but the last.
    ASSERT_EQ(CMp4Repair().Repair(Path().c_str(), 0), 0u);
    const std::string file = Content(m_folder / "clip.mp4");
    EXPECT_EQ(U32At(file, file.rfind("stsz") + 12), 255u);
    std::size_t at = U32At(file, file.rfind("stco") + 12);
    for (std::uint32_t i = 0; i < 255; at += 50 + i % 2, ++i)
        ASSERT_EQ(file.substr(at, 50), std::string(50, static_cast<char>(i)));
}

// With neither log nor checkpoint the index as far as it goes is better than none.
TEST_F(FailingMemory, OfATableLeavesTheOtherTracksTheirIndex)
{
    ASSERT_EQ(m_muxer.Create(Path().c_str(), 0, 0, 0, MP4_IO_FILE, nullptr), 0u);
    const mp4_subtitle_track_info captions{MP4_SUBTITLE_CEA608, 1000};
    ASSERT_EQ(m_muxer.SetSubtitleTrack(&captions), 0u);
    ASSERT_EQ(m_muxer.SetAudioTrack(&kAac), 0u);
    const std::uint8_t caption[] = {0x61, 2, 1, 0, 0x94, 0x2C};
    ASSERT_EQ(m_muxer.WriteSubtitleFrame({sizeof caption, caption, 0}), 0u);
    RecordWithoutMemory(m_muxer);

    // "ftyp" and "free" of 28 and 8 bytes, the caption of 10, 256 frames of 50 or 51 and one of 50.
    // The frame of FF begins as an ADTS header does, whose 7 bytes go.
    const std::string file = Content(m_folder / "clip.mp4");
    const std::size_t mdat = 8 + 10 + 128 * 101 - 7 + 50;
    EXPECT_EQ(U32At(file, 36), mdat);
    EXPECT_EQ(file.substr(36 + mdat + 4, 4), "moov");
    const std::size_t track = file.find("c608");
    ASSERT_NE(track, std::string::npos);
    EXPECT_EQ(U32At(file, file.find("stsz", track) + 12), 1u);
    EXPECT_EQ(U32At(file, file.find("stco", track) + 12), 44u);
    EXPECT_EQ(file.substr(44, 10), std::string("\0\0\0\x0A" "cdat\x94\x2C", 10));
}

// Where chunks change with every sample, their lengths find no room before the sizes do.
TEST_F(FailingMemory, OfTheChunksEndsTheRecordingAsWell)
{
    ASSERT_EQ(m_muxer.Create(Path().c_str(), 0, 0, MP4_OPEN_INFO_FILE, MP4_IO_FILE, nullptr), 0u);
    const mp4_time_code_track_info timeCode{25, 1, 25, 0};
    ASSERT_EQ(m_muxer.SetTimeCodeTrack(&timeCode), 0u);
    ASSERT_EQ(m_muxer.SetAudioTrack(&kAac), 0u);
    std::uint32_t i = 0;
    {
        const Fault fault(g_newChunks);
        const auto write = [&] {
            for (; i < 200 && m_muxer.WriteTimeCode(i) == 0u; ++i)
                ASSERT_EQ(WriteFrame(m_muxer, i), 0u);
        };
        EXPECT_THROW(write(), std::bad_alloc);
    }
    EXPECT_LT(i, 200u);
    EXPECT_EQ(WriteFrame(m_muxer, i), 1u);
    EXPECT_EQ(m_muxer.Close(), 1u);
    EXPECT_TRUE(std::filesystem::exists(m_folder / "clip.mp4.info"));
}

// Time codes do not look at the output; its first failure stays what the others answer.
TEST_F(FailingMemory, BehindAnotherFailureDoesNotChangeItsStatus)
{
    ASSERT_EQ(m_muxer.Create(Path().c_str(), 0, 0, 0, MP4_IO_FILE, nullptr), 0u);
    const mp4_time_code_track_info timeCode{25, 1, 25, 0};
    ASSERT_EQ(m_muxer.SetTimeCodeTrack(&timeCode), 0u);
    ASSERT_EQ(m_muxer.SetAudioTrack(&kAac), 0u);
    {
        const Fault fault(g_writeItem);
        CodeOf([&] { EXPECT_EQ(WriteFrame(m_muxer, 0), 16u); });
    }
    {
        const Fault fault(g_realloc);
        EXPECT_EQ(CodeOf([&] { m_muxer.WriteTimeCode(1); }), ENOMEM);
    }
    EXPECT_EQ(WriteFrame(m_muxer, 1), 16u);
    EXPECT_EQ(m_muxer.Close(), 16u);
}

// The second checkpoint describes captions, for which its boxes take memory for the first time.
TEST_F(FailingMemory, InACheckpointEndsTheRecordingAtTheLastOne)
{
    ASSERT_EQ(m_muxer.Create(Path().c_str(), 0, 0, MP4_OPEN_SAFE_MODE, MP4_IO_FILE, nullptr), 0u);
    const mp4_safe_param safe{0, 3000, 3000, 0};
    ASSERT_EQ(m_muxer.SetSafeParam(&safe), 0u);
    ASSERT_EQ(m_muxer.SetAudioTrack(&kAac), 0u);
    const std::string line = "update moov header to ";
    std::uint32_t i = 0;
    for (; m_log.Text().find(line) == std::string::npos; ++i)
        ASSERT_EQ(WriteFrame(m_muxer, i), 0u);
    const std::string before = Content(m_folder / "clip.mp4");
    const std::size_t end = 36 + U32At(before, 36);  // behind "ftyp" and "free"
    const std::string moov = before.substr(end, U32At(before, end));

    const mp4_subtitle_track_info captions{MP4_SUBTITLE_CEA608, 1000};
    ASSERT_EQ(m_muxer.SetSubtitleTrack(&captions), 0u);
    const std::uint8_t malformed[] = {0};
    ASSERT_EQ(m_muxer.WriteSubtitleFrame({1, malformed, 0}), 0u);
    std::int32_t code = INT32_MIN;
    {
        const Fault fault(g_realloc);
        for (; code == INT32_MIN && i < 256; ++i)
            code = CodeOf([&] { WriteFrame(m_muxer, i); });
    }
    EXPECT_EQ(code, ENOMEM);
    EXPECT_NE(m_log.Text().find(line), m_log.Text().rfind(line));
    EXPECT_EQ(WriteFrame(m_muxer, i), 1u);
    EXPECT_EQ(m_muxer.Close(), 1u);
    const std::string file = Content(m_folder / "clip.mp4");
    EXPECT_EQ(36 + U32At(file, 36), end);
    EXPECT_EQ(file.substr(end, moov.size()), moov);
}

TEST_F(AFailingDisk, ThatTakesNoHeaderOfTheLogLeavesNoFile)
{
    const Fault fault(g_writeItem);
    std::uint32_t status = 0;
    EXPECT_EQ(CodeOf([&] {
        status = m_muxer.Create(Path().c_str(), 0, 0, MP4_OPEN_INFO_FILE, MP4_IO_FILE, nullptr);
    }), INT32_MIN);
    EXPECT_EQ(status, 16u);
    EXPECT_TRUE(m_folder.IsEmpty());
    EXPECT_THAT(m_log.Text(), HasSubstr("info Muxer - Close - uninit takes "));
}

// One write for the flags in the log; eight for "ftyp" with its size, two each for "free" and
// "mdat"; and one for the place of mdat in the log.
TEST_F(AFailingDisk, ThatTakesNoHeadOfTheFileLeavesTheOutputAndRemovesTheLog)
{
    for (int writes = 2;; ++writes) {
        const Fault fault(g_writeItem, writes);
        CMp4Muxer muxer;
        std::uint32_t status = 0;
        CodeOf([&] {
            status = muxer.Create(Path().c_str(), 0, 0, MP4_OPEN_INFO_FILE, MP4_IO_FILE, nullptr);
        });
        if (status == 0) {
            EXPECT_EQ(writes, 1 + 8 + 2 + 2 + 1 + 1);
            muxer.Close();
            break;
        }
        EXPECT_EQ(status, 16u);
        EXPECT_TRUE(std::filesystem::exists(m_folder / "clip.mp4"));
        EXPECT_FALSE(std::filesystem::exists(m_folder / "clip.mp4.info"));
    }
}
