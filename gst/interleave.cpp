#include "interleave.h"

#include "undated.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

GST_DEBUG_CATEGORY_STATIC(kvmp4_interleave_debug);
#define GST_CAT_DEFAULT kvmp4_interleave_debug

namespace kvmp4sink {

namespace {

// What is known of a pad; used by the aggregator's own thread alone.
struct Stream {
    std::optional<std::int64_t> reorderDelay;  // of the first frame, ns
    std::int64_t last = 0;                     // the time of the last frame, ns
    std::int64_t span = 0;                     // and how long it lasts
    Undated undated;                           // pictures that wait for their decoding times
    bool reordered = false;
    bool remarked = false;  // and told
    bool broken = false;
    bool waited = false;
};

struct FreeTags {
    void operator()(GstTagList* tags) const { gst_tag_list_unref(tags); }
};
using TagList = std::unique_ptr<GstTagList, FreeTags>;

// The C++ half of the object.
struct State {
    GstElement* element = nullptr;
    Recorder* recorder = nullptr;
    std::array<Stream, kKinds> streams;
    TagList tags;         // of the streams, in this recording
    bool begun = false;
    bool failed = false;  // and told
    std::mutex mutex;  // guards what follows
    std::optional<mp4_safe_param> safe;
};

// The earliest frame of all pads, and a reference to its pad, which may be released meanwhile.
struct Head {
    GstAggregatorPad* pad = nullptr;
    GstBuffer* buffer = nullptr;
    Kind kind = Kind::kVideo;
    std::int64_t time = 0;
};

}  // namespace

struct KvMp4Interleave {
    GstAggregator parent;
    State* state;
};

struct KvMp4InterleaveClass {
    GstAggregatorClass parent;
};

// GLib's macro casts as C does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
G_DEFINE_TYPE(KvMp4Interleave, kvmp4_interleave, GST_TYPE_AGGREGATOR)
#pragma GCC diagnostic pop

namespace {

State& StateOf(gpointer object)
{
    return *static_cast<KvMp4Interleave*>(object)->state;
}

Kind KindOfPad(GstAggregatorPad* pad)
{
    return KindOf(GST_PAD_TEMPLATE_NAME_TEMPLATE(GST_PAD_PAD_TEMPLATE(pad))).value_or(Kind::kVideo);
}

std::optional<std::int64_t> RunningTime(const GstSegment& segment, GstClockTime time)
{
    guint64 result = 0;
    if (!GST_CLOCK_TIME_IS_VALID(time) || segment.format != GST_FORMAT_TIME)
        return std::nullopt;
    const int sign = gst_segment_to_running_time_full(&segment, GST_FORMAT_TIME, time, &result);
    if (sign == 0)
        return std::nullopt;
    return sign > 0 ? static_cast<std::int64_t>(result) : -static_cast<std::int64_t>(result);
}

// The library knows one time a frame. It is that of decoding, the one that rises, moved so that the
// first frame keeps the time at which it is shown.
std::int64_t TimeOf(Stream& stream, GstAggregatorPad* pad, GstBuffer* buffer)
{
    GST_OBJECT_LOCK(pad);
    const GstSegment segment = pad->segment;
    GST_OBJECT_UNLOCK(pad);
    const auto shown = RunningTime(segment, GST_BUFFER_PTS(buffer));
    const auto decoded = RunningTime(segment, GST_BUFFER_DTS(buffer));
    if (shown && decoded) {
        if (!stream.reorderDelay)
            stream.reorderDelay = *shown - *decoded;
        else if (*stream.reorderDelay != *shown - *decoded)
            stream.reordered = true;
    }
    if (decoded)
        return *decoded + stream.reorderDelay.value_or(0);
    return shown.value_or(stream.last + stream.span);
}

void Drop(Head& head)
{
    gst_clear_buffer(&head.buffer);
    gst_clear_object(&head.pad);
}

Head FindHead(GstAggregator* aggregator, bool* allEnded = nullptr)
{
    struct Search {
        State& state;
        Head head;
        bool ended = true;
    } search{StateOf(aggregator), {}};
    gst_element_foreach_sink_pad(
        GST_ELEMENT(aggregator),
        [](GstElement*, GstPad* pad, gpointer data) -> gboolean {
            Search& found = *static_cast<Search*>(data);
            GstAggregatorPad* const input = GST_AGGREGATOR_PAD(pad);
            GstBuffer* const buffer = gst_aggregator_pad_peek_buffer(input);
            found.ended = found.ended && !buffer && gst_aggregator_pad_is_eos(input);
            if (!buffer)
                return TRUE;
            const Kind kind = KindOfPad(input);
            const std::int64_t time =
                TimeOf(found.state.streams[static_cast<std::size_t>(kind)], input, buffer);
            if (!found.head.pad || time < found.head.time) {
                Drop(found.head);
                gst_object_ref(input);
                found.head = {input, buffer, kind, time};
            } else {
                gst_buffer_unref(buffer);
            }
            return TRUE;
        },
        &search);
    if (allEnded)
        *allEnded = search.ended;
    return search.head;
}

void PostWarning(GstElement* element, GQuark domain, int code, const char* text)
{
    gst_element_message_full(element, GST_MESSAGE_WARNING, domain, code, g_strdup(text), nullptr,
                             __FILE__, GST_FUNCTION, __LINE__);
}

void PostCheckpoint(GstElement* element, const Checkpoint& checkpoint)
{
    GstStructure* const structure = gst_structure_new(
        "kvmp4-checkpoint", "position", G_TYPE_UINT64, guint64{checkpoint.position}, "duration",
        G_TYPE_UINT64, guint64{checkpoint.duration}, "bytes", G_TYPE_UINT64,
        guint64{checkpoint.bytes}, nullptr);
    gst_element_post_message(element, gst_message_new_element(GST_OBJECT(element), structure));
}

// What is said once a stream and recording.
void Remark(GstElement* element, Stream& stream, Kind kind, Recorder::Result result)
{
    if (kind == Kind::kVideo && stream.reordered && !stream.remarked) {
        PostWarning(element, GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                    "The video has B-frames: its pictures keep their decoding times.");
        stream.remarked = true;
    }
    if (result == Recorder::Result::kBroken && !stream.broken) {
        PostWarning(element, GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE,
                    kind == Kind::kVideo   ? "A video frame without a start code is left out."
                    : kind == Kind::kAudio ? "An audio frame that is no ADTS is left out."
                                           : "A caption of more than 255 bytes or pairs is left "
                                             "out.");
        stream.broken = true;
    }
    if (result == Recorder::Result::kWaiting && !stream.waited) {
        PostWarning(element, GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                    "Pictures are left out until the video brings all its parameter sets.");
        stream.waited = true;
    }
}

void PostTrouble(State& state)
{
    if (const auto trouble = state.recorder->NewTrouble())
        PostWarning(state.element, trouble->domain, trouble->code, trouble->text.c_str());
}

void Write(State& state, Kind kind, GstBuffer* buffer, std::int64_t time)
{
    const Recorder::Result result = state.recorder->Write(kind, buffer, time);
    Remark(state.element, state.streams[static_cast<std::size_t>(kind)], kind, result);
    PostTrouble(state);
    if (const auto checkpoint = state.recorder->NewCheckpoint())
        PostCheckpoint(state.element, *checkpoint);
}

// All that is held, or what need not be any longer.
void WriteUndated(State& state, Kind kind, bool all)
{
    Stream& stream = state.streams[static_cast<std::size_t>(kind)];
    while (const auto picture = stream.undated.Pop(all))
        Write(state, kind, picture->buffer.get(), picture->time);
}

// Times may begin anew, as of another stream.
void BeginAnew(State& state, Kind kind)
{
    WriteUndated(state, kind, true);
    Stream& stream = state.streams[static_cast<std::size_t>(kind)];
    stream.undated = {};
    stream.reorderDelay.reset();
}

void Record(GstAggregator* aggregator, const Head& head)
{
    State& state = StateOf(aggregator);
    Stream& stream = state.streams[static_cast<std::size_t>(head.kind)];
    {
        const std::lock_guard guard(state.mutex);
        if (state.safe)
            state.recorder->SetSafeParameters(*state.safe);
        state.safe.reset();
    }
    const bool gap = GST_BUFFER_FLAG_IS_SET(head.buffer, GST_BUFFER_FLAG_GAP) &&
                     gst_buffer_get_size(head.buffer) == 0;
    if (!gap && GST_BUFFER_PTS_IS_VALID(head.buffer) && !GST_BUFFER_DTS_IS_VALID(head.buffer) &&
        state.recorder->MayReorder(head.kind)) {
        stream.undated.Push(head.buffer, head.time, state.recorder->StepOf(head.kind));
        stream.reordered = stream.reordered || stream.undated.Reorders();
        WriteUndated(state, head.kind, false);
    } else if (!gap) {
        WriteUndated(state, head.kind, true);
        Write(state, head.kind, head.buffer, head.time);
    }
    const GstClockTime span = GST_BUFFER_DURATION(head.buffer);
    stream.last = head.time;
    // matroskademux gives ProRes neither times nor lengths.
    stream.span = GST_CLOCK_TIME_IS_VALID(span) ? static_cast<std::int64_t>(span)
                                                : state.recorder->StepOf(head.kind);
}

void Fail(State& state, const Failure& failure)
{
    state.failed = true;
    PostError(state.element, failure);
}

// Those of the application and those of the streams, by the rule that the application has set.
TagList AllTags(const State& state)
{
    GstTagSetter* const setter = GST_TAG_SETTER(state.element);
    return TagList(gst_tag_list_merge(gst_tag_setter_get_tag_list(setter), state.tags.get(),
                                      gst_tag_setter_get_tag_merge_mode(setter)));
}

GstFlowReturn Aggregate(GstAggregator* aggregator, gboolean)
{
    State& state = StateOf(aggregator);
    if (!state.begun) {
        GstCaps* const caps = gst_caps_new_empty_simple("application/x-kvmp4-progress");
        gst_aggregator_set_src_caps(aggregator, caps);
        gst_caps_unref(caps);
        state.begun = true;
    }
    if (state.failed)
        return GST_FLOW_ERROR;
    bool ended = false;
    Head head = FindHead(aggregator, &ended);
    if (!head.pad && !ended)
        return GST_AGGREGATOR_FLOW_NEED_DATA;
    if (!head.pad)
        return FinishRecording(GST_ELEMENT(aggregator)) ? GST_FLOW_EOS : GST_FLOW_ERROR;

    GstFlowReturn result = GST_FLOW_OK;
    if (!state.recorder->IsOpen()) {
        result = GST_FLOW_EOS;  // data behind the end
    } else {
        try {
            Record(aggregator, head);
        } catch (const Failure& failure) {
            Fail(state, failure);
            result = GST_FLOW_ERROR;
        }
    }
    gst_aggregator_pad_drop_buffer(head.pad);
    Drop(head);
    if (result != GST_FLOW_OK)
        return result;
    GstBuffer* const progress = gst_buffer_new();
    GST_BUFFER_PTS(progress) = static_cast<GstClockTime>(std::max<std::int64_t>(0, head.time));
    return gst_aggregator_finish_buffer(aggregator, progress);
}

// Live, a pad without data holds the others up no longer than the latency allows.
GstClockTime NextTime(GstAggregator* aggregator)
{
    Head head = FindHead(aggregator);
    if (!head.pad)
        return GST_CLOCK_TIME_NONE;
    Drop(head);
    return static_cast<GstClockTime>(std::max<std::int64_t>(0, head.time));
}

gboolean SinkEvent(GstAggregator* aggregator, GstAggregatorPad* pad, GstEvent* event)
{
    State& state = StateOf(aggregator);
    try {
        if (!state.failed && state.recorder->IsOpen()) {
            if (GST_EVENT_TYPE(event) == GST_EVENT_STREAM_START)
                BeginAnew(state, KindOfPad(pad));
            else if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS ||
                     GST_EVENT_TYPE(event) == GST_EVENT_EOS)
                WriteUndated(state, KindOfPad(pad), true);
        }
        if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
            GstCaps* caps = nullptr;
            gst_event_parse_caps(event, &caps);
            state.recorder->SetCaps(KindOfPad(pad), caps);
        } else if (GST_EVENT_TYPE(event) == GST_EVENT_SEGMENT) {
            const GstSegment* segment = nullptr;
            gst_event_parse_segment(event, &segment);
            if (segment->format != GST_FORMAT_TIME)
                throw Failure{GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                              "A recording needs segments in time."};
        } else if (GST_EVENT_TYPE(event) == GST_EVENT_TAG) {
            GstTagList* tags = nullptr;
            gst_event_parse_tag(event, &tags);
            state.tags.reset(gst_tag_list_merge(state.tags.get(), tags, GST_TAG_MERGE_REPLACE));
            state.recorder->SetTags(AllTags(state).get());
            PostTrouble(state);
        }
    } catch (const Failure& failure) {
        Fail(state, failure);
        gst_event_unref(event);
        return FALSE;
    }
    return GST_AGGREGATOR_CLASS(kvmp4_interleave_parent_class)->sink_event(aggregator, pad, event);
}

