#include "support/checkpoints.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kvtest {

std::vector<std::uint64_t> Checkpoints(const LogCapture& log)
{
    const std::string start = "info update moov header to ";
    std::vector<std::uint64_t> positions;
    for (const std::string& line : log.Lines())
        if (line.starts_with(start))
            positions.push_back(std::stoull(line.substr(start.size())));
    return positions;
}

void SetSafeParam(mp4_handle file, const mp4_safe_param& params)
{
    EXPECT_EQ(mp4_set_safe_param(file, &params), 0u);
}

SparseFile::SparseFile(std::uint8_t flags)
{
    EXPECT_EQ(mp4_create_file_adv(L"clip.mp4", flags, 0, 0, MP4_IO_EXTERNAL, sink.Table(), &file),
              0u);
    mp4_video_track_info info{};
    info.codec = MP4_VIDEO_PRORES;
    EXPECT_EQ(mp4_set_video_track(file, &info), 0u);
}

SparseFile::~SparseFile()
{
    if (file)
        mp4_close_file(file);
}

std::uint32_t SparseFile::Frame(std::uint32_t size)
{
    static const Bytes bytes(4096, 1);
    return mp4_write_video_frame(file, bytes.data(), size, m_time++);
}

void SparseFile::GoTo(std::uint64_t position)
{
    mp4_safe_param params{};
    EXPECT_EQ(mp4_get_safe_param(file, &params), 0u);
    SetSafeParam(file, {99, 0, 0, 0});
    // In steps that are never small, so that none of their bytes are kept.
    while (sink.Position() < position) {
        const std::uint64_t left = position - sink.Position();
        EXPECT_GT(left, 4096u);
        EXPECT_EQ(Frame(static_cast<std::uint32_t>(std::min<std::uint64_t>(left, 0x10000000))),
                  0u);
    }
    SetSafeParam(file, params);
}

std::uint64_t SparseFile::CheckpointAt(std::uint64_t position, const mp4_safe_param& params)
{
    GoTo(position);
    const std::size_t before = Checkpoints(log).size();
    SetSafeParam(file, params);
    EXPECT_EQ(Frame(1), 0u);
    const auto positions = Checkpoints(log);
    return positions.size() == before ? 0 : positions.back();
}

std::uint32_t SparseFile::Close()
{
    const mp4_handle closing = file;
    file = nullptr;
    return mp4_close_file(closing);
}

}  // namespace kvtest
