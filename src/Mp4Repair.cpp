// One run over two files. What the log can rebuild decides where the media file ends; a log with
// nothing to rebuild leaves nothing of it.
#include "Mp4Repair.h"

#include "log.h"
#include "platform.h"

#include <cwchar>
#include <iterator>

#define UNIT "src/Mp4Repair"

namespace {

constexpr std::uint32_t kMdatHeader = 8;        // bytes
constexpr std::uint32_t kLargeMdatHeader = 16;  // with a 64-bit size
constexpr std::int64_t kFreeHeader = 8;

// Runs a guarded stretch: what it throws becomes the status, but for the end of the log.
template <typename Body>
void Guard(std::uint32_t& status, Body body)
{
    try {
        body();
    } catch (const kv_mp4_exception& error) {
        if (error.code != kEndOfData)
            status = ErrorFromErrno(error.code);
    } catch (...) {
        status = MP4_ERR_FAILED;
    }
}

}  // namespace

CMp4Repair::~CMp4Repair()
{
    // Before the pool goes, which counts its buffers.
    ReleaseBuffers(m_packetBuffers);
}

std::uint32_t CMp4Repair::Repair(const wchar_t* path, std::uint8_t option)
{
    // 1. Both paths, and the kind of the file. Kept: "mov" anywhere in the path, as in a recording,
    //    so that both agree as long as both see the same path.
    const std::size_t length = std::wcslen(path);
    if (length + std::size(kInfoSuffix) > kPathSize)
        return MP4_ERR_INVALID_PARAM;
    wchar_t infoPath[kPathSize];
    std::wmemcpy(infoPath, path, length);
    std::wmemcpy(infoPath + length, kInfoSuffix, std::size(kInfoSuffix));
    const bool quickTime = std::wcsstr(path, L"mov") != nullptr;

    // 2. Both files, then the work. `end` stays 0 wherever that stops early.
    std::int64_t end = 0;
    std::uint32_t status = m_writer.Init(path, 0, 0);
    if (status == MP4_OK)
        status = m_reader.Init(infoPath, 0, 0);
    if (status == MP4_OK)
        Guard(status, [&] { Rebuild(quickTime, end, status); });
    m_moov.reset();
    m_reader.Close();
    m_writer.Close();
    if (status != MP4_OK)
        return status;

    // 3. The cut. Kept: an `end` of 0 empties the media file; a log with nothing to rebuild stands
    //    for a file with nothing to keep. A cut that fails shows nowhere.
    platform::TruncateFile(path, static_cast<std::uint64_t>(end));
    if (option == 0)
        return MP4_OK;
    LOG_INFO("delete repair file");
    platform::RemoveFile(infoPath);
    return MP4_OK;
}

void CMp4Repair::MakeTree(bool quickTime)
{
    m_moov = std::make_unique<CMp4MoovAtom>(&m_writer, false, nullptr);
    m_moov->m_trakAudio.m_mdia.m_minf.m_stbl.m_stsd.m_mov = quickTime;
    m_moov->m_trackTC.m_mdia.m_minf.m_useNmhd = !quickTime;
}

void CMp4Repair::Rebuild(bool quickTime, std::int64_t& end, std::uint32_t& status)
{
    // 1. The header of the log.
    MakeTree(quickTime);
    const auto flags = Field<std::uint8_t>();
    const bool large = (flags & MP4_OPEN_LARGE_FILE) != 0;
    if (large)
        m_moov->UseCo64();
    if (flags & MP4_OPEN_VERSION1)
        m_moov->SetLongDuration();
    const auto mdatPosition = Field<std::uint32_t>();

    // 2. Where the samples begin, in a file that has at least the header of `mdat`.
    m_writer.Seek(0, kSeekEnd);
    const std::int64_t fileSize = m_writer.Tell();
    if (fileSize < 0)  // no size, which is no reason to empty the file
        throw kv_mp4_exception(errno);
    if (fileSize < std::int64_t{mdatPosition} + kMdatHeader)
        return;
    m_videoSeen = 0;
    m_audioSeen = 0;
    m_mediaBytes = 0;
    const std::uint32_t header = large ? kLargeMdatHeader : kMdatHeader;
    m_writer.Seek(std::int64_t{mdatPosition} + header, kSeekStart);
    m_nextOffset = static_cast<std::uint64_t>(m_writer.Tell());

    // 3. The packets. A damaged log does not keep what was read before from being rebuilt.
    // Kept: nor does a want of memory, and moov then lies over the samples that were not reached;
    // callers get what plays of it, and the status that tells them to take their copy instead.
    Guard(status, [this] {
        for (;;)
            ReadNextPacket();
    });
    if (!m_videoSeen && !m_audioSeen) {
        LOG_ERROR("no enough info to repair mp4, repair failed");
        return;
    }

    // 4. The media file.
    end = WriteMoov(mdatPosition, large, fileSize);
    // All of it must stand before the log may go: a full disk or a power cut keeps the log.
    m_writer.SetDurable();
    m_writer.Flush();
}

// Patches `mdat` and writes `moov` behind it; the position behind that.
std::int64_t CMp4Repair::WriteMoov(std::uint32_t mdatPosition, bool large, std::int64_t fileSize)
{
    const std::uint32_t header = large ? kLargeMdatHeader : kMdatHeader;
    if (large) {
        m_writer.Seek(std::int64_t{mdatPosition} + 8, kSeekStart);
        WriteBE64(&m_writer, m_mediaBytes + header);
    } else {
        // Kept: the low 32 bits without a test; beyond 4 GiB the recording lacked its flag.
        m_writer.Seek(mdatPosition, kSeekStart);
        WriteBE32(&m_writer, static_cast<std::uint32_t>(m_mediaBytes + header));
    }
    // Kept: the log alone places `moov`. Each time code makes it begin 4 bytes ahead of the end of
    // the data, and a log that knows more than the file holds puts it behind the file's end.
    m_writer.Seek(static_cast<std::int64_t>(mdatPosition + m_mediaBytes + header), kSeekStart);
    m_moov->Write();
    const std::int64_t end = m_writer.Tell();
    // The header of a box over all that is left: should the cut fail, the boxes still add up.
    if (end + kFreeHeader <= fileSize) {
        CFieldWriter f(m_writer);
        f.U32(static_cast<std::uint32_t>(fileSize - end));
        f.Code("free");
    }
    return end;
}
