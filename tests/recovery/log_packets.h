// The packets of an info file, told apart by their tags and lengths.
#pragma once

#include "support/boxes.h"

#include <vector>

namespace kvtest {

struct LogPacket {
    std::uint8_t tag;
    std::size_t begin;
    std::size_t end;
    bool IsTrack() const { return tag == 2 || tag == 3; }  // video or audio
    bool IsSample() const { return tag == 4 || tag == 5 || tag == 7 || tag == 9; }
};

constexpr std::size_t kLogHeader = 5;

// All packets of a whole log; throws when it has anything else.
std::vector<LogPacket> LogPackets(const Bytes& log);

}  // namespace kvtest
