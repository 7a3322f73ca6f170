// What the I/O layer prints and logs when it fails, and that it does so once.
#include "boxes.h"
#include "support/full_file.h"
#include "support/folder.h"
#include "support/matches.h"
#include "thrown.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>

#include <unistd.h>

namespace {

// The log's lines with where they come from, "unit function level text".
class CLogSources {
public:
    CLogSources() : m_before(spdlog::default_logger())
    {
        auto logger = std::make_shared<spdlog::logger>(
            "sources", std::make_shared<spdlog::sinks::ostream_sink_st>(m_stream));
        logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%g %! %l %v", spdlog::pattern_time_type::local, "\n"));
        spdlog::set_default_logger(logger);
    }
    ~CLogSources() { spdlog::set_default_logger(m_before); }
    std::string Text() const { return m_stream.str(); }

private:
    std::ostringstream m_stream;
    std::shared_ptr<spdlog::logger> m_before;
};

constexpr char kSeekLine[] = "BaseIO : Error - \\[line [0-9]+\\] Seek error Read-only file system !\n\n";
constexpr char kWriteLine[] =
    "BaseIO : Error - \\[line [0-9]+\\] Write error Read-only file system !\n\n";
constexpr char kReadLine[] = "\\[line [0-9]+\\] Read EOF !\n";

// A call that must fail with the errno of before: the state, the saved error, the code of what is
// thrown and the line that is printed.
void ExpectFailure(IBaseIO& io, const std::function<void()>& call, const char* line,
                   std::int32_t code = EROFS)
{
    errno = EROFS;
    std::string printed;
    EXPECT_EQ(CodeOf(call, &printed), code);
    EXPECT_THAT(printed, kvtest::Matches(line));
    EXPECT_EQ(io.m_state, kStateFailed);
    EXPECT_EQ(io.m_errno, EROFS);
}

struct IoFailure : testing::Test {
    IoFailure()
    {
        std::ofstream(m_folder / "a") << "0123456789";
        buffer.AttachSink(nullptr);
        buffer.Write("abc", 3);
    }
    std::wstring Path(const char* name) const { return (m_folder / name).wstring(); }
    void Open() { ASSERT_EQ(reader.Init(Path("a").c_str(), 0, 0), 0u); }

    const kvtest::Folder m_folder;
    CBufferIO buffer;
    CFastFileReader reader;
    char bytes[16] = {};
};

}  // namespace

// ---- Opening -------------------------------------------------------------------------------

TEST_F(IoFailure, OfAnOpenNamesItsWriterInTheLog)
{
    const CLogSources log;
    CFileWriter writer;
    EXPECT_EQ(writer.Init(Path("none/a").c_str(), 0, 0), 12u);
    CAppendFileWriter appender;
    EXPECT_EQ(appender.Init(Path("none").c_str(), 0, 0), 12u);
    EXPECT_EQ(log.Text(),
              "src/BaseIO CFileWriter::Init error open file failed, error:No such file or "
              "directory\n"
              "src/BaseIO CAppendFileWriter::Init error open file failed, error:No such file or "
              "directory\n");
    EXPECT_EQ(appender.m_state, kStateClosed);
}

TEST_F(IoFailure, OfAReadersOpenLogsNothing)
{
    const CLogSources log;
    EXPECT_EQ(reader.Init(Path("none").c_str(), 0, 0), 12u);
    EXPECT_EQ(log.Text(), "");
    EXPECT_EQ(reader.m_state, kStateClosed);
}

// ---- The lines -----------------------------------------------------------------------------

TEST_F(IoFailure, OfABuffersSeekIsASeekError)
{
    ExpectFailure(buffer, [this] { buffer.Seek(4, kSeekStart); }, kSeekLine);
}

TEST_F(IoFailure, OfABuffersReadIsTheEndOfData)
{
    ExpectFailure(buffer, [this] { buffer.Read(bytes, 1); }, kReadLine);
}

TEST_F(IoFailure, OfAReadersSeekIsASeekError)
{
    Open();
    ExpectFailure(reader, [this] { reader.Seek(0, kSeekStart); }, kSeekLine);
}

TEST_F(IoFailure, OfAReadersFlushAndWriteIsAWriteError)
{
    Open();
    ExpectFailure(reader, [this] { reader.Flush(); }, kWriteLine);
    ExpectFailure(reader, [this] { reader.Write("a", 1); }, kWriteLine);
}

// The one code that is no errno.
TEST_F(IoFailure, OfAReadersReadHasTheCode1000)
{
    Open();
    reader.Read(bytes, 9);
    ExpectFailure(reader, [this] { reader.Read(bytes, 1); }, kReadLine, 1000);
}

// fread tells an end of the file without an errno of its own.
TEST_F(IoFailure, OfAFilesReadIsTheEndOfDataToo)
{
    CAppendFileWriter writer;
    ASSERT_EQ(writer.Init(Path("a").c_str(), 0, 0), 0u);
    writer.Read(bytes, 8);
    EXPECT_EQ(std::string(bytes, 8), "01234567");
    ExpectFailure(writer, [&] { writer.Read(bytes, 3); }, kReadLine);
}

