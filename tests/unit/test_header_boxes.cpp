// The boxes outside "moov", and boxes on a real file that was closed or has failed.
#include "Mp4Muxer.h"
#include "boxes.h"
#include "support/folder.h"

#include <filesystem>
#include <fstream>

namespace {

// An "mdat" behind 36 bytes of others, with the sink at the end of its data.
struct Mdat {
    explicit Mdat(bool large, std::size_t data) : box(&sink, large)
    {
        sink.m_bytes = std::string(36, 'x');
        sink.m_position = 36;
        box.Write();
        sink.Write(std::string(data, 'd').data(), static_cast<std::uint32_t>(data));
    }
    std::string Header() const { return sink.m_bytes.substr(36, box.m_large ? 16 : 8); }

    CMemorySink sink;
    CMp4MdatAtom box;
};

}  // namespace

// ---- ftyp and free -------------------------------------------------------------------------

TEST(FileType, OfBothKinds)
{
    On<CMp4FtypAtom> on;
    EXPECT_BYTES(on.Written(), Hex("0000001c 'ftyp' 'isom' 00000200 'isom' 'iso2' 'mp41'"));
    on.box.m_isQuickTime = 1;
    EXPECT_BYTES(on.Written(), Hex("00000014 'ftyp' 'qt  ' 00000200 'qt  '"));
}

// Nothing in the library asks for it.
TEST(FileType, CanNameAvc1)
{
    On<CMp4FtypAtom> on;
    on.box.m_hasAvc1 = 1;
    EXPECT_BYTES(on.Written(), Hex("00000020 'ftyp' 'isom' 00000200 'isom' 'iso2' 'avc1' 'mp41'"));
    EXPECT_EQ(on.box.GetSize(), 32u);
}

TEST(FileType, HasTheSameCalculatedSizeInBothKinds)
{
    On<CMp4FtypAtom> on;
    EXPECT_EQ(on.box.GetSize(), 28u);
    on.box.m_isQuickTime = 1;
    EXPECT_EQ(on.box.GetSize(), 28u);
}

TEST(Free, IsEightBytesWithoutAPayload)
{
    On<CMp4FreeAtom> on;
    EXPECT_BYTES(on.Written(), Hex("00000008 'free'"));
    EXPECT_EQ(on.box.GetSize(), 8u);
}

// ---- mdat ----------------------------------------------------------------------------------

TEST(MediaData, BeginsWithAPlaceholderAndKnowsItsPlace)
{
    const Mdat small(false, 5);
    EXPECT_BYTES(small.Header(), Hex("00000008 'mdat'"));
    EXPECT_EQ(small.box.m_start, 36u);
    const Mdat large(true, 5);
    EXPECT_BYTES(large.Header(), Hex("00000001 'mdat' 0000000000000001"));
    EXPECT_EQ(large.box.m_start, 36u);
    EXPECT_EQ(large.box.GetSize(), 0u);
}

TEST(MediaData, FinishesAtThePositionOfTheSink)
{
    Mdat small(false, 5);
    small.box.Finish();
    EXPECT_BYTES(small.Header(), Hex("0000000d 'mdat'"));
    EXPECT_EQ(small.sink.m_position, 49u);
    Mdat large(true, 5);
    large.box.Finish();
    EXPECT_BYTES(large.Header(), Hex("00000001 'mdat' 0000000000000015"));
    EXPECT_EQ(large.sink.m_position, 57u);
}

TEST(MediaData, CanBeDeclaredUpToAPlaceAheadOfItsData)
{
    Mdat small(false, 5);
    small.box.UpdateSize(36 + 0x1000);
    EXPECT_BYTES(small.Header(), Hex("00001000 'mdat'"));
    EXPECT_EQ(small.sink.m_position, 49u);
    EXPECT_EQ(small.sink.m_bytes.size(), 49u);
}

// The 1 that announces the 64-bit size goes; that size stays and counts as data.
TEST(MediaData, DeclaredAheadHas32BitsAlsoWhenItIsLarge)
{
    Mdat large(true, 5);
    large.box.UpdateSize(36 + 0x1000);
    EXPECT_BYTES(large.Header(), Hex("00001000 'mdat' 0000000000000001"));
    EXPECT_EQ(large.sink.m_position, 57u);
}

TEST(MediaData, DeclaredBeyond32BitsIsCut)
{
    Mdat small(false, 5);
    small.box.UpdateSize(36 + 0x100000010);
    EXPECT_BYTES(small.Header(), Hex("00000010 'mdat'"));
}

// ---- A file that takes nothing more --------------------------------------------------------

namespace {

struct OnAFile : testing::Test {
    OnAFile()
    {
        EXPECT_EQ(file.Init((m_folder / "a").wstring().c_str(), 0, 0), 0u);
        file.Write("abcdefgh", 8);
    }
    // One of each shape: containers, leaves, entries, fixed sizes and tables.
    void WriteAll()
    {
        CMp4MoovAtom moov(&file, false, nullptr);
        mp4_video_track_info info{};
        info.codec = MP4_VIDEO_PRORES;
        moov.SetVideoTrack(info);
        moov.m_trakVideo.AddSample(36, 100, 0, 0, true, true);
        const CLogLines quiet;
        moov.Write();
        moov.Write(3);
        CMp4FreeAtom(&file).Write();
    }
    std::string Content() const
    {
        std::ifstream in(m_folder / "a", std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    const kvtest::Folder m_folder;
    CFileWriter file;
};

}  // namespace

TEST_F(OnAFile, ThatIsOpenTheBoxesAreWritten)
{
    EXPECT_NO_THROW(WriteAll());
    file.Close();
    EXPECT_GT(Content().size(), 8u);
}

TEST_F(OnAFile, ThatWasClosedTheBoxesAreDropped)
{
    file.Close();
    EXPECT_NO_THROW(WriteAll());
    EXPECT_EQ(Content(), "abcdefgh");
    EXPECT_EQ(file.m_state, kStateClosed);
}

// Its stream is still there, and the seeks go out.
TEST_F(OnAFile, ThatHasFailedTheBoxesAreDroppedWithoutAnotherLine)
{
    testing::internal::CaptureStdout();
    EXPECT_THROW(file.Seek(-1, kSeekStart), kv_mp4_exception);
    const std::string first = testing::internal::GetCapturedStdout();
    EXPECT_NE(first, "");
    testing::internal::CaptureStdout();
    EXPECT_NO_THROW(WriteAll());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(file.m_state, kStateFailed);
    file.Close();
    EXPECT_EQ(Content(), "abcdefgh");
}
