// The sample tables. Each is held from the first sample on in its final on-disk form, so that it
// can be written at any moment, as often as asked, with one block write; only "stsc" is kept as
// chunk lengths and coded anew. Where a chunk begins is decided outside; times and sizes are taken
// as they come.
#pragma once

#include "stsd.h"

#include <cstdint>
#include <deque>

// Time to sample. m_buffer holds the completed runs; the open one is written provisionally.
class CMp4SttsAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void AddSample(std::uint64_t decodingTime);
    void Write() override;
    // Kept: lacks the open run before the first Write; the size warning tells.
    std::uint32_t GetSize() const override
    {
        return static_cast<std::uint32_t>(m_buffer.Size()) + 16;
    }

    std::uint32_t m_runCount = 0;  // length of the open run, in deltas
    std::uint32_t m_runDelta = 0;  // ticks
    std::uint8_t m_first = 1;      // no sample seen yet
    std::uint64_t m_lastTime = 0;  // the previous sample's time, ticks
    std::uint32_t m_defaultDelta = 1;  // delta of a lone sample, ticks
};

// Kept: composition offsets are fed and never written; all offsets of the public API are 0.
class CMp4CttsAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void AddSample(std::uint64_t presentationTime, std::uint64_t decodingTime);
    void Write() override;
    std::uint32_t GetSize() const override { return 24; }

    std::uint32_t m_runCount = 0;
    std::int32_t m_runOffset = 0;  // ticks
};

// Sample sizes.
class CMp4StszAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void AddSample(std::int32_t size);
    void Write() override;
    std::uint32_t GetSize() const override;
    virtual std::uint64_t GetDataSize() const { return m_dataSize; }

    std::uint64_t m_dataSize = 0;  // sum of all sizes, bytes

private:
    bool AllEqual() const;
};

// Sample to chunk. Kept as a count per chunk, because the run-length form is only known at the end.
class CMp4StscAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void AddSample(bool newChunk);
    void Write() override;
    std::uint32_t GetSize() const override;

    // The samples in each chunk. In pieces, because a contiguous array stands in memory twice
    // whenever it grows.
    std::deque<std::uint32_t> m_chunks;

private:
    std::uint32_t CountEntries() const;

    // Counted along, so that nobody who asks for the size of a long recording walks its chunks.
    std::uint32_t m_fullEntries = 0;  // entries of all chunks but the last
    std::uint32_t m_lastLength = 0;   // samples in each chunk of the last of them
};

class CMp4StcoAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void AddChunk(std::uint64_t offset);  // Kept: the upper 32 bits are cut off
    void Write() override { Table("stco", 4); }
    std::uint32_t GetSize() const override
    {
        return static_cast<std::uint32_t>(m_buffer.Size()) + 16;
    }
};

class CMp4Co64Atom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void AddChunk(std::uint64_t offset);
    void Write() override { Table("co64", 8); }
    std::uint32_t GetSize() const override
    {
        return static_cast<std::uint32_t>(m_buffer.Size()) + 16;
    }
};

// Sync samples, by 1-based sample number.
class CMp4StssAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void AddSample(std::uint32_t number);
    void Write() override { Table("stss", 4); }
    std::uint32_t GetSize() const override
    {
        return static_cast<std::uint32_t>(m_buffer.Size()) + 16;
    }
};

class CMp4StblAtom : public CMp4Atom {
public:
    explicit CMp4StblAtom(IBaseIO* io)
        : CMp4Atom(io), m_stts(io), m_ctts(io), m_stsz(io), m_stsc(io), m_stco(io), m_co64(io)
    {
    }
    void Write() override;
    std::uint32_t GetSize() const override;
    virtual std::uint64_t GetDataSize() const { return m_stsz.GetDataSize(); }
    virtual void WriteSampleDescription() = 0;
    virtual void WriteSyncTable() = 0;

    // One sample for all tables; times in ticks.
    void AddSample(std::uint64_t offset, std::int32_t size, std::uint64_t presentationTime,
                   std::uint64_t decodingTime, bool newChunk);

    CMp4SttsAtom m_stts;
    CMp4CttsAtom m_ctts;
    CMp4StszAtom m_stsz;
    CMp4StscAtom m_stsc;
    std::uint8_t m_useCo64 = 0;  // set before the first sample; only that table is fed
    CMp4StcoAtom m_stco;
    CMp4Co64Atom m_co64;
};

class CMp4VideoStblAtom final : public CMp4StblAtom {
public:
    explicit CMp4VideoStblAtom(IBaseIO* io) : CMp4StblAtom(io), m_stsd(io), m_stss(io) {}
    std::uint32_t GetSize() const override
    {
        return CMp4StblAtom::GetSize() + m_stsd.GetSize() + m_stss.GetSize();
    }
    void WriteSampleDescription() override { m_stsd.Write(); }
    void WriteSyncTable() override { m_stss.Write(); }

    CMp4VideoStsdAtom m_stsd;
    CMp4StssAtom m_stss;
};

class CMp4AudioStblAtom final : public CMp4StblAtom {
public:
    explicit CMp4AudioStblAtom(IBaseIO* io) : CMp4StblAtom(io), m_stsd(io) {}
    std::uint32_t GetSize() const override { return CMp4StblAtom::GetSize() + m_stsd.GetSize(); }
    void WriteSampleDescription() override { m_stsd.Write(); }
    void WriteSyncTable() override {}

    CMp4AudioStsdAtom m_stsd;
};

class CMp4SubtitleStblAtom final : public CMp4StblAtom {
public:
    explicit CMp4SubtitleStblAtom(IBaseIO* io) : CMp4StblAtom(io), m_stsd(io) {}
    std::uint32_t GetSize() const override { return CMp4StblAtom::GetSize() + m_stsd.GetSize(); }
    void WriteSampleDescription() override { m_stsd.Write(); }
    void WriteSyncTable() override {}

    CMp4SubtitleStsdAtom m_stsd;
};

// The time-code track's tables; built for one sample, and not of the family above.
class CMp4TMCDStblAtom final : public CMp4Atom {
public:
    explicit CMp4TMCDStblAtom(IBaseIO* io)
        : CMp4Atom(io), m_stsd(io), m_stsz(io), m_stsc(io), m_stts(io), m_stco(io), m_co64(io)
    {
    }
    void AddSample(std::uint64_t offset, bool newChunk);
    void Write() override;
    std::uint32_t GetSize() const override;

    CMp4TMCDStsdAutom m_stsd;
    CMp4StszAtom m_stsz;
    CMp4StscAtom m_stsc;
    CMp4SttsAtom m_stts;
    std::uint8_t m_useCo64 = 0;  // as in CMp4StblAtom
    CMp4StcoAtom m_stco;
    CMp4Co64Atom m_co64;
};
