// The whole log of a recording, also after the close that deletes it: a second name holds the file.
#pragma once

#include "support/boxes.h"

#include <filesystem>

namespace kvtest {

class KeptLog {
public:
    // Of a recording that has its info file by now.
    explicit KeptLog(const std::filesystem::path& info) : m_kept(info.string() + ".kept")
    {
        std::filesystem::create_hard_link(info, m_kept);
    }
    // What has reached the system so far; all of it once the recording is closed.
    Bytes Read() const { return BoxFile::Read(m_kept).All(); }
    std::uintmax_t Size() const { return std::filesystem::file_size(m_kept); }

private:
    std::filesystem::path m_kept;
};

}  // namespace kvtest
