// A recording through kvmp4sink without a pipeline: source pads of the test's own, each fed by a
// thread of its own, as pads of a pipeline are.
#pragma once

#include "support/boxes.h"
#include "support/recording.h"

#include <gst/gst.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kvtest {

// Caps that the pads take.
inline const std::string kH264 = "video/x-h264,stream-format=byte-stream,alignment=au,width=160,"
                                 "height=120,framerate=25/1";
inline const std::string kHevc = "video/x-h265,stream-format=byte-stream,alignment=au,width=160,"
                                 "height=120,framerate=25/1";
inline const std::string kAdts =
    "audio/mpeg,mpegversion=4,stream-format=adts,rate=48000,channels=2";
inline const std::string kAac = "audio/mpeg,mpegversion=4,stream-format=raw,rate=48000,channels=2,"
                                "codec_data=(buffer)1190";
inline const std::string kLine21 = "closedcaption/x-cea-608,format=s334-1a";
inline const std::string kPackets = "closedcaption/x-cea-708,format=cdp";

constexpr guint64 kMs = GST_MSECOND;

// A key picture with its parameter sets, and one that depends on it.
Bytes Key();
Bytes HevcKey();
Bytes Delta();
// A raw AAC frame.
Bytes Sound();

class Take {
public:
    explicit Take(const std::string& name = "clip.mp4");
    ~Take();
    Take(const Take&) = delete;
    Take& operator=(const Take&) = delete;

    GstElement* Element() { return m_element; }
    std::string Path() const { return (m_folder / m_name).string(); }
    bool Play();  // false when the element refuses
    void Stop();  // to NULL

    // What a pad gets, in order. Nothing happens before Run. The first call for a pad requests it.
    void Caps(const std::string& pad, const std::string& caps);
    void Segment(const std::string& pad, GstClockTime start, GstClockTime base = 0);
    void Frame(const std::string& pad, const Bytes& data, GstClockTime pts,
               GstClockTime dts = GST_CLOCK_TIME_NONE);
    void Event(const std::string& pad, GstEvent* event);
    void Buffer(const std::string& pad, GstBuffer* buffer);
    // Feeds all pads side by side; the events and buffers refused are counted.
    void Run();
    int Refused() const { return m_refused; }

    // Run, the end of all streams, Stop, and the file.
    BoxFile Finish();
    // The next message of these types, null if there is none yet; the caller unrefs it.
    GstMessage* Message(GstMessageType types, bool wait = false);
    // The error on the bus as "domain code: text"; waits for it.
    std::string Error();
    std::string Warning();
    std::vector<std::map<std::string, guint64>> Checkpoints();

private:
    struct Pad {
        GstPad* source = nullptr;
        bool begun = false;    // the stream's start is among the steps or passed
        bool segment = false;  // so is a segment
        std::vector<std::function<bool()>> steps;
    };
    Pad& Of(const std::string& name);

    Folder m_folder;
    std::string m_name;
    GstElement* m_element;
    GstBus* m_bus;
    std::map<std::string, Pad> m_pads;
    std::vector<GstMessage*> m_kept;  // that nobody has asked for yet
    std::atomic<int> m_refused{0};
};

}  // namespace kvtest
