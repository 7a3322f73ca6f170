// From create to close. Create opens the info file, then the output, and writes the head of the
// file; frames then grow `mdat`; Close ends the info file, finishes `mdat`, writes `moov` and only
// then deletes the info file, so that whatever fails before leaves the log for a repair.
#include "Mp4Muxer.h"

#include "log.h"
#include "platform.h"

#include <cerrno>
#include <cwchar>
#include <new>

#define UNIT "src/Mp4Muxer"

std::uint32_t CMp4Muxer::Create(const wchar_t* path, std::uint32_t block_size,
                                std::uint32_t block_count, std::uint8_t flags,
                                std::uint32_t io_mode, ExternalIoFuncs* pFunc)
{
    m_dataPos = 0;
    LOG_INFO("mp4 flag is {}", flags);
    m_safeMode = (flags & MP4_OPEN_SAFE_MODE) != 0;
    if (m_safeMode)
        LOG_INFO("safe mode open");
    m_fastHeader = (flags & MP4_OPEN_FAST_HEADER) != 0;
    if (m_fastHeader)
        LOG_INFO("fast header write enabled");
    else
        LOG_INFO("fast header write disabled");

    // 1. The info file, which so exists before the output.
    if (flags & MP4_OPEN_INFO_FILE) {
        if (const std::uint32_t status = OpenInfoFile(path, flags); !m_infoWriter.IsOpen())
            return FailCreate(status);
    }

    // 2. The output.
    m_path = path;
    const std::uint32_t status = OpenWriter(block_size, block_count, io_mode, pFunc);
    if (!m_pFile)
        return FailCreate(status);  // Kept: an unknown io_mode so returns 0, and has no writer
    if (m_safeMode || m_infoWriter.IsOpen())
        m_pFile->SetDurable();

    // 3. The boxes and the head of the file.
    MakeBoxes(flags);
    if (const auto failed = Guarded([this] { WriteFileHead(); }))
        return FailCreate(*failed);

    // 4. The info file learns where the data begins.
    if (m_infoWriter.IsOpen()) {
        const std::uint32_t logged =
            WriteInfoMdatPosition(static_cast<std::uint32_t>(m_mdat->m_start));
        if (logged != MP4_OK)
            return FailCreate(logged);
    }
    m_dataPos = static_cast<std::uint64_t>(m_pFile->Tell());
    return status;
}

std::uint32_t CMp4Muxer::FailCreate(std::uint32_t status)
{
    Close();
    return status;
}

// On success the info writer is open; else the status tells why not.
std::uint32_t CMp4Muxer::OpenInfoFile(const wchar_t* path, std::uint8_t flags)
{
    if (std::wcslen(path) + 6 > kPathSize)
        return MP4_ERR_INVALID_PARAM;
    m_infoPath = std::wstring(path) + kInfoSuffix;
    if (const std::uint32_t status = m_infoWriter.Init(m_infoPath.c_str(), 0, 0);
        !m_infoWriter.IsOpen())
        return status;
    m_infoWriter.SetDurable();
    const std::uint32_t status = WriteInfoHeader(flags);
    if (!m_infoWriter.IsOpen())
        platform::RemoveFile(m_infoPath.c_str());
    return status;
}

// On success m_pFile is set; else the status tells why not.
std::uint32_t CMp4Muxer::OpenWriter(std::uint32_t block_size, std::uint32_t block_count,
                                    std::uint32_t io_mode, ExternalIoFuncs* pFunc)
{
    switch (io_mode) {
    case MP4_IO_FILE: {
        auto writer = std::make_unique<CFileWriter>();
        const std::uint32_t status = writer->Init(m_path.c_str(), block_size, block_count);
        if (!writer->IsOpen()) {
            LOG_ERROR("init CFileWriter writer failed");
            return status;
        }
        m_pFile = std::move(writer);
        return MP4_OK;
    }
    case MP4_IO_DIRECT:
        LOG_ERROR("windows platform do not support direct io");
        return MP4_ERR_UNSUPPORTED;
    case MP4_IO_EXTERNAL: {
        if (!pFunc) {
            LOG_ERROR("error: pFunc should not be null when use external io mode");
            return MP4_ERR_INVALID_PARAM;
        }
        auto writer = std::make_unique<ExternalWriter>(pFunc);
        if (writer->Init(m_path.c_str(), block_size, block_count) != MP4_OK) {
            LOG_ERROR("init external writer failed");
            return MP4_ERR_INVALID_PARAM;  // Kept: whatever Init said
        }
        m_pFile = std::move(writer);
        return MP4_OK;
    }
    default: return MP4_OK;
    }
}

