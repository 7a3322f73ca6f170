#include "BaseIO.h"
#include "support/full_file.h"
#include "support/folder.h"
#include "thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

class InFolder : public testing::Test {
protected:
    std::wstring Path(const std::string& name) const { return (m_folder / name).wstring(); }
    std::string Content(const std::string& name) const
    {
        std::ifstream in(m_folder / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void Put(const std::string& name, const std::string& content) const
    {
        std::ofstream(m_folder / name, std::ios::binary) << content;
    }

    const kvtest::Folder m_folder;
};

using FileWriter = InFolder;
using AppendFileWriter = InFolder;

}  // namespace

// ---- ErrorFromErrno --------------------------------------------------------------------------

TEST(ErrorFromErrno, MapsTheSevenRows)
{
    EXPECT_EQ(ErrorFromErrno(1), 11u);
    EXPECT_EQ(ErrorFromErrno(2), 12u);
    EXPECT_EQ(ErrorFromErrno(13), 13u);
    EXPECT_EQ(ErrorFromErrno(16), 14u);
    EXPECT_EQ(ErrorFromErrno(24), 15u);
    EXPECT_EQ(ErrorFromErrno(28), 16u);
    EXPECT_EQ(ErrorFromErrno(30), 17u);
}

TEST(ErrorFromErrno, MapsTheEndOfDataToSuccess)
{
    EXPECT_EQ(ErrorFromErrno(1000), 0u);
}

TEST(ErrorFromErrno, MapsEverythingElseToFailed)
{
    for (const std::int32_t error : {0, 3, 5, 12, 14, 22, 27, 29, 31, 999, 1001, -1})
        EXPECT_EQ(ErrorFromErrno(error), 1u) << error;
}

// ---- CFileWriter -----------------------------------------------------------------------------

TEST_F(FileWriter, StateRunsFromClosedToOpenToClosed)
{
    CFileWriter writer;
    EXPECT_EQ(writer.m_state, 0);
    EXPECT_EQ(writer.Init(Path("a").c_str(), 4096, 32), 0u);
    EXPECT_EQ(writer.m_state, -1);
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(writer.m_state, 0);
}

TEST_F(FileWriter, TruncatesWhatWasThere)
{
    Put("a", "old content");
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    writer.Write("new", 3);
    writer.Close();
    EXPECT_EQ(Content("a"), "new");
}

TEST_F(FileWriter, SeeksBackAndOverwrites)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    writer.Write("abcdef", 6);
    writer.Seek(1, kSeekStart);
    writer.Write("XY", 2);
    EXPECT_EQ(writer.Tell(), 3);
    writer.Seek(0, kSeekEnd);
    EXPECT_EQ(writer.Tell(), 6);
    writer.Close();
    EXPECT_EQ(Content("a"), "aXYdef");
}

TEST_F(FileWriter, FlushHandsTheBytesToTheSystem)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    writer.Write("abc", 3);
    EXPECT_EQ(Content("a"), "");
    writer.Flush();
    EXPECT_EQ(Content("a"), "abc");
}

TEST_F(FileWriter, AWriteOfZeroBytesFails)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    errno = ENOSPC;
    std::string line;
    EXPECT_EQ(CodeOf([&] { writer.Write("", 0); }, &line), ENOSPC);
    EXPECT_THAT(line, HasSubstr("Write error No space left"));
    EXPECT_EQ(writer.m_state, 1);
    EXPECT_EQ(writer.m_errno, ENOSPC);
}

TEST_F(FileWriter, AReadOfZeroBytesFails)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    char byte = 0;
    std::string line;
    EXPECT_NE(CodeOf([&] { writer.Read(&byte, 0); }, &line), INT32_MIN);
    EXPECT_THAT(line, EndsWith("] Read EOF !\n"));
    EXPECT_EQ(writer.m_state, 1);
}

