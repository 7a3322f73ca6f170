#include "model/tree.h"

#include <fmt/format.h>

namespace model {

namespace {

struct Item {
    std::string_view name;
    std::string_view code;
};

constexpr Item kItems[] = {
    {"title", "\xA9nam"},
    {"artist", "\xA9"
               "ART"},
    {"album_artist", "\x07"
                     "ART"},
    {"composer", "\xA9wrt"},
    {"album", "\xA9"
              "alb"},
    {"date", "\xA9"
             "day"},
    {"encoding_tool", "\xA9too"},
    {"comment", "\xA9"
                "cmt"},
    {"genre", "\xA9gen"},
    {"copyright", "\xA9"
                  "cpy"},
    {"grouping", "\xA9grp"},
    {"lyrics", "\xA9lyr"},
    {"description", "desc"},
    {"synopsis", "ldes"},
    {"show", "tvsh"},
    {"episode_id", "tven"},
    {"network", "tvnn"},
};

}  // namespace

Metadata::Metadata() : items(std::size(kItems)) {}

bool Metadata::Set(const std::optional<std::string>& key, const std::optional<Bytes>& value,
                   uint32_t type, const std::optional<std::string>& keyNamespace)
{
    if (!key) {
        return false;
    }
    if (key->starts_with("com.")) {
        hasKeys = true;
        keys.emplace_back(*key, keyNamespace.value_or("mdta"));
        if (value) {
            values.push_back({*value, type, static_cast<uint32_t>(keys.size())});
        }
        return value.has_value();
    }
    for (size_t i = 0; i < items.size(); ++i) {
        if (*key == kItems[i].name || *key == kItems[i].code) {
            items[i].reset();
            if (value) {
                items[i] = std::string(value->begin(), value->end());
            }
            return true;  // no two rows share a name or code
        }
    }
    return false;
}

uint32_t Metadata::Size() const
{
    size_t size = 8 + 45 + 8;
    for (const auto& item : items) {
        size += item ? 24 + item->size() : 0;
    }
    return static_cast<uint32_t>(size);
}

Bytes Metadata::List(Journal& journal) const
{
    Bin body;
    const auto entry = [&](const Bytes& code, uint32_t type, const Bytes& value) {
        body.U32(value.size() + 24).Raw(code);
        body.U32(value.size() + 16).Text("data").U32(type).U32(0).Raw(value);
    };
    for (size_t i = 0; i < items.size(); ++i) {
        if (items[i]) {
            entry(Bin().Text(kItems[i].code).bytes, 1, Bytes(items[i]->begin(), items[i]->end()));
        }
    }
    for (const Value& value : values) {
        const Bytes index = Bin().U32(value.index).bytes;
        if (value.type == 0 || value.type == 1) {
            entry(index, 1, value.bytes);
        } else if (value.type == 21) {
            Bytes number = value.bytes;  // the host's order, which is the least significant first
            number.resize(4);
            entry(index, 21, Bytes(number.rbegin(), number.rend()));
        } else {
            journal.Error("src/ilst", fmt::format("unknown meta data type:{}", value.type));
        }
    }
    return Bin().U32(body.bytes.size() + 8).Text("ilst").Raw(body.bytes).bytes;
}

void Metadata::Write(Target& io, Journal& journal)
{
    Nest(io, Bin().U32(8).Text("udta").bytes, [&] {
        Nest(io, Bin().U32(8).Text("meta").U32(0).bytes, [&] {
            io.Put(Bin()
                       .U32(33)
                       .Text("hdlr")
                       .U32(0)
                       .U32(0)
                       .Text(hasKeys ? "mdta" : "mdir")
                       .Text("appl")
                       .Zeros(9)
                       .bytes);
            if (hasKeys) {
                Nest(io, Bin().U32(8).Text("keys").U32(0).U32(keys.size()).bytes, [&] {
                    for (const auto& [key, space] : keys) {
                        std::string four = space.substr(0, 4);
                        four.resize(4);
                        io.Put(Bin().U32(key.size() + 8).Text(four).Text(key).bytes);
                    }
                });
            }
            if (leftOver) {  // what a failed write left goes out, or nowhere, and that is all
                leftOver = false;
                return;
            }
            const Bytes list = List(journal);
            leftOver = true;
            io.PutWhole(list);
            leftOver = false;
        });
    });
}

}  // namespace model
