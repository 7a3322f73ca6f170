// The tests' own words, tested on bytes made by hand: a checker that finds nothing is worth what it
// finds in damaged files.
#include "support/check.h"
#include "support/reads_as.h"
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <spdlog/spdlog.h>

#include <cerrno>
#include <cstdio>

using namespace kvtest;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

Bytes Word(std::uint32_t value)
{
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

// A box around its payload.
Bytes Boxed(const std::string& type, const Bytes& payload)
{
    return Word(static_cast<std::uint32_t>(8 + payload.size())) + Bytes(type.begin(), type.end()) +
           payload;
}

// A box of version and flags 0 around 32-bit words.
Bytes Full(const std::string& type, std::initializer_list<std::uint32_t> words)
{
    Bytes payload = Word(0);
    for (const std::uint32_t word : words)
        payload = payload + Word(word);
    return Boxed(type, payload);
}

// A sample entry of video, 160x120, with its extensions.
Bytes VideoEntry(const std::string& type, const Bytes& extensions)
{
    return Boxed(type, Bytes(6, 0) + Hex("0001") + Bytes(16, 0) + Hex("00A0 0078") + Bytes(50, 0) +
                           extensions);
}

// The parts of a sound little file: two tracks whose samples alternate in mdat from byte 28 on,
// video of 3 and 4 bytes 500 ms apart and sound of 2 and 2 bytes.
struct Parts {
    Bytes mdat = Bytes(11, 7);
    Bytes entry = VideoEntry("apcn", Hex("0000000A 'fiel' 0100 00000010 'pasp' 00000001 00000001"));
    Bytes videoStts = Full("stts", {1, 2, 500});
    Bytes videoStsz = Full("stsz", {0, 2, 3, 4});
    Bytes videoStsc = Full("stsc", {1, 1, 1, 1});
    Bytes videoStco = Full("stco", {2, 28, 33});
    Bytes videoStss = Full("stss", {1, 1});
    std::uint32_t videoDuration = 1000;
    std::uint32_t movieDuration = 1000;
    std::uint32_t width = 160;
    std::uint32_t soundId = 2;
    Bytes soundHeader = Full("smhd", {0});
    Bytes esds = Full("esds", {}) + Hex("03 80808022 0002 00 04 80808014 40 15 000000 00000000 "
                                        "00000000 05 80808002 1190 06 80808001 02");
    Bytes soundStco = Full("stco", {2, 31, 37});
    Bytes ilst = Boxed("ilst", {});

    static Bytes Track(std::uint32_t id, const std::string& handler, std::uint32_t duration,
                       std::uint32_t width, const Bytes& header, const Bytes& entry,
                       const Bytes& tables)
    {
        const Bytes tkhd = Full("tkhd", {0, 0, id, 0, duration}) + Bytes(52, 0) +
                           Word(width << 16) + Word(width == 0 ? 0 : 120 << 16);
        const Bytes hdlr = Boxed("hdlr", Hex("00000000 'mhlr'") +
                                             Bytes(handler.begin(), handler.end()) + Bytes(13, 0));
        const Bytes data = Boxed("hdlr", Hex("00000000 'dhlr' 'url '") + Bytes(12, 0) +
                                             Hex("02 'ab'"));
        const Bytes dinf = Boxed("dinf", Boxed("dref", Hex("00000000 00000001") +
                                                           Full("url ", {})));
        const Bytes stsd = Boxed("stsd", Hex("00000000 00000001") + entry);
        const Bytes minf = Boxed("minf", header + data + dinf + Boxed("stbl", stsd + tables));
        const Bytes mdhd = Full("mdhd", {0, 0, 1000, duration, 0x55C40000});
        const Bytes edts = Boxed("edts", Full("elst", {1, duration, 0, 0x10000}));
        return Boxed("trak", Sized(tkhd, 92) + edts + Boxed("mdia", mdhd + hdlr + minf));
    }

    // A box whose size field is below 256, set anew.
    static Bytes Sized(Bytes box, std::uint8_t size)
    {
        box[3] = size;
        return box;
    }

    Bytes File() const
    {
        // Esds and mvhd are more than the words that their boxes were made of.
        const Bytes mvhd = Full("mvhd", {0, 0, 1000, movieDuration}) + Bytes(76, 0) + Word(3);
        const Bytes video = Track(1, "vide", videoDuration, width, Full("vmhd", {0, 0}), entry,
                                  videoStts + videoStsz + videoStsc + videoStco + videoStss);
        const Bytes sound = Track(soundId, "soun", 40, 0, soundHeader,
                                  Boxed("mp4a", Bytes(28, 0) + Sized(esds, 51)),
                                  Full("stts", {1, 2, 20}) + Full("stsz", {2, 2}) +
                                      Full("stsc", {1, 1, 1, 1}) + soundStco);
        const Bytes meta = Boxed("meta", Word(0) + Boxed("hdlr", Bytes(25, 0)) + ilst);
        return Boxed("ftyp", Hex("'abcd' 00000000 'abcd'")) + Boxed("mdat", mdat) +
               Boxed("moov", Sized(mvhd, 108) + video + sound + Boxed("udta", meta));
    }

    // The complaint that this one change must bring.
    void Expect(const std::string& complaint) const
    {
        EXPECT_THAT(CheckFile(Parts{}.File(), true), IsEmpty());  // the control
        EXPECT_THAT(CheckFile(File(), true), Contains(HasSubstr(complaint)));
    }
};

}  // namespace

