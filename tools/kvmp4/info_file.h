// The log beside a recording, FILE.info: packets one behind the other, each a tag and its fields.
// Nothing tells where a packet ends but its own fields.
#pragma once

#include "byte_source.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

struct InfoPacket {
    std::uint64_t offset;
    std::string name;  // "video frame"
    nlohmann::ordered_json fields;
};

struct InfoFile {
    std::uint8_t flags = 0;
    std::uint32_t mdatPosition = 0;
    nlohmann::ordered_json counts = nlohmann::ordered_json::object();  // by name
    std::uint64_t packets = 0;
    std::uint64_t end = 0;          // behind the last whole packet
    std::string stopped;            // why there, where that is not the end of the file
    bool damaged = false;           // what follows is no packet at all
    std::vector<InfoPacket> setUp;  // tracks and metadata
};

// Whether a file begins as a log does.
bool LooksLikeInfoFile(ByteSource& source);
// Shows each packet to `each`, if that is one.
InfoFile ReadInfoFile(ByteSource& source, const std::function<void(const InfoPacket&)>& each);
// The open flags by their names.
std::string InfoFlags(std::uint8_t flags);
