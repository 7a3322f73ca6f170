#include "input.h"

#include "failure.h"
#include "nal_units.h"
#include "system.h"
#include "timecode.h"

#include <kv_mp4.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <string_view>

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/avutil.h>
}

std::atomic<bool> g_stop{false};

namespace {

constexpr std::size_t kQueueFrames = 4096;
constexpr std::size_t kQueueBytes = 64u << 20;
constexpr auto kMoment = std::chrono::milliseconds(100);
constexpr auto kMomentsToEnd = 5 * kMoment;
// A clock that falls back by more begins anew: a camera restarted, or files lie one behind another.
constexpr double kJumpBack = 0.5;  // seconds
// The tables hold differences of 32 bits: whatever goes further ahead is no pause.
constexpr double kJumpAhead = 0x7FFFFFFF;  // ticks of the finest timescale
constexpr std::int64_t kAacFrame = 1024;  // samples
// A track begins with its first frame: a stream that starts later than this shows its first frame
// from the beginning on, so that the rest keeps its time against the other stream.
constexpr double kLateStart = 0.1;  // seconds
// Line 21 of a picture carries a pair of each field.
constexpr AVRational kLine21{1001, 30000};
constexpr std::size_t kReorderedPictures = 16;  // at most, in H.264 and HEVC
constexpr std::uint32_t kC708 = MKTAG('c', '7', '0', '8');

std::string ErrorText(int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

// The first time code of a caption file decides how all of its frames count.
bool CountsDropFrame(std::string path)
{
    if (path.starts_with("file:"))
        path.erase(0, 5);
    std::ifstream file(PathOf(path));
    if (!file)
        return true;  // a pipe or URL: labels of drop frame keep close to the clock
    for (std::string line; std::getline(file, line);)
        if (line.size() > 11 && line[2] == ':' && line[5] == ':')
            return line[8] != ':';
    throw Failure(kExitInput, path + " holds no captions");
}

// Bits of an AudioSpecificConfig.
class Bits {
public:
    Bits(const std::uint8_t* data, int size) : m_data(data), m_bits(size * 8) {}
    unsigned Read(int count)
    {
        unsigned value = 0;
        for (; count > 0; --count, ++m_at)
            value = value << 1 | (m_at < m_bits && (m_data[m_at / 8] >> (7 - m_at % 8) & 1) != 0);
        return value;
    }

private:
    const std::uint8_t* m_data;
    int m_bits;
    int m_at = 0;
};

// Numbers that rise in the order in which the pictures of a stream without times are shown.
class ShowingOrder {
public:
    explicit ShowingOrder(const AVCodecParameters* parameters)
        : m_hevc(parameters->codec_id == AV_CODEC_ID_HEVC),
          m_parser(av_parser_init(parameters->codec_id)),
          m_context(avcodec_alloc_context3(nullptr))
    {
        if (!m_parser || !m_context || avcodec_parameters_to_context(m_context, parameters) < 0)
            throw Failure(kExitOther, "no parser for the video");
        m_parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    }
    ~ShowingOrder()
    {
        av_parser_close(m_parser);
        avcodec_free_context(&m_context);
    }
    ShowingOrder(const ShowingOrder&) = delete;
    ShowingOrder& operator=(const ShowingOrder&) = delete;

    std::int64_t Number(const AVPacket* packet)
    {
        // The count of pictures begins anew with each IDR picture.
        bool restarts = false;
        ForEachUnit(packet->data, static_cast<std::size_t>(packet->size),
                    [&](const std::uint8_t* unit, std::size_t) {
                        const int type = m_hevc ? unit[0] >> 1 & 63 : unit[0] & 31;
                        restarts |= m_hevc ? type == 19 || type == 20 : type == 5;
                    });
        m_sequence += restarts;
        std::uint8_t* out = nullptr;
        int size = 0;
        av_parser_parse2(m_parser, m_context, &out, &size, packet->data, packet->size,
                         AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        return (m_sequence << 32) + m_parser->output_picture_number;
    }

private:
    const bool m_hevc;
    AVCodecParserContext* m_parser;
    AVCodecContext* m_context;
    std::int64_t m_sequence = 0;
};

}  // namespace

struct Input::Stream {
    int index = 0;
    Kind kind = Kind::kAudio;
    bool hevc = false;
    AVStream* stream = nullptr;
    AVBSFContext* filter = nullptr;
    AVRational timeBase{};       // of packets behind the filter
    std::uint32_t timescale = 0;
    bool counted = false;        // times come from counting
    std::int64_t ticksPerFrame = 0;
    std::int64_t next = 0;       // the time that counting expects
    bool first = true;
    std::int64_t reorderDelay = 0;  // ticks between the two times of the first picture
    int undated = 0;                // first pictures without a decoding time
    std::int64_t firstShown = 0;    // time of the first picture, in timeBase
    std::optional<std::int64_t> last;
    std::int64_t originTicks = 0;
    std::size_t jumps = 0;        // of the input's clock that this stream went along with
    std::int64_t carried = 0;     // ticks that they add to its times
    bool dropFrame = false;  // how a caption file counts
    // By the times of their pictures in ticks; by their numbers if there is an order, which then
    // has all pictures in it.
    std::multimap<std::int64_t, CaptionEntries> held;
    std::unique_ptr<ShowingOrder> order;  // of pictures without times
    std::int64_t number = 0;              // the last one's in that order
    std::int64_t shown = 0;               // pictures that went by in that order

    ~Stream() { av_bsf_free(&filter); }
};

Input::Input(InputOptions options) : m_options(std::move(options)), m_thread([this] { Run(); }) {}

Input::~Input()
{
    Leave();
    m_thread.join();
    m_streams.clear();
    avformat_close_input(&m_context);
}

void Input::Run()
{
    try {
        Open();
        Choose();
        {
            const std::lock_guard hold(m_mutex);
            m_open = true;
        }
        m_changed.notify_all();
        Read();
    } catch (const std::exception& error) {
        const std::lock_guard hold(m_mutex);
        m_failure = std::current_exception();
        m_trouble = "reading " + m_options.url + " ended early: " + error.what();
    }
    {
        const std::lock_guard hold(m_mutex);
        m_ended = true;
    }
    m_changed.notify_all();
}

void Input::Open()
{
    const AVInputFormat* format = nullptr;
    if (!m_options.format.empty() && !m_options.url.ends_with(".scc")) {
        format = av_find_input_format(m_options.format.c_str());
        if (!format)
            throw Failure(kExitUsage, "there is no input format \"" + m_options.format + "\"");
    }
    m_context = avformat_alloc_context();
    m_context->interrupt_callback = {
        [](void* self) -> int { return g_stop || static_cast<Input*>(self)->m_leave; }, this};
    int error = avformat_open_input(&m_context, m_options.url.c_str(), format, nullptr);
    if (error < 0)
        throw Failure(kExitInput, "cannot open " + m_options.url + ": " + ErrorText(error));
    error = avformat_find_stream_info(m_context, nullptr);
    if (error < 0)
        throw Failure(kExitInput, "cannot read " + m_options.url + ": " + ErrorText(error));
}

void Input::Choose()
{
    const auto pick = [this](const std::string& wish, AVMediaType type) {
        if (wish == "none")
            return -1;
        if (wish == "auto") {
            // The cover of a piece of music is no video.
            const int best = av_find_best_stream(m_context, type, -1, -1, nullptr, 0);
            const bool cover =
                best >= 0 &&
                (m_context->streams[best]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
            return cover ? -1 : best;
        }
        const std::size_t colon = wish.find(':');
        const std::string stream = colon == std::string::npos ? wish : wish.substr(colon + 1);
        if (colon != std::string::npos && wish.substr(0, colon) != std::to_string(m_options.number))
            return -1;
        char* end = nullptr;
        const long index = std::strtol(stream.c_str(), &end, 10);
        if (end == stream.c_str() || *end != '\0' || index < 0 ||
            index >= static_cast<long>(m_context->nb_streams) ||
            m_context->streams[index]->codecpar->codec_type != type)
            return -1;  // another input may have it
        return static_cast<int>(index);
    };
    const bool captionFile = std::string_view(m_context->iformat->name) == "scc";
    const int video = captionFile ? -1 : pick(m_options.video, AVMEDIA_TYPE_VIDEO);
    const int audio = captionFile ? -1 : pick(m_options.audio, AVMEDIA_TYPE_AUDIO);
    if (video >= 0)
        AddVideo(video);
    if (audio >= 0)
        AddAudio(audio);
    for (const auto& entry : m_streams) {
        const AVStream* stream = entry->stream;
        if (entry->counted || stream->start_time == AV_NOPTS_VALUE)
            continue;
        const double start = static_cast<double>(stream->start_time) * av_q2d(stream->time_base);
        m_origin = std::min(m_origin.value_or(start), start);
    }
    ChooseCaptions(captionFile);
    FindTimeCode(video);
    const auto chosen = [](const std::string& wish) { return wish != "auto" && wish != "none"; };
    if (m_streams.empty() && !chosen(m_options.video) && !chosen(m_options.audio))
        throw Failure(kExitStream, m_options.url + " has no video or audio stream to record");
}

void Input::AddVideo(int index)
{
    AVStream* const stream = m_context->streams[index];
    const AVCodecParameters* par = stream->codecpar;
    TrackInfo track;
    track.kind = Kind::kVideo;
    track.name = avcodec_get_name(par->codec_id);
    track.width = static_cast<std::uint16_t>(par->width);
    track.height = static_cast<std::uint16_t>(par->height);
    const char* filterName = nullptr;
    switch (par->codec_id) {
    case AV_CODEC_ID_H264:
        track.codec = MP4_VIDEO_H264;
        filterName = "h264_mp4toannexb";
        break;
    case AV_CODEC_ID_HEVC:
        track.codec = MP4_VIDEO_HEVC;
        filterName = "hevc_mp4toannexb";
        break;
    case AV_CODEC_ID_PRORES: {
        static constexpr std::uint32_t kTags[] = {
            MKTAG('a', 'p', 'c', 'o'), MKTAG('a', 'p', 'c', 's'), MKTAG('a', 'p', 'c', 'n'),
            MKTAG('a', 'p', 'c', 'h'), MKTAG('a', 'p', '4', 'h'), MKTAG('a', 'p', '4', 'x')};
        const auto* tag = std::find(std::begin(kTags), std::end(kTags), par->codec_tag);
        if (tag == std::end(kTags))
            throw Failure(kExitStream, m_options.url + " holds an unknown kind of ProRes");
        track.codec = MP4_VIDEO_PRORES;
        track.proResFormat = static_cast<std::uint32_t>(tag - kTags);
        break;
    }
    default:
        throw Failure(kExitStream, "the video of " + m_options.url + " is " + track.name +
                                       "; only H.264, HEVC and ProRes can be recorded");
    }

    auto entry = std::make_unique<Stream>();
    entry->index = index;
    entry->kind = Kind::kVideo;
    entry->hevc = par->codec_id == AV_CODEC_ID_HEVC;
    entry->stream = stream;
    entry->timeBase = stream->time_base;
    if (filterName) {
        const AVBitStreamFilter* filter = av_bsf_get_by_name(filterName);
        if (!filter || av_bsf_alloc(filter, &entry->filter) < 0 ||
            avcodec_parameters_copy(entry->filter->par_in, par) < 0)
            throw Failure(kExitOther, std::string("no filter ") + filterName);
        entry->filter->time_base_in = stream->time_base;
        if (const int error = av_bsf_init(entry->filter); error < 0)
            throw Failure(kExitStream, "the video of " + m_options.url +
                                           " cannot be converted: " + ErrorText(error));
        entry->timeBase = entry->filter->time_base_out;
        const AVCodecParameters* out = entry->filter->par_out;
        const bool hevc = entry->hevc;
        if (out->extradata_size > 0)
            ForEachUnit(out->extradata, static_cast<std::size_t>(out->extradata_size),
                        [&](const std::uint8_t* unit, std::size_t size) {
                            const int type = hevc ? unit[0] >> 1 & 63 : unit[0] & 31;
                            auto* set = type == (hevc ? 33 : 7)   ? &track.sps
                                        : type == (hevc ? 34 : 8) ? &track.pps
                                        : hevc && type == 32      ? &track.vps
                                                                  : nullptr;
                            if (set && set->empty() && size < 32768)
                                set->assign(unit, unit + size);
                        });
    }

    // Streams without times of their own are counted at a constant rate.
    AVRational rate = m_options.fps.num > 0 ? m_options.fps
                                            : av_guess_frame_rate(m_context, stream, nullptr);
    if (rate.num <= 0 || rate.den <= 0)
        rate = {25, 1};
    entry->counted = (m_context->iformat->flags & AVFMT_NOTIMESTAMPS) != 0;
    if (entry->counted || entry->timeBase.num <= 0 || entry->timeBase.den <= 0)
        entry->timescale = static_cast<std::uint32_t>(rate.num);
    else
        entry->timescale = static_cast<std::uint32_t>(entry->timeBase.den);
    entry->ticksPerFrame =
        std::max<std::int64_t>(1, av_rescale_q(1, AVRational{rate.den, rate.num},
                                               {1, static_cast<int>(entry->timescale)}));
    track.timescale = entry->timescale;
    track.rate = rate;
    track.sampleDuration = static_cast<std::uint32_t>(entry->ticksPerFrame);
    m_tracks.push_back(std::move(track));
    m_streams.push_back(std::move(entry));
}

void Input::AddAudio(int index)
{
    AVStream* const stream = m_context->streams[index];
    const AVCodecParameters* par = stream->codecpar;
    TrackInfo track;
    track.name = avcodec_get_name(par->codec_id);
    if (par->codec_id != AV_CODEC_ID_AAC)
        throw Failure(kExitStream, "the audio of " + m_options.url + " is " + track.name +
                                       "; only AAC can be recorded (--audio none leaves it out)");
    std::uint32_t rate = static_cast<std::uint32_t>(par->sample_rate);
    if (par->extradata_size >= 2) {
        static constexpr std::uint32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                   22050, 16000, 12000, 11025, 8000,  7350};
        Bits bits(par->extradata, par->extradata_size);
        unsigned type = bits.Read(5);
        if (type == 31)
            type = 32 + bits.Read(6);
        const unsigned rateIndex = bits.Read(4);
        rate = rateIndex == 15 ? bits.Read(24) : rateIndex < 13 ? kRates[rateIndex] : rate;
        const unsigned layout = bits.Read(4);
        // SBR and PS are signalled implicitly: the entry describes the AAC LC core.
        track.objectType = static_cast<std::uint8_t>(type == 5 || type == 29 ? 2 : type);
        if (type > 31 && type != 5)
            throw Failure(kExitStream, "the AAC of " + m_options.url + " has object type " +
                                           std::to_string(type) + ", which cannot be recorded");
        track.codec = MP4_AUDIO_AAC_RAW;
        // The library writes it as a configuration again, which is the number of channels up to 6.
        const int count = par->ch_layout.nb_channels;
        track.channels = static_cast<std::uint16_t>(layout != 0  ? layout
                                                    : count == 7 ? 11u
                                                    : count == 8 ? 7u
                                                                 : static_cast<unsigned>(count));
        if (track.channels > 14 || (track.channels >= 8 && track.channels <= 10))
            throw Failure(kExitStream, "the AAC of " + m_options.url + " has " +
                                           std::to_string(count) +
                                           " channels in no layout that can be recorded");
    } else {
        track.codec = MP4_AUDIO_AAC_ADTS;
    }
    if (rate == 0 || rate > 65535)
        throw Failure(kExitStream, "the audio of " + m_options.url + " runs at " +
                                       std::to_string(rate) + " Hz; at most 65535 fit the file");
    track.sampleRate = static_cast<std::uint16_t>(rate);
    track.timescale = rate;
    track.sampleDuration = kAacFrame;

    auto entry = std::make_unique<Stream>();
    entry->index = index;
    entry->stream = stream;
    entry->timeBase = stream->time_base;
    entry->timescale = rate;
    entry->ticksPerFrame = kAacFrame;
    m_tracks.push_back(std::move(track));
    m_streams.push_back(std::move(entry));
}

void Input::ChooseCaptions(bool captionFile)
{
    const std::string& wish = m_options.captions;
    const auto holdsCaptions = [this](unsigned index) {
        const AVCodecParameters* par = m_context->streams[index]->codecpar;
        return par->codec_id == AV_CODEC_ID_EIA_608 || par->codec_tag == kC708;
    };
    if (captionFile && (wish == "none" || wish == "video"))
        throw Failure(kExitUsage, "--captions " + wish + " leaves nothing of " + m_options.url);
    if (wish == "none")
        return;
    unsigned index = m_context->nb_streams;
    if (wish == "auto" || captionFile) {
        for (index = 0; index < m_context->nb_streams && !holdsCaptions(index);)
            ++index;
    } else if (wish != "video") {
        char* end = nullptr;
        const unsigned long number = std::strtoul(wish.c_str(), &end, 10);
        if (*end != '\0' || number >= m_context->nb_streams ||
            !holdsCaptions(static_cast<unsigned>(number)))
            return;  // another input may have it
        index = static_cast<unsigned>(number);
    }

    m_captionTrack.kind = Kind::kCaptions;
    m_captionTrack.name = "caption";
    m_captionTrack.codec = MP4_SUBTITLE_CEA608;
    const auto video = std::ranges::find(m_tracks, Kind::kVideo, &TrackInfo::kind);
    if (index < m_context->nb_streams) {
        auto entry = std::make_unique<Stream>();
        entry->index = static_cast<int>(index);
        entry->kind = Kind::kCaptions;
        entry->stream = m_context->streams[index];
        entry->timeBase = entry->stream->time_base;
        entry->dropFrame = captionFile && CountsDropFrame(m_options.url);
        entry->timescale = static_cast<std::uint32_t>(captionFile ? kLine21.den
                                                                  : entry->timeBase.den);
        m_captionSource = captionFile ? CaptionSource::kFile : CaptionSource::kTrack;
        m_captionTrack.timescale = entry->timescale;
        if (entry->stream->codecpar->codec_tag == kC708)
            m_captionTrack.codec = MP4_SUBTITLE_CEA708;
        m_streams.push_back(std::move(entry));
    } else if (video != m_tracks.end() && video->codec != MP4_VIDEO_PRORES) {
        m_captionSource = CaptionSource::kPictures;
        m_captionTrack.timescale = video->timescale;
    } else {
        return;
    }
    if (m_options.captionCodec != 0)
        m_captionTrack.codec = m_options.captionCodec;
    m_packer.emplace(m_captionTrack.codec,
                     video != m_tracks.end() ? video->rate : AVRational{0, 1});
    m_captionPadding = m_packer->Padding();
}

void Input::FindTimeCode(int video)
{
    if (video < 0)
        return;
    const auto take = [this](const AVDictionary* items, AVRational rate) {
        const AVDictionaryEntry* item = av_dict_get(items, "timecode", nullptr, 0);
        if (!item || !m_timeCode.empty())
            return;
        m_timeCode = item->value;
        m_timeCodeRate = rate;
    };
    const AVRational rate =
        std::ranges::find(m_tracks, Kind::kVideo, &TrackInfo::kind)->rate;
    // A time-code track has a rate of its own, which may be half that of the pictures.
    for (unsigned i = 0; i < m_context->nb_streams; ++i) {
        const AVStream* stream = m_context->streams[i];
        if (stream->codecpar->codec_tag == MKTAG('t', 'm', 'c', 'd'))
            take(stream->metadata, stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : rate);
    }
    take(m_context->streams[video]->metadata, rate);
    take(m_context->metadata, rate);
}

void Input::Read()
{
    AVPacket* packet = av_packet_alloc();
    const std::unique_ptr<AVPacket, void (*)(AVPacket*)> owner(
        packet, [](AVPacket* p) { av_packet_free(&p); });
    int error = 0;
    while (!g_stop && !m_leave && (error = av_read_frame(m_context, packet)) >= 0) {
        for (const auto& stream : m_streams) {
            if (stream->index != packet->stream_index)
                continue;
            if (!stream->filter) {
                Deliver(*stream, packet);
                continue;
            }
            if (av_bsf_send_packet(stream->filter, packet) < 0) {
                ++m_brokenPackets;  // the next may be whole
                continue;
            }
            int status = 0;
            while ((status = av_bsf_receive_packet(stream->filter, packet)) >= 0) {
                Deliver(*stream, packet);
                av_packet_unref(packet);
            }
            m_brokenPackets += status != AVERROR(EAGAIN) && status != AVERROR_EOF;
        }
        av_packet_unref(packet);
    }
    for (const auto& stream : m_streams)
        ReleaseCaptions(*stream, std::numeric_limits<std::int64_t>::max());
    if (error < 0 && error != AVERROR_EOF && error != AVERROR_EXIT && !g_stop) {
        const std::lock_guard hold(m_mutex);
        m_trouble = "reading " + m_options.url + " ended early: " + ErrorText(error);
    }
}

void Input::Deliver(Stream& stream, AVPacket* packet)
{
    if (stream.kind == Kind::kCaptions) {
        if (m_captionSource == CaptionSource::kFile)
            DeliverCaptionFile(stream, packet);
        else
            DeliverCaptionPacket(stream, packet);
        return;
    }
    const AVRational ticks{1, static_cast<int>(stream.timescale)};
    // The one time of the library is the decoding time, which rises with every picture; it is moved
    // so that the first picture keeps its presentation time.
    DateBack(stream, packet);
    std::int64_t stamp = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    if (stream.kind == Kind::kVideo && packet->pts != AV_NOPTS_VALUE &&
        packet->dts != AV_NOPTS_VALUE) {
        if (stream.first)
            stream.reorderDelay = packet->pts - packet->dts;
        if (packet->pts - packet->dts != stream.reorderDelay)
            m_reordered = true;
        stamp += stream.reorderDelay;
    }
    if (stream.first && stream.filter && packet->pts == AV_NOPTS_VALUE &&
        packet->dts == AV_NOPTS_VALUE)
        stream.order = std::make_unique<ShowingOrder>(stream.stream->codecpar);
    if (stream.order) {
        const std::int64_t number = stream.order->Number(packet);
        if (!stream.first && number < stream.number)
            m_reordered = true;
        stream.number = number;
    }
    std::int64_t time = stream.next;
    if (!stream.counted && stamp != AV_NOPTS_VALUE) {
        const std::int64_t scaled = av_rescale_q(stamp, stream.timeBase, ticks);
        if (!m_origin)
            m_origin = static_cast<double>(scaled) / stream.timescale;
        if (stream.first)
            stream.originTicks = std::llround(*m_origin * stream.timescale);
        time = CarryOn(stream, scaled - stream.originTicks,
                       stream.kind == Kind::kVideo && packet->dts == AV_NOPTS_VALUE);
        // A coarse time base makes AAC frames seem uneven; within its step the count is exact.
        const std::int64_t step = av_rescale_q_rnd(1, stream.timeBase, ticks, AV_ROUND_UP);
        if (stream.kind != Kind::kVideo && !stream.first && std::llabs(time - stream.next) <= step)
            time = stream.next;
    }
    if (time < 0 ||
        (stream.first && static_cast<double>(time) > kLateStart * stream.timescale))
        time = 0;
    if (stream.last && time <= *stream.last)
        time = *stream.last + 1;  // the tables take rising times only
    stream.first = false;
    stream.last = time;
    stream.next = time + stream.ticksPerFrame;

    Frame frame;
    frame.kind = stream.kind;
    frame.time = time;
    frame.seconds = static_cast<double>(time) / stream.timescale;
    frame.data.assign(packet->data, packet->data + packet->size);

    Queue(std::move(frame));
    if (stream.kind == Kind::kVideo && m_captionSource == CaptionSource::kPictures)
        DeliverPicturesCaptions(stream, packet, time, stamp);
}

std::int64_t Input::CarryOn(Stream& stream, std::int64_t time, bool undated)
{
    if (stream.first) {
        stream.jumps = m_jumps.size();
        stream.carried =
            m_jumps.empty() ? 0 : std::llround(m_jumps.back() * stream.timescale);
        return time + stream.carried;
    }
    // Presentation times, where there are no others, fall by some pictures all the time.
    const std::int64_t fall =
        std::llround(kJumpBack * stream.timescale) +
        (undated ? static_cast<std::int64_t>(kReorderedPictures) * stream.ticksPerFrame : 0);
    double finest = 1;  // one bound for all, which must stay together
    for (const auto& other : m_streams)
        finest = std::max(finest, static_cast<double>(other->timescale));
    const std::int64_t leap = std::llround(kJumpAhead / finest * stream.timescale);
    const auto jumped = [&] {
        const std::int64_t distance = time + stream.carried - *stream.last;
        return distance < -fall || distance > leap;
    };
    if (!jumped())
        return time + stream.carried;
    m_jumped = true;
    // The first stream to arrive at a jump decides for all where the clock goes on, behind the last
    // frame of any; the others follow when they arrive there, and keep their distance from it.
    if (stream.jumps == m_jumps.size()) {
        double end = 0;
        for (const auto& other : m_streams)
            if (other->timescale != 0)
                end = std::max(end, static_cast<double>(other->next) / other->timescale);
        m_jumps.push_back(end - static_cast<double>(time) / stream.timescale);
    }
    while (jumped() && stream.jumps < m_jumps.size())
        stream.carried = std::llround(m_jumps[stream.jumps++] * stream.timescale);
    if (jumped() || time + stream.carried < stream.next)
        stream.carried = stream.next - time;
    return time + stream.carried;
}

// Containers with one time a picture leave it to FFmpeg to find the decoding times of reordered
// pictures, and it knows none of the first ones. They go back from the first picture in even steps.
void Input::DateBack(Stream& stream, AVPacket* packet) const
{
    const int delay = stream.stream->codecpar->video_delay;
    if (stream.kind != Kind::kVideo || stream.undated >= delay || packet->dts != AV_NOPTS_VALUE ||
        packet->pts == AV_NOPTS_VALUE) {
        stream.undated = delay;
        return;
    }
    if (stream.first)
        stream.firstShown = packet->pts;
    packet->dts = stream.firstShown +
                  av_rescale_q((stream.undated - delay) * stream.ticksPerFrame,
                               {1, static_cast<int>(stream.timescale)}, stream.timeBase);
    ++stream.undated;
}

void Input::DeliverPicturesCaptions(Stream& stream, const AVPacket* packet, std::int64_t time,
                                    std::int64_t stamp)
{
    CaptionEntries entries =
        EntriesOfPicture(packet->data, static_cast<std::size_t>(packet->size), stream.hevc);
    if (stream.order) {
        stream.held.emplace(stream.number, std::move(entries));
        if (stream.held.size() > kReorderedPictures)
            ReleaseCaptions(stream, stream.held.begin()->first);
        return;
    }
    // Captions follow each other in the order in which their pictures are shown.
    std::int64_t shown = time;
    std::int64_t decoded = time;
    if (!stream.counted && packet->pts != AV_NOPTS_VALUE && packet->dts != AV_NOPTS_VALUE) {
        const auto distance = [&](std::int64_t from) {
            return av_rescale_q(from - stamp, stream.timeBase,
                                {1, static_cast<int>(stream.timescale)});
        };
        shown = std::max<std::int64_t>(0, time + distance(packet->pts));
        decoded = time + distance(packet->dts);
    }
    if (!entries.empty())
        stream.held.emplace(shown, std::move(entries));
    // No picture is shown before it is decoded, so that nothing can come between any more.
    ReleaseCaptions(stream, decoded);
    if (stream.held.size() > kReorderedPictures)
        ReleaseCaptions(stream, stream.held.begin()->first);
}

void Input::ReleaseCaptions(Stream& stream, std::int64_t time)
{
    while (!stream.held.empty() && stream.held.begin()->first <= time) {
        const auto first = stream.held.begin();
        DeliverCaptions(stream.order ? stream.shown++ * stream.ticksPerFrame : first->first,
                        stream.ticksPerFrame, m_packer->Pack(first->second, true));
        stream.held.erase(first);
    }
}

void Input::DeliverCaptionPacket(Stream& stream, const AVPacket* packet)
{
    const auto size = static_cast<std::size_t>(packet->size);
    std::vector<Bytes> frames;
    if (stream.stream->codecpar->codec_id == AV_CODEC_ID_EIA_608) {
        frames = m_packer->Pack(EntriesOfEia608(packet->data, size), false);
    } else {
        std::vector<Bytes> packets;
        if (!PacketsOfC708(packet->data, size, packets))
            ++m_brokenCaptions;
        for (const Bytes& cdp : packets) {
            CaptionEntries entries;
            if (m_captionTrack.codec == MP4_SUBTITLE_CEA708)
                frames.push_back(m_packer->PackPacket(cdp));
            else if (EntriesOfCdp(cdp, entries))
                std::ranges::move(m_packer->Pack(entries, true), std::back_inserter(frames));
            else
                ++m_brokenCaptions;
        }
    }
    const AVRational ticks{1, static_cast<int>(stream.timescale)};
    m_brokenCaptions += std::erase(frames, Bytes{});
    const std::int64_t stamp = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (stamp == AV_NOPTS_VALUE)
        return;
    const std::int64_t time = av_rescale_q(stamp, stream.timeBase, ticks) -
                              std::llround(m_origin.value_or(0) * stream.timescale);
    std::int64_t span = av_rescale_q(static_cast<std::int64_t>(frames.size()), kLine21, ticks);
    if (packet->duration > 0)
        span = std::min(span, av_rescale_q(packet->duration, stream.timeBase, ticks));
    DeliverCaptions(std::max<std::int64_t>(time, 0), span, frames);
}

void Input::DeliverCaptionFile(Stream& stream, const AVPacket* packet)
{
    const std::int64_t milliseconds = av_rescale_q(packet->pts, stream.timeBase, {1, 1000});
    const std::vector<Bytes> frames = m_packer->Pack(
        EntriesOfEia608(packet->data, static_cast<std::size_t>(packet->size)), false);
    // Each pair takes the line 21 of one picture, from the line's time on.
    std::int64_t time = CaptionFileFrame(milliseconds, stream.dropFrame) * kLine21.num;
    if (m_lastCaption)
        time = std::max(time, *m_lastCaption + kLine21.num);
    DeliverCaptions(time, static_cast<std::int64_t>(frames.size()) * kLine21.num, frames);
}

void Input::DeliverCaptions(std::int64_t time, std::int64_t span, const std::vector<Bytes>& frames)
{
    const auto count = static_cast<std::int64_t>(frames.size());
    for (std::int64_t n = 0; n < count; ++n) {
        Frame frame;
        frame.kind = Kind::kCaptions;
        frame.time = time + span * n / count;
        if (m_lastCaption)
            frame.time = std::max(frame.time, *m_lastCaption + 1);
        m_lastCaption = frame.time;
        frame.seconds = static_cast<double>(frame.time) / m_captionTrack.timescale;
        frame.data = frames[static_cast<std::size_t>(n)];
        Queue(std::move(frame));
    }
}

void Input::Queue(Frame frame)
{
    std::unique_lock hold(m_mutex);
    while ((m_queue.size() >= kQueueFrames || m_queuedBytes >= kQueueBytes) && !m_leave && !g_stop)
        m_changed.wait_for(hold, kMoment);
    m_queuedBytes += frame.data.size();
    m_queue.push_back(std::move(frame));
    hold.unlock();
    m_changed.notify_all();
}

bool Input::WaitForOpen()
{
    std::unique_lock hold(m_mutex);
    if (!m_open && !m_ended)
        m_changed.wait_for(hold, kMoment);
    if (m_failure && !m_open && !g_stop)
        std::rethrow_exception(m_failure);
    return m_open || m_ended;
}

double Input::FrameSeconds(Kind kind) const
{
    const auto track = std::ranges::find(m_tracks, kind, &TrackInfo::kind);
    return track == m_tracks.end()
               ? 0
               : static_cast<double>(track->sampleDuration) / track->timescale;
}

Input::Head Input::Look(double* seconds)
{
    const std::lock_guard hold(m_mutex);
    if (m_queue.empty())
        return m_ended || g_stop ? Head::kEnd : Head::kWaiting;
    *seconds = m_queue.front().seconds;
    return m_queue.size() >= kQueueFrames || m_queuedBytes >= kQueueBytes ? Head::kFull
                                                                         : Head::kFrame;
}

Frame Input::Take()
{
    Frame frame;
    {
        const std::lock_guard hold(m_mutex);
        frame = std::move(m_queue.front());
        m_queue.pop_front();
        m_queuedBytes -= frame.data.size();
    }
    m_changed.notify_all();
    return frame;
}

void Input::WaitForMore()
{
    std::unique_lock hold(m_mutex);
    if (m_queue.empty() && !m_ended)
        m_changed.wait_for(hold, kMoment);
}

std::string Input::Trouble()
{
    const std::lock_guard hold(m_mutex);
    return m_trouble;
}

void Input::Leave()
{
    m_leave = true;
    m_changed.notify_all();
}

bool Input::WaitForEnd()
{
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, kMomentsToEnd, [this] { return m_ended; });
}
