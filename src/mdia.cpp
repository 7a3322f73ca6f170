#include "mdia.h"

#include <string_view>

namespace {

// The packed ISO 639-2 code of "und", for every track.
constexpr std::uint32_t kUndetermined = 0x55C4;

// A Pascal string that already begins with its length byte, 13.
constexpr std::string_view kFontName = "\x0DLucida Grande";

}  // namespace

void CMp4MdhdAtom::Write()
{
    const std::uint8_t version = m_version ? 1 : 0;
    Leaf("mdhd", [&](CFieldWriter& f) {
        f.VersionFlags(version, 0);
        f.Wide(version, 0);  // creation time
        f.Wide(version, 0);  // modification time
        f.U32(m_timescale);
        f.Wide(version, m_duration);
        f.U16(kUndetermined);  // language
        f.U16(0);              // quality
    });
}

// ---- Handlers ------------------------------------------------------------------------------

void CMp4HdlrAtom::Write()
{
    Leaf("hdlr", [this](CFieldWriter& f) {
        f.VersionFlags(0, 0);
        WriteType(f);
        f.Zeros(12);  // manufacturer, flags, flags mask
        WriteName(f);
    });
}

void CMp4VideoHdlrAtom::WriteType(CFieldWriter& f)
{
    f.Code("mhlr");
    f.Code("vide");
}

void CMp4VideoHdlrAtom::WriteName(CFieldWriter& f)
{
    f.PascalText("VideoHandler");
}

void CMp4AudioHdlrAtom::WriteType(CFieldWriter& f)
{
    f.Code("mhlr");
    f.Code("soun");
}

void CMp4AudioHdlrAtom::WriteName(CFieldWriter& f)
{
    f.PascalText("SoundHandler");
}

void CMp4SubtHdlrAtom::WriteType(CFieldWriter& f)
{
    f.Code("mhlr");
    f.Code("tmcd");
}

void CMp4SubtHdlrAtom::WriteName(CFieldWriter& f)
{
    f.PascalText("TimeCodeHandler");
}

void CMp4SubtitleHdlrAtom::WriteType(CFieldWriter& f)
{
    f.Code("clcp");  // Kept: one word, in the place of the component type; the box has 44 bytes
}

void CMp4SubtitleHdlrAtom::WriteName(CFieldWriter& f)
{
    f.PascalText("lumivane stream");
}

void CMp4UrlHdlrAtom::WriteType(CFieldWriter& f)
{
    f.Code("dhlr");
    f.Code("url ");
}

void CMp4UrlHdlrAtom::WriteName(CFieldWriter& f)
{
    f.PascalText("DataHandler");
}

// ---- Media information headers -------------------------------------------------------------

void CMp4VmhdAtom::Write()
{
    TrueSize("vmhd", 20, [](CFieldWriter& f) {
        f.VersionFlags(0, 1);
        f.Zeros(8);  // graphics mode and colour
    });
}

void CMp4SmhdAtom::Write()
{
    TrueSize("smhd", 16, [](CFieldWriter& f) {
        f.VersionFlags(0, 0);
        f.U16(0);  // balance
        f.U16(0);  // reserved
    });
}

void CMp4GminAtom::Write()
{
    Container("gmin", [this] {
        CFieldWriter f(*m_io);
        f.VersionFlags(0, 0);
        f.U16(0x0040);  // graphics mode
        f.U16(0x8000);  // opcolor
        f.U16(0x8000);
        f.U16(0x8000);
        f.U16(0);  // balance
        f.U16(0);  // reserved
    });
}

void CMp4TextAtom::Write()
{
    Leaf("text", [](CFieldWriter& f) { f.Matrix(1, 0, 0, 1, 0, 0); });
}

void CMp4TcmiAtom::Write()
{
    Container("tmcd", [this] {
        Leaf("tcmi", [](CFieldWriter& f) {
            f.VersionFlags(0, 0);
            f.U16(0);       // text font
            f.U16(1);       // text face
            f.U16(12);      // text size
            f.U16(0);       // reserved
            f.U16(0xFFFF);  // text colour
            f.U16(0xFFFF);
            f.U16(0xFFFF);
            f.Zeros(6);  // background colour
            f.Text(kFontName);
        });
    });
}

std::uint32_t CMp4TcmiAtom::GetSize() const
{
    return static_cast<std::uint32_t>(kFontName.size()) + 40;
}

void CMp4GmhdAtom::Write()
{
    Container("gmhd", [this] {
        m_gmin.Write();
        m_text.Write();
        m_tcmi.Write();
    });
}

void CMp4NmhdAtom::Write()
{
    Container("nmhd", [this] {
        m_gmin.Write();
        m_text.Write();
    });
}

void CMp4DrefAtom::Write()
{
    CFieldWriter f(m_buffer);
    f.U32(28);
    f.Code("dref");
    f.VersionFlags(0, 0);
    f.U32(1);  // entry count
    f.U32(12);
    f.Code("url ");
    f.VersionFlags(0, 1);  // the media is in this file
    m_buffer.Flush();
}

void CMp4DinfAtom::Write()
{
    Container("dinf", [this] { m_dref.Write(); });
}

// ---- minf and mdia -------------------------------------------------------------------------

void CMp4MinfAtom::Write()
{
    Container("minf", [this] {
        WriteMediaHeader();
        m_hdlr.Write();
        m_dinf.Write();
        WriteSampleTable();
    });
}

void CMp4BaseMinfAtom::Write()
{
    Container("minf", [this] {
        if (m_useNmhd)
            m_nmhd.Write();
        else
            m_gmhd.Write();
        m_hdlr.Write();
        m_dinf.Write();
        m_stbl.Write();
    });
}

void CMp4MdiaAtom::Write()
{
    Container("mdia", [this] {
        m_mdhd.Write();
        WriteHandler();
        WriteMediaInfo();
    });
}
