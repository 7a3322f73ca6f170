# The fuzz targets' build: coverage for the fuzzer, and whatever a fault is first seen by.
if(KV_MP4_BUILD_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
    if(NOT KV_MP4_SANITIZE)
        set(KV_MP4_SANITIZE address,undefined)
    endif()
endif()

# KV_MP4_SANITIZE=address,undefined (or thread) instruments every target of the build.
if(KV_MP4_SANITIZE)
    add_compile_options(-fsanitize=${KV_MP4_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KV_MP4_SANITIZE})
endif()
