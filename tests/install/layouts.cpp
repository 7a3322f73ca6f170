// The same layouts for a caller in C++, and what only it sees.
#include "layouts.h"

#include <type_traits>

static_assert(sizeof(kv_mp4_exception) == 4, "kv_mp4_exception");
static_assert(offsetof(kv_mp4_exception, code) == 0, "kv_mp4_exception.code");
static_assert(!std::is_polymorphic<kv_mp4_exception>::value, "kv_mp4_exception has no table");
