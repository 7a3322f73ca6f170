// Closed captions of any source in one form: the 3-byte entries of CEA-708's cc_data, of which both
// the library's packed frames and caption distribution packets (CDP) are made.
//
// Captions in the video are read from its SEI units and not from decoded pictures: a recorder that
// decodes would need a processor for each stream, to come by bytes that stand in the clear.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" {
#include <libavutil/rational.h>
}

using Bytes = std::vector<std::uint8_t>;

// Marker bits, cc_valid and the 2 bits of cc_type (0 and 1: the fields of CEA-608); then the pair.
using CaptionEntry = std::array<std::uint8_t, 3>;
using CaptionEntries = std::vector<CaptionEntry>;

// The entries in the SEI units (ATSC A/53) of one picture in Annex B form.
CaptionEntries EntriesOfPicture(const std::uint8_t* data, std::size_t size, bool hevc);

// The entries of a packet that FFmpeg's demuxers call EIA-608.
CaptionEntries EntriesOfEia608(const std::uint8_t* data, std::size_t size);

// The packets in a sample of a `c708` track. False if the sample is broken.
bool PacketsOfC708(const std::uint8_t* data, std::size_t size, std::vector<Bytes>& packets);

// The entries in a CDP. False if it is broken.
bool EntriesOfCdp(const Bytes& packet, CaptionEntries& entries);

// The library's frames. Of CEA-608, entries that are not valid are left out.
class CaptionPacker {
public:
    // `codec` is MP4_SUBTITLE_*; `rate` is that of the pictures, for the packets.
    CaptionPacker(std::uint32_t codec, AVRational rate);

    // The frames for one moment. For CEA-608 the second pair of a field begins a second frame, and
    // so on: line 21 of a picture has room for one, and some readers take no more from a sample.
    // For CEA-708 it is a single one, up to the 31 entries that a packet can count, when `whole`,
    // else one for each pair.
    std::vector<Bytes> Pack(const CaptionEntries& entries, bool whole);
    // A packet as it stands; CEA-708 only. Empty if it does not fit a frame.
    Bytes PackPacket(const Bytes& packet) const;
    // A frame that says nothing.
    Bytes Padding();

private:
    Bytes Frame608(const CaptionEntries& entries) const;
    Bytes Frame708(const CaptionEntries& entries);

    std::uint32_t m_codec;
    std::uint8_t m_rateCode;
    std::uint16_t m_sequence = 0;
};
