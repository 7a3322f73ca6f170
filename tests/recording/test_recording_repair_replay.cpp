// A repair against the recording itself: whatever of the log the crash left, the repaired file is,
// byte for byte, the one that a close directly behind the last whole packet would have made.
#include "support/check.h"
#include "support/repair.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <functional>
#include <map>
#include <ostream>
#include <random>

using namespace kvtest;
using testing::Each;
using testing::EndsWith;
using testing::IsEmpty;

namespace {

// How a file is recorded.
struct Form {
    const char* label;
    const char* name;
    std::uint8_t flags;
    std::uint8_t video;     // a codec, or kNoVideo
    bool found = false;     // the parameter sets and the ADTS header come with the first frame
    std::uint8_t captions = MP4_SUBTITLE_CEA608;
    bool timeCode = true;
};

void PrintTo(const Form& form, std::ostream* out)
{
    *out << form.label;
}

constexpr std::uint8_t kNoVideo = 0xFF;
constexpr std::uint8_t kLog = MP4_OPEN_INFO_FILE;

const Form kForms[] = {
    {"H264", "clip.mp4", kLog, MP4_VIDEO_H264},
    {"H264InStream", "clip.mp4", kLog, MP4_VIDEO_H264, true, MP4_SUBTITLE_CEA708},
    {"H264Mov", "clip.mov", kLog, MP4_VIDEO_H264, false, MP4_SUBTITLE_CEA708},
    {"H264WithoutTimeCode", "clip.mp4", kLog, MP4_VIDEO_H264, true, MP4_SUBTITLE_CEA608, false},
    {"Hevc", "clip.mp4", kLog, MP4_VIDEO_HEVC},
    {"HevcInStreamMov", "clip.mov", kLog, MP4_VIDEO_HEVC, true},
    {"HevcLarge", "clip.mp4", kLog | MP4_OPEN_LARGE_FILE, MP4_VIDEO_HEVC},
    {"HevcWithoutTimeCode", "clip.mp4", kLog, MP4_VIDEO_HEVC, true, MP4_SUBTITLE_CEA708, false},
    {"ProRes", "clip.mp4", kLog | MP4_OPEN_VERSION1, MP4_VIDEO_PRORES},
    {"ProResMovLarge", "clip.mov", kLog | MP4_OPEN_LARGE_FILE | MP4_OPEN_VERSION1,
     MP4_VIDEO_PRORES, true, MP4_SUBTITLE_CEA708},
    {"ProResMovWithoutTimeCode", "clip.mov", kLog, MP4_VIDEO_PRORES, false, MP4_SUBTITLE_CEA608,
     false},
    {"AudioAlone", "clip.mp4", kLog, kNoVideo, false, MP4_SUBTITLE_CEA608, false},
    {"AdtsAloneMov", "clip.mov", kLog, kNoVideo, true, MP4_SUBTITLE_CEA608, false},
    {"FastHeader", "clip.mp4", kLog | MP4_OPEN_FAST_HEADER, MP4_VIDEO_H264},
    {"SafeMode", "clip.mp4", kLog | MP4_OPEN_SAFE_MODE, MP4_VIDEO_H264},
    {"SafeModeWithoutTimeCode", "clip.mov", kLog | MP4_OPEN_SAFE_MODE, MP4_VIDEO_HEVC, true,
     MP4_SUBTITLE_CEA708, false},
};

// One call and, with it, one packet of the log. In the plain form nothing has to be found.
using Step = std::function<std::uint32_t(Recording&, bool plain)>;

Bytes Unprefixed(const Bytes& set)
{
    return Bytes{0, 0, 1} + set;
}

Bytes Adts(const Bytes& frame)
{
    const std::size_t size = frame.size() + 7;
    return Bytes{0xFF, 0xF1, 0x4C, 0x80, static_cast<std::uint8_t>(size >> 3),
                 static_cast<std::uint8_t>((size & 7) << 5 | 0x1F), 0xFC} + frame;
}

// A picture of the form's codec; the first one brings the sets along where they are to be found.
Bytes Picture(const Form& form, std::size_t size, bool key, bool first)
{
    if (form.video == MP4_VIDEO_PRORES)
        return Bytes(size, 0xC0);
    const bool hevc = form.video == MP4_VIDEO_HEVC;
    const Bytes unit = Unit(hevc ? (key ? 0x26 : 0x02) : (key ? 0x65 : 0x41), size);
    if (!form.found || !first)
        return unit;
    return hevc ? Unprefixed(HevcVps()) + Unprefixed(HevcSps()) + Unprefixed(HevcPps()) + unit
                : Unprefixed(Sps()) + Unprefixed(Pps()) + unit;
}

Step SetVideo(const Form& form)
{
    return [form](Recording& rec, bool plain) {
        if (form.video == MP4_VIDEO_PRORES)
            return rec.SetProRes(MP4_PRORES_422_HQ);
        const bool hevc = form.video == MP4_VIDEO_HEVC;
        if (plain || !form.found)
            return hevc ? rec.SetHevc(90000) : rec.SetH264(90000);
        mp4_video_track_info info{};
        info.timescale = 90000;
        info.codec = form.video;
        info.width = 160;
        info.height = 120;
        return mp4_set_video_track(rec.Handle(), &info);
    };
}

Step Video(const Form& form, std::uint64_t time, std::size_t size, bool key, bool first = false)
{
    return [frame = Picture(form, size, key, first), time](Recording& rec, bool) {
        return rec.Video(frame, time);
    };
}

Step SetAudio(const Form& form)
{
    return [found = form.found](Recording& rec, bool plain) {
        return found && !plain ? rec.SetAdts(48000) : rec.SetAac(48000);
    };
}

Step Audio(const Form& form, std::uint64_t time, std::size_t size)
{
    return [found = form.found, frame = Bytes(size, 0x21), time](Recording& rec, bool plain) {
        return rec.Audio(found && !plain ? Adts(frame) : frame, time);
    };
}

Step SetCaptions(const Form& form)
{
    return [codec = form.captions](Recording& rec, bool) {
        const mp4_subtitle_track_info info{codec, 0};
        return mp4_set_subtitle_track(rec.Handle(), &info);
    };
}

Step Caption(const Form& form, std::uint64_t time)
{
    const bool cea608 = form.captions == MP4_SUBTITLE_CEA608;
    return [frame = Hex(cea608 ? "61 02 00  00 94 20  01 94 2C" : "61 01 04  96 69 04 4F"),
            time](Recording& rec, bool) {
        return mp4_write_subtitle_frame(rec.Handle(), frame.data(),
                                        static_cast<std::uint32_t>(frame.size()), time);
    };
}

Step SetTimeCode()
{
    return [](Recording& rec, bool) {
        const mp4_time_code_track_info info{30000, 1001, 30, 1};
        return mp4_set_time_code_track(rec.Handle(), &info);
    };
}

Step TimeCode(std::uint32_t value)
{
    return [value](Recording& rec, bool) { return mp4_write_time_code(rec.Handle(), value); };
}

Step Metadata(const char* key, const char* value)
{
    return [=](Recording& rec, bool) { return mp4_set_metadata(rec.Handle(), key, value); };
}

Step Number(const char* key, std::uint32_t value, const char* space)
{
    return [=](Recording& rec, bool) {
        return mp4_set_metadata_ex(rec.Handle(), key, &value, sizeof value,
                                   MP4_METADATA_INTEGER, space);
    };
}

std::vector<Step> Script(const Form& form)
{
    std::vector<Step> steps{Metadata("title", "First"), Metadata("artist", "Nobody")};
    const auto add = [&steps](std::initializer_list<Step> more) {
        steps.insert(steps.end(), more.begin(), more.end());
    };
    const bool video = form.video != kNoVideo;
    if (video)
        add({SetVideo(form), Video(form, 0, 20, true, true)});
    add({SetAudio(form), Audio(form, 0, 11), Audio(form, 1024, 12)});
    if (form.timeCode)
        add({SetTimeCode(), TimeCode(1)});
    if (video)
        add({SetCaptions(form), Video(form, 3000, 24, false), Caption(form, 33)});
    add({Audio(form, 2048, 12), Metadata("artist", nullptr)});
    if (form.timeCode)
        add({TimeCode(2)});
    if (video)
        add({Video(form, 6000, 28, false), Video(form, 9000, 28, true), Caption(form, 100)});
    add({Number("com.take", 7, nullptr), Number("com.roll", 8, "mine"), Audio(form, 3072, 12)});
    return steps;
}

}  // namespace

