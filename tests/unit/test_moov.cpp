#include "boxes.h"
#include "moov.h"
#include "parameter_sets.h"

namespace {

const std::string kMatrix = Hex("00010000 00000000 00000000 00000000 00010000 00000000"
                                "00000000 00000000 40000000");
const std::string kVideoTrak = "trak(tkhd edts(elst) mdia(mdhd hdlr minf(vmhd hdlr dinf(dref) "
                               "stbl(stsd stts stsz stsc stco stss))))";
const std::string kAudioTrak = "trak(tkhd edts(elst) mdia(mdhd hdlr minf(smhd hdlr dinf(dref) "
                               "stbl(stsd stts stsz stsc stco))))";
const std::string kTimeCodeTrak = "trak(tkhd edts(elst) mdia(mdhd hdlr minf(gmhd(gmin text "
                                  "tmcd(tcmi)) hdlr dinf(dref) stbl(stsd stts stsc stsz stco))))";
const std::string kCaptionTrak = "trak(tkhd edts(elst) mdia(mdhd hdlr minf(gmhd(gmin text "
                                 "tmcd(tcmi)) hdlr dinf(dref) stbl(stsd stts stsz stsc stco))))";
const std::string kUdta = "udta(meta(hdlr ilst))";

struct Movie : testing::Test {
    CMemorySink sink;
    CMp4MoovAtom box{&sink, false, nullptr};
    CLogLines log;

    void SetVideo(std::uint32_t timescale = 1000, std::uint64_t sampleDuration = 0)
    {
        mp4_video_track_info info = Record(MP4_VIDEO_H264, "", sps, pps);
        info.timescale = timescale;
        info.sample_duration = sampleDuration;
        box.SetVideoTrack(info);
    }
    void SetAudio(std::uint32_t timescale = 48000, std::uint64_t sampleDuration = 0)
    {
        box.SetAudioTrack({timescale, sampleDuration, MP4_AUDIO_AAC_RAW, 48000, 2, 2});
    }
    void SetCaptions(std::uint32_t timescale = 0) { box.SetSubtitleTrack({1, timescale}); }
    void SetTimeCode(std::uint32_t timescale = 25) { box.SetTimeCodeTrack({timescale, 1, 25, 0}); }
    // As the muxer does it.
    void AddVideo(std::uint64_t time, bool key = true)
    {
        CMp4VideoTrakAtom& track = box.m_trakVideo;
        track.AddSample(36, 100, time, time, key, box.m_lastTrackId != track.m_trackId);
        box.m_lastTrackId = track.m_trackId;
    }
    void AddTimeCode()
    {
        CMp4TCTrakAtom& track = box.m_trackTC;
        track.m_mdia.m_minf.m_stbl.AddSample(36, box.m_lastTrackId != track.m_trackId);
        ++track.m_sampleCount;
        box.m_lastTrackId = track.m_trackId;
    }
    void AllTracks()
    {
        SetVideo();
        SetAudio();
        SetTimeCode();
        SetCaptions();
        AddVideo(0);
        AddVideo(40);
        box.AddAudioSample(136, 50, 0);
        AddTimeCode();
        box.AddSubtitleSample(190, 6, 0);
    }
    std::string Written()
    {
        sink.m_bytes.clear();
        sink.m_position = 0;
        sink.m_writes.clear();
        box.Write();
        return sink.m_bytes;
    }
    std::uint32_t MovieDuration() { return U32At(Find(Written(), "moov/mvhd"), 24); }

    std::string sps = Hex("67 4d 40 1f");
    std::string pps = Hex("68 ee");
};

struct StagedMovie : testing::Test {
    CMemorySink file;
    CBufferIO staging;
    CMp4MoovAtom box{(staging.AttachSink(&file), &staging), true, &file};
    CLogLines log;
};

}  // namespace

// ---- mvhd ----------------------------------------------------------------------------------

TEST(MovieHeader, Version0)
{
    On<CMp4MvhdAtom> on;
    on.box.m_duration = 0x100000005;
    on.box.m_maxTrackId = 3;
    EXPECT_BYTES(on.Written(), Hex("0000006c 'mvhd' 00000000 00000000 00000000 000003e8 00000005"
                                   "00010000 0100 0000 0000000000000000") + kMatrix + Zeros(24) +
                                   Hex("00000004"));
    EXPECT_EQ(on.box.GetSize(), 108u);
}