void CMp4Muxer::MakeBoxes(std::uint8_t flags)
{
    const bool large = (flags & MP4_OPEN_LARGE_FILE) != 0;
    IBaseIO* const file = m_pFile.get();
    m_ftyp = std::make_unique<CMp4FtypAtom>(file);
    m_free = std::make_unique<CMp4FreeAtom>(file);
    auto mdat = std::make_unique<CMp4MdatAtom>(file, large);
    if (m_fastHeader) {
        m_moovBuffer = std::make_unique<CBufferIO>();
        m_moovBuffer->AttachSink(file);
        m_moov = std::make_unique<CMp4MoovAtom>(m_moovBuffer.get(), true, file);
    } else {
        m_moov = std::make_unique<CMp4MoovAtom>(file, false, nullptr);
    }
    if (large)
        m_moov->UseCo64();
    if (flags & MP4_OPEN_VERSION1)
        m_moov->SetLongDuration();
    m_mdat = std::move(mdat);  // last: a close that finds no moov is to finish no mdat either
}

void CMp4Muxer::WriteFileHead()
{
    // Kept: any "mov" in the whole path makes a QuickTime file, folder names included; it is no
    // test of the extension.
    const bool quickTime = std::wcsstr(m_path.c_str(), L"mov") != nullptr;
    m_ftyp->m_isQuickTime = quickTime;
    m_ftyp->Write();
    if (!quickTime)
        m_free->Write();
    m_mdat->Write();
    m_moov->m_trakAudio.m_mdia.m_minf.m_stbl.m_stsd.m_mov = quickTime;
    m_moov->m_trackTC.m_mdia.m_minf.m_useNmhd = !quickTime;
}

namespace {

// Milliseconds since the last reading, which moves to now.
std::int64_t Lap(std::int64_t& clock)
{
    const std::int64_t last = clock;
    clock = platform::ClockMs();
    return clock - last;
}

}  // namespace

std::uint32_t CMp4Muxer::Close()
{
    // 1. A failed writer decides the result; the close goes on regardless.
    std::uint32_t result = MP4_OK;
    if (m_pFile && !m_pFile->IsOpen())
        result = ErrorFromErrno(m_pFile->m_errno);
    const CMAutoLock hold(m_lock);

    // 2. The log is complete before the first byte of moov.
    if (m_infoWriter.IsOpen()) {
        m_infoWriter.Close();
        m_logIsWhole = true;
    }
    // What lacked memory wrote nothing wrong. Where neither a log nor a checkpoint has the
    // recording, its index as far as that goes is all that can find it.
    if (m_lackedMemory && m_pFile && m_pFile->m_state == kStateFailed && !m_logIsWhole &&
        !m_hasCheckpoint)
        m_pFile->m_state = kStateOpen;

    // 3. mdat, moov, and the end of the log; a throw skips what follows it in here.
    std::int64_t clock = platform::ClockMs();
    if (const auto failed = Guarded([&] { FinishFile(clock); }))
        result = *failed;

    // 4. The output. Its line counts from the last reading that was reached.
    m_nextMoovPos = kNoMoovPosition;
    if (m_pFile) {
        m_dataPos = static_cast<std::uint64_t>(m_pFile->Tell());
        m_pFile->Close();
    }
    LOG_INFO("Muxer - Close - uninit takes {} ms", Lap(clock));

    // 5. All objects, in this order.
    m_moovBuffer.reset();
    m_pFile.reset();
    m_ftyp.reset();
    m_free.reset();
    m_mdat.reset();
    m_moov.reset();
    return result;
}