GstFlowReturn Flush(GstAggregator* aggregator)
{
    State& state = StateOf(aggregator);
    try {
        for (const Kind kind : {Kind::kVideo, Kind::kAudio, Kind::kCaption}) {
            if (!state.failed && state.recorder->IsOpen())
                BeginAnew(state, kind);
            Stream& stream = state.streams[static_cast<std::size_t>(kind)];
            stream.last = stream.span = 0;
        }
    } catch (const Failure& failure) {
        Fail(state, failure);
        return GST_FLOW_ERROR;
    }
    state.recorder->Flush();
    return GST_FLOW_OK;
}

gboolean Start(GstAggregator* aggregator)
{
    State& state = StateOf(aggregator);
    state.streams = {};
    state.tags.reset();
    state.begun = state.failed = false;
    return TRUE;
}

// There is one pad of a template, and it has the template's name.
GstAggregatorPad* CreatePad(GstAggregator*, GstPadTemplate* pattern, const gchar*, const GstCaps*)
{
    return GST_AGGREGATOR_PAD(g_object_new(GST_TYPE_AGGREGATOR_PAD, "name",
                                           GST_PAD_TEMPLATE_NAME_TEMPLATE(pattern), "direction",
                                           GST_PAD_SINK, "template", pattern, nullptr));
}