// ---- The walker ------------------------------------------------------------------------------

TEST(Walker, PicksATrackByItsHandler)
{
    const BoxFile file(Parts{}.File());
    EXPECT_THAT(file.Box("moov/trak.soun/mdia/minf/stbl/stco"), ReadsAs("stco  31, 37"));
    EXPECT_THAT(file.Box("moov/trak.vide/mdia/minf/stbl/stco"), ReadsAs("stco  28, 33"));
    EXPECT_FALSE(file.Has("moov/trak.tmcd"));
}

TEST(Walker, FindsTheCaptionHandlerInItsOddPlace)
{
    const Bytes hdlr = Hex("0000002C 'hdlr' 00000000 'clcp'") + Bytes(28, 0);
    const BoxFile file(Boxed("trak", Boxed("mdia", hdlr)));
    EXPECT_TRUE(file.Has("trak.clcp/mdia/hdlr"));
}

TEST(Walker, KnowsTheFixedPartsOfSampleEntries)
{
    const Bytes esds = Full("esds", {});
    const Bytes wave = Boxed("wave", Boxed("frma", Hex("'mp4a'")) + Boxed("mp4a", Word(0)) + esds +
                                         Hex("00000008 00000000"));
    const Bytes entry = Bytes(8, 0) + Hex("0001") + Bytes(34, 0) + wave;
    const Bytes head = Hex("00000000 00000001");
    const BoxFile mov(Boxed("stsd", head + Boxed("mp4a", entry)));
    EXPECT_THAT(mov.Children("stsd/mp4a/wave"),
                ElementsAre("frma", "mp4a", "esds", std::string(4, '\0')));
    const BoxFile mp4(Boxed("stsd", head + Boxed("mp4a", Bytes(28, 0) + esds)));
    EXPECT_THAT(mp4.Children("stsd/mp4a"), ElementsAre("esds"));
    const BoxFile video(Boxed("stsd", head + Boxed("avc1", Bytes(78, 0) + Boxed("avcC", {}))));
    EXPECT_TRUE(video.Has("stsd/avc1/avcC"));
}

TEST(Walker, TakesTmcdForAContainerOnlyInsideGmhd)
{
    const BoxFile header(Boxed("gmhd", Boxed("tmcd", Boxed("tcmi", {}))));
    EXPECT_TRUE(header.Has("gmhd/tmcd/tcmi"));
    const BoxFile entry(Boxed("stsd", Hex("00000000 00000001") + Boxed("tmcd", Bytes(28, 0))));
    EXPECT_THAT(entry.Damage(), IsEmpty());
    EXPECT_THAT(entry.Children("stsd/tmcd"), IsEmpty());
}

TEST(Walker, SkipsVersionAndFlagsOfMeta)
{
    const BoxFile file(Boxed("meta", Word(0) + Boxed("ilst", {})));
    EXPECT_THAT(file.Children("meta"), ElementsAre("ilst"));
}

