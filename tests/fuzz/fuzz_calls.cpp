// Any calls in any order, on up to three files at once, in memory or in a folder, with writes that
// fail. Asks that nothing but the documented exception leaves a frame call, and nothing any other,
// and that what closes well is a file whose boxes add up.
#include "fuzz.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <memory>
#include <string>

namespace {

constexpr std::size_t kFiles = 3;

class Player {
public:
    explicit Player(FuzzedDataProvider& input) : m_input(input) {}

    void Play()
    {
        while (m_input.remaining_bytes() > 0)
            Step();
        for (std::size_t i = 0; i < kFiles; ++i)
            Close(i);
    }

private:
    struct File {
        mp4_handle handle = nullptr;
        std::string name;
        std::uint8_t flags = 0;
        bool closesWell = true;  // nothing was asked for that may leave other boxes
        std::unique_ptr<fuzz::Sink> sink;
    };

    template <typename T>
    T Any()
    {
        return m_input.ConsumeIntegral<T>();
    }
    fuzz::Bytes Block() { return m_input.ConsumeBytes<std::uint8_t>(Any<std::uint8_t>()); }
    // Times go on by a little, most of them.
    std::uint64_t Time()
    {
        const auto step = Any<std::uint8_t>();
        m_time = step == 255 ? Any<std::uint64_t>() : m_time + step;
        return m_time;
    }

    void Open(std::size_t i)
    {
        File& file = m_files[i];
        if (file.handle)
            return;
        file.flags = Any<std::uint8_t>();
        const auto kind = Any<std::uint8_t>();
        file.name = std::to_string(i) + (kind & 1 ? ".mov" : ".mp4");
        const std::filesystem::path name = fuzz::Folder() / file.name;
        const std::string path = name.string();
        const std::wstring wide = name.wstring();
        const int way = kind >> 3 & 7;
        if (kind & 2) {
            switch (way) {
            case 1:
                mp4_create_file_adv(wide.c_str(), file.flags, 0, 0, MP4_IO_FILE, nullptr,
                                    &file.handle);
                break;
            case 2: mp4_create_file(wide.c_str(), file.flags, &file.handle); break;
            case 3: mp4_create_file_ex(path.c_str(), file.flags, &file.handle); break;
            case 4:
            case 5:
                file.flags = MP4_OPEN_LARGE_FILE | MP4_OPEN_INFO_FILE;
                file.handle = way == 4 ? kv_mp4_open(path.c_str()) : kv_mp4_open_ex(wide.c_str());
                break;
            case 6: OpenNothing(path, wide, file.flags); break;
            default:
                mp4_create_file_adv_ex(path.c_str(), file.flags, 0, 0, MP4_IO_FILE, nullptr,
                                       &file.handle);
            }
            return;
        }
        // Its table is in use while it is open, so that there is one such file at a time.
        for (const File& other : m_files) {
            if (other.sink && other.handle)
                return;
        }
        file.sink = std::make_unique<fuzz::Sink>();
        if (kind & 4)
            file.sink->FailFrom(Any<std::uint8_t>());
        if (way & 1)
            mp4_create_file_adv(wide.c_str(), file.flags, 0, 0, MP4_IO_EXTERNAL,
                                file.sink->Table(), &file.handle);
        else
            mp4_create_file_adv_ex(path.c_str(), file.flags, 0, 0, MP4_IO_EXTERNAL,
                                   file.sink->Table(), &file.handle);
    }

    // Without a path, a place for the handle, or a table that is asked for.
    static void OpenNothing(const std::string& path, const std::wstring& wide, std::uint8_t flags)
    {
        mp4_handle none = nullptr;
        FUZZ_CHECK(mp4_create_file(nullptr, flags, &none) != MP4_OK);
        FUZZ_CHECK(mp4_create_file_ex(nullptr, flags, &none) != MP4_OK);
        FUZZ_CHECK(mp4_create_file(wide.c_str(), flags, nullptr) != MP4_OK);
        FUZZ_CHECK(mp4_create_file_ex(path.c_str(), flags, nullptr) != MP4_OK);
        FUZZ_CHECK(mp4_create_file_adv(wide.c_str(), flags, 0, 0, MP4_IO_EXTERNAL, nullptr,
                                       &none) != MP4_OK);
        FUZZ_CHECK(!none);
        FUZZ_CHECK(!kv_mp4_open(nullptr) && !kv_mp4_open_ex(nullptr));
    }

    void Close(std::size_t i)
    {
        File& file = m_files[i];
        const mp4_handle handle = file.handle;
        file.handle = nullptr;
        const std::uint32_t status = mp4_close_file(handle);
        FUZZ_CHECK(handle || status == MP4_ERR_INVALID_HANDLE);
        if (handle && status == MP4_OK && file.closesWell) {
            if (!file.sink)
                fuzz::CheckOuterBoxes(fuzz::Folder() / file.name);
            else if (!file.sink->Failed())
                fuzz::CheckOuterBoxes(file.sink->Data());
        }
        file = File{};
    }

    void SetVideo(mp4_handle handle)
    {
        const auto kind = Any<std::uint8_t>();
        const fuzz::Bytes sps = Block(), pps = Block(), vps = Block();
        mp4_video_track_info info{};
        info.codec = kind & 3;
        info.timescale = Any<std::uint32_t>();
        info.sample_duration = Any<std::uint16_t>();
        info.width = Any<std::uint16_t>();
        info.height = Any<std::uint16_t>();
        if (info.codec == MP4_VIDEO_PRORES) {
            info.prores_format = Any<std::uint8_t>();
        } else {
            info.sps = kind & 4 ? sps.data() : nullptr;
            info.pps = kind & 8 ? pps.data() : nullptr;
            info.vps = kind & 16 ? vps.data() : nullptr;
        }
        info.sps_size = static_cast<std::int16_t>(sps.size());
        info.pps_size = static_cast<std::int16_t>(pps.size());
        info.vps_size = static_cast<std::int16_t>(vps.size());
        if (kind & 128)
            FUZZ_CHECK(mp4_set_video_track(handle, nullptr) != MP4_OK &&
                       kv_mp4_set_video(handle, nullptr) != MP4_OK);
        mp4_set_video_track(handle, &info);
    }

