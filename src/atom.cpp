#include "atom.h"

#include <algorithm>
#include <array>

void CFieldWriter::Wide(std::uint8_t version, std::uint64_t value)
{
    if (version)
        U64(value);
    else
        U32(static_cast<std::uint32_t>(value));
}

void CFieldWriter::PascalText(std::string_view text)
{
    U8(static_cast<std::uint32_t>(text.size()));
    Text(text);
}

void CFieldWriter::Zeros(std::size_t count)
{
    static constexpr std::array<std::uint8_t, 32> zeros{};
    Bytes(zeros.data(), std::min(count, zeros.size()));
}

void CFieldWriter::Matrix(std::uint16_t a, std::uint16_t b, std::uint16_t c, std::uint16_t d,
                          std::uint16_t e, std::uint16_t f)
{
    Fixed16(a);
    Fixed16(b);
    U32(0);
    Fixed16(c);
    Fixed16(d);
    U32(0);
    Fixed16(e);
    Fixed16(f);
    U32(0x40000000);  // 1.0 in 2.30
}

void CFieldWriter::Descriptor(std::uint8_t tag, std::uint32_t length)
{
    U8(tag);
    U8(0x80 | (length >> 21 & 0x7F));
    U8(0x80 | (length >> 14 & 0x7F));
    U8(0x80 | (length >> 7 & 0x7F));
    U8(length & 0x7F);
}

namespace {

void PatchSize(IBaseIO* io, std::int64_t start)
{
    const std::int64_t end = io->Tell();
    io->Seek(start, kSeekStart);
    WriteBE32(io, static_cast<std::uint32_t>(end - start));
    io->Seek(end, kSeekStart);
}

}  // namespace

void CMp4Atom::FinishBox(std::int64_t start)
{
    PatchSize(m_io, start);
}

void CMp4Atom::FinishBufferedBox(std::int64_t start)
{
    PatchSize(&m_buffer, start);
}

void CMp4Atom::WriteBufferBlock()
{
    // Memory that failed has lost its bytes, but not its size.
    if (m_buffer.Data())
        CFieldWriter(*m_io).Bytes(m_buffer.Data(), static_cast<std::uint32_t>(m_buffer.Size()));
}

void CMp4Atom::Table(const char* code, std::uint32_t entryWidth)
{
    const auto size = static_cast<std::uint32_t>(m_buffer.Size());
    CFieldWriter sink(*m_io);
    const auto pair = [&sink](std::uint32_t first, const char* text, std::uint32_t second) {
        std::uint8_t bytes[8];
        StoreBE<4>(bytes, first);
        if (text)
            std::memcpy(bytes + 4, text, 4);
        else
            StoreBE<4>(bytes + 4, second);
        sink.Bytes(bytes, sizeof bytes);
    };
    pair(size + 16, code, 0);
    pair(0, nullptr, size / entryWidth);  // version and flags, entry count
    WriteBufferBlock();
}
