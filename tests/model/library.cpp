// The library, called through its exports, and all that it shows.
#include "kv_mp4.h"
#include "model/random.h"
#include "model/run.h"
#include "model/system.h"
#include "support/descriptors.h"

#include <bit>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <spdlog/sinks/sink.h>
#include <spdlog/spdlog.h>
#include <stdexcept>
#include <unistd.h>

namespace model {

namespace {

// The sink behind the callbacks, which get no pointer of the caller's before the open.
struct Sink {
    Observed* seen = nullptr;
    std::wstring path;
    uint32_t blockSize = 0, blockCount = 0;
    Fault fault;
    bool failed = false;
    uint64_t position = 0;
    uint64_t taken = 0;
    Image image;

    void Note(SinkCall::Kind kind, uint64_t argument)
    {
        model::Note(seen->sinkCalls, {kind, argument, taken});
    }
};

Sink* g_sink = nullptr;

Sink& Of(void* context)
{
    return *static_cast<Sink*>(context);
}

uint8_t OpenSink(void** context, const wchar_t* path, uint32_t blockSize, uint32_t blockCount)
{
    *context = g_sink;
    const bool asGiven =
        g_sink->path == path && g_sink->blockSize == blockSize && g_sink->blockCount == blockCount;
    g_sink->Note(SinkCall::Kind::Open, asGiven ? 1 : 0);
    return g_sink->fault.openAnswer;
}

void CloseSink(void* context)
{
    Of(context).Note(SinkCall::Kind::Close, 0);
}

int64_t TellSink(void* context)
{
    Sink& sink = Of(context);
    const uint64_t told =
        sink.fault.tellsMinusOne ? UINT64_MAX : sink.position + sink.fault.tellsMore;
    sink.Note(SinkCall::Kind::Tell, told);
    return static_cast<int64_t>(told);
}

void SeekSink(void* context, int64_t offset, int32_t origin)
{
    Sink& sink = Of(context);
    // Every seek counts from the start; another origin shows as a place that no file has.
    const uint64_t position = static_cast<uint64_t>(origin == 0 ? offset : INT64_MIN);
    sink.Note(SinkCall::Kind::Seek, position);
    if (!sink.fault.ignoresSeeks && offset >= 0) {
        sink.position = position;
    }
}

void FlushSink(void* context)
{
    Of(context).Note(SinkCall::Kind::Flush, 0);
}

int32_t ReadSink(void* context, void*, uint32_t size)
{
    Of(context).Note(SinkCall::Kind::Read, size);
    return 0;
}

int32_t WriteSink(void* context, const void* buffer, uint32_t size)
{
    Sink& sink = Of(context);
    const uint8_t* data = static_cast<const uint8_t*>(buffer);
    const Fault& fault = sink.fault;
    const uint64_t room = sink.failed && !fault.again ? UINT64_MAX : fault.limit - sink.taken;
    const size_t accepted = static_cast<size_t>(std::min<uint64_t>(size, room));
    sink.Note(SinkCall::Kind::Write, 0);
    sink.seen->sinkWrites.push_back({sink.taken, size});
    sink.image.Write(sink.position, data, accepted);
    sink.seen->sinkStream.insert(sink.seen->sinkStream.end(), data, data + accepted);
    sink.position += accepted;
    sink.taken += accepted;
    if (accepted == size) {
        return 1;
    }
    sink.failed = true;
    ++sink.seen->sinkFailures;
    if (fault.way == Fault::Way::OtherException) {
        throw std::runtime_error("the sink's own");
    }
    if (fault.way == Fault::Way::IoException) {
        throw kv_mp4_exception(fault.error);
    }
    errno = fault.error;
    return fault.answer;
}

ExternalIoFuncs g_table = {OpenSink, CloseSink, TellSink, SeekSink, FlushSink, ReadSink, WriteSink};

class LogSink : public spdlog::sinks::sink {
public:
    void log(const spdlog::details::log_msg& message) override
    {
        std::string text(message.payload.data(), message.payload.size());
        const size_t takes = text.find(" takes ");
        if (takes != std::string::npos && text.ends_with(" ms")) {
            const std::string figure = text.substr(takes + 7, text.size() - 3 - (takes + 7));
            if (!figure.empty() && figure.find_first_not_of("0123456789") == std::string::npos) {
                text = text.substr(0, takes) + " takes * ms";
            }
        }
        if (text == "invalid handle " + m_handle) {
            text = "invalid handle *";
        }
        if (m_seen != nullptr) {
            m_seen->lines.push_back(
                {static_cast<int>(message.level),
                 message.source.filename == nullptr ? "" : message.source.filename,
                 std::move(text)});
        }
    }
    void flush() override {}
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

