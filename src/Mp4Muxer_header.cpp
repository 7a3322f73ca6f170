// The boxes outside `moov`.
#include "Mp4Muxer.h"

void CMp4FtypAtom::Write()
{
    const std::int64_t start = m_io->Tell();
    CFieldWriter f(*m_io);
    f.U32(0);
    f.Code("ftyp");
    f.Code(m_isQuickTime ? "qt  " : "isom");  // major brand
    f.U32(0x00000200);                        // minor version
    if (m_isQuickTime) {
        f.Code("qt  ");
    } else {
        f.Code("isom");
        f.Code("iso2");
        if (m_hasAvc1)
            f.Code("avc1");
        f.Code("mp41");
    }
    FinishBox(start);
}

void CMp4FreeAtom::Write()
{
    TrueSize("free", 8, [](CFieldWriter&) {});
}

void CMp4MdatAtom::Write()
{
    m_start = static_cast<std::uint64_t>(m_io->Tell());
    CFieldWriter f(*m_io);
    f.U32(m_large ? 1 : 8);
    f.Code("mdat");
    if (m_large)
        f.U64(1);  // placeholder
}

void CMp4MdatAtom::Finish()
{
    const auto start = static_cast<std::int64_t>(m_start);
    if (!m_large) {
        FinishBox(start);
        return;
    }
    const std::int64_t end = m_io->Tell();
    m_io->Seek(start + 8, kSeekStart);
    WriteBE64(m_io, static_cast<std::uint64_t>(end) - m_start);
    m_io->Seek(end, kSeekStart);
}

void CMp4MdatAtom::UpdateSize(std::uint64_t end)
{
    const std::int64_t saved = m_io->Tell();
    m_io->Seek(static_cast<std::int64_t>(m_start), kSeekStart);
    WriteBE32(m_io, static_cast<std::uint32_t>(end - m_start));
    m_io->Seek(saved, kSeekStart);
}
