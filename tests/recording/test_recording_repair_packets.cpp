// What single packets of the log do to the rebuilt index: metadata, set-ups that no recording
// writes, lengths beyond the log, and positions beyond 4 GiB.
#include "support/reads_as.h"
#include "support/repair.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#if !defined(_WIN32)
#include <sys/mman.h>

#include <fcntl.h>
#include <unistd.h>
#endif

using namespace kvtest;
using testing::ElementsAre;
using Numbers = std::vector<std::uint32_t>;

namespace {

const std::string kIlst = "moov/udta/meta/ilst";
const std::string kVideo = "moov/trak.vide/";

Bytes Plain(const std::string& text)
{
    return {text.begin(), text.end()};
}

// The repaired file of a log and one more frame of 10 bytes, which keeps all that came before it.
BoxFile Repaired(InfoLog& log, std::uint32_t status = 0)
{
    Wreck wreck(DeadFile(100), log.Video(0, 10));
    EXPECT_EQ(wreck.Repair(), status);
    return wreck.Media();
}

}  // namespace

// ---- Metadata ------------------------------------------------------------------------------

TEST(ARepairedText, IsEnteredUnderItsName)
{
    InfoLog log = InfoLog().ProRes();
    log.Metadata(MP4_METADATA_TEXT, EndedText("title"), EndedText("Hi"));
    EXPECT_EQ(Repaired(log).Box(kIlst),
              Hex("00000022 'ilst' 0000001A A9 'nam' 00000012 'data' 00000001 00000000 'Hi'"));
}

TEST(ARepairedText, EndsWithItsBlobWhereItsEndMarkIsMissing)
{
    InfoLog log = InfoLog().ProRes();
    // The blobs before leave longer texts in the buffers.
    log.Metadata(MP4_METADATA_TEXT, EndedText("title and no name of an item"),
                 EndedText("a long value"), EndedText("a long namespace"));
    log.Metadata(MP4_METADATA_TEXT, Plain("title"), Plain("Hi"));
    EXPECT_EQ(Repaired(log).Box(kIlst),
              Hex("00000022 'ilst' 0000001A A9 'nam' 00000012 'data' 00000001 00000000 'Hi'"));
}

TEST(ARepairedText, EndsAtItsEndMark)
{
    InfoLog log = InfoLog().ProRes();
    log.Metadata(MP4_METADATA_TEXT, EndedText("title") + Plain("x"), EndedText("Hi") + Plain("x"));
    EXPECT_EQ(Repaired(log).Box(kIlst),
              Hex("00000022 'ilst' 0000001A A9 'nam' 00000012 'data' 00000001 00000000 'Hi'"));
}

TEST(ARepairedValueOfLength0, RemovesTheItem)
{
    InfoLog log = InfoLog().ProRes();
    log.Metadata(MP4_METADATA_TEXT, EndedText("title"), EndedText("Hi"));
    log.Metadata(MP4_METADATA_TEXT, EndedText("title"), {});
    EXPECT_EQ(Repaired(log).Box(kIlst), Hex("00000008 'ilst'"));
}

TEST(ARepairedKey, HasItsNamespaceAndItsCountedValue)
{
    InfoLog log = InfoLog().ProRes();
    log.Metadata(MP4_METADATA_BINARY, EndedText("com.a"), {1, 0, 2}, EndedText("mine"));
    const BoxFile file = Repaired(log);
    EXPECT_EQ(file.Box("moov/udta/meta/keys"),
              Hex("0000001D 'keys' 00000000 00000001 0000000D 'mine' 'com.a'"));
    EXPECT_EQ(file.Box(kIlst), Hex("00000023 'ilst' 0000001B 00000001 00000013 'data' 00000001 "
                                   "00000000 01 00 02"));
}

TEST(ARepairedKey, WithoutANamespaceGetsTheUsualOne)
{
    InfoLog log = InfoLog().ProRes();
    log.Metadata(MP4_METADATA_INTEGER, EndedText("com.a"), {7, 1, 0, 0});
    const BoxFile file = Repaired(log);
    EXPECT_EQ(file.Box("moov/udta/meta/keys"),
              Hex("0000001D 'keys' 00000000 00000001 0000000D 'mdta' 'com.a'"));
    EXPECT_EQ(file.Box(kIlst), Hex("00000024 'ilst' 0000001C 00000001 00000014 'data' 00000015 "
                                   "00000000 00000107"));
}