void Finalize(GObject* object)
{
    delete static_cast<KvMp4Interleave*>(static_cast<gpointer>(object))->state;
    G_OBJECT_CLASS(kvmp4_interleave_parent_class)->finalize(object);
}

}  // namespace

static void kvmp4_interleave_init(KvMp4Interleave* self)
{
    self->state = new State;
}

static void kvmp4_interleave_class_init(KvMp4InterleaveClass* type)
{
    GST_DEBUG_CATEGORY_INIT(kvmp4_interleave_debug, "kvmp4interleave", 0, "kvmp4sink's frames");
    G_OBJECT_CLASS(type)->finalize = Finalize;
    GstElementClass* const element = GST_ELEMENT_CLASS(type);
    gst_element_class_set_static_metadata(element, "Interleaver of kvmp4sink", "Generic",
                                          "Puts frames in order and records them", "libkv_mp4");
    for (const Kind kind : {Kind::kVideo, Kind::kAudio, Kind::kCaption}) {
        GstCaps* const caps = gst_static_caps_get(CapsOf(kind));
        gst_element_class_add_pad_template(
            element, gst_pad_template_new_with_gtype(NameOf(kind), GST_PAD_SINK, GST_PAD_REQUEST,
                                                     caps, GST_TYPE_AGGREGATOR_PAD));
        gst_caps_unref(caps);
    }
    GstCaps* const progress = gst_caps_new_empty_simple("application/x-kvmp4-progress");
    gst_element_class_add_pad_template(
        element, gst_pad_template_new_with_gtype("src", GST_PAD_SRC, GST_PAD_ALWAYS, progress,
                                                 GST_TYPE_AGGREGATOR_PAD));
    gst_caps_unref(progress);

    GstAggregatorClass* const aggregator = GST_AGGREGATOR_CLASS(type);
    aggregator->aggregate = Aggregate;
    aggregator->get_next_time = NextTime;
    aggregator->sink_event = SinkEvent;
    aggregator->flush = Flush;
    aggregator->start = Start;
    aggregator->create_new_pad = CreatePad;
    aggregator->negotiate = nullptr;  // what goes out has no format to agree on
}

