#include "stbl.h"

#include "big_endian.h"

#include <cstring>

namespace {

constexpr std::uint32_t kTimeCodeSampleSize = 4;  // bytes

// An `stsc` is written through its buffer in blocks of at most this size, so that the table of a
// long recording never stands in memory a second time.
constexpr std::uint64_t kBlockSize = 0x10000;

// One entry, one write. These run for every frame, hence the buffer by its final class, whose Write
// the compiler can place here. A table whose memory failed once takes no more entries.
void Append32(CBufferIO& table, std::uint32_t value)
{
    if (!table.IsOpen())
        return;
    std::uint8_t bytes[4];
    StoreBE<4>(bytes, value);
    table.Write(bytes, sizeof bytes);
}

void AppendPair(CBufferIO& table, std::uint32_t first, std::uint32_t second)
{
    if (!table.IsOpen())
        return;
    std::uint8_t bytes[8];
    StoreBE<4>(bytes, first);
    StoreBE<4>(bytes + 4, second);
    table.Write(bytes, sizeof bytes);
}

void AppendTriple(CBufferIO& table, std::uint32_t first, std::uint32_t second, std::uint32_t third)
{
    if (!table.IsOpen())
        return;
    std::uint8_t bytes[12];
    StoreBE<4>(bytes, first);
    StoreBE<4>(bytes + 4, second);
    StoreBE<4>(bytes + 8, third);
    table.Write(bytes, sizeof bytes);
}

// Differences of times are 32-bit.
std::uint32_t Delta(std::uint64_t now, std::uint64_t before)
{
    return static_cast<std::uint32_t>(now) - static_cast<std::uint32_t>(before);
}

}  // namespace

// ---- stts ----------------------------------------------------------------------------------

void CMp4SttsAtom::AddSample(std::uint64_t decodingTime)
{
    const std::uint32_t delta = Delta(decodingTime, m_lastTime);
    m_lastTime = decodingTime;
    if (m_runCount != 0) {
        if (delta == m_runDelta) {
            ++m_runCount;
            return;
        }
        AppendPair(m_buffer, m_runCount, m_runDelta);
    } else if (m_first) {
        m_first = 0;  // the first sample has no delta yet
        return;
    }
    m_runCount = 1;
    m_runDelta = delta;
}

void CMp4SttsAtom::Write()
{
    if (!m_first) {
        if (m_runCount == 0)
            m_runDelta = m_defaultDelta;
        // The open run, extended by the last sample; the next completed run overwrites it.
        const std::int64_t position = m_buffer.Tell();
        AppendPair(m_buffer, m_runCount + 1, m_runDelta);
        m_buffer.Seek(position, kSeekStart);
    }
    Table("stts", 8);
}

// ---- ctts ----------------------------------------------------------------------------------

void CMp4CttsAtom::AddSample(std::uint64_t presentationTime, std::uint64_t decodingTime)
{
    const auto offset = static_cast<std::int64_t>(presentationTime - decodingTime);
    if (m_runCount != 0) {
        if (m_runOffset == offset) {
            ++m_runCount;
            return;
        }
        AppendPair(m_buffer, m_runCount, static_cast<std::uint32_t>(m_runOffset));
    }
    m_runCount = 1;
    m_runOffset = static_cast<std::int32_t>(offset);
}

void CMp4CttsAtom::Write()
{
    AppendPair(m_buffer, m_runCount, static_cast<std::uint32_t>(m_runOffset));
    const auto size = static_cast<std::uint32_t>(m_buffer.Size());
    TrueSize("ctts", size + 16, [size](CFieldWriter& f) {
        f.VersionFlags(0, 0);
        f.U32(size / 8);
    });
    m_buffer.Flush();
}

// ---- stsz ----------------------------------------------------------------------------------

void CMp4StszAtom::AddSample(std::int32_t size)
{
    Append32(m_buffer, static_cast<std::uint32_t>(size));
    m_dataSize += static_cast<std::uint64_t>(std::int64_t{size});
}

bool CMp4StszAtom::AllEqual() const
{
    // Each word equals its neighbour: the block equals itself moved by one word.
    // Memory that failed has lost its bytes, but not its size.
    const std::uint64_t size = m_buffer.Size();
    const std::uint8_t* words = m_buffer.Data();
    return size <= 4 || !words || std::memcmp(words, words + 4, size - 4) == 0;
}

void CMp4StszAtom::Write()
{
    const auto size = static_cast<std::uint32_t>(m_buffer.Size());
    const bool compact = AllEqual();
    std::uint8_t header[20];
    StoreBE<4>(header, compact ? 20 : size + 20);
    std::memcpy(header + 4, "stsz", 4);
    StoreBE<4>(header + 8, 0);   // version and flags
    StoreBE<4>(header + 12, 0);  // the common size
    if (compact && m_buffer.Data())
        std::memcpy(header + 12, m_buffer.Data(), 4);
    StoreBE<4>(header + 16, size / 4);  // sample count
    // Two writes and the block, as for every table.
    CFieldWriter sink(*m_io);
    sink.Bytes(header, 8);
    sink.Bytes(header + 8, 12);
    if (!compact)
        WriteBufferBlock();
}