TEST(Walker, ReadsA64BitSize)
{
    const BoxFile file(Hex("00000001 'mdat' 0000000000000012 0102") + Boxed("free", {}));
    EXPECT_THAT(file.Children(""), ElementsAre("mdat", "free"));
    EXPECT_EQ(file.Node("mdat")->header, 16u);
    EXPECT_EQ(file.Dump(16, 2), "01 02");
}

// ---- Text ------------------------------------------------------------------------------------

TEST(Text, OfTheTables)
{
    EXPECT_EQ(Text(Full("stts", {2, 3, 40, 2, 1})), "stts  3 x 40, 2 x 1");
    EXPECT_EQ(Text(Full("stsz", {14, 5})), "stsz  5 x 14");
    EXPECT_EQ(Text(Full("stsz", {0, 2, 13, 14})), "stsz  13, 14");
    EXPECT_EQ(Text(Full("stsc", {2, 1, 3, 1, 3, 2, 2})), "stsc  1:3, 3:2#2");
    EXPECT_EQ(Text(Full("co64", {1, 1, 2})), "co64  4294967298");
    EXPECT_EQ(Text(Full("stss", {0})), "stss  none");
}

TEST(Text, OfTheHeadersInBothVersions)
{
    EXPECT_EQ(Text(Full("mdhd", {0, 0, 90000, 180, 0x55C40000})), "mdhd  180/90000 und");
    EXPECT_EQ(Text(Hex("0000002C 'mdhd' 01000000") + Bytes(16, 0) +
                   Hex("000003E8 0000000000000028 55C40000")),
              "mdhd v1  40/1000 und");
    EXPECT_EQ(Text(Full("elst", {1, 1000, 0, 0x10000})), "elst  1000 from 0");
    const BoxFile file(Parts{}.File());
    EXPECT_EQ(Text(file.Box("moov/mvhd")), "mvhd  1000/1000 next 3");
    EXPECT_EQ(Text(file.Box("moov/trak.soun/tkhd")), "tkhd  40 id 2 flags 0");
}

TEST(Text, SaysWhenABoxIsNotWhatItCounts)
{
    EXPECT_EQ(Text(Full("stts", {2, 3, 40})), "stts  malformed");
    EXPECT_EQ(Text(Full("stsz", {1, 2, 3, 4})), "stsz  malformed");
    EXPECT_EQ(Text(Hex("0000000F 'stts' 00000000")), "malformed");
    EXPECT_EQ(Text({}), "no box");
}

TEST(Text, OfAnyOtherBoxIsItsBytes)
{
    EXPECT_EQ(Text(Full("vmhd", {0xAB})), "vmhd  00 00 00 00 00 00 00 AB");
}

// ---- The checker -----------------------------------------------------------------------------

TEST(Checker, FindsABoxOfAWrongSize)
{
    Bytes file = Parts{}.File();
    EXPECT_THAT(CheckFile(file), IsEmpty());
    const std::size_t stts = BoxFile(file).Find("moov/trak.vide/mdia/minf/stbl/stts").begin;
    ++file[stts + 3];
    EXPECT_THAT(CheckFile(file), testing::Not(IsEmpty()));
    file[stts + 2] = 0xFF;
    EXPECT_THAT(CheckFile(file), ElementsAre(HasSubstr("stbl: stts has the size 65305")));
}

TEST(Checker, FindsBytesBehindTheLastChild)
{
    Bytes file = Parts{}.File();
    file.push_back(0);
    EXPECT_THAT(CheckFile(file), ElementsAre("file: 1 bytes behind the last child"));
}

TEST(Checker, FindsBoxesInTheWrongPlace)
{
    Parts parts;
    parts.soundHeader = Full("smhd", {0}) + Boxed("free", {});
    parts.Expect("minf holds smhd,free,hdlr,dinf,stbl,");
    parts.soundHeader = Full("vmhd", {0, 0});
    parts.Expect("trak.soun: holds vmhd");
    parts.soundHeader = Full("smhd", {0, 0});
    parts.Expect("minf: smhd has 20 bytes, not 16");
    parts = {};
    parts.entry = VideoEntry("apcn", Boxed("pasp", Bytes(8, 0)));
    parts.Expect("apcn holds pasp,");
}

