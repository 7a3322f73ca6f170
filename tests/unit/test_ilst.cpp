#include "boxes.h"
#include "ilst.h"

#include <bit>

namespace {

struct Metadata : testing::Test, On<CMp4UdtaAtom> {
    bool Set(const char* key, const char* value)
    {
        return box.m_meta.SetMetadata(key, value, 0, MP4_METADATA_TEXT, nullptr);
    }
    bool SetEx(const char* key, const std::string& value, std::uint32_t type,
               const char* keyNamespace = nullptr)
    {
        return box.m_meta.SetMetadata(key, value.c_str(), static_cast<std::uint32_t>(value.size()),
                                      type, keyNamespace);
    }
    std::string Ilst() { return Find(Written(), "udta/meta/ilst"); }
    std::string Keys() { return Find(Written(), "udta/meta/keys"); }
};

// Name and code of each row of the table.
struct Row {
    const char* name;
    const char* code;
};

const Row kRows[] = {
    {"title", "a9 'nam'"},      {"artist", "a9 'ART'"},        {"album_artist", "07 'ART'"},
    {"composer", "a9 'wrt'"},   {"album", "a9 'alb'"},         {"date", "a9 'day'"},
    {"encoding_tool", "a9 'too'"}, {"comment", "a9 'cmt'"},    {"genre", "a9 'gen'"},
    {"copyright", "a9 'cpy'"},  {"grouping", "a9 'grp'"},      {"lyrics", "a9 'lyr'"},
    {"description", "'desc'"},  {"synopsis", "'ldes'"},        {"show", "'tvsh'"},
    {"episode_id", "'tven'"},   {"network", "'tvnn'"},
};

struct NamedItem : testing::TestWithParam<Row> {};

}  // namespace

TEST_F(Metadata, WithoutAnyTheBoxHas61Bytes)
{
    EXPECT_BYTES(Written(), Hex("0000003d 'udta' 00000035 'meta' 00000000"
                                "00000021 'hdlr' 00000000 00000000 'mdir' 'appl'"
                                "0000000000000000 00 00000008 'ilst'"));
    EXPECT_EQ(box.GetSize(), 61u);
}

TEST_F(Metadata, ATitleIsOneItem)
{
    EXPECT_TRUE(Set("title", "A"));
    EXPECT_BYTES(Ilst(), Hex("00000021 'ilst' 00000019 a9 'nam' 00000011 'data'"
                             "00000001 00000000 'A'"));
    EXPECT_EQ(box.GetSize(), Written().size());
}

TEST_P(NamedItem, HasANameAndACode)
{
    for (const std::string& key : {std::string(GetParam().name), Hex(GetParam().code)}) {
        On<CMp4UdtaAtom> on;
        EXPECT_TRUE(on.box.m_meta.SetMetadata(key.c_str(), "v", 0, 1, nullptr));
        EXPECT_BYTES(Find(on.Written(), "udta/meta/ilst").substr(12, 4), Hex(GetParam().code));
    }
}

INSTANTIATE_TEST_SUITE_P(Table, NamedItem, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Metadata, NamedItemsStandInTableOrder)
{
    for (std::size_t i = std::size(kRows); i-- > 0;)
        EXPECT_TRUE(Set(kRows[i].name, "v"));
    const std::string ilst = Ilst();
    for (std::size_t i = 0; i < std::size(kRows); ++i)
        EXPECT_BYTES(ilst.substr(12 + 25 * i, 4), Hex(kRows[i].code));
}

TEST_F(Metadata, TheSecondValueReplacesTheFirst)
{
    Set("title", "first");
    EXPECT_TRUE(Set("title", "B"));
    EXPECT_BYTES(Ilst().substr(32), "B");
}

TEST_F(Metadata, ANullValueRemovesTheItem)
{
    Set("title", "A");
    EXPECT_TRUE(Set("title", nullptr));
    EXPECT_BYTES(Ilst(), Hex("00000008 'ilst'"));
}

TEST_F(Metadata, AnEmptyValueIsAnItem)
{
    Set("title", "");
    EXPECT_BYTES(Ilst(), Hex("00000020 'ilst' 00000018 a9 'nam' 00000010 'data'"
                             "00000001 00000000"));
}

TEST_F(Metadata, UnknownAndNullKeysAreRefused)
{
    EXPECT_FALSE(Set("titel", "A"));
    EXPECT_FALSE(Set("com", "A"));
    EXPECT_FALSE(Set("", "A"));
    EXPECT_FALSE(Set(nullptr, "A"));
    EXPECT_EQ(box.GetSize(), 61u);
}

// Only "com." keys look at the other arguments.
TEST_F(Metadata, ANamedItemIsTextWhateverItsType)
{
    EXPECT_TRUE(box.m_meta.SetMetadata("title", "ABC", 1, MP4_METADATA_INTEGER, "xxxx"));
    EXPECT_BYTES(Ilst().substr(24), Hex("00000001 00000000 'ABC'"));
}

TEST_F(Metadata, AComKeyMakesKeysAndAnItemByIndex)
{
    EXPECT_TRUE(Set("com.x", "AB"));
    EXPECT_EQ(Tree(Written()), "udta(meta(hdlr keys ilst))");
    EXPECT_BYTES(Find(Written(), "udta/meta/hdlr").substr(16, 4), "mdta");
    EXPECT_BYTES(Keys(), Hex("0000001d 'keys' 00000000 00000001 0000000d 'mdta' 'com.x'"));
    EXPECT_BYTES(Ilst(), Hex("00000022 'ilst' 0000001a 00000001 00000012 'data'"
                             "00000001 00000000 'AB'"));
}

