#include "gstreamer/take.h"

#include <stdexcept>
#include <thread>
#include <utility>

// GLib keeps what it takes when it is loaded, which LeakSanitizer finds when it walks whole stacks.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:call_init\nleak:ld-linux\n";  // the loader, with its symbols and without
}
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

namespace kvtest {

namespace {

// The build's own plugin, whatever the system has installed.
void LoadPlugin()
{
    static const bool loaded = [] {
        gst_init(nullptr, nullptr);
        GError* error = nullptr;
        GstPlugin* const plugin = gst_plugin_load_file(KVMP4_PLUGIN, &error);
        if (!plugin)
            throw std::runtime_error(error->message);
        gst_object_unref(plugin);
        return true;
    }();
    (void)loaded;
}

std::string TextOf(GstMessage* message)
{
    if (!message)
        return "none";
    GError* error = nullptr;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
        gst_message_parse_error(message, &error, nullptr);
    else
        gst_message_parse_warning(message, &error, nullptr);
    const std::string domain = g_quark_to_string(error->domain);
    const std::string text = domain + " " + std::to_string(error->code) + ": " + error->message;
    g_error_free(error);
    gst_message_unref(message);
    return text;
}

}  // namespace

Bytes Key()
{
    return Bytes{0, 0, 1} + Sps() + Bytes{0, 0, 1} + Pps() + Unit(0x65);
}
Bytes HevcKey()
{
    const Bytes start{0, 0, 1};
    return start + HevcVps() + start + HevcSps() + start + HevcPps() + Unit(0x26);
}
Bytes Delta()
{
    return Unit(0x41);
}
Bytes Sound()
{
    return {0x21, 0x10, 4, 0x60, 0x8c, 0x1c};
}

Take::Take(const std::string& name) : m_name(name)
{
    LoadPlugin();
    m_element = gst_element_factory_make("kvmp4sink", nullptr);
    m_bus = gst_bus_new();
    gst_element_set_bus(m_element, m_bus);
    g_object_set(m_element, "location", Path().c_str(), nullptr);
}

Take::~Take()
{
    Stop();
    for (GstMessage* const message : m_kept)
        gst_message_unref(message);
    for (auto& [name, pad] : m_pads)
        gst_object_unref(pad.source);
    gst_element_set_bus(m_element, nullptr);
    gst_object_unref(m_bus);
    gst_object_unref(m_element);
}

bool Take::Play()
{
    return gst_element_set_state(m_element, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
}

void Take::Stop()
{
    gst_element_set_state(m_element, GST_STATE_NULL);
    for (auto& [name, pad] : m_pads) {
        // Forgets that the stream has ended.
        gst_pad_set_active(pad.source, FALSE);
        gst_pad_set_active(pad.source, TRUE);
        pad.begun = pad.segment = false;
    }
}

Take::Pad& Take::Of(const std::string& name)
{
    Pad& pad = m_pads[name];
    if (pad.begun)
        return pad;
    pad.begun = true;
    pad.steps.push_back([&pad, name] {
        return static_cast<bool>(
            gst_pad_push_event(pad.source, gst_event_new_stream_start(name.c_str())));
    });
    if (pad.source)
        return pad;
    pad.source = gst_pad_new(("to_" + name).c_str(), GST_PAD_SRC);
    gst_object_ref_sink(pad.source);
    gst_pad_set_active(pad.source, TRUE);
    GstPad* const sink = gst_element_request_pad_simple(m_element, name.c_str());
    gst_pad_link(pad.source, sink);
    gst_object_unref(sink);
    return pad;
}

void Take::Event(const std::string& name, GstEvent* event)
{
    Pad& pad = Of(name);
    pad.steps.push_back([source = pad.source, event] {
        return static_cast<bool>(gst_pad_push_event(source, event));
    });
}

void Take::Buffer(const std::string& name, GstBuffer* buffer)
{
    Pad& pad = Of(name);
    if (!pad.segment)
        Segment(name, 0);
    pad.steps.push_back(
        [source = pad.source, buffer] { return gst_pad_push(source, buffer) == GST_FLOW_OK; });
}

void Take::Caps(const std::string& name, const std::string& caps)
{
    GstCaps* const made = gst_caps_from_string(caps.c_str());
    Event(name, gst_event_new_caps(made));
    gst_caps_unref(made);
}

void Take::Segment(const std::string& name, GstClockTime start, GstClockTime base)
{
    Of(name).segment = true;
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = segment.position = segment.time = start;
    segment.base = base;
    Event(name, gst_event_new_segment(&segment));
}

void Take::Frame(const std::string& name, const Bytes& data, GstClockTime pts, GstClockTime dts)
{
    GstBuffer* const buffer = gst_buffer_new_memdup(data.data(), data.size());
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DTS(buffer) = dts;
    Buffer(name, buffer);
}

void Take::Run()
{
    if (GST_STATE_TARGET(m_element) != GST_STATE_PLAYING)
        Play();
    std::vector<std::thread> feeders;
    for (auto& [name, pad] : m_pads)
        feeders.emplace_back([this, steps = std::exchange(pad.steps, {})] {
            for (const auto& step : steps)
                m_refused += !step();
        });
    for (std::thread& feeder : feeders)
        feeder.join();
}

BoxFile Take::Finish()
{
    for (auto& [name, pad] : m_pads)
        Event(name, gst_event_new_eos());
    Run();
    GstMessage* const end =
        Message(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), true);
    if (!end || GST_MESSAGE_TYPE(end) != GST_MESSAGE_EOS)
        throw std::runtime_error(end ? TextOf(end) : "no end of the stream");
    gst_message_unref(end);
    const BoxFile file = BoxFile::Read(Path());
    Stop();
    return file;
}

GstMessage* Take::Message(GstMessageType types, bool wait)
{
    for (auto kept = m_kept.begin(); kept != m_kept.end(); ++kept)
        if (GST_MESSAGE_TYPE(*kept) & types) {
            GstMessage* const found = *kept;
            m_kept.erase(kept);
            return found;
        }
    while (GstMessage* const next = gst_bus_timed_pop(m_bus, wait ? 60 * GST_SECOND : 0)) {
        if (GST_MESSAGE_TYPE(next) & types)
            return next;
        m_kept.push_back(next);
    }
    return nullptr;
}

std::string Take::Error()
{
    return TextOf(Message(GST_MESSAGE_ERROR, true));
}
std::string Take::Warning()
{
    return TextOf(Message(GST_MESSAGE_WARNING));
}

std::vector<std::map<std::string, guint64>> Take::Checkpoints()
{
    std::vector<std::map<std::string, guint64>> found;
    while (GstMessage* const message = Message(GST_MESSAGE_ELEMENT)) {
        const GstStructure* const structure = gst_message_get_structure(message);
        if (gst_structure_has_name(structure, "kvmp4-checkpoint"))
            for (found.emplace_back(); const char* field : {"position", "duration", "bytes"})
                gst_structure_get_uint64(structure, field, &found.back()[field]);
        gst_message_unref(message);
    }
    return found;
}

}  // namespace kvtest
