// Boxes as one line of text, for expectations that read like the table they are about:
//   stts  3 x 40, 2 x 1            count x delta
//   stsz  13, 14   stsz  5 x 14    each size, or the compact form
//   stsc  1:3, 3:2                 first chunk : samples, with #index where that is not 1
//   stco  44, 86   co64  52        offsets
//   stss  1, 26                    sample numbers
//   elst  1000 from 0              duration in the movie, media time
//   mvhd  1000/1000 next 3         duration/timescale, next track id
//   tkhd  1000 id 1 160x120        duration, then "group", "volume 1" and "flags" if not 0, 0 and 3
//   mdhd  90000/90000 und          duration/timescale, language
// An empty table is "none"; " v1" follows the name of a box in version 1; a box whose size is not
// what it says is "malformed", any other is its bytes.
#pragma once

#include "support/boxes.h"

#include <gmock/gmock.h>

#include <string>

namespace kvtest {

std::string Text(const Bytes& box);

MATCHER_P(ReadsAs, text, "")
{
    const std::string is = Text(arg);
    *result_listener << "which reads \"" << is << "\"";
    return is == text;
}

}  // namespace kvtest
