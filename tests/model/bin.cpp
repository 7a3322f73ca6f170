#include "model/bin.h"

namespace model {

Bin& Bin::Number(uint64_t value, int width)
{
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
    return *this;
}

Bin& Bin::Text(std::string_view text)
{
    bytes.insert(bytes.end(), text.begin(), text.end());
    return *this;
}

Bin& Bin::Zeros(size_t count)
{
    bytes.insert(bytes.end(), count, uint8_t{0});
    return *this;
}

Bin& Bin::Raw(const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return *this;
}

}  // namespace model
