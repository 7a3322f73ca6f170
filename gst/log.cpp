#include "log.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <gst/gst.h>

#include <memory>
#include <mutex>
#include <string>

namespace kvmp4sink {

namespace {

GST_DEBUG_CATEGORY_STATIC(g_category);

GstDebugLevel LevelOf(spdlog::level::level_enum level)
{
    return level >= spdlog::level::err    ? GST_LEVEL_ERROR
           : level == spdlog::level::warn ? GST_LEVEL_WARNING
           : level == spdlog::level::info ? GST_LEVEL_INFO
                                          : GST_LEVEL_DEBUG;
}

class DebugSink : public spdlog::sinks::base_sink<std::mutex> {
protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        const std::string text(message.payload.data(), message.payload.size());
        gst_debug_log(g_category, LevelOf(message.level),
                      message.source.filename ? message.source.filename : "",
                      message.source.funcname ? message.source.funcname : "", message.source.line,
                      nullptr, "%s", text.c_str());
    }
    void flush_() override {}
};

}  // namespace

void DefineLogCategory()
{
    GST_DEBUG_CATEGORY_INIT(g_category, "kv_mp4", 0, "libkv_mp4");
}

void ForwardLibraryLog()
{
    const std::shared_ptr<spdlog::logger> logger = spdlog::default_logger();
    if (logger && logger->name().empty())  // spdlog's own
        spdlog::set_default_logger(
            std::make_shared<spdlog::logger>("kvmp4sink", std::make_shared<DebugSink>()));
}

}  // namespace kvmp4sink
