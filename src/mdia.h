// Everything between `trak` and `stbl`: media headers, handlers and their fixed words. These boxes
// carry almost no state; the tables and the sample descriptions are the unit below.
#pragma once

#include "stbl.h"

#include <cstdint>

class CMp4MdhdAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return m_version ? 44 : 32; }

    std::uint8_t m_version = 0;
    std::uint32_t m_timescale = 1000;  // ticks per second
    std::uint64_t m_duration = 0;      // ticks
};

// ---- Handlers ------------------------------------------------------------------------------

class CMp4HdlrAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 24; }
    virtual void WriteType(CFieldWriter& f) = 0;
    virtual void WriteName(CFieldWriter& f) = 0;  // a Pascal string in both file kinds
};

class CMp4VideoHdlrAtom final : public CMp4HdlrAtom {
public:
    using CMp4HdlrAtom::CMp4HdlrAtom;
    std::uint32_t GetSize() const override { return 45; }
    void WriteType(CFieldWriter& f) override;
    void WriteName(CFieldWriter& f) override;
};

class CMp4AudioHdlrAtom final : public CMp4HdlrAtom {
public:
    using CMp4HdlrAtom::CMp4HdlrAtom;
    std::uint32_t GetSize() const override { return 45; }
    void WriteType(CFieldWriter& f) override;
    void WriteName(CFieldWriter& f) override;
};

// The handler of the time-code track.
// Kept: named by what they write, not by their tracks; the class tree is known by these names.
class CMp4SubtHdlrAtom final : public CMp4HdlrAtom {
public:
    using CMp4HdlrAtom::CMp4HdlrAtom;
    std::uint32_t GetSize() const override { return 48; }
    void WriteType(CFieldWriter& f) override;
    void WriteName(CFieldWriter& f) override;
};

// The handler of the closed-caption track.
class CMp4SubtitleHdlrAtom final : public CMp4HdlrAtom {
public:
    using CMp4HdlrAtom::CMp4HdlrAtom;
    std::uint32_t GetSize() const override { return 44; }
    void WriteType(CFieldWriter& f) override;
    void WriteName(CFieldWriter& f) override;
};

// The data handler inside every `minf`.
class CMp4UrlHdlrAtom final : public CMp4HdlrAtom {
public:
    using CMp4HdlrAtom::CMp4HdlrAtom;
    std::uint32_t GetSize() const override { return 44; }
    void WriteType(CFieldWriter& f) override;
    void WriteName(CFieldWriter& f) override;
};

// ---- Media information headers -------------------------------------------------------------

class CMp4VmhdAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 20; }
};

class CMp4SmhdAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 16; }
};

class CMp4GminAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 24; }
};

class CMp4TextAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 44; }
};

// A `tmcd` box with `tcmi` inside.
class CMp4TcmiAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override;
};

class CMp4GmhdAtom final : public CMp4Atom {
public:
    explicit CMp4GmhdAtom(IBaseIO* io) : CMp4Atom(io), m_gmin(io), m_text(io), m_tcmi(io) {}
    void Write() override;
    std::uint32_t GetSize() const override
    {
        return 8 + m_gmin.GetSize() + m_text.GetSize() + m_tcmi.GetSize();
    }

    CMp4GminAtom m_gmin;
    CMp4TextAtom m_text;
    CMp4TcmiAtom m_tcmi;
};

// Kept: a plain container with two children and no version or flags; time-code tracks of MP4 files
// have it where QuickTime files have `gmhd`.
class CMp4NmhdAtom final : public CMp4Atom {
public:
    explicit CMp4NmhdAtom(IBaseIO* io) : CMp4Atom(io), m_gmin(io), m_text(io) {}
    void Write() override;
    std::uint32_t GetSize() const override { return 8 + m_gmin.GetSize() + m_text.GetSize(); }

    CMp4GminAtom m_gmin;
    CMp4TextAtom m_text;
};

class CMp4DrefAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 28; }
};

class CMp4DinfAtom final : public CMp4Atom {
public:
    explicit CMp4DinfAtom(IBaseIO* io) : CMp4Atom(io), m_dref(io) {}
    void Write() override;
    std::uint32_t GetSize() const override { return 8 + m_dref.GetSize(); }

    CMp4DrefAtom m_dref;
};

// ---- minf ----------------------------------------------------------------------------------

class CMp4MinfAtom : public CMp4Atom {
public:
    explicit CMp4MinfAtom(IBaseIO* io) : CMp4Atom(io), m_dinf(io), m_hdlr(io) {}
    void Write() override;
    virtual std::uint64_t GetDataSize() const = 0;
    virtual void WriteMediaHeader() = 0;
    virtual void WriteSampleTable() = 0;

    CMp4DinfAtom m_dinf;
    CMp4UrlHdlrAtom m_hdlr;
};

class CMp4VideoMinfAtom final : public CMp4MinfAtom {
public:
    explicit CMp4VideoMinfAtom(IBaseIO* io) : CMp4MinfAtom(io), m_vmhd(io), m_stbl(io) {}
    std::uint32_t GetSize() const override
    {
        return 8 + m_dinf.GetSize() + m_hdlr.GetSize() + m_vmhd.GetSize() + m_stbl.GetSize();
    }
    std::uint64_t GetDataSize() const override { return m_stbl.GetDataSize(); }
    void WriteMediaHeader() override { m_vmhd.Write(); }
    void WriteSampleTable() override { m_stbl.Write(); }

    CMp4VmhdAtom m_vmhd;
    CMp4VideoStblAtom m_stbl;
};