TEST(Checker, FindsConfigurationsThatDoNotHoldTogether)
{
    Parts parts;
    ++parts.esds[16];  // the outermost length
    parts.Expect("mp4a: esds does not hold together");
    const Bytes sets = Hex("0004 67640010 01 0002 68EB");
    parts = {};
    parts.mdat = Hex("00000000 07 0000000000 07");
    parts.entry = VideoEntry("avc1", Boxed("avcC", Hex("01 640010 FF E1") + sets));
    parts.Expect("trak.vide: units do not fill sample 1");
    parts.entry = VideoEntry("avc1", Boxed("avcC", Hex("01 640011 FF E1") + sets));
    parts.Expect("avc1: avcC does not hold together");
    parts.entry = VideoEntry("hev1", Boxed("hvcC", Bytes(23, 0)));
    parts.Expect("hev1: hvcC does not hold together");
}

TEST(Checker, FindsBytesThatBelongToNoSample)
{
    Parts parts;
    parts.mdat = Bytes(12, 7);
    EXPECT_THAT(CheckFile(parts.File()), IsEmpty());  // a gap is no damage of its own
    parts.Expect("bytes from 39 on belong to no sample");
    parts = {};
    parts.videoStco = Full("stco", {2, 28, 34});
    parts.mdat = Bytes(12, 7);
    parts.soundStco = Full("stco", {2, 31, 38});
    parts.Expect("bytes from 33 on belong to no sample");
}

TEST(Checker, FindsPicturesOfTwoSizes)
{
    Parts parts;
    parts.width = 161;
    parts.Expect("trak.vide: tkhd and sample entry have pictures of other sizes");
}

TEST(Checker, FindsSampleCountsThatDiffer)
{
    Parts parts;
    parts.videoStts = Full("stts", {1, 3, 500});
    parts.Expect("trak.vide: stts covers 3 of 2 samples");
    parts = {};
    parts.videoStsz = Full("stsz", {0, 3, 3, 4});
    parts.Expect("trak.vide: stsz has 28 bytes, which is not what its count says");
    parts = {};
    parts.videoStsc = Full("stsc", {1, 1, 2, 1});
    parts.Expect("trak.vide: stsc covers 4 of 2 samples");
    parts = {};
    parts.videoStco = Full("stco", {1, 28});
    parts.Expect("trak.vide: stsc covers 1 of 2 samples");
}

TEST(Checker, FindsRunsThatAreNotOne)
{
    Parts parts;
    parts.videoStts = Full("stts", {2, 1, 500, 1, 500});
    parts.Expect("stts has two runs in place of one");
    parts = {};
    parts.videoStsc = Full("stsc", {2, 1, 1, 1, 2, 1, 1});
    parts.Expect("stsc has two runs in place of one");
    parts = {};
    parts.videoStsz = Full("stsz", {0, 2, 3, 3});
    parts.Expect("stsz lists sizes that are all the same");
    parts = {};
    parts.videoStsc = Full("stsc", {1, 2, 1, 1});
    parts.Expect("stsc does not begin with chunk 1");
}

TEST(Checker, FindsChunksOutsideMdat)
{
    Parts parts;
    parts.videoStco = Full("stco", {2, 27, 33});
    parts.Expect("trak.vide: chunk 1 is outside mdat");
    parts = {};
    parts.soundStco = Full("stco", {2, 31, 38});
    parts.Expect("trak.soun: chunk 2 is outside mdat");
}

TEST(Checker, FindsSamplesThatOverlap)
{
    Parts parts;
    parts.soundStco = Full("stco", {2, 30, 37});
    parts.Expect("a sample of soun at 30 overlaps the one before");
}

TEST(Checker, FindsBadSyncSamples)
{
    Parts parts;
    parts.videoStss = Full("stss", {1, 3});
    parts.Expect("stss names a sample that is not there");
    parts = {};
    parts.videoStss = Full("stss", {2, 2, 1});
    parts.Expect("stss does not rise");
    parts = {};
    parts.videoStss = {};
    parts.Expect("trak.vide: holds stsd,stts,stsz,stsc,stco,");
}

