// The element as GStreamer's own harness drives it: one pad, fed from the test's thread.
#include "gstreamer/take.h"
#include "support/reads_as.h"

#include <gst/check/gstharness.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

using namespace kvtest;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const std::string kStts = "moov/trak.vide/mdia/minf/stbl/stts";

// A take whose pad `name` is the harness's. The harness makes it play at once and takes no answer
// but that it does, so the sink inside does without its preroll.
class Harnessed {
public:
    explicit Harnessed(const char* name = "video")
    {
        gst_child_proxy_set(GST_CHILD_PROXY(take.Element()), "progress::async", FALSE, nullptr);
        m_harness = gst_harness_new_with_element(take.Element(), name, nullptr);
    }
    ~Harnessed() { gst_harness_teardown(m_harness); }
    Harnessed(const Harnessed&) = delete;
    Harnessed& operator=(const Harnessed&) = delete;

    operator GstHarness*() { return m_harness; }
    void Caps(const std::string& caps) { gst_harness_set_src_caps_str(m_harness, caps.c_str()); }
    GstFlowReturn Push(const Bytes& data, GstClockTime pts)
    {
        GstBuffer* const buffer = gst_buffer_new_memdup(data.data(), data.size());
        GST_BUFFER_PTS(buffer) = pts;
        return gst_harness_push(m_harness, buffer);
    }
    bool Event(GstEvent* event) { return gst_harness_push_event(m_harness, event); }
    // A segment that begins at 0, which a flush takes away.
    bool Segment()
    {
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        return Event(gst_event_new_segment(&segment));
    }
    // Ends the stream and waits until the element says so.
    bool End()
    {
        Event(gst_event_new_eos());
        GstMessage* message = take.Message(GST_MESSAGE_EOS, true);
        const bool ended = message;
        gst_clear_message(&message);
        return ended;
    }
    BoxFile File() { return BoxFile::Read(take.Path()); }

    Take take;

private:
    GstHarness* m_harness;
};

bool Accepts(GstHarness* harness, const std::string& text)
{
    GstCaps* const caps = gst_caps_from_string(text.c_str());
    const bool accepts = gst_pad_peer_query_accept_caps(harness->srcpad, caps);
    gst_caps_unref(caps);
    return accepts;
}

}  // namespace

TEST(GstHarness, EveryPadIsFoundByItsName)
{
    const Take loads;
    for (const char* name : {"video", "audio", "caption"}) {
        Harnessed harness(name);
        GstPad* const pad = gst_pad_get_peer(static_cast<GstHarness*>(harness)->srcpad);
        ASSERT_NE(pad, nullptr);
        EXPECT_STREQ(GST_PAD_NAME(pad), name);
        gst_object_unref(pad);
    }
}

TEST(GstHarness, APadAnswersWithTheCapsOfItsTemplate)
{
    for (const char* name : {"video", "audio", "caption"}) {
        Harnessed harness(name);
        GstElementClass* const type = GST_ELEMENT_GET_CLASS(harness.take.Element());
        GstCaps* const all =
            gst_pad_template_get_caps(gst_element_class_get_pad_template(type, name));
        GstCaps* const told =
            gst_pad_peer_query_caps(static_cast<GstHarness*>(harness)->srcpad, nullptr);
        EXPECT_TRUE(gst_caps_is_equal(told, all)) << name;
        gst_caps_unref(told);
        gst_caps_unref(all);
    }
}

TEST(GstHarness, CapsAreAcceptedOrNotBeforeTheyAreSent)
{
    Harnessed harness;
    for (const std::string& caps :
         {kH264, kHevc, std::string("video/x-prores,variant=hq,width=160,height=120")})
        EXPECT_TRUE(Accepts(harness, caps)) << caps;
    for (const std::string& caps :
         {std::string("video/x-vp9,width=160,height=120"), kAac,
          std::string("video/x-h264,stream-format=avc,alignment=au,width=160,height=120"),
          std::string("video/x-h264,stream-format=byte-stream,alignment=au,width=65536,height=120"),
          std::string("video/x-prores,variant=raw,width=160,height=120")})
        EXPECT_FALSE(Accepts(harness, caps)) << caps;
}