// ---- The recording, its log, and the file that should come of it ---------------------------

namespace {

// Where each packet of a log ends, by the sizes of its kinds.
std::vector<std::size_t> PacketEnds(const Bytes& log)
{
    const BoxFile file(log);
    std::vector<std::size_t> ends;
    std::size_t at = 5;
    const auto blob = [&] { at += 4 + file.U32(at); };
    while (at < log.size()) {
        static const std::map<int, std::size_t> kSizes = {{1, 2},  {2, 18}, {3, 19}, {4, 22},
                                                          {5, 13}, {6, 6},  {7, 13}, {8, 18},
                                                          {9, 5}};
        const int tag = log[at];
        const int codec = tag == 2 ? log[at + 13] : 0;
        at += kSizes.at(tag);
        if (tag == 1 || (tag == 2 && codec == MP4_VIDEO_HEVC))
            blob(), blob(), blob();
        else if (tag == 2 && codec == MP4_VIDEO_H264)
            blob(), blob();
        else if (tag == 2)
            ++at;
        ends.push_back(at);
    }
    return ends;
}

class Replay : public testing::TestWithParam<Form> {
protected:
    Replay() : steps(Script(GetParam())), path((folder / GetParam().name).string()) {}

    // Records all steps and leaves media and log as a kill does when all was handed over.
    void SetUp() override
    {
        ExternalSink sink;
        Recording rec(sink, path, GetParam().flags);
        const mp4_safe_param often{0, 400, 0, 0};
        EXPECT_EQ(mp4_set_safe_param(rec.Handle(), &often), 0u);
        for (const Step& step : steps)
            EXPECT_EQ(step(rec, false), 0u);
        media = sink.Data();
        sink.FailWrite(1, ENOSPC);
        const StdoutCapture quiet;
        EXPECT_EQ(rec.CloseStatus(), 16u);
        log = BoxFile::Read(rec.InfoPath()).All();
        ends = PacketEnds(log);
        ASSERT_EQ(ends.size(), steps.size());
        ASSERT_EQ(ends.back(), log.size());
    }

