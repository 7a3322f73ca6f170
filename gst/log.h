// The library's log lines, in GStreamer's own log.
#pragma once

namespace kvmp4sink {

// Sends what goes to spdlog's default logger to the debug category "kv_mp4", unless the program has
// set a logger of its own: spdlog's initial one would print on standard output, which may be a
// pipeline's data.
void ForwardLibraryLog();

}  // namespace kvmp4sink