TEST(FullDevice, AFailedFlushReportsAWriteError)
{
    const kvtest::FullFile full;
    CFileWriter writer;
    ASSERT_EQ(writer.Init(full.Path().c_str(), 0, 0), 0u);
    std::string line;
    EXPECT_EQ(CodeOf([&] {
        writer.Write("abc", 3);  // here: the capture of the line flushes every stream of the process
        writer.Flush();
    }, &line), ENOSPC);
    EXPECT_THAT(line, HasSubstr("BaseIO : Error - [line "));
    EXPECT_THAT(line, EndsWith("] Write error No space left on device !\n\n"));
    EXPECT_EQ(writer.m_errno, ENOSPC);
}

TEST_F(FileWriter, AFailedSeekReportsASeekError)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    std::string line;
    EXPECT_EQ(CodeOf([&] { writer.Seek(-1, kSeekStart); }, &line), EINVAL);
    EXPECT_THAT(line, EndsWith("] Seek error Invalid argument !\n\n"));
    EXPECT_EQ(writer.m_state, 1);
}

TEST_F(FileWriter, ClosingTwiceOrUnopenedIsHarmless)
{
    CFileWriter writer;
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(writer.m_state, 0);
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    EXPECT_TRUE(writer.Close());
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(writer.m_state, 0);
}

TEST_F(FileWriter, WithoutAStreamIsAtZeroAndSeeksAndFlushesNothing)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    writer.Write("abc", 3);
    EXPECT_EQ(writer.Tell(), 3);
    writer.Close();
    EXPECT_EQ(writer.Tell(), 0);
    writer.Seek(-1, kSeekStart);
    writer.Flush();
    EXPECT_EQ(writer.m_state, 0);
}

TEST_F(FileWriter, OpenFailuresGiveTheStatusOfErrnoAndStayClosed)
{
    CFileWriter writer;
    EXPECT_EQ(writer.Init(Path("none/a").c_str(), 0, 0), 12u);
    EXPECT_EQ(writer.Init(Path("").c_str(), 0, 0), kvtest::kFolderStatus);
    EXPECT_EQ(writer.m_state, 0);
}

// The callers do: after a failure they skip their writes.
TEST_F(FileWriter, TakesAWriteInAnyState)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    EXPECT_EQ(CodeOf([&] { writer.Seek(-1, kSeekStart); }), EINVAL);
    EXPECT_NO_THROW(writer.Write("a", 1));
    EXPECT_EQ(writer.m_state, 1);
    writer.Close();
    EXPECT_EQ(Content("a"), "a");
}

TEST_F(AppendFileWriter, TakesAReadInAnyState)
{
    Put("a", "abc");
    CAppendFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    EXPECT_EQ(CodeOf([&] { writer.Seek(-1, kSeekStart); }), EINVAL);
    char byte = 0;
    EXPECT_NO_THROW(writer.Read(&byte, 1));
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(writer.m_state, 1);
}

TEST_F(FileWriter, DestructionClosesTheStreamWithAllItsBytes)
{
    {
        CFileWriter writer;
        ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
        writer.Write("abc", 3);
    }
    EXPECT_EQ(Content("a"), "abc");
}

TEST_F(FileWriter, IsLocal)
{
    CFileWriter writer;
    EXPECT_TRUE(writer.IsLocal());
}

TEST_F(AppendFileWriter, IsLocal)
{
    CAppendFileWriter writer;
    EXPECT_TRUE(writer.IsLocal());
}

// ---- CAppendFileWriter -----------------------------------------------------------------------

TEST_F(AppendFileWriter, UpdatesInPlaceFromTheStart)
{
    Put("a", "abcdef");
    CAppendFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    EXPECT_EQ(writer.Tell(), 0);
    writer.Write("X", 1);
    writer.Close();
    EXPECT_EQ(Content("a"), "Xbcdef");
}

TEST_F(AppendFileWriter, ReadsWhatIsThere)
{
    Put("a", "abcdef");
    CAppendFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    char two[2];
    writer.Read(two, 2);
    EXPECT_THAT(two, ElementsAre('a', 'b'));
}

TEST_F(AppendFileWriter, AMissingFileIsNotFound)
{
    CAppendFileWriter writer;
    EXPECT_EQ(writer.Init(Path("none").c_str(), 0, 0), 12u);
    EXPECT_EQ(writer.m_state, 0);
    EXPECT_FALSE(fs::exists(m_folder / "none"));
}