    // The file that a close behind the first `count` packets makes, without the frills.
    const BoxFile& Finished(std::size_t count)
    {
        BoxFile& file = m_finished[count];
        if (!file.All().empty())
            return file;
        ExternalSink sink;
        Recording rec(sink, path, GetParam().flags & (MP4_OPEN_LARGE_FILE | MP4_OPEN_VERSION1));
        for (std::size_t i = 0; i < count; ++i)
            EXPECT_EQ(steps[i](rec, true), 0u);
        const StdoutCapture quiet;
        return file = rec.Close();
    }

    // How many packets a log of `size` bytes lets through: its last byte never is.
    std::size_t Whole(std::size_t size) const
    {
        std::size_t count = 0;
        while (count < ends.size() && ends[count] < size)
            ++count;
        return count;
    }

    std::size_t Count(std::uint8_t tag, std::size_t packets) const
    {
        std::size_t count = 0;
        for (std::size_t i = 0; i < packets; ++i)
            count += log[i == 0 ? 5 : ends[i - 1]] == tag;
        return count;
    }

    // Whether the tag of a video or audio set-up is among the bytes that are delivered.
    bool TrackSeen(std::size_t size) const
    {
        const std::size_t open = Whole(size);
        const std::size_t next = open == 0 ? 5 : ends[open - 1];
        return Count(2, open) + Count(3, open) != 0 ||
               (next + 2 <= size && (log[next] == 2 || log[next] == 3));
    }

    // The finished file with its mdat shorter, and its moov earlier, by 4 bytes a time code.
    Bytes Expected(std::size_t logSize)
    {
        if (!TrackSeen(logSize))
            return {};
        const BoxFile& file = Finished(Whole(logSize));
        const std::size_t lost = 4 * Count(9, Whole(logSize));
        const BoxNode& mdat = *file.Node("mdat");
        const std::size_t begin = mdat.span.begin;
        const std::size_t size = mdat.span.Size() - lost;
        Bytes bytes = Slice(file.All(), 0, begin + size);
        const std::size_t field = mdat.header == 16 ? begin + 8 : begin;
        for (std::size_t i = mdat.header == 16 ? 8 : 4, shift = 0; i-- > 0; shift += 8)
            bytes[field + i] = shift < 32 ? static_cast<std::uint8_t>(size >> shift) : 0;
        return bytes + file.Box("moov");
    }