TEST(GstHarness, AgreedCapsBringFramesIntoTheFile)
{
    Harnessed harness;
    harness.Caps(kH264);
    EXPECT_EQ(harness.Push(Key(), 0), GST_FLOW_OK);
    EXPECT_EQ(harness.Push(Delta(), 40 * kMs), GST_FLOW_OK);
    ASSERT_TRUE(harness.End());
    EXPECT_THAT(harness.File().Box(kStts), ReadsAs("stts  2 x 3600"));
}

TEST(GstHarness, FramesBehindRefusedCapsAreNotNegotiated)
{
    Harnessed harness;
    harness.Caps(kH264);
    GstCaps* const other = gst_caps_from_string("video/x-vp9,width=160,height=120");
    harness.Event(gst_event_new_caps(other));
    EXPECT_EQ(harness.Push(Key(), 0), GST_FLOW_NOT_NEGOTIATED);
    gst_caps_unref(other);
}

TEST(GstHarness, AFlushRefusesFramesUntilItStops)
{
    Harnessed harness;
    harness.Caps(kH264);
    EXPECT_EQ(harness.Push(Key(), 0), GST_FLOW_OK);
    EXPECT_TRUE(harness.Event(gst_event_new_flush_start()));
    EXPECT_EQ(harness.Push(Delta(), 40 * kMs), GST_FLOW_FLUSHING);
    EXPECT_TRUE(harness.Event(gst_event_new_flush_stop(TRUE)));
    EXPECT_TRUE(harness.Segment());
    EXPECT_EQ(harness.Push(Key(), 40 * kMs), GST_FLOW_OK);
    ASSERT_TRUE(harness.End());
    EXPECT_TRUE(harness.File().Has(kStts));
    EXPECT_THAT(harness.File().Complaints(), IsEmpty());
}

// The video waits for sound that never comes; only the flush lets its thread go.
TEST(GstHarness, AFlushLetsAWaitingThreadGo)
{
    Harnessed harness;
    GstPad* const sound = gst_element_request_pad_simple(harness.take.Element(), "audio");
    harness.Caps(kH264);
    GstFlowReturn last = GST_FLOW_OK;
    std::thread feeding([&] {
        for (guint64 i = 0; last == GST_FLOW_OK; ++i)
            last = harness.Push(Key(), i * 40 * kMs);
    });
    harness.Event(gst_event_new_flush_start());
    feeding.join();
    EXPECT_EQ(last, GST_FLOW_FLUSHING);
    gst_object_unref(sound);
}

TEST(GstHarness, TheEndIsToldWhenTheFileIsFinished)
{
    Harnessed harness;
    harness.Caps(kH264);
    harness.Push(Key(), 0);
    ASSERT_TRUE(harness.End());
    const BoxFile file = harness.File();
    EXPECT_TRUE(file.Has("moov"));
    EXPECT_THAT(file.Complaints(), IsEmpty());
    EXPECT_EQ(harness.Push(Delta(), 40 * kMs), GST_FLOW_EOS);
    EXPECT_EQ(harness.File().All(), file.All());
}

TEST(GstHarness, AnEndWithoutFramesLeavesAFileWithoutTracks)
{
    Harnessed harness;
    harness.Caps(kH264);
    ASSERT_TRUE(harness.End());
    EXPECT_TRUE(harness.File().Has("mdat"));
    EXPECT_FALSE(harness.File().Has("moov/trak"));
    EXPECT_EQ(harness.take.Message(GST_MESSAGE_ERROR), nullptr);
}

