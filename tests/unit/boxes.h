// What the tests of the boxes share: memory and counting sinks, bytes as short text, a strict walk
// over written boxes, and the log's lines. Shares no code with src/ but the interface of a sink.
#pragma once

#include "atom.h"

#include <gtest/gtest.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

// Bytes from text: hex pairs, and characters in single quotes. "00 08 'free'"
inline std::string Hex(const std::string& text)
{
    std::string bytes;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            ++i;
        } else if (text[i] == '\'') {
            const std::size_t end = text.find('\'', i + 1);
            bytes += text.substr(i + 1, end - i - 1);
            i = end + 1;
        } else {
            bytes += static_cast<char>(std::stoul(text.substr(i, 2), nullptr, 16));
            i += 2;
        }
    }
    return bytes;
}

inline std::string Zeros(std::size_t count) { return std::string(count, '\0'); }

// Bytes as hex pairs, for readable failures.
inline std::string Show(const std::string& bytes)
{
    static const char* digits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {digits[byte >> 4], digits[byte & 15], ' '};
    }
    return text;
}

inline std::uint32_t U32At(const std::string& bytes, std::size_t offset)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    return value;
}

// A sink in memory that knows each write.
class CMemorySink final : public IBaseIO {
public:
    CMemorySink() { m_state = kStateOpen; }
    bool Close() override { m_state = kStateClosed; return true; }
    std::int64_t Tell() override { return static_cast<std::int64_t>(m_position); }
    void Seek(std::int64_t offset, std::int32_t) override
    {
        m_position = static_cast<std::size_t>(offset);
    }
    void Flush() override { ++m_flushes; }
    bool IsLocal() override { return true; }
    void Read(void*, std::uint32_t) override { throw std::logic_error("no box reads"); }
    void Write(const void* buffer, std::uint32_t size) override
    {
        if (size == 0)
            throw std::logic_error("no sink takes empty writes");
        if (m_bytes.size() < m_position + size)
            m_bytes.resize(m_position + size);
        m_bytes.replace(m_position, size, static_cast<const char*>(buffer), size);
        m_position += size;
        m_writes.push_back(size);
    }

    std::string m_bytes;
    std::size_t m_position = 0;
    std::vector<std::uint32_t> m_writes;
    int m_flushes = 0;
};

// A sink and one box on it.
template <typename Box>
struct On {
    CMemorySink sink;
    Box box{&sink};

    // The bytes of one Write at the start of an empty sink.
    std::string Written()
    {
        sink.m_bytes.clear();
        sink.m_position = 0;
        sink.m_writes.clear();
        box.Write();
        return sink.m_bytes;
    }
};

inline bool IsContainer(const std::string& type, const std::string& parent)
{
    for (const char* code : {"moov", "trak", "edts", "tref", "mdia", "minf", "dinf", "stbl", "udta",
                             "meta", "gmhd", "nmhd"})
        if (type == code)
            return true;
    return type == "tmcd" && parent == "gmhd";
}

// The boxes in `bytes` as "a(b c) d". Sizes must be exact.
inline std::string Tree(const std::string& bytes, const std::string& parent = "")
{
    std::string text;
    for (std::size_t at = 0; at < bytes.size();) {
        const std::uint32_t size = bytes.size() - at < 8 ? 0 : U32At(bytes, at);
        if (size < 8 || size > bytes.size() - at)
            return text + "<bad size>";
        const std::string type = bytes.substr(at + 4, 4);
        text += (at == 0 ? "" : " ") + type;
        if (IsContainer(type, parent)) {
            const std::size_t head = type == "meta" ? 12 : 8;
            text += "(" + Tree(bytes.substr(at + head, size - head), type) + ")";
        }
        at += size;
    }
    return text;
}

// The box at a path of types; "trak:2" is the second one of its kind.
inline std::string Find(const std::string& bytes, const std::string& path)
{
    const std::size_t slash = path.find('/');
    const std::string step = path.substr(0, slash);
    std::size_t left = step.size() > 5 ? std::stoul(step.substr(5)) : 1;
    for (std::size_t at = 0; at + 8 <= bytes.size(); at += U32At(bytes, at)) {
        if (bytes.compare(at + 4, 4, step, 0, 4) != 0 || --left != 0)
            continue;
        const std::string box = bytes.substr(at, U32At(bytes, at));
        const std::size_t head = step == "meta" ? 12 : step == "stsd" ? 16 : 8;
        return slash == std::string::npos ? box : Find(box.substr(head), path.substr(slash + 1));
    }
    throw std::runtime_error("no box " + path);
}

// The log's lines "level text" while it lives.
class CLogLines {
public:
    CLogLines() : m_before(spdlog::default_logger())
    {
        auto sink = std::make_shared<spdlog::sinks::ostream_sink_st>(m_stream);
        auto logger = std::make_shared<spdlog::logger>("lines", sink);
        // Every system ends its lines in another way.
        logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%l %v", spdlog::pattern_time_type::local, "\n"));
        spdlog::set_default_logger(logger);
    }
    ~CLogLines() { spdlog::set_default_logger(m_before); }
    std::string Text() const { return m_stream.str(); }

private:
    std::ostringstream m_stream;
    std::shared_ptr<spdlog::logger> m_before;
};

#define EXPECT_BYTES(actual, expected) EXPECT_EQ(Show(actual), Show(expected))
