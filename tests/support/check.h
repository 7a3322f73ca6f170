// What a strict reader finds wrong with a finished file: sizes, nesting, tables that disagree, chunks
// outside mdat, samples that overlap, times that cannot be. An empty list is a sound file.
#pragma once

#include "support/boxes.h"

#include <string>
#include <vector>

namespace kvtest {

std::vector<std::string> CheckFile(const Bytes& bytes);

}  // namespace kvtest
