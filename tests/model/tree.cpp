#include "model/tree.h"

#include <algorithm>
#include <fmt/format.h>

namespace model {

namespace {

constexpr const char* kUnit = "src/moov";

uint64_t Ms(uint64_t duration, uint32_t timescale)
{
    return timescale == 0 ? 0 : duration * 1000 / timescale;
}

}  // namespace

void Finish(Target& io, uint64_t start)
{
    const uint64_t end = io.Tell();
    io.Seek(start);
    io.Put(Bin().U32(end - start).bytes);
    io.Seek(end);
}

void Nest(Target& io, const Bytes& head, const std::function<void()>& children)
{
    const uint64_t start = io.Tell();
    io.Put(head);
    children();
    Finish(io, start);
}

void Tree::Nest(std::string_view code, const std::function<void()>& children)
{
    model::Nest(m_io, Bin().U32(8).Text(code).bytes, children);
}

Tree::Tree(Journal& journal, Target& io) : m_journal(journal), m_io(io)
{
    m_audio.kind = Kind::Audio;
    m_timeCode.kind = Kind::TimeCode;
    m_timeCode.timescale = 0;
    m_caption.kind = Kind::Caption;
}

void Tree::SetLongForm()
{
    m_longForm = m_video.longForm = m_audio.longForm = true;
}

void Tree::SetLarge()
{
    m_video.co64 = m_audio.co64 = m_timeCode.co64 = true;
}

void Tree::SetQuickTime(bool quickTime)
{
    m_quickTime = quickTime;
}

void Tree::NewId(Track& track)
{
    track.id = ++m_ids;
}

void Tree::SetVideo(const VideoRecord& record)
{
    NewId(m_video);
    m_video.timescale = m_video.mdhdTimescale = record.timescale == 0 ? 1000 : record.timescale;
    m_width = record.width;
    m_height = record.height;
    m_video.lastDuration = m_video.loneDelta = static_cast<uint32_t>(record.duration);
    if (record.codec == 0) {
        m_videoCode = "avc1";
        m_avc.Set(record.sps, record.pps);
    } else if (record.codec == 1) {
        m_videoCode = "hev1";
        m_hevc.Set(record.vps, record.sps, record.pps, m_journal);
    } else if (record.codec == 2) {
        static constexpr const char* kFormats[6][2] = {
            {"apco", "Apple ProRes 422 Proxy"}, {"apcs", "Apple ProRes 422 LT"},
            {"apcn", "Apple ProRes 422"},       {"apch", "Apple ProRes 422 HQ"},
            {"ap4h", "Apple ProRes 4444"},      {"ap4x", "Apple ProRes 4444 XQ"}};
        m_isProRes = true;
        if (record.proRes < 6) {
            m_proResCode = kFormats[record.proRes][0];
            m_compressor = kFormats[record.proRes][1];
        } else {
            m_journal.Error("src/stsd", fmt::format("invalid prores format {}", record.proRes));
        }
        m_videoCode = m_proResCode;
        m_videoCode.resize(4);
    }
}

void Tree::SetAudio(const AudioRecord& record)
{
    NewId(m_audio);
    m_audio.timescale = m_audio.mdhdTimescale = record.timescale == 0 ? 1000 : record.timescale;
    m_audioRate = record.rate;
    m_esId = m_audio.id;
    m_audio.lastDuration = m_audio.loneDelta = static_cast<uint32_t>(record.duration);
    if (record.codec == 1 || record.codec == 2) {
        m_audioCode = "mp4a";
        m_audioConfig =
            AudioConfig(record.objectType, record.rate, static_cast<uint8_t>(record.channels));
    }
}

void Tree::SetCaption(uint32_t codec, uint32_t timescale)
{
    NewId(m_caption);
    m_caption.timescale = m_caption.mdhdTimescale = timescale == 0 ? 1000 : timescale;
    m_caption.loneDelta = 0;
    if (codec == 1 || codec == 2) {
        m_captionCode = codec == 1 ? "c608" : "c708";
    } else {
        m_journal.Error("src/stsd", fmt::format("unknown subtitle codec {}", codec));
    }
}

void Tree::SetTimeCode(const TimeCodeRecord& record)
{
    NewId(m_timeCode);
    m_timeCode.timescale = m_timeCode.mdhdTimescale = record.timescale;
    m_tmcd = record;
    m_references.push_back(m_timeCode.id);
}

void Tree::AddSample(Track& track, uint64_t offset, uint32_t size, uint64_t presentation,
                     uint64_t decoding, bool sync)
{
    const bool newChunk = m_lastId != track.id;
    m_lastId = track.id;
    if (track.kind == Kind::TimeCode) {
        track.Add(offset, 4, 1, newChunk);
        return;
    }
    track.lastDelta = static_cast<uint32_t>(presentation) - static_cast<uint32_t>(track.last);
    track.last = presentation;
    track.Add(offset, size, decoding, newChunk);
    if (track.kind == Kind::Video && sync) {
        track.syncs.push_back(static_cast<uint32_t>(track.sizes.size()));
    }
    if (track.sizes.size() == 1 && (track.kind != Kind::Video || sync)) {
        track.first = presentation;
    }
}

uint64_t Tree::DurationMs()
{
    const uint64_t video = Ms(m_video.Duration(), m_video.timescale);
    return std::max(video, Ms(m_audio.Duration(), m_audio.timescale));
}

double Tree::Bitrate(Track& track)
{
    const uint64_t duration = track.Duration();
    if (duration == 0) {
        return 0.0;
    }
    return static_cast<double>(track.timescale * track.dataSize) /
           static_cast<double>(static_cast<int64_t>(duration << 10));
}

// moov without its size: the movie header, video and audio.
void Tree::Header()
{
    const uint64_t duration = DurationMs();
    const int width = m_longForm ? 8 : 4;
    Bin b;
    b.U8(m_longForm ? 1 : 0).Zeros(3).Number(0, width).Number(0, width).U32(1000);
    b.Number(duration, width).U32(0x00010000).U16(0x0100).Zeros(10);
    b.U32(0x00010000).U32(0).U32(0).U32(0).U32(0x00010000).U32(0).U32(0).U32(0).U32(0x40000000);
    b.Zeros(24).U32(m_ids == 0 ? 2 : m_ids + 1);
    m_io.PutWhole(Bin().U32(b.bytes.size() + 8).Text("mvhd").Raw(b.bytes).bytes);
    WriteTrack(m_video);
    WriteTrack(m_audio);
}

// The time-code track lasts as long as the video.
void Tree::FollowVideo()
{
    m_timeCode.last = m_timeCode.timescale * m_video.Duration() / m_video.timescale;
    m_timeCode.first = 0;
}

void Tree::CompareSize(uint64_t start)
{
    const uint64_t real = m_io.Tell() - start;
    if (real == Size()) {
        return;
    }
    m_journal.Warn(kUnit,
                   fmt::format("calc size({}) not equal to moov real size:{}", Size(), real));
    m_journal.Info(kUnit,
                   fmt::format("m_mvhd size:{}, m_trakVideo size:{}, m_trakAudio size:{}, "
                               "m_trakSubtitle size:{}, m_trackTC size:{}, m_udta size:{}",
                               m_longForm ? 120 : 108, TrackSize(m_video), TrackSize(m_audio),
                               TrackSize(m_caption), TrackSize(m_timeCode), m_metadata.Size()));
}

void Tree::Write(StagingTarget* staging)
{
    uint64_t start = m_io.Tell();
    if (staging != nullptr) {
        staging->Reset();
        start = 0;
    }
    m_io.Put(Bin().U32(8).Text("moov").bytes);
    Header();
    FollowVideo();
    WriteTrack(m_timeCode);
    WriteTrack(m_caption);
    m_metadata.Write(m_io, m_journal);
    Finish(m_io, start);
    m_journal.Info(kUnit, "moov update size finished");
    CompareSize(start);
    if (staging != nullptr) {
        const uint64_t size = staging->Tell();
        staging->Flush();
        m_journal.Info(kUnit, fmt::format("moov flush finished, size:{}", size));
    }
}

void Tree::WriteAt(uint64_t position)
{
    const uint64_t saved = m_io.Tell();
    if (saved != position) {
        m_io.Seek(position);
    }
    m_io.Put(Bin().U32(8).Text("moov").bytes);
    Header();
    WriteTrack(m_caption);
    FollowVideo();
    WriteTrack(m_timeCode);
    m_metadata.Write(m_io, m_journal);
    Finish(m_io, position);
    CompareSize(position);
    m_io.Seek(saved);
}

}  // namespace model
