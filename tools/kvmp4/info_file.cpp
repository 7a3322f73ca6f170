#include "info_file.h"

#include "box_tree.h"
#include "codec_config.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

using Json = nlohmann::ordered_json;

namespace {

constexpr std::uint8_t kInfoFlag = 0x10;

const std::array<const char*, 10> kNames = {"",
                                            "metadata",
                                            "video track",
                                            "audio track",
                                            "video frame",
                                            "audio frame",
                                            "caption track",
                                            "caption frame",
                                            "time code track",
                                            "time code"};

class InfoReader {
public:
    InfoReader(ByteSource& source, const std::function<void(const InfoPacket&)>& each)
        : m_each(each), f(source, 0, source.Size())
    {
    }

    InfoFile Run()
    {
        m_info.flags = f.U8();
        m_info.mdatPosition = f.U32();
        while (f.Sound() && f.Left() > 0)
            if (!Packet())
                break;
        return m_info;
    }

private:
    bool Packet()
    {
        m_info.end = f.At();
        const unsigned tag = f.U8();
        if (tag == 0 || tag >= kNames.size()) {
            m_info.stopped = fmt::format("no packet has the tag {}", tag);
            m_info.damaged = true;
            return false;
        }
        InfoPacket packet{m_info.end, kNames[tag], Json::object()};
        m_fields = &packet.fields;
        Fields(tag);
        if (!f.Sound()) {
            m_info.stopped = fmt::format("a cut {}", kNames[tag]);
            return false;
        }
        m_info.end = f.At();
        ++m_info.packets;
        Json& count = m_info.counts[kNames[tag]];
        count = count.is_null() ? 1 : count.get<std::uint64_t>() + 1;
        const bool frame = tag == 4 || tag == 5 || tag == 7 || tag == 9;
        if (!frame)
            m_info.setUp.push_back(packet);
        if (m_each)
            m_each(packet);
        return true;
    }

    Json& At(const char* name) { return (*m_fields)[name]; }

    void Fields(unsigned tag)
    {
        switch (tag) {
        case 1: Metadata(); break;
        case 2: Video(); break;
        case 3: Audio(); break;
        case 4:
            At("pts") = f.U64();
            At("dts") = f.U64();
            At("key") = f.U8() != 0;
            At("size") = f.U32();
            break;
        case 5:
        case 7:
            At("time") = f.U64();
            At("size") = f.U32();
            break;
        case 6: {
            At("timescale") = f.U32();
            const unsigned codec = f.U8();
            At("codec") = codec == 1 ? "CEA-608" : codec == 2 ? "CEA-708" : std::to_string(codec);
            break;
        }
        case 8:
            At("timescale") = f.U32();
            At("frame duration") = f.U64();
            At("frames a second") = f.U8();
            At("flags") = f.U32();
            break;
        default: At("frame number") = f.U32(); break;
        }
    }

    // A text behind its length, with its end mark.
    std::string Text()
    {
        std::string text = f.Text(f.U32());
        return ReadableText(text.substr(0, text.find('\0')));
    }

    void Metadata()
    {
        const unsigned type = f.U8();
        At("type") = type;
        At("key") = Text();
        if (type == 1) {
            At("value") = Text();
        } else {
            const std::uint32_t size = f.U32();
            f.Skip(size);
            At("bytes") = size;
        }
        if (const std::string space = Text(); !space.empty())
            At("namespace") = space;
    }

    void Video()
    {
        At("timescale") = f.U32();
        At("sample duration") = f.U64();
        const unsigned codec = f.U8();
        At("codec") = codec == 0   ? "H.264"
                      : codec == 1 ? "HEVC"
                      : codec == 2 ? "ProRes"
                                   : std::to_string(codec);
        At("width") = f.U16();
        At("height") = f.U16();
        if (codec == 2) {
            At("format") = f.U8();
            return;
        }
        if (codec == 1)
            Unit("vps");
        Unit("sps");
        Unit("pps");
    }

    void Unit(const char* name)
    {
        const std::uint32_t size = f.U32();
        f.Skip(size);
        At(name) = size;
    }

    void Audio()
    {
        At("timescale") = f.U32();
        At("sample duration") = f.U64();
        const unsigned codec = f.U8();
        At("codec") = codec == 1 ? "AAC" : codec == 2 ? "AAC in ADTS" : std::to_string(codec);
        At("rate") = f.U16();
        At("channels") = f.U16();
        At("object type") = f.U8();
    }

    const std::function<void(const InfoPacket&)>& m_each;
    FieldReader f;
    InfoFile m_info;
    Json* m_fields = nullptr;
};

}  // namespace

bool LooksLikeInfoFile(ByteSource& source)
{
    FieldReader f(source, 0, source.Size());
    const std::uint8_t flags = f.U8();
    const std::uint32_t position = f.U32();
    const std::uint8_t tag = f.Left() > 0 ? f.U8() : 1;
    // "mdat" stands behind the brands, and behind "free" in MP4 files.
    return f.Sound() && (flags & kInfoFlag) != 0 && (flags & 0xC0) == 0 &&
           (position == 20 || position == 36) && tag > 0 && tag < kNames.size();
}

InfoFile ReadInfoFile(ByteSource& source, const std::function<void(const InfoPacket&)>& each)
{
    return InfoReader(source, each).Run();
}

std::string InfoFlags(std::uint8_t flags)
{
    static constexpr std::pair<unsigned, const char*> names[] = {{1, "version 1"},
                                                                 {2, "large file"},
                                                                 {8, "safe mode"},
                                                                 {16, "info file"},
                                                                 {32, "fast header"}};
    std::string text;
    for (const auto& [bit, name] : names)
        if (flags & bit)
            text += (text.empty() ? "" : ", ") + std::string(name);
    return text;
}
