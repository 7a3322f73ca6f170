#include "recovery/log_packets.h"

#include <stdexcept>

namespace kvtest {

namespace {

// Where a packet whose tag stands at `begin` ends.
std::size_t End(const Bytes& log, std::size_t begin)
{
    std::size_t at = begin + 1;
    const auto blob = [&] {
        const std::size_t size = BoxFile(Bytes(log.begin() + static_cast<std::ptrdiff_t>(at),
                                               log.begin() + static_cast<std::ptrdiff_t>(at + 4)))
                                     .U32(0);
        at += 4 + size;
    };
    switch (log[begin]) {
    case 1:
        at += 1;
        for (int n = 0; n < 3; ++n)  // key, value, namespace
            blob();
        return at;
    case 2: {
        const std::uint8_t codec = log[at + 12];
        at += 17;
        if (codec == 2)
            return at + 1;
        for (int n = 0; n < (codec == 1 ? 3 : 2); ++n)
            blob();
        return at;
    }
    case 3: return begin + 19;
    case 4: return begin + 22;
    case 5:
    case 7: return begin + 13;
    case 6: return begin + 6;
    case 8: return begin + 18;
    case 9: return begin + 5;
    default: throw std::runtime_error("a log with an unknown tag");
    }
}

}  // namespace

std::vector<LogPacket> LogPackets(const Bytes& log)
{
    std::vector<LogPacket> packets;
    for (std::size_t at = kLogHeader; at < log.size();) {
        const std::size_t end = End(log, at);
        if (end > log.size())
            throw std::runtime_error("a log that is cut");
        packets.push_back({log[at], at, end});
        at = end;
    }
    return packets;
}

}  // namespace kvtest
