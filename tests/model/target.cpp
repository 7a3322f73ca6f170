#include "model/target.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace model {

void Journal::Log(int level, std::string_view unit, std::string text)
{
    seen->lines.push_back({level, std::string(unit), std::move(text)});
}

void Note(std::vector<SinkCall>& calls, SinkCall call)
{
    using Kind = SinkCall::Kind;
    const bool joins = call.kind == Kind::Write || call.kind == Kind::Tell;
    if (!joins || calls.empty() || calls.back().kind != call.kind) {
        calls.push_back(call);
    }
}

uint32_t StatusOf(int error)
{
    switch (error) {
    case EPERM: return 11;
    case ENOENT: return 12;
    case EACCES: return 13;
    case EBUSY: return 14;
    case EMFILE: return 15;
    case ENOSPC: return 16;
    case EROFS: return 17;
    case 1000: return 0;
    default: return 1;
    }
}

void Target::Guarded(const uint8_t* data, size_t size, bool whole)
{
    if (m_state == State::Open && size != 0) {
        Take(data, size, whole);
    }
}

FileTarget::FileTarget(Journal& journal, Image image, bool external, const Fault& fault,
                       uint64_t position)
    : Target(journal), m_image(std::move(image)), m_external(external), m_fault(fault),
      m_position(position)
{
    m_state = State::Open;
    Note(SinkCall::Kind::Open, 1);
}

void FileTarget::Note(SinkCall::Kind kind, uint64_t argument)
{
    if (!m_external) {
        return;
    }
    model::Note(m_journal.seen->sinkCalls, {kind, argument, m_taken});
}

uint64_t FileTarget::Tell()
{
    const uint64_t told = m_fault.tellsMinusOne ? UINT64_MAX : m_position + m_fault.tellsMore;
    Note(SinkCall::Kind::Tell, told);
    return told;
}

void FileTarget::Seek(uint64_t position)
{
    Note(SinkCall::Kind::Seek, position);
    if (!m_fault.ignoresSeeks && position <= INT64_MAX) {
        m_position = position;
    }
}

void FileTarget::Flush()
{
    Note(SinkCall::Kind::Flush, 0);
}

void FileTarget::Close()
{
    Note(SinkCall::Kind::Close, 0);
    m_state = State::Closed;
}

void FileTarget::Take(const uint8_t* data, size_t size, bool whole)
{
    const uint64_t room = m_failedOnce && !m_fault.again ? UINT64_MAX : m_fault.limit - m_taken;
    const size_t accepted = static_cast<size_t>(std::min<uint64_t>(size, room));
    Note(SinkCall::Kind::Write, 0);
    m_image.Write(m_position, data, accepted);
    m_position += accepted;
    m_taken += accepted;
    if (m_external) {
        Bytes& stream = m_journal.seen->sinkStream;
        stream.insert(stream.end(), data, data + accepted);
        if (whole) {
            m_journal.seen->sinkWrites.push_back({m_taken - accepted, size});
        }
    }
    if (accepted != size) {
        m_failedOnce = true;
        ++m_journal.seen->sinkFailures;
        if (m_fault.way == Fault::Way::OtherException) {
            throw OtherFailure{};
        }
        if (m_fault.way == Fault::Way::IoException) {
            throw IoFailure{m_fault.error};
        }
        m_state = State::Failed;
        m_error = m_journal.error = m_fault.error;
        m_journal.Print("[line *] Read EOF !\n");
        throw IoFailure{m_error};
    }
}

StagingTarget::StagingTarget(Journal& journal, FileTarget* sink) : Target(journal), m_sink(sink)
{
    m_state = State::Open;
}

void StagingTarget::Reset()
{
    m_data.clear();
    m_position = 0;
    m_state = State::Open;
}

void StagingTarget::Seek(uint64_t position)
{
    if (position > m_data.size()) {
        m_state = State::Failed;
        m_error = m_journal.error;
        m_journal.Print(std::string("BaseIO : Error - [line *] Seek error ") +
                        std::strerror(m_error) + " !\n\n");
        throw IoFailure{m_error};
    }
    m_position = position;
}

void StagingTarget::Take(const uint8_t* data, size_t size, bool)
{
    m_data.resize(std::max<uint64_t>(m_data.size(), m_position + size));
    std::memcpy(m_data.data() + m_position, data, size);
    m_position += size;
}

void StagingTarget::Flush()
{
    m_sink->PutWhole(m_data);
    m_data.clear();
    m_position = 0;
}

}  // namespace model
