// Tracks, frames and the log of the model's recording.
#include "model/muxer.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace model {

namespace {

constexpr const char* kUnit = "src/Mp4Muxer";

}  // namespace

uint32_t Muxer::SetVideo(const VideoRecord* record)
{
    if (record == nullptr) {
        return 4;
    }
    if (const auto status = NotReady()) {
        return *status;
    }
    m_parser = Parser::None;
    if (record->codec > 2) {
        m_journal.Error(kUnit, fmt::format("invalid codec type {}", record->codec));
        return 5;
    }
    m_parser = record->codec == 0 ? Parser::H264 : record->codec == 1 ? Parser::Hevc : Parser::None;
    m_videoInfo = *record;
    m_videoInfo.sps = m_videoInfo.pps = m_videoInfo.vps = ParameterSet();
    const bool both = record->sps.size != 0 && record->pps.size != 0;
    m_videoReady = record->codec == 2 || (both && (record->codec == 0 || record->vps.size != 0));
    if (!m_videoReady) {
        m_journal.Info(kUnit, "no codec data in video track info, try to find it in stream");
        return 0;
    }
    m_tree->SetVideo(*record);
    return LogVideoTrack(*record);
}

uint32_t Muxer::SetAudio(const AudioRecord* record)
{
    if (record == nullptr) {
        return 4;
    }
    if (const auto status = NotReady()) {
        return *status;
    }
    m_audioReady = true;
    if (record->codec == 1 && (record->channels == 0 || record->rate == 0)) {
        m_journal.Error(kUnit, fmt::format("invalid audio channel({}) or sample rate({})",
                                           record->channels, record->rate));
        return 4;
    }
    if (record->codec == 2) {
        m_journal.Info(kUnit, "audio codec is adts, wait audio stream to get meta data");
        m_audioReady = false;
    }
    m_audioInfo = *record;
    if (!m_audioReady) {
        return 0;
    }
    m_tree->SetAudio(*record);
    return LogAudioTrack(*record);
}

uint32_t Muxer::SetCaption(const uint32_t* codec, uint32_t timescale)
{
    if (codec == nullptr) {
        return 4;
    }
    if (const auto status = NotReady()) {
        return *status;
    }
    m_captionCodec = *codec;
    m_tree->SetCaption(*codec, timescale);
    return Log(Bin().U8(6).U32(timescale == 0 ? 1000 : timescale).U8(*codec).bytes);
}

uint32_t Muxer::SetTimeCode(const TimeCodeRecord* record)
{
    if (record == nullptr) {
        return 4;
    }
    if (!m_file) {
        m_journal.Error(kUnit, "file not open!");
        return 19;
    }
    m_tree->SetTimeCode(*record);
    return Log(Bin()
                   .U8(8)
                   .U32(record->timescale)
                   .U64(record->frameDuration)
                   .U8(record->framesPerSecond)
                   .U32(record->flags)
                   .bytes);
}

uint32_t Muxer::SetMetadata(const Step& step)
{
    if (const auto status = NotReady()) {
        return *status;
    }
    const bool isEx = step.call == Call::SetMetadataEx;
    const uint32_t type = isEx ? step.type : 1;
    const uint32_t size = isEx ? step.size : 0;
    const auto space = isEx ? step.keyNamespace : std::nullopt;
    const auto end = std::find(step.data.begin(), step.data.end(), uint8_t{0});
    std::optional<Bytes> value;
    if (!step.null) {
        // A named item takes text whatever the type says.
        const bool isText =
            (type != 0 && type != 21) || !step.key || !step.key->starts_with("com.");
        value.emplace(step.data.begin(), isText ? end : step.data.begin() + size);
    }
    if (!m_tree->m_metadata.Set(step.key, value, type, space)) {
        return 4;
    }
    if (!m_logOpen) {
        return 0;
    }
    Bin packet;
    packet.U8(1).U8(type).U32(step.key->size() + 1).Text(*step.key).U8(0);
    if (step.null) {
        packet.U32(0);
    } else if (type == 1) {
        packet.U32(static_cast<size_t>(end - step.data.begin()) + 1);
        packet.Raw(Bytes(step.data.begin(), end)).U8(0);
    } else {
        packet.U32(size);
        packet.Raw(Bytes(step.data.begin(), step.data.begin() + size));
        if (size == 0) {  // no write of nothing succeeds
            Log(packet.bytes);
            m_logOpen = false;
            m_journal.Print(fmt::format("BaseIO : Error - [line *] Write error {} !\n\n",
                                        std::strerror(m_journal.error)));
            return StatusOf(m_journal.error);
        }
    }
    packet.U32(space ? space->size() + 1 : 0);
    if (space) {
        packet.Text(*space).U8(0);
    }
    return Log(packet.bytes);
}

void Muxer::AddSample(Track& track, uint32_t size, uint64_t time, bool sync)
{
    m_tree->AddSample(track, m_data, size, time, time, sync);
    m_data += size;
}

