#ifndef TESTS_MODEL_GENERATE_H
#define TESTS_MODEL_GENERATE_H

#include "model/sequence.h"

namespace model {

// The sequence of a seed.
Sequence Generate(uint64_t seed);

}  // namespace model

#endif