// ---- ExternalWriter --------------------------------------------------------------------------

namespace {

// The callbacks' shared record; the context is its address.
struct Calls {
    std::vector<std::string> names;
    bool opens = true;
    std::int32_t result = 1;
    std::wstring path;
    std::uint32_t blockSize = 0;
    std::uint32_t blockCount = 0;
    std::vector<std::uint32_t> sizes;  // of the reads and writes
    void* buffer = nullptr;            // of the last read
};
Calls* g_calls = nullptr;

ExternalIoFuncs Table()
{
    ExternalIoFuncs funcs{};
    funcs.open = [](void** context, const wchar_t* path, std::uint32_t size,
                    std::uint32_t count) -> std::uint8_t {
        *context = g_calls;
        g_calls->path = path;
        g_calls->blockSize = size;
        g_calls->blockCount = count;
        g_calls->names.push_back("open");
        return g_calls->opens ? 2 : 0;  // any non-zero byte is success
    };
    const auto log = [](void* context, const char* name) {
        static_cast<Calls*>(context)->names.push_back(name);
    };
    static const auto s_log = log;
    funcs.close = [](void* c) { s_log(c, "close"); };
    funcs.tell = [](void* c) -> std::int64_t {
        s_log(c, "tell");
        return 1LL << 40;
    };
    funcs.seek = [](void* c, std::int64_t, std::int32_t) { s_log(c, "seek"); };
    funcs.flush = [](void* c) { s_log(c, "flush"); };
    // Fills the buffer with 1, 2, 3 ...
    funcs.read = [](void* c, void* buffer, std::uint32_t size) {
        s_log(c, "read");
        Calls& calls = *static_cast<Calls*>(c);
        calls.sizes.push_back(size);
        calls.buffer = buffer;
        std::iota(static_cast<char*>(buffer), static_cast<char*>(buffer) + size, char{1});
        return calls.result;
    };
    funcs.write = [](void* c, const void*, std::uint32_t size) {
        s_log(c, "write");
        static_cast<Calls*>(c)->sizes.push_back(size);
        return static_cast<Calls*>(c)->result;
    };
    return funcs;
}

class External : public testing::Test {
protected:
    External() { g_calls = &m_calls; }
    Calls m_calls;
    ExternalIoFuncs m_table = Table();
};

}  // namespace

TEST_F(External, InitWithoutATableIsABadArgument)
{
    ExternalWriter writer(nullptr);
    EXPECT_EQ(writer.Init(L"p", 1, 2), 4u);
    EXPECT_EQ(writer.m_state, 0);
}

TEST_F(External, ARefusedOpenGives18)
{
    m_calls.opens = false;
    ExternalWriter writer(&m_table);
    EXPECT_EQ(writer.Init(L"p", 1, 2), 18u);
    EXPECT_EQ(writer.m_state, 0);
}

TEST_F(External, OpenGetsPathAndBothIntegers)
{
    ExternalWriter writer(&m_table);
    EXPECT_EQ(writer.Init(L"p\u00e4th", 4096, 32), 0u);
    EXPECT_EQ(m_calls.path, L"p\u00e4th");
    EXPECT_EQ(m_calls.blockSize, 4096u);
    EXPECT_EQ(m_calls.blockCount, 32u);
    EXPECT_EQ(writer.m_state, -1);
    EXPECT_FALSE(writer.IsLocal());
}

TEST_F(External, EveryOperationIsForwarded)
{
    ExternalWriter writer(&m_table);
    ASSERT_EQ(writer.Init(L"p", 0, 0), 0u);
    EXPECT_EQ(writer.Tell(), 1LL << 40);
    writer.Seek(5, kSeekStart);
    writer.Flush();
    char byte = 0;
    writer.Read(&byte, 1);
    writer.Write(&byte, 1);
    EXPECT_THAT(m_calls.names, ElementsAre("open", "tell", "seek", "flush", "read", "write"));
}

