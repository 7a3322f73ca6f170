// Repair of any log beside any media file: it ends, it takes no room that the log does not speak
// for, it leaves the log alone unless asked, and a second run changes nothing.
#include "fuzz.h"

#include <algorithm>
#include <fstream>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLook = std::size_t{1} << 20;  // bytes at either end that are compared

void Put(const fs::path& path, const std::uint8_t* data, std::size_t size)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

// The size and both ends: a log may place the index many gigabytes away, in a file full of holes.
struct Look {
    std::uintmax_t size = 0;
    fuzz::Bytes begin;
    fuzz::Bytes end;
    bool operator==(const Look&) const = default;
};

Look LookAt(const fs::path& path)
{
    Look look;
    look.size = fs::file_size(path);
    const auto length = static_cast<std::size_t>(std::min<std::uintmax_t>(look.size, kLook));
    std::ifstream file(path, std::ios::binary);
    const auto read = [&](std::uintmax_t from, fuzz::Bytes& bytes) {
        bytes.resize(length);
        file.seekg(static_cast<std::streamoff>(from));
        file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
    };
    read(0, look.begin);
    read(look.size - length, look.end);
    return look;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Silence();
    if (size < 3)
        return 0;
    // The first bytes choose the kind, the option and how much media there is.
    const bool quickTime = data[0] & 1;
    const auto option = static_cast<std::uint8_t>(data[0] >> 1 & 1);
    const std::size_t mediaSize = (std::size_t{data[1]} << 8 | data[2]) % 5000;
    const fs::path media = fuzz::Folder() / (quickTime ? "a.mov" : "a.mp4");
    const fs::path log = media.string() + ".info";
    fuzz::Bytes bytes(mediaSize);
    for (std::size_t i = 0; i < mediaSize; ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7);
    Put(media, bytes.data(), bytes.size());
    Put(log, data + 3, size - 3);

    const std::uint32_t status = mp4_repair_file_ex(media.c_str(), option);
    const Look after = LookAt(media);
    if (status != MP4_OK) {
        // Nothing is cut on a failure, nor is the log removed.
        FUZZ_CHECK(after.size >= mediaSize);
        FUZZ_CHECK(LookAt(log).size == size - 3);
    } else if (option != 0) {
        FUZZ_CHECK(!fs::exists(log));
    } else {
        FUZZ_CHECK(LookAt(log).begin == fuzz::Bytes(data + 3, data + size));
        FUZZ_CHECK(mp4_repair_file_ex(media.c_str(), 0) == MP4_OK);
        FUZZ_CHECK(LookAt(media) == after);
    }
    fs::remove(media);
    fs::remove(log);
    return 0;
}
