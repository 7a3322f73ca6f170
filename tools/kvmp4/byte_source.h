// Random access to the bytes of a file, or of a buffer, with 64-bit positions. Needs no system call
// beyond the standard library's; says what it could not read and never throws on a short file, but a
// Failure where the system cannot read what is there.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

class ByteSource {
public:
    virtual ~ByteSource() = default;
    virtual std::uint64_t Size() const = 0;
    // Copies up to `count` bytes from `at` on; returns how many there were.
    virtual std::size_t Read(std::uint64_t at, void* to, std::size_t count) = 0;
};

// A file through a window of its bytes. Open reports in words why it cannot be read.
class FileSource : public ByteSource {
public:
    // An empty text for success.
    std::string Open(const std::string& path);
    std::uint64_t Size() const override { return m_size; }
    std::size_t Read(std::uint64_t at, void* to, std::size_t count) override;

private:
    std::size_t Fill(std::uint64_t at, std::uint8_t* to, std::size_t count);

    std::ifstream m_file;
    std::string m_path;
    std::uint64_t m_size = 0;
    std::vector<std::uint8_t> m_window;
    std::uint64_t m_windowAt = 0;
};

class MemorySource : public ByteSource {
public:
    explicit MemorySource(std::vector<std::uint8_t> bytes) : m_bytes(std::move(bytes)) {}
    std::uint64_t Size() const override { return m_bytes.size(); }
    std::size_t Read(std::uint64_t at, void* to, std::size_t count) override;

private:
    std::vector<std::uint8_t> m_bytes;
};

// Big-endian fields one behind the other in a range of a source. A read beyond the range, or beyond
// the source, gives 0 and clears Sound for good.
class FieldReader {
public:
    FieldReader(ByteSource& source, std::uint64_t begin, std::uint64_t end)
        : m_source(source), m_at(begin), m_end(end < begin ? begin : end)
    {
    }

    std::uint64_t Number(unsigned bytes);
    std::uint8_t U8() { return static_cast<std::uint8_t>(Number(1)); }
    std::uint16_t U16() { return static_cast<std::uint16_t>(Number(2)); }
    std::uint32_t U24() { return static_cast<std::uint32_t>(Number(3)); }
    std::uint32_t U32() { return static_cast<std::uint32_t>(Number(4)); }
    std::uint64_t U64() { return Number(8); }
    std::int16_t S16() { return static_cast<std::int16_t>(U16()); }
    std::int32_t S32() { return static_cast<std::int32_t>(U32()); }
    std::int64_t S64() { return static_cast<std::int64_t>(U64()); }
    // 64 bits with `wide`, else 32.
    std::uint64_t Wide(bool wide) { return wide ? U64() : U32(); }
    std::string Text(std::uint64_t bytes);
    std::string Code() { return Text(4); }
    std::vector<std::uint8_t> Bytes(std::uint64_t bytes);
    void Skip(std::uint64_t bytes);
    // The descriptor header of ISO/IEC 14496-1: a tag, and a length in up to four bytes.
    std::uint8_t Descriptor(std::uint32_t& length);

    std::uint64_t At() const { return m_at; }
    std::uint64_t End() const { return m_end; }
    std::uint64_t Left() const { return m_end - m_at; }
    bool Sound() const { return m_sound; }

private:
    bool Has(std::uint64_t bytes);

    ByteSource& m_source;
    std::uint64_t m_at;
    const std::uint64_t m_end;
    bool m_sound = true;
};

// The bits of a parameter set, without its emulation prevention bytes. Reads beyond the end give 0
// and clear Sound.
class BitFields {
public:
    explicit BitFields(const std::vector<std::uint8_t>& unit);
    std::uint32_t Bits(unsigned count);
    std::uint32_t Ue();
    std::int32_t Se();
    bool Flag() { return Bits(1) != 0; }
    void Skip(unsigned count);
    bool Sound() const { return m_sound; }

private:
    std::vector<std::uint8_t> m_bytes;
    std::size_t m_bit = 0;
    bool m_sound = true;
};
