// Tags, time codes and failures: what is told about a recording rather than recorded.
#include "formats.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kvmp4sink {

namespace {

struct Item {
    const char* tag;
    const char* key;
};
constexpr Item kItems[] = {
    {GST_TAG_TITLE, "title"},
    {GST_TAG_ARTIST, "artist"},
    {GST_TAG_ALBUM_ARTIST, "album_artist"},
    {GST_TAG_COMPOSER, "composer"},
    {GST_TAG_ALBUM, "album"},
    {GST_TAG_ENCODER, "encoding_tool"},
    {GST_TAG_COMMENT, "comment"},
    {GST_TAG_GENRE, "genre"},
    {GST_TAG_COPYRIGHT, "copyright"},
    {GST_TAG_GROUPING, "grouping"},
    {GST_TAG_LYRICS, "lyrics"},
    {GST_TAG_DESCRIPTION, "description"},
    {GST_TAG_SHOW_NAME, "show"},
};

std::string DateOf(const GstTagList* tags)
{
    std::string text;
    GstDateTime* time = nullptr;
    GDate* date = nullptr;
    if (gst_tag_list_get_date_time(tags, GST_TAG_DATE_TIME, &time)) {
        char* const iso = gst_date_time_to_iso8601_string(time);
        text = iso ? iso : "";
        g_free(iso);
        gst_date_time_unref(time);
    } else if (gst_tag_list_get_date(tags, GST_TAG_DATE, &date)) {
        char day[16] = {};
        g_date_strftime(day, sizeof day, "%Y-%m-%d", date);
        text = day;
        g_date_free(date);
    }
    return text;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> Metadata(const GstTagList* tags)
{
    std::vector<std::pair<std::string, std::string>> found;
    for (const Item& item : kItems) {
        char* text = nullptr;  // several values of a tag are joined by commas
        if (gst_tag_list_get_string(tags, item.tag, &text))
            found.emplace_back(item.key, text);
        g_free(text);
    }
    if (const std::string date = DateOf(tags); !date.empty())
        found.emplace_back("date", date);
    // Keys of the user's own, such as "com.example.camera=left".
    for (guint i = 0; i < gst_tag_list_get_tag_size(tags, GST_TAG_EXTENDED_COMMENT); ++i) {
        const char* text = nullptr;
        if (!gst_tag_list_peek_string_index(tags, GST_TAG_EXTENDED_COMMENT, i, &text))
            continue;
        const char* const equals = std::strchr(text, '=');
        if (!equals || std::strncmp(text, "com.", 4) != 0)
            continue;
        // The library adds such a key at each call; the last value counts, as with the others.
        const std::string key(text, equals);
        const auto known = std::find_if(found.begin(), found.end(),
                                        [&](const auto& item) { return item.first == key; });
        if (known != found.end())
            known->second = equals + 1;
        else
            found.emplace_back(key, equals + 1);
    }
    return found;
}

std::optional<TimeCode> ReadTimeCode(const GstVideoTimeCode& code)
{
    constexpr std::uint32_t kDropFrame = 1, kWrapsAtMidnight = 2;
    if (!gst_video_time_code_is_valid(&code) || code.config.fps_n == 0 || code.config.fps_d == 0)
        return std::nullopt;
    const bool drop = (code.config.flags & GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME) != 0;
    const std::uint32_t perSecond = (code.config.fps_n + code.config.fps_d - 1) / code.config.fps_d;
    if (perSecond > 255)
        return std::nullopt;
    TimeCode found{};
    found.track.timescale = code.config.fps_n;
    found.track.frame_duration = code.config.fps_d;
    found.track.frames_per_second = static_cast<std::uint8_t>(perSecond);
    found.track.flags = kWrapsAtMidnight | (drop ? kDropFrame : 0);
    found.frame = static_cast<std::uint32_t>(gst_video_time_code_frames_since_daily_jam(&code));
    return found;
}

Failure FailureOf(std::uint32_t status, const std::string& doing)
{
    const auto resource = [&](int code, const char* why) {
        return Failure{GST_RESOURCE_ERROR, code, doing + ": " + why + "."};
    };
    switch (status) {
    case MP4_ERR_PERMISSION:
    case MP4_ERR_ACCESS: return resource(GST_RESOURCE_ERROR_OPEN_WRITE, "permission denied");
    case MP4_ERR_NOT_FOUND: return resource(GST_RESOURCE_ERROR_NOT_FOUND, "no such folder");
    case MP4_ERR_BUSY: return resource(GST_RESOURCE_ERROR_BUSY, "the file is busy");
    case MP4_ERR_TOO_MANY_FILES:
        return resource(GST_RESOURCE_ERROR_OPEN_WRITE, "too many open files");
    case MP4_ERR_DISK_FULL:
        return resource(GST_RESOURCE_ERROR_NO_SPACE_LEFT, "no space left on the disk");
    case MP4_ERR_READ_ONLY:
        return resource(GST_RESOURCE_ERROR_OPEN_WRITE, "the file system is read-only");
    case MP4_ERR_INVALID_PARAM: return resource(GST_RESOURCE_ERROR_SETTINGS, "bad parameter");
    default: break;
    }
    return resource(GST_RESOURCE_ERROR_WRITE, ("status " + std::to_string(status)).c_str());
}

Failure FailureOfErrno(int error, const std::string& doing)
{
    const int code = error == ENOSPC || error == EDQUOT ? GST_RESOURCE_ERROR_NO_SPACE_LEFT
                     : error == ENOENT                  ? GST_RESOURCE_ERROR_NOT_FOUND
                     : error == EACCES || error == EPERM || error == EROFS || error == EISDIR
                         ? GST_RESOURCE_ERROR_OPEN_WRITE
                         : GST_RESOURCE_ERROR_WRITE;
    return {GST_RESOURCE_ERROR, code, doing + ": " + g_strerror(error) + "."};
}

}  // namespace kvmp4sink
