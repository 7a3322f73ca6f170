// The MPEG-4 elementary stream descriptor (ISO/IEC 14496-1) and its QuickTime wrapper.
#include "stsd.h"

void CMp4EsdsAtom::Write()
{
    Leaf("esds", [this](CFieldWriter& f) {
        f.VersionFlags(0, 0);
        f.Descriptor(0x03, 34);  // ES; Kept: 34 and 20 hold for the two-byte configuration
        f.U16(m_esId);
        f.U8(0);  // flags
        f.Descriptor(0x04, 20);  // decoder configuration
        f.U8(0x40);              // object type: MPEG-4 audio
        f.U8(0x15);              // stream type: audio
        f.U24(0);                // buffer size
        f.U32(0);                // maximum bit rate
        f.U32(0);                // average bit rate
        if (m_configSize != 0) {
            f.Descriptor(0x05, m_configSize);  // decoder specific information
            f.Bytes(m_config.get(), m_configSize);
        }
        f.Descriptor(0x06, 1);  // SL configuration
        f.U8(2);                // predefined
    });
}

std::uint32_t CMp4EsdsAtom::GetSize() const
{
    return m_configSize == 0 ? 44 : m_configSize + 49;
}

void CMp4WaveAtom::Write()
{
    Entry(
        "wave",
        [](CFieldWriter& f) {
            f.U32(12);
            f.Code("frma");
            f.Code("mp4a");
            f.U32(12);
            f.Code("mp4a");
            f.U32(0);
        },
        [this] {
            m_esds.Write();
            CFieldWriter terminator(m_buffer);
            terminator.U32(8);
            terminator.U32(0);
            m_buffer.Flush();
        });
}
