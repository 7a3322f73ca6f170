// The fields of a box by their names, for the eye and for JSON. Tables are texts of runs, "3 x 40,
// 2 x 1", cut after a few unless all is asked for.
#pragma once

#include "box_tree.h"

#include <nlohmann/json.hpp>

nlohmann::ordered_json BoxFields(ByteSource& source, const Box& box, const Box& parent, bool all);
// A profile and a level as people say them: "High 3.1".
std::string AvcName(unsigned profile, unsigned compatibility, unsigned level);
std::string HevcName(unsigned profile, unsigned tier, unsigned level);
// Seconds since 1904 as a date; empty for 0.
std::string MacDate(std::uint64_t seconds);
