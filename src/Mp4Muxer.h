// The object behind one open output file: its life from create to close, the set-up of tracks, the
// frame paths, the checkpoints of the safe mode and the info file. Bytes of boxes are the tree's
// business, handles and the process-wide lock the exports'.
#pragma once

#include "info_format.h"
#include "lock.h"
#include "moov.h"
#include "video_parser.h"

#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

class CMp4FtypAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    // Kept: 28 also in a QuickTime file, whose box has 20; nothing that is written counts on it.
    std::uint32_t GetSize() const override { return m_hasAvc1 ? 32 : 28; }

    std::uint8_t m_hasAvc1 = 0;  // never set: the box is written before any track is known
    std::uint8_t m_isQuickTime = 0;
};

class CMp4FreeAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 8; }
};

// Only the header; the samples follow it directly.
class CMp4MdatAtom final : public CMp4Atom {
public:
    CMp4MdatAtom(IBaseIO* io, bool large) : CMp4Atom(io), m_large(large) {}
    void Write() override;
    std::uint32_t GetSize() const override { return 0; }
    // Ends the box at the sink's position.
    void Finish();
    // Declares that the box runs up to `end`. Kept: always the 32-bit field, also of a large box,
    // whose 64-bit size then counts as payload; checkpoints rely on one 4-byte write.
    void UpdateSize(std::uint64_t end);

    std::uint64_t m_start = 0;  // position of the box's first byte
    std::uint8_t m_large;
};

struct VideoFrame {
    std::uint32_t size;  // bytes
    const std::uint8_t* data;
    std::uint64_t pts;  // ticks
    std::uint64_t dts;
    std::uint8_t key;
};

struct AudioFrame {
    std::uint32_t size;  // bytes
    const std::uint8_t* data;
    std::uint64_t timestamp;  // ticks
};

using SubtitleFrame = AudioFrame;

// No checkpoint has been made yet; also the failure value of CalcNextMoovPosition.
inline constexpr std::uint64_t kNoMoovPosition = ~std::uint64_t{0};
inline constexpr std::uint64_t kWriteBehind = 1 << 20;

class CMp4Muxer {
public:
    CMp4Muxer() = default;
    ~CMp4Muxer() = default;
    CMp4Muxer(const CMp4Muxer&) = delete;
    CMp4Muxer& operator=(const CMp4Muxer&) = delete;

    // ---- Life
    std::uint32_t Create(const wchar_t* path, std::uint32_t block_size, std::uint32_t block_count,
                         std::uint8_t flags, std::uint32_t io_mode, ExternalIoFuncs* pFunc);
    // Also the clean-up of a failed Create: any member may still be null.
    std::uint32_t Close();

    // ---- Queries
    std::uint64_t GetDurationMS();
    std::uint32_t GetMoovSize() const;
    double GetVideoBitrate();  // KiB per second; -1.0 without a moov
    double GetAudioBitrate();

    // ---- Set-up
    std::uint32_t SetVideoTrack(const mp4_video_track_info* info);
    std::uint32_t SetAudioTrack(const mp4_audio_track_info* info);
    std::uint32_t SetSubtitleTrack(const mp4_subtitle_track_info* info);
    std::uint32_t SetTimeCodeTrack(const mp4_time_code_track_info* info);
    std::uint32_t SetMetadata(const char* key, const void* value, std::uint32_t size,
                              std::uint32_t type, const char* key_namespace);

    // ---- Frames
    std::uint32_t WriteVideoFrame(const VideoFrame& frame);
    std::uint32_t WriteAudioFrame(const AudioFrame& frame);
    std::uint32_t WriteSubtitleFrame(const SubtitleFrame& frame);
    std::uint32_t WriteTimeCode(std::uint32_t value);

    // ---- Safe mode and info file
    std::uint32_t SetSafeParam(const mp4_safe_param* params);
    std::uint32_t GetSafeParam(mp4_safe_param* params) const;
    // Ahead of `size` bytes of data: the next checkpoint when they could reach the moov in force.
    // False when there is no place for it. Under m_lock, in one hold with the frame that follows: a
    // lock of its own would be the better part of what safe mode costs between checkpoints.
    bool CheckSafeWrite(std::uint32_t size);
    std::uint64_t CalcNextMoovPosition(std::int64_t position) const;
    // 4 when it changed the interval, 0 when it refused.
    std::uint32_t SetInfoFlushInterval(std::uint32_t interval);

private:
    // Life, step by step.
    std::uint32_t OpenInfoFile(const wchar_t* path, std::uint8_t flags);
    std::uint32_t OpenWriter(std::uint32_t block_size, std::uint32_t block_count,
                             std::uint32_t io_mode, ExternalIoFuncs* pFunc);
    void MakeBoxes(std::uint8_t flags);
    void WriteFileHead();
    void FinishFile(std::int64_t& clock);  // `clock`: its last reading, moved on by each step
    void FlushLocal();
    // Once for each kWriteBehind of data.
    void WriteBehind()
    {
        if (m_dataPos < m_writeBehindPos)
            return;
        m_pFile->BeginEarly();
        m_writeBehindPos = m_dataPos + kWriteBehind;
    }
    void PrepareMoovBuffer();
    std::uint32_t FailCreate(std::uint32_t status);

    // Runs what must not end half done: the entry of a sample whose bytes lie in the file, and a
    // checkpoint. Without memory for it neither the file nor the log can name those bytes, and all
    // that follows would be looked for in the wrong place: the output counts as failed, which keeps
    // the last checkpoint and the log. No catch-all: a thread that is cancelled goes through.
    template <typename Body>
    void NeedingMemory(Body body)
    {
        try {
            body();
        } catch (const CNoMemory&) {
            FailWithoutMemory();
            throw;
        } catch (const std::bad_alloc&) {
            FailWithoutMemory();
            throw;
        }
    }
    void FailWithoutMemory();

