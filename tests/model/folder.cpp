#include "model/run.h"
#include "model/system.h"

#include <cerrno>
#include <filesystem>

namespace model {

namespace fs = std::filesystem;

namespace {

std::string LongFolder(const std::string& root)
{
    std::string path = root;
    for (int i = 0; i < 4; ++i) {
        path += "/" + std::string(190, static_cast<char>('a' + i));
    }
    return path;
}

size_t Characters(const std::string& text)
{
    size_t count = 0;
    for (const char c : text) {
        count += (static_cast<uint8_t>(c) & 0xC0) != 0x80 ? 1 : 0;
    }
    return count;
}

}  // namespace

Folder::Folder(const std::string& parent, const std::string& name)
    : m_root(parent + "/kvm" + name + std::to_string(ProcessNumber()))
{
    fs::create_directories(m_root + "/movies");
    fs::create_directories(m_root + "/folder");
    fs::create_directories(m_root + "/folderlog.mp4.info");
    fs::create_directories(LongFolder(m_root));
}

Folder::~Folder()
{
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
}

Place Folder::Find(const std::string& path) const
{
    Place place;
    place.path = m_root + "/" + path;
    if (path.starts_with("LONG")) {
        place.path = LongFolder(m_root) + "/";
        place.path.resize(std::stoul(path.substr(4)), 'z');
    }
    place.given = place.path;
    if (path == "CUT") {
        place.given = place.path + "\xFF.mov";
    }
    place.length = Characters(place.path);
    if (path == "none/clip.mp4") {
        place.openError = place.infoOpenError = ENOENT;
    } else if (path == "folder") {
        place.openError = kFolderError;
    } else if (path == "folderlog.mp4") {
        place.infoOpenError = kFolderError;
    } else if (path == "fulllog.mp4") {
        place.logError = ENOSPC;
    }
    return place;
}

}  // namespace model
