// A "moov" on a sink whose writes fail: what it throws, what is left in its boxes, and what the next
// write makes of it.
#include "boxes.h"
#include "moov.h"
#include "parameter_sets.h"

#include <cerrno>

namespace {

// A sink in memory whose n-th write fails, once; 0 for none. It stays open all the same, so that
// the next write is tried.
class CFailingSink final : public IBaseIO {
public:
    CFailingSink() { m_state = kStateOpen; }
    bool Close() override { return true; }
    std::int64_t Tell() override { return static_cast<std::int64_t>(m_position); }
    void Seek(std::int64_t offset, std::int32_t) override
    {
        m_position = static_cast<std::size_t>(offset);
    }
    void Flush() override {}
    bool IsLocal() override { return true; }
    void Read(void*, std::uint32_t) override {}
    void Write(const void* buffer, std::uint32_t size) override
    {
        if (m_failing != 0 && --m_failing == 0)
            throw kv_mp4_exception{ENOSPC};
        m_bytes.resize(std::max(m_bytes.size(), m_position + size));
        m_bytes.replace(m_position, size, static_cast<const char*>(buffer), size);
        m_position += size;
    }
    void Empty()
    {
        m_bytes.clear();
        m_position = 0;
    }

    std::string m_bytes;
    std::size_t m_position = 0;
    int m_failing = 0;
};

// Four tracks and metadata of both kinds.
struct FailingSink : testing::Test {
    FailingSink()
    {
        const std::string sps = Hex("67 4d 40 1f");
        const std::string pps = Hex("68 ee");
        box.SetVideoTrack(Record(MP4_VIDEO_H264, "", sps, pps));
        box.SetAudioTrack({48000, 0, MP4_AUDIO_AAC_RAW, 48000, 2, 2});
        box.SetTimeCodeTrack({25, 1, 25, 0});
        box.SetSubtitleTrack({1, 1000});
        box.m_trakVideo.AddSample(36, 100, 0, 0, true, true);
        box.m_trakVideo.AddSample(136, 90, 40, 40, false, false);
        box.m_lastTrackId = 1;
        box.AddAudioSample(226, 50, 0);
        box.m_trackTC.m_mdia.m_minf.m_stbl.AddSample(276, true);
        box.m_trackTC.m_sampleCount = 1;
        box.m_lastTrackId = 3;
        box.AddSubtitleSample(280, 6, 0);
        box.m_udta.m_meta.SetMetadata("title", "A", 0, 1, nullptr);
        box.m_udta.m_meta.SetMetadata("com.x", "B", 0, 1, nullptr);
    }
    void Write(bool checkpoint) { checkpoint ? box.Write(0) : box.Write(); }
    std::string Written(bool checkpoint)
    {
        sink.Empty();
        Write(checkpoint);
        return sink.m_bytes;
    }

    CFailingSink sink;
    CMp4MoovAtom box{&sink, false, nullptr};
    const CLogLines log;
};

}  // namespace

// What was composed in memory for the write that failed goes out with the next; from then on all is
// as before.
TEST_F(FailingSink, RaisesOutOfEitherWriteAndTheMovieStaysUsable)
{
    for (const bool checkpoint : {false, true}) {
        const std::string whole = Written(checkpoint);
        int failures = 0;
        for (int n = 1; ; ++n) {
            sink.Empty();
            sink.m_failing = n;
            try {
                Write(checkpoint);
                break;
            } catch (const kv_mp4_exception& error) {
                EXPECT_EQ(error.code, ENOSPC);
            }
            ++failures;
            Written(checkpoint);
            ASSERT_EQ(Show(Written(checkpoint)), Show(whole)) << n;
        }
        EXPECT_GT(failures, 100);
        sink.m_failing = 0;
    }
}

TEST_F(FailingSink, AtTheHeaderOfTheMovieLeavesNothingBehind)
{
    for (const bool checkpoint : {false, true}) {
        const std::string whole = Written(checkpoint);
        sink.m_failing = 1;
        EXPECT_THROW(Written(checkpoint), kv_mp4_exception);
        EXPECT_BYTES(Written(checkpoint), whole);
    }
}

TEST_F(FailingSink, KeepsTheSamplesThatCome)
{
    sink.m_failing = 40;
    EXPECT_THROW(Written(false), kv_mp4_exception);
    box.m_trakVideo.AddSample(500, 80, 80, 80, false, true);
    Written(false);
    EXPECT_BYTES(Find(Written(false), "moov/trak/mdia/minf/stbl/stts").substr(12),
                 Hex("00000001 00000003 00000028"));
}

// ---- ilst ----------------------------------------------------------------------------------

// The items of the write that failed go out alone; later values come with the write after it.
TEST(AnItemListThatFailed, SendsWhatItHeldBeforeAnythingNew)
{
    CFailingSink sink;
    CMp4IlstAtom box(&sink);
    box.SetItem("title", "A");
    sink.m_failing = 1;
    EXPECT_THROW(box.Write(), kv_mp4_exception);
    EXPECT_EQ(sink.m_bytes, "");
    box.SetItem("title", "BC");
    box.Write();
    EXPECT_BYTES(sink.m_bytes, Hex("00000021 'ilst' 00000019 a9 'nam' 00000011 'data'"
                                   "00000001 00000000 'A'"));
    sink.Empty();
    box.Write();
    EXPECT_BYTES(sink.m_bytes, Hex("00000022 'ilst' 0000001a a9 'nam' 00000012 'data'"
                                   "00000001 00000000 'BC'"));
}

// ---- The size warning ----------------------------------------------------------------------

// 26 bytes of "fiel" and "pasp" are not counted.
TEST(AProResMovie, MakesTheSizeWarningAtEveryWrite)
{
    CMemorySink sink;
    CMp4MoovAtom box(&sink, false, nullptr);
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_PRORES;
    info.prores_format = MP4_PRORES_422;
    box.SetVideoTrack(info);
    box.m_trakVideo.AddSample(36, 100, 0, 0, true, true);
    const CLogLines log;
    std::string expected;
    for (const bool checkpoint : {true, false, true}) {
        sink.m_bytes.clear();
        sink.m_position = 0;
        checkpoint ? box.Write(0) : box.Write();
        const std::size_t size = sink.m_bytes.size();
        if (!checkpoint)
            expected += "info moov update size finished\n";
        expected += "warning calc size(" + std::to_string(size - 26) +
                    ") not equal to moov real size:" + std::to_string(size) + "\n" +
                    "info m_mvhd size:108, m_trakVideo size:" +
                    std::to_string(size - 26 - 8 - 108 - 61) +
                    ", m_trakAudio size:0, m_trakSubtitle size:0, m_trackTC size:0, "
                    "m_udta size:61\n";
        EXPECT_EQ(log.Text(), expected);
    }
}

TEST(AMovieWithAudio, MakesTheSizeWarningAtEveryWrite)
{
    CMemorySink sink;
    CMp4MoovAtom box(&sink, false, nullptr);
    box.SetAudioTrack({48000, 0, MP4_AUDIO_AAC_RAW, 48000, 2, 2});
    box.AddAudioSample(36, 10, 0);
    const CLogLines log;
    box.Write(0);
    box.Write(0);
    box.Write();
    std::size_t warnings = 0;
    for (std::size_t at = 0; (at = log.Text().find("warning calc size(", at)) != std::string::npos;
         ++at)
        ++warnings;
    EXPECT_EQ(warnings, 3u);
}