    void SetOther(mp4_handle handle)
    {
        const auto kind = Any<std::uint8_t>();
        if (kind & 128) {
            FUZZ_CHECK(mp4_set_audio_track(handle, nullptr) != MP4_OK);
            FUZZ_CHECK(mp4_set_subtitle_track(handle, nullptr) != MP4_OK);
            FUZZ_CHECK(mp4_set_time_code_track(handle, nullptr) != MP4_OK);
            FUZZ_CHECK(kv_mp4_set_audio(handle, nullptr) != MP4_OK);
            FUZZ_CHECK(kv_mp4_set_subtitle(handle, nullptr) != MP4_OK);
            FUZZ_CHECK(mp4_set_safe_param(handle, nullptr) != MP4_OK);
        }
        if (kind & 1) {
            mp4_audio_track_info info{};
            info.codec = kind >> 1 & 3;
            info.timescale = Any<std::uint32_t>();
            info.sample_rate = Any<std::uint16_t>();
            info.channels = Any<std::uint16_t>();
            info.object_type = Any<std::uint8_t>();
            mp4_set_audio_track(handle, &info);
        } else if (kind & 2) {
            const mp4_subtitle_track_info info{static_cast<std::uint32_t>(kind >> 2 & 3),
                                               Any<std::uint32_t>()};
            mp4_set_subtitle_track(handle, &info);
        } else {
            const mp4_time_code_track_info info{Any<std::uint32_t>(), Any<std::uint64_t>(),
                                                Any<std::uint8_t>(), Any<std::uint32_t>()};
            mp4_set_time_code_track(handle, &info);
        }
    }

    void SetMetadata(mp4_handle handle)
    {
        const auto kind = Any<std::uint8_t>();
        const std::string key = m_input.ConsumeRandomLengthString(16);
        const std::string value = m_input.ConsumeRandomLengthString(64);
        const std::string space = m_input.ConsumeRandomLengthString(16);
        const char* const given = kind & 1 ? value.c_str() : nullptr;
        if (kind & 2)
            mp4_set_metadata(handle, key.c_str(), given);
        else
            mp4_set_metadata_ex(handle, key.c_str(), given, static_cast<std::uint32_t>(value.size()),
                                kind & 4 ? std::uint32_t{MP4_METADATA_TEXT} : kind >> 3,
                                kind & 128 ? space.c_str() : nullptr);
    }

    void Ask(mp4_handle handle)
    {
        double rate = 0;
        mp4_safe_param params{};
        mp4_get_duration_ms(handle);
        mp4_get_moov_size(handle);
        mp4_get_video_bitrate(handle, &rate);
        mp4_get_audio_bitrate(handle, &rate);
        mp4_get_safe_param(handle, &params);
    }

    void SetSafe(File& file)
    {
        // Small distances, so that there are checkpoints; data that run over the moov in force are
        // among what is documented.
        const mp4_safe_param params{Any<std::uint8_t>(), Any<std::uint16_t>(), Any<std::uint16_t>(),
                                    Any<std::uint16_t>()};
        mp4_set_safe_param(file.handle, &params);
        mp4_repair_set_flush_interval(file.handle, Any<std::uint8_t>());
        if (file.flags & MP4_OPEN_SAFE_MODE)
            file.closesWell = false;
    }

    void Step()
    {
        const auto step = Any<std::uint8_t>();
        const std::size_t i = (step >> 4) % kFiles;
        const mp4_handle handle = m_files[i].handle;
        const auto write = [&](auto function) {
            const fuzz::Bytes frame = Block();
            const std::uint64_t time = Time();
            try {
                function(handle, frame.data(), static_cast<std::uint32_t>(frame.size()), time);
            } catch (const kv_mp4_exception&) {
                // A checkpoint or a ProRes picture that could not be written.
            }
        };
        switch (step & 15) {
        case 0: Open(i); break;
        case 1: Close(i); break;
        case 2: SetVideo(handle); break;
        case 3: SetOther(handle); break;
        case 4: SetMetadata(handle); break;
        case 5: Ask(handle); break;
        case 6: SetSafe(m_files[i]); break;
        case 7: mp4_write_time_code(handle, Any<std::uint32_t>()); break;
        case 8:
            m_files[i].closesWell = false;  // an open file, if it is in the folder
            if (step & 64)
                mp4_repair_file((fuzz::Folder() / m_files[i].name).wstring().c_str(), step >> 7);
            else
                mp4_repair_file_ex((fuzz::Folder() / m_files[i].name).c_str(), step >> 7);
            break;
        case 9:
        case 10: write(mp4_write_audio_frame); break;
        case 11:
        case 12: write(mp4_write_subtitle_frame); break;
        default: write(mp4_write_video_frame); break;
        }
    }

    FuzzedDataProvider& m_input;
    std::array<File, kFiles> m_files;
    std::uint64_t m_time = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Silence();
    FuzzedDataProvider input(data, size);
    Player(input).Play();
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(fuzz::Folder()))
        std::filesystem::remove(entry.path(), ignored);
    return 0;
}
