// Where the model's boxes go: the file, the caller's sink, or the memory in which a moov is staged.
#ifndef TESTS_MODEL_TARGET_H
#define TESTS_MODEL_TARGET_H

#include "model/observed.h"
#include "model/sequence.h"

#include <string>
#include <string_view>

namespace model {

struct IoFailure {  // an exception of the I/O layer
    int code;
};
struct OtherFailure {};  // any other exception

// What a call says: log lines, printed lines, and the errno that it found.
struct Journal {
    Observed* seen = nullptr;
    int error = 0;

    void Log(int level, std::string_view unit, std::string text);
    void Info(std::string_view unit, std::string text) { Log(2, unit, std::move(text)); }
    void Warn(std::string_view unit, std::string text) { Log(3, unit, std::move(text)); }
    void Error(std::string_view unit, std::string text) { Log(4, unit, std::move(text)); }
    void Print(std::string_view text) { seen->printed += text; }
};

// The status that an errno stands for.
uint32_t StatusOf(int error);

enum class State { Closed, Open, Failed };

class Target {
public:
    explicit Target(Journal& journal) : m_journal(journal) {}
    virtual ~Target() = default;
    virtual uint64_t Tell() = 0;
    virtual void Seek(uint64_t position) = 0;
    // Bytes that go out in as many writes as the box likes, and bytes that are one write. Both do
    // nothing unless the target is open.
    void Put(const Bytes& bytes) { Guarded(bytes.data(), bytes.size(), false); }
    void PutWhole(const Bytes& bytes) { Guarded(bytes.data(), bytes.size(), true); }
    void PutWhole(const uint8_t* data, size_t size) { Guarded(data, size, true); }

    State m_state = State::Closed;
    int m_error = 0;

protected:
    virtual void Take(const uint8_t* data, size_t size, bool whole) = 0;
    Journal& m_journal;

private:
    void Guarded(const uint8_t* data, size_t size, bool whole);
};

class FileTarget : public Target {
public:
    // `external`: the caller's sink, which shows its calls.
    FileTarget(Journal& journal, Image image, bool external, const Fault& fault,
               uint64_t position = 0);
    uint64_t Tell() override;
    void Seek(uint64_t position) override;
    void Flush();
    void Close();
    uint64_t Position() const { return m_position; }
    Image m_image;

private:
    void Take(const uint8_t* data, size_t size, bool whole) override;
    void Note(SinkCall::Kind kind, uint64_t argument);

    bool m_external;
    Fault m_fault;
    bool m_failedOnce = false;
    uint64_t m_position;
    uint64_t m_taken = 0;
};

// Memory that is handed on with one write. A seek beyond what it holds fails.
class StagingTarget : public Target {
public:
    StagingTarget(Journal& journal, FileTarget* sink);
    uint64_t Tell() override { return m_position; }
    void Seek(uint64_t position) override;
    void Flush();
    void Reset();

private:
    void Take(const uint8_t* data, size_t size, bool whole) override;

    FileTarget* m_sink;
    Bytes m_data;
    uint64_t m_position = 0;
};

}  // namespace model

#endif
