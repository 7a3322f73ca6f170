// Regular expressions that mean the same on every system; GoogleTest's own do not.
#pragma once

#include <gmock/gmock.h>

#include <regex>
#include <string>

namespace kvtest {

MATCHER_P(Matches, pattern, "matches " + std::string(pattern))
{
    return std::regex_match(std::string(arg), std::regex(pattern));
}

}  // namespace kvtest