TEST_F(Metadata, TheSameComKeyTwiceIsTwoKeys)
{
    Set("com.x", "A");
    Set("com.x", "B");
    EXPECT_BYTES(Keys(), Hex("0000002a 'keys' 00000000 00000002 0000000d 'mdta' 'com.x'"
                             "0000000d 'mdta' 'com.x'"));
    EXPECT_BYTES(Ilst().substr(33), Hex("00000019 00000002 00000011 'data' 00000001 00000000 'B'"));
}

TEST_F(Metadata, AComKeyWithoutAValueStaysInKeys)
{
    EXPECT_FALSE(Set("com.x", nullptr));
    EXPECT_BYTES(Keys(), Hex("0000001d 'keys' 00000000 00000001 0000000d 'mdta' 'com.x'"));
    EXPECT_BYTES(Ilst(), Hex("00000008 'ilst'"));
}

TEST_F(Metadata, OfANamespaceFourBytesCount)
{
    SetEx("com.a", "1", MP4_METADATA_TEXT, "qtvrmore");
    SetEx("com.b", "2", MP4_METADATA_TEXT, "ab");
    EXPECT_BYTES(Keys().substr(16), Hex("0000000d 'qtvr' 'com.a' 0000000d 'ab' 0000 'com.b'"));
}

TEST_F(Metadata, BinaryValuesAreMarkedAsText)
{
    SetEx("com.b", Hex("00 01 00"), MP4_METADATA_BINARY);
    EXPECT_BYTES(Ilst(), Hex("00000023 'ilst' 0000001b 00000001 00000013 'data'"
                             "00000001 00000000 000100"));
}

TEST_F(Metadata, AnEmptyNamespaceIsFourZeros)
{
    SetEx("com.a", "1", MP4_METADATA_TEXT, "");
    EXPECT_BYTES(Keys().substr(16), Hex("0000000d 00000000 'com.a'"));
}

TEST_F(Metadata, AnEmptyValueByIndexIsAnItem)
{
    for (const std::uint32_t type : {MP4_METADATA_BINARY, MP4_METADATA_TEXT}) {
        On<CMp4UdtaAtom> on;
        EXPECT_TRUE(on.box.m_meta.SetMetadata("com.e", "", 0, type, nullptr));
        EXPECT_BYTES(Find(on.Written(), "udta/meta/ilst"),
                     Hex("00000020 'ilst' 00000018 00000001 00000010 'data' 00000001 00000000"));
    }
}

TEST_F(Metadata, TextEndsAtItsTerminatorWhateverTheSize)
{
    box.m_meta.SetMetadata("com.t", "AB\0CD", 5, MP4_METADATA_TEXT, nullptr);
    EXPECT_BYTES(Ilst().substr(32), "AB");
}

TEST_F(Metadata, AnIntegerIsReadInHostOrder)
{
    const std::int32_t value = -2;
    box.m_meta.SetMetadata("com.i", &value, 4, MP4_METADATA_INTEGER, nullptr);
    EXPECT_BYTES(Ilst(), Hex("00000024 'ilst' 0000001c 00000001 00000014 'data'"
                             "00000015 00000000 fffffffe"));
}

TEST_F(Metadata, AShortIntegerIsPaddedWithZeros)
{
    const std::uint32_t value = 0x01020304;
    box.m_meta.SetMetadata("com.i", &value, 2, MP4_METADATA_INTEGER, nullptr);
    const bool little = std::endian::native == std::endian::little;
    EXPECT_EQ(U32At(Ilst(), 32), little ? 0x0304u : 0x01020000u);
}

TEST_F(Metadata, AnIntegerWithoutASizeIsZero)
{
    EXPECT_TRUE(box.m_meta.SetMetadata("com.i", "\1", 0, MP4_METADATA_INTEGER, nullptr));
    EXPECT_BYTES(Ilst().substr(8), Hex("0000001c 00000001 00000014 'data' 00000015 00000000"
                                       "00000000"));
}

TEST_F(Metadata, ALongIntegerIsCutToItsFirst32Bits)
{
    const std::uint32_t values[2] = {7, 9};
    box.m_meta.SetMetadata("com.i", values, 8, MP4_METADATA_INTEGER, nullptr);
    EXPECT_EQ(Ilst().size(), 36u);
    EXPECT_EQ(U32At(Ilst(), 32), 7u);
}

TEST_F(Metadata, AnUnknownTypeIsReportedAtEveryWrite)
{
    EXPECT_TRUE(SetEx("com.u", "A", 2));
    CLogLines log;
    EXPECT_BYTES(Ilst(), Hex("00000008 'ilst'"));
    Written();
    EXPECT_EQ(log.Text(), "error unknown meta data type:2\nerror unknown meta data type:2\n");
}

TEST_F(Metadata, NamedItemsPrecedeValuesByIndex)
{
    Set("com.x", "K");
    Set("network", "N");
    EXPECT_BYTES(Ilst().substr(12, 4), "tvnn");
    EXPECT_BYTES(Ilst().substr(37, 4), Hex("00000001"));
}

TEST_F(Metadata, TheSizeLeavesOutKeysAndTheirValues)
{
    Set("com.x", "AB");
    EXPECT_EQ(box.GetSize(), 61u);
    EXPECT_EQ(Written().size(), 61u + 29 + 26);
    EXPECT_EQ(box.m_meta.m_keys.GetSize(), 29u);
}

TEST_F(Metadata, TwoWritesAreAlike)
{
    Set("title", "A");
    Set("com.x", "B");
    EXPECT_EQ(Written(), Written());
}

TEST_F(Metadata, AClosedSinkTakesNothing)
{
    Set("com.x", "B");
    sink.Close();
    EXPECT_EQ(Written(), "");
}
