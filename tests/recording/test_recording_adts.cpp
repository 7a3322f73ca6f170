// ADTS streams: what their first header tells, what is taken off their frames, and what is not
// looked at.
#include "support/recording.h"
#include "support/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kvtest;
using testing::ElementsAre;
using testing::IsEmpty;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kStbl = "moov/trak.soun/mdia/minf/stbl/";

// An ADTS frame without CRC: its third and fourth byte tell the stream, `payload` follows.
Bytes Adts(const char* stream, const Bytes& payload = Hex("AA BB CC"))
{
    return Hex("FF F1") + Hex(stream) + Hex("01 1F FC") + payload;
}

// What a file says of its audio.
struct Description {
    Bytes entry;   // of the sample entry, the channel count, which is always 2, to the rate
    Bytes config;  // the two bytes of AudioSpecificConfig
};

Description Described(const BoxFile& file)
{
    const Bytes stsd = file.Box(kStbl + "stsd");
    EXPECT_EQ(stsd.size(), 103u);
    if (stsd.size() != 103)
        return {};
    return {Bytes(stsd.begin() + 40, stsd.begin() + 52), Bytes(stsd.end() - 8, stsd.end() - 6)};
}

Description DescribedBy(const Bytes& frame)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(frame, 0), 0u);
    return Described(rec.Close());
}

// The configuration of a raw record with so many channels.
Bytes ConfigOf(std::uint16_t channels, std::uint16_t rate = 48000)
{
    Recording rec;
    const mp4_audio_track_info info{1000, 0, MP4_AUDIO_AAC_RAW, rate, channels, 2};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(rec.Audio(Bytes(10, 1), 0), 0u);
    return Described(rec.Close()).config;
}

}  // namespace

// ---- The description -------------------------------------------------------------------------

TEST(AnAdtsHeader, TellsProfileRateAndChannels)
{
    const Description at44 = DescribedBy(Adts("50 80"));
    EXPECT_EQ(at44.entry, Hex("0002 0010 0000 0000 AC44 0000"));
    EXPECT_EQ(at44.config, Hex("12 10"));
    const Description at48 = DescribedBy(Adts("4C 80"));
    EXPECT_EQ(at48.entry, Hex("0002 0010 0000 0000 BB80 0000"));
    EXPECT_EQ(at48.config, Hex("11 90"));
    const Description at16 = DescribedBy(Adts("60 80"));
    EXPECT_EQ(at16.entry, Hex("0002 0010 0000 0000 3E80 0000"));
    EXPECT_EQ(at16.config, Hex("14 10"));
}

// Configuration 7 has eight channels; the number is carried as it stands.
TEST(AnAdtsHeader, OfConfiguration7Has7Channels)
{
    const Description seven = DescribedBy(Adts("4D C0"));
    EXPECT_EQ(seven.entry, Hex("0002 0010 0000 0000 BB80 0000"));
    EXPECT_EQ(seven.config, Hex("11 B8"));
}

// Profiles 0, 2 and 3: Main, SSR and LTP.
TEST(AnAdtsHeader, GivesItsProfilePlus1AsObjectType)
{
    EXPECT_EQ(DescribedBy(Adts("0C 80")).config, Hex("09 90"));
    EXPECT_EQ(DescribedBy(Adts("8C 80")).config, Hex("19 90"));
    EXPECT_EQ(DescribedBy(Adts("CC 80")).config, Hex("21 90"));
}

// The private bit, and all that stands behind the channels.
TEST(AnAdtsHeader, IsReadPastItsOtherBits)
{
    const Description plain = DescribedBy(Adts("4C 80"));
    const Description odd = DescribedBy(Adts("4E BF"));
    EXPECT_EQ(odd.entry, plain.entry);
    EXPECT_EQ(odd.config, Hex("11 90"));
}

TEST(AnAdtsHeader, DescribesTheStreamInsideWaveToo)
{
    Recording rec("clip.mov");
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80"), 0), 0u);
    const BoxFile file = rec.Close();
    const Bytes esds = file.Box(kStbl + "stsd/mp4a/wave/esds");
    ASSERT_EQ(esds.size(), 51u);
    EXPECT_EQ(Bytes(esds.begin() + 38, esds.begin() + 45), Hex("05 80808002 1190"));
    EXPECT_EQ(file.U16(file.Find(kStbl + "stsd/mp4a").begin + 32), 0xBB80);
}

