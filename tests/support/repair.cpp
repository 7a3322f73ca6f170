#include "support/repair.h"

#include <cerrno>
#include <fstream>

namespace kvtest {

// ---- InfoLog -------------------------------------------------------------------------------

InfoLog& InfoLog::U(std::size_t width, std::uint64_t value)
{
    for (std::size_t i = width; i-- > 0;)
        m_bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    return *this;
}

InfoLog& InfoLog::Raw(const Bytes& bytes)
{
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

InfoLog& InfoLog::Blob(const Bytes& bytes)
{
    return U(4, bytes.size()).Raw(bytes);
}

InfoLog::InfoLog(std::uint8_t flags, std::uint32_t mdatPosition)
{
    U(1, flags).U(4, mdatPosition);
}

InfoLog& InfoLog::VideoTrack(std::uint8_t codec, const Bytes& rest)
{
    return U(1, 2).U(4, 1000).U(8, 0).U(1, codec).U(2, 160).U(2, 120).Raw(rest);
}

InfoLog& InfoLog::ProRes()
{
    return VideoTrack(MP4_VIDEO_PRORES, {MP4_PRORES_422});
}

InfoLog& InfoLog::Aac()
{
    return U(1, 3).U(4, 1000).U(8, 0).U(1, MP4_AUDIO_AAC_RAW).U(2, 48000).U(2, 2).U(1, 2);
}

InfoLog& InfoLog::Captions(std::uint8_t codec)
{
    return U(1, 6).U(4, 1000).U(1, codec);
}

InfoLog& InfoLog::TimeCodeTrack()
{
    return U(1, 8).U(4, 25).U(8, 1).U(1, 25).U(4, 0);
}

InfoLog& InfoLog::Metadata(std::uint8_t type, const Bytes& key, const Bytes& value,
                           const Bytes& keyNamespace)
{
    return U(1, 1).U(1, type).Blob(key).Blob(value).Blob(keyNamespace);
}

InfoLog& InfoLog::Video(std::uint64_t time, std::uint32_t size, bool key)
{
    return U(1, 4).U(8, time).U(8, time).U(1, key).U(4, size);
}

InfoLog& InfoLog::Audio(std::uint64_t time, std::uint32_t size)
{
    return U(1, 5).U(8, time).U(4, size);
}

InfoLog& InfoLog::Caption(std::uint64_t time, std::uint32_t size)
{
    return U(1, 7).U(8, time).U(4, size);
}

InfoLog& InfoLog::TimeCode(std::uint32_t frameNumber)
{
    return U(1, 9).U(4, frameNumber);
}

Bytes EndedText(const std::string& text)
{
    Bytes bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

// ---- Files ---------------------------------------------------------------------------------

Bytes DeadFile(std::size_t size, bool large)
{
    Bytes bytes = Hex("0000001C 'ftyp' 'isom' 00000200 'isom' 'iso2' 'mp41' 00000008 'free'");
    const Bytes header = Hex(large ? "00000001 'mdat' 00000000 00000001" : "00000008 'mdat'");
    bytes.insert(bytes.end(), header.begin(), header.end());
    for (std::size_t i = 1; i <= size; ++i)
        bytes.push_back(static_cast<std::uint8_t>(i));
    return bytes;
}

void WriteBytes(const std::filesystem::path& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

Bytes Slice(const Bytes& bytes, std::size_t begin, std::size_t end)
{
    return {bytes.begin() + static_cast<std::ptrdiff_t>(begin),
            bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

Wreck::Wreck(const Bytes& media, const Bytes& log, const std::string& name) : m_name(name)
{
    std::filesystem::create_directories(Path().parent_path());
    WriteBytes(Path(), media);
    WriteBytes(InfoPath(), log);
}

std::uint32_t Wreck::Repair(std::uint8_t option, int error)
{
    StdoutCapture printed;
    const std::string path = Utf8(Path());
    errno = error;
    const std::uint32_t status = mp4_repair_file_ex(path.c_str(), option);
    m_printed = printed.Take();
    return status;
}

}  // namespace kvtest