std::uint32_t CMp4StszAtom::GetSize() const
{
    return AllEqual() ? 20 : static_cast<std::uint32_t>(m_buffer.Size()) + 20;
}

// ---- stsc ----------------------------------------------------------------------------------

void CMp4StscAtom::AddSample(bool newChunk)
{
    if (newChunk) {
        if (!m_chunks.empty() && m_chunks.back() != m_lastLength) {
            m_lastLength = m_chunks.back();
            ++m_fullEntries;
        }
        m_chunks.push_back(1);
    } else if (!m_chunks.empty()) {
        ++m_chunks.back();
    }
    // Kept: a sample before the first chunk is not counted here, though its size is.
}

std::uint32_t CMp4StscAtom::CountEntries() const
{
    const bool lastDiffers = !m_chunks.empty() && m_chunks.back() != m_lastLength;
    return m_fullEntries + (lastDiffers ? 1 : 0);
}

void CMp4StscAtom::Write()
{
    const std::uint32_t entries = CountEntries();
    CFieldWriter f(m_buffer);
    f.U32(16 + 12 * entries);
    f.Code("stsc");
    f.VersionFlags(0, 0);
    f.U32(entries);
    std::uint32_t chunk = 0;
    std::uint32_t previous = 0;
    for (const std::uint32_t samples : m_chunks) {
        ++chunk;
        if (samples == previous)
            continue;
        if (m_buffer.Size() + 12 > kBlockSize)
            m_buffer.Flush();
        // First chunk, samples per chunk, sample description index.
        AppendTriple(m_buffer, chunk, samples, 1);
        previous = samples;
    }
    m_buffer.Flush();
}

std::uint32_t CMp4StscAtom::GetSize() const
{
    return 16 + 12 * CountEntries();
}

// ---- Offsets and sync samples --------------------------------------------------------------

void CMp4StcoAtom::AddChunk(std::uint64_t offset)
{
    Append32(m_buffer, static_cast<std::uint32_t>(offset));
}

void CMp4Co64Atom::AddChunk(std::uint64_t offset)
{
    AppendPair(m_buffer, static_cast<std::uint32_t>(offset >> 32),
               static_cast<std::uint32_t>(offset));
}

void CMp4StssAtom::AddSample(std::uint32_t number)
{
    Append32(m_buffer, number);
}

// ---- stbl ----------------------------------------------------------------------------------

void CMp4StblAtom::AddSample(std::uint64_t offset, std::int32_t size,
                             std::uint64_t presentationTime, std::uint64_t decodingTime,
                             bool newChunk)
{
    if (newChunk) {
        if (m_useCo64)
            m_co64.AddChunk(offset);
        else
            m_stco.AddChunk(offset);
    }
    m_stsc.AddSample(newChunk);
    m_stsz.AddSample(size);
    m_stts.AddSample(decodingTime);
    m_ctts.AddSample(presentationTime, decodingTime);
}

void CMp4StblAtom::Write()
{
    Container("stbl", [this] {
        WriteSampleDescription();
        m_stts.Write();
        m_stsz.Write();
        m_stsc.Write();
        if (m_useCo64)
            m_co64.Write();
        else
            m_stco.Write();
        WriteSyncTable();  // Kept: also without entries; readers then take no frame for a key frame
    });
}

std::uint32_t CMp4StblAtom::GetSize() const
{
    return 8 + m_stts.GetSize() + m_stsz.GetSize() + m_stsc.GetSize() +
           (m_useCo64 ? m_co64.GetSize() : m_stco.GetSize());
}

void CMp4TMCDStblAtom::AddSample(std::uint64_t offset, bool newChunk)
{
    if (newChunk) {
        if (m_useCo64)
            m_co64.AddChunk(offset);
        else
            m_stco.AddChunk(offset);
    }
    m_stsc.AddSample(newChunk);
    m_stsz.AddSample(kTimeCodeSampleSize);
    m_stts.AddSample(1);  // Kept: a constant, so that only a lone sample gets a real duration
}

void CMp4TMCDStblAtom::Write()
{
    Container("stbl", [this] {
        m_stsd.Write();
        m_stts.Write();
        m_stsc.Write();  // Kept: ahead of stsz, unlike the other tracks
        m_stsz.Write();
        if (m_useCo64)
            m_co64.Write();
        else
            m_stco.Write();
    });
}

std::uint32_t CMp4TMCDStblAtom::GetSize() const
{
    return 8 + m_stsd.GetSize() + m_stts.GetSize() + m_stsc.GetSize() + m_stsz.GetSize() +
           (m_useCo64 ? m_co64.GetSize() : m_stco.GetSize());
}
