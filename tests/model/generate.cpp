#include "model/generate.h"

#include "model/streams.h"

#include <algorithm>
#include <cerrno>

namespace model {

namespace {

constexpr std::initializer_list<int> kErrors = {0,      EPERM,  ENOENT, EIO,   EACCES, EBUSY,
                                                EMFILE, ENOSPC, EROFS,  EPIPE, EFBIG};

class Maker {
public:
    explicit Maker(uint64_t seed) : m_random(seed) {}

    Sequence Make(uint64_t seed)
    {
        Sequence sequence;
        sequence.seed = seed;
        sequence.opening = MakeOpening();
        const bool safe = (sequence.opening.flags & 0x08) != 0;
        if (safe && m_random.Chance(85)) {
            sequence.steps.push_back(Make(Call::SetSafe));
        }
        // Most recordings announce their tracks; some frames come before, and some for nothing.
        if (m_random.Chance(85)) {
            std::vector<Call> tracks = {Call::SetVideo, Call::SetAudio};
            if (m_random.Chance(40)) {
                tracks.push_back(Call::SetSubtitle);
            }
            if (m_random.Chance(40)) {
                tracks.push_back(Call::SetTimeCode);
            }
            for (size_t i = tracks.size(); i > 1; --i) {
                std::swap(tracks[i - 1], tracks[m_random.Below(i)]);
            }
            tracks.resize(tracks.size() - m_random.Below(2));
            for (const Call call : tracks) {
                sequence.steps.push_back(Make(call));
            }
        }
        // The rule that flushes a log every so many pictures is met when these are few.
        const bool flushes = (sequence.opening.flags & 0x10) != 0 && m_random.Chance(33);
        if (flushes) {
            sequence.steps.push_back(Make(Call::FlushInterval));
            sequence.steps.back().handle = Handle::Good;
            sequence.steps.back().number = 10 + m_random.Below(3);
        }
        uint32_t count = m_random.Spread32(m_random.Chance(90) ? 5 : 7);
        if (m_random.Chance(flushes ? 60 : 2)) {
            count = 40 + m_random.Below(41);
        } else if (m_random.Below(500) == 0) {
            count = m_random.Spread32(12);
        }
        for (uint32_t i = 0; i < count; ++i) {
            sequence.steps.push_back(Make(AnyCall()));
        }
        sequence.steps.push_back(Make(Call::Close));
        sequence.steps.back().handle = Handle::Good;
        for (uint32_t i = m_random.Chance(90) ? 0 : m_random.Below(4); i > 0; --i) {
            sequence.steps.push_back(Make(m_random.Chance(30) ? Call::Close : AnyCall()));
        }
        if (m_random.Chance(40)) {
            sequence.repair = MakeRepair();
        }
        return sequence;
    }

private:
    Opening MakeOpening();
    Fault MakeFault(bool safe);
    Repair MakeRepair();
    Call AnyCall();
    Step Make(Call call);
    void MakeVideoTrack(Step& step);
    void MakeAudioTrack(Step& step);
    void MakeMetadata(Step& step);
    uint64_t Time(uint64_t& clock);
    uint32_t Timescale();
    uint32_t Codec(uint32_t usual);
    int Error()
    {
        return m_random.Chance(70) ? 0 : m_random.Chance(5) ? 1000 : m_random.Pick(kErrors);
    }