TEST_F(IoFailure, OfAFilesWriteIsAWriteError)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("b").c_str(), 0, 0), 0u);
    ExpectFailure(writer, [&] { writer.Write("", 0); }, kWriteLine);
}

#if !defined(_WIN32)  // which has no device that is always full

// The print fails too and changes errno, which still says why the call failed.
TEST_F(IoFailure, KeepsErrnoOverALineThatCannotBePrinted)
{
    const auto seeks = [this] {
        if (!std::freopen("/dev/full", "w", stdout) || std::setvbuf(stdout, nullptr, _IONBF, 0))
            return 2;
        if (std::printf("x") >= 0 || errno != ENOSPC)
            return 3;
        errno = EROFS;
        try {
            buffer.Seek(4, kSeekStart);
        } catch (const kv_mp4_exception& error) {
            return errno == EROFS && error.code == EROFS && buffer.m_errno == EROFS ? 0 : 4;
        }
        return 5;
    };
    EXPECT_EXIT(_exit(seeks()), testing::ExitedWithCode(0), "");
}

#endif

// ---- Afterwards ----------------------------------------------------------------------------

TEST_F(IoFailure, MakesNoSecondLineHoweverManyBoxesFollow)
{
    const kvtest::FullFile full;
    CFileWriter writer;
    ASSERT_EQ(writer.Init(full.Path().c_str(), 0, 0), 0u);
    testing::internal::CaptureStdout();
    writer.Write("a", 1);
    EXPECT_THROW(writer.Flush(), kv_mp4_exception);
    for (int i = 0; i < 10000; ++i) {  // far more than a stream's buffer holds
        WriteBE32(&writer, 1);
        WriteBE64(&writer, 1);
    }
    const std::string lines = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2);  // one message ends with two
    EXPECT_EQ(writer.m_errno, ENOSPC);
}

TEST_F(IoFailure, IsOverWithAClose)
{
    CFileWriter writer;
    ASSERT_EQ(writer.Init(Path("b").c_str(), 0, 0), 0u);
    testing::internal::CaptureStdout();
    EXPECT_THROW(writer.Seek(-1, kSeekStart), kv_mp4_exception);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(writer.m_state, kStateClosed);
    EXPECT_EQ(writer.Init(Path("b").c_str(), 0, 0), 0u);
    EXPECT_EQ(writer.m_state, kStateOpen);
}

// ---- The pool ------------------------------------------------------------------------------

TEST(BufferRelease, OfAHolderTooManyLeavesTheCountAtZero)
{
    CReadBufferPool pool;
    RefBuffer* buffer = pool.GetBuffer(1);
    std::list<RefBuffer*> held{buffer};
    ReleaseBuffers(held);
    held = {buffer};
    ReleaseBuffers(held);
    EXPECT_EQ(buffer->refCount, 0u);
    EXPECT_EQ(pool.GetBuffer(1), buffer);
    RefBuffer* other = pool.GetBuffer(1);
    EXPECT_NE(other, buffer);  // it went back once
    held = {buffer, other};
    ReleaseBuffers(held);
}

// ---- A caller's own output -----------------------------------------------------------------

// Nothing that these two say is looked at, so that a close goes on behind them.
TEST(AnExternalOutput, CannotFailASeekOrAFlush)
{
    ExternalIoFuncs table{};
    table.open = [](void**, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        return 1;
    };
    table.seek = [](void*, std::int64_t, std::int32_t) { errno = EIO; };
    table.flush = [](void*) { errno = EIO; };
    ExternalWriter writer(&table);
    EXPECT_EQ(writer.Init(L"a", 0, 0), 0u);
    EXPECT_NO_THROW(writer.Seek(-5, 7));
    EXPECT_NO_THROW(writer.Flush());
    EXPECT_EQ(writer.m_state, kStateOpen);
    EXPECT_EQ(writer.m_errno, 0);
}

TEST(AnExternalOutput, ThatFailsAReadOrAWritePrintsTheEndOfData)
{
    ExternalIoFuncs table{};
    table.open = [](void**, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        return 1;
    };
    table.read = [](void*, void*, std::uint32_t) { return 0; };
    table.write = [](void*, const void*, std::uint32_t) { return 0; };
    char byte = 0;
    for (const bool reads : {true, false}) {
        ExternalWriter writer(&table);
        EXPECT_EQ(writer.Init(L"a", 0, 0), 0u);
        ExpectFailure(writer, [&] { reads ? writer.Read(&byte, 1) : writer.Write("a", 1); },
                      kReadLine);
    }
}

TEST(AnExternalOutput, ThatWasClosedIsAskedNothing)
{
    static int calls;
    calls = 0;
    ExternalIoFuncs table{};
    table.open = [](void**, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        return 1;
    };
    table.close = [](void*) { ++calls; };
    table.tell = [](void*) -> std::int64_t { return ++calls; };
    table.seek = [](void*, std::int64_t, std::int32_t) { ++calls; };
    table.flush = [](void*) { ++calls; };
    ExternalWriter writer(&table);
    EXPECT_EQ(writer.Init(L"a", 0, 0), 0u);
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(writer.Tell(), 0);
    writer.Seek(1, kSeekStart);
    writer.Flush();
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(writer.m_state, kStateClosed);
}