TEST(ARepairedKey, MayHaveAText)
{
    InfoLog log = InfoLog().ProRes();
    log.Metadata(MP4_METADATA_TEXT, EndedText("com.a"), EndedText("Hi"));
    const BoxFile file = Repaired(log);
    EXPECT_EQ(file.Box("moov/udta/meta/keys"),
              Hex("0000001D 'keys' 00000000 00000001 0000000D 'mdta' 'com.a'"));
    EXPECT_EQ(file.Box(kIlst), Hex("00000022 'ilst' 0000001A 00000001 00000012 'data' 00000001 "
                                   "00000000 'Hi'"));
}

TEST(ARepairedKey, StaysWithoutItsRefusedValue)
{
    InfoLog log = InfoLog().ProRes();
    log.Metadata(MP4_METADATA_BINARY, EndedText("com.a"), {});
    const BoxFile file = Repaired(log);
    EXPECT_EQ(file.Box("moov/udta/meta/keys"),
              Hex("0000001D 'keys' 00000000 00000001 0000000D 'mdta' 'com.a'"));
    EXPECT_EQ(file.Box(kIlst), Hex("00000008 'ilst'"));
}

TEST(AMetadataPacketThatTheStoreRefuses, ChangesNothingElse)
{
    InfoLog log = InfoLog().ProRes().Video(0, 10);
    log.Metadata(MP4_METADATA_TEXT, EndedText("no such item"), EndedText("Hi"));
    log.Metadata(MP4_METADATA_TEXT, {}, EndedText("Hi"));
    const BoxFile file = Repaired(log);
    EXPECT_EQ(file.Box(kIlst), Hex("00000008 'ilst'"));
    EXPECT_EQ(Words(file.Box(kVideo + "mdia/minf/stbl/stsz"), 12), (Numbers{10, 1}));
}

// ---- Lengths -------------------------------------------------------------------------------

TEST(ALengthThatTheLogCannotHold, IsTheEndOfTheData)
{
    const Bytes title = EndedText("title");
    for (const char* length : {"FFFFFFFF", "80000000", "FFFFFF9C", "0000FFFF"}) {
        const Bytes beyond = Hex(length) + Bytes(40, 'x');
        for (const Bytes& packet : {
                 Hex("01 01") + beyond,                                             // key
                 Hex("01 01 00000006") + title + beyond,                            // value
                 Hex("01 01 00000006") + title + Hex("00000002 4800") + beyond}) {  // namespace
            Wreck wreck(DeadFile(100), InfoLog().ProRes().Video(0, 10).Raw(packet));
            EXPECT_EQ(wreck.Repair(1), 0u);
            EXPECT_FALSE(wreck.HasInfo());
            EXPECT_EQ(wreck.Media().U32(36), 8u + 10);
            EXPECT_EQ(wreck.Media().Box(kIlst), Hex("00000008 'ilst'"));
        }
    }
}

TEST(ABlobThatEndsWithTheLog, IsLostWithItsLastByte)
{
    InfoLog log = InfoLog().ProRes().Video(0, 10);
    log.Raw(Hex("01 01 00000006") + EndedText("title") + Hex("00000003") + EndedText("Hi"));
    for (const bool closed : {false, true}) {
        InfoLog packet = log;
        if (closed)  // the length of the namespace, and one byte behind
            packet.Raw({0, 0, 0, 0, 0});
        Wreck wreck(DeadFile(100), packet);
        EXPECT_EQ(wreck.Repair(), 0u);
        EXPECT_EQ(wreck.Media().Box(kIlst).size(), closed ? 0x22u : 8u);
    }
}

TEST(ANegativeParameterSetLength, IsTheEndOfTheData)
{
    // As the muxer logs a set of 65,535 bytes or more: the length's low 16 bits, widened.
    InfoLog log = InfoLog().Aac().Audio(0, 10);
    log.VideoTrack(MP4_VIDEO_H264, Hex("FFFFFFFF 00000001 68")).Closed();
    Wreck wreck(DeadFile(100), log);
    EXPECT_EQ(wreck.Repair(1), 0u);
    EXPECT_THAT(wreck.Media().Children("moov"), ElementsAre("mvhd", "trak", "udta"));
    EXPECT_FALSE(wreck.HasInfo());
}

