# The project's warnings; errors in its own builds (KV_MP4_WERROR), not for users.
add_library(kv_mp4_warnings INTERFACE)
target_compile_options(kv_mp4_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wformat=2
    -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast
        -Wextra-semi>
    $<$<BOOL:${KV_MP4_WERROR}>:-Werror>)
