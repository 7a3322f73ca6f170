// The root of the box writers and the vocabulary in which a box lists its fields. A box opens,
// sizes and closes in one of five shapes (Container, Leaf, Entry, TrueSize, Table); the size in
// the file is always what was really written, and GetSize is an estimate beside it. Nothing here
// catches: what the sink throws leaves Write.
#pragma once

#include "BaseIO.h"
#include "big_endian.h"

#include <cstdint>
#include <cstring>
#include <string_view>

// Writes fields to one target, each verb as one write, and nothing once the target is not open.
class CFieldWriter {
public:
    explicit CFieldWriter(IBaseIO& target) : m_target(target) {}

    void U8(std::uint32_t value) { BigEndian<1>(value); }
    void U16(std::uint32_t value) { BigEndian<2>(value); }
    void U24(std::uint32_t value) { BigEndian<3>(value); }
    void U32(std::uint32_t value) { BigEndian<4>(value); }
    void U64(std::uint64_t value) { BigEndian<8>(value); }
    // A time: 64 bits in version 1, 32 bits in version 0.
    void Wide(std::uint8_t version, std::uint64_t value);
    // A four-character code, given as text or as its four bytes.
    void Code(const char* code) { Bytes(code, 4); }
    // Characters without length or terminator.
    void Text(std::string_view text) { Bytes(text.data(), text.size()); }
    // One length byte, then the characters.
    void PascalText(std::string_view text);
    // No write at all for no bytes.
    void Bytes(const void* data, std::size_t size)
    {
        if (size != 0 && m_target.IsOpen())
            m_target.Write(data, static_cast<std::uint32_t>(size));
    }
    void Zeros(std::size_t count);  // at most 32
    void Fixed16(std::uint32_t whole) { U32(whole << 16); }  // 16.16
    void Fixed8(std::uint32_t whole) { U16(whole << 8); }    // 8.8
    void VersionFlags(std::uint8_t version, std::uint32_t flags)
    {
        U32(std::uint32_t{version} << 24 | flags);
    }
    // The 36 bytes of a transformation matrix; the last column is 0, 0, 1.0.
    void Matrix(std::uint16_t a, std::uint16_t b, std::uint16_t c, std::uint16_t d,
                std::uint16_t e, std::uint16_t f);
    // The tag and the four-byte expandable length of an MPEG-4 descriptor.
    void Descriptor(std::uint8_t tag, std::uint32_t length);

    IBaseIO& Target() { return m_target; }

private:
    template <std::size_t Width>
    void BigEndian(std::uint64_t value)
    {
        if (!m_target.IsOpen())
            return;
        std::uint8_t bytes[Width];
        StoreBE<Width>(bytes, value);
        m_target.Write(bytes, Width);
    }

    IBaseIO& m_target;
};

class CMp4Atom {
public:
    explicit CMp4Atom(IBaseIO* io) : m_io(io) { m_buffer.AttachSink(io); }
    virtual ~CMp4Atom() = default;
    CMp4Atom(const CMp4Atom&) = delete;
    CMp4Atom& operator=(const CMp4Atom&) = delete;

    // Writes the box at the sink's position, as often as asked, without consuming anything.
    virtual void Write() = 0;
    // The calculated size in bytes; deliberately not authoritative.
    virtual std::uint32_t GetSize() const = 0;

protected:
    // A box on the sink: placeholder 8, code, children, size patched.
    template <typename Children>
    void Container(const char* code, Children&& children)
    {
        const std::int64_t start = m_io->Tell();
        CFieldWriter sink(*m_io);
        sink.U32(8);
        sink.Code(code);
        children();
        FinishBox(start);
    }

    // A box composed in m_buffer: placeholder 8, code, fields, size patched, one flush.
    template <typename Fields>
    void Leaf(const char* code, Fields&& fields)
    {
        const std::int64_t start = m_buffer.Tell();
        CFieldWriter field(m_buffer);
        field.U32(8);
        field.Code(code);
        fields(field);
        FinishBufferedBox(start);
        m_buffer.Flush();
    }

    // A box whose fixed part goes through m_buffer and whose children write to the sink; the size
    // is patched on the sink.
    template <typename Fields, typename Children>
    void Entry(const char* code, Fields&& fields, Children&& children)
    {
        const std::int64_t start = m_io->Tell();
        CFieldWriter field(m_buffer);
        field.U32(12);
        field.Code(code);
        fields(field);
        m_buffer.Flush();
        children();
        FinishBox(start);
    }

    // A box on the sink whose size is known beforehand and never patched.
    template <typename Fields>
    void TrueSize(const char* code, std::uint32_t size, Fields&& fields)
    {
        CFieldWriter sink(*m_io);
        sink.U32(size);
        sink.Code(code);
        fields(sink);
    }

    // A table with its true size: two header writes, then m_buffer as one block, which is kept.
    void Table(const char* code, std::uint32_t entryWidth);

    // Patch the size of the box that began at `start`, from what was written, and go back to its
    // end; on the sink and on m_buffer.
    void FinishBox(std::int64_t start);
    void FinishBufferedBox(std::int64_t start);

    // m_buffer as one write to the sink, kept; nothing when it is empty or the sink is not open.
    void WriteBufferBlock();

    IBaseIO* const m_io;  // the sink, not owned; all boxes of a file share one
    CBufferIO m_buffer;   // the box's private memory; its sink is m_io
};
