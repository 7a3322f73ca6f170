// The inner half of the sink: an aggregator that picks the earliest frame of its pads, has the
// recorder write it and sends an empty buffer with the frame's time on to the sink behind it, which
// does what every sink of GStreamer does about states, preroll and the end of the stream.
#pragma once

#include "recorder.h"

#include <gst/base/gstaggregator.h>
#include <gst/gst.h>

namespace kvmp4sink {

// `element` is whose messages are posted and whose tags are recorded. Both it and the recorder must
// outlive the result.
GstElement* NewInterleave(GstElement* element, Recorder& recorder);
// From any thread: the recording uses them from the next frame on.
void ChangeSafeParameters(GstElement* interleave, const mp4_safe_param& parameters);
// Ends the recording; when no thread of the interleaver runs, or from its own.
bool FinishRecording(GstElement* interleave);

// Posts a Failure as an element error.
void PostError(GstElement* element, const Failure& failure);

}  // namespace kvmp4sink
