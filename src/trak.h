// The track boxes: header, edit list, references, and the bookkeeping of times from which every
// duration of a track is computed. When a chunk begins is decided above.
#pragma once

#include "mdia.h"

#include <array>
#include <cstdint>
#include <deque>

class CMp4TkhdAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return m_version ? 104 : 92; }

    std::uint8_t m_version = 0;
    std::uint64_t m_duration = 0;  // in the movie's timescale
    std::uint32_t m_trackId = 0;
    std::uint32_t m_width = 0;   // pixels
    std::uint32_t m_height = 0;
    std::uint16_t m_alternateGroup = 0;
    std::uint8_t m_notEnabled = 0;
};

class CMp4ElstAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return m_version == 1 ? 36 : 28; }

    std::uint8_t m_version = 0;
    std::uint64_t m_duration = 0;  // in the movie's timescale
};

class CMp4EdtsAtom final : public CMp4Atom {
public:
    explicit CMp4EdtsAtom(IBaseIO* io) : CMp4Atom(io), m_elst(io) {}
    void Write() override;
    std::uint32_t GetSize() const override { return 8 + m_elst.GetSize(); }

    CMp4ElstAtom m_elst;
};

class CMp4RefTrackTypeAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 4 * m_count + 8; }

    std::uint32_t m_type = 0;  // 10: a time-code reference
    std::array<std::uint32_t, 8> m_trackIds{};
    std::uint32_t m_count = 0;
};

class CMp4RefTrakAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override;
    void AddTimeCode(std::uint32_t trackId);

    std::deque<CMp4RefTrackTypeAtom> m_references;
};

class CMp4TrakAtom : public CMp4Atom {
public:
    explicit CMp4TrakAtom(IBaseIO* io) : CMp4Atom(io), m_tkhd(io), m_edts(io) {}
    // Nothing for a track that was never set or has no samples.
    void Write() override;
    virtual std::uint64_t GetSampleCount() const = 0;
    virtual void SetLongDuration();
    virtual std::uint32_t GetTimescale() const = 0;
    virtual std::uint64_t GetDataSize() const { return 0; }
    // KiB per second; 0.0 without a duration.
    virtual double GetBitrate();
    virtual void WriteMedia() = 0;
    virtual void WriteReferences() = 0;

    // The track's duration in its own timescale. Kept: latches m_lastDuration when it was 0, so
    // that the value of the first checkpoint stays for the rest of the file.
    std::uint64_t GetDuration();
    // Enters a time as the latest; m_firstTime is the callers'.
    void AdvanceTime(std::uint64_t time);
    // Sets the id here and in the header.
    void SetTrackId(std::uint32_t trackId);

    std::uint32_t m_trackId = 0;  // 0: never set
    CMp4TkhdAtom m_tkhd;
    CMp4EdtsAtom m_edts;
    std::uint32_t m_movieTimescale = 0;  // set by the moov before each Write
    std::uint64_t m_firstTime = 0;       // ticks
    std::uint64_t m_lastTime = 0;
    std::uint32_t m_lastDuration = 0;  // duration given to the last sample
    std::uint32_t m_lastDelta = 0;     // difference of the two latest times

protected:
    // 8, the header, the edit list and what a kind adds; 0 when unset or empty.
    std::uint32_t SizeWith(std::uint32_t rest) const;
};

class CMp4VideoTrakAtom final : public CMp4TrakAtom {
public:
    explicit CMp4VideoTrakAtom(IBaseIO* io);
    std::uint32_t GetSize() const override;
    std::uint64_t GetSampleCount() const override { return m_sampleCount; }
    void SetLongDuration() override;
    std::uint32_t GetTimescale() const override { return m_info.timescale; }
    std::uint64_t GetDataSize() const override { return m_mdia.GetDataSize(); }
    void WriteMedia() override;
    void WriteReferences() override;

    void AddSample(std::uint64_t offset, std::uint32_t size, std::uint64_t presentationTime,
                   std::uint64_t decodingTime, bool keyFrame, bool newChunk);
    void AddTrackReference(std::uint32_t trackId);

    mp4_video_track_info m_info{};  // its parameter-set pointers are not used
    CMp4VideoMdiaAtom m_mdia;
    CMp4RefTrakAtom m_tref;
    std::uint64_t m_sampleCount = 0;
    std::uint8_t m_hasTref = 0;
};

class CMp4AudioTrakAtom final : public CMp4TrakAtom {
public:
    explicit CMp4AudioTrakAtom(IBaseIO* io);
    std::uint32_t GetSize() const override { return SizeWith(m_mdia.GetSize()); }
    std::uint64_t GetSampleCount() const override { return m_sampleCount; }
    void SetLongDuration() override;
    std::uint32_t GetTimescale() const override { return m_info.timescale; }
    std::uint64_t GetDataSize() const override { return m_mdia.GetDataSize(); }
    void WriteMedia() override;
    void WriteReferences() override {}

    mp4_audio_track_info m_info{};
    CMp4AudioMdiaAtom m_mdia;
    std::uint64_t m_sampleCount = 0;
};

class CMp4SubtitleTrakAtom final : public CMp4TrakAtom {
public:
    explicit CMp4SubtitleTrakAtom(IBaseIO* io) : CMp4TrakAtom(io), m_mdia(io) {}
    std::uint32_t GetSize() const override { return SizeWith(m_mdia.GetSize()); }
    std::uint64_t GetSampleCount() const override { return m_sampleCount; }
    void SetLongDuration() override;
    std::uint32_t GetTimescale() const override { return m_timescale; }
    void WriteMedia() override;
    void WriteReferences() override {}

    std::uint32_t m_codec = 0;         // MP4_SUBTITLE_*
    std::uint32_t m_timescale = 1000;  // ticks per second
    CMp4SubtitleMdiaAtom m_mdia;
    std::uint64_t m_sampleCount = 0;
};

class CMp4TCTrakAtom final : public CMp4TrakAtom {
public:
    explicit CMp4TCTrakAtom(IBaseIO* io) : CMp4TrakAtom(io), m_mdia(io) {}
    std::uint32_t GetSize() const override { return SizeWith(m_mdia.GetSize()); }
    std::uint64_t GetSampleCount() const override { return m_sampleCount; }
    void SetLongDuration() override;
    std::uint32_t GetTimescale() const override { return m_info.timescale; }
    void WriteMedia() override;
    void WriteReferences() override {}

    CMp4TCMdiaAtom m_mdia;
    mp4_time_code_track_info m_info{};  // its timescale may be 0
    std::uint64_t m_sampleCount = 0;    // counted by the muxer
};
