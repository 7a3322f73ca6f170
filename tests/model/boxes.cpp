// The boxes between trak and the sample tables.
#include "model/tree.h"

#include <algorithm>
#include <fmt/format.h>

namespace model {

namespace {

constexpr uint32_t kDinf = 36, kDataHandler = 44;

Bytes Box(std::string_view code, const Bin& body)
{
    return Bin().U32(body.bytes.size() + 8).Text(code).Raw(body.bytes).bytes;
}

Bin Matrix()
{
    return Bin()
        .U32(0x00010000)
        .U32(0)
        .U32(0)
        .U32(0)
        .U32(0x00010000)
        .U32(0)
        .U32(0)
        .U32(0)
        .U32(0x40000000);
}

Bytes Handler(std::string_view type, std::string_view name)
{
    return Box("hdlr", Bin().U32(0).Text(type).Zeros(12).U8(name.size()).Text(name));
}

constexpr std::string_view kHandlers[4][2] = {{"mhlrvide", "VideoHandler"},
                                              {"mhlrsoun", "SoundHandler"},
                                              {"mhlrtmcd", "TimeCodeHandler"},
                                              {"clcp", "lumivane stream"}};

uint32_t HandlerSize(Kind kind)
{
    const auto& [type, name] = kHandlers[static_cast<size_t>(kind)];
    return static_cast<uint32_t>(25 + type.size() + name.size());
}

}  // namespace

Bytes Tree::Tkhd(const Track& track, uint64_t duration) const
{
    const bool isVideo = track.kind == Kind::Video;
    const uint32_t width = isVideo ? m_width : 0;
    const int wide = track.longForm ? 8 : 4;
    Bin b;
    b.U8(track.longForm ? 1 : 0).Zeros(2).U8(track.kind == Kind::TimeCode ? 2 : 3);
    b.Number(0, wide).Number(0, wide).U32(track.id).U32(0).Number(duration, wide);
    b.Zeros(8).U16(0).U16(track.kind == Kind::Audio ? 1 : 0).U16(width != 0 ? 0 : 0x0100).U16(0);
    b.Raw(Matrix().bytes).U32(width << 16).U32((isVideo ? m_height : 0) << 16);
    return Box("tkhd", b);
}

Bytes Tree::Elst(const Track& track, uint64_t duration) const
{
    const int wide = track.longForm ? 8 : 4;
    return Box("elst", Bin()
                           .U8(track.longForm ? 1 : 0)
                           .Zeros(3)
                           .U32(1)
                           .Number(duration, wide)
                           .Number(0, wide)
                           .U32(0x00010000));
}

void Tree::WriteTrack(Track& track)
{
    if (track.id == 0) {
        return;
    }
    if (track.times.empty()) {
        m_journal.Error("src/trak", "audio track samples 0");
        return;
    }
    Nest("trak", [&] {
        const uint64_t ticks = track.Duration();
        uint64_t duration = ticks;
        if (track.timescale != 1000) {
            const int64_t product = static_cast<int64_t>(1000 * ticks);
            duration = track.timescale == 0
                           ? 0
                           : static_cast<uint64_t>(product / static_cast<int64_t>(track.timescale));
        }
        m_io.PutWhole(Tkhd(track, duration));
        Nest("edts", [&] { m_io.PutWhole(Elst(track, duration)); });
        if (track.kind == Kind::Video && !m_references.empty()) {
            Nest("tref", [&] {
                for (const uint32_t id : m_references) {
                    Nest("tmcd", [&] { m_io.Put(Bin().U32(id).bytes); });
                }
            });
        }
        WriteMedia(track);
    });
}

void Tree::WriteMedia(Track& track)
{
    const uint64_t duration = track.Duration();
    const int wide = track.longForm ? 8 : 4;
    if (track.kind == Kind::TimeCode) {
        track.loneDelta = static_cast<uint32_t>(duration);
    }
    Nest("mdia", [&] {
        m_io.PutWhole(Box("mdhd", Bin()
                                      .U8(track.longForm ? 1 : 0)
                                      .Zeros(3)
                                      .Number(0, wide)
                                      .Number(0, wide)
                                      .U32(track.mdhdTimescale)
                                      .Number(duration, wide)
                                      .U16(0x55C4)
                                      .U16(0)));
        const auto& [type, name] = kHandlers[static_cast<size_t>(track.kind)];
        m_io.PutWhole(Handler(type, name));
        Nest("minf", [&] {
            WriteMediaHeader(track.kind);
            m_io.PutWhole(Handler("dhlrurl ", "DataHandler"));
            Nest("dinf", [&] {
                m_io.PutWhole(Box("dref", Bin().U32(0).U32(1).U32(12).Text("url ").U32(1)));
            });
            Nest("stbl", [&] {
                WriteDescription(track);
                WriteTables(track);
            });
        });
    });
}

void Tree::WriteMediaHeader(Kind kind)
{
    if (kind == Kind::Video) {
        m_io.Put(Box("vmhd", Bin().U32(1).Zeros(8)));
        return;
    }
    if (kind == Kind::Audio) {
        m_io.Put(Box("smhd", Bin().U32(0).Zeros(4)));
        return;
    }
    const bool plain = kind == Kind::TimeCode && !m_quickTime;
    Nest(plain ? "nmhd" : "gmhd", [&] {
        Nest("gmin", [&] {
            m_io.Put(Bin().U32(0).U16(0x0040).U16(0x8000).U16(0x8000).U16(0x8000).U32(0).bytes);
        });
        m_io.PutWhole(Box("text", Matrix()));
        if (!plain) {
            Nest("tmcd", [&] {
                m_io.PutWhole(Box("tcmi", Bin()
                                              .U32(0)
                                              .U16(0)
                                              .U16(1)
                                              .U16(12)
                                              .U16(0)
                                              .U16(0xFFFF)
                                              .U16(0xFFFF)
                                              .U16(0xFFFF)
                                              .Zeros(6)
                                              .U8(13)
                                              .Text("Lucida Grande")));
            });
        }
    });
}

void Tree::WriteDescription(Track& track)
{
    model::Nest(m_io, Bin().U32(12).Text("stsd").U32(0).U32(1).bytes, [&] {
        switch (track.kind) {
        case Kind::Video: WriteVideoEntry(); break;
        case Kind::Audio: WriteAudioEntry(); break;
        case Kind::TimeCode:
            model::Nest(m_io,
                        Bin()
                            .U32(12)
                            .Text("tmcd")
                            .Zeros(6)
                            .U16(1)
                            .U32(0)
                            .U32(m_tmcd.flags)
                            .U32(m_tmcd.timescale)
                            .U32(m_tmcd.frameDuration)
                            .U8(m_tmcd.framesPerSecond)
                            .Zeros(3)
                            .bytes,
                        [] {});
            break;
        case Kind::Caption:
            model::Nest(m_io, Bin().U32(12).Text(m_captionCode).Zeros(6).U16(1).bytes, [] {});
            break;
        }
    });
}

void Tree::WriteVideoEntry()
{
    Bin b;
    b.U32(12).Text(m_videoCode).Zeros(6).U16(1).U32(0).Text(m_isProRes ? "appl" : "");
    b.Zeros(m_isProRes ? 8 : 12).U16(m_width).U16(m_height).U32(0x00480000).U32(0x00480000);
    b.U32(0).U16(1).U8(m_compressor.size()).Text(m_compressor).Zeros(31 - m_compressor.size());
    b.U16(m_videoCode == "ap4x" || m_videoCode == "ap4h" ? 32 : 24).U16(0xFFFF);
    if (m_isProRes) {
        b.U32(10).Text("fiel").U8(1).U8(0).U32(16).Text("pasp").U32(1).U32(1);
    }
    const uint64_t start = m_io.Tell();
    m_io.PutWhole(b.bytes);
    if (m_videoCode == "hev1") {
        m_hevc.Write(m_io, m_journal);
    } else if (m_videoCode == "avc1") {
        m_avc.Write(m_io, m_journal);
    }
    Finish(m_io, start);
}

Bytes Tree::Esds() const
{
    const auto length = [](uint32_t size) {
        return Bin().U8(0x80).U8(0x80).U8(0x80).U8(size).bytes;
    };
    Bin b;
    b.U32(0).U8(3).Raw(length(34)).U16(m_esId).U8(0);
    b.U8(4).Raw(length(20)).U8(0x40).U8(0x15).Zeros(3).U32(0).U32(0);
    if (!m_audioConfig.empty()) {
        b.U8(5).Raw(length(2)).Raw(m_audioConfig);
    }
    b.U8(6).Raw(length(1)).U8(2);
    return Box("esds", b);
}

void Tree::WriteAudioEntry()
{
    Bin b;
    b.U32(12).Text(m_audioCode).Zeros(6).U16(1).U16(m_quickTime ? 1 : 0).U16(0).U32(0).U16(2);
    b.U16(16).U16(m_quickTime ? 0xFFFE : 0).U16(0).U16(m_audioRate).U16(0);
    b.Zeros(m_quickTime ? 16 : 0);
    const uint64_t start = m_io.Tell();
    m_io.PutWhole(b.bytes);
    if (m_quickTime) {
        const uint64_t wave = m_io.Tell();
        m_io.PutWhole(
            Bin().U32(12).Text("wave").U32(12).Text("frmamp4a").U32(12).Text("mp4a").U32(0).bytes);
        m_io.PutWhole(Esds());
        m_io.PutWhole(Bin().U32(8).U32(0).bytes);
        Finish(m_io, wave);
    } else {
        m_io.PutWhole(Esds());
    }
    Finish(m_io, start);
}

uint32_t Tree::DescriptionSize(const Track& track) const
{
    switch (track.kind) {
    case Kind::Video:
        return 102 + (m_videoCode == "hev1" ? m_hevc.Size() : 0) +
               (m_videoCode == "avc1" ? m_avc.Size() : 0);
    case Kind::Audio: return 96;
    case Kind::TimeCode: return 52;
    case Kind::Caption: return 32;
    }
    return 0;
}

uint32_t Tree::TrackSize(const Track& track) const
{
    if (!track.IsWritten()) {
        return 0;
    }
    static constexpr uint32_t kMediaHeaders[4] = {20, 16, 76, 130};
    uint32_t size = 8 + (track.longForm ? 104u : 92u) + 8 + (track.longForm ? 36u : 28u);
    size += 8 + (track.longForm ? 44u : 32u) + HandlerSize(track.kind);
    size += 8 + kDinf + kDataHandler + kMediaHeaders[static_cast<size_t>(track.kind)];
    size += track.kind == Kind::TimeCode && m_quickTime ? 130 - 76 : 0;
    size += 8 + DescriptionSize(track) + track.TablesSize();
    if (track.kind == Kind::Video) {
        size += static_cast<uint32_t>(16 + 4 * track.syncs.size());
        size += static_cast<uint32_t>(m_references.empty() ? 0 : 8 + 12 * m_references.size());
    }
    return size;
}

uint32_t Tree::Size() const
{
    return 8 + (m_longForm ? 120u : 108u) + TrackSize(m_video) + TrackSize(m_audio) +
           TrackSize(m_timeCode) + TrackSize(m_caption) + m_metadata.Size();
}

}  // namespace model