    // Expects that a repair of these two makes the file, and that a second one changes nothing.
    void ExpectRepaired(const Bytes& left, std::size_t logSize)
    {
        Wreck wreck(left, Slice(log, 0, logSize), GetParam().name);
        EXPECT_EQ(wreck.Repair(), 0u);
        const BoxFile file = wreck.Media();
        ASSERT_EQ(file.All(), Expected(logSize)) << "with a log of " << logSize << " bytes";
        if (!file.All().empty() && Count(9, Whole(logSize)) == 0) {
            EXPECT_THAT(file.Complaints(), IsEmpty());
        }
        EXPECT_EQ(wreck.Repair(1), 0u);
        EXPECT_EQ(wreck.Media().All(), file.All());
        EXPECT_FALSE(wreck.HasInfo());
    }

    const Folder folder;
    const std::vector<Step> steps;
    const std::string path;
    Bytes media;
    Bytes log;
    std::vector<std::size_t> ends;

private:
    std::map<std::size_t, BoxFile> m_finished;
};

std::string FormName(const testing::TestParamInfo<Form>& info)
{
    return info.param.label;
}

INSTANTIATE_TEST_SUITE_P(Forms, Replay, testing::ValuesIn(kForms), FormName);

}  // namespace

// ---- The tests -----------------------------------------------------------------------------

TEST_P(Replay, OfALogCutAtAnyByteKeepsItsWholePackets)
{
    for (std::size_t size = 0; size <= log.size(); ++size)
        ASSERT_NO_FATAL_FAILURE(ExpectRepaired(media, size));
}

TEST_P(Replay, KeepsNothingBehindTheLastSample)
{
    for (const std::size_t tail : {1u, 7u, 8u, 5000u})
        ASSERT_NO_FATAL_FAILURE(ExpectRepaired(media + Bytes(tail, 0xEE), log.size()));
}

TEST_P(Replay, KeepsAllPacketsOfALogWithAByteMore)
{
    log.push_back(0);
    ASSERT_NO_FATAL_FAILURE(ExpectRepaired(media, log.size()));
    EXPECT_EQ(Whole(log.size()), steps.size());
}

TEST_P(Replay, OfFramesThatNeverReachedTheFileLeavesAGap)
{
    const BoxFile& whole = Finished(Whole(log.size()));
    const std::size_t data = whole.Node("mdat")->span.begin + whole.Node("mdat")->header;
    for (const std::size_t kept : {0u, 1u, 30u}) {
        Wreck wreck(Slice(media, 0, data + kept), log, GetParam().name);
        EXPECT_EQ(wreck.Repair(1), 0u);
        Bytes expected = Expected(log.size());
        const std::size_t moov = wreck.Media().Find("moov").begin;
        ASSERT_GT(moov, data + kept);
        std::fill(expected.begin() + static_cast<std::ptrdiff_t>(data + kept),
                  expected.begin() + static_cast<std::ptrdiff_t>(moov), 0);
        EXPECT_EQ(wreck.Media().All(), expected);
    }
}

TEST_P(Replay, HidesChunksBehindMdatOnlyWithTimeCodes)
{
    Wreck wreck(media, log, GetParam().name);
    EXPECT_EQ(wreck.Repair(), 0u);
    if (GetParam().timeCode) {
        EXPECT_THAT(wreck.Media().Complaints(), Each(EndsWith(" is outside mdat")));
    } else {
        EXPECT_THAT(CheckFile(wreck.Media().All(), true), IsEmpty());
    }
}

// Any log is a log: the run ends with a status, and only a run without a failure takes the log away.
TEST_P(Replay, OfADamagedLogEndsWithAStatus)
{
    std::mt19937 random(1);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    for (int round = 0; round < 200; ++round) {
        Bytes damaged = log;
        for (std::size_t changes = 1 + below(3); changes > 0; --changes) {
            const std::size_t at = below(damaged.size());
            const auto place = damaged.begin() + static_cast<std::ptrdiff_t>(at);
            switch (below(3)) {
            case 0: damaged[at] = static_cast<std::uint8_t>(random()); break;
            case 1: damaged.erase(place); break;
            default: damaged.insert(place, static_cast<std::uint8_t>(random())); break;
            }
        }
        Wreck wreck(media, damaged, GetParam().name);
        const std::uint32_t status = wreck.Repair(1);
        EXPECT_LE(status, 1u);
        EXPECT_EQ(wreck.HasInfo(), status != 0);
        if (status != 0) {
            EXPECT_GE(std::filesystem::file_size(wreck.Path()), media.size());
        }
    }
}
