// Made-up streams: parameter sets, frames and captions, valid and broken.
#ifndef TESTS_MODEL_STREAMS_H
#define TESTS_MODEL_STREAMS_H

#include "model/random.h"
#include "model/sequence.h"

namespace model {

Bytes HevcVps(Random& random);
Bytes HevcSps(Random& random);
Bytes HevcPps(Random& random);

// As a caller's record has them; `codec` 0 H.264, 1 HEVC.
void GiveParameterSets(Random& random, uint32_t codec, Step& step);

Bytes VideoFrame(Random& random, uint32_t codec);
Bytes AudioFrame(Random& random, bool adts);
Bytes CaptionFrame(Random& random, uint32_t codec);

// An info file that no recording wrote.
Bytes MadeUpLog(Random& random);

}  // namespace model

#endif
