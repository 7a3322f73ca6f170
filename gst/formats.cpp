#include "formats.h"

#include "nal_units.h"

#include <algorithm>
#include <iterator>

namespace kvmp4sink {

namespace {

// AAC at 88.2 and 96 kHz is left out: a track's rate has 16 bits.
GstStaticCaps g_caps[kKinds] = {
    GST_STATIC_CAPS("video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
                    "width=(int)[1, 65535], height=(int)[1, 65535]; "
                    "video/x-h265, stream-format=(string)byte-stream, alignment=(string)au, "
                    "width=(int)[1, 65535], height=(int)[1, 65535]; "
                    "video/x-prores, variant=(string){ proxy, lt, standard, hq, 4444, 4444xq }, "
                    "width=(int)[1, 65535], height=(int)[1, 65535]"),
    GST_STATIC_CAPS("audio/mpeg, mpegversion=(int)4, stream-format=(string){ raw, adts }, "
                    "rate=(int)[1, 65535], channels=(int)[1, 8]"),
    GST_STATIC_CAPS("closedcaption/x-cea-608, format=(string){ s334-1a, raw }; "
                    "closedcaption/x-cea-708, format=(string)cdp")};

constexpr std::uint32_t kBarePairs = 1;
constexpr std::uint32_t kVideoTicks = 90000;  // a second has as many, about
constexpr std::uint32_t kCaptionTicks = 90000;
constexpr std::uint32_t kAacFrame = 1024;  // samples

[[noreturn]] void Refuse(const std::string& text)
{
    throw Failure{GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT, text};
}

int Int(const GstStructure* structure, const char* field)
{
    int value = 0;
    gst_structure_get_int(structure, field, &value);
    return value;
}

std::string_view Text(const GstStructure* structure, const char* field)
{
    const char* const text = gst_structure_get_string(structure, field);
    return text ? text : "";
}

std::uint16_t Word(const GstStructure* structure, const char* field)
{
    const int value = Int(structure, field);
    if (value < 1 || value > 65535)
        Refuse(std::string("The stream has no ") + field + " that a track can hold.");
    return static_cast<std::uint16_t>(value);
}

Format ReadVideo(const GstStructure* structure)
{
    Format format;
    const std::string_view type = gst_structure_get_name(structure);
    if (type == "video/x-prores") {
        static constexpr std::string_view kVariants[] = {"proxy", "lt",   "standard",
                                                         "hq",    "4444", "4444xq"};
        const auto* const variant =
            std::find(std::begin(kVariants), std::end(kVariants), Text(structure, "variant"));
        if (variant == std::end(kVariants))
            Refuse("The stream does not tell which ProRes it is.");
        format.fixed.codec = MP4_VIDEO_PRORES;
        format.fixed.variant = static_cast<std::uint32_t>(variant - std::begin(kVariants));
    } else {
        format.fixed.codec = type == "video/x-h264" ? MP4_VIDEO_H264 : MP4_VIDEO_HEVC;
    }
    format.fixed.width = Word(structure, "width");
    format.fixed.height = Word(structure, "height");

    // A whole number of ticks a frame, so that no duration is rounded.
    int numerator = 0;
    int denominator = 0;
    format.timescale = kVideoTicks;
    if (gst_structure_get_fraction(structure, "framerate", &numerator, &denominator) &&
        numerator > 0 && denominator > 0) {
        const auto rate = static_cast<std::uint32_t>(numerator);
        const std::uint32_t factor = std::max<std::uint32_t>(1, kVideoTicks / rate);
        format.timescale = rate * factor;
        format.step = static_cast<std::uint32_t>(denominator) * factor;
    }
    return format;
}

// Of an AudioSpecificConfig: the core of the stream. SBR and PS stay implicit.
void ReadAacConfig(const GstStructure* structure, Format::Fixed& fixed)
{
    const GValue* const value = gst_structure_get_value(structure, "codec_data");
    if (!value || !GST_VALUE_HOLDS_BUFFER(value))
        Refuse("Raw AAC without codec_data cannot be recorded; put an aacparse in front.");
    std::uint8_t bytes[16] = {};
    const gsize size = gst_buffer_extract(gst_value_get_buffer(value), 0, bytes, sizeof bytes);
    std::size_t at = 0;  // bits
    const auto read = [&](int count) {
        unsigned bits = 0;
        for (; count > 0; --count, ++at)
            bits = bits << 1 | (at / 8 < size ? bytes[at / 8] >> (7 - at % 8) & 1u : 0u);
        return bits;
    };
    static constexpr std::uint32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                               22050, 16000, 12000, 11025, 8000,  7350};
    unsigned type = read(5);
    const unsigned index = read(4);
    const std::uint32_t rate = index == 15                 ? read(24)
                               : index < std::size(kRates) ? kRates[index]
                                                           : 0;
    const unsigned layout = read(4);
    if (type == 5 || type == 29)
        type = 2;
    if (size < 2 || type == 0 || type == 31 || rate == 0 || rate > 65535)
        Refuse("The codec_data of the AAC describes nothing that can be recorded.");
    fixed.objectType = static_cast<std::uint8_t>(type);
    fixed.rate = static_cast<std::uint16_t>(rate);
    // The library writes what it is told as the configuration of an AudioSpecificConfig again: the
    // number of channels up to 6. In place of a program config element stands the usual layout.
    if (layout != 0)
        fixed.channels = static_cast<std::uint16_t>(layout);
    else if (fixed.channels > 6)
        fixed.channels = fixed.channels == 7 ? 11 : 7;
    if (fixed.channels == 15 || (fixed.channels >= 8 && fixed.channels <= 10))
        Refuse("The codec_data of the AAC has a channel configuration that is reserved.");
}

Format ReadAudio(const GstStructure* structure)
{
    Format format;
    format.fixed.rate = Word(structure, "rate");
    format.fixed.channels = Word(structure, "channels");
    if (Text(structure, "stream-format") == "adts") {
        format.fixed.codec = MP4_AUDIO_AAC_ADTS;
    } else {
        format.fixed.codec = MP4_AUDIO_AAC_RAW;
        ReadAacConfig(structure, format.fixed);
    }
    format.timescale = format.fixed.rate;
    format.step = kAacFrame;
    return format;
}

Format ReadCaption(const GstStructure* structure)
{
    Format format;
    format.timescale = kCaptionTicks;
    if (gst_structure_has_name(structure, "closedcaption/x-cea-708"))
        format.fixed.codec = MP4_SUBTITLE_CEA708;
    else
        format.fixed.codec = MP4_SUBTITLE_CEA608;
    if (Text(structure, "format") == "raw")
        format.fixed.variant = kBarePairs;
    return format;
}

}  // namespace

