#include "stsd.h"

#include "log.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#define UNIT "src/stsd"

namespace {

bool Is(const char (&fourcc)[4], const char* code)
{
    return std::memcmp(fourcc, code, 4) == 0;
}

}  // namespace

void CMp4StsdAtom::Write()
{
    Entry(
        "stsd",
        [](CFieldWriter& f) {
            f.VersionFlags(0, 0);
            f.U32(1);  // entry count
        },
        [this] { WriteSampleEntry(); });
}

// ---- Video ---------------------------------------------------------------------------------

void CMp4VideoStsdAtom::WriteSampleEntry()
{
    const bool proRes = m_family == 2;
    Entry(
        m_fourcc,
        [&](CFieldWriter& f) {
            f.Zeros(6);  // reserved
            f.U16(1);    // data reference index
            f.U16(0);    // version
            f.U16(0);    // revision
            if (proRes)
                f.Code("appl");  // vendor
            else
                f.U32(0);
            f.U32(0);  // temporal quality
            f.U32(0);  // spatial quality
            f.U16(m_width);
            f.U16(m_height);
            f.U32(0x00480000);  // 72 dpi
            f.U32(0x00480000);
            f.U32(0);  // data size
            f.U16(1);  // frame count
            f.U8(static_cast<std::uint8_t>(m_compressor.size()));
            const std::string_view name = std::string_view(m_compressor).substr(0, 31);
            f.Text(name);
            f.Zeros(31 - name.size());
            f.U16(Is(m_fourcc, "ap4x") || Is(m_fourcc, "ap4h") ? 32 : 24);  // depth
            f.U16(0xFFFF);                                                  // colour table id
            if (proRes) {
                // Kept: every ProRes file declares progressive pictures and square pixels.
                f.U32(10);
                f.Code("fiel");
                f.U8(1);
                f.U8(0);
                f.U32(16);
                f.Code("pasp");
                f.U32(1);
                f.U32(1);
            }
        },
        [&] {
            if (Is(m_fourcc, "hev1"))
                m_hvcc.Write();
            else if (Is(m_fourcc, "avc1"))
                m_avcc.Write();
        });
}

std::uint32_t CMp4VideoStsdAtom::GetSize() const
{
    // Kept: "fiel" and "pasp" of ProRes are not counted; the size warning tells.
    if (Is(m_fourcc, "hev1"))
        return 102 + m_hvcc.GetSize();
    if (Is(m_fourcc, "avc1"))
        return 102 + m_avcc.GetSize();
    return 102;
}

void CMp4VideoStsdAtom::SetProRes(const std::uint32_t* format)
{
    static constexpr struct {
        const char* type;
        const char* compressor;
    } kFormats[] = {
        {"apco", "Apple ProRes 422 Proxy"}, {"apcs", "Apple ProRes 422 LT"},
        {"apcn", "Apple ProRes 422"},       {"apch", "Apple ProRes 422 HQ"},
        {"ap4h", "Apple ProRes 4444"},      {"ap4x", "Apple ProRes 4444 XQ"},
    };
    m_family = 2;
    if (*format < std::size(kFormats)) {
        m_proResType = kFormats[*format].type;
        m_compressor = kFormats[*format].compressor;
    } else {
        LOG_ERROR("invalid prores format {}", *format);
    }
    // Kept: an invalid format on a fresh track gives an empty type, and the track goes on.
    char fourcc[4] = {};
    m_proResType.copy(fourcc, 4);
    std::memcpy(m_fourcc, fourcc, 4);
}

void CMp4FielAtom::Write()
{
    TrueSize("fiel", 10, [this](CFieldWriter& f) {
        f.U8(m_fields);
        f.U8(0);
    });
}

// ---- Audio ---------------------------------------------------------------------------------

void CMp4AudioStsdAtom::WriteSampleEntry()
{
    if (m_mov)
        WriteEntryMov();
    else
        WriteEntryMp4();
}

void CMp4AudioStsdAtom::EntryFields(CFieldWriter& f, std::uint16_t version,
                                    std::uint16_t compressionId) const
{
    f.Zeros(6);  // reserved
    f.U16(1);    // data reference index
    f.U16(version);
    f.U16(0);   // revision
    f.U32(0);   // vendor
    f.U16(2);   // Kept: channels are this constant; the decoder configuration has the real count
    f.U16(16);  // sample size
    f.U16(compressionId);
    f.U16(0);  // packet size
    f.U16(m_sampleRate < 65536 ? static_cast<std::uint32_t>(m_sampleRate) : 0);
    f.U16(0);  // fraction of the rate
}

void CMp4AudioStsdAtom::WriteEntryMp4()
{
    Entry(
        m_fourcc, [this](CFieldWriter& f) { EntryFields(f, 0, 0); }, [this] { m_esds.Write(); });
}

void CMp4AudioStsdAtom::WriteEntryMov()
{
    Entry(
        m_fourcc,
        [this](CFieldWriter& f) {
            EntryFields(f, 1, 0xFFFE);
            f.Zeros(16);  // samples per packet, bytes per packet, per frame, per sample
        },
        [this] { m_wave.Write(); });
}

// ---- Captions and time code ----------------------------------------------------------------

void CMp4SubtitleStsdAtom::WriteSampleEntry()
{
    Entry(
        m_fourcc,
        [](CFieldWriter& f) {
            f.Zeros(6);  // reserved
            f.U16(1);    // data reference index
        },
        [] {});
}

void CMp4SubtitleStsdAtom::SetCodec(std::uint32_t codec)
{
    switch (codec) {
    case MP4_SUBTITLE_CEA608: std::memcpy(m_fourcc, "c608", 4); break;
    case MP4_SUBTITLE_CEA708: std::memcpy(m_fourcc, "c708", 4); break;
    default: LOG_ERROR("unknown subtitle codec {}", codec); break;
    }
}

void CMp4TMCDStsdAutom::WriteSampleEntry()
{
    Entry(
        "tmcd",
        [this](CFieldWriter& f) {
            f.Zeros(6);  // reserved
            f.U16(1);    // data reference index
            f.U32(0);    // reserved
            f.U32(m_flags);
            f.U32(m_timescale);
            f.U32(m_frameDuration);
            f.U8(m_frames);
            f.U8(0);   // reserved
            f.U16(0);  // reserved
        },
        [] {});
}

void CMp4TMCDUdatAtom::Write()
{
    Container("udta", [this] {
        CFieldWriter sink(*m_io);
        sink.U32(20);
        sink.Code("name");
        sink.Text("Lumivane");
        sink.Zeros(4);
    });
}