TEST(MovieHeader, Version1)
{
    On<CMp4MvhdAtom> on;
    on.box.m_version = 1;
    on.box.m_duration = 0x100000005;
    EXPECT_BYTES(on.Written(), Hex("00000078 'mvhd' 01000000 0000000000000000 0000000000000000"
                                   "000003e8 0000000100000005 00010000 0100 0000"
                                   "0000000000000000") +
                                   kMatrix + Zeros(24) + Hex("00000002"));
    EXPECT_EQ(on.box.GetSize(), 120u);
}

TEST(MovieHeader, AnyOtherVersionIsWrittenAs1)
{
    On<CMp4MvhdAtom> on;
    on.box.m_version = 2;
    EXPECT_BYTES(on.Written().substr(8, 4), Hex("01000000"));
    EXPECT_EQ(on.Written().size(), 120u);
}

// ---- Set-up --------------------------------------------------------------------------------

TEST_F(Movie, IdsFollowTheOrderOfTheCalls)
{
    SetAudio();
    SetVideo();
    EXPECT_EQ(box.m_trakAudio.m_trackId, 1u);
    EXPECT_EQ(box.m_trakVideo.m_trackId, 2u);
    EXPECT_EQ(box.m_trakVideo.m_tkhd.m_trackId, 2u);
    EXPECT_EQ(U32At(Find(Written(), "moov/mvhd"), 104), 3u);
}

TEST_F(Movie, WithoutTracksTheNextIdIs2)
{
    EXPECT_EQ(U32At(Find(Written(), "moov/mvhd"), 104), 2u);
}

TEST_F(Movie, DescribingATrackAnewTakesAnotherId)
{
    SetVideo();
    SetVideo();
    EXPECT_EQ(box.m_trakVideo.m_trackId, 2u);
    EXPECT_EQ(box.m_trackCount, 2u);
}

TEST_F(Movie, ATimescaleOfZeroBecomes1000ButForTheTimeCode)
{
    SetVideo(0);
    SetAudio(0);
    SetCaptions(0);
    SetTimeCode(0);
    EXPECT_EQ(box.m_trakVideo.GetTimescale(), 1000u);
    EXPECT_EQ(box.m_trakAudio.m_mdia.m_mdhd.m_timescale, 1000u);
    EXPECT_EQ(box.m_trakSubtitle.m_mdia.m_mdhd.m_timescale, 1000u);
    EXPECT_EQ(box.m_trackTC.m_mdia.m_mdhd.m_timescale, 0u);
}

TEST_F(Movie, AVideoRecordReachesItsBoxes)
{
    SetVideo(90000, 0x100000E10);
    AddVideo(0);
    const std::string trak = Find(Written(), "moov/trak");
    EXPECT_BYTES(Find(trak, "trak/tkhd").substr(84), Hex("07800000 04380000"));
    EXPECT_EQ(U32At(Find(trak, "trak/mdia/mdhd"), 20), 90000u);
    EXPECT_BYTES(Find(trak, "trak/mdia/minf/stbl/stts").substr(16), Hex("00000001 00000e10"));
    EXPECT_BYTES(Find(trak, "trak/mdia/minf/stbl/stsd").substr(48, 4), Hex("0780 0438"));
    EXPECT_BYTES(Find(trak, "trak/mdia/minf/stbl/stsd/avc1").substr(90, 4), "avcC");
}

TEST_F(Movie, AnHevcRecordMakesAHev1Entry)
{
    const std::string vps = HevcVps(), hevcSps = HevcSps(), hevcPps = HevcPps();
    box.SetVideoTrack(Record(MP4_VIDEO_HEVC, vps, hevcSps, hevcPps));
    AddVideo(0);
    EXPECT_BYTES(Find(Written(), "moov/trak/mdia/minf/stbl/stsd/hev1").substr(90, 4), "hvcC");
}

TEST_F(Movie, AProResRecordMakesAnEntryOfItsFormat)
{
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_PRORES;
    info.prores_format = 5;
    box.SetVideoTrack(info);
    AddVideo(0);
    EXPECT_EQ(Find(Written(), "moov/trak/mdia/minf/stbl/stsd/ap4x").size(), 112u);
}