TEST_F(External, AReadFillsTheCallersOwnBuffer)
{
    ExternalWriter writer(&m_table);
    ASSERT_EQ(writer.Init(L"p", 0, 0), 0u);
    char three[4] = {};
    writer.Read(three, 3);
    EXPECT_EQ(m_calls.buffer, three);
    EXPECT_THAT(m_calls.sizes, ElementsAre(3u));
    EXPECT_THAT(three, ElementsAre(1, 2, 3, 0));
}

TEST_F(External, ABigEndianNumberIsOneCall)
{
    ExternalWriter writer(&m_table);
    ASSERT_EQ(writer.Init(L"p", 0, 0), 0u);
    WriteBE32(&writer, 1);
    WriteBE64(&writer, 1);
    EXPECT_EQ(ReadBE32(&writer), 0x01020304u);
    EXPECT_EQ(ReadBE64(&writer), 0x0102030405060708u);
    EXPECT_THAT(m_calls.names, ElementsAre("open", "write", "write", "read", "read"));
    EXPECT_THAT(m_calls.sizes, ElementsAre(4u, 8u, 4u, 8u));
}

TEST_F(External, CloseReachesTheCallerOnce)
{
    ExternalWriter writer(&m_table);
    ASSERT_EQ(writer.Init(L"p", 0, 0), 0u);
    EXPECT_TRUE(writer.Close());
    EXPECT_TRUE(writer.Close());
    EXPECT_THAT(m_calls.names, ElementsAre("open", "close"));
    EXPECT_EQ(writer.Tell(), 0);
}

TEST_F(External, DestructionDoesNotClose)
{
    {
        ExternalWriter writer(&m_table);
        ASSERT_EQ(writer.Init(L"p", 0, 0), 0u);
    }
    EXPECT_THAT(m_calls.names, ElementsAre("open"));
}

TEST_F(External, AFailedWritePrintsTheLineOfARead)
{
    ExternalWriter writer(&m_table);
    ASSERT_EQ(writer.Init(L"p", 0, 0), 0u);
    m_calls.result = 2;  // only exactly 1 is success
    errno = EROFS;
    std::string line;
    EXPECT_EQ(CodeOf([&] { writer.Write("x", 1); }, &line), EROFS);
    EXPECT_THAT(line, testing::StartsWith("[line "));
    EXPECT_THAT(line, EndsWith("] Read EOF !\n"));
    EXPECT_EQ(writer.m_state, 1);
    EXPECT_EQ(writer.m_errno, EROFS);
}

TEST_F(External, AFailedReadKeepsErrnoEvenWhenItIsZero)
{
    ExternalWriter writer(&m_table);
    ASSERT_EQ(writer.Init(L"p", 0, 0), 0u);
    m_calls.result = 0;
    errno = 0;
    char byte = 0;
    EXPECT_EQ(CodeOf([&] { writer.Read(&byte, 1); }), 0);
    EXPECT_EQ(ErrorFromErrno(writer.m_errno), 1u);
}

// ---- Big-endian numbers ----------------------------------------------------------------------

TEST(BigEndian, GoesOutMostSignificantByteFirst)
{
    CBufferIO buffer;
    buffer.AttachSink(nullptr);
    WriteBE32(&buffer, 0x01020304);
    WriteBE64(&buffer, 0x05060708090A0B0C);
    EXPECT_EQ(std::vector<int>(buffer.Data(), buffer.Data() + buffer.Size()),
              (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    buffer.Seek(0, kSeekStart);
    EXPECT_EQ(ReadBE32(&buffer), 0x01020304u);
    EXPECT_EQ(ReadBE64(&buffer), 0x05060708090A0B0Cu);
}

TEST(BigEndian, NothingMovesUnlessTheTargetIsOpen)
{
    CBufferIO buffer;
    buffer.AttachSink(nullptr);
    for (const std::int32_t state : {kStateClosed, kStateFailed}) {
        buffer.m_state = state;
        WriteBE32(&buffer, 1);
        WriteBE64(&buffer, 1);
        EXPECT_EQ(ReadBE32(&buffer), 0u);
        EXPECT_EQ(ReadBE64(&buffer), 0u);
        EXPECT_EQ(buffer.Size(), 0u);
    }
}
