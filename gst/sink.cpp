// The element itself: a bin of the interleaver and a fakesink. It has the pads, the properties and
// the tags, and opens and ends the recording with its states; order and times are the
// interleaver's, preroll, flushing and the end of the stream those of the sinks of GStreamer.
#include "sink.h"

#include "interleave.h"
#include "log.h"

#include <mutex>

GST_DEBUG_CATEGORY_STATIC(kvmp4_sink_debug);
#define GST_CAT_DEFAULT kvmp4_sink_debug

namespace kvmp4sink {

namespace {

enum Property : guint {
    kLocation = 1,
    kSafeMode,
    kCheckpointStrategy,
    kCheckpointInterval,
    kCheckpointMaxInterval,
    kCheckpointThreshold,
    kInfoFile,
    kInfoFlushInterval,
    kLargeFile,
    kDurable,
    kDuration,
    kBytesWritten,
};

// The C++ half of the object.
struct SinkState {
    std::mutex mutex;  // guards the settings
    Settings settings;
    Recorder recorder;
    GstElement* interleave = nullptr;  // owned by the bin
};

}  // namespace

struct KvMp4Sink {
    GstBin parent;
    SinkState* state;
};

struct KvMp4SinkClass {
    GstBinClass parent;
};

// GLib's macro casts as C does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
G_DEFINE_TYPE_WITH_CODE(KvMp4Sink, kvmp4_sink, GST_TYPE_BIN,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_TAG_SETTER, nullptr))
#pragma GCC diagnostic pop

