#include "boxes.h"
#include "mdia.h"

namespace {

template <typename Box>
std::string Bytes()
{
    On<Box> on;
    return on.Written();
}

template <typename Box>
std::uint32_t Size()
{
    On<Box> on;
    return on.box.GetSize();
}

const std::string kMatrix = Hex("00010000 00000000 00000000 00000000 00010000 00000000"
                                "00000000 00000000 40000000");
const std::string kGmin = Hex("00000018 'gmin' 00000000 0040 8000 8000 8000 0000 0000");
const std::string kText = Hex("0000002c 'text'") + kMatrix;
const std::string kTcmi = Hex("00000036 'tmcd' 0000002e 'tcmi' 00000000 0000 0001 000c 0000"
                              "ffff ffff ffff 0000 0000 0000 0d 'Lucida Grande'");

}  // namespace

// ---- mdhd ----------------------------------------------------------------------------------

TEST(MediaHeader, Version0Has32BitTimes)
{
    On<CMp4MdhdAtom> on;
    on.box.m_timescale = 90000;
    on.box.m_duration = 0x100000001;
    EXPECT_BYTES(on.Written(), Hex("00000020 'mdhd' 00000000 00000000 00000000 00015f90 00000001"
                                   "55c4 0000"));
    EXPECT_EQ(on.box.GetSize(), 32u);
}

TEST(MediaHeader, Version1Has64BitTimes)
{
    On<CMp4MdhdAtom> on;
    on.box.m_version = 1;
    on.box.m_duration = 0x100000001;
    EXPECT_BYTES(on.Written(), Hex("0000002c 'mdhd' 01000000 0000000000000000 0000000000000000"
                                   "000003e8 0000000100000001 55c4 0000"));
    EXPECT_EQ(on.box.GetSize(), 44u);
}

TEST(MediaHeader, AnyOtherVersionIsWrittenAs1)
{
    On<CMp4MdhdAtom> on;
    on.box.m_version = 2;
    EXPECT_BYTES(on.Written().substr(8, 4), Hex("01000000"));
}

// ---- hdlr ----------------------------------------------------------------------------------

TEST(Handler, OfVideo)
{
    EXPECT_BYTES(Bytes<CMp4VideoHdlrAtom>(),
                 Hex("0000002d 'hdlr' 00000000 'mhlrvide' 00000000 00000000 00000000"
                     "0c 'VideoHandler'"));
    EXPECT_EQ(Size<CMp4VideoHdlrAtom>(), 45u);
}

TEST(Handler, OfAudio)
{
    EXPECT_BYTES(Bytes<CMp4AudioHdlrAtom>(),
                 Hex("0000002d 'hdlr' 00000000 'mhlrsoun' 00000000 00000000 00000000"
                     "0c 'SoundHandler'"));
    EXPECT_EQ(Size<CMp4AudioHdlrAtom>(), 45u);
}

TEST(Handler, OfTheTimeCode)
{
    EXPECT_BYTES(Bytes<CMp4SubtHdlrAtom>(),
                 Hex("00000030 'hdlr' 00000000 'mhlrtmcd' 00000000 00000000 00000000"
                     "0f 'TimeCodeHandler'"));
    EXPECT_EQ(Size<CMp4SubtHdlrAtom>(), 48u);
}

TEST(Handler, OfCaptionsHasOneTypeWord)
{
    EXPECT_BYTES(Bytes<CMp4SubtitleHdlrAtom>(),
                 Hex("0000002c 'hdlr' 00000000 'clcp' 00000000 00000000 00000000"
                     "0f 'lumivane stream'"));
    EXPECT_EQ(Size<CMp4SubtitleHdlrAtom>(), 44u);
}

TEST(Handler, OfTheDataReference)
{
    EXPECT_BYTES(Bytes<CMp4UrlHdlrAtom>(),
                 Hex("0000002c 'hdlr' 00000000 'dhlrurl ' 00000000 00000000 00000000"
                     "0b 'DataHandler'"));
    EXPECT_EQ(Size<CMp4UrlHdlrAtom>(), 44u);
}

// Each kind has its own; this one is of no box.
TEST(Handler, OfNoKindCountsItsCommonPart)
{
    On<CMp4VideoHdlrAtom> on;
    EXPECT_EQ(on.box.CMp4HdlrAtom::GetSize(), 24u);
}

TEST(Handler, IsOneWrite)
{
    On<CMp4VideoHdlrAtom> on;
    on.Written();
    EXPECT_EQ(on.sink.m_writes, (std::vector<std::uint32_t>{45}));
}

// ---- Headers of the media information ------------------------------------------------------

TEST(MediaInfoHeader, OfVideo)
{
    EXPECT_BYTES(Bytes<CMp4VmhdAtom>(), Hex("00000014 'vmhd' 00000001 0000000000000000"));
    EXPECT_EQ(Size<CMp4VmhdAtom>(), 20u);
}

TEST(MediaInfoHeader, OfAudio)
{
    EXPECT_BYTES(Bytes<CMp4SmhdAtom>(), Hex("00000010 'smhd' 00000000 0000 0000"));
    EXPECT_EQ(Size<CMp4SmhdAtom>(), 16u);
}

TEST(MediaInfoHeader, Gmin)
{
    EXPECT_BYTES(Bytes<CMp4GminAtom>(), kGmin);
    EXPECT_EQ(Size<CMp4GminAtom>(), 24u);
}