    Observed* m_seen = nullptr;
    std::string m_handle;
};

std::wstring Wide(const std::string& text)
{
    std::wstring wide;
    for (size_t i = 0; i < text.size(); ++i) {
        const uint8_t byte = static_cast<uint8_t>(text[i]);
        const int more = byte < 0x80 ? 0 : byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
        int character = more == 0 ? byte : byte & (0x3F >> more);
        for (int j = 0; j < more; ++j) {
            character = character << 6 | (text[++i] & 0x3F);
        }
        if (sizeof(wchar_t) == 2 && character > 0xFFFF) {  // UTF-16
            wide.push_back(static_cast<wchar_t>(0xD7C0 + (character >> 10)));
            character = 0xDC00 | (character & 0x3FF);
        }
        wide.push_back(static_cast<wchar_t>(character));
    }
    return wide;
}

// Line numbers are the library's own business.
std::string WithoutLineNumbers(std::string text)
{
    static constexpr std::string_view kMark = "[line ";
    for (size_t at = text.find(kMark); at != std::string::npos; at = text.find(kMark, at + 1)) {
        const size_t end = text.find_first_not_of("0123456789", at + kMark.size());
        if (end != at + kMark.size() && end != std::string::npos && text[end] == ']') {
            text.replace(at + kMark.size(), end - at - kMark.size(), "*");
        }
    }
    return text;
}

// One recording through the exports.
class Session {
public:
    Session(const Sequence& sequence, const Place& place, const Observed& expected, Observed& seen,
            LogSink& log)
        : m_sequence(sequence), m_place(place), m_expected(expected), m_seen(seen), m_log(log)
    {
    }
    bool DoNext();
    void End();

private:
    void Open();
    void Do(const Step& step);
    uint64_t Call(const Step& step, Outcome& outcome);
    template <class F>
    void Guard(int error, F call);
    mp4_handle Given(const Step& step) const;

