// Captions and checksums: bytes that the library takes in another form than GStreamer has them.
#include "formats.h"

namespace kvmp4sink {

namespace {

constexpr std::uint8_t kMark = 0x61;
constexpr std::uint8_t kLine21 = 2;  // the marks of the library's frames
constexpr std::uint8_t kPacket = 1;
constexpr std::size_t kMost = 255;   // bytes or pairs, which are counted in a byte
constexpr std::uint8_t kFirstField = 0xfc;  // cc_data: marker bits, cc_valid, field
constexpr std::uint8_t kSecondField = 0xfd;

}  // namespace

std::vector<std::uint8_t> PackCaption(const Format::Fixed& caption, const std::uint8_t* data,
                                      std::size_t size)
{
    if (caption.codec == MP4_SUBTITLE_CEA708) {
        if (size == 0 || size > kMost)
            return {};
        std::vector<std::uint8_t> frame{kMark, kPacket, static_cast<std::uint8_t>(size)};
        frame.insert(frame.end(), data, data + size);
        return frame;
    }
    // Pairs of field 1, or SMPTE 334-1 Annex A: a byte with the field and the line, and the pair.
    const bool bare = caption.variant != 0;
    const std::size_t entry = bare ? 2 : 3;
    std::vector<std::uint8_t> frame{kMark, kLine21, static_cast<std::uint8_t>(size / entry)};
    for (std::size_t at = 0; at + entry <= size; at += entry) {
        const bool first = bare || (data[at] & 0x80) != 0;
        frame.insert(frame.end(), {first ? kFirstField : kSecondField, data[at + entry - 2],
                                   data[at + entry - 1]});
    }
    return size < entry || size / entry > kMost ? std::vector<std::uint8_t>{} : frame;
}

std::vector<std::uint8_t> CaptionPadding(const Format::Fixed& caption)
{
    if (caption.codec == MP4_SUBTITLE_CEA608)
        return {kMark, kLine21, 1, kFirstField, 0x80, 0x80};  // a pair without a character
    // A caption distribution packet with one entry that is not valid; its bytes sum to 0.
    std::vector<std::uint8_t> frame{kMark, kPacket, 16,   0x96, 0x69, 16, 0x4f, 0x43, 0,
                                    0,     0x72,    0xe1, 0xfa, 0,    0,  0x74, 0,    0};
    unsigned sum = 0;
    for (std::size_t at = 3; at < frame.size(); ++at)
        sum += frame[at];
    frame.push_back(static_cast<std::uint8_t>(0u - sum));
    return frame;
}

std::vector<std::uint8_t> WithoutChecksum(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t kHeader = 7;
    constexpr std::size_t kChecksum = 2;
    if (size < kHeader + kChecksum || data[0] != 0xff || (data[1] & 0xf1) != 0xf0)
        return {};
    std::vector<std::uint8_t> frame(data, data + kHeader);
    frame[1] |= 1;  // "protection absent"
    frame.insert(frame.end(), data + kHeader + kChecksum, data + size);
    return frame;
}

}  // namespace kvmp4sink