    Random m_random;
    uint32_t m_videoCodec = m_random.Pick({0u, 0u, 1u, 1u, 2u});
    uint32_t m_audioCodec = m_random.Pick({1u, 2u, 2u});
    uint32_t m_captionCodec = m_random.Pick({1u, 2u});
    uint32_t m_step = m_random.Pick({0u, 1u, 33u, 40u, 512u, 1001u, 90000u});
    uint64_t m_videoClock = m_random.Chance(70) ? 0 : m_random.Spread(64);
    uint64_t m_audioClock = m_videoClock;
    uint64_t m_captionClock = m_random.Spread(20);
};

Opening Maker::MakeOpening()
{
    Opening opening;
    for (const auto& [flag, percent] : {std::pair{0x01, 30u},
                                        {0x02, 30u},
                                        {0x08, 40u},
                                        {0x10, 50u},
                                        {0x20, 25u},
                                        {0x04, 5u},
                                        {0x40, 3u},
                                        {0x80, 3u}}) {
        opening.flags = static_cast<uint8_t>(opening.flags | (m_random.Chance(percent) ? flag : 0));
    }
    opening.path = m_random.Pick({"clip.mp4", "clip.mp4", "clip.mov"});
    if (m_random.Chance(12)) {
        opening.path = m_random.Pick(
            {"movies/clip.mp4", "CLIP.MOV", "clip", "caf\xC3\xA9.mp4", "none/clip.mp4", "folder",
             "folderlog.mp4", "fulllog.mp4", "LONG1018", "LONG1019", "LONG1022", "LONG1023",
             "a.mov.mp4", "CUT", "\xE6\x97\xA5\xE6\x9C\xAC.mov", "\xF0\x9F\x8E\xAC.mp4"});
    }
    opening.blockSize = m_random.Spread32(32);
    opening.blockCount = m_random.Spread32(32);
    opening.ioMode = m_random.Pick({0u, 2u, 2u});
    opening.create = m_random.Pick({Create::Adv, Create::AdvMultibyte});
    if (opening.ioMode == 0) {
        opening.create = m_random.Pick({Create::Wide, Create::Multibyte, Create::Adv,
                                        Create::AdvMultibyte, Create::Front, Create::FrontWide});
        opening.table = m_random.Chance(50);  // nobody looks at it
    } else {
        if (m_random.Chance(4)) {
            opening.ioMode = m_random.Pick({1u, 3u, 4u, 0xFFFFFFFFu});
        }
        if (m_random.Chance(8)) {
            opening.start = m_random.Pick<uint64_t>({1, 0xFFFFFF00, 0xFFFFFFFF, 0x100000000}) +
                            m_random.Spread(m_random.Chance(80) ? 8 : 42);
        }
        opening.table = !m_random.Chance(2);
    }
    if (opening.create == Create::Front || opening.create == Create::FrontWide) {
        opening.flags = 0x12;
    }
    opening.stale = m_random.Chance(5);
    opening.nullPath = m_random.Chance(1);
    opening.nullOut = m_random.Chance(1);
    if (opening.ioMode == 2) {
        opening.fault = MakeFault((opening.flags & 0x08) != 0);
    }
    return opening;
}

Fault Maker::MakeFault(bool safe)
{
    Fault fault;
    if (m_random.Chance(10)) {
        fault.openAnswer = m_random.Pick<uint8_t>({0, 0, 2, 128, 255});
    }
    if (m_random.Chance(30)) {
        fault.limit = m_random.Spread(14);
        fault.error = m_random.Chance(3) ? 1000 : m_random.Pick(kErrors);
        fault.answer = m_random.Pick({0, 0, 2, -1, 256, 257, INT32_MIN});
        fault.way = m_random.Pick({Fault::Way::Answer, Fault::Way::Answer, Fault::Way::IoException,
                                   Fault::Way::OtherException});
        // What a box that was stopped half-way has left for its next write is nobody's promise.
        fault.again = safe || m_random.Chance(50);
    }
    if (m_random.Chance(5)) {
        fault.tellsMinusOne = !safe && m_random.Chance(30);  // a checkpoint's place is above zero
        fault.tellsMore = 1 + m_random.Spread(m_random.Chance(80) ? 6 : 16);
    }
    fault.ignoresSeeks = !safe && m_random.Chance(4);
    return fault;
}

Repair Maker::MakeRepair()
{
    Repair repair;
    repair.front = m_random.Chance(30);
    repair.multibyte = m_random.Chance(50);
    repair.option = m_random.Pick<uint8_t>({0, 0, 1, 255});
    repair.error = Error();
    repair.fit = m_random.Chance(10) ? 6 + m_random.Below(4) : 0;
    repair.nullPath = m_random.Chance(1);
    repair.noMedia = m_random.Chance(2);
    repair.noLog = m_random.Chance(2);
    if (m_random.Chance(30)) {
        repair.madeUpLog = MadeUpLog(m_random);
    }
    repair.runs = m_random.Chance(80) ? 1 : 2;
    if (m_random.Chance(40)) {
        repair.logCut = m_random.Next();
    }
    if (m_random.Chance(40)) {
        for (uint32_t i = 0; i <= m_random.Below(3); ++i) {
            repair.logFlips.emplace_back(m_random.Next(),
                                         static_cast<uint8_t>(1u << m_random.Below(8)));
        }
    }
    if (m_random.Chance(20)) {
        repair.logTail = m_random.Some(m_random.Spread32(7));
    }
    if (m_random.Chance(30)) {
        repair.mediaCut = m_random.Next();
    }
    if (m_random.Chance(30)) {
        repair.mediaTail = m_random.Spread(16);
    }
    return repair;
}

Call Maker::AnyCall()
{
    static constexpr std::pair<Call, uint32_t> kWeights[] = {
        {Call::WriteVideo, 40},   {Call::WriteAudio, 30},   {Call::WriteSubtitle, 12},
        {Call::WriteTimeCode, 5}, {Call::SetVideo, 2},      {Call::SetAudio, 2},
        {Call::SetSubtitle, 2},   {Call::SetTimeCode, 2},   {Call::SetMetadata, 4},
        {Call::SetMetadataEx, 4}, {Call::Duration, 2},      {Call::MoovSize, 2},
        {Call::VideoBitrate, 1},  {Call::AudioBitrate, 1},  {Call::GetSafe, 1},
        {Call::SetSafe, 2},       {Call::FlushInterval, 2}, {Call::Close, 1},
    };
    uint32_t total = 0;
    for (const auto& entry : kWeights) {
        total += entry.second;
    }
    uint32_t at = m_random.Below(total);
    for (const auto& [call, weight] : kWeights) {
        if (at < weight) {
            return call;
        }
        at -= weight;
    }
    return Call::Close;
}

uint32_t Maker::Timescale()
{
    return m_random.Chance(85) ? m_random.Pick({0u, 1000u, 1000u, 30000u, 48000u, 90000u})
                               : m_random.Spread32(32);
}

// Mostly the one of the frames; else one out of range, also where eight bits would bring it back.
uint32_t Maker::Codec(uint32_t usual)
{
    return m_random.Chance(93)   ? usual
           : m_random.Chance(60) ? m_random.Below(5)
           : m_random.Chance(60) ? 5 + m_random.Below(296)
                                 : m_random.Pick({255u, 256u, 257u, 258u, 300u, 0xFFFFFFFFu});
}

uint64_t Maker::Time(uint64_t& clock)
{
    const uint64_t now = clock;
    clock += m_step;
    if (m_random.Chance(15)) {
        clock += uint64_t{m_random.Below(5)} - 2;
    } else if (m_random.Chance(2)) {
        clock += m_random.Spread(33);
    }
    return m_random.Chance(2) ? m_random.Spread(64) : now;
}

void Maker::MakeVideoTrack(Step& step)
{
    step.timescale = Timescale();
    step.time = m_random.Chance(60) ? 0 : m_random.Spread(64);
    step.codec = Codec(m_videoCodec);
    step.width = static_cast<uint16_t>(m_random.Chance(90) ? 1920 : m_random.Spread(16));
    step.height = static_cast<uint16_t>(m_random.Chance(90) ? 1080 : m_random.Spread(16));
    step.number = m_random.Chance(95) ? m_random.Below(6) : m_random.Spread32(32);
    if (step.codec < 2 || m_random.Chance(30)) {
        GiveParameterSets(m_random, step.codec, step);
    }
    if (step.front) {
        step.codec = m_random.Chance(95) ? step.codec + 1 : step.codec;
    }
}

void Maker::MakeAudioTrack(Step& step)
{
    step.timescale = Timescale();
    step.time = m_random.Chance(60) ? 0 : m_random.Spread(64);
    step.codec = Codec(m_audioCodec);
    step.width = m_random.Chance(80)
                     ? m_random.Pick<uint16_t>({48000, 44100, 32000, 8000, 7350, 30464, 0})
                     : static_cast<uint16_t>(m_random.Next());
    step.height = static_cast<uint16_t>(m_random.Chance(90) ? m_random.Below(9) : m_random.Next());
    step.number = m_random.Chance(90) ? 2 : m_random.Byte();
}

void Maker::MakeMetadata(Step& step)
{
    const char* key = m_random.Pick({"title",
                                     "artist",
                                     "album_artist",
                                     "composer",
                                     "album",
                                     "date",
                                     "encoding_tool",
                                     "comment",
                                     "genre",
                                     "copyright",
                                     "grouping",
                                     "lyrics",
                                     "description",
                                     "synopsis",
                                     "show",
                                     "episode_id",
                                     "network",
                                     "\xA9nam",
                                     "\x07"
                                     "ART",
                                     "ldes",
                                     "unknown",
                                     "com",
                                     "com.",
                                     "com.acme.take",
                                     "com.acme.take",
                                     "com.acme.scene",
                                     "com.\xC3\xA9",
                                     "Com.x",
                                     ""});
    if (!m_random.Chance(2)) {
        step.key = key;
    }
    const uint32_t bits = m_random.Chance(90) ? 6 : 10;
    step.data = m_random.Some(m_random.Below(200) == 0 ? 5000 : m_random.Spread32(bits));
    for (uint8_t& byte : step.data) {
        byte = byte == 0 && m_random.Chance(90) ? 'x' : byte;
    }
    step.data.push_back(0);
    step.type = m_random.Pick({0u, 1u, 1u, 21u, 21u, 2u, 13u, 22u, 256u, 257u});
    step.size = m_random.Chance(10) ? 0 : m_random.Below(step.data.size() + 1);
    step.null = m_random.Chance(6);
    if (m_random.Chance(40)) {
        step.keyNamespace = m_random.Pick({"mdta", "udta", "abcdefgh", "ab", ""});
    }
}

Step Maker::Make(Call call)
{
    Step step;
    step.call = call;
    step.error = Error();
    step.front = m_random.Chance(15);
    if (m_random.Chance(call == Call::Close ? 80 : 1)) {
        step.handle = m_random.Pick({Handle::Null, Handle::Unknown});
    }
    step.null = m_random.Chance(1);
    switch (call) {
    case Call::SetVideo: MakeVideoTrack(step); break;
    case Call::SetAudio: MakeAudioTrack(step); break;
    case Call::SetSubtitle:
        step.timescale = Timescale();
        step.codec = Codec(m_captionCodec);
        break;
    case Call::SetTimeCode:
        step.timescale =
            m_random.Chance(85) ? m_random.Pick({0u, 24u, 25u, 30000u}) : m_random.Spread32(32);
        step.time = m_random.Chance(80) ? 1001 : m_random.Spread(64);
        step.number = m_random.Byte();
        step.flags = m_random.Spread32(32);
        break;
    case Call::SetMetadata:
    case Call::SetMetadataEx: MakeMetadata(step); break;
    case Call::WriteVideo:
        step.time = Time(m_videoClock);
        step.data = m_random.Chance(2) ? Bytes() : VideoFrame(m_random, m_videoCodec);
        break;
    case Call::WriteAudio:
        step.time = Time(m_audioClock);
        step.data = m_random.Chance(2) ? Bytes() : AudioFrame(m_random, m_audioCodec == 2);
        break;
    case Call::WriteSubtitle:
        step.time = Time(m_captionClock);
        step.data = CaptionFrame(m_random, m_captionCodec);
        break;
    case Call::WriteTimeCode: step.number = m_random.Spread32(32); break;
    case Call::SetSafe:
        step.safe = {m_random.Chance(92) ? m_random.Below(3) : m_random.Spread32(32),
                     m_random.Spread32(m_random.Chance(95) ? 13 : 32),
                     m_random.Spread32(m_random.Chance(95) ? 14 : 32),
                     m_random.Spread32(m_random.Chance(90) ? 15 : 32)};
        if (m_random.Chance(15)) {  // about where the first sample goes
            step.safe[1] = m_random.Below(60);
            step.safe[3] = m_random.Pick({28u, 36u, 44u, 52u}) + m_random.Below(3) - 1;
        }
        break;
    case Call::FlushInterval:
        step.number = m_random.Chance(90) ? m_random.Below(16) : m_random.Spread32(32);
        break;
    default: break;
    }
    return step;
}

}  // namespace

Sequence Generate(uint64_t seed)
{
    return Maker(seed).Make(seed);
}

}  // namespace model
