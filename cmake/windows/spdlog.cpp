// spdlog's bodies, compiled once, as its own library would be.
#include <spdlog/common-inl.h>
#include <spdlog/details/backtracer-inl.h>
#include <spdlog/details/log_msg-inl.h>
#include <spdlog/details/log_msg_buffer-inl.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/details/os-inl.h>
#include <spdlog/details/periodic_worker-inl.h>
#include <spdlog/details/registry-inl.h>
#include <spdlog/logger-inl.h>
#include <spdlog/pattern_formatter-inl.h>
#include <spdlog/sinks/base_sink-inl.h>
#include <spdlog/sinks/sink-inl.h>
#include <spdlog/sinks/stdout_color_sinks-inl.h>
#include <spdlog/sinks/stdout_sinks-inl.h>
#include <spdlog/sinks/wincolor_sink-inl.h>
#include <spdlog/spdlog-inl.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

namespace spdlog {

template SPDLOG_API logger::logger(std::string name, sinks_init_list::iterator begin,
                                   sinks_init_list::iterator end);

namespace sinks {

template class SPDLOG_API base_sink<std::mutex>;
template class SPDLOG_API base_sink<details::null_mutex>;
template class SPDLOG_API stdout_sink_base<details::console_mutex>;
template class SPDLOG_API stdout_sink_base<details::console_nullmutex>;
template class SPDLOG_API stdout_sink<details::console_mutex>;
template class SPDLOG_API stdout_sink<details::console_nullmutex>;
template class SPDLOG_API stderr_sink<details::console_mutex>;
template class SPDLOG_API stderr_sink<details::console_nullmutex>;
template class SPDLOG_API wincolor_sink<details::console_mutex>;
template class SPDLOG_API wincolor_sink<details::console_nullmutex>;
template class SPDLOG_API wincolor_stdout_sink<details::console_mutex>;
template class SPDLOG_API wincolor_stdout_sink<details::console_nullmutex>;
template class SPDLOG_API wincolor_stderr_sink<details::console_mutex>;
template class SPDLOG_API wincolor_stderr_sink<details::console_nullmutex>;

}  // namespace sinks

template SPDLOG_API std::shared_ptr<logger> stdout_color_mt<synchronous_factory>(const std::string&,
                                                                                 color_mode);
template SPDLOG_API std::shared_ptr<logger> stdout_color_st<synchronous_factory>(const std::string&,
                                                                                 color_mode);
template SPDLOG_API std::shared_ptr<logger> stderr_color_mt<synchronous_factory>(const std::string&,
                                                                                 color_mode);
template SPDLOG_API std::shared_ptr<logger> stderr_color_st<synchronous_factory>(const std::string&,
                                                                                 color_mode);

}  // namespace spdlog
