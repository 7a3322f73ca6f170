#include "log_report.h"

#include "failure.h"
#include "system.h"

#include <kv_mp4.h>

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

const std::array<const char*, kTracks> kTrackNames = {"video", "audio", "captions", "time code"};

namespace {

constexpr std::uint64_t kLargestBlob = 0x1800000 - 1;  // beyond it the library's reader ends

class Log {
public:
    explicit Log(const std::vector<char>& bytes) : m_bytes(bytes) {}

    std::uint64_t Position() const { return m_position; }

    // A big-endian number. The last byte of the log is never delivered, as in the library.
    std::uint64_t Number(unsigned width)
    {
        Need(width);
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i)
            value = value << 8 | static_cast<std::uint8_t>(m_bytes[m_position++]);
        return value;
    }
    void Blob()
    {
        const std::uint64_t size = Number(4);
        if (size > kLargestBlob)
            throw End{};
        Need(size);
        m_position += size;
    }

    struct End {};

private:
    void Need(std::uint64_t size) const
    {
        if (m_position + size + 1 > m_bytes.size())
            throw End{};
    }

    const std::vector<char>& m_bytes;
    std::uint64_t m_position = 0;
};

struct Damage {
    std::string what;
};

class LogParser {
public:
    LogParser(Log& log, LogReport& report) : m_log(log), m_report(report) {}

    void Run()
    {
        m_report.flags = static_cast<std::uint8_t>(m_log.Number(1));
        m_report.mdatPosition = m_log.Number(4);
        const bool large = (m_report.flags & MP4_OPEN_LARGE_FILE) != 0;
        m_report.dataEnd = m_report.indexStart = m_report.mdatPosition + (large ? 16 : 8);
        std::uint64_t packet = m_log.Position();
        try {
            for (;; ++m_report.packets) {
                packet = m_log.Position();
                m_report.lost.clear();
                Packet();
            }
        } catch (const Damage& damage) {
            m_report.damage = damage.what;
            m_report.damageAt = packet;
            m_report.lost.clear();
        }
    }

private:
    void Packet()
    {
        const std::uint64_t tag = m_log.Number(1);
        switch (tag) {
        case 1: Metadata(); break;
        case 2: Video(); break;
        case 3: Audio(); break;
        case 4: Sample(kVideoTrack); break;
        case 5: Sample(kAudioTrack); break;
        case 6: Captions(); break;
        case 7: Sample(kCaptionTrack); break;
        case 8: TimeCode(); break;
        case 9: Sample(kTimeCodeTrack); break;
        default: throw Damage{fmt::format("no packet has the type {}", tag)};
        }
    }
    void Metadata()
    {
        m_report.lost = "metadata item";
        m_log.Number(1);
        m_log.Blob();
        m_log.Blob();
        m_log.Blob();
    }
    LoggedTrack& Announce(TrackKind kind)
    {
        LoggedTrack& track = m_report.tracks[kind];
        m_report.lost = std::string("description of the ") + kTrackNames[kind] + " track";
        // The library allows the set-ups of captions and time codes to come again.
        if (track.announced && (kind == kVideoTrack || kind == kAudioTrack))
            throw Damage{std::string("a second ") + m_report.lost};
        track.announced = true;
        return track;
    }
    void Timescale(LoggedTrack& track)
    {
        const auto timescale = static_cast<std::uint32_t>(m_log.Number(4));
        track.timescale = timescale != 0 ? timescale : 1000;
    }
    void Video()
    {
        LoggedTrack& track = Announce(kVideoTrack);
        Timescale(track);
        m_log.Number(8);
        const std::uint64_t codec = m_log.Number(1);
        const std::uint64_t width = m_log.Number(2);
        const std::uint64_t height = m_log.Number(2);
        static constexpr const char* kNames[] = {"H.264", "HEVC", "ProRes"};
        if (codec > MP4_VIDEO_PRORES)
            throw Damage{fmt::format("no video has the codec {}", codec)};
        if (codec == MP4_VIDEO_PRORES)
            m_log.Number(1);
        // The parameter sets.
        for (int sets = codec == MP4_VIDEO_H264 ? 2 : codec == MP4_VIDEO_HEVC ? 3 : 0; sets > 0;
             --sets)
            m_log.Blob();
        track.codec = fmt::format("{} {}x{}", kNames[codec], width, height);
    }
    void Audio()
    {
        LoggedTrack& track = Announce(kAudioTrack);
        Timescale(track);
        m_log.Number(8);
        m_log.Number(1);
        const std::uint64_t rate = m_log.Number(2);
        const std::uint64_t channels = m_log.Number(2);
        m_log.Number(1);
        track.codec = fmt::format("AAC {} Hz, {} ch", rate, channels);
    }
    void Captions()
    {
        LoggedTrack& track = Announce(kCaptionTrack);
        Timescale(track);
        track.codec = m_log.Number(1) == MP4_SUBTITLE_CEA608 ? "CEA-608" : "CEA-708";
    }
    void TimeCode()
    {
        LoggedTrack& track = Announce(kTimeCodeTrack);
        m_log.Number(4);
        m_log.Number(8);
        const std::uint64_t rate = m_log.Number(1);
        m_log.Number(4);
        track.codec = fmt::format("{} frames/s", rate);
    }
    void Sample(TrackKind kind)
    {
        m_report.lost = std::string(kTrackNames[kind]) + " sample";
        LoggedTrack& track = m_report.tracks[kind];
        std::uint64_t time = 0;
        if (kind == kVideoTrack) {
            m_log.Number(8);  // the presentation time; the tables hold decoding times
            time = m_log.Number(8);
            m_log.Number(1);
        } else if (kind != kTimeCodeTrack) {
            time = m_log.Number(8);
        }
        std::uint64_t size = m_log.Number(4);
        if (kind == kTimeCodeTrack)
            size = 4;  // that was the frame number
        else
            m_report.indexStart += size;  // time codes are not counted: the index overlaps them
        if (track.samples++ == 0)
            track.first = time;
        track.last = time;
        track.seconds = static_cast<double>(track.last - track.first) / track.timescale;
        m_report.dataEnd += size;
        m_report.samples.push_back({m_report.dataEnd, kind});
    }

    Log& m_log;
    LogReport& m_report;
};

}  // namespace

LogReport ReadLog(const std::string& path)
{
    errno = 0;
    std::ifstream file(PathOf(path), std::ios::binary);
    std::vector<char> bytes;
    if (file) {
        file.seekg(0, std::ios::end);
        const auto size = static_cast<std::streamoff>(file.tellg());
        // A folder opens as well, with a size that no file has.
        if (size >= 0 && size < std::streamoff{1} << 40) {
            bytes.resize(static_cast<std::size_t>(size));
            file.seekg(0);
            file.read(bytes.data(), size);
        } else {
            file.setstate(std::ios::failbit);
        }
    }
    if (!file)
        throw Failure(kExitLog, "the log " + path + " cannot be read: " +
                                    std::generic_category().message(errno != 0 ? errno : EIO));
    LogReport report;
    report.size = bytes.size();
    report.hasHeader = bytes.size() > 5;
    if (!bytes.empty())
        report.flags = static_cast<std::uint8_t>(bytes[0]);
    Log log(bytes);
    try {
        LogParser(log, report).Run();
    } catch (const Log::End&) {
    }
    return report;
}
