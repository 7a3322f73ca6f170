#include "captions.h"

#include "nal_units.h"

#include <kv_mp4.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numeric>

namespace {

constexpr std::uint8_t kValid = 4;
constexpr std::size_t kAtomHeader = 8;
constexpr std::ptrdiff_t kPacketEntries = 31;  // what the count of a packet can say

bool IsLine21(const CaptionEntry& entry) { return (entry[0] & 3) < 2; }

void AppendEntries(const std::uint8_t* data, std::size_t count, CaptionEntries& entries)
{
    for (std::size_t i = 0; i < count; ++i)
        entries.push_back({data[3 * i], data[3 * i + 1], data[3 * i + 2]});
}

// A registered user data message (ITU-T T.35) that may hold captions.
void ReadUserData(const std::uint8_t* data, std::size_t size, CaptionEntries& entries)
{
    // United States, ATSC, "GA94", cc_data
    static constexpr std::uint8_t kAtsc[] = {0xb5, 0, 0x31, 'G', 'A', '9', '4', 3};
    constexpr std::size_t kHead = sizeof kAtsc + 2;  // flags with the count, em_data
    constexpr std::uint8_t kProcess = 0x40;
    if (size < kHead || std::memcmp(data, kAtsc, sizeof kAtsc) != 0)
        return;
    const std::uint8_t flags = data[sizeof kAtsc];
    const std::size_t count = flags & 31;
    if ((flags & kProcess) != 0 && size >= kHead + 3 * count)
        AppendEntries(data + kHead, count, entries);
}

// The messages of an SEI unit without its header.
void ReadSei(const std::uint8_t* unit, std::size_t size, CaptionEntries& entries)
{
    constexpr std::size_t kRegisteredUserData = 4;
    Bytes payload;  // without the bytes that keep start codes out
    for (std::size_t i = 0; i < size; ++i)
        if (i < 2 || unit[i] != 3 || unit[i - 1] != 0 || unit[i - 2] != 0)
            payload.push_back(unit[i]);
    std::size_t at = 0;
    const auto number = [&] {
        std::size_t value = 0;
        while (at < payload.size() && payload[at] == 255) {
            value += 255;
            ++at;
        }
        return at < payload.size() ? value + payload[at++] : value;
    };
    while (at + 2 < payload.size()) {  // behind the last message stands one byte of stop bits
        const std::size_t type = number();
        const std::size_t length = number();
        if (length > payload.size() - at)
            return;
        if (type == kRegisteredUserData)
            ReadUserData(payload.data() + at, length, entries);
        at += length;
    }
}

std::uint8_t RateCode(AVRational rate)
{
    // The rates of a CDP from code 1 on; the nearest is taken.
    static constexpr double kRates[] = {24000 / 1001.0, 24, 25, 30000 / 1001.0, 30, 50,
                                        60000 / 1001.0, 60};
    const double wanted = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : kRates[3];
    std::uint8_t best = 0;
    for (std::uint8_t i = 0; i < std::size(kRates); ++i)
        if (std::fabs(kRates[i] - wanted) < std::fabs(kRates[best] - wanted))
            best = i;
    return static_cast<std::uint8_t>(best + 1);
}

}  // namespace

CaptionEntries EntriesOfPicture(const std::uint8_t* data, std::size_t size, bool hevc)
{
    CaptionEntries entries;
    ForEachUnit(data, size, [&](const std::uint8_t* unit, std::size_t length) {
        const std::size_t header = hevc ? 2 : 1;
        const int type = hevc ? unit[0] >> 1 & 63 : unit[0] & 31;
        if (type == (hevc ? 39 : 6) && length > header)
            ReadSei(unit + header, length - header, entries);
    });
    return entries;
}

CaptionEntries EntriesOfEia608(const std::uint8_t* data, std::size_t size)
{
    CaptionEntries entries;
    AppendEntries(data, size / 3, entries);
    return entries;
}

bool PacketsOfC708(const std::uint8_t* data, std::size_t size, std::vector<Bytes>& packets)
{
    for (std::size_t at = 0; at < size;) {
        if (size - at < kAtomHeader)
            return false;
        const std::uint8_t* const atom = data + at;
        const std::size_t length = static_cast<std::size_t>(atom[0]) << 24 |
                                   static_cast<std::size_t>(atom[1]) << 16 |
                                   static_cast<std::size_t>(atom[2]) << 8 | atom[3];
        if (length < kAtomHeader || length > size - at)
            return false;
        if (std::memcmp(atom + 4, "ccdp", 4) == 0 && length > kAtomHeader)
            packets.emplace_back(atom + kAtomHeader, atom + length);
        at += length;
    }
    return true;
}

