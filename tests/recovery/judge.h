// Whether a file is what it should be: a strict walk of its boxes, the bytes of each sample through
// its tables, and libavformat, which opens it from memory.
#pragma once

#include "recovery/take.h"

#include <string>
#include <vector>

namespace kvtest {

// What a reader finds in a file whose recorder died: the moov at the end of mdat, with the samples
// of a checkpoint and nothing else. Empty when all is well.
std::string JudgeCheckpoint(const Take& take, const Checkpoint& checkpoint, const Bytes& file);

// The same of a file that ends with its moov. With `overwritten`, bytes behind the end of mdat may
// be lost, as a repair leaves them when there are time codes.
std::string JudgeFile(const Take& take, const Counts& counts, const Bytes& file,
                      bool overwritten = false);

// How a verdict names a sample, and a wrong number of them.
std::string Where(Track track, std::size_t n);
std::string WrongCount(Track track, std::size_t is, std::size_t wanted);

// libavformat alone; where a build has none, all is well for it.
std::string JudgeByLibavformat(const Take& take, const Counts& counts, const Bytes& file,
                               std::uint64_t mediaEnd);

}  // namespace kvtest