uint32_t Muxer::WriteVideo(const Bytes* data, uint64_t time)
{
    if (const auto status = NotReady()) {
        return *status;
    }
    if (data == nullptr || data->empty()) {
        m_journal.Warn(kUnit, "write video frame with empty data");
        return 0;
    }
    const bool isProRes = m_videoInfo.codec == 2;
    std::vector<Unit> units;
    if (!isProRes) {
        units = SplitFrame(*data);
        if (units.empty()) {
            m_journal.Error(kUnit, "Parse video frame fail !");
            return 8;
        }
        if (m_parser == Parser::None) {
            m_journal.Error(kUnit, "invalid video track!");
            return 9;
        }
    }
    CheckSafe(static_cast<uint32_t>(data->size()));
    if (!m_videoReady && !FindParameterSets(*data, units)) {
        m_journal.Warn(kUnit, "no codec data, drop frame");
        return 0;
    }
    uint32_t size = 0;
    bool key = isProRes;
    if (isProRes) {
        m_file->PutWhole(*data);
        size = static_cast<uint32_t>(data->size());
    }
    try {
        for (const Unit& unit : units) {
            m_file->PutWhole(Bin().U32(unit.size).bytes);
            m_file->PutWhole(data->data() + unit.start, unit.size);
            size += static_cast<uint32_t>(4 + unit.size);
            const uint8_t head = (*data)[unit.start];
            const int type = m_parser == Parser::H264 ? head & 0x1F : (head >> 1) & 0x3F;
            key = key || (m_parser == Parser::H264 ? type == 5 : type == 19 || type == 20);
        }
    } catch (const IoFailure& failure) {
        return StatusOf(failure.code);
    } catch (const OtherFailure&) {
        m_journal.Error(kUnit, "exception when write file");
        return 1;
    }
    AddSample(m_tree->m_video, size, time, key);
    if (!m_logOpen) {
        return 0;
    }
    Log(Bin().U8(4).U64(time).U64(time).U8(key ? 1 : 0).U32(size).bytes);
    ++m_logFrames;
    if (m_logFrames - m_logFlushed >= m_flushInterval) {
        FlushLog();
        m_logFlushed = m_logFrames;
    }
    return 0;
}

bool Muxer::FindParameterSets(const Bytes& frame, const std::vector<Unit>& units)
{
    VideoRecord& info = m_videoInfo;
    for (const Unit& unit : units) {
        const uint8_t head = frame[unit.start];
        const int type = info.codec == 0 ? head & 31 : (head >> 1) & 63;
        ParameterSet* set = nullptr;
        if (type == (info.codec == 0 ? 7 : 33)) {
            set = &info.sps;
        } else if (type == (info.codec == 0 ? 8 : 34)) {
            set = &info.pps;
        } else if (info.codec == 1 && type == 32) {
            set = &info.vps;
        }
        if (set != nullptr) {
            const auto start = frame.begin() + static_cast<ptrdiff_t>(unit.start);
            set->bytes.emplace(start, start + static_cast<ptrdiff_t>(unit.size));
            set->size = static_cast<int16_t>(unit.size);
        }
        if (info.sps.bytes && info.pps.bytes && (info.codec == 0 || info.vps.bytes)) {
            m_videoReady = true;
            m_journal.Info(kUnit, "found video codec data in stream, set video track info");
            m_tree->SetVideo(info);
            LogVideoTrack(info);
            return true;
        }
    }
    return false;
}

uint32_t Muxer::WriteAudio(const Bytes* data, uint64_t time)
{
    if (const auto status = NotReady()) {
        return *status;
    }
    if (data == nullptr || data->empty()) {
        m_journal.Warn(kUnit, "write audio frame with empty data");
        return 0;
    }
    CheckSafe(static_cast<uint32_t>(data->size()));
    const Bytes& frame = *data;
    const bool isAdts = frame.size() >= 8 && frame[0] == 0xFF && frame[1] >= 0xF0;
    if (!m_audioReady && m_audioInfo.codec == 2) {
        if (!isAdts) {
            m_journal.Error(kUnit, "invalid ADTS stream, please check it.");
            return 7;
        }
        m_audioInfo.rate = AdtsRate((frame[2] >> 2) & 15);
        m_audioInfo.objectType = static_cast<uint8_t>((frame[2] >> 6) + 1);
        m_audioInfo.channels = static_cast<uint16_t>((frame[2] & 1) * 4 + (frame[3] >> 6));
        m_journal.Info(kUnit, "ADTS stream, get and set audio track");
        m_tree->SetAudio(m_audioInfo);
        LogAudioTrack(m_audioInfo);
        m_audioReady = true;
    }
    const size_t head = isAdts ? 7 : 0;
    const uint32_t size = static_cast<uint32_t>(frame.size() - head);
    try {
        m_file->PutWhole(frame.data() + head, size);
    } catch (const IoFailure& failure) {
        return StatusOf(failure.code);
    } catch (const OtherFailure&) {
        m_journal.Error(kUnit, fmt::format("write buffer exception, buffer size {}", size));
        return 1;
    }
    AddSample(m_tree->m_audio, size, time, false);
    return Log(Bin().U8(5).U64(time).U32(size).bytes);
}

