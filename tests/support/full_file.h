// A file that a stream opens and whose every byte the system refuses, as on a full disk.
#pragma once

#include "support/folder.h"

#if defined(_WIN32)
#include "support/file_size_limit.h"
#endif

#include <string>

namespace kvtest {

#if defined(_WIN32)

class FullFile {
public:
    std::wstring Path() const { return (m_folder / "full").wstring(); }

private:
    const Folder m_folder;
    const FileSizeLimit m_limit{0, L"full"};
};

#else

class FullFile {
public:
    std::wstring Path() const { return L"/dev/full"; }
};

#endif

}  // namespace kvtest