TEST(Checker, FindsTimesThatCannotBe)
{
    Parts parts;
    parts.videoDuration = 999;
    parts.Expect("mdhd duration 999 is not what stts says, with the last sample at 500");
    parts = {};
    parts.movieDuration = 999;
    parts.Expect("mvhd: duration 999 is not that of the longest track, 1000");
}

TEST(Checker, FindsBadTrackIds)
{
    Parts parts;
    parts.soundId = 1;
    parts.Expect("track id 1 is taken");
    parts.soundId = 3;
    parts.Expect("track id 3 with next id 3");
}

TEST(Checker, FindsMetadataOfAKeyThatIsNotThere)
{
    Parts parts;
    const Bytes data = Boxed("data", Hex("00000001 00000000 41"));
    parts.ilst = Boxed("ilst", Boxed(std::string("\0\0\0\1", 4), data));
    parts.Expect("an item of key 1 of 0");
    parts.ilst = Boxed("ilst", Boxed("desc", {}));
    parts.Expect("an item without its data");
}

// ---- The sink and the captures ---------------------------------------------------------------

TEST(ASink, NotesTheCallsInTheirOrder)
{
    ExternalSink sink;
    {
        Recording rec(sink);
        sink.ForgetCalls();
        rec.SetAac();
        rec.Audio(Bytes(30, 1), 0);
        EXPECT_THAT(sink.Calls(), ElementsAre("write 30"));
        EXPECT_THAT(rec.Close().Complaints(), IsEmpty());
    }
    EXPECT_EQ(sink.Calls().back(), "close");
    EXPECT_EQ(sink.Count("close"), 1u);
}

TEST(ASink, FailsOnceOrForEver)
{
    ExternalSink sink;
    ExternalIoFuncs* table = sink.Table();
    void* context = nullptr;
    sink.FailOpen(1, EACCES, false);
    EXPECT_EQ(table->open(&context, L"a", 1, 2), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(table->open(&context, L"a", 1, 2), 1);
    sink.FailWrite(2, ENOSPC);
    for (const int expected : {1, 0, 0})
        EXPECT_EQ(table->write(context, "x", 1), expected);
    EXPECT_THAT(sink.Calls(), ElementsAre("open a 1 2 failed", "open a 1 2", "write 1",
                                          "write 1 failed", "write 1 failed"));
    EXPECT_EQ(sink.Data(), Hex("'x'"));
}

TEST(ASink, ReadsBackWhatItHolds)
{
    ExternalSink sink;
    ExternalIoFuncs* table = sink.Table();
    void* context = nullptr;
    table->open(&context, L"a", 0, 0);
    table->write(context, "abcd", 4);
    table->seek(context, 1, 0);
    char two[2] = {};
    EXPECT_EQ(table->read(context, two, 2), 1);
    EXPECT_EQ(std::string(two, 2), "bc");
    EXPECT_EQ(table->tell(context), 3);
    EXPECT_EQ(table->read(context, two, 2), 0);
}

TEST(ACapture, TakesLinesWithTheirSourceAndWhatIsPrinted)
{
    const LogCapture log;
    spdlog::default_logger()->log(spdlog::source_loc{"here", 1, "This"}, spdlog::level::warn, "{}",
                                  5);
    EXPECT_THAT(log.Lines(), ElementsAre("warning 5"));
    EXPECT_THAT(log.Sources(), ElementsAre("here This"));
    StdoutCapture printed;
    std::printf("plain\n");
    EXPECT_EQ(printed.Take(), "plain\n");
}

TEST(ARecording, OfHevcIsSound)
{
    Recording rec;
    EXPECT_EQ(rec.SetHevc(), 0u);
    EXPECT_EQ(rec.Video(Unit(0x28), 0), 0u);
    EXPECT_EQ(rec.Video(Unit(0x02), 40), 0u);
    const BoxFile file = rec.Close();
    EXPECT_TRUE(file.Has("moov/trak.vide/mdia/minf/stbl/stsd/hev1/hvcC"));
    EXPECT_THAT(file.Box("moov/trak.vide/mdia/minf/stbl/stss"), ReadsAs("stss  1"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
}
