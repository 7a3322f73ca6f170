// Splits an Annex B frame into its NAL units, and tells their types and key frames for H.264 and
// HEVC (ITU-T H.264 and H.265). Nothing is copied, filtered or rewritten, and no bit behind a NAL
// header is read.
#pragma once

#include <cstdint>
#include <vector>

// One NAL unit of a frame, of any type in spite of the name.
struct _VIDEO_SLICE {
    std::uint32_t size;        // bytes, header included, start code not
    const std::uint8_t* data;  // inside the caller's frame
};

// The parser is its own result list; the records live as long as the frame.
class CVideoFrameParser : public std::vector<_VIDEO_SLICE> {
public:
    virtual ~CVideoFrameParser() = default;

    // Empties the list and fills it anew; true if it holds a record.
    bool Parse(const std::uint8_t* frame, std::uint32_t size);
};

class IVideoNalParser {
public:
    virtual ~IVideoNalParser() = default;
    // Of `nal` only the first byte is read.
    virtual std::uint8_t GetNalType(const std::uint8_t* nal, std::uint32_t size) const = 0;
    virtual bool IsSliceNal(const std::uint8_t* nal, std::uint32_t size) const = 0;
    virtual bool IsKeyFrame(const std::uint8_t* nal, std::uint32_t size) const = 0;
};

class CH264Nal final : public IVideoNalParser {
public:
    std::uint8_t GetNalType(const std::uint8_t* nal, std::uint32_t size) const override;
    bool IsSliceNal(const std::uint8_t* nal, std::uint32_t size) const override;
    bool IsKeyFrame(const std::uint8_t* nal, std::uint32_t size) const override;
};

class CHevcNal final : public IVideoNalParser {
public:
    std::uint8_t GetNalType(const std::uint8_t* nal, std::uint32_t size) const override;
    bool IsSliceNal(const std::uint8_t* nal, std::uint32_t size) const override;
    bool IsKeyFrame(const std::uint8_t* nal, std::uint32_t size) const override;
};
