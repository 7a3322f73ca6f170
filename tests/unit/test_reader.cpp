// What the reader of the info file and its pool say when they fail.
#include "BaseIO.h"
#include "support/folder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <string>
#include <vector>

#if !defined(_WIN32)
#include <sys/resource.h>
#include <sys/wait.h>

#include <unistd.h>
#endif

namespace {

struct Failure {
    std::int32_t code = 0;
    std::string printed;  // with the line's number left out
};

Failure FailureOf(const std::function<void()>& call)
{
    Failure failure;
    testing::internal::CaptureStdout();
    try {
        call();
    } catch (const kv_mp4_exception& error) {
        failure.code = error.code;
    }
    failure.printed = testing::internal::GetCapturedStdout();
    const std::size_t number = failure.printed.find("[line ") + 6;
    failure.printed.erase(number, failure.printed.find(']') - number);
    return failure;
}

class InfoReader : public testing::Test {
protected:
    void SetUp() override
    {
        std::ofstream(m_path, std::ios::binary) << std::string(100, 'x');
        ASSERT_EQ(reader.Init(m_path.wstring().c_str(), 0, 0), 0u);
    }

    const kvtest::Folder m_folder;
    const std::filesystem::path m_path = m_folder / "file";
    CFastFileReader reader;
    std::uint8_t bytes[256] = {};
};

}  // namespace

TEST_F(InfoReader, TellsARefusedCallByItsErrno)
{
    const std::string seek = std::string("BaseIO : Error - [line ] Seek error ") +
                             std::strerror(EROFS) + " !\n\n";
    const std::string write = std::string("BaseIO : Error - [line ] Write error ") +
                              std::strerror(EROFS) + " !\n\n";
    const auto expect = [this](const std::function<void()>& call, const std::string& line) {
        errno = EROFS;
        const Failure failure = FailureOf(call);
        EXPECT_EQ(failure.code, EROFS);
        EXPECT_EQ(failure.printed, line);
        EXPECT_EQ(reader.m_errno, EROFS);
        EXPECT_EQ(reader.m_state, 1);
    };
    expect([this] { reader.Seek(0, kSeekStart); }, seek);
    expect([this] { reader.Flush(); }, write);
    expect([this] { reader.Write(bytes, 1); }, write);
}

TEST_F(InfoReader, TellsTheEndOfDataByItsMark)
{
    errno = EROFS;
    const Failure failure = FailureOf([this] { reader.Read(bytes, 100); });
    EXPECT_EQ(failure.code, 1000);
    EXPECT_EQ(failure.printed, "[line ] Read EOF !\n");
    EXPECT_EQ(reader.m_errno, EROFS);
    EXPECT_EQ(reader.m_state, 1);
    EXPECT_EQ(reader.Tell(), 0);
}

TEST_F(InfoReader, AsksForBytesAsAReadWouldAndDeliversNone)
{
    reader.Require(99);
    EXPECT_EQ(reader.Tell(), 0);
    reader.Read(bytes, 90);
    reader.Require(9);
    EXPECT_EQ(FailureOf([this] { reader.Require(10); }).code, 1000);
    EXPECT_EQ(FailureOf([this] { reader.Require(0xFFFFFFFF); }).code, 1000);
}

TEST_F(InfoReader, ClosesTwiceAndServesNothingElse)
{
    EXPECT_TRUE(reader.IsLocal());
    EXPECT_TRUE(reader.Close());
    EXPECT_TRUE(reader.Close());
    EXPECT_EQ(reader.m_state, 0);
}

// Windows has no limit on the memory of a process that a test could lower; test_faults.cpp refuses
// the request itself, there too.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(_WIN32)

namespace {

// The status of a child process that runs `body` with `room` bytes of memory more than it has.
int InLittleMemory(std::size_t room, const std::function<int()>& body)
{
    const pid_t child = fork();
    if (child == 0) {
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const rlim_t limit = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + room;
        const rlimit limits{limit, limit};
        setrlimit(RLIMIT_AS, &limits);
        _exit(body());
    }
    int end = 0;
    EXPECT_EQ(waitpid(child, &end, 0), child);
    EXPECT_TRUE(WIFEXITED(end));
    return WEXITSTATUS(end);
}

// What a pool throws for a buffer of `size` bytes and has then; the buffer's own size for none.
int ThrownFor(std::uint32_t size)
{
    CReadBufferPool pool;
    std::list<RefBuffer*> held{pool.GetBuffer(10)};
    ReleaseBuffers(held);
    try {
        held.push_back(pool.GetBuffer(size));
    } catch (int thrown) {
        held.push_back(pool.GetBuffer(0));
        thrown += static_cast<int>(held.front()->capacity);
        ReleaseBuffers(held);
        return thrown;
    }
    ReleaseBuffers(held);
    return 0;
}

}  // namespace

TEST(BufferPool, AStoreThatCannotGrowThrows33AndLosesItsCapacity)
{
    EXPECT_EQ(InLittleMemory(8 << 20, [] { return ThrownFor(1 << 20); }), 0);
    EXPECT_EQ(InLittleMemory(8 << 20, [] { return ThrownFor(1 << 30); }), 33);
}

#endif
