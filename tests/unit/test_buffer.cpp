#include "BaseIO.h"
#include "support/folder.h"
#include "thrown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <vector>

namespace {

using testing::HasSubstr;

std::string Content(const CBufferIO& buffer)
{
    return {reinterpret_cast<const char*>(buffer.Data()), buffer.Size()};
}

struct Buffer : testing::Test {
    Buffer() { buffer.AttachSink(&sink); sink.AttachSink(nullptr); }
    void Put(const std::string& text)
    {
        buffer.Write(text.data(), static_cast<std::uint32_t>(text.size()));
    }
    CBufferIO buffer;
    CBufferIO sink;
};

}  // namespace

TEST(BufferAtBirth, IsClosedAndEmpty)
{
    CBufferIO buffer;
    EXPECT_EQ(buffer.m_state, 0);
    EXPECT_EQ(buffer.Capacity(), 0u);
    EXPECT_EQ(buffer.Data(), nullptr);
}

TEST_F(Buffer, GrowsToTwiceTheNeedInStepsOfOneKibibyte)
{
    Put("x");
    EXPECT_EQ(buffer.Capacity(), 1024u);  // 2 x 1 + 1023 = 1025, down to 1024
    Put(std::string(1024, 'y'));
    EXPECT_EQ(buffer.Capacity(), 3072u);  // 2 x 1025 + 1023 = 3073, down to 3072
    EXPECT_EQ(buffer.Size(), 1025u);
}

TEST_F(Buffer, KeepsItsContentWhenItGrows)
{
    Put("x");
    Put(std::string(1024, 'y'));
    EXPECT_EQ(Content(buffer), "x" + std::string(1024, 'y'));
}

TEST_F(Buffer, IsLocal)
{
    EXPECT_TRUE(buffer.IsLocal());
}

TEST_F(Buffer, ExactlyFullDoesNotGrow)
{
    Put(std::string(1, 'x'));
    Put(std::string(1023, 'y'));
    EXPECT_EQ(buffer.Capacity(), 1024u);
}

TEST_F(Buffer, OverwritingLeavesTheSizeAlone)
{
    Put("abcdef");
    buffer.Seek(2, kSeekStart);
    Put("XY");
    EXPECT_EQ(buffer.Tell(), 4);
    EXPECT_EQ(Content(buffer), "abXYef");
}

TEST_F(Buffer, SeekReachesTheSizeByAnyOriginAndNoFurther)
{
    Put("abc");
    buffer.Seek(3, kSeekStart);
    EXPECT_EQ(buffer.Tell(), 3);
    buffer.Seek(-3, kSeekCurrent);
    buffer.Seek(3, kSeekCurrent);
    EXPECT_EQ(buffer.Tell(), 3);
    buffer.Seek(-3, kSeekEnd);
    EXPECT_EQ(buffer.Tell(), 0);
    buffer.Seek(0, kSeekEnd);
    EXPECT_EQ(buffer.Tell(), 3);
}

TEST_F(Buffer, ASeekOutsideIsAFailure)
{
    const struct { std::int64_t offset; std::int32_t origin; } refused[] = {
        {-1, kSeekStart}, {4, kSeekStart}, {-4, kSeekCurrent}, {1, kSeekCurrent},
        {-4, kSeekEnd},   {1, kSeekEnd},   {INT64_MAX, kSeekCurrent}, {INT64_MIN, kSeekEnd}};
    for (const auto& seek : refused) {
        CBufferIO fresh;
        fresh.AttachSink(nullptr);
        fresh.Write("abc", 3);
        errno = EROFS;
        EXPECT_EQ(CodeOf([&] { fresh.Seek(seek.offset, seek.origin); }), EROFS) << seek.offset;
        EXPECT_EQ(fresh.m_state, 1);
        EXPECT_EQ(fresh.m_errno, EROFS);
    }
}

TEST_F(Buffer, AnUnknownOriginDoesNothing)
{
    Put("abc");
    buffer.Seek(99, 3);
    EXPECT_EQ(buffer.Tell(), 3);
    EXPECT_EQ(buffer.m_state, -1);
}

TEST_F(Buffer, FlushSendsEverythingAndKeepsTheStore)
{
    Put("abcdef");
    buffer.Seek(2, kSeekStart);
    buffer.Flush();
    EXPECT_EQ(Content(sink), "abcdef");
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(buffer.Tell(), 0);
    EXPECT_EQ(buffer.Capacity(), 1024u);
}

TEST_F(Buffer, FlushToASinkThatIsNotOpenDropsTheContents)
{
    Put("abc");
    sink.m_state = kStateFailed;
    buffer.Flush();
    EXPECT_EQ(sink.Size(), 0u);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(buffer.Tell(), 0);
}