class CMp4AudioMinfAtom final : public CMp4MinfAtom {
public:
    explicit CMp4AudioMinfAtom(IBaseIO* io) : CMp4MinfAtom(io), m_smhd(io), m_stbl(io) {}
    std::uint32_t GetSize() const override
    {
        return 8 + m_dinf.GetSize() + m_hdlr.GetSize() + m_smhd.GetSize() + m_stbl.GetSize();
    }
    std::uint64_t GetDataSize() const override { return m_stbl.GetDataSize(); }
    void WriteMediaHeader() override { m_smhd.Write(); }
    void WriteSampleTable() override { m_stbl.Write(); }

    CMp4SmhdAtom m_smhd;
    CMp4AudioStblAtom m_stbl;
};

class CMp4SubtitleMinfAtom final : public CMp4MinfAtom {
public:
    explicit CMp4SubtitleMinfAtom(IBaseIO* io) : CMp4MinfAtom(io), m_gmhd(io), m_stbl(io) {}
    std::uint32_t GetSize() const override
    {
        return 8 + m_dinf.GetSize() + m_hdlr.GetSize() + m_gmhd.GetSize() + m_stbl.GetSize();
    }
    std::uint64_t GetDataSize() const override { return 0; }
    // Kept: the time-code header in both file kinds, though captions carry no time code.
    void WriteMediaHeader() override { m_gmhd.Write(); }
    void WriteSampleTable() override { m_stbl.Write(); }

    CMp4GmhdAtom m_gmhd;
    CMp4SubtitleStblAtom m_stbl;
};

// The `minf` of the time-code track; in spite of its name no base of the others.
// Kept: the name promises a base of the others, which it is not; the class tree is known by it.
class CMp4BaseMinfAtom final : public CMp4Atom {
public:
    explicit CMp4BaseMinfAtom(IBaseIO* io)
        : CMp4Atom(io), m_gmhd(io), m_nmhd(io), m_hdlr(io), m_dinf(io), m_stbl(io)
    {
    }
    void Write() override;
    std::uint32_t GetSize() const override
    {
        return 8 + (m_useNmhd ? m_nmhd.GetSize() : m_gmhd.GetSize()) + m_hdlr.GetSize() +
               m_dinf.GetSize() + m_stbl.GetSize();
    }

    CMp4GmhdAtom m_gmhd;
    CMp4NmhdAtom m_nmhd;
    CMp4UrlHdlrAtom m_hdlr;
    CMp4DinfAtom m_dinf;
    CMp4TMCDStblAtom m_stbl;
    std::uint8_t m_useNmhd = 0;  // set for MP4 files
};

// ---- mdia ----------------------------------------------------------------------------------

class CMp4MdiaAtom : public CMp4Atom {
public:
    explicit CMp4MdiaAtom(IBaseIO* io) : CMp4Atom(io), m_mdhd(io) {}
    void Write() override;
    virtual std::uint64_t GetDataSize() const = 0;
    virtual void WriteHandler() = 0;
    virtual void WriteMediaInfo() = 0;

    CMp4MdhdAtom m_mdhd;
};

class CMp4VideoMdiaAtom final : public CMp4MdiaAtom {
public:
    explicit CMp4VideoMdiaAtom(IBaseIO* io) : CMp4MdiaAtom(io), m_hdlr(io), m_minf(io) {}
    std::uint32_t GetSize() const override
    {
        return 8 + m_mdhd.GetSize() + m_hdlr.GetSize() + m_minf.GetSize();
    }
    std::uint64_t GetDataSize() const override { return m_minf.GetDataSize(); }
    void WriteHandler() override { m_hdlr.Write(); }
    void WriteMediaInfo() override { m_minf.Write(); }

    CMp4VideoHdlrAtom m_hdlr;
    CMp4VideoMinfAtom m_minf;
};

class CMp4AudioMdiaAtom final : public CMp4MdiaAtom {
public:
    explicit CMp4AudioMdiaAtom(IBaseIO* io) : CMp4MdiaAtom(io), m_hdlr(io), m_minf(io) {}
    std::uint32_t GetSize() const override
    {
        return 8 + m_mdhd.GetSize() + m_hdlr.GetSize() + m_minf.GetSize();
    }
    std::uint64_t GetDataSize() const override { return m_minf.GetDataSize(); }
    void WriteHandler() override { m_hdlr.Write(); }
    void WriteMediaInfo() override { m_minf.Write(); }

    CMp4AudioHdlrAtom m_hdlr;
    CMp4AudioMinfAtom m_minf;
};

class CMp4TCMdiaAtom final : public CMp4MdiaAtom {
public:
    explicit CMp4TCMdiaAtom(IBaseIO* io) : CMp4MdiaAtom(io), m_hdlr(io), m_minf(io) {}
    std::uint32_t GetSize() const override
    {
        return 8 + m_mdhd.GetSize() + m_hdlr.GetSize() + m_minf.GetSize();
    }
    std::uint64_t GetDataSize() const override { return 0; }
    void WriteHandler() override { m_hdlr.Write(); }
    void WriteMediaInfo() override { m_minf.Write(); }

    CMp4SubtHdlrAtom m_hdlr;
    CMp4BaseMinfAtom m_minf;
};

class CMp4SubtitleMdiaAtom final : public CMp4MdiaAtom {
public:
    explicit CMp4SubtitleMdiaAtom(IBaseIO* io) : CMp4MdiaAtom(io), m_hdlr(io), m_minf(io) {}
    std::uint32_t GetSize() const override
    {
        return 8 + m_mdhd.GetSize() + m_hdlr.GetSize() + m_minf.GetSize();
    }
    std::uint64_t GetDataSize() const override { return 0; }
    void WriteHandler() override { m_hdlr.Write(); }
    void WriteMediaInfo() override { m_minf.Write(); }

    CMp4SubtitleHdlrAtom m_hdlr;
    CMp4SubtitleMinfAtom m_minf;
};