const char* NameOf(Kind kind)
{
    static constexpr const char* kNames[kKinds] = {"video", "audio", "caption"};
    return kNames[static_cast<std::size_t>(kind)];
}

std::optional<Kind> KindOf(std::string_view name)
{
    for (const Kind kind : {Kind::kVideo, Kind::kAudio, Kind::kCaption})
        if (name == NameOf(kind))
            return kind;
    return std::nullopt;
}

GstStaticCaps* CapsOf(Kind kind)
{
    return &g_caps[static_cast<std::size_t>(kind)];
}

Format ReadCaps(Kind kind, const GstCaps* caps)
{
    GstCaps* const allowed = gst_static_caps_get(CapsOf(kind));
    const bool fits = gst_caps_is_fixed(caps) && gst_caps_can_intersect(caps, allowed);
    gst_caps_unref(allowed);
    if (!fits) {
        char* const text = gst_caps_to_string(caps);
        const std::string refused = text;
        g_free(text);
        Refuse("A " + std::string(NameOf(kind)) + " track cannot hold " + refused + ".");
    }
    const GstStructure* const structure = gst_caps_get_structure(caps, 0);
    return kind == Kind::kVideo   ? ReadVideo(structure)
           : kind == Kind::kAudio ? ReadAudio(structure)
                                  : ReadCaption(structure);
}

unsigned ParameterSetsIn(const Format::Fixed& video, const std::uint8_t* data, std::size_t size)
{
    const bool hevc = video.codec == MP4_VIDEO_HEVC;
    unsigned found = 0;
    ForEachUnit(data, size, [&](const std::uint8_t* unit, std::size_t) {
        const int type = hevc ? unit[0] >> 1 & 63 : unit[0] & 31;
        if (type == (hevc ? 33 : 7))
            found |= kSps;
        else if (type == (hevc ? 34 : 8))
            found |= kPps;
        else if (hevc && type == 32)
            found |= kVps;
    });
    return found;
}

unsigned ParameterSetsOf(const Format::Fixed& video)
{
    return video.codec == MP4_VIDEO_H264   ? kSps | kPps
           : video.codec == MP4_VIDEO_HEVC ? kSps | kPps | kVps
                                           : 0;
}

}  // namespace kvmp4sink
