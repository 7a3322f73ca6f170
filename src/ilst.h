// The tail of `moov`: `udta` with `meta`, its handler, `keys` and `ilst`. Well-known items are set
// by name or code and hold text; keys that begin with "com." are free and addressed by index.
#pragma once

#include "atom.h"

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class CMp4IlstAtom final : public CMp4Atom {
public:
    explicit CMp4IlstAtom(IBaseIO* io);
    void Write() override;
    // Kept: values addressed by key index are not counted; the size warning tells.
    std::uint32_t GetSize() const override;

    // Sets or, with a null value, removes a well-known item; true if the key is one.
    bool SetItem(const char* key, const char* value);
    // Adds a value under a key's index; false for a null value.
    bool AddKeyValue(std::uint32_t keyIndex, const void* value, std::uint32_t size,
                     std::uint32_t type);

private:
    struct KeyValue {
        std::string value;
        std::uint32_t type;
        std::uint32_t keyIndex;
    };
    struct Item {
        const char* code;  // four bytes
        const char* name;
        std::optional<std::string> value;
    };

    std::vector<KeyValue> m_keyValues;  // in order of arrival
    std::vector<Item> m_items;          // in table order
};

class CMp4KeysAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override;
    // Appends a key and returns its index; the same key twice gives two.
    std::uint32_t AddKey(const char* key, const char* key_namespace);

    std::uint32_t m_nextIndex = 1;
    std::list<std::pair<std::string, std::string>> m_entries;  // key and namespace
};

class CMp4MetaAtom final : public CMp4Atom {
public:
    explicit CMp4MetaAtom(IBaseIO* io) : CMp4Atom(io), m_ilst(io), m_keys(io) {}
    void Write() override;
    // Kept: `keys` is not counted; the size warning tells.
    std::uint32_t GetSize() const override { return 45 + m_ilst.GetSize(); }

    bool SetMetadata(const char* key, const void* value, std::uint32_t size, std::uint32_t type,
                     const char* key_namespace);

    CMp4IlstAtom m_ilst;
    CMp4KeysAtom m_keys;
    std::uint8_t m_hasKeys = 0;
};

class CMp4UdtaAtom final : public CMp4Atom {
public:
    explicit CMp4UdtaAtom(IBaseIO* io) : CMp4Atom(io), m_meta(io) {}
    void Write() override;
    std::uint32_t GetSize() const override { return 8 + m_meta.GetSize(); }

    CMp4MetaAtom m_meta;
};
