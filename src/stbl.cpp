#include "stbl.h"

#include <cstring>

namespace {

constexpr std::uint32_t kTimeCodeSampleSize = 4;  // bytes

// An `stsc` is written through its buffer in blocks of this size, so that a long recording's table
// never stands in memory a second time.
constexpr std::uint64_t kBlockSize = 0x10000;

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
        CFieldWriter run(m_buffer);
        run.U32(m_runCount);
        run.U32(m_runDelta);
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
        CFieldWriter run(m_buffer);
        run.U32(m_runCount + 1);
        run.U32(m_runDelta);
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
        CFieldWriter run(m_buffer);
        run.U32(m_runCount);
        run.U32(static_cast<std::uint32_t>(m_runOffset));
    }
    m_runCount = 1;
    m_runOffset = static_cast<std::int32_t>(offset);
}

void CMp4CttsAtom::Write()
{
    CFieldWriter run(m_buffer);
    run.U32(m_runCount);
    run.U32(static_cast<std::uint32_t>(m_runOffset));
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
    CFieldWriter(m_buffer).U32(static_cast<std::uint32_t>(size));
    m_dataSize += static_cast<std::uint64_t>(std::int64_t{size});
}

bool CMp4StszAtom::AllEqual() const
{
    // Each word equals its neighbour: the block equals itself moved by one word.
    const std::uint64_t size = m_buffer.Size();
    return size <= 4 || std::memcmp(m_buffer.Data(), m_buffer.Data() + 4, size - 4) == 0;
}

void CMp4StszAtom::Write()
{
    const auto size = static_cast<std::uint32_t>(m_buffer.Size());
    const bool compact = AllEqual();
    TrueSize("stsz", compact ? 20 : size + 20, [&](CFieldWriter& f) {
        f.VersionFlags(0, 0);
        if (compact && size != 0)
            f.Bytes(m_buffer.Data(), 4);  // the common size
        else
            f.U32(0);
        f.U32(size / 4);
    });
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
    if (newChunk)
        m_chunks.push_back(1);
    else if (!m_chunks.empty())
        ++m_chunks.back();
    // Kept: a sample before the first chunk is not counted here, though its size is.
}

std::uint32_t CMp4StscAtom::CountEntries() const
{
    std::uint32_t entries = 0;
    std::uint32_t previous = 0;
    for (const std::uint32_t samples : m_chunks) {
        if (samples != previous)
            ++entries;
        previous = samples;
    }
    return entries;
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
        f.U32(chunk);  // first chunk
        f.U32(samples);
        f.U32(1);  // sample description index
        previous = samples;
        if (m_buffer.Size() >= kBlockSize)
            m_buffer.Flush();
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
    CFieldWriter(m_buffer).U32(static_cast<std::uint32_t>(offset));
}

void CMp4Co64Atom::AddChunk(std::uint64_t offset)
{
    CFieldWriter(m_buffer).U64(offset);
}

void CMp4StssAtom::AddSample(std::uint32_t number)
{
    CFieldWriter(m_buffer).U32(number);
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
        WriteSyncTable();
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