TEST(GstHarness, ASinkPrerollsWithItsFirstFrame)
{
    Take take;
    GstElement* const element = take.Element();
    EXPECT_EQ(gst_element_set_state(element, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_FALSE(std::filesystem::exists(take.Path()));
    take.Caps("video", kH264);
    take.Frame("video", Key(), 0);
    EXPECT_EQ(gst_element_set_state(element, GST_STATE_PAUSED), GST_STATE_CHANGE_ASYNC);
    EXPECT_TRUE(std::filesystem::exists(take.Path()));
    take.Run();
    EXPECT_EQ(gst_element_get_state(element, nullptr, nullptr, 60 * GST_SECOND),
              GST_STATE_CHANGE_SUCCESS);
}

TEST(GstHarness, TheWayBackToReadyFinishesAndAnotherRecordingBegins)
{
    Harnessed harness;
    GstElement* const element = harness.take.Element();
    const std::string second = harness.take.Path() + ".2.mp4";
    for (const bool again : {false, true}) {
        if (again) {
            g_object_set(element, "location", second.c_str(), nullptr);
            gst_harness_play(harness);
        }
        harness.Caps(kH264);
        harness.Segment();
        EXPECT_EQ(harness.Push(Key(), 0), GST_FLOW_OK);
        EXPECT_EQ(gst_element_set_state(element, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
        EXPECT_EQ(harness.Push(Delta(), 40 * kMs), GST_FLOW_FLUSHING);
    }
    EXPECT_TRUE(harness.File().Has("moov"));
    EXPECT_TRUE(BoxFile::Read(second).Has("moov"));
}

TEST(GstHarness, ABadLocationIsAnErrorOnTheBusAndAGoodOneRecords)
{
    Harnessed harness;
    GstElement* const element = harness.take.Element();
    gst_element_set_state(element, GST_STATE_READY);
    g_object_set(element, "location", (harness.take.Path() + "/none.mp4").c_str(), nullptr);
    EXPECT_EQ(gst_element_set_state(element, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_THAT(harness.take.Error(), HasSubstr("for writing"));
    gst_element_set_state(element, GST_STATE_NULL);

    g_object_set(element, "location", harness.take.Path().c_str(), nullptr);
    gst_harness_play(harness);
    harness.Caps(kH264);
    EXPECT_EQ(harness.Push(Key(), 0), GST_FLOW_OK);
    EXPECT_TRUE(harness.End());
}

// It never waits for the clock, so that a live source's latency is none of its own.
TEST(GstHarness, ASinkWithoutAClockHasNoLatency)
{
    Harnessed harness;
    gst_harness_set_upstream_latency(harness, 20 * kMs);
    harness.Caps(kH264);
    harness.Push(Key(), 0);
    GstQuery* const query = gst_query_new_latency();
    ASSERT_TRUE(gst_element_query(harness.take.Element(), query));
    gboolean live = TRUE;
    GstClockTime least = 1;
    gst_query_parse_latency(query, &live, &least, nullptr);
    EXPECT_FALSE(live);
    EXPECT_EQ(least, 0u);
    gst_query_unref(query);
}

// The position is that of the frame that is recorded last; a length is for the source to tell.
TEST(GstHarness, ThePositionIsThatOfTheLastFrame)
{
    Harnessed harness;
    harness.Caps(kH264);
    for (guint64 i = 0; i < 3; ++i)
        harness.Push(Key(), i * 40 * kMs);
    ASSERT_TRUE(harness.End());
    gint64 position = -1;
    ASSERT_TRUE(gst_element_query_position(harness.take.Element(), GST_FORMAT_TIME, &position));
    EXPECT_EQ(position, static_cast<gint64>(80 * kMs));
    EXPECT_FALSE(gst_element_query_duration(harness.take.Element(), GST_FORMAT_TIME, nullptr));
}

// Live, a pad without data holds the others up until the clock says that it is late.
TEST(GstHarness, InALivePipelineAFrameWaitsUntilItsTime)
{
    Harnessed harness;
    GstPad* const sound = gst_element_request_pad_simple(harness.take.Element(), "audio");
    harness.Caps(kH264);
    EXPECT_EQ(harness.Push(Key(), 40 * kMs), GST_FLOW_OK);
    EXPECT_TRUE(gst_harness_crank_single_clock_wait(harness));
    guint64 written = 0;
    while (written == 0)
        g_object_get(harness.take.Element(), "bytes-written", &written, nullptr);
    EXPECT_EQ(written, Key().size());
    gst_object_unref(sound);
}
