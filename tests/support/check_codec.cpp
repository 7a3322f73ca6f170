#include "support/check.h"

namespace kvtest {

namespace {

// Reads fields one behind the other; a field that is cut or not as expected ends it for good.
class Fields {
public:
    Fields(const BoxFile& file, std::size_t begin, std::size_t end)
        : m_file(file), m_at(begin), m_end(end)
    {
    }

    std::uint32_t Take(std::size_t bytes)
    {
        std::uint32_t value = 0;
        for (; bytes > 0 && Has(1); --bytes)
            value = value << 8 | m_file.All()[m_at++];
        return value;
    }
    void Skip(std::size_t bytes)
    {
        if (Has(bytes))
            m_at += bytes;
    }
    // A value that must be so.
    void Take(std::size_t bytes, std::uint32_t value) { Require(Take(bytes) == value); }
    void Require(bool holds) { m_sound = m_sound && holds; }
    // A tag and a length in the expandable form of four bytes, up to `to`, where 0 is any place.
    std::size_t Descriptor(std::uint32_t tag, std::size_t to)
    {
        Take(1, tag);
        std::size_t length = 0;
        for (int i = 0; i < 4; ++i) {
            const std::uint32_t byte = Take(1);
            Require((byte >> 7 != 0) == (i < 3));
            length = length << 7 | (byte & 127);
        }
        Require(m_at + length <= m_end && (to == 0 || m_at + length == to));
        return m_at + length;
    }
    std::size_t At() const { return m_at; }
    bool AllTaken() const { return m_sound && m_at == m_end; }
    bool Sound() const { return m_sound; }

private:
    bool Has(std::size_t bytes)
    {
        m_sound = m_sound && m_end - m_at >= bytes;
        return m_sound;
    }

    const BoxFile& m_file;
    std::size_t m_at;
    const std::size_t m_end;
    bool m_sound = true;
};

// One parameter set of H.264 behind its 16-bit length.
void ParameterSet(Fields& f, std::uint32_t type)
{
    const std::uint32_t length = f.Take(2);
    f.Require(length > 0);
    f.Require((f.Take(1) & 31) == type);
    f.Skip(length - 1);
}

bool AvcC(const BoxFile& file, Fields f)
{
    f.Take(1, 1);  // version
    const std::uint32_t profileAndLevel = f.Take(3);
    f.Take(1, 0xFF);  // lengths of four bytes
    f.Take(1, 0xE1);  // one sequence parameter set
    f.Require(f.At() + 6 <= file.All().size() &&
              (file.U32(f.At() + 2) & 0xFFFFFF) == profileAndLevel);
    ParameterSet(f, 7);
    f.Take(1, 1);
    ParameterSet(f, 8);
    return f.AllTaken();
}

bool HvcC(Fields f)
{
    f.Take(1, 1);  // version
    f.Skip(12);    // profile, tier and level
    f.Require(f.Take(2) >> 12 == 0xF);
    for (const std::uint32_t reserved : {0xFCu, 0xFCu, 0xF8u, 0xF8u})
        f.Require((f.Take(1) & reserved) == reserved);
    f.Skip(2);
    f.Require((f.Take(1) & 3) == 3);  // lengths of four bytes
    std::uint32_t types = 0;
    for (std::uint32_t arrays = f.Take(1); arrays > 0 && f.Sound(); --arrays) {
        const std::uint32_t type = f.Take(1) & 63;
        for (std::uint32_t units = f.Take(2); units > 0 && f.Sound(); --units) {
            const std::uint32_t length = f.Take(2);
            f.Require(length > 1 && f.Take(1) >> 1 == type);
            f.Skip(length - 1);
        }
        types = types << 8 | type;
    }
    f.Require(types == 0x202122);  // video, sequence and picture parameter sets
    return f.AllTaken();
}

bool Esds(Fields f, std::size_t end)
{
    f.Take(4, 0);
    f.Descriptor(3, end);
    f.Skip(2);  // the id
    f.Take(1, 0);
    const std::size_t decoderEnd = f.Descriptor(4, 0);
    f.Take(1, 0x40);  // MPEG-4 audio
    f.Take(1, 0x15);  // an audio stream
    f.Skip(11);
    const std::size_t configEnd = f.Descriptor(5, decoderEnd);
    f.Skip(configEnd - f.At());
    f.Descriptor(6, end);
    f.Take(1, 2);
    return f.AllTaken();
}

}  // namespace

std::string CheckConfiguration(const BoxFile& file, const BoxNode& box)
{
    const Fields fields(file, box.span.begin + box.header, box.span.end);
    const bool sound = box.type == "avcC"   ? AvcC(file, fields)
                       : box.type == "hvcC" ? HvcC(fields)
                                            : Esds(fields, box.span.end);
    return sound ? "" : box.type + " does not hold together";
}

bool UnitsFill(const BoxFile& file, std::size_t begin, std::size_t end)
{
    while (end - begin >= 4 && file.U32(begin) <= end - begin - 4)
        begin += 4 + file.U32(begin);
    return begin == end;
}

}  // namespace kvtest
