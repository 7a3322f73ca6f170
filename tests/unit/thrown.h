// What a failing call throws, as a number.
#pragma once

#include "kv_mp4.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

// An integer, or the code of the I/O layer's exception; INT32_MIN for nothing. What the call prints
// is in `printed`.
template <typename Call>
std::int32_t CodeOf(Call call, std::string* printed = nullptr)
{
    testing::internal::CaptureStdout();
    std::int32_t code = INT32_MIN;
    try {
        call();
    } catch (const kv_mp4_exception& error) {
        code = error.code;
    } catch (int number) {
        code = number;
    }
    const std::string text = testing::internal::GetCapturedStdout();
    if (printed)
        *printed = text;
    return code;
}