TEST(AnAdtsHeader, OfARateWithoutAnIndexDeclares44100)
{
    const Description at88 = DescribedBy(Adts("44 80"));
    EXPECT_EQ(at88.entry, Hex("0002 0010 0000 0000 5888 0000"));  // 22664
    EXPECT_EQ(at88.config, Hex("12 10"));
    const Description at7 = DescribedBy(Adts("70 80"));
    EXPECT_EQ(at7.entry, Hex("0002 0010 0000 0000 1CB6 0000"));  // 7350
    EXPECT_EQ(at7.config, Hex("12 10"));
}

// Refused in a record of raw AAC, taken from a stream.
TEST(AnAdtsHeader, MayHaveAReservedRateAndNoChannels)
{
    for (const char* stream : {"74 00", "78 00", "7C 00"}) {
        const Description none = DescribedBy(Adts(stream));
        EXPECT_EQ(none.entry, Hex("0002 0010 0000 0000 0000 0000"));
        EXPECT_EQ(none.config, Hex("12 00"));
    }
}

TEST(AnAdtsHeader, LeavesTimescaleAndDurationAsTheRecordHadThem)
{
    Recording rec;
    const mp4_audio_track_info info{1000, 77, MP4_AUDIO_AAC_ADTS, 0, 0, 0};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80"), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box("moov/trak.soun/mdia/mdhd"), 20).at(0), 1000u);
    EXPECT_EQ(Words(file.Box(kStbl + "stts"), 12), (Numbers{1, 1, 77}));
}

TEST(AnAdtsTrack, KeepsTheDescriptionOfItsFirstFrame)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80"), 0), 0u);
    EXPECT_EQ(rec.Audio(Adts("60 40"), 21), 0u);  // 16000 Hz, mono
    EXPECT_EQ(rec.Log().Count("info ADTS stream, get and set audio track"), 1u);
    const Description kept = Described(rec.Close());
    EXPECT_EQ(kept.entry, Hex("0002 0010 0000 0000 BB80 0000"));
    EXPECT_EQ(kept.config, Hex("11 90"));
}

TEST(AnAdtsTrack, ThatIsSetAgainIsDescribedAgain)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80"), 0), 0u);
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Bytes(9, 1), 21), 7u);
    EXPECT_EQ(rec.Audio(Adts("60 40"), 42), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Described(file).entry, Hex("0002 0010 0000 0000 3E80 0000"));
    EXPECT_EQ(Described(file).config, Hex("14 08"));
    EXPECT_EQ(Words(file.Box("moov/trak.soun/tkhd"), 20).at(0), 2u);
}

TEST(AnAdtsTrack, WaitsOnThroughAnEmptyFrame)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio({}, 0), 0u);
    EXPECT_EQ(rec.Log().Count("error invalid ADTS stream, please check it."), 0u);
    EXPECT_EQ(rec.Audio(Adts("60 40"), 21), 0u);  // 16000 Hz, mono
    EXPECT_EQ(rec.Log().Count("info ADTS stream, get and set audio track"), 1u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Described(file).entry, Hex("0002 0010 0000 0000 3E80 0000"));
    EXPECT_THAT(Samples(file, "trak.soun"), ElementsAre(Hex("AA BB CC")));
}

TEST(AnAdtsTrack, HasNoIdBeforeItsFirstFrame)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.SetH264(), 0u);
    rec.FramesAt({0});
    EXPECT_EQ(rec.Audio(Adts("4C 80"), 0), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box("moov/trak.vide/tkhd"), 20).at(0), 1u);
    EXPECT_EQ(Words(file.Box("moov/trak.soun/tkhd"), 20).at(0), 2u);
}

TEST(AnAdtsTrack, WithoutAnyAdtsFrameIsLeftOutWithItsData)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Bytes(30, 1), 0), 7u);
    EXPECT_EQ(rec.Audio(Hex("FF E1 4C 80 01 1F FC 00"), 21), 7u);
    EXPECT_EQ(rec.Audio(Hex("FE F1 4C 80 01 1F FC 00"), 42), 7u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(file.Box("mdat").size(), 8u);
    EXPECT_FALSE(file.Has("moov/trak"));
}

// ---- The samples -----------------------------------------------------------------------------

