#include "ilst.h"

#include "log.h"

#include <algorithm>
#include <cstring>

#define UNIT "src/ilst"

namespace {

constexpr std::uint32_t kBinary = MP4_METADATA_BINARY;
constexpr std::uint32_t kText = MP4_METADATA_TEXT;
constexpr std::uint32_t kInteger = MP4_METADATA_INTEGER;

constexpr std::uint32_t kNamespaceSize = 4;  // bytes of it that reach the file

}  // namespace

// ---- ilst ----------------------------------------------------------------------------------

CMp4IlstAtom::CMp4IlstAtom(IBaseIO* io)
    : CMp4Atom(io),
      m_items{
          {"\xA9" "nam", "title", {}},
          {"\xA9" "ART", "artist", {}},
          {"\x07" "ART", "album_artist", {}},  // Kept: 07 is no letter; readers know it so
          {"\xA9" "wrt", "composer", {}},
          {"\xA9" "alb", "album", {}},
          {"\xA9" "day", "date", {}},
          {"\xA9" "too", "encoding_tool", {}},
          {"\xA9" "cmt", "comment", {}},
          {"\xA9" "gen", "genre", {}},
          {"\xA9" "cpy", "copyright", {}},
          {"\xA9" "grp", "grouping", {}},
          {"\xA9" "lyr", "lyrics", {}},
          {"desc", "description", {}},
          {"ldes", "synopsis", {}},
          {"tvsh", "show", {}},
          {"tven", "episode_id", {}},
          {"tvnn", "network", {}},
      }
{
}

bool CMp4IlstAtom::SetItem(const char* key, const char* value)
{
    if (!key)
        return false;
    bool matched = false;
    for (Item& item : m_items) {
        if (std::strcmp(key, item.name) != 0 && std::strcmp(key, item.code) != 0)
            continue;
        item.value.reset();
        matched = true;
        if (value) {
            item.value = value;
            break;
        }
    }
    return matched;
}

bool CMp4IlstAtom::AddKeyValue(std::uint32_t keyIndex, const void* value, std::uint32_t size,
                               std::uint32_t type)
{
    if (!value)
        return false;
    const auto* bytes = static_cast<const char*>(value);
    const bool counted = type == kBinary || type == kInteger;
    std::string text = counted ? std::string(bytes, size) : std::string(bytes);
    m_keyValues.push_back({std::move(text), type, keyIndex});
    return true;
}

void CMp4IlstAtom::Write()
{
    if (m_buffer.Size() != 0) {
        m_buffer.Flush();  // an earlier write failed half-way
        return;
    }
    Leaf("ilst", [this](CFieldWriter& f) {
        // Well-known items first, in table order; then the values of the keys, as they came.
        for (const Item& item : m_items) {
            if (!item.value)
                continue;
            const auto length = static_cast<std::uint32_t>(item.value->size());
            f.U32(length + 24);
            f.Code(item.code);
            f.U32(length + 16);
            f.Code("data");
            f.U32(kText);
            f.U32(0);
            f.Text(*item.value);
        }
        for (const KeyValue& entry : m_keyValues) {
            // Kept: accepted when it was set and reported by every write; callers know no error.
            if (entry.type != kBinary && entry.type != kText && entry.type != kInteger) {
                LOG_ERROR("unknown meta data type:{}", entry.type);
                continue;
            }
            const bool integer = entry.type == kInteger;
            const auto length = integer ? 4 : static_cast<std::uint32_t>(entry.value.size());
            f.U32(length + 24);
            f.U32(entry.keyIndex);
            f.U32(length + 16);
            f.Code("data");
            // Kept: binary values are marked as text; readers take them so.
            f.U32(integer ? kInteger : kText);
            f.U32(0);
            if (integer) {
                std::uint32_t number = 0;  // host order; a short value is padded with zeros
                std::memcpy(&number, entry.value.data(),
                            std::min(sizeof number, entry.value.size()));
                f.U32(number);
            } else {
                f.Text(entry.value);
            }
        }
    });
}

std::uint32_t CMp4IlstAtom::GetSize() const
{
    std::uint32_t size = 8;
    for (const Item& item : m_items) {
        if (item.value)
            size += 24 + static_cast<std::uint32_t>(item.value->size());
    }
    return size;
}

// ---- keys ----------------------------------------------------------------------------------

std::uint32_t CMp4KeysAtom::AddKey(const char* key, const char* key_namespace)
{
    m_entries.emplace_back(key, key_namespace ? key_namespace : "mdta");
    return m_nextIndex++;
}

void CMp4KeysAtom::Write()
{
    Container("keys", [this] {
        CFieldWriter f(*m_io);
        f.VersionFlags(0, 0);
        f.U32(m_nextIndex - 1);  // entry count
        for (const auto& [key, space] : m_entries) {
            f.U32(static_cast<std::uint32_t>(key.size()) + 8);
            char code[kNamespaceSize] = {};
            space.copy(code, kNamespaceSize);
            f.Code(code);
            f.Text(key);
        }
    });
}

std::uint32_t CMp4KeysAtom::GetSize() const
{
    std::uint32_t size = 16;
    for (const auto& entry : m_entries)
        size += 8 + static_cast<std::uint32_t>(entry.first.size());
    return size;
}

// ---- meta and udta -------------------------------------------------------------------------

bool CMp4MetaAtom::SetMetadata(const char* key, const void* value, std::uint32_t size,
                               std::uint32_t type, const char* key_namespace)
{
    if (!key)
        return false;
    if (std::strncmp(key, "com.", 4) == 0) {
        // Kept: the key is added even if its value is then refused, and again when it is there
        // already; key indexes count the calls.
        m_hasKeys = 1;
        return m_ilst.AddKeyValue(m_keys.AddKey(key, key_namespace), value, size, type);
    }
    return m_ilst.SetItem(key, static_cast<const char*>(value));
}

void CMp4MetaAtom::Write()
{
    Container("meta", [this] {
        CFieldWriter sink(*m_io);
        sink.VersionFlags(0, 0);
        TrueSize("hdlr", 33, [this](CFieldWriter& f) {
            f.VersionFlags(0, 0);
            f.U32(0);
            f.Code(m_hasKeys ? "mdta" : "mdir");
            f.Code("appl");
            f.Zeros(8);
            f.U8(0);  // an empty name
        });
        if (m_hasKeys)
            m_keys.Write();
        m_ilst.Write();
    });
}

void CMp4UdtaAtom::Write()
{
    Container("udta", [this] { m_meta.Write(); });
}
