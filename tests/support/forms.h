// Every file kind and every flag that could touch a sample: where it lies and how it is found.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace kvtest {

struct Form {
    const char* name;
    std::uint8_t flags;
};

inline constexpr Form kForms[] = {{"clip.mp4", 0x00}, {"clip.mp4", 0x02}, {"clip.mp4", 0x10},
                       {"clip.mp4", 0x08}, {"clip.mp4", 0x23}, {"clip.mov", 0x00},
                       {"clip.mov", 0x02}, {"clip.mov", 0x08}, {"clip.mov", 0x33}};

inline std::string FormName(const testing::TestParamInfo<Form>& info)
{
    return std::string(info.param.name + 5) + "_" + std::to_string(info.param.flags);
}

}  // namespace kvtest