uint32_t Muxer::PackCaption(const Bytes* data, uint32_t size)
{
    const auto byte = [&](size_t at) -> uint32_t {
        return data == nullptr || at >= size ? 0 : (*data)[at];
    };
    uint32_t written = 0;
    if (m_captionCodec == 1) {
        if (size < 6 || byte(0) != 0x61 || byte(1) != 2) {
            m_journal.Error(kUnit, "subtitle 608 frame format error");
            return 0;
        }
        for (size_t at = 3; at + 3 <= size; at += 3) {
            const uint32_t field = byte(at) & 3;
            if (field < 2) {
                m_file->PutWhole(Bin()
                                     .U32(10)
                                     .Text(field == 0 ? "cdat" : "cdt2")
                                     .U8(byte(at + 1))
                                     .U8(byte(at + 2))
                                     .bytes);
                written += 10;
            }
        }
        return written;
    }
    const uint32_t length = byte(2);
    if (size < 3 || byte(0) != 0x61 || byte(1) != 1 || length > size - 3) {
        m_journal.Error(kUnit, "subtitle 708 frame format error");
        return 0;
    }
    m_file->PutWhole(Bin().U32(length + 8).Text("ccdp").bytes);
    m_file->PutWhole(data->data() + 3, length);
    return length + 8;
}

uint32_t Muxer::WriteCaption(const Bytes* data, uint32_t size, uint64_t time)
{
    if (const auto status = NotReady()) {
        return *status;
    }
    CheckSafe(size);
    if (m_captionCodec != 1 && m_captionCodec != 2) {
        m_journal.Error(kUnit, fmt::format("unknown subtitle codec type {}", m_captionCodec));
        return 6;
    }
    uint32_t written = 0;
    try {
        written = PackCaption(data, data == nullptr ? 0 : size);
    } catch (const IoFailure& failure) {
        return StatusOf(failure.code);
    } catch (const OtherFailure&) {
        return 1;
    }
    AddSample(m_tree->m_caption, written, time, false);
    return Log(Bin().U8(7).U64(time).U32(written).bytes);
}

uint32_t Muxer::WriteTimeCode(uint32_t value)
{
    if (!m_file) {
        m_journal.Error(kUnit, "file not open!");
        return 19;
    }
    try {
        m_file->PutWhole(Bin().U32(value).bytes);
    } catch (const IoFailure& failure) {
        return StatusOf(failure.code);
    } catch (const OtherFailure&) {
        return 1;
    }
    AddSample(m_tree->m_timeCode, 4, 0, false);
    return Log(Bin().U8(9).U32(value).bytes);
}

uint32_t Muxer::FlushInterval(uint32_t interval)
{
    if (interval < 10) {
        m_journal.Print(fmt::format("ERROR:info file flush interval({}) too small\n",
                                    static_cast<int32_t>(interval)));
        return 0;
    }
    m_journal.Print(fmt::format("change info file flush interval from {} to {}\n",
                                static_cast<int32_t>(m_flushInterval),
                                static_cast<int32_t>(interval)));
    m_flushInterval = interval;
    return 4;
}

uint32_t Muxer::LogVideoTrack(const VideoRecord& record)
{
    Bin packet;
    packet.U8(2).U32(record.timescale).U64(record.duration).U8(record.codec);
    packet.U16(record.width).U16(record.height);
    const auto put = [&](const ParameterSet& set) {
        packet.U32(static_cast<uint64_t>(int64_t{set.size}));
        if (set.bytes && set.size > 0) {
            packet.Raw(Bytes(set.bytes->begin(), set.bytes->begin() + set.size));
        }
    };
    if (record.codec == 1) {
        put(record.vps);
    }
    if (record.codec == 2) {
        packet.U8(record.proRes);
    } else {
        put(record.sps);
        put(record.pps);
    }
    return Log(packet.bytes);
}

uint32_t Muxer::LogAudioTrack(const AudioRecord& record)
{
    return Log(Bin()
                   .U8(3)
                   .U32(record.timescale)
                   .U64(record.duration)
                   .U8(record.codec)
                   .U16(record.rate)
                   .U16(record.channels)
                   .U8(record.objectType)
                   .bytes);
}

// Appends to the log, as long as it is open.
uint32_t Muxer::Log(const Bytes& packet)
{
    if (m_logOpen) {
        m_log.insert(m_log.end(), packet.begin(), packet.end());
    }
    return 0;
}

void Muxer::FlushLog()
{
    if (m_logOpen) {
        m_logOnDisk = m_log.size();
    }
}

}  // namespace model