namespace {

SinkState& StateOf(gpointer object)
{
    return *static_cast<KvMp4Sink*>(object)->state;
}

GType StrategyType()
{
    static const GEnumValue kValues[] = {
        {0, "The same distance always (checkpoint-interval)", "fixed"},
        {1, "Growing from checkpoint-interval to checkpoint-max-interval", "linear"},
        {2, "checkpoint-interval up to the threshold, then checkpoint-max-interval", "stepped"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("KvMp4SinkCheckpointStrategy", kValues);
    return type;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec)
{
    SinkState& state = StateOf(object);
    if ((spec->flags & GST_PARAM_MUTABLE_READY) != 0 && GST_STATE(object) > GST_STATE_READY) {
        GST_WARNING_OBJECT(object, "%s is settled while a recording runs", spec->name);
        return;
    }
    const std::lock_guard guard(state.mutex);
    Settings& settings = state.settings;
    switch (id) {
    case kLocation: {
        const char* const text = g_value_get_string(value);
        settings.location = text ? text : "";
        return;
    }
    case kSafeMode: settings.safeMode = g_value_get_boolean(value); return;
    case kInfoFile: settings.infoFile = g_value_get_boolean(value); return;
    case kInfoFlushInterval: settings.infoFlush = g_value_get_uint(value); return;
    case kLargeFile: settings.largeFile = g_value_get_boolean(value); return;
    case kDurable: settings.durable = g_value_get_boolean(value); return;
    case kCheckpointStrategy:
        settings.safe.strategy = static_cast<std::uint32_t>(g_value_get_enum(value));
        break;
    case kCheckpointInterval: settings.safe.min_interval = g_value_get_uint(value); break;
    case kCheckpointMaxInterval: settings.safe.max_interval = g_value_get_uint(value); break;
    case kCheckpointThreshold: settings.safe.threshold = g_value_get_uint(value); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec); return;
    }
    if (state.interleave)
        ChangeSafeParameters(state.interleave, settings.safe);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* spec)
{
    SinkState& state = StateOf(object);
    const std::lock_guard guard(state.mutex);
    const Settings& settings = state.settings;
    switch (id) {
    case kLocation: g_value_set_string(value, settings.location.c_str()); break;
    case kSafeMode: g_value_set_boolean(value, settings.safeMode); break;
    case kCheckpointStrategy:
        g_value_set_enum(value, static_cast<gint>(settings.safe.strategy));
        break;
    case kCheckpointInterval: g_value_set_uint(value, settings.safe.min_interval); break;
    case kCheckpointMaxInterval: g_value_set_uint(value, settings.safe.max_interval); break;
    case kCheckpointThreshold: g_value_set_uint(value, settings.safe.threshold); break;
    case kInfoFile: g_value_set_boolean(value, settings.infoFile); break;
    case kInfoFlushInterval: g_value_set_uint(value, settings.infoFlush); break;
    case kLargeFile: g_value_set_boolean(value, settings.largeFile); break;
    case kDurable: g_value_set_boolean(value, settings.durable); break;
    case kDuration: g_value_set_uint64(value, state.recorder.Duration()); break;
    case kBytesWritten: g_value_set_uint64(value, state.recorder.Bytes()); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec); break;
    }
}

bool BeginRecording(GstElement* element)
{
    SinkState& state = StateOf(element);
    if (!state.interleave) {
        PostError(element, {GST_CORE_ERROR, GST_CORE_ERROR_MISSING_PLUGIN,
                            "The element fakesink of GStreamer's core plugins is missing."});
        return false;
    }
    Settings settings;
    {
        const std::lock_guard guard(state.mutex);
        settings = state.settings;
    }
    static std::once_flag forwarded;
    std::call_once(forwarded, ForwardLibraryLog);
    try {
        state.recorder.Open(settings);
        state.recorder.SetTags(gst_tag_setter_get_tag_list(GST_TAG_SETTER(element)));
    } catch (const Failure& failure) {
        PostError(element, failure);
        FinishRecording(state.interleave);  // of a file that was opened before something failed
        return false;
    }
    return true;
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange change)
{
    SinkState& state = StateOf(element);
    if (change == GST_STATE_CHANGE_READY_TO_PAUSED && !BeginRecording(element))
        return GST_STATE_CHANGE_FAILURE;
    const GstStateChangeReturn result =
        GST_ELEMENT_CLASS(kvmp4_sink_parent_class)->change_state(element, change);
    const bool undone =
        change == GST_STATE_CHANGE_READY_TO_PAUSED && result == GST_STATE_CHANGE_FAILURE;
    // Without an end of the stream before it, what was recorded is finished all the same.
    if (change == GST_STATE_CHANGE_PAUSED_TO_READY || undone)
        FinishRecording(state.interleave);
    return result;
}

GstPad* RequestPad(GstElement* element, GstPadTemplate* pattern, const gchar*, const GstCaps*)
{
    SinkState& state = StateOf(element);
    const char* const name = GST_PAD_TEMPLATE_NAME_TEMPLATE(pattern);
    GstPad* other = gst_element_get_static_pad(element, name);
    if (other || !state.interleave) {
        if (other)
            PostError(element, {GST_CORE_ERROR, GST_CORE_ERROR_PAD,
                                std::string("There is a pad \"") + name +
                                    "\" already, and a file has one track of each kind."});
        gst_clear_object(&other);
        return nullptr;
    }
    GstPad* const inner = gst_element_request_pad_simple(state.interleave, name);
    if (!inner)
        return nullptr;
    GstPad* const pad = gst_ghost_pad_new_from_template(name, inner, pattern);
    gst_object_unref(inner);
    gst_pad_set_active(pad, TRUE);
    gst_element_add_pad(element, pad);
    return pad;
}

void ReleasePad(GstElement* element, GstPad* pad)
{
    // The inner pad first: a thread that waits in it lets go, and the outer one can be stopped.
    if (GstPad* const inner = gst_ghost_pad_get_target(GST_GHOST_PAD(pad))) {
        gst_element_release_request_pad(StateOf(element).interleave, inner);
        gst_object_unref(inner);
    }
    gst_pad_set_active(pad, FALSE);
    gst_ghost_pad_set_target(GST_GHOST_PAD(pad), nullptr);
    gst_element_remove_pad(element, pad);
}

void Finalize(GObject* object)
{
    SinkState* const state = &StateOf(object);
    G_OBJECT_CLASS(kvmp4_sink_parent_class)->finalize(object);
    delete state;  // the interleaver was its user
}

void AddProperties(GObjectClass* type)
{
    constexpr auto kAtRest = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                      GST_PARAM_MUTABLE_READY);
    constexpr auto kAlways = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                      GST_PARAM_MUTABLE_PLAYING);
    constexpr auto kRead = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    const Settings defaults;
    const auto flag = [&](Property id, const char* name, const char* nick, const char* blurb,
                          bool value) {
        g_object_class_install_property(type, id,
                                        g_param_spec_boolean(name, nick, blurb, value, kAtRest));
    };
    const auto bytes = [&](Property id, const char* name, const char* nick, const char* blurb,
                           guint value) {
        g_object_class_install_property(
            type, id, g_param_spec_uint(name, nick, blurb, 0, G_MAXUINT, value, kAlways));
    };
    g_object_class_install_property(
        type, kLocation,
        g_param_spec_string("location", "Location",
                            "The file to write, overwritten if it exists; a path that contains "
                            "\"mov\" makes a QuickTime file, any other an MP4 file",
                            nullptr, kAtRest));
    flag(kSafeMode, "safe-mode", "Safe mode",
         "Checkpoints inside the file: after a crash it plays up to the last of them",
         defaults.safeMode);
    g_object_class_install_property(
        type, kCheckpointStrategy,
        g_param_spec_enum("checkpoint-strategy", "Checkpoint strategy",
                          "How the distance from checkpoint to checkpoint grows (safe mode)",
                          StrategyType(), static_cast<gint>(defaults.safe.strategy), kAlways));
    bytes(kCheckpointInterval, "checkpoint-interval", "Checkpoint interval",
          "Where the first checkpoint is made, and the smallest distance to the next, in bytes "
          "(safe mode); it must exceed the size of the index and two frames",
          defaults.safe.min_interval);
    bytes(kCheckpointMaxInterval, "checkpoint-max-interval", "Checkpoint maximum interval",
          "The largest distance from checkpoint to checkpoint, in bytes (safe mode)",
          defaults.safe.max_interval);
    bytes(kCheckpointThreshold, "checkpoint-threshold", "Checkpoint threshold",
          "From which size of the file on the distance is the largest, in bytes (safe mode)",
          defaults.safe.threshold);
    flag(kInfoFile, "info-file", "Info file",
         "A log beside the file, location + \".info\", from which \"kvmp4 repair\" rebuilds a "
         "recording after a crash; deleted at the end",
         defaults.infoFile);
    g_object_class_install_property(
        type, kInfoFlushInterval,
        g_param_spec_uint("info-flush-interval", "Info file flush interval",
                          "How many video frames the log may hold back (info file)", 10, G_MAXUINT,
                          defaults.infoFlush, kAtRest));
    flag(kLargeFile, "large-file", "Large file", "64-bit sizes and offsets, needed beyond 4 GiB",
         defaults.largeFile);
    flag(
        kDurable, "durable", "Durable",
        "Checkpoints and the log wait until the data is on the medium and so stand a power cut, "
        "as far as the library was built to (KV_MP4_DURABLE); without it every byte goes to the "
        "system at once and nothing is waited for but the log, which stands a crash of the process",
        defaults.durable);
    g_object_class_install_property(
        type, kDuration,
        g_param_spec_uint64("duration", "Duration",
                            "How long the recording is so far, in nanoseconds", 0, G_MAXUINT64, 0,
                            kRead));
    g_object_class_install_property(
        type, kBytesWritten,
        g_param_spec_uint64("bytes-written", "Bytes written",
                            "The bytes of all frames in the file, without its index", 0,
                            G_MAXUINT64, 0, kRead));
}

}  // namespace

