// Big-endian bytes in the order in which a box lists them.
#ifndef TESTS_MODEL_BIN_H
#define TESTS_MODEL_BIN_H

#include "model/image.h"

#include <string_view>

namespace model {

struct Bin {
    Bytes bytes;

    Bin& Number(uint64_t value, int width);
    Bin& U8(uint64_t value) { return Number(value, 1); }
    Bin& U16(uint64_t value) { return Number(value, 2); }
    Bin& U32(uint64_t value) { return Number(value, 4); }
    Bin& U64(uint64_t value) { return Number(value, 8); }
    Bin& Text(std::string_view text);
    Bin& Zeros(size_t count);
    Bin& Raw(const Bytes& more);
};

}  // namespace model

#endif