    // The status that keeps a call from working, or nothing.
    std::optional<std::uint32_t> Refusal() const;

    bool GetVideoCodecData(const CVideoFrameParser& parser);
    std::uint32_t TakeVideoTrack(const mp4_video_track_info& info);
    std::uint32_t AnnounceVideoTrack(const mp4_video_track_info& info);
    // Runs a set-up of the video; without memory for it `undo`, as no picture may go to a track that
    // cannot describe it.
    template <typename SetUp, typename Undo>
    void SettingUp(SetUp setUp, Undo undo)
    {
        try {
            setUp();
        } catch (const std::bad_array_new_length&) {
            throw;  // Kept: a length that reads as negative; callers' frames go on without the set
        } catch (const std::bad_alloc&) {
            undo();
            throw;
        }
    }
    std::uint32_t AnnounceAudioTrack();
    void WriteNalUnits(const CVideoFrameParser& parser, std::uint32_t& size, bool& key);
    bool WriteCC608(const std::uint8_t* data, std::uint32_t size, std::uint32_t& sampleSize);
    bool WriteCC708(const std::uint8_t* data, std::uint32_t size, std::uint32_t& sampleSize);

    // Info packets; called only while the info writer is open. A failure closes it.
    template <typename Fields>
    std::uint32_t WriteInfo(Fields fields);
    std::uint32_t WriteInfoHeader(std::uint8_t flags);
    std::uint32_t WriteInfoMdatPosition(std::uint32_t position);  // ends the header and flushes
    std::uint32_t WriteInfoVideoTrack(const mp4_video_track_info& info);
    std::uint32_t WriteInfoAudioTrack(const mp4_audio_track_info& info);
    std::uint32_t WriteInfoSubtitleTrack(const mp4_subtitle_track_info& info);
    std::uint32_t WriteInfoTimeCodeTrack(const mp4_time_code_track_info& info);
    std::uint32_t WriteInfoMetadata(const char* key, const void* value, std::uint32_t size,
                                    std::uint32_t type, const char* key_namespace);
    std::uint32_t WriteInfoVideoFrame(std::uint32_t size, std::uint64_t pts, std::uint64_t dts,
                                      bool key);
    std::uint32_t WriteInfoAudioFrame(std::uint32_t size, std::uint64_t timestamp);
    std::uint32_t WriteInfoSubtitleFrame(std::uint32_t size, std::uint64_t timestamp);
    std::uint32_t WriteInfoTimeCode(std::uint32_t value);
    std::uint32_t FlushInfo();

    std::unique_ptr<IFileIO> m_pFile;  // the output writer
    bool m_lackedMemory = false;       // and failed for that
    bool m_safeMode = false;
    bool m_hasCheckpoint = false;  // a moov is in force
    bool m_logIsWhole = false;     // it lived until the close
    std::uint64_t m_nextMoovPos = kNoMoovPosition;  // of the moov in force
    mp4_safe_param m_safeParam{1, 0xA00000, 0x6400000, 0x40000000};
    CFileWriter m_infoWriter;  // closed: the info file is off
    std::uint32_t m_infoFrames = 0;         // video frames written to the info file
    std::uint32_t m_infoFlushedFrames = 0;  // m_infoFrames at the last flush
    std::uint32_t m_infoFlushInterval = 900;
    std::wstring m_infoPath;  // empty unless asked for
    std::wstring m_path;
    std::uint64_t m_dataPos = 0;  // where the next sample goes
    std::uint64_t m_writeBehindPos = kWriteBehind;  // where the system is next asked to begin early
    mp4_video_track_info m_videoInfo{};
    std::vector<std::uint8_t> m_foundSps;  // copies behind the pointers of m_videoInfo
    std::vector<std::uint8_t> m_foundPps;
    std::vector<std::uint8_t> m_foundVps;
    // The parameter sets are known; true at first, so that a frame before SetVideoTrack meets the
    // test for a track.
    bool m_videoReady = true;
    mp4_audio_track_info m_audioInfo{};
    bool m_audioReady = false;          // the audio sample description is known
    std::uint32_t m_subtitleCodec = 0;  // MP4_SUBTITLE_*
    std::unique_ptr<CMp4FtypAtom> m_ftyp;
    std::unique_ptr<CMp4FreeAtom> m_free;
    std::unique_ptr<CMp4MdatAtom> m_mdat;
    std::unique_ptr<CMp4MoovAtom> m_moov;
    std::unique_ptr<CBufferIO> m_moovBuffer;  // only with MP4_OPEN_FAST_HEADER
    bool m_fastHeader = false;
    std::unique_ptr<IVideoNalParser> m_nalParser;  // null for ProRes
    CMLock m_lock;
};

// Runs a guarded stretch: nothing when it ended well, else the status of what was thrown. `other`
// runs for an exception that is none of the I/O layer's.
template <typename Body, typename Other>
std::optional<std::uint32_t> Guarded(Body body, Other other)
{
    try {
        body();
    } catch (const kv_mp4_exception& error) {
        return ErrorFromErrno(error.code);
    } catch (...) {
        other();
        return MP4_ERR_FAILED;
    }
    return std::nullopt;
}

template <typename Body>
std::optional<std::uint32_t> Guarded(Body body)
{
    return Guarded(body, [] {});
}