TEST_F(Movie, AnUnknownVideoCodecLeavesTheEntryAsItWas)
{
    mp4_video_track_info info{};
    info.codec = 3;
    box.SetVideoTrack(info);
    AddVideo(0);
    EXPECT_BYTES(Find(Written(), "moov/trak/mdia/minf/stbl/stsd").substr(16),
                 Hex("00000056") + Zeros(10) + Hex("0001") + Zeros(20) +
                     Hex("00480000 00480000 00000000 0001") + Zeros(32) + Hex("0018 ffff"));
}

// 11 90: AAC LC at 48000 Hz in stereo.
TEST_F(Movie, AnAudioRecordReachesBothForms)
{
    SetVideo();
    SetAudio();
    for (const CMp4EsdsAtom* esds : {&box.m_trakAudio.m_mdia.m_minf.m_stbl.m_stsd.m_esds,
                                     &box.m_trakAudio.m_mdia.m_minf.m_stbl.m_stsd.m_wave.m_esds}) {
        EXPECT_EQ(esds->m_esId, 2u);
        ASSERT_EQ(esds->m_configSize, 2u);
        EXPECT_EQ(esds->m_config[0], 0x11);
        EXPECT_EQ(esds->m_config[1], 0x90);
    }
    EXPECT_EQ(box.m_trakAudio.m_mdia.m_minf.m_stbl.m_stsd.m_sampleRate, 48000);
    EXPECT_EQ(box.m_trakAudio.m_mdia.m_minf.m_stbl.m_stsd.m_wave.m_trackId, 2u);
}

TEST_F(Movie, AnUnknownAudioCodecLeavesTheEntryWithoutType)
{
    box.SetAudioTrack({48000, 0, 3, 48000, 2, 2});
    box.AddAudioSample(36, 10, 0);
    const std::string stsd = Find(Written(), "moov/trak/mdia/minf/stbl/stsd");
    EXPECT_BYTES(stsd.substr(20, 4), Zeros(4));
    EXPECT_EQ(stsd.size(), 52u + 44);  // an "esds" without configuration
}

TEST_F(Movie, ALoneCaptionHasTheDeltaZero)
{
    SetCaptions();
    box.AddSubtitleSample(36, 10, 500);
    EXPECT_BYTES(Find(Written(), "moov/trak/mdia/minf/stbl/stts").substr(16),
                 Hex("00000001 00000000"));
}

TEST_F(Movie, ATimeCodeRecordReplacesTheInitialValuesAlsoWithZeros)
{
    SetVideo();
    box.SetTimeCodeTrack({0, 0, 0, 0});
    AddTimeCode();
    EXPECT_BYTES(Find(Written(), "moov/trak/mdia/minf/stbl/stsd/tmcd").substr(16), Zeros(20));
}

TEST_F(Movie, TheVideoTrackRefersToTheTimeCode)
{
    SetVideo();
    SetTimeCode();
    AddVideo(0);
    EXPECT_BYTES(Find(Written(), "moov/trak/tref"),
                 Hex("00000014 'tref' 0000000c 'tmcd' 00000002"));
}

TEST_F(Movie, HeadersShowTheKindOfTheirTrack)
{
    AllTracks();
    const std::string bytes = Written();
    const char* expected[] = {"00000003 0000 0000", "00000003 0001 0100", "00000002 0000 0100",
                              "00000003 0000 0100"};  // flags, group, volume
    for (int i = 0; i < 4; ++i) {
        const std::string tkhd = Find(bytes, "moov/trak:" + std::to_string(i + 1) + "/tkhd");
        EXPECT_BYTES(tkhd.substr(8, 4) + tkhd.substr(42, 4), Hex(expected[i]));
    }
}

// ---- Samples and chunks --------------------------------------------------------------------

TEST_F(Movie, AudioAloneIsOneChunk)
{
    SetAudio();
    for (std::uint64_t i = 0; i < 3; ++i)
        box.AddAudioSample(36 + 10 * i, 10, 1024 * i);
    const std::string stbl = Find(Written(), "moov/trak/mdia/minf/stbl");
    EXPECT_BYTES(Find(stbl, "stbl/stco").substr(12), Hex("00000001 00000024"));
    EXPECT_BYTES(Find(stbl, "stbl/stsc").substr(12), Hex("00000001 00000001 00000003 00000001"));
}

