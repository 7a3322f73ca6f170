// The two files that a dead recorder leaves, made by hand, and their repair through the exports.
#pragma once

#include "support/recording.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace kvtest {

// An info file, packet by packet.
class InfoLog {
public:
    explicit InfoLog(std::uint8_t flags = MP4_OPEN_INFO_FILE, std::uint32_t mdatPosition = 36);

    // ProRes 422 of 160x120 in milliseconds: a track without parameter sets.
    InfoLog& ProRes();
    // Any codec: the fixed fields, then `rest`.
    InfoLog& VideoTrack(std::uint8_t codec, const Bytes& rest);
    InfoLog& Aac();  // 48000 Hz, stereo, LC, in milliseconds
    InfoLog& Captions(std::uint8_t codec = MP4_SUBTITLE_CEA608);
    InfoLog& TimeCodeTrack();
    InfoLog& Metadata(std::uint8_t type, const Bytes& key, const Bytes& value,
                      const Bytes& keyNamespace = {});
    InfoLog& Video(std::uint64_t time, std::uint32_t size, bool key = true);
    InfoLog& Audio(std::uint64_t time, std::uint32_t size);
    InfoLog& Caption(std::uint64_t time, std::uint32_t size);
    InfoLog& TimeCode(std::uint32_t frameNumber);
    InfoLog& Raw(const Bytes& bytes);
    // The byte that a reader never delivers, so that all packets before it are whole.
    InfoLog& Closed() { return Raw({0}); }

    const Bytes& All() const { return m_bytes; }

private:
    InfoLog& U(std::size_t width, std::uint64_t value);
    InfoLog& Blob(const Bytes& bytes);

    Bytes m_bytes;
};

// The text as bytes, with its end mark.
Bytes EndedText(const std::string& text);

// An MP4 file as a dead recorder leaves it: "ftyp", "free", the header of "mdat" at 36, `size`
// bytes of data 1, 2, 3 ... and no "moov".
Bytes DeadFile(std::size_t size, bool large = false);

// A folder with both files and the repair of them.
class Wreck {
public:
    Wreck(const Bytes& media, const Bytes& log, const std::string& name = "clip.mp4");
    Wreck(const Bytes& media, const InfoLog& log, const std::string& name = "clip.mp4")
        : Wreck(media, log.All(), name)
    {
    }

    // Repairs with `error` in errno before, 0 as in a fresh process; keeps what was printed.
    std::uint32_t Repair(std::uint8_t option = 0, int error = 0);
    BoxFile Media() const { return BoxFile::Read(Path()); }
    Bytes Info() const { return BoxFile::Read(InfoPath()).All(); }
    bool HasInfo() const { return std::filesystem::exists(InfoPath()); }
    std::filesystem::path Path() const { return m_folder / m_name; }
    std::filesystem::path InfoPath() const { return m_folder / (m_name + ".info"); }
    LogCapture& Log() { return m_log; }
    const std::string& Printed() const { return m_printed; }

private:
    Folder m_folder;
    std::string m_name;
    LogCapture m_log;
    std::string m_printed;
};

void WriteBytes(const std::filesystem::path& path, const Bytes& bytes);
Bytes Slice(const Bytes& bytes, std::size_t begin, std::size_t end);

}  // namespace kvtest
