// The tree of one file: movie header, the four tracks, user data. It takes the set-up of tracks and
// every sample, and can be written whole at any moment; where and when it lands is decided above.
#pragma once

#include "ilst.h"
#include "trak.h"

#include <cstdint>

class CMp4MvhdAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return m_version ? 120 : 108; }

    std::uint8_t m_version = 0;
    std::uint32_t m_maxTrackId = 1;
    std::uint64_t m_duration = 0;  // milliseconds
};

class CMp4MoovAtom final : public CMp4Atom {
public:
    // Staged: `io` is a memory buffer and `finalSink` the file behind it.
    CMp4MoovAtom(IBaseIO* io, bool staged, IBaseIO* finalSink);

    // At the sink's position, the way of a close.
    void Write() override;
    // At a given position of the file, leaving the sink where it was: the way of a checkpoint.
    void Write(std::uint64_t position);
    std::uint32_t GetSize() const override;

    // Of video or audio, whichever is longer.
    std::uint64_t GetDurationMS();
    void SetLongDuration();  // video and audio only
    void UseCo64();          // all but captions
    void SetVideoTrack(const mp4_video_track_info& info);
    void SetAudioTrack(const mp4_audio_track_info& info);
    void SetSubtitleTrack(const mp4_subtitle_track_info& info);
    void SetTimeCodeTrack(const mp4_time_code_track_info& info);
    void AddAudioSample(std::uint64_t offset, std::uint32_t size, std::uint64_t time);
    void AddSubtitleSample(std::uint64_t offset, std::uint32_t size, std::uint64_t time);

    std::uint32_t m_trackCount = 0;  // tracks set so far; also the last id given out
    CMp4MvhdAtom m_mvhd;
    CMp4VideoTrakAtom m_trakVideo;
    CMp4AudioTrakAtom m_trakAudio;
    CMp4TCTrakAtom m_trackTC;
    CMp4SubtitleTrakAtom m_trakSubtitle;
    std::uint32_t m_lastTrackId = 0;  // of the previous sample; drives the chunk rule
    std::uint8_t m_staged;
    IBaseIO* m_finalSink;  // not owned; null when not staged
    CMp4UdtaAtom m_udta;

private:
    void TakeId(CMp4TrakAtom& track);
    template <typename Track>
    void AddSample(Track& track, std::uint64_t offset, std::uint32_t size, std::uint64_t time);

    void WriteHeaderAndMainTracks();
    void WriteTimeCodeTrack();
    void WriteTrack(CMp4TrakAtom& track);
    void CheckSize(std::uint32_t written) const;
};
