// The sample descriptions: one `stsd` class per kind of track with its single sample entry, and the
// configuration boxes inside the entries. Built from the values of the track's set-up; streams are
// not looked at, but for the walk of HEVC parameter sets in hevc_config.
#pragma once

#include "atom.h"
#include "hevc_config.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// A private copy of a parameter set. A length that reads as negative, 32768 or more, fails like the
// allocation of as many bytes.
std::unique_ptr<std::uint8_t[]> CopyNalUnit(const std::uint8_t* nal, std::int16_t size);

// A byte copy of the two parameter sets; no bit of them is interpreted.
class CMp4AvccAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    // Replaces the stored copies by the record's, each by its address.
    void SetCodecData(const mp4_video_track_info& info);
    void Write() override;  // raises 49 without a usable SPS and PPS
    std::uint32_t GetSize() const override { return m_size; }

    std::unique_ptr<std::uint8_t[]> m_sps;  // NAL unit without start code
    std::int16_t m_spsSize = 0;             // bytes
    std::unique_ptr<std::uint8_t[]> m_pps;
    std::int16_t m_ppsSize = 0;
    std::uint32_t m_size = 0;  // the box's calculated size
};

// The three parameter sets and what their walk found.
class CMp4HvccAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;

    // Starts afresh from the record's sets; a set whose walk fails is reported by Write.
    void SetCodecData(const mp4_video_track_info& info);
    void Write() override;  // raises 71 unless all three sets are usable
    std::uint32_t GetSize() const override { return m_size; }

    std::unique_ptr<std::uint8_t[]> m_sps;  // NAL unit without start code
    std::int16_t m_spsSize = 0;             // bytes; 0 means not usable
    std::unique_ptr<std::uint8_t[]> m_pps;
    std::int16_t m_ppsSize = 0;
    std::unique_ptr<std::uint8_t[]> m_vps;
    std::int16_t m_vpsSize = 0;
    std::unique_ptr<HEVCDecoderConfigurationRecord> m_config;  // points into the three copies
    std::uint32_t m_size = 0;                                  // the box's calculated size
};

// Kept: a member of the video description that no path writes; the entry has constants instead.
class CMp4FielAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 10; }

    std::uint8_t m_fields = 1;
};

class CMp4EsdsAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override;

    std::uint32_t m_esId = 0;  // the track id; the low 16 bits are written
    std::unique_ptr<std::uint8_t[]> m_config;  // decoder configuration, may be null
    std::uint32_t m_configSize = 0;            // bytes
};

// The QuickTime wrapper around `esds`.
class CMp4WaveAtom final : public CMp4Atom {
public:
    explicit CMp4WaveAtom(IBaseIO* io) : CMp4Atom(io), m_esds(io) {}
    void Write() override;
    // Kept: a constant; the real size is 40 + esds, and the size warning tells.
    std::uint32_t GetSize() const override { return 44; }

    std::uint32_t m_trackId = 0;  // Kept: stored and not written; set-ups of the tree hand it over
    CMp4EsdsAtom m_esds;
};

// Kept: a class of the tree that no path writes.
class CMp4TMCDUdatAtom final : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 28; }
};

class CMp4StsdAtom : public CMp4Atom {
public:
    using CMp4Atom::CMp4Atom;
    void Write() override;
    std::uint32_t GetSize() const override { return 16; }
    virtual void WriteSampleEntry() = 0;
};

class CMp4VideoStsdAtom final : public CMp4StsdAtom {
public:
    explicit CMp4VideoStsdAtom(IBaseIO* io)
        : CMp4StsdAtom(io), m_hvcc(io), m_avcc(io), m_fiel(io)
    {
    }
    std::uint32_t GetSize() const override;
    void WriteSampleEntry() override;
    // Type and compressor name by an MP4_PRORES_* number; an unknown one is logged.
    void SetProRes(const std::uint32_t* format);

    char m_fourcc[4] = {};  // entry type, in file byte order
    std::uint32_t m_width = 0;   // pixels; the low 16 bits are written
    std::uint32_t m_height = 0;
    std::int32_t m_family = -1;  // 2 for ProRes
    std::string m_proResType;    // the four-character code as text
    std::string m_compressor;
    CMp4HvccAtom m_hvcc;
    CMp4AvccAtom m_avcc;
    CMp4FielAtom m_fiel;
};

class CMp4AudioStsdAtom final : public CMp4StsdAtom {
public:
    explicit CMp4AudioStsdAtom(IBaseIO* io) : CMp4StsdAtom(io), m_wave(io), m_esds(io) {}
    // Kept: 52 + the 44 of "wave", in both forms; the size warning tells.
    std::uint32_t GetSize() const override { return 52 + m_wave.GetSize(); }
    void WriteSampleEntry() override;
    virtual void WriteEntryMp4();
    virtual void WriteEntryMov();

    char m_fourcc[4] = {};  // zero until set
    std::int32_t m_sampleRate = 0;  // Hz
    CMp4WaveAtom m_wave;
    CMp4EsdsAtom m_esds;
    std::uint8_t m_mov = 0;  // the QuickTime form

private:
    void EntryFields(CFieldWriter& f, std::uint16_t version, std::uint16_t compressionId) const;
};

class CMp4SubtitleStsdAtom final : public CMp4StsdAtom {
public:
    using CMp4StsdAtom::CMp4StsdAtom;
    std::uint32_t GetSize() const override { return 32; }
    void WriteSampleEntry() override;
    // The type by an MP4_SUBTITLE_* number; an unknown one is logged and changes nothing.
    void SetCodec(std::uint32_t codec);

    char m_fourcc[4] = {};  // zero until SetCodec
};

// Kept: the misspelt name is part of the class tree.
class CMp4TMCDStsdAutom final : public CMp4StsdAtom {
public:
    explicit CMp4TMCDStsdAutom(IBaseIO* io) : CMp4StsdAtom(io), m_udta(io) {}
    std::uint32_t GetSize() const override { return 52; }
    void WriteSampleEntry() override;

    CMp4TMCDUdatAtom m_udta;  // not written
    std::uint32_t m_timescale = 30000;
    std::uint32_t m_frameDuration = 1001;  // ticks
    std::uint32_t m_flags = 0;
    std::uint8_t m_frames = 0;  // frames per second
};
