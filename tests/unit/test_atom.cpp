#include "atom.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

using Bytes = std::vector<int>;

Bytes Of(const CBufferIO& buffer)
{
    return {buffer.Data(), buffer.Data() + buffer.Size()};
}

struct Field : testing::Test {
    Field() { target.AttachSink(nullptr); }
    CBufferIO target;
    CFieldWriter write{target};
};

// A box of each shape.
class CProbe final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override
    {
        Container("cont", [&] {
            Leaf("leaf", [](CFieldWriter& f) { f.U16(0xABCD); });
            TrueSize("true", 9, [](CFieldWriter& f) { f.U8(7); });
            Entry("entr", [](CFieldWriter& f) { f.U8(1); }, [&] { Leaf("kid ", [](CFieldWriter&) {}); });
        });
    }
    std::uint32_t GetSize() const override { return 0; }
};

class CTable final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override { Table("tabl", 4); }
    std::uint32_t GetSize() const override { return 0; }
    void Add(std::uint32_t value) { CFieldWriter(m_buffer).U32(value); }
    void AskForTooMuch() { m_buffer.Reserve(0xFFFFFFFF); }
};

}  // namespace

TEST_F(Field, NumbersAreBigEndian)
{
    write.U8(1);
    write.U16(0x0203);
    write.U24(0x040506);
    write.U32(0x0708090A);
    write.U64(0x0B0C0D0E0F101112);
    Bytes expected(18);
    for (int i = 0; i < 18; ++i)
        expected[static_cast<std::size_t>(i)] = i + 1;
    EXPECT_EQ(Of(target), expected);
}

TEST_F(Field, WideIs32BitsInVersion0And64InVersion1)
{
    write.Wide(0, 0x0102030405060708);
    write.Wide(1, 0x0102030405060708);
    EXPECT_EQ(Of(target), (Bytes{5, 6, 7, 8, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(Field, FixedPointAndVersionFlags)
{
    write.Fixed16(1);
    write.Fixed8(1);
    write.VersionFlags(1, 3);
    EXPECT_EQ(Of(target), (Bytes{0, 1, 0, 0, 1, 0, 1, 0, 0, 3}));
}

TEST_F(Field, AMatrixHas36BytesAndAFixedLastColumn)
{
    write.Matrix(1, 0, 0, 1, 0, 0);
    EXPECT_EQ(Of(target), (Bytes{0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,
                                 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0, 0, 0}));
}

TEST_F(Field, ADescriptorsLengthTakesFourBytes)
{
    write.Descriptor(3, 34);
    write.Descriptor(5, 0x0FEDCBA9 & 0x0FFFFFFF);
    EXPECT_EQ(Of(target), (Bytes{3, 0x80, 0x80, 0x80, 34, 5, 0x80 | 0x7F, 0x80 | 0x37,
                                 0x80 | 0x17, 0x29}));
}

TEST_F(Field, PascalTextHasItsLengthInFront)
{
    write.PascalText("abc");
    EXPECT_EQ(Of(target), (Bytes{3, 'a', 'b', 'c'}));
}

TEST_F(Field, ATargetThatIsNotOpenTakesNothing)
{
    for (const std::int32_t state : {kStateClosed, kStateFailed}) {
        target.m_state = state;
        write.U32(1);
        write.Text("abc");
        write.Zeros(4);
        EXPECT_EQ(target.Size(), 0u);
    }
}

TEST(Shapes, SizesAreThoseReallyWritten)
{
    CBufferIO sink;
    sink.AttachSink(nullptr);
    CProbe box(&sink);
    box.Write();
    const Bytes expected{0, 0, 0, 44,  'c', 'o', 'n', 't',                          //
                         0, 0, 0, 10,  'l', 'e', 'a', 'f', 0xAB, 0xCD,              //
                         0, 0, 0, 9,   't', 'r', 'u', 'e', 7,                       //
                         0, 0, 0, 17,  'e', 'n', 't', 'r', 1,                       //
                         0, 0, 0, 8,   'k', 'i', 'd', ' '};
    EXPECT_EQ(Of(sink), expected);
}

TEST(Shapes, WritingTwiceGivesTheSameBytes)
{
    CBufferIO sink;
    sink.AttachSink(nullptr);
    CProbe box(&sink);
    box.Write();
    const Bytes once = Of(sink);
    box.Write();
    Bytes twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(Of(sink), twice);
}

TEST(Shapes, AClosedSinkTakesNoBytesAndThrowsNothing)
{
    CBufferIO sink;
    sink.AttachSink(nullptr);
    CProbe box(&sink);
    sink.m_state = kStateClosed;
    EXPECT_NO_THROW(box.Write());
    EXPECT_EQ(sink.Size(), 0u);
}

TEST(Shapes, ATableKeepsItsEntries)
{
    CBufferIO sink;
    sink.AttachSink(nullptr);
    CTable table(&sink);
    table.Add(0x01020304);
    table.Add(5);
    table.Write();
    const Bytes expected{0, 0, 0, 24, 't', 'a', 'b', 'l', 0, 0, 0, 0,
                         0, 0, 0, 2,  1,   2,   3,   4,   0, 0, 0, 5};
    EXPECT_EQ(Of(sink), expected);
    sink.Seek(0, kSeekStart);
    table.Write();
    EXPECT_EQ(Of(sink), expected);
}

TEST(Shapes, AnEmptyTableIsAHeaderAlone)
{
    CBufferIO sink;
    sink.AttachSink(nullptr);
    CTable table(&sink);
    table.Write();
    EXPECT_EQ(Of(sink), (Bytes{0, 0, 0, 16, 't', 'a', 'b', 'l', 0, 0, 0, 0, 0, 0, 0, 0}));
}

// Growth beyond 32 bits fails like an allocation: the bytes are lost, their number stays.
TEST(Table, ATableWhoseMemoryFailedIsWrittenWithoutItsBlock)
{
    CBufferIO sink;
    sink.AttachSink(nullptr);
    CTable table(&sink);
    table.Add(7);
    testing::internal::CaptureStdout();
    EXPECT_THROW(table.AskForTooMuch(), kv_mp4_exception);
    testing::internal::GetCapturedStdout();
    table.Write();
    EXPECT_EQ(Of(sink), (Bytes{0, 0, 0, 20, 't', 'a', 'b', 'l', 0, 0, 0, 0, 0, 0, 0, 1}));
}
