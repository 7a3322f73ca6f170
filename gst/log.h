// The library's log lines, in GStreamer's own log.
#pragma once

namespace kvmp4sink {

// Makes the debug category "kv_mp4".
void DefineLogCategory();
// Sends what goes to spdlog's default logger there from now on, unless the program has set a logger of
// its own: spdlog's initial one would print on standard output, which may be a pipeline's data. Before
// the first recording only, so that a program that just loads the plugin keeps its output.
void ForwardLibraryLog();

}  // namespace kvmp4sink
