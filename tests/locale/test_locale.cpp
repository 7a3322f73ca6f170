// Paths and texts beyond ASCII in the locale that the library sets. It is a program of its own,
// which runs once for each locale: LOCPATH decides what the system has.
//
//   LOCPATH=FOLDER locale_tests LOCALE      LOCALE must be in force behind a create
#include "support/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <filesystem>

#include <stdlib.h>

using namespace kvtest;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

std::string g_expected;

// Two, three and four bytes a character.
constexpr char kName[] = "caf\u00E9 \u65E5\u672C \U0001F3AC.mp4";
constexpr wchar_t kWideName[] = L"caf\u00E9 \u65E5\u672C \U0001F3AC.mp4";
constexpr char kTitle[] = "Z\u00FCrich, \u0141\u00F3d\u017A \U0001F3AC";

std::vector<std::string> Names(const std::filesystem::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(Utf8(entry.path().filename()));
    return names;
}

std::filesystem::path Wide(const std::string& path)
{
    return std::u8string(path.begin(), path.end());
}

// Each test begins in the locale that a program begins in.
class Locale : public testing::Test {
protected:
    void SetUp() override { std::setlocale(LC_ALL, "C"); }
    void TearDown() override { EXPECT_EQ(std::string(std::setlocale(LC_ALL, nullptr)), g_expected); }

    std::string Path(const std::string& name) const { return Utf8(m_folder / "") + name; }

    const Folder m_folder;
    mp4_handle m_file = nullptr;
};

}  // namespace

TEST_F(Locale, CreateTakesAMultibytePath)
{
    ASSERT_EQ(mp4_create_file_ex(Path(kName).c_str(), 0, &m_file), 0u);
    EXPECT_THAT(Names(m_folder / ""), ElementsAre(kName));
    EXPECT_EQ(mp4_close_file(m_file), 0u);
}

TEST_F(Locale, TheLongCreateTakesAMultibytePath)
{
    ASSERT_EQ(mp4_create_file_adv_ex(Path(kName).c_str(), MP4_OPEN_INFO_FILE, 0, 0, MP4_IO_FILE,
                                     nullptr, &m_file), 0u);
    EXPECT_THAT(Names(m_folder / ""),
                testing::UnorderedElementsAre(kName, std::string(kName) + ".info"));
    EXPECT_EQ(mp4_close_file(m_file), 0u);
}

TEST_F(Locale, AWidePathNamesTheSameFile)
{
    const std::string folder = Path("");  // ASCII
    const std::wstring path = std::wstring(folder.begin(), folder.end()) + kWideName;
    ASSERT_EQ(mp4_create_file_adv(path.c_str(), 0, 0, 0, MP4_IO_FILE, nullptr, &m_file), 0u);
    EXPECT_THAT(Names(m_folder / ""), ElementsAre(kName));
    EXPECT_EQ(mp4_close_file(m_file), 0u);
}

// The copies are what a recorder leaves that died: a flush of all streams has brought them the log.
TEST_F(Locale, RepairTakesAMultibytePath)
{
    ASSERT_EQ(mp4_create_file_adv_ex(Path(kName).c_str(), MP4_OPEN_INFO_FILE, 0, 0, MP4_IO_FILE,
                                     nullptr, &m_file), 0u);
    const mp4_audio_track_info aac{48000, 1024, MP4_AUDIO_AAC_RAW, 48000, 2, 2};
    EXPECT_EQ(mp4_set_audio_track(m_file, &aac), 0u);
    for (std::uint64_t i = 0; i < 3; ++i)
        EXPECT_EQ(mp4_write_audio_frame(m_file, Bytes(30, 1).data(), 30, 1024 * i), 0u);
    std::fflush(nullptr);
    const Folder other;
    for (const std::string& name : {std::string(kName), kName + std::string(".info")})
        std::filesystem::copy_file(m_folder / name, other / name);
    EXPECT_EQ(mp4_close_file(m_file), 0u);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(mp4_repair_file_ex(Utf8(other / kName).c_str(), 1), 0u);
    EXPECT_THAT(Names(other / ""), ElementsAre(kName));
    const BoxFile file = BoxFile::Read(other / kName);
    EXPECT_THAT(file.Complaints(), testing::IsEmpty());
    EXPECT_TRUE(file.Has("moov/trak.soun"));
}

