// What the DLL hands to OutputDebugStringA. The system raises an exception for the debugger there,
// which a handler of the program's own sees first.
#include <kv_mp4.h>

#include <windows.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

namespace {

std::vector<std::string> g_lines;

LONG CALLBACK Collect(EXCEPTION_POINTERS* info)
{
    const EXCEPTION_RECORD& record = *info->ExceptionRecord;
    if (record.ExceptionCode != DBG_PRINTEXCEPTION_C)
        return EXCEPTION_CONTINUE_SEARCH;
    // The length, which counts the end mark, and the text.
    g_lines.emplace_back(reinterpret_cast<const char*>(record.ExceptionInformation[1]),
                         record.ExceptionInformation[0] - 1);
    return EXCEPTION_CONTINUE_EXECUTION;
}

// A line in spdlog's own pattern.
std::string Line(const std::string& level, const std::string& unit, const std::string& text)
{
    return R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[msvc_logger\] \[)" + level + R"(\] \[)" +
           unit + R"(:\d+\] )" + text + "\r\n";
}

}  // namespace

int main()
{
    AddVectoredExceptionHandler(1, Collect);
    mp4_handle file = nullptr;
    const std::uint32_t refused = mp4_create_file(L"no such folder\\clip.mp4", 0, &file);
    const std::string expected[] = {
        Line("info", "Mp4Muxer", "mp4 flag is 0"),
        Line("info", "Mp4Muxer", "fast header write disabled"),
        Line("error", "BaseIO", "open file failed, error:No such file or directory"),
        Line("error", "Mp4Muxer", "init CFileWriter writer failed"),
        Line("info", "Mp4Muxer", "Muxer - Close - mdat finish takes \\d+ ms"),
        Line("info", "Mp4Muxer", "Muxer - Close - moov write takes \\d+ ms"),
        Line("info", "Mp4Muxer", "Muxer - Close - remove info file takes \\d+ ms"),
        Line("info", "Mp4Muxer", "Muxer - Close - uninit takes \\d+ ms")};
    for (const std::string& line : g_lines)
        std::printf("%s", line.c_str());
    int wrong = refused != MP4_ERR_NOT_FOUND;
    // The line of the version went to the console; it is the one before the logger is replaced.
    for (std::size_t i = 0; i < std::size(expected); ++i)
        if (i >= g_lines.size() || !std::regex_match(g_lines[i], std::regex(expected[i])))
            ++wrong;
    wrong += g_lines.size() != std::size(expected);
    g_lines.clear();
    wrong += mp4_close_file(nullptr) != MP4_ERR_INVALID_HANDLE;
    wrong += g_lines.size() != 1 ||
             !std::regex_match(g_lines[0], std::regex(Line("error", "mp4", "null handle")));
    for (const std::string& line : g_lines)
        std::printf("%s", line.c_str());
    std::printf("%d wrong\n", wrong);
    return wrong != 0;
}