TEST_F(Movie, AChangeOfTrackOpensAChunk)
{
    SetAudio();
    SetCaptions();
    box.AddAudioSample(36, 10, 0);
    box.AddSubtitleSample(46, 5, 0);
    box.AddAudioSample(51, 10, 1024);
    EXPECT_BYTES(Find(Written(), "moov/trak/mdia/minf/stbl/stco").substr(12),
                 Hex("00000002 00000024 00000033"));
}

// Id 0 is the initial owner of the previous sample, so that no chunk opens.
TEST_F(Movie, SamplesAheadOfTheSetUpHaveASizeAndNoChunk)
{
    box.AddAudioSample(36, 10, 0);
    SetAudio();
    box.AddAudioSample(46, 12, 1024);
    const std::string stbl = Find(Written(), "moov/trak/mdia/minf/stbl");
    EXPECT_BYTES(Find(stbl, "stbl/stsz").substr(12), Hex("00000000 00000002 0000000a 0000000c"));
    EXPECT_BYTES(Find(stbl, "stbl/stsc").substr(12), Hex("00000001 00000001 00000001 00000001"));
    EXPECT_BYTES(Find(stbl, "stbl/stco").substr(12), Hex("00000001 0000002e"));
}

TEST_F(Movie, TheFirstTimeOfAudioAndCaptionsIsThatOfSample1)
{
    SetAudio();
    SetCaptions();
    box.AddAudioSample(36, 10, 700);
    box.AddAudioSample(46, 10, 800);
    box.AddSubtitleSample(56, 10, 900);
    EXPECT_EQ(box.m_trakAudio.m_firstTime, 700u);
    EXPECT_EQ(box.m_trakAudio.m_lastDelta, 100u);
    EXPECT_EQ(box.m_trakSubtitle.m_firstTime, 900u);
}

// ---- Durations -----------------------------------------------------------------------------

TEST_F(Movie, VideoAloneGivesTheMovieItsDuration)
{
    SetVideo(90000);
    AddVideo(0);
    AddVideo(3600);
    EXPECT_EQ(box.GetDurationMS(), 80u);
    EXPECT_EQ(MovieDuration(), 80u);
}

TEST_F(Movie, TheLongerOfVideoAndAudioCounts)
{
    SetVideo(1000, 10);
    SetAudio(1000, 20);
    AddVideo(0);
    box.AddAudioSample(136, 10, 0);
    EXPECT_EQ(MovieDuration(), 20u);
    AddVideo(30);
    EXPECT_EQ(MovieDuration(), 40u);
}

TEST_F(Movie, CaptionsAndTimeCodeDoNotCount)
{
    SetVideo(1000, 10);
    SetCaptions();
    AddVideo(0);
    box.AddSubtitleSample(136, 10, 0);
    box.AddSubtitleSample(146, 10, 5000);
    EXPECT_EQ(MovieDuration(), 10u);
}

TEST_F(Movie, AnEmptyMovieLastsNoTime)
{
    EXPECT_EQ(box.GetDurationMS(), 0u);
    EXPECT_EQ(MovieDuration(), 0u);
}

TEST_F(Movie, AskingForTheDurationLatchesIt)
{
    SetVideo();
    AddVideo(0);
    AddVideo(40);
    EXPECT_EQ(box.GetDurationMS(), 80u);
    AddVideo(200);
    EXPECT_EQ(box.GetDurationMS(), 240u);
}

TEST_F(Movie, TheTimeCodeLastsAsLongAsTheVideo)
{
    SetVideo(1000, 40);
    SetTimeCode(25);
    AddVideo(0);
    AddVideo(1960);
    AddTimeCode();
    const std::string trak = Find(Written(), "moov/trak:2");
    EXPECT_EQ(U32At(Find(trak, "trak/mdia/mdhd"), 24), 50u);  // 2000 ms at 25 a second
    EXPECT_EQ(U32At(Find(trak, "trak/tkhd"), 28), 2000u);
    EXPECT_BYTES(Find(trak, "trak/mdia/minf/stbl/stts").substr(16), Hex("00000001 00000032"));
}

