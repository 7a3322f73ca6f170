#include "model/repairer.h"

#include <algorithm>
#include <fmt/format.h>

namespace model {

namespace {

constexpr const char* kUnit = "src/Mp4Repair";

Bytes UpToZero(const Bytes& bytes)
{
    return Bytes(bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0}));
}

}  // namespace

// The last byte of a log is never delivered.
Bytes Repairer::Take(uint32_t size)
{
    if (m_log->empty() || uint64_t{m_at} + size > m_log->size() - 1) {
        m_journal.Print("[line *] Read EOF !\n");
        throw Stop{};
    }
    const auto start = m_log->begin() + static_cast<ptrdiff_t>(m_at);
    m_at += size;
    return Bytes(start, start + static_cast<ptrdiff_t>(size));
}

uint64_t Repairer::Number(int width)
{
    uint64_t value = 0;
    for (const uint8_t byte : Take(static_cast<uint32_t>(width))) {
        value = value << 8 | byte;
    }
    return value;
}

void Repairer::Damaged()
{
    m_journal.Print("[line *] Read EOF !\n");
    throw IoFailure{m_journal.error};
}

// A blob; one of no bytes has no address.
ParameterSet Repairer::Set()
{
    const uint32_t size = static_cast<uint32_t>(Number(4));
    ParameterSet set;
    set.size = static_cast<int16_t>(size);
    if (size != 0) {
        set.bytes = Take(size);
    }
    return set;
}

void Repairer::Metadata()
{
    const uint32_t type = static_cast<uint32_t>(Number(1));
    const ParameterSet key = Set();
    const ParameterSet value = Set();
    const bool hasSpace = Number(4) != 0;
    std::optional<std::string> space;
    if (hasSpace) {
        m_at -= 4;
        const Bytes bytes = UpToZero(*Set().bytes);
        space.emplace(bytes.begin(), bytes.end());
    }
    std::optional<std::string> name;
    if (key.bytes) {
        const Bytes bytes = UpToZero(*key.bytes);
        name.emplace(bytes.begin(), bytes.end());
    }
    std::optional<Bytes> kept;
    if (value.bytes && !value.bytes->empty()) {
        const bool isText = (type != 0 && type != 21) || !name || !name->starts_with("com.");
        kept = isText ? UpToZero(*value.bytes) : *value.bytes;
    }
    m_tree->m_metadata.Set(name, kept, type, space);
}

void Repairer::VideoTrack()
{
    if (m_videoSeen) {
        Damaged();
    }
    m_videoSeen = true;
    VideoRecord record;
    record.timescale = static_cast<uint32_t>(Number(4));
    record.duration = Number(8);
    record.codec = static_cast<uint32_t>(Number(1));
    record.width = static_cast<uint16_t>(Number(2));
    record.height = static_cast<uint16_t>(Number(2));
    if (record.codec > 2) {
        Damaged();
    }
    if (record.codec == 1) {
        record.vps = Set();
    }
    if (record.codec == 2) {
        record.proRes = static_cast<uint32_t>(Number(1));
    } else {
        record.sps = Set();
        record.pps = Set();
    }
    m_tree->SetVideo(record);
}

void Repairer::AudioTrack()
{
    if (m_audioSeen) {
        Damaged();
    }
    m_audioSeen = true;
    AudioRecord record;
    record.timescale = static_cast<uint32_t>(Number(4));
    record.duration = Number(8);
    record.codec = static_cast<uint32_t>(Number(1));
    record.rate = static_cast<uint16_t>(Number(2));
    record.channels = static_cast<uint16_t>(Number(2));
    record.objectType = static_cast<uint8_t>(Number(1));
    m_tree->SetAudio(record);
}

void Repairer::Sample(Track& track, uint32_t size, uint64_t presentation, uint64_t decoding,
                      bool sync)
{
    m_tree->AddSample(track, m_next, size, presentation, decoding, sync);
    m_next += size;
    if (track.kind != Kind::TimeCode) {
        m_mediaBytes += size;
    }
}

