#include "log.h"
#include "sink.h"

#include <gst/gst.h>

namespace {

gboolean Init(GstPlugin* plugin)
{
    kvmp4sink::DefineLogCategory();
    return gst_element_register(plugin, "kvmp4sink", GST_RANK_NONE, kvmp4sink::SinkType());
}

}  // namespace

// GStreamer knows a licence only by names of its own; "unknown" says that it has none for ours.
#define PACKAGE "kv_mp4"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kvmp4,
                  "Records live video into MP4 and MOV files that survive a crash", Init,
                  KV_MP4_VERSION, GST_LICENSE_UNKNOWN, "libkv_mp4", "libkv_mp4")