GstElement* NewInterleave(GstElement* element, Recorder& recorder)
{
    GstElement* const made = GST_ELEMENT(g_object_new(kvmp4_interleave_get_type(), nullptr));
    StateOf(made).element = element;
    StateOf(made).recorder = &recorder;
    return made;
}

void ChangeSafeParameters(GstElement* interleave, const mp4_safe_param& parameters)
{
    State& state = StateOf(interleave);
    const std::lock_guard guard(state.mutex);
    state.safe = parameters;
}

bool FinishRecording(GstElement* interleave)
{
    State& state = StateOf(interleave);
    const auto succeeds = [&](auto step) {
        try {
            step();
        } catch (const Failure& failure) {
            PostError(state.element, failure);
            return false;
        }
        return true;
    };
    const bool written = succeeds([&] {
        if (!state.failed && state.recorder->IsOpen())
            WriteUndated(state, Kind::kVideo, true);
        state.recorder->SetTags(AllTags(state).get());
        PostTrouble(state);
    });
    return succeeds([&] { state.recorder->Close(); }) && written;
}

void PostError(GstElement* element, const Failure& failure)
{
    gst_element_message_full(element, GST_MESSAGE_ERROR, failure.domain, failure.code,
                             g_strdup(failure.text.c_str()), nullptr, __FILE__, GST_FUNCTION,
                             __LINE__);
}

}  // namespace kvmp4sink