// ---- Set-ups -------------------------------------------------------------------------------

TEST(ARepairedVideoTrack, TakesEveryFieldOfItsPacket)
{
    InfoLog log;
    // Timescale 90000, a duration beyond 32 bits, 1920x1080, ProRes 4444.
    log.Raw(Hex("02 00015F90 0000000100000BB8 02 0780 0438 04")).Video(0, 10);
    const BoxFile file = Repaired(log);
    EXPECT_EQ(Words(file.Box(kVideo + "mdia/mdhd"), 20)[0], 90000u);
    EXPECT_EQ(Words(file.Box(kVideo + "tkhd"), 84), (Numbers{1920u << 16, 1080u << 16}));
    EXPECT_TRUE(file.Has(kVideo + "mdia/minf/stbl/stsd/ap4h"));
}

TEST(ARepairedVideoTrack, WithTimescale0CountsInMilliseconds)
{
    InfoLog log;
    log.Raw(Hex("02 00000000 0000000000000028 02 00A0 0078 00")).Video(0, 10);
    const BoxFile file = Repaired(log);
    EXPECT_EQ(Words(file.Box(kVideo + "mdia/mdhd"), 20)[0], 1000u);
}

TEST(ARepairedH264Track, HoldsItsSetsByteForByte)
{
    InfoLog log;
    log.VideoTrack(MP4_VIDEO_H264, Hex("00000004 67 4D 40 1F 00000001 68")).Video(0, 10);
    EXPECT_EQ(Repaired(log).Box(kVideo + "mdia/minf/stbl/stsd/avc1/avcC"),
              Hex("00000018 'avcC' 01 4D 40 1F FF E1 0004 67 4D 40 1F 01 0001 68"));
}

TEST(ARepairedHevcTrack, HoldsItsSetsInTheirOrder)
{
    const Bytes vps = HevcVps();
    const Bytes sps = HevcSps();
    const Bytes pps = HevcPps();
    const auto set = [](const char* array, const Bytes& unit) {
        return Hex(array) + Bytes{0, 1, 0, static_cast<std::uint8_t>(unit.size())} + unit;
    };
    const auto blob = [](const Bytes& unit) {
        return Bytes{0, 0, 0, static_cast<std::uint8_t>(unit.size())} + unit;
    };
    InfoLog log;
    log.VideoTrack(MP4_VIDEO_HEVC, blob(vps) + blob(sps) + blob(pps)).Video(0, 10);
    const Bytes box = Repaired(log).Box(kVideo + "mdia/minf/stbl/stsd/hev1/hvcC");
    const Bytes sets = Bytes{3} + set("20", vps) + set("21", sps) + set("22", pps);
    ASSERT_GT(box.size(), sets.size());
    EXPECT_EQ(Slice(box, box.size() - sets.size(), box.size()), sets);
}

TEST(ARepairedAudioTrack, IsTakenWithAnyCodec)
{
    for (const char* codec : {"01", "02", "07"}) {
        InfoLog log;
        log.Raw(Hex("03 0000AC44 0000000000000400") + Hex(codec) + Hex("AC44 0002 02"));
        Wreck wreck(DeadFile(100), log.Audio(0, 10).Audio(1024, 10).Closed());
        EXPECT_EQ(wreck.Repair(), 0u);
        const BoxFile file = wreck.Media();
        EXPECT_EQ(Words(file.Box("moov/trak.soun/mdia/mdhd"), 20)[0], 44100u);
        EXPECT_THAT(file.Box("moov/trak.soun/mdia/minf/stbl/stts"), ReadsAs("stts  2 x 1024"));
        EXPECT_EQ(file.Has("moov/trak.soun/mdia/minf/stbl/stsd/mp4a"), codec[1] != '7');
    }
}

TEST(ARepairedCaptionTrack, HasItsTimescaleAheadOfItsCodec)
{
    InfoLog log = InfoLog().ProRes();
    log.Raw(Hex("06 00000258 02")).Caption(0, 10);
    const BoxFile file = Repaired(log);
    EXPECT_EQ(Words(file.Box("moov/trak.clcp/mdia/mdhd"), 20)[0], 600u);
    EXPECT_TRUE(file.Has("moov/trak.clcp/mdia/minf/stbl/stsd/c708"));
}