bool EntriesOfCdp(const Bytes& packet, CaptionEntries& entries)
{
    constexpr std::size_t kHeader = 7;
    constexpr std::uint8_t kTimeCode = 0x80, kData = 0x40;
    if (packet.size() < kHeader || packet[0] != 0x96 || packet[1] != 0x69)
        return false;
    const std::uint8_t flags = packet[4];
    std::size_t at = kHeader;
    if ((flags & kTimeCode) != 0)
        at += 5;
    if ((flags & kData) == 0)
        return true;
    if (packet.size() < at + 2 || packet[at] != 0x72)
        return false;
    const std::size_t count = packet[at + 1] & 31;
    if (packet.size() < at + 2 + 3 * count)
        return false;
    AppendEntries(packet.data() + at + 2, count, entries);
    return true;
}

CaptionPacker::CaptionPacker(std::uint32_t codec, AVRational rate)
    : m_codec(codec), m_rateCode(RateCode(rate))
{
}

std::vector<Bytes> CaptionPacker::Pack(const CaptionEntries& entries, bool whole)
{
    std::vector<Bytes> frames;
    if (m_codec == MP4_SUBTITLE_CEA708 && whole) {
        for (auto from = entries.begin(); from != entries.end();) {
            const auto to = from + std::min<std::ptrdiff_t>(kPacketEntries, entries.end() - from);
            frames.push_back(Frame708({from, to}));
            from = to;
        }
        return frames;
    }
    // The n-th pair of each field goes into the n-th frame.
    std::vector<CaptionEntries> moments;
    std::size_t used[2] = {0, 0};
    for (const CaptionEntry& entry : entries) {
        if (!IsLine21(entry) || (entry[0] & kValid) == 0)
            continue;
        const std::size_t field = entry[0] & 1;
        if (used[field] == moments.size())
            moments.emplace_back();
        moments[used[field]++].push_back(entry);
    }
    for (const CaptionEntries& moment : moments)
        frames.push_back(m_codec == MP4_SUBTITLE_CEA608 ? Frame608(moment) : Frame708(moment));
    return frames;
}

Bytes CaptionPacker::PackPacket(const Bytes& packet) const
{
    if (packet.size() > 255)
        return {};
    Bytes frame{0x61, 1, static_cast<std::uint8_t>(packet.size())};
    frame.insert(frame.end(), packet.begin(), packet.end());
    return frame;
}

Bytes CaptionPacker::Padding()
{
    // A valid pair without a character; a packet entry that is not valid.
    return m_codec == MP4_SUBTITLE_CEA608 ? Frame608({{0xfc, 0x80, 0x80}})
                                          : Frame708({{0xfa, 0, 0}});
}

Bytes CaptionPacker::Frame608(const CaptionEntries& entries) const
{
    Bytes frame{0x61, 2, static_cast<std::uint8_t>(entries.size())};
    for (const CaptionEntry& entry : entries)
        frame.insert(frame.end(), entry.begin(), entry.end());
    return frame;
}

// A caption distribution packet (SMPTE 334-2) of header, data and footer.
Bytes CaptionPacker::Frame708(const CaptionEntries& entries)
{
    const auto high = static_cast<std::uint8_t>(m_sequence >> 8);
    const auto low = static_cast<std::uint8_t>(m_sequence);
    ++m_sequence;
    Bytes packet{0x96, 0x69, 0, static_cast<std::uint8_t>(m_rateCode << 4 | 0x0f),
                 0x43,  // holds caption data, the service is active
                 high, low, 0x72, static_cast<std::uint8_t>(0xe0 | entries.size())};
    for (const CaptionEntry& entry : entries)
        packet.insert(packet.end(), entry.begin(), entry.end());
    packet.insert(packet.end(), {0x74, high, low});
    packet[2] = static_cast<std::uint8_t>(packet.size() + 1);
    // All bytes together sum to 0.
    const unsigned sum = std::accumulate(packet.begin(), packet.end(), 0u);
    packet.push_back(static_cast<std::uint8_t>(0u - sum));
    return PackPacket(packet);
}