TEST(AnAdtsFrame, Of8BytesLeavesOne)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80", Hex("5A")), 0), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80", {}), 21), 0u);  // 7 bytes are no ADTS frame
    EXPECT_THAT(Samples(rec.Close(), "trak.soun"),
                ElementsAre(Hex("5A"), Hex("FF F1 4C 80 01 1F FC")));
}

// Version, layer and protection are not looked at.
TEST(AnAdtsFrame, IsKnownByTwelveBits)
{
    Recording rec;
    EXPECT_EQ(rec.SetAac(), 0u);
    for (int low = 0; low < 16; ++low) {
        Bytes frame = Adts("4C 80");
        frame[1] = static_cast<std::uint8_t>(0xF0 | low);
        EXPECT_EQ(rec.Audio(frame, static_cast<std::uint64_t>(low)), 0u);
    }
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kStbl + "stsz"), 12), (Numbers{3, 16}));
}

// The frame's own length is not read: the second header stays inside.
TEST(AnAdtsFrame, TakesTheOneBehindItIntoItsSample)
{
    Recording rec;
    EXPECT_EQ(rec.SetAdts(), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80") + Adts("4C 80"), 0), 0u);
    EXPECT_THAT(Samples(rec.Close(), "trak.soun"),
                ElementsAre(Hex("AA BB CC  FF F1 4C 80 01 1F FC AA BB CC")));
}

TEST(ARawTrack, LosesHeadersAndKeepsItsDescription)
{
    Recording rec;
    EXPECT_EQ(rec.SetAac(), 0u);  // 48000 Hz, stereo
    EXPECT_EQ(rec.Audio(Adts("60 40"), 0), 0u);
    EXPECT_EQ(rec.Log().Count("info ADTS stream, get and set audio track"), 0u);
    const BoxFile file = rec.Close();
    EXPECT_THAT(Samples(file, "trak.soun"), ElementsAre(Hex("AA BB CC")));
    EXPECT_EQ(Described(file).entry, Hex("0002 0010 0000 0000 BB80 0000"));
    EXPECT_EQ(Described(file).config, Hex("11 90"));
}

// The record has 16 bits for them, the configuration takes eight.
TEST(ARawTrack, HasTheLow8BitsOfItsChannels)
{
    EXPECT_EQ(ConfigOf(2), Hex("11 90"));
    EXPECT_EQ(ConfigOf(0x0102), Hex("11 90"));
    EXPECT_EQ(ConfigOf(0x0100), Hex("11 80"));
}

// Of 24, 16 falls on the lowest bit of the rate's index: 3 for 48000 has it, 4 for 44100 has not.
TEST(ARawTrack, WithMoreThan15ChannelsRunsOverIntoItsRate)
{
    EXPECT_EQ(ConfigOf(0x18), Hex("11 C0"));
    EXPECT_EQ(ConfigOf(8, 44100), Hex("12 40"));
    EXPECT_EQ(ConfigOf(0x18, 44100), Hex("12 C0"));
}

TEST(ATrackOfAnyOtherCodec, LosesHeadersToo)
{
    Recording rec;
    const mp4_audio_track_info info{1000, 0, 3, 48000, 2, 2};
    EXPECT_EQ(mp4_set_audio_track(rec.Handle(), &info), 0u);
    EXPECT_EQ(rec.Audio(Adts("4C 80"), 0), 0u);
    EXPECT_THAT(Samples(rec.Close(), "trak.soun"), ElementsAre(Hex("AA BB CC")));
}

// ---- Times -----------------------------------------------------------------------------------

TEST(AudioTimes, AreTheCallersAlone)
{
    Recording rec;
    EXPECT_EQ(rec.SetAac(48000), 0u);
    for (const std::uint64_t time : {0u, 1024u, 2049u, 3073u})
        EXPECT_EQ(rec.Audio(Bytes(10, 1), time), 0u);
    const BoxFile file = rec.Close();
    EXPECT_EQ(Words(file.Box(kStbl + "stts"), 12), (Numbers{3, 1, 1024, 1, 1025, 2, 1024}));
}

TEST(ALoneAudioFrame, TakesTheRecordsDuration)
{
    Recording rec;
    EXPECT_EQ(rec.SetAac(48000, 1024), 0u);
    EXPECT_EQ(rec.Audio(Bytes(10, 1), 5000), 0u);
    EXPECT_EQ(Words(rec.Close().Box(kStbl + "stts"), 12), (Numbers{1, 1, 1024}));
}