TEST_F(Buffer, FlushWithoutASinkDoesNothing)
{
    buffer.AttachSink(nullptr);
    Put("abc");
    buffer.Flush();
    EXPECT_EQ(Content(buffer), "abc");
}

TEST_F(Buffer, ReadStopsAtTheSize)
{
    Put("abc");
    buffer.Seek(1, kSeekStart);
    char two[2];
    buffer.Read(two, 2);
    EXPECT_EQ(std::string(two, 2), "bc");
    errno = ENOENT;
    EXPECT_EQ(CodeOf([&] { buffer.Read(two, 1); }), ENOENT);
    EXPECT_EQ(buffer.m_state, 1);
}

TEST_F(Buffer, AGrowthThatDoesNotFit32BitsFailsAndDropsTheStore)
{
    Put("abc");
    EXPECT_EQ(CodeOf([&] { buffer.Reserve(0x80000000u); }), ENOMEM);
    EXPECT_EQ(buffer.m_state, 1);
    EXPECT_EQ(buffer.Capacity(), 0u);
    EXPECT_EQ(buffer.Tell(), 0);
    EXPECT_EQ(buffer.Data(), nullptr);
    EXPECT_EQ(buffer.Size(), 3u);
}

TEST_F(Buffer, WithoutItsStoreHasNothingToFlushOrToRead)
{
    Put("abc");
    CodeOf([&] { buffer.Reserve(0x80000000u); });
    ASSERT_EQ(buffer.Size(), 3u);
    char byte = 0;
    errno = ENOENT;
    EXPECT_EQ(CodeOf([&] { buffer.Read(&byte, 1); }), ENOENT);
    EXPECT_EQ(CodeOf([&] { buffer.Flush(); }), INT32_MIN);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(sink.Size(), 0u);
}

TEST_F(Buffer, ACountThatWrapsTogetherWithThePositionFailsToo)
{
    Put("abc");
    EXPECT_EQ(CodeOf([&] { buffer.Reserve(0xFFFFFFFEu); }), ENOMEM);
}

TEST_F(Buffer, CloseFreesTheStoreAndKeepsTheSink)
{
    Put("abc");
    EXPECT_TRUE(buffer.Close());
    EXPECT_EQ(buffer.m_state, 0);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(buffer.Capacity(), 0u);
    EXPECT_EQ(buffer.Sink(), &sink);
}

TEST_F(Buffer, AttachSinkWithACapacityAllocatesAtOnce)
{
    Put("abc");
    buffer.AttachSink(&sink, 5000);
    EXPECT_EQ(buffer.Capacity(), 5000u);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(buffer.m_state, -1);
}

// ---- CFastFileReader -------------------------------------------------------------------------

namespace {

class Reader : public testing::Test {
protected:
    void Write(std::size_t size)
    {
        std::ofstream out(m_path, std::ios::binary);
        for (std::size_t i = 0; i < size; ++i)
            out.put(static_cast<char>(i * 7));
    }
    std::uint32_t Init() { return reader.Init(m_path.wstring().c_str(), 0, 0); }

    const kvtest::Folder m_folder;
    const std::filesystem::path m_path = m_folder / "file";
    CFastFileReader reader;
    std::uint8_t bytes[256] = {};
};

}  // namespace

TEST_F(Reader, DeliversAllButTheLastByte)
{
    Write(100);
    ASSERT_EQ(Init(), 0u);
    reader.Read(bytes, 98);
    reader.Read(bytes, 1);
    EXPECT_EQ(bytes[0], static_cast<std::uint8_t>(98 * 7));
    EXPECT_EQ(CodeOf([&] { reader.Read(bytes, 1); }), 1000);
    EXPECT_EQ(reader.m_state, 1);
}

TEST_F(Reader, ARecordThatEndsWithTheFileIsLost)
{
    Write(100);
    ASSERT_EQ(Init(), 0u);
    reader.Read(bytes, 96);
    EXPECT_EQ(reader.Tell(), 96);
    EXPECT_EQ(CodeOf([&] { reader.Read(bytes, 4); }), 1000);
}

TEST_F(Reader, ARecordAcrossTheBlocksEndIsWhole)
{
    const std::size_t block = 0x1800000;
    Write(block + 10);
    ASSERT_EQ(Init(), 0u);
    std::vector<std::uint8_t> most(block - 2);
    reader.Read(most.data(), static_cast<std::uint32_t>(most.size()));
    reader.Read(bytes, 8);
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(bytes[i], static_cast<std::uint8_t>((block - 2 + i) * 7));
    reader.Read(bytes, 3);
    EXPECT_EQ(CodeOf([&] { reader.Read(bytes, 1); }), 1000);
}