void CMp4Muxer::FinishFile(std::int64_t& clock)
{
    if (m_safeMode) {
        if (m_nextMoovPos == kNoMoovPosition)
            m_nextMoovPos = m_safeParam.min_interval;  // Kept: the place that mdat was declared for
        LOG_INFO("mdat end update to {}", m_nextMoovPos);
        if (m_mdat)
            m_mdat->UpdateSize(m_nextMoovPos);
        Lap(clock);
        PrepareMoovBuffer();
        if (m_moov)
            m_moov->Write(m_nextMoovPos);
    } else {
        if (m_mdat)
            m_mdat->Finish();
        LOG_INFO("Muxer - Close - mdat finish takes {} ms", Lap(clock));
        PrepareMoovBuffer();
        if (m_moov)
            m_moov->Write();
    }
    LOG_INFO("Muxer - Close - moov write takes {} ms", Lap(clock));
    // Otherwise the stream would hand over its last bytes when it closes, behind the removal of the
    // log and with nobody to see it fail. A disk that fills up in them so fails the close and keeps
    // the log, and so does a power cut.
    FlushLocal();
    // A local file that failed while it recorded ends without its moov here, though nothing may
    // fail any more: the log is then all that can give it one. So may any that lacked memory.
    if (m_lackedMemory ||
        (m_pFile && !m_pFile->IsOpen() && m_pFile->IsLocal() && m_dataPos != 0))
        throw kv_mp4_exception(m_pFile->m_errno);
    // Kept: with an empty path, too; there is no log then, and its line comes all the same.
    platform::RemoveFile(m_infoPath.c_str());
    LOG_INFO("Muxer - Close - remove info file takes {} ms", Lap(clock));
}

// A flush that no box or checkpoint asks for. Local files only: a caller's own output sees exactly
// the calls of the recording itself.
void CMp4Muxer::FlushLocal()
{
    if (m_pFile && m_pFile->IsLocal() && m_pFile->IsOpen())
        m_pFile->Flush();
}

void CMp4Muxer::PrepareMoovBuffer()
{
    if (m_fastHeader && m_moovBuffer && m_moov)
        m_moovBuffer->AttachSink(m_pFile.get(), m_moov->GetSize());
}

void CMp4Muxer::FailWithoutMemory()
{
    // A time code comes by behind other failures, too, whose status stays.
    if (!m_pFile->IsOpen())
        return;
    m_pFile->m_state = kStateFailed;
    m_pFile->m_errno = ENOMEM;
    m_lackedMemory = true;
}

// ---- Queries -------------------------------------------------------------------------------

std::optional<std::uint32_t> CMp4Muxer::Refusal() const
{
    if (!m_pFile) {
        LOG_ERROR("file not open!");
        return MP4_ERR_NOT_OPEN;
    }
    if (!m_pFile->IsOpen())
        return ErrorFromErrno(m_pFile->m_errno);
    return std::nullopt;
}

std::uint64_t CMp4Muxer::GetDurationMS()
{
    if (!m_pFile || !m_pFile->IsOpen()) {
        LOG_ERROR("no open file, can't get duration");
        return 0;
    }
    const CMAutoLock hold(m_lock);
    return m_moov ? m_moov->GetDurationMS() : 0;
}

std::uint32_t CMp4Muxer::GetMoovSize() const
{
    return m_moov ? m_moov->GetSize() : 0;
}

double CMp4Muxer::GetVideoBitrate()
{
    return m_moov ? m_moov->m_trakVideo.GetBitrate() : -1.0;
}

double CMp4Muxer::GetAudioBitrate()
{
    return m_moov ? m_moov->m_trakAudio.GetBitrate() : -1.0;
}