TEST_F(Movie, LongDurationsAreForVideoAndAudioOnly)
{
    AllTracks();
    box.SetLongDuration();
    const std::string bytes = Written();
    EXPECT_EQ(Find(bytes, "moov/mvhd").size(), 120u);
    const std::size_t expected[] = {104, 104, 92, 92};
    for (int i = 0; i < 4; ++i) {
        const std::string trak = Find(bytes, "moov/trak:" + std::to_string(i + 1));
        EXPECT_EQ(Find(trak, "trak/tkhd").size(), expected[i]);
        EXPECT_EQ(Find(trak, "trak/mdia/mdhd").size(), i < 2 ? 44u : 32u);
        EXPECT_EQ(Find(trak, "trak/edts/elst").size(), i < 2 ? 36u : 28u);
    }
}

// ---- The close path ------------------------------------------------------------------------

TEST_F(Movie, AtTheCloseTheTimeCodePrecedesTheCaptions)
{
    AllTracks();
    std::string video = kVideoTrak;
    video.insert(video.find(" mdia"), " tref(tmcd)");
    EXPECT_EQ(Tree(Written()), "moov(mvhd " + video + " " + kAudioTrak + " " + kTimeCodeTrak + " " +
                                   kCaptionTrak + " " + kUdta + ")");
}

TEST_F(Movie, TracksThatWereNeverSetAreAbsent)
{
    EXPECT_EQ(Tree(Written()), "moov(mvhd " + kUdta + ")");
    EXPECT_EQ(box.GetSize(), 8u + 108 + 61);
    EXPECT_EQ(log.Text(), "info moov update size finished\n");
}

TEST_F(Movie, ATrackWithoutSamplesIsReportedOncePerWrite)
{
    SetAudio();
    EXPECT_EQ(Tree(Written()), "moov(mvhd " + kUdta + ")");
    EXPECT_EQ(log.Text(), "error audio track samples 0\ninfo moov update size finished\n");
}

TEST_F(Movie, VideoAloneHasTheCalculatedSize)
{
    SetVideo();
    AddVideo(0);
    const std::size_t size = Written().size();
    EXPECT_EQ(size, box.GetSize());
    EXPECT_EQ(log.Text(), "info moov update size finished\n");
}

// The entry's 52 + 51 bytes against the constant 96 are 7 more.
TEST_F(Movie, AudioMakesTheSizeWarning)
{
    SetAudio();
    box.AddAudioSample(36, 10, 0);
    const std::size_t size = Written().size();
    EXPECT_EQ(size, box.GetSize() + 7);
    const std::string audio = std::to_string(box.m_trakAudio.GetSize());
    EXPECT_EQ(log.Text(), "info moov update size finished\n"
                          "warning calc size(" + std::to_string(size - 7) +
                              ") not equal to moov real size:" + std::to_string(size) + "\n"
                          "info m_mvhd size:108, m_trakVideo size:0, m_trakAudio size:" + audio +
                              ", m_trakSubtitle size:0, m_trackTC size:0, m_udta size:61\n");
}

// 29 bytes of "keys" and 26 of its value are not counted.
TEST_F(Movie, AComKeyMakesTheSizeWarning)
{
    SetVideo();
    AddVideo(0);
    EXPECT_TRUE(box.m_udta.m_meta.SetMetadata("com.x", "AB", 0, MP4_METADATA_TEXT, nullptr));
    const std::size_t size = Written().size();
    EXPECT_NE(log.Text().find("warning calc size(" + std::to_string(size - 55) +
                              ") not equal to moov real size:" + std::to_string(size) + "\n"),
              std::string::npos);
    EXPECT_NE(log.Text().find(", m_udta size:61\n"), std::string::npos);
}

TEST_F(Movie, TwoWritesAreAlike)
{
    AllTracks();
    EXPECT_EQ(Written(), Written());
}

TEST_F(Movie, IsWrittenAtThePositionOfTheSink)
{
    AllTracks();
    const std::string expected = Written();
    sink.m_bytes = std::string(100, 'x');
    sink.m_position = 100;
    box.Write();
    EXPECT_EQ(sink.m_bytes, std::string(100, 'x') + expected);
}