    const Sequence& m_sequence;
    const Place& m_place;
    const Observed& m_expected;  // when to look at the disk
    Observed& m_seen;
    LogSink& m_log;
    Sink m_sink;
    mp4_handle m_handle = nullptr;
    bool m_ended = false;
    HeldFile m_info;
};

template <class F>
void Session::Guard(int error, F call)
{
    Outcome outcome;
    errno = error;
    try {
        outcome.value = call(outcome);
    } catch (const kv_mp4_exception& exception) {
        outcome.kind = Outcome::Kind::IoException;
        outcome.value = static_cast<uint64_t>(int64_t{exception.code});
    } catch (...) {
        outcome.kind = Outcome::Kind::OtherException;
    }
    outcome.lines = m_seen.lines.size();
    outcome.infoSize = m_info.Size();
    const size_t known = m_seen.checkpoints.size();
    if (known < m_expected.checkpoints.size() &&
        m_expected.checkpoints[known].call == m_seen.outcomes.size()) {
        m_seen.checkpoints.push_back({m_seen.outcomes.size(), *Image::Load(m_place.path), 0, 0});
    }
    m_seen.outcomes.push_back(outcome);
}

void Session::Open()
{
    const Opening& opening = m_sequence.opening;
    const std::wstring wide = Wide(m_place.path);
    const wchar_t* widePath = opening.nullPath ? nullptr : wide.c_str();
    const char* path = opening.nullPath ? nullptr : m_place.given.c_str();
    ExternalIoFuncs* table = opening.table ? &g_table : nullptr;
    mp4_handle* out = opening.nullOut ? nullptr : &m_handle;
    m_sink.seen = &m_seen;
    m_sink.fault = opening.fault;
    m_sink.position = opening.start;
    m_sink.path = wide;
    m_sink.blockSize = opening.blockSize;
    m_sink.blockCount = opening.blockCount;
    g_sink = &m_sink;
    Guard(0, [&](Outcome&) -> uint64_t {
        switch (opening.create) {
        case Create::Wide: return mp4_create_file(widePath, opening.flags, out);
        case Create::Multibyte: return mp4_create_file_ex(path, opening.flags, out);
        case Create::Adv:
            return mp4_create_file_adv(widePath, opening.flags, opening.blockSize,
                                       opening.blockCount, opening.ioMode, table, out);
        case Create::AdvMultibyte:
            return mp4_create_file_adv_ex(path, opening.flags, opening.blockSize,
                                          opening.blockCount, opening.ioMode, table, out);
        case Create::Front: m_handle = kv_mp4_open(path); return m_handle == nullptr ? 1 : 0;
        case Create::FrontWide:
            m_handle = kv_mp4_open_ex(widePath);
            return m_handle == nullptr ? 1 : 0;
        }
        return 0;
    });
    if (IsFile(m_place.path + ".info")) {
        m_info.Hold(m_place.path + ".info");
        m_seen.outcomes.back().infoSize = m_info.Size();
    }
}

// The next call; whether there was one.
bool Session::DoNext()
{
    m_log.m_seen = &m_seen;
    if (m_seen.outcomes.empty()) {
        Open();
        return true;
    }
    const size_t next = m_seen.outcomes.size() - 1;
    if (next == m_sequence.steps.size()) {
        return false;
    }
    Do(m_sequence.steps[next]);
    return true;
}

void Session::End()
{
    if (m_handle != nullptr && !m_ended) {
        Observed ignored;
        m_log.m_seen = &ignored;
        mp4_close_file(m_handle);
    }
    if (m_sequence.opening.ioMode == 2) {
        if (!m_seen.sinkCalls.empty() && m_sink.fault.openAnswer != 0) {
            m_seen.media = std::move(m_sink.image);
        }
    } else {
        m_seen.media = Image::Load(m_place.path);
    }
    if (m_info.Holds()) {
        m_seen.info = m_info.Read();
    }
    m_seen.infoIsLeft = IsFile(m_place.path + ".info");
}

mp4_handle Session::Given(const Step& step) const
{
    static int s_stranger = 0;
    return step.handle == Handle::Good   ? m_handle
           : step.handle == Handle::Null ? nullptr
                                         : &s_stranger;
}

void Session::Do(const Step& step)
{
    m_log.m_handle = fmt::format("{}", fmt::ptr(Given(step)));
    Guard(step.error, [&](Outcome& outcome) { return Call(step, outcome); });
    if (step.call == model::Call::Close && step.handle == Handle::Good) {
        m_ended = true;
    }
}

const uint8_t* Data(const ParameterSet& set)
{
    static const uint8_t s_nothing = 0;
    return !set.bytes ? nullptr : set.bytes->empty() ? &s_nothing : set.bytes->data();
}

uint32_t SetVideo(mp4_handle handle, const Step& step)
{
    if (step.front) {
        kv_mp4_video_info info{};
        info.codec = step.codec;
        info.timescale = step.timescale;
        info.width = step.width;
        info.height = step.height;
        info.sps = Data(step.sps);
        info.sps_size = step.sps.size;
        info.pps = Data(step.pps);
        info.pps_size = step.pps.size;
        info.vps = Data(step.vps);
        info.vps_size = step.vps.size;
        return kv_mp4_set_video(handle, step.null ? nullptr : &info);
    }
    mp4_video_track_info info{};
    info.timescale = step.timescale;
    info.sample_duration = step.time;
    info.codec = step.codec;
    info.width = step.width;
    info.height = step.height;
    if (step.codec == 2) {
        info.prores_format = step.number;
    } else {
        info.sps = Data(step.sps);
    }
    info.sps_size = step.sps.size;
    info.pps = Data(step.pps);
    info.pps_size = step.pps.size;
    info.vps = Data(step.vps);
    info.vps_size = step.vps.size;
    return mp4_set_video_track(handle, step.null ? nullptr : &info);
}

uint32_t SetAudio(mp4_handle handle, const Step& step)
{
    const uint8_t objectType = static_cast<uint8_t>(step.number);
    if (step.front) {
        const kv_mp4_audio_info info{step.codec, step.timescale, step.width, step.height,
                                     objectType};
        return kv_mp4_set_audio(handle, step.null ? nullptr : &info);
    }
    const mp4_audio_track_info info{step.timescale, step.time,   step.codec,
                                    step.width,     step.height, objectType};
    return mp4_set_audio_track(handle, step.null ? nullptr : &info);
}

uint32_t SetSubtitle(mp4_handle handle, const Step& step)
{
    if (step.front) {
        const kv_mp4_subtitle_info info{step.codec, step.timescale};
        return kv_mp4_set_subtitle(handle, step.null ? nullptr : &info);
    }
    const mp4_subtitle_track_info info{step.codec, step.timescale};
    return mp4_set_subtitle_track(handle, step.null ? nullptr : &info);
}

uint64_t Session::Call(const Step& step, Outcome& outcome)
{
    const mp4_handle handle = Given(step);
    // A copy that ends where the frame ends, so that a read beyond it shows.
    const Bytes frame(step.data);
    static const uint8_t s_nothing = 0;
    const uint8_t* data = step.null ? nullptr : frame.empty() ? &s_nothing : frame.data();
    const uint32_t size = static_cast<uint32_t>(frame.size());
    const char* key = step.key ? step.key->c_str() : nullptr;
    const auto bitrate = [&](auto function) -> uint64_t {
        double value = -2.0;
        const uint32_t status = function(handle, step.null ? nullptr : &value);
        if (status == 0) {
            outcome.result = std::isnan(value) ? 1 : std::bit_cast<uint64_t>(value);
        }
        return status;
    };
    mp4_safe_param safe{step.safe[0], step.safe[1], step.safe[2], step.safe[3]};
    switch (step.call) {
    case model::Call::SetVideo: return SetVideo(handle, step);
    case model::Call::SetAudio: return SetAudio(handle, step);
    case model::Call::SetSubtitle: return SetSubtitle(handle, step);
    case model::Call::SetTimeCode: {
        const mp4_time_code_track_info info{step.timescale, step.time,
                                            static_cast<uint8_t>(step.number), step.flags};
        return mp4_set_time_code_track(handle, step.null ? nullptr : &info);
    }
    case model::Call::SetMetadata:
        return mp4_set_metadata(handle, key,
                                step.null ? nullptr : reinterpret_cast<const char*>(data));
    case model::Call::SetMetadataEx:
        return mp4_set_metadata_ex(handle, key, data, step.size, step.type,
                                   step.keyNamespace ? step.keyNamespace->c_str() : nullptr);
    case model::Call::WriteVideo:
        return (step.front ? kv_mp4_write_video : mp4_write_video_frame)(handle, data, size,
                                                                         step.time);
    case model::Call::WriteAudio:
        return (step.front ? kv_mp4_write_audio : mp4_write_audio_frame)(handle, data, size,
                                                                         step.time);
    case model::Call::WriteSubtitle:
        return (step.front ? kv_mp4_write_subtitle : mp4_write_subtitle_frame)(handle, data, size,
                                                                               step.time);
    case model::Call::WriteTimeCode: return mp4_write_time_code(handle, step.number);
    case model::Call::Duration: return mp4_get_duration_ms(handle);
    case model::Call::MoovSize: return mp4_get_moov_size(handle);
    case model::Call::VideoBitrate: return bitrate(mp4_get_video_bitrate);
    case model::Call::AudioBitrate: return bitrate(mp4_get_audio_bitrate);
    case model::Call::GetSafe: {
        const uint32_t status = mp4_get_safe_param(handle, step.null ? nullptr : &safe);
        if (status == 0) {
            for (const uint32_t value :
                 {safe.strategy, safe.min_interval, safe.max_interval, safe.threshold}) {
                outcome.result = outcome.result * 1000003 + value;
            }
        }
        return status;
    }
    case model::Call::SetSafe: return mp4_set_safe_param(handle, step.null ? nullptr : &safe);
    case model::Call::FlushInterval: return mp4_repair_set_flush_interval(handle, step.number);
    case model::Call::Close: return (step.front ? kv_mp4_close : mp4_close_file)(handle);
    }
    return 0;
}

void Save(const std::string& path, const Bytes& bytes)
{
    Image image;
    image.Write(0, bytes.data(), bytes.size());
    image.Save(path);
}

// The folder before a recording: nothing, or older files.
void PutStale(const Sequence& sequence, const Place& place)
{
    const std::string info = place.path + ".info";
    Remove(place.path);
    Remove(info);
    if (sequence.opening.stale && place.CanHoldFiles()) {
        Save(place.path, kStale);
        Save(info, kStale);
    }
    if (place.logError != 0) {
        PutFullFile(info);
    }
}

}  // namespace

struct Library::Capture {
    std::shared_ptr<LogSink> log = std::make_shared<LogSink>();
    std::optional<Output> output;