static void kvmp4_sink_init(KvMp4Sink* self)
{
    self->state = new SinkState;
    GstElement* const sink = gst_element_factory_make("fakesink", "progress");
    if (!sink)
        return;
    g_object_set(sink, "enable-last-sample", FALSE, "sync", FALSE, nullptr);
    GstElement* const interleave = NewInterleave(GST_ELEMENT(self), self->state->recorder);
    gst_object_set_name(GST_OBJECT(interleave), "interleave");
    gst_bin_add_many(GST_BIN(self), interleave, sink, nullptr);
    gst_element_link(interleave, sink);
    self->state->interleave = interleave;
}

static void kvmp4_sink_class_init(KvMp4SinkClass* type)
{
    GST_DEBUG_CATEGORY_INIT(kvmp4_sink_debug, "kvmp4sink", 0, "libkv_mp4's sink");
    GObjectClass* const object = G_OBJECT_CLASS(type);
    object->set_property = SetProperty;
    object->get_property = GetProperty;
    object->finalize = Finalize;
    AddProperties(object);
    gst_type_mark_as_plugin_api(StrategyType(), static_cast<GstPluginAPIFlags>(0));

    GstElementClass* const element = GST_ELEMENT_CLASS(type);
    element->change_state = ChangeState;
    element->request_new_pad = RequestPad;
    element->release_pad = ReleasePad;
    gst_element_class_set_static_metadata(
        element, "MP4 and MOV recorder", "Codec/Muxer/Sink/File",
        "Records H.264, HEVC or ProRes video, AAC audio, closed captions and a time code into an "
        "MP4 or MOV file that survives a crash",
        "libkv_mp4");
    for (const Kind kind : {Kind::kVideo, Kind::kAudio, Kind::kCaption}) {
        GstCaps* const caps = gst_static_caps_get(CapsOf(kind));
        gst_element_class_add_pad_template(
            element, gst_pad_template_new(NameOf(kind), GST_PAD_SINK, GST_PAD_REQUEST, caps));
        gst_caps_unref(caps);
    }
}

GType SinkType()
{
    return kvmp4_sink_get_type();
}

}  // namespace kvmp4sink
