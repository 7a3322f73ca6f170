// The element kvmp4sink.
#pragma once

#include <gst/gst.h>

namespace kvmp4sink {

GType SinkType();

}  // namespace kvmp4sink