TEST_F(Locale, ATitleKeepsItsBytes)
{
    ASSERT_EQ(mp4_create_file_ex(Path("title.mp4").c_str(), 0, &m_file), 0u);
    EXPECT_EQ(mp4_set_metadata(m_file, "com.apple.quicktime.title", kTitle), 0u);
    EXPECT_EQ(mp4_close_file(m_file), 0u);
    const Bytes ilst = BoxFile::Read(m_folder / "title.mp4").Box("moov/udta/meta/ilst");
    EXPECT_THAT(std::string(ilst.begin(), ilst.end()), HasSubstr(kTitle));
}

TEST_F(Locale, BytesThatAreNoCharacterAreRefused)
{
    EXPECT_EQ(mp4_create_file_ex(Path("caf\xE9.mp4").c_str(), 0, &m_file), 1u);
    EXPECT_EQ(m_file, nullptr);
    EXPECT_TRUE(m_folder.IsEmpty());
}

#if defined(_WIN32)

// What stands before it names the file where the conversion is not tested, as elsewhere.
TEST_F(Locale, BytesThatAreNoCharacterEndThePathOfTheLongCreate)
{
    ASSERT_EQ(mp4_create_file_adv_ex(Path("caf\xE9.mp4").c_str(), 0, 0, 0, MP4_IO_FILE, nullptr,
                                     &m_file), 0u);
    EXPECT_THAT(Names(m_folder / ""), ElementsAre("caf"));
    EXPECT_EQ(mp4_close_file(m_file), 0u);
}

#endif

// 1022 characters of a path are 3000 bytes here.
TEST_F(Locale, LengthsCountCharactersAndNotBytes)
{
    std::string path = Path("");
    for (std::size_t length = path.size(); length < 1022; ++length) {
        if (length % 80 == 0 && length < 1020) {
            std::filesystem::create_directory(Wide(path));
            path += '/';
        } else {
            path += "\u65E5";
        }
    }
    ASSERT_EQ(mp4_create_file_ex(path.c_str(), 0, &m_file), 0u);
    EXPECT_GT(std::filesystem::file_size(Wide(path)), 0u);
    EXPECT_EQ(mp4_close_file(m_file), 0u);
    mp4_handle none = nullptr;
    EXPECT_EQ(mp4_create_file_ex((path + "\u65E5").c_str(), 0, &none), 1u);
    EXPECT_FALSE(std::filesystem::exists(Wide(path + "\u65E5")));
}

#if !defined(_WIN32)  // which looks for no locale in folders

namespace {

int g_errnoAtOpen = 0;

}  // namespace

// The look-up of a locale in a folder that does not have it fails on its way, once for each folder.
TEST_F(Locale, TheSetUpLeavesErrnoAlone)
{
    ExternalIoFuncs table = *ExternalSink().Table();
    table.open = [](void**, const wchar_t*, std::uint32_t, std::uint32_t) -> std::uint8_t {
        g_errnoAtOpen = errno;
        return 0;
    };
    const std::string places = getenv("LOCPATH");
    setenv("LOCPATH", (Path("") + ":" + places).c_str(), 1);
    errno = EXDEV;
    EXPECT_EQ(mp4_create_file_adv(L"a.mp4", 0, 0, 0, MP4_IO_EXTERNAL, &table, &m_file), 4u);
    EXPECT_EQ(g_errnoAtOpen, EXDEV);
    setenv("LOCPATH", places.c_str(), 1);
}

#endif

int main(int count, char** arguments)
{
    testing::InitGoogleTest(&count, arguments);
    if (count != 2)
        return 2;
#if !defined(_WIN32)
    if (!getenv("LOCPATH"))
        return 2;
#endif
    g_expected = arguments[1];
    return RUN_ALL_TESTS();
}