// Files of the block's own size and of one byte more, which takes a slide.
TEST_F(Reader, DeliversAllButTheLastByteAtTheBlocksBorder)
{
    const std::uint32_t block = 0x1800000;
    for (const std::uint32_t size : {block, block + 1}) {
        Write(size);
        CFastFileReader whole;
        ASSERT_EQ(whole.Init(m_path.wstring().c_str(), 0, 0), 0u);
        std::vector<std::uint8_t> most(block - 1);
        whole.Read(most.data(), block - 1);
        EXPECT_EQ(most.back(), static_cast<std::uint8_t>((block - 2) * 7));
        if (size > block)
            whole.Read(bytes, 1);
        EXPECT_EQ(whole.Tell(), std::int64_t{size} - 1);
        EXPECT_EQ(CodeOf([&] { whole.Read(bytes, 1); }), kEndOfData);
    }
}

TEST_F(Reader, KeepsItsBlockOverAClose)
{
    Write(100);
    ASSERT_EQ(Init(), 0u);
    EXPECT_TRUE(reader.Close());
    EXPECT_NO_THROW(reader.Read(bytes, 4));
    EXPECT_EQ(std::vector<int>(bytes, bytes + 4), (std::vector<int>{0, 7, 14, 21}));
}

TEST_F(Reader, AReadLargerThanTheBlockIsTheEndOfData)
{
    const std::uint32_t block = 0x1800000;
    Write(2 * std::size_t{block});
    ASSERT_EQ(Init(), 0u);
    std::vector<std::uint8_t> more(block + 1);
    EXPECT_EQ(CodeOf([&] { reader.Read(more.data(), block + 1); }), 1000);
}

TEST_F(Reader, AnEmptyFileEndsAtOnce)
{
    Write(0);
    ASSERT_EQ(Init(), 0u);
    EXPECT_EQ(CodeOf([&] { reader.Read(bytes, 1); }), 1000);
}

TEST_F(Reader, AMissingFileIsNotFound)
{
    EXPECT_EQ(Init(), 12u);
    EXPECT_EQ(reader.m_state, 0);
}

TEST_F(Reader, CannotSeekFlushOrWrite)
{
    Write(10);
    ASSERT_EQ(Init(), 0u);
    errno = EROFS;
    EXPECT_EQ(CodeOf([&] { reader.Seek(0, kSeekStart); }), EROFS);
    EXPECT_EQ(CodeOf([&] { reader.Flush(); }), EROFS);
    EXPECT_EQ(CodeOf([&] { reader.Write(bytes, 1); }), EROFS);
    EXPECT_EQ(reader.m_state, 1);
}

// ---- CReadBufferPool -------------------------------------------------------------------------

TEST(BufferPool, TheBufferReturnedLastGoesOutFirst)
{
    CReadBufferPool pool;
    RefBuffer* one = pool.GetBuffer(10);
    RefBuffer* two = pool.GetBuffer(20);
    std::list<RefBuffer*> held{one, two};
    ReleaseBuffers(held);  // from the back: two, then one
    EXPECT_TRUE(held.empty());
    EXPECT_EQ(pool.GetBuffer(5), one);
    EXPECT_EQ(one->capacity, 10u);
    EXPECT_EQ(one->refCount, 1u);
    held = {one};
    ReleaseBuffers(held);
}

TEST(BufferPool, ALargerRequestGrowsTheSameBufferToExactlyIt)
{
    CReadBufferPool pool;
    RefBuffer* buffer = pool.GetBuffer(10);
    std::list<RefBuffer*> held{buffer};
    ReleaseBuffers(held);
    EXPECT_EQ(pool.GetBuffer(11), buffer);
    EXPECT_EQ(buffer->capacity, 11u);
    held = {buffer};
    ReleaseBuffers(held);
}

TEST(BufferPool, ZeroBytesNeedNoStore)
{
    CReadBufferPool pool;
    std::list<RefBuffer*> held{pool.GetBuffer(0)};
    EXPECT_EQ(held.front()->data, nullptr);
    ReleaseBuffers(held);
}

TEST(BufferPool, ABufferWithAnotherHolderStaysOut)
{
    CReadBufferPool pool;
    RefBuffer* shared = pool.GetBuffer(1);
    ++shared->refCount;
    std::list<RefBuffer*> held{shared};
    ReleaseBuffers(held);
    EXPECT_EQ(shared->refCount, 1u);
    RefBuffer* other = pool.GetBuffer(1);
    EXPECT_NE(other, shared);
    held = {shared, other};
    ReleaseBuffers(held);
}

TEST(BufferPool, ABufferLeftOutIsReported)
{
    RefBuffer* stray = nullptr;
    testing::internal::CaptureStdout();
    {
        CReadBufferPool pool;
        stray = pool.GetBuffer(1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\n!!! Memory LEAK in CReadBufferPool !\n\n");
    std::free(stray->data);
    delete stray;
}
