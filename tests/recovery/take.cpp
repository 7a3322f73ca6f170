#include "recovery/take.h"

#include "support/kept_log.h"
#include "support/recording.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace kvtest {

namespace {

constexpr std::uint32_t kVideoScale = 90000;
constexpr std::uint32_t kPictureTime = 3600;  // 25 a second
constexpr std::uint32_t kCaptionEvery = 8;    // pictures
constexpr std::uint32_t kTimeCodeEvery = 40;  // pictures

Bytes BE32(std::uint32_t value)
{
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

// One recorder run: each call is a step, and each packet of the log belongs to one.
class Recorder {
public:
    explicit Recorder(Take& take)
        : m_take(take), m_plan(take.plan), m_video(EncodedVideo(m_plan.codec)),
          m_audio(m_plan.announced ? EncodedAudio() : EncodedAdts())
    {
    }

    void Run()
    {
        const std::string path = (m_folder / m_plan.FileName()).string();
        Begin();
        Expect(mp4_create_file_adv_ex(path.c_str(), m_plan.flags, 0, 0, MP4_IO_EXTERNAL,
                                      m_take.trace.Table(), &m_file));
        End(0);
        const KeptLog log(path + ".info");
        Prepare();
        Frames();
        Begin();
        m_take.closeStep = m_step;
        Expect(mp4_close_file(m_file));
        End(0);
        m_take.log = log.Read();
        PlacePackets();
        FindCheckpoints();
    }

private:
    static void Expect(std::uint32_t status)
    {
        if (status != MP4_OK)
            throw std::runtime_error("recorder: status " + std::to_string(status));
    }
    void Begin(const Bytes* frame = nullptr) { m_take.trace.Begin(++m_step, frame); }
    // The step is over, and has logged so many packets.
    void End(std::size_t packets)
    {
        m_packetsAfter.resize(m_step + 1, m_packets);
        m_packets += packets;
        m_packetsAfter[m_step] = m_packets;
    }
    void Keep(Track track, const Bytes& sample)
    {
        m_take.samples.push_back({track, Hash(sample.data(), sample.size()),
                                  static_cast<std::uint32_t>(sample.size()), m_step});
        m_take.tracks[track].push_back(m_take.samples.back());
    }

    void Prepare()
    {
        std::size_t largest = 0;
        for (const Bytes& frame : m_video)
            largest = std::max(largest, frame.size());
        // Room for two frames and the moov, so that the data never reach what is in force.
        const auto interval = static_cast<std::uint32_t>(9000 + 3 * largest);
        const mp4_safe_param params{m_plan.strategy, interval, 2 * interval, 4 * interval};
        Expect(mp4_set_safe_param(m_file, &params));
        SetVideo();
        SetAudio();
        Begin();
        const mp4_subtitle_track_info captions{m_plan.cea708 ? std::uint32_t{MP4_SUBTITLE_CEA708}
                                                             : std::uint32_t{MP4_SUBTITLE_CEA608},
                                               1000};
        Expect(mp4_set_subtitle_track(m_file, &captions));
        End(1);
        if (m_plan.timeCode) {
            Begin();
            const mp4_time_code_track_info timeCode{25, 1, 25, 0};
            Expect(mp4_set_time_code_track(m_file, &timeCode));
            End(1);
        }
        Metadata("title", "A take");
    }

    void SetVideo()
    {
        mp4_video_track_info info{};
        info.timescale = kVideoScale;
        info.codec = static_cast<std::uint8_t>(m_plan.codec);
        info.width = kPictureWidth;
        info.height = kPictureHeight;
        Bytes sets[3];
        const bool inRecord = m_plan.announced && m_plan.codec != Codec::ProRes;
        if (inRecord) {
            const bool hevc = m_plan.codec == Codec::Hevc;
            for (const Bytes& unit : SplitUnits(m_video[0])) {
                const int type = hevc ? unit[0] >> 1 & 63 : unit[0] & 31;
                const int set = type - (hevc ? 32 : 6);  // VPS 0, SPS 1, PPS 2
                if (set >= (hevc ? 0 : 1) && set <= 2)
                    sets[set] = unit;
            }
            info.vps = sets[0].data();
            info.vps_size = static_cast<std::int16_t>(sets[0].size());
            info.sps = sets[1].data();
            info.sps_size = static_cast<std::int16_t>(sets[1].size());
            info.pps = sets[2].data();
            info.pps_size = static_cast<std::int16_t>(sets[2].size());
        }
        if (m_plan.codec == Codec::ProRes)
            info.prores_format = MP4_PRORES_422;
        Begin();
        Expect(mp4_set_video_track(m_file, &info));
        m_videoWaits = !inRecord && m_plan.codec != Codec::ProRes;
        End(m_videoWaits ? 0 : 1);
    }

    void SetAudio()
    {
        Begin();
        const bool raw = m_plan.announced;
        const mp4_audio_track_info info{kAudioRate,
                                        0,
                                        raw ? std::uint8_t{MP4_AUDIO_AAC_RAW}
                                            : std::uint8_t{MP4_AUDIO_AAC_ADTS},
                                        static_cast<std::uint16_t>(raw ? kAudioRate : 0),
                                        static_cast<std::uint16_t>(raw ? 2 : 0),
                                        2};
        Expect(mp4_set_audio_track(m_file, &info));
        m_audioWaits = !raw;
        End(raw ? 1 : 0);
    }

    void Metadata(const char* key, const char* value)
    {
        Begin();
        Expect(mp4_set_metadata(m_file, key, value));
        End(1);
    }

    void Frames()
    {
        std::uint64_t audio = 0;
        // The audio that has begun before the next picture does.
        const auto due = [&](std::uint32_t picture) {
            return audio < m_audio.size() &&
                   audio * kAudioFrame * 25 < (picture + 1) * std::uint64_t{kAudioRate};
        };
        for (std::uint32_t n = 0; n < m_video.size(); ++n) {
            if (m_plan.timeCode && n % kTimeCodeEvery == 0)
                TimeCode(n);
            Video(n);
            for (; due(n); ++audio)
                Audio(audio);
            if (n % kCaptionEvery == 0)
                Caption(n);
            if (n == m_video.size() / 2)
                Metadata("com.example.half", "way");
        }
    }

    void Video(std::uint32_t n)
    {
        const Bytes& frame = m_video[n];
        Begin(&frame);
        Expect(mp4_write_video_frame(m_file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                     std::uint64_t{n} * kPictureTime));
        Keep(kVideo, m_plan.codec == Codec::ProRes ? frame : WithLengths(frame));
        End(m_videoWaits ? 2 : 1);
        m_videoWaits = false;
    }

    void Audio(std::uint64_t n)
    {
        const Bytes& frame = m_audio[n];
        Begin(&frame);
        Expect(mp4_write_audio_frame(m_file, frame.data(), static_cast<std::uint32_t>(frame.size()),
                                     n * kAudioFrame));
        Keep(kAudio, Bytes(frame.begin() + (m_plan.announced ? 0 : 7), frame.end()));
        End(m_audioWaits ? 2 : 1);
        m_audioWaits = false;
    }

    // One to three pairs in field 1, or a packet of as many bytes.
    void Caption(std::uint32_t n)
    {
        const std::uint8_t count = static_cast<std::uint8_t>(1 + n / kCaptionEvery % 3);
        Bytes frame{0x61, static_cast<std::uint8_t>(m_plan.cea708 ? 1 : 2), count};
        Bytes sample = m_plan.cea708 ? BE32(count + 8u) + Hex("'ccdp'") : Bytes{};
        for (std::uint8_t i = 0; i < count; ++i) {
            const Bytes pair{static_cast<std::uint8_t>(0x80 | n), i};
            if (m_plan.cea708) {
                frame.push_back(i);
                sample.push_back(i);
            } else {
                frame = frame + Bytes{0} + pair;
                sample = sample + BE32(10) + Hex("'cdat'") + pair;
            }
        }
        Begin(&frame);
        Expect(mp4_write_subtitle_frame(m_file, frame.data(),
                                        static_cast<std::uint32_t>(frame.size()), n * 40));
        Keep(kCaptions, sample);
        End(1);
    }

    void TimeCode(std::uint32_t n)
    {
        Begin();
        Expect(mp4_write_time_code(m_file, n));
        Keep(kTimeCode, BE32(n));
        End(1);
    }

    void PlacePackets()
    {
        m_take.packets = LogPackets(m_take.log);
        if (m_take.packets.size() != m_packets)
            throw std::runtime_error("recorder: the log has not one packet for each call");
        for (const std::size_t after : m_packetsAfter)
            m_take.logEnds.push_back(after == 0 ? kLogHeader : m_take.packets[after - 1].end);
    }

    void FindCheckpoints()
    {
        m_take.mdat = m_plan.quickTime ? 20 : 36;
        const auto& calls = m_take.trace.Calls();
        for (std::size_t n = 0; n < calls.size(); ++n) {
            const TraceCall& call = calls[n];
            if (call.kind != TraceCall::kWrite || call.position != m_take.mdat || call.step <= 1 ||
                call.step >= m_take.closeStep)
                continue;
            const std::uint8_t* size = m_take.trace.Data(call);
            Checkpoint checkpoint{n,
                                  m_take.mdat + (std::uint64_t{size[0]} << 24 | size[1] << 16 |
                                                 size[2] << 8 | size[3]),
                                  {}};
            for (const Sample& sample : m_take.samples)
                checkpoint.samples.of[sample.track] += sample.step < call.step;
            m_take.checkpoints.push_back(checkpoint);
        }
    }

    Take& m_take;
    const TakePlan& m_plan;
    const std::vector<Bytes>& m_video;
    const std::vector<Bytes>& m_audio;
    Folder m_folder;
    mp4_handle m_file = nullptr;
    std::uint32_t m_step = 0;
    std::size_t m_packets = 0;
    std::vector<std::size_t> m_packetsAfter;  // by step
    bool m_videoWaits = false;                // for the parameter sets
    bool m_audioWaits = false;                // for the first header
};

}  // namespace

std::string TakePlan::Name() const
{
    const char* codecs[] = {"H.264", "HEVC", "ProRes"};
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", flags);
    return std::string(codecs[static_cast<int>(codec)]) + (quickTime ? " mov" : " mp4") +
           " flags " + text + " strategy " + std::to_string(strategy) +
           (cea708 ? " CEA-708" : " CEA-608") + (timeCode ? " time code" : "") +
           (announced ? "" : " in-stream");
}

std::vector<TakePlan> AllPlans()
{
    std::vector<TakePlan> plans;
    unsigned n = 0;
    for (const Codec codec : {Codec::H264, Codec::Hevc, Codec::ProRes})
        for (const bool quickTime : {false, true})
            for (const std::uint8_t form : {std::uint8_t{0}, std::uint8_t{MP4_OPEN_VERSION1},
                                            std::uint8_t{MP4_OPEN_LARGE_FILE}})
                for (const std::uint32_t strategy : {0u, 1u, 2u, 3u}) {
                    // The fourth is no strategy: a file without the safe mode.
                    const int safe = strategy < 3 ? MP4_OPEN_SAFE_MODE : 0;
                    plans.push_back({codec, quickTime,
                                     static_cast<std::uint8_t>(form | safe | MP4_OPEN_INFO_FILE),
                                     strategy % 3, n % 2 == 0, n % 4 != 1, n % 3 != 0});
                    ++n;
                }
    return plans;
}

std::uint64_t Hash(const std::uint8_t* bytes, std::size_t size)
{
    std::uint64_t hash = 0x9E3779B97F4A7C15 ^ size;
    for (; size >= 8; bytes += 8, size -= 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes, 8);
        hash = (hash ^ word) * 0xFF51AFD7ED558CCD;
        hash ^= hash >> 32;
    }
    for (; size > 0; ++bytes, --size)
        hash = (hash ^ *bytes) * 0x100000001B3;
    return hash ^ hash >> 29;
}

std::unique_ptr<Take> Record(const TakePlan& plan)
{
    auto take = std::make_unique<Take>();
    take->plan = plan;
    Recorder(*take).Run();
    return take;
}

}  // namespace kvtest