TEST(ARepairedTimeCodeTrack, FillsItsSampleEntry)
{
    InfoLog log = InfoLog().ProRes();
    log.Raw(Hex("08 00007530 00000007000003E9 1E 00000001")).TimeCode(5).Video(0, 10);
    const Bytes entry = Repaired(log).Box("moov/trak.tmcd/mdia/minf/stbl/stsd/tmcd");
    // Behind 6 reserved bytes, the data reference and 4 more: flags, timescale, frame duration,
    // frames a second.
    ASSERT_GE(entry.size(), 34u);
    EXPECT_EQ(Slice(entry, 20, 33), Hex("00000001 00007530 000003E9 1E"));
}

TEST(ASecondCaptionOrTimeCodeTrack, IsTakenAsTheFirstWas)
{
    InfoLog log = InfoLog().ProRes().Captions().TimeCodeTrack();
    log.Captions().TimeCodeTrack().Caption(0, 10).TimeCode(0).Video(0, 10);
    const BoxFile file = Repaired(log);
    EXPECT_EQ(Words(file.Box("moov/mvhd"), 104), (Numbers{6}));
    EXPECT_EQ(Words(file.Box("moov/trak.clcp/tkhd"), 20)[0], 4u);
    EXPECT_EQ(Words(file.Box("moov/trak.tmcd/tkhd"), 20)[0], 5u);
}

// ---- Beyond 4 GiB --------------------------------------------------------------------------

namespace {

Bytes Range(const std::filesystem::path& path, std::uint64_t at, std::size_t count)
{
    Bytes bytes(count);
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(at));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
    EXPECT_EQ(in.gcount(), static_cast<std::streamsize>(count));
    return bytes;
}

const std::uint64_t kFourGiB = std::uint64_t{1} << 32;

}  // namespace

TEST(AMdatBeyond4GiB, KeepsTheLow32BitsOfItsSize)
{
    InfoLog log = InfoLog().ProRes().Video(0, 0x80000000).Video(40, 0x80000010);
    Wreck wreck(DeadFile(10), log.Closed());
    EXPECT_EQ(wreck.Repair(1), 0u);
    EXPECT_EQ(Range(wreck.Path(), 36, 8), Hex("00000018 'mdat'"));
    EXPECT_EQ(Range(wreck.Path(), 44 + kFourGiB + 16 + 4, 4), Hex("'moov'"));
}

TEST(ALargeMdatBeyond4GiB, HasItsWholeSize)
{
    InfoLog log = InfoLog(MP4_OPEN_LARGE_FILE).ProRes().Video(0, 0x80000000);
    Wreck wreck(DeadFile(10, true), log.Video(40, 0x80000010).Closed());
    EXPECT_EQ(wreck.Repair(1), 0u);
    EXPECT_EQ(Range(wreck.Path(), 36, 16), Hex("00000001 'mdat' 00000001 00000020"));
    EXPECT_EQ(Range(wreck.Path(), 52 + kFourGiB + 16 + 4, 4), Hex("'moov'"));
}

#if !defined(_WIN32)  // where a file of 4 GiB has no holes

TEST(ATailBeyond4GiB, KeepsTheLow32BitsOfItsSizeWhereTheCutFails)
{
    Wreck whole(DeadFile(10), InfoLog().ProRes().Video(0, 10).Closed());
    EXPECT_EQ(whole.Repair(), 0u);
    const std::uint64_t end = whole.Media().All().size();

    Wreck wreck(DeadFile(10), InfoLog().ProRes().Video(0, 10).Closed());
    const int file = memfd_create("media", MFD_ALLOW_SEALING);
    const Bytes media = DeadFile(10);
    EXPECT_EQ(write(file, media.data(), media.size()), static_cast<ssize_t>(media.size()));
    EXPECT_EQ(ftruncate(file, static_cast<off_t>(end + kFourGiB + 12)), 0);
    EXPECT_EQ(fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    std::filesystem::remove(wreck.Path());
    std::filesystem::create_symlink("/proc/self/fd/" + std::to_string(file), wreck.Path());
    EXPECT_EQ(wreck.Repair(), 0u);
    EXPECT_EQ(Range(wreck.Path(), end, 8), Hex("0000000C 'free'"));
    close(file);
}

#endif
