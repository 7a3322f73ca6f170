// Random numbers that are the same everywhere for a seed.
#ifndef TESTS_MODEL_RANDOM_H
#define TESTS_MODEL_RANDOM_H

#include "model/image.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace model {

class Random {
public:
    // The draws go round one circle of 2 to the power of 64 numbers. Where a seed begins on it is
    // mixed, as neighbouring seeds would else begin one draw apart.
    explicit Random(uint64_t seed) : m_state(Mix(seed + 0x632BE59BD9B4E019u)) {}

    uint64_t Next()
    {
        m_state += 0x9E3779B97F4A7C15u;
        return Mix(m_state);
    }
    // 0 to below `end`.
    uint32_t Below(uint64_t end) { return static_cast<uint32_t>(Next() % end); }
    bool Chance(uint32_t percent) { return Below(100) < percent; }
    // Mostly small, of any size up to below 2 to the power of `bits`.
    uint64_t Spread(uint32_t bits)
    {
        const uint32_t width = Below(bits + 1);
        return width == 0 ? 0 : Next() >> (64 - width);
    }
    uint32_t Spread32(uint32_t bits) { return static_cast<uint32_t>(Spread(bits)); }
    uint8_t Byte() { return static_cast<uint8_t>(Next()); }
    Bytes Some(size_t size)
    {
        Bytes bytes(size);
        for (uint8_t& byte : bytes) {
            byte = Byte();
        }
        return bytes;
    }
    template <class T>
    T Pick(std::initializer_list<T> values)
    {
        return values.begin()[Below(values.size())];
    }

private:
    static uint64_t Mix(uint64_t z)
    {
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }

    uint64_t m_state;
};

}  // namespace model

#endif