TEST(MediaInfoHeader, TextIsAnIdentityMatrix)
{
    EXPECT_BYTES(Bytes<CMp4TextAtom>(), kText);
    EXPECT_EQ(Size<CMp4TextAtom>(), 44u);
}

TEST(MediaInfoHeader, TcmiStandsInATmcd)
{
    EXPECT_BYTES(Bytes<CMp4TcmiAtom>(), kTcmi);
    EXPECT_EQ(Size<CMp4TcmiAtom>(), 54u);
}

TEST(MediaInfoHeader, GmhdHasThreeChildren)
{
    EXPECT_BYTES(Bytes<CMp4GmhdAtom>(), Hex("00000082 'gmhd'") + kGmin + kText + kTcmi);
    EXPECT_EQ(Size<CMp4GmhdAtom>(), 130u);
}

TEST(MediaInfoHeader, NmhdHasTwoChildrenAndNoFieldsOfItsOwn)
{
    EXPECT_BYTES(Bytes<CMp4NmhdAtom>(), Hex("0000004c 'nmhd'") + kGmin + kText);
    EXPECT_EQ(Size<CMp4NmhdAtom>(), 76u);
}

TEST(DataReference, IsTheFileItself)
{
    EXPECT_BYTES(Bytes<CMp4DinfAtom>(), Hex("00000024 'dinf' 0000001c 'dref' 00000000 00000001"
                                            "0000000c 'url ' 00000001"));
    EXPECT_EQ(Size<CMp4DinfAtom>(), 36u);
    EXPECT_EQ(Size<CMp4DrefAtom>(), 28u);
}

// ---- minf and mdia -------------------------------------------------------------------------

TEST(Media, OfAudio)
{
    EXPECT_EQ(Tree(Bytes<CMp4AudioMdiaAtom>()),
              "mdia(mdhd hdlr minf(smhd hdlr dinf(dref) stbl(stsd stts stsz stsc stco)))");
}

TEST(Media, OfProResVideo)
{
    On<CMp4VideoMdiaAtom> on;
    EXPECT_EQ(Tree(on.Written()),
              "mdia(mdhd hdlr minf(vmhd hdlr dinf(dref) stbl(stsd stts stsz stsc stco stss)))");
}

TEST(Media, OfCaptionsHasGmhd)
{
    EXPECT_EQ(Tree(Bytes<CMp4SubtitleMdiaAtom>()),
              "mdia(mdhd hdlr minf(gmhd(gmin text tmcd(tcmi)) hdlr dinf(dref) "
              "stbl(stsd stts stsz stsc stco)))");
}

TEST(Media, OfTheTimeCodeHasGmhdInMovFiles)
{
    EXPECT_EQ(Tree(Bytes<CMp4TCMdiaAtom>()),
              "mdia(mdhd hdlr minf(gmhd(gmin text tmcd(tcmi)) hdlr dinf(dref) "
              "stbl(stsd stts stsc stsz stco)))");
}

TEST(Media, OfTheTimeCodeHasNmhdInMp4Files)
{
    On<CMp4TCMdiaAtom> on;
    on.box.m_minf.m_useNmhd = true;
    EXPECT_EQ(Tree(on.Written()), "mdia(mdhd hdlr minf(nmhd(gmin text) hdlr dinf(dref) "
                                  "stbl(stsd stts stsc stsz stco)))");
}

// All parts but "stbl" are constants: 32 + handler + 8 + 44 + 36 + header + 8.
TEST(Media, SizesAreExactForCaptionsAndTimeCode)
{
    On<CMp4SubtitleMdiaAtom> captions;
    EXPECT_EQ(captions.box.GetSize(), captions.Written().size());
    On<CMp4TCMdiaAtom> timeCode;
    EXPECT_EQ(timeCode.box.GetSize(), timeCode.Written().size());
    timeCode.box.m_minf.m_useNmhd = true;
    EXPECT_EQ(timeCode.box.GetSize(), timeCode.Written().size());
}

TEST(Media, SizesAreExactWith64BitOffsets)
{
    On<CMp4TCMdiaAtom> timeCode;
    timeCode.box.m_minf.m_stbl.m_useCo64 = true;
    timeCode.box.m_minf.m_stbl.AddSample(36, true);
    const std::string bytes = timeCode.Written();
    EXPECT_EQ(timeCode.box.m_minf.GetSize(), Find(bytes, "mdia/minf").size());
    EXPECT_EQ(timeCode.box.GetSize(), bytes.size());
}

TEST(Media, OnlyVideoAndAudioKnowTheirDataSize)
{
    On<CMp4VideoMdiaAtom> video;
    On<CMp4AudioMdiaAtom> audio;
    On<CMp4SubtitleMdiaAtom> captions;
    On<CMp4TCMdiaAtom> timeCode;
    video.box.m_minf.m_stbl.AddSample(0, 7, 0, 0, true);
    audio.box.m_minf.m_stbl.AddSample(0, 8, 0, 0, true);
    captions.box.m_minf.m_stbl.AddSample(0, 9, 0, 0, true);
    timeCode.box.m_minf.m_stbl.AddSample(0, true);
    EXPECT_EQ(video.box.GetDataSize(), 7u);
    EXPECT_EQ(audio.box.GetDataSize(), 8u);
    EXPECT_EQ(captions.box.GetDataSize(), 0u);
    EXPECT_EQ(timeCode.box.GetDataSize(), 0u);
}
