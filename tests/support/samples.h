// The samples of a track as a player finds them: through its chunk, size and offset tables.
#pragma once

#include "support/boxes.h"

#include <string>
#include <vector>

namespace kvtest {

// The bytes of each sample of a track, "trak.clcp" and the like, in order; samples that no chunk
// holds are left out.
std::vector<Bytes> Samples(const BoxFile& file, const std::string& track);

}  // namespace kvtest