void Repairer::Packet()
{
    const uint64_t tag = Number(1);
    switch (tag) {
    case 1: Metadata(); break;
    case 2: VideoTrack(); break;
    case 3: AudioTrack(); break;
    case 4: {
        const uint64_t presentation = Number(8);
        const uint64_t decoding = Number(8);
        const bool sync = Number(1) != 0;
        Sample(m_tree->m_video, static_cast<uint32_t>(Number(4)), presentation, decoding, sync);
        break;
    }
    case 5:
    case 7: {
        const uint64_t time = Number(8);
        Sample(tag == 5 ? m_tree->m_audio : m_tree->m_caption, static_cast<uint32_t>(Number(4)),
               time, time, false);
        break;
    }
    case 6: {
        const uint32_t timescale = static_cast<uint32_t>(Number(4));
        m_tree->SetCaption(static_cast<uint32_t>(Number(1)), timescale);
        break;
    }
    case 8: {
        TimeCodeRecord record;
        record.timescale = static_cast<uint32_t>(Number(4));
        record.frameDuration = Number(8);
        record.framesPerSecond = static_cast<uint8_t>(Number(1));
        record.flags = static_cast<uint32_t>(Number(4));
        m_tree->SetTimeCode(record);
        break;
    }
    case 9:
        Number(4);
        Sample(m_tree->m_timeCode, 4, 0, 0, false);
        break;
    default: m_journal.Error(kUnit, fmt::format("unknown packet type {}", tag)); Damaged();
    }
}

void Repairer::Index()
{
    const uint64_t head = m_large ? 16 : 8;
    m_file->Seek(m_mdat + (m_large ? 8 : 0));
    m_file->Put((m_large ? Bin().U64(m_mediaBytes + head) : Bin().U32(m_mediaBytes + head)).bytes);
    m_file->Seek(m_mdat + m_mediaBytes + head);
    m_tree->Write(nullptr);
    m_end = m_file->Tell();
    const uint64_t size = m_media->Size();
    if (m_end + 8 <= size) {
        m_file->Put(Bin().U32(size - m_end).Text("free").bytes);
    }
}

// From the log's header to the index. Its status; m_end stays 0 where nothing was rebuilt.
uint32_t Repairer::Rebuild()
{
    const uint8_t flags = static_cast<uint8_t>(Number(1));
    m_large = (flags & 2) != 0;
    if (m_large) {
        m_tree->SetLarge();
    }
    if ((flags & 1) != 0) {
        m_tree->SetLongForm();
    }
    m_mdat = Number(4);
    if (m_media->Size() < m_mdat + 8) {
        return 0;
    }
    m_next = m_mdat + (m_large ? 16 : 8);
    uint32_t status = 0;
    try {
        for (;;) {
            Packet();
        }
    } catch (Stop) {
    } catch (const IoFailure& failure) {
        status = failure.code == 1000 ? 0 : StatusOf(failure.code);
    } catch (const OtherFailure&) {
        status = 1;
    }
    if (!m_videoSeen && !m_audioSeen) {
        m_journal.Error(kUnit, "no enough info to repair mp4, repair failed");
        return status;
    }
    try {
        Index();
    } catch (const OtherFailure&) {
        status = 1;
    }
    return status;
}

uint32_t Repairer::Run(const Place& place, uint8_t option)
{
    if (place.length + 6 > 1024) {
        return 4;
    }
    if (!m_media) {
        m_journal.Error("src/BaseIO", "open file failed, error:No such file or directory");
        return 12;
    }
    if (!m_log) {
        return 12;
    }
    m_quickTime = place.path.find("mov") != std::string::npos;
    m_file = std::make_unique<FileTarget>(m_journal, *m_media, false, Fault());
    m_tree = std::make_unique<Tree>(m_journal, *m_file);
    m_tree->SetQuickTime(m_quickTime);
    uint32_t status = 0;
    try {
        status = Rebuild();
    } catch (Stop) {
    }
    m_media = m_file->m_image;
    if (status != 0) {
        return status;
    }
    m_media->Resize(m_end);
    if (option != 0) {
        m_journal.Info(kUnit, "delete repair file");
        m_log.reset();
    }
    return 0;
}

}  // namespace model