TEST_F(Movie, AClosedSinkTakesNothing)
{
    AllTracks();
    sink.Close();
    EXPECT_EQ(Written(), "");
}

TEST_F(Movie, WithoutUsableParameterSetsTheWriteRaises49)
{
    sps = Hex("67 4d 40");
    SetVideo();
    AddVideo(0);
    testing::internal::CaptureStdout();
    int raised = 0;
    try {
        Written();
    } catch (int value) {
        raised = value;
    }
    EXPECT_EQ(raised, 49);
    EXPECT_EQ(log.Text(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "LibMp4 : Error - Invalid sps(3) or pps(2) size !\n");
}

// ---- The checkpoint path -------------------------------------------------------------------

TEST_F(Movie, AtACheckpointTheCaptionsPrecedeTheTimeCode)
{
    AllTracks();
    box.Write(0);
    std::string video = kVideoTrak;
    video.insert(video.find(" mdia"), " tref(tmcd)");
    EXPECT_EQ(Tree(sink.m_bytes), "moov(mvhd " + video + " " + kAudioTrak + " " + kCaptionTrak +
                                      " " + kTimeCodeTrak + " " + kUdta + ")");
}

TEST_F(Movie, ACheckpointLeavesThePositionAndFlushesNothing)
{
    SetVideo();
    AddVideo(0);
    const std::string expected = Written();
    sink.m_bytes = std::string(500, 'x');
    sink.m_position = 50;
    box.Write(500);
    EXPECT_EQ(sink.m_position, 50u);
    EXPECT_EQ(sink.m_bytes, std::string(500, 'x') + expected);
    EXPECT_EQ(sink.m_flushes, 0);
}

TEST_F(Movie, ACheckpointLogsNothingButASizeWarning)
{
    SetVideo();
    AddVideo(0);
    Written();  // so that "stts" counts its open run
    const std::string before = log.Text();
    box.Write(0);
    EXPECT_EQ(log.Text(), before);
    SetAudio();
    box.AddAudioSample(36, 10, 0);
    box.Write(0);
    EXPECT_NE(log.Text().find("warning calc size("), std::string::npos);
}

TEST_F(Movie, SamplesAfterACheckpointAreInTheNext)
{
    SetVideo();
    AddVideo(0);
    box.Write(0);
    AddVideo(40);
    EXPECT_BYTES(Find(Written(), "moov/trak/mdia/minf/stbl/stts").substr(12),
                 Hex("00000001 00000002 00000028"));
}

// ---- Staging -------------------------------------------------------------------------------

TEST_F(StagedMovie, ReachesTheFileInOneWrite)
{
    box.SetAudioTrack({48000, 0, MP4_AUDIO_AAC_RAW, 48000, 2, 2});
    box.AddAudioSample(36, 10, 0);
    file.m_bytes = std::string(60, 'x');
    file.m_position = 60;
    box.Write();
    const std::string moov = file.m_bytes.substr(60);
    EXPECT_EQ(Tree(moov), "moov(mvhd " + kAudioTrak + " " + kUdta + ")");
    EXPECT_EQ(file.m_writes, (std::vector<std::uint32_t>{static_cast<std::uint32_t>(moov.size())}));
}

TEST_F(StagedMovie, LogsTheSizeThatWasFlushed)
{
    box.Write();
    EXPECT_EQ(log.Text(), "info moov update size finished\ninfo moov flush finished, size:177\n");
}

TEST_F(StagedMovie, HasRoomForItsSizeAnd1024MoreFromTheStart)
{
    box.Write();
    EXPECT_EQ(staging.Capacity(), 177u + 1024);
}

TEST_F(StagedMovie, TwoWritesAreAlike)
{
    box.Write();
    const std::string first = file.m_bytes;
    box.Write();
    EXPECT_EQ(file.m_bytes, first + first);
}

TEST_F(StagedMovie, ACheckpointBeyondTheBufferFails)
{
    testing::internal::CaptureStdout();
    EXPECT_THROW(box.Write(1), kv_mp4_exception);
    testing::internal::GetCapturedStdout();
}