    std::string TakeOutput() { return WithoutLineNumbers(output->Take()); }
};

Library::Library() : m_capture(std::make_unique<Capture>())
{
    // The first call installs a logger of its own; from then on ours stands.
    const auto logger = std::make_shared<spdlog::logger>("model", m_capture->log);
    logger->set_level(spdlog::level::trace);
    Observed first;
    m_capture->log->m_seen = &first;
    spdlog::set_default_logger(logger);
    const int errors = dup(STDERR_FILENO);
    const int nowhere = kvtest::OpenNothing();
    dup2(nowhere, STDERR_FILENO);
    mp4_handle handle = nullptr;
    mp4_create_file(L"/nowhere/at/all", 0, &handle);
    dup2(errors, STDERR_FILENO);
    close(errors);
    close(nowhere);
    if (first.lines.size() != 1 ||
        first.lines[0] != LogLine{2, "src/mp4", "lumivane mp4 library 1.0.1.17543"} ||
        spdlog::default_logger()->name() != "msvc_logger") {
        throw std::runtime_error("the logger was not set up as told");
    }
    spdlog::set_default_logger(logger);
    m_capture->output.emplace();
}

Library::~Library()
{
    m_capture->log->m_seen = nullptr;
}

std::array<Result, 2> Library::RunTogether(const std::array<Sequence, 2>& sequences,
                                           const std::array<Prediction, 2>& predictions,
                                           const std::array<const Folder*, 2>& folders)
{
    std::array<Result, 2> results;
    std::array<Place, 2> places;
    std::vector<std::unique_ptr<Session>> sessions;
    for (size_t i = 0; i < 2; ++i) {
        places[i] = folders[i]->Find(sequences[i].opening.path);
        PutStale(sequences[i], places[i]);
        sessions.push_back(std::make_unique<Session>(sequences[i], places[i],
                                                     predictions[i].result.recording,
                                                     results[i].recording, *m_capture->log));
    }
    for (const auto& session : sessions) {
        session->DoNext();  // both are open before one ends, whose address could come again
        results[session == sessions[0] ? 0 : 1].recording.printed += m_capture->TakeOutput();
    }
    Random random(sequences[0].seed);
    std::array<bool, 2> more = {true, true};
    while (more[0] || more[1]) {
        const size_t turn = random.Below(2);
        more[turn] = more[turn] && sessions[turn]->DoNext();
        results[turn].recording.printed += m_capture->TakeOutput();
    }
    sessions[0]->End();
    sessions[1]->End();
    return results;
}

Result Library::Run(const Sequence& sequence, const Prediction& prediction, const Folder& folder)
{
    const Place place = folder.Find(sequence.opening.path);
    const Planted& planted = prediction.planted;
    const std::string info = place.path + ".info";
    PutStale(sequence, place);
    Result result;
    Session session(sequence, place, prediction.result.recording, result.recording,
                    *m_capture->log);
    while (session.DoNext()) {
    }
    session.End();
    result.recording.printed = m_capture->TakeOutput();
    if (!prediction.result.repair) {
        return result;
    }

    const Repair& repair = *sequence.repair;
    Observed& seen = result.repair.emplace();
    m_capture->log->m_seen = &seen;
    Remove(place.path);
    Remove(info);
    if (planted.media) {
        planted.media->Save(place.path);
    }
    if (planted.log) {
        Save(info, *planted.log);
    }
    const std::wstring wide = Wide(place.path);
    for (uint32_t i = 0; i < repair.runs; ++i) {
        Outcome outcome;
        errno = repair.error;
        if (repair.multibyte) {
            outcome.value = (repair.front ? kv_mp4_repair : mp4_repair_file_ex)(
                repair.nullPath ? nullptr : place.given.c_str(), repair.option);
        } else {
            outcome.value = (repair.front ? kv_mp4_repair_ex : mp4_repair_file)(
                repair.nullPath ? nullptr : wide.c_str(), repair.option);
        }
        outcome.lines = seen.lines.size();
        seen.outcomes.push_back(outcome);
    }
    seen.printed = m_capture->TakeOutput();
    seen.media = Image::Load(place.path);
    if (const auto log = Image::Load(info)) {
        seen.info = log->Read(0, static_cast<size_t>(log->Size()));
    }
    seen.infoIsLeft = seen.info.has_value();
    return result;
}

}  // namespace model
