// Writes of a caller's output that end in an exception of the caller's own.
#pragma once

#include "support/external_sink.h"

#include <stdexcept>

namespace kvtest {

// While it lives, the writes of a sink throw what is none of the library's, after so many good ones.
class ThrowingWrites {
public:
    ThrowingWrites(ExternalSink& sink, int good) : m_table(sink.Table())
    {
        g_write = m_table->write;
        g_good = good;
        m_table->write = [](void* context, const void* data, std::uint32_t size) {
            if (g_good-- == 0)
                throw std::runtime_error("an output of the caller's");
            return g_write(context, data, size);
        };
    }
    ~ThrowingWrites() { m_table->write = g_write; }
    ThrowingWrites(const ThrowingWrites&) = delete;
    ThrowingWrites& operator=(const ThrowingWrites&) = delete;

private:
    ExternalIoFuncs* m_table;
    static inline decltype(ExternalIoFuncs::write) g_write = nullptr;
    static inline int g_good = 0;
};

}  // namespace kvtest
